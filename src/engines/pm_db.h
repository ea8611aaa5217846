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

// A sum of non-negative nanosecond figures that cannot overflow: whole
// seconds and the nanoseconds left over (below 10^9). Four thousand million
// samples of ten seconds each are 4.3e10 seconds.
struct PmSum {
  uint64_t sec;
  uint32_t ns;
};
void cfm_pm_sum_add(PmSum *sum, int64_t ns);           // ns >= 0
int64_t cfm_pm_sum_mean(const PmSum &sum, uint32_t n);  // n > 0

// The most a residence time or a two-way delay may be; beyond it (or below
// zero) the reply is discarded and counted as invalid.
constexpr int64_t CFM_PM_MAX_DELAY_NS = 10000000000LL;

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
  uint32_t due;         // sending times passed (a frame that could not go counts too)
  uint8_t dst_mac[6];   // where the latest frame went
  // Results.
  uint32_t sent, received, invalid;
  int64_t delay_min_ns, delay_max_ns, last_delay_ns, dv_max_ns;
  PmSum delay_sum, dv_sum;
  uint32_t dv_count;
  // The SLRs with the lowest and the highest TxFCf: loss is taken from the
  // differences between them.
  uint32_t first_txfcf, first_txfcb, last_txfcf, last_txfcb;
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
// A test ID no running loss session uses (held: PmLock).
uint32_t cfm_pm_fresh_test_id();

// Counts one more SLM of (src_mep, test_id) and returns the count (1 for the
// first).
uint32_t cfm_pm_count_slm(PmMep *pm, uint16_t src_mep, uint32_t test_id);

// The local MEP a received PM frame is for. The destination must be the
// router's own MAC (the system MAC, or a PVC address when such are
// configured) or, when allow_group, the level's multicast class 1 address
// (then only Down MEPs qualify). Of the MEPs on the packet's VID whose MD
// has the frame's level, the one `score` rates highest (0 or more) is
// taken, the first of equals. Returns its score, -1 when there is none.
using PmMepScore = int (*)(const MepEntry &mep, const CfmPacket *packet);
int cfm_pm_local_mep(const CfmPacket *packet, uint8_t level, bool allow_group, PmMepScore score, MepEntry *mep);
// A remote MEP learnt in the MA with the given MEPID (0: any) and MAC (null:
// any); its MAC goes to mac_out when that is not null.
bool cfm_pm_remote_mep(uint32_t md_id, uint32_t ma_id, uint16_t rmep_id, const uint8_t *mac, uint8_t *mac_out);
// Scores 1 for a MEP whose MA has learnt a remote MEP at the frame's source
// MAC: the requests of a peer go to the MEP it is a peer of.
int cfm_pm_score_peer(const MepEntry &mep, const CfmPacket *packet);

// The packet's receive time: the kernel's stamp, or now when it has none.
struct CfmStamp cfm_pm_rx_stamp(const CfmPacket *packet);

// Sends a finished frame to the WAN with a timestamp written at stamp_at
// (offset in frame) just before it leaves. CFM_OK or CFM_ERR_FAILURE.
uint32_t cfm_pm_send_stamped(const uint8_t *frame, size_t len, uint8_t priority, size_t stamp_at);
uint32_t cfm_pm_send(const uint8_t *frame, size_t len, uint8_t priority);
