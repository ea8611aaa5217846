// Fault notification: per MEP, the defects seen by reception and the time
// checks, kept apart from the MEP record (whose CcmDefect, flags and timers
// are not touched), and a fault notification generator that turns them into
// fault-alarm and fault-cleared events. Runs under MEP_SYC: the hooks from
// the CCM receiver, the evaluation from the timer tick.
#pragma once
#include <cstdint>

#include "db/mep_mip.h"
#include "db/rmep_db.h"

enum CfmFngState : uint8_t {
  kFngReset = 1,
  kFngDefect = 2,
  kFngReportDefect = 3,
  kFngDefectReported = 4,
  kFngDefectClearing = 5,
};

// One MEP's generator. `reported` is the defect last raised (0 none).
struct FngMachine {
  uint8_t state = kFngReset;
  uint8_t reported = 0;
  int64_t deadline_ms = 0;
};

enum class FngOutput : uint8_t { None, Alarm, Cleared };

// One evaluation at now_ms. `defect` is the highest defect code present at
// or above the MEP's alarm priority (0: none). An alarm comes once a defect
// has lasted alarm_ms, again when a higher one appears while raised; a
// clear once no defect has lasted reset_ms after an alarm. m->reported names
// the defect of the alarm or of the alarm being cleared.
FngOutput cfm_fng_step(FngMachine *m, uint8_t defect, int64_t now_ms, int64_t alarm_ms, int64_t reset_ms);

// Loss of continuity: 3.5 periods of an interval code, in ms (0 for the
// 3.3 ms code, which no MA has: such a CCM is an error CCM).
int64_t cfm_fng_loss_ms(uint8_t interval);

// Hooks of the CCM receiver: a valid CCM from a remote MEP (`interval` as it
// announced), an error CCM and a cross-connect CCM at the MEP.
void cfm_fault_ccm_heard(const MepEntry &mep, const RemoteMepEntry &remote, uint8_t interval);
void cfm_fault_error_ccm(const MepEntry &mep, uint8_t interval);
void cfm_fault_xcon_ccm(const MepEntry &mep, uint8_t interval);

// One evaluation per tick, riding on the fault-alarm timer's walk of the
// MEPs (no walk of its own): begin, every MEP's defects and generator (the
// events posted), then end (MEPs not met are forgotten; linktraces due are
// reported).
void cfm_fault_tick_begin();
void cfm_fault_evaluate(const MepEntry &mep);
void cfm_fault_tick_end();

// The highest defect of the MEP now, whatever its alarm priority (0 none).
uint8_t cfm_fault_highest_defect(const MepEntry &mep);

// Monotonic milliseconds used by the fault layer; tests put in a fake clock
// (null: the real one) and forget every MEP's state.
int64_t cfm_fault_now_ms();
void cfm_fault_set_clock(int64_t (*now_ms)());
