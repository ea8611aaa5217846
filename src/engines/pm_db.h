// Performance-monitoring state of the local MEPs: per-MEP counters of the
// delay and synthetic-loss frames, the per-test SLM counters of the
// responder, and the initiator sessions with their results. Switched on by
// option -y; without it no PM frame is looked at and nothing here is used.
//
// Locking: one mutex guards every record (PmLock). The receive and timer
// tasks take it inside MEP_SYC; the command server takes it alone.
#pragma once
#include <cstdint>
#include <mutex>

struct MepEntry;
struct CfmPacket;

bool cfm_pm_enabled();
void cfm_pm_enable(bool on);

constexpr int CFM_PM_MAX_MEP = 64;
// SLM tests counted per MEP; a new test beyond this replaces the one heard
// from longest ago, so no station can grow the table.
constexpr int CFM_PM_MAX_TESTS = 64;

struct PmCounters {
  uint32_t dmm_in, dmr_out, dmm_out, dmr_in, one_dm_in, one_dm_out;
  uint32_t slm_in, slr_out, slm_out, slr_in;
};

struct PmSlTest {
  uint16_t src_mep;
  uint32_t test_id;
  uint32_t count;     // SLMs received so far for this test
  uint64_t last_use;  // recency, for replacement
};

// A 1DM session only sends; the peer takes the one-way delay.
enum PmKind { kPmDm = 0, kPmSlm = 1, kPm1Dm = 2, kPmKinds = 3 };

struct PmSession {
  uint32_t state;  // 0 never run, 1 running, 2 finished
  uint8_t target_mac[6];
  uint16_t target_mep;
  uint32_t by_mepid;
  uint32_t count;      // 0: continuous
  uint32_t period_ms;  // 100, 1000 or 10000
  uint8_t priority;
  uint32_t test_id;
  int64_t next_due_ms;  // monotonic
  int64_t end_ms;       // after the last send: when the run finishes
  // Results.
  uint32_t sent, received;
  int64_t delay_min_ns, delay_max_ns, delay_sum_ns, last_delay_ns;
  int64_t dv_sum_ns, dv_max_ns;
  uint32_t dv_count;
  uint32_t last_txfcf, last_txfcb;  // of the latest SLR
  uint32_t negative;                // delays below zero (counted as zero)
};

// The latest two-way delays of a MEP's delay session, for the median.
constexpr int CFM_PM_RECENT = 32;

struct PmMep {
  uint32_t used;
  uint32_t md_id, ma_id;
  uint16_t mep_id;
  PmCounters c;
  PmSlTest tests[CFM_PM_MAX_TESTS];
  uint64_t test_clock;
  PmSession s[kPmKinds];
  int64_t recent_ns[CFM_PM_RECENT];
  // One-way delays of received 1DMs (meaningful only with synchronised clocks).
  uint32_t one_dm_count;
  int64_t one_dm_last_ns, one_dm_min_ns, one_dm_max_ns;
};

using PmLock = std::lock_guard<std::mutex>;
std::mutex &cfm_pm_mutex();

// Record of a MEP (held under PmLock); created when `create` and there is
// room (records of MEPs that no longer exist are reused). Null otherwise.
PmMep *cfm_pm_find(uint32_t md_id, uint32_t ma_id, uint16_t mep_id, bool create);
PmMep *cfm_pm_at(int index);  // walk 0..CFM_PM_MAX_MEP-1; null for a free slot
void cfm_pm_reset();           // forgets everything (tests)

// Counts one more SLM of (src_mep, test_id) and returns the count (1 for the
// first).
uint32_t cfm_pm_count_slm(PmMep *pm, uint16_t src_mep, uint32_t test_id);

// The local MEP a received PM frame is for: a MEP on the packet's VID whose
// MD has the frame's level. The destination must be the router's own MAC
// (the system MAC, or a PVC address when such are configured) or, when
// allow_group, the level's multicast class 1 address for a Down MEP.
bool cfm_pm_local_mep(const CfmPacket *packet, uint8_t level, bool allow_group, MepEntry *mep);

// The packet's receive time: the kernel's stamp, or now when it has none.
struct CfmStamp cfm_pm_rx_stamp(const CfmPacket *packet);

// Sends a finished frame to the WAN with a timestamp written at stamp_at
// (offset in frame) just before it leaves. CFM_OK or CFM_ERR_FAILURE.
uint32_t cfm_pm_send_stamped(const uint8_t *frame, size_t len, uint8_t priority, size_t stamp_at);
uint32_t cfm_pm_send(const uint8_t *frame, size_t len, uint8_t priority);
