#include "engines/fng.h"

#include <ctime>
#include <cstring>

#include "core/events.h"
#include "db/md_ma.h"
#include "engines/ccm_tx.h"
#include "engines/lt_done.h"

namespace {

// One remote MEP as the fault layer last heard it.
struct RemoteHeard {
  uint16_t rmep;
  int64_t last_ms;
  int64_t loss_ms;
  bool rdi;
  bool mac_down;
};

// The fault layer's own state of one MEP.
struct MepFault {
  bool used;
  bool seen;  // met by the current tick's walk
  MepKey key;
  int64_t since_ms;  // made or enabled: the start of "none heard"
  int64_t error_until_ms;
  int64_t xcon_until_ms;
  int remotes;
  RemoteHeard remote[CFM_MAX_REMOTE_MEP];
  FngMachine fng;
};

MepFault g_meps[CFM_MAX_MEP];
int g_slots = 0;  // slots ever used: the walks stop there
int64_t (*g_clock)() = nullptr;
int64_t g_last_tick_ms = 0;
int64_t g_tick_now = 0;  // the time of the tick being evaluated
bool g_ticked = false;

// A pause of the ticks this long means CFM was off: what was heard before
// says nothing now, so every MEP waits afresh as if just made.
constexpr int64_t kPauseMs = 3000;

// Port Status "up" and Interface Status "up"; 0 is a TLV that was not sent.
constexpr uint8_t kPortUp = 2;
constexpr uint8_t kInterfaceUp = 1;

// The slots in use or free below the high-water mark.
MepFault *slots_begin() { return g_meps; }
MepFault *slots_end() { return g_meps + g_slots; }

bool same_key(const MepKey &key, const MepEntry &mep) {
  return key.md_id == mep.md_id && key.ma_id == mep.ma_id && key.mep_id == mep.mep_id && key.port == mep.port &&
         key.vid == mep.vid && key.direction == mep.direction;
}

MepFault *find(const MepEntry &mep) {
  for (MepFault *f = slots_begin(); f != slots_end(); ++f) {
    if (f->used && same_key(f->key, mep)) return f;
  }
  return nullptr;
}

// The MEP's state, made when first met.
MepFault *find_or_make(const MepEntry &mep, int64_t now) {
  if (MepFault *f = find(mep)) return f;
  MepFault *f = slots_begin();
  while (f != slots_end() && f->used) ++f;
  if (f == g_meps + CFM_MAX_MEP) return nullptr;
  if (f == slots_end()) g_slots += 1;
  *f = MepFault{};
  f->used = true;
  f->key = {mep.md_id, mep.ma_id, mep.mep_id, mep.port, mep.vid, mep.direction};
  f->since_ms = now;
  return f;
}

int64_t ma_loss_ms(uint32_t ma_id) {
  MaNetEntry ma;
  memset(&ma, 0, sizeof ma);
  ma.MaIndex = ma_id;
  return cfm_fng_loss_ms(CFM_Get_MA_Net_Entry(&ma) == 1 ? ma.CcmInterval : 0);
}

uint8_t highest_of(const MepFault &f, int64_t now, int64_t none_heard_loss_ms) {
  if (now < f.xcon_until_ms) return kDefectCrossConnect;
  if (now < f.error_until_ms) return kDefectErrorCcm;
  if (f.remotes == 0 && now - f.since_ms >= none_heard_loss_ms) return kDefectRemoteCcm;
  uint8_t highest = kDefectNone;
  for (int i = 0; i < f.remotes; ++i) {
    const RemoteHeard &r = f.remote[i];
    if (now - r.last_ms >= r.loss_ms) return kDefectRemoteCcm;
    if (r.mac_down) highest = kDefectMacStatus;
    if (r.rdi && highest == kDefectNone) highest = kDefectRdi;
  }
  return highest;
}

void post_fault(const MepFault &f, CfmEventKind kind, uint8_t defect) {
  CfmEvent event = cfm_event_make(kind, f.key.md_id, f.key.ma_id, f.key.mep_id, f.key.vid);
  event.defect = defect;
  cfm_event_post(event);
}

void evaluate(MepFault *f, const MepEntry &mep, int64_t now) {
  uint8_t defect = highest_of(*f, now, ma_loss_ms(mep.ma_id));
  if (defect < mep.LowestAlarmPriority) defect = kDefectNone;
  uint8_t reported = f->fng.reported;
  FngOutput out = cfm_fng_step(&f->fng, defect, now, int64_t{mep.FngAlarmTime} * 10, int64_t{mep.FngResetTime} * 10);
  if (out == FngOutput::Alarm) post_fault(*f, CfmEventKind::FaultAlarm, f->fng.reported);
  if (out == FngOutput::Cleared) post_fault(*f, CfmEventKind::FaultCleared, reported);
}

void hold_until(int64_t MepFault::*field, const MepEntry &mep, uint8_t interval) {
  int64_t now = cfm_fault_now_ms();
  MepFault *f = find_or_make(mep, now);
  if (f != nullptr) f->*field = now + cfm_fng_loss_ms(interval);
}

}  // namespace

FngOutput cfm_fng_step(FngMachine *m, uint8_t defect, int64_t now_ms, int64_t alarm_ms, int64_t reset_ms) {
  for (int pass = 0; pass < 4; ++pass) {
    switch (m->state) {
      case kFngReset:
        if (defect == kDefectNone) return FngOutput::None;
        m->state = kFngDefect;
        m->deadline_ms = now_ms + alarm_ms;
        break;
      case kFngDefect:
        if (defect == kDefectNone) {
          m->state = kFngReset;
          return FngOutput::None;
        }
        if (now_ms < m->deadline_ms) return FngOutput::None;
        m->state = kFngReportDefect;
        break;
      case kFngReportDefect:
        m->reported = defect;
        m->state = kFngDefectReported;
        return FngOutput::Alarm;
      case kFngDefectReported:
        if (defect > m->reported) {
          m->state = kFngReportDefect;
          break;
        }
        if (defect != kDefectNone) return FngOutput::None;
        m->state = kFngDefectClearing;
        m->deadline_ms = now_ms + reset_ms;
        break;
      default:  // clearing
        if (defect != kDefectNone) {
          m->state = kFngDefectReported;
          break;
        }
        if (now_ms < m->deadline_ms) return FngOutput::None;
        m->state = kFngReset;
        m->reported = kDefectNone;
        return FngOutput::Cleared;
    }
  }
  return FngOutput::None;
}

int64_t cfm_fng_loss_ms(uint8_t interval) {
  uint32_t loss = 0;
  cfm_ccm_interval_lookup(interval, nullptr, &loss, nullptr);
  return loss;
}

void cfm_fault_ccm_heard(const MepEntry &mep, const RemoteMepEntry &remote, uint8_t interval) {
  int64_t now = cfm_fault_now_ms();
  MepFault *f = find_or_make(mep, now);
  if (f == nullptr) return;
  RemoteHeard *r = nullptr;
  for (int i = 0; i < f->remotes && r == nullptr; ++i) {
    if (f->remote[i].rmep == remote.rmep_id) r = &f->remote[i];
  }
  if (r == nullptr) {
    if (f->remotes >= CFM_MAX_REMOTE_MEP) return;
    r = &f->remote[f->remotes++];
    r->rmep = remote.rmep_id;
  }
  r->last_ms = now;
  r->loss_ms = cfm_fng_loss_ms(interval);
  r->rdi = remote.RdiReceived != 0;
  r->mac_down = (remote.PortStatus != 0 && remote.PortStatus != kPortUp) ||
                (remote.InterfaceStatus != 0 && remote.InterfaceStatus != kInterfaceUp);
}

void cfm_fault_error_ccm(const MepEntry &mep, uint8_t interval) {
  hold_until(&MepFault::error_until_ms, mep, interval);
}

void cfm_fault_xcon_ccm(const MepEntry &mep, uint8_t interval) { hold_until(&MepFault::xcon_until_ms, mep, interval); }

void cfm_fault_tick_begin() {
  g_tick_now = cfm_fault_now_ms();
  bool resumed = !g_ticked || g_tick_now - g_last_tick_ms > kPauseMs;
  g_ticked = true;
  g_last_tick_ms = g_tick_now;
  for (MepFault *f = slots_begin(); f != slots_end(); ++f) {
    f->seen = false;
    if (!resumed) continue;
    f->since_ms = g_tick_now;
    f->remotes = 0;
  }
}

void cfm_fault_evaluate(const MepEntry &mep) {
  MepFault *f = find_or_make(mep, g_tick_now);
  if (f == nullptr) return;
  f->seen = true;
  evaluate(f, mep, g_tick_now);
}

void cfm_fault_tick_end() {
  cfm_lt_done_check(g_tick_now);
  // A deleted MEP's state goes with it; made again, it starts afresh.
  for (MepFault *f = slots_begin(); f != slots_end(); ++f) {
    if (!f->seen) f->used = false;
  }
  while (g_slots > 0 && !g_meps[g_slots - 1].used) g_slots -= 1;
}

uint8_t cfm_fault_highest_defect(const MepEntry &mep) {
  const MepFault *f = find(mep);
  if (f == nullptr) return kDefectNone;
  return highest_of(*f, cfm_fault_now_ms(), ma_loss_ms(mep.ma_id));
}

int64_t cfm_fault_now_ms() {
  if (g_clock != nullptr) return g_clock();
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

void cfm_fault_set_clock(int64_t (*now_ms)()) {
  g_clock = now_ms;
  g_ticked = false;
  for (MepFault &f : g_meps) f.used = false;
  g_slots = 0;
}
