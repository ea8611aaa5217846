// Performance-monitoring sessions: dispatch of the received PM opcodes, the
// initiators' sending (each frame at its own time, on a task of its own),
// starting and stopping sessions, and the report of results (standard output
// and "/runtime/cfm/pm/...").
#pragma once
#include <cstdint>
#include <cstdio>

#include "engines/pm_db.h"

struct CfmPacket;

// Hands a received frame of a PM opcode to its engine (held: MEP_SYC).
void cfm_pm_dispatch(CfmPacket *packet, uint8_t opcode);

// Every running session whose next frame is due sends it (one frame each:
// a session that fell behind resumes its period from now rather than send
// a burst), and a session past its last reply time finishes. Held: MEP_SYC.
void CFM_PM_XMIT_Check();
// Starts the task that calls CFM_PM_XMIT_Check whenever a session's next
// frame or end falls due (only with -y).
void cfm_pm_task_start();
// The monotonic clock in milliseconds the sessions run on (a test may put
// its own; null restores the system's).
void cfm_pm_set_clock(int64_t (*now_ms)());

struct PmStartRequest {
  PmKind kind;
  uint32_t md_id, ma_id;
  uint16_t mep_id;
  uint8_t target_mac[6];
  uint16_t target_mep;  // used when by_mepid
  bool by_mepid;
  uint32_t count;  // 0: continuous
  uint32_t period_ms;
  uint8_t priority;
  uint32_t test_id;
  bool test_id_set;  // else a loss session gets a test ID no running session uses
};
// Periods a session may use.
bool cfm_pm_period_ok(uint32_t period_ms);
// Starts (or restarts, clearing the results) a session. CFM_OK;
// CFM_DB_NOT_FOUND when the target is a remote MEPID the MA has not learnt
// (the earlier results stay); CFM_ERR_FAILURE when the MEP does not exist,
// the period or priority is not allowed, or no record is free.
uint32_t cfm_pm_start(const PmStartRequest &req);
// Stops a running session and keeps its results. CFM_OK or CFM_ERR_FAILURE.
uint32_t cfm_pm_stop(PmKind kind, uint32_t md_id, uint32_t ma_id, uint16_t mep_id);

// Results of one session as reported; a figure whose has_ flag is false
// was never measured.
struct PmResult {
  uint32_t sent, received, lost, invalid;
  bool has_delay, has_dv;
  int64_t delay_min_ns, delay_avg_ns, delay_max_ns, dv_avg_ns, dv_max_ns;
  int64_t delay_median_ns;  // of the latest CFM_PM_RECENT
  // Loss between the first and the last SLR: far-end (SLMs that did not
  // reach the peer) and near-end (SLRs that did not come back).
  bool has_far, has_near;
  uint32_t near_lost, far_lost;
  double near_ratio, far_ratio;  // 0..1
};
PmResult cfm_pm_result(const PmMep &pm, PmKind kind);

// Prints the DMM/DMR/SLM/SLR counters of one MEP (nothing for a MEP that
// never saw a PM frame); showmep adds them under each MEP with -y.
void cfm_pm_print_counters(FILE *out, uint32_t md_id, uint32_t ma_id, uint16_t mep_id);

// Prints every MEP's counters and sessions (text or JSON) and writes them to
// the configuration tree.
void cfm_pm_report(FILE *out, bool json);
