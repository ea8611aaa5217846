#include "engines/pm_session.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cinttypes>
#include <cstring>
#include <ctime>
#include <iterator>
#include <vector>

#include "core/config_tree.h"
#include "core/events.h"
#include "core/global.h"
#include "core/hwaddr.h"
#include "core/os.h"
#include "core/status.h"
#include "db/md_ma.h"
#include "db/mep_mip.h"
#include "db/rmep_db.h"
#include "engines/dm.h"
#include "engines/pm_pdu.h"
#include "engines/slm.h"

using namespace cfm;

namespace {

// A session that sent its last frame waits this long for late replies.
constexpr int64_t kReplyGraceMs = 2000;
// The task looks again at least this often when nothing is due.
constexpr int64_t kIdleWaitMs = 1000;
constexpr uint8_t kMaxPriority = 7;
const char *const kKindName[kPmKinds] = {"dm", "slm", "1dm"};

int64_t monotonic_ms() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}
int64_t (*g_clock)() = monotonic_ms;

// The task sleeps on g_wake (monotonic clock) until the next due time or a
// new session; plain POSIX calls, as the standard library's would bring its
// exception machinery into the small build.
pthread_mutex_t g_wake_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t g_wake;
bool g_kicked = false;
std::atomic<bool> g_task_started{false};

bool find_mep(uint32_t md_id, uint32_t ma_id, uint16_t mep_id, MepEntry *mep) {
  *mep = {};
  mep->md_id = md_id;
  mep->ma_id = ma_id;
  mep->mep_id = mep_id;
  return CFM_GetNext_MEP_Entry(mep) == 1 && mep->md_id == md_id && mep->ma_id == ma_id && mep->mep_id == mep_id;
}

// The target's MAC: as given, or that of the remote MEP learnt in the MA.
bool resolve_target(const PmSession &s, const MepEntry &mep, uint8_t *dst) {
  if (s.by_mepid) return cfm_pm_remote_mep(mep.md_id, mep.ma_id, s.target_mep, nullptr, dst);
  memcpy(dst, s.target_mac, kMacLen);
  return true;
}

bool done_sending(const PmSession &s) { return s.count != 0 && s.due >= s.count; }

// Ends the session (held: PmLock) and posts its pm-done event.
void finish(PmMep *pm, PmKind kind, bool stopped) {
  pm->s[kind].state = 2;
  MepEntry mep = {};
  find_mep(pm->md_id, pm->ma_id, pm->mep_id, &mep);
  CfmEvent event = cfm_event_make(CfmEventKind::PmDone, pm->md_id, pm->ma_id, pm->mep_id, mep.vid);
  PmResult r = cfm_pm_result(*pm, kind);
  event.pm = kKindName[kind];
  event.stopped = stopped;
  event.sent = r.sent, event.replies = r.received, event.lost = r.lost, event.invalid = r.invalid;
  event.has_delay = r.has_delay;
  event.delay_min_ns = r.delay_min_ns, event.delay_avg_ns = r.delay_avg_ns, event.delay_max_ns = r.delay_max_ns;
  event.has_near = r.has_near, event.has_far = r.has_far;
  event.near_loss = r.near_ratio, event.far_loss = r.far_ratio;
  cfm_event_post(event);
}

void run_session(PmMep *pm, PmKind kind, int64_t now) {
  PmSession &s = pm->s[kind];
  MepEntry mep;
  MdEntry md = {};
  md.MdIndex = pm->md_id;
  if (!find_mep(pm->md_id, pm->ma_id, pm->mep_id, &mep) || CFM_Get_MD_Entry(&md) != 1) {
    finish(pm, kind, false);
    return;
  }
  if (done_sending(s)) {
    if (now >= s.end_ms) finish(pm, kind, false);
    return;
  }
  if (now < s.next_due_ms) return;
  // A target that cannot be resolved now (a remote MEP aged out) lets this
  // sending time pass, so a counted session still ends.
  if (resolve_target(s, mep, s.dst_mac)) {
    if (kind != kPmSlm) {
      cfm_dm_send(mep, pm, s.dst_mac, md.MdLevel, kind == kPm1Dm);
    } else {
      cfm_slm_send(mep, pm, s.dst_mac, md.MdLevel);
    }
  }
  s.due += 1;
  s.next_due_ms += s.period_ms;
  if (s.next_due_ms <= now) s.next_due_ms = now + s.period_ms;
  if (done_sending(s)) s.end_ms = now + kReplyGraceMs;
}

// When the task must look next: the earliest due frame or session end.
int64_t next_wake(int64_t now) {
  PmLock lock(cfm_pm_mutex());
  int64_t wake = now + kIdleWaitMs;
  for (int i = 0; i < CFM_PM_MAX_MEP; ++i) {
    const PmMep *pm = cfm_pm_at(i);
    for (int k = 0; pm != nullptr && k < kPmKinds; ++k) {
      const PmSession &s = pm->s[k];
      if (s.state == 1) wake = std::min(wake, done_sending(s) ? s.end_ms : s.next_due_ms);
    }
  }
  return wake;
}

void *pm_task(void *) {
  for (;;) {
    int64_t wake = next_wake(g_clock());
    struct timespec at = {static_cast<time_t>(wake / 1000), static_cast<long>(wake % 1000) * 1000000};
    pthread_mutex_lock(&g_wake_mutex);
    while (!g_kicked && pthread_cond_timedwait(&g_wake, &g_wake_mutex, &at) == 0) {
    }
    g_kicked = false;
    pthread_mutex_unlock(&g_wake_mutex);
    GlobalEntry global;
    CFM_IF_Get_Global_Entry(&global);
    if (global.status != 1) {
      CFM_OS_Sleep(kIdleWaitMs);  // nothing is sent while CFM is off
      continue;
    }
    MepSycLock sync;
    CFM_PM_XMIT_Check();
  }
  return nullptr;
}

void kick_task() {
  if (!g_task_started.load()) return;
  pthread_mutex_lock(&g_wake_mutex);
  g_kicked = true;
  pthread_cond_signal(&g_wake);
  pthread_mutex_unlock(&g_wake_mutex);
}

double ratio(uint32_t part, uint32_t whole) { return whole == 0 ? 0.0 : static_cast<double>(part) / whole; }

// Loss from the differences between the first and the last SLR: far-end =
// dTxFCf - dTxFCb, near-end = dTxFCb - dRxFCl, where RxFCl is this side's
// own count of SLRs (every one received lies between the two).
void loss_result(const PmSession &s, PmResult *r) {
  if (s.received == 0) return;
  uint32_t d_txf = s.last_txfcf - s.first_txfcf;
  uint32_t d_txb = std::min(s.last_txfcb - s.first_txfcb, d_txf);  // modulo 2^32; no more than were sent
  uint32_t d_rx = s.received - 1;
  r->far_lost = d_txf - d_txb;
  r->near_lost = d_txb > d_rx ? d_txb - d_rx : 0;
  r->has_far = d_txf > 0;
  r->has_near = d_txb > 0;
  r->far_ratio = ratio(r->far_lost, d_txf);
  r->near_ratio = ratio(r->near_lost, d_txb);
}

void put_tree(const PmMep &pm, PmKind kind, int row) {
  const PmSession &s = pm.s[kind];
  PmResult r = cfm_pm_result(pm, kind);
  const char *k = kKindName[kind];
  ConfigTree::setInt(static_cast<int>(pm.md_id), "/runtime/cfm/pm/%s:%d/md", k, row);
  ConfigTree::setInt(static_cast<int>(pm.ma_id), "/runtime/cfm/pm/%s:%d/ma", k, row);
  ConfigTree::setInt(pm.mep_id, "/runtime/cfm/pm/%s:%d/mep", k, row);
  ConfigTree::setStr(s.state == 1 ? "running" : "finished", "/runtime/cfm/pm/%s:%d/state", k, row);
  ConfigTree::setInt(static_cast<int>(r.sent), "/runtime/cfm/pm/%s:%d/sent", k, row);
  ConfigTree::setInt(static_cast<int>(r.received), "/runtime/cfm/pm/%s:%d/received", k, row);
  ConfigTree::setInt(static_cast<int>(r.lost), "/runtime/cfm/pm/%s:%d/lost", k, row);
  ConfigTree::setInt(static_cast<int>(r.invalid), "/runtime/cfm/pm/%s:%d/invalid", k, row);
  char text[32];
  if (kind == kPmDm) {
    const int64_t v[] = {r.delay_min_ns, r.delay_avg_ns, r.delay_max_ns, r.delay_median_ns, r.dv_avg_ns, r.dv_max_ns};
    const char *names[] = {"delay_min_ns", "delay_avg_ns", "delay_max_ns", "delay_median_ns", "dv_avg_ns", "dv_max_ns"};
    static_assert(sizeof v / sizeof v[0] == sizeof names / sizeof names[0]);
    for (size_t i = 0; i < std::size(v); ++i) {
      snprintf(text, sizeof text, "%" PRId64, v[i]);
      ConfigTree::setStr(text, "/runtime/cfm/pm/%s:%d/%s", k, row, names[i]);
    }
  } else if (kind == kPmSlm) {
    ConfigTree::setInt(static_cast<int>(s.test_id), "/runtime/cfm/pm/%s:%d/test_id", k, row);
    snprintf(text, sizeof text, "%.4f", r.near_ratio);
    ConfigTree::setStr(text, "/runtime/cfm/pm/%s:%d/near_loss", k, row);
    snprintf(text, sizeof text, "%.4f", r.far_ratio);
    ConfigTree::setStr(text, "/runtime/cfm/pm/%s:%d/far_loss", k, row);
  }
}

// ,"key":value or ,"key":null
void json_int(FILE *out, const char *key, bool has, int64_t value) {
  if (has) {
    fprintf(out, ",\"%s\":%" PRId64, key, value);
  } else {
    fprintf(out, ",\"%s\":null", key);
  }
}
void json_ratio(FILE *out, const char *key, bool has, double value) {
  if (has) {
    fprintf(out, ",\"%s\":%.4f", key, value);
  } else {
    fprintf(out, ",\"%s\":null", key);
  }
}

void json_session(FILE *out, const PmMep &pm, PmKind kind) {
  const PmSession &s = pm.s[kind];
  PmResult r = cfm_pm_result(pm, kind);
  fprintf(out, "{\"kind\":\"%s\",\"md\":%u,\"ma\":%u,\"mep\":%u,\"state\":\"%s\"", kKindName[kind], pm.md_id,
          pm.ma_id, pm.mep_id, s.state == 1 ? "running" : "finished");
  json_int(out, "test_id", kind == kPmSlm, s.test_id);
  if (s.by_mepid) {
    fputs(",\"target_mac\":null", out);
  } else {
    const uint8_t *m = s.target_mac;
    fprintf(out, ",\"target_mac\":\"%02x:%02x:%02x:%02x:%02x:%02x\"", m[0], m[1], m[2], m[3], m[4], m[5]);
  }
  json_int(out, "target_rmep", s.by_mepid, s.target_mep);
  fprintf(out, ",\"period_ms\":%u,\"count\":%u,\"sent\":%u", s.period_ms, s.count, r.sent);
  json_int(out, "received", kind != kPm1Dm, r.received);
  json_int(out, "lost", kind != kPm1Dm, r.lost);
  fprintf(out, ",\"invalid\":%u", r.invalid);
  if (kind == kPmDm) {
    json_int(out, "delay_min_ns", r.has_delay, r.delay_min_ns);
    json_int(out, "delay_avg_ns", r.has_delay, r.delay_avg_ns);
    json_int(out, "delay_max_ns", r.has_delay, r.delay_max_ns);
    json_int(out, "delay_median_ns", r.has_delay, r.delay_median_ns);
    json_int(out, "dv_avg_ns", r.has_dv, r.dv_avg_ns);
    json_int(out, "dv_max_ns", r.has_dv, r.dv_max_ns);
  } else if (kind == kPmSlm) {
    json_ratio(out, "near_loss", r.has_near, r.near_ratio);
    json_ratio(out, "far_loss", r.has_far, r.far_ratio);
    json_int(out, "near_lost", r.has_near, r.near_lost);
    json_int(out, "far_lost", r.has_far, r.far_lost);
  }
  fputs("}", out);
}

// " 12.50% (3)", or " n/a" when not measured.
void text_loss(FILE *out, bool has, double ratio_value, uint32_t lost) {
  if (has) {
    fprintf(out, " %.2f%% (%u)", ratio_value * 100, lost);
  } else {
    fputs(" n/a", out);
  }
}

void text_session(FILE *out, const PmMep &pm, PmKind kind) {
  const PmSession &s = pm.s[kind];
  PmResult r = cfm_pm_result(pm, kind);
  const char *state = s.state == 1 ? "running" : "finished";
  if (kind == kPmDm) {
    fprintf(out, "\r\nPM DM  md %u ma %u mep %u %s: sent %u received %u lost %u, delay min/avg/max %.1f/%.1f/%.1f us, "
                 "median %.1f us, variation avg/max %.1f/%.1f us, invalid %u",
            pm.md_id, pm.ma_id, pm.mep_id, state, r.sent, r.received, r.lost, r.delay_min_ns / 1e3,
            r.delay_avg_ns / 1e3, r.delay_max_ns / 1e3, r.delay_median_ns / 1e3, r.dv_avg_ns / 1e3, r.dv_max_ns / 1e3,
            r.invalid);
  } else if (kind == kPm1Dm) {
    fprintf(out, "\r\nPM 1DM md %u ma %u mep %u %s: sent %u", pm.md_id, pm.ma_id, pm.mep_id, state, r.sent);
  } else {
    fprintf(out, "\r\nPM SLM md %u ma %u mep %u %s: sent %u received %u lost %u, near-end loss", pm.md_id, pm.ma_id,
            pm.mep_id, state, r.sent, r.received, r.lost);
    text_loss(out, r.has_near, r.near_ratio, r.near_lost);
    fputs(", far-end loss", out);
    text_loss(out, r.has_far, r.far_ratio, r.far_lost);
    fprintf(out, ", invalid %u, test ID %u", r.invalid, s.test_id);
  }
}

void print_counters(FILE *out, const PmMep &pm) {
  const PmCounters &c = pm.c;
  fprintf(out, "\r\nPM md %u ma %u mep %u: DMM in %u out %u, DMR in %u out %u, SLM in %u out %u, SLR in %u out %u",
          pm.md_id, pm.ma_id, pm.mep_id, c.dmm_in, c.dmm_out, c.dmr_in, c.dmr_out, c.slm_in, c.slm_out, c.slr_in,
          c.slr_out);
  if (c.one_dm_out > 0) fprintf(out, ", 1DM out %u", c.one_dm_out);
  if (pm.one_dm_count > 0) {
    fprintf(out, "\r\n  1DM in %u, one-way delay last/min/max %.1f/%.1f/%.1f us (valid only with synchronised clocks)",
            pm.one_dm_count, pm.one_dm_last_ns / 1e3, pm.one_dm_min_ns / 1e3, pm.one_dm_max_ns / 1e3);
  }
}

// The counters in the order of their names (the tree's and JSON's).
constexpr size_t kCounters = 10;
const char *const kTreeCounter[kCounters] = {"dmm_in", "dmm_out", "dmr_in", "dmr_out", "slm_in",
                                             "slm_out", "slr_in", "slr_out", "1dm_in", "1dm_out"};
const char *const kJsonCounter[kCounters] = {"dmm_in", "dmm_out", "dmr_in", "dmr_out", "slm_in",
                                             "slm_out", "slr_in", "slr_out", "one_dm_in", "one_dm_out"};
void counters_of(const PmCounters &c, uint32_t *v) {
  const uint32_t all[kCounters] = {c.dmm_in, c.dmm_out, c.dmr_in, c.dmr_out, c.slm_in,
                                   c.slm_out, c.slr_in, c.slr_out, c.one_dm_in, c.one_dm_out};
  memcpy(v, all, sizeof all);
}

void json_mep(FILE *out, const PmMep &pm) {
  fprintf(out, "{\"md\":%u,\"ma\":%u,\"mep\":%u", pm.md_id, pm.ma_id, pm.mep_id);
  uint32_t v[kCounters];
  counters_of(pm.c, v);
  for (size_t n = 0; n < kCounters; ++n) fprintf(out, ",\"%s\":%u", kJsonCounter[n], v[n]);
  if (pm.one_dm_count == 0) {
    fputs(",\"one_dm\":null}", out);
  } else {
    fprintf(out, ",\"one_dm\":{\"count\":%u,\"last_ns\":%" PRId64 ",\"min_ns\":%" PRId64 ",\"max_ns\":%" PRId64 "}}",
            pm.one_dm_count, pm.one_dm_last_ns, pm.one_dm_min_ns, pm.one_dm_max_ns);
  }
}

// One document: every MEP's counters, then every session.
void print_json(FILE *out) {
  fputs("{\"meps\":[", out);
  const char *sep = "";
  for (int i = 0; i < CFM_PM_MAX_MEP; ++i) {
    if (const PmMep *pm = cfm_pm_at(i)) {
      fputs(sep, out);
      json_mep(out, *pm);
      sep = ",";
    }
  }
  fputs("],\"sessions\":[", out);
  sep = "";
  for (int i = 0; i < CFM_PM_MAX_MEP; ++i) {
    const PmMep *pm = cfm_pm_at(i);
    for (int k = 0; pm != nullptr && k < kPmKinds; ++k) {
      if (pm->s[k].state == 0) continue;
      fputs(sep, out);
      json_session(out, *pm, static_cast<PmKind>(k));
      sep = ",";
    }
  }
  fputs("]}\n", out);
}

void put_tree_counters(const PmMep &pm, int row) {
  ConfigTree::setInt(pm.mep_id, "/runtime/cfm/pm/mep:%d/mep", row);
  uint32_t v[kCounters];
  counters_of(pm.c, v);
  for (size_t n = 0; n < kCounters; ++n) {
    ConfigTree::setInt(static_cast<int>(v[n]), "/runtime/cfm/pm/mep:%d/%s", row, kTreeCounter[n]);
  }
}

}  // namespace

void cfm_pm_dispatch(CfmPacket *packet, uint8_t opcode) {
  switch (opcode) {
    case kOpDmm:
      CFM_DMM_Process(packet);
      break;
    case kOpDmr:
      CFM_DMR_Process(packet);
      break;
    case kOp1Dm:
      CFM_1DM_Process(packet);
      break;
    case kOpSlm:
      CFM_SLM_Process(packet);
      break;
    case kOpSlr:
      CFM_SLR_Process(packet);
      break;
    default:
      break;
  }
}

void CFM_PM_XMIT_Check() {
  if (!cfm_pm_enabled()) return;
  int64_t now = g_clock();
  PmLock lock(cfm_pm_mutex());
  for (int i = 0; i < CFM_PM_MAX_MEP; ++i) {
    PmMep *pm = cfm_pm_at(i);
    for (int k = 0; pm != nullptr && k < kPmKinds; ++k) {
      if (pm->s[k].state == 1) run_session(pm, static_cast<PmKind>(k), now);
    }
  }
}

void cfm_pm_task_start() {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&g_wake, &attr);
  pthread_condattr_destroy(&attr);
  g_task_started.store(true);
  pthread_t thread;
  if (CFM_OS_Create_Task(&thread, "CFM-PM", pm_task, 0, 0) != 1) printf("\r\nCreate CFM-PM task failed.");
}

void cfm_pm_set_clock(int64_t (*now_ms)()) { g_clock = now_ms != nullptr ? now_ms : monotonic_ms; }

bool cfm_pm_period_ok(uint32_t period_ms) { return period_ms == 100 || period_ms == 1000 || period_ms == 10000; }

uint32_t cfm_pm_start(const PmStartRequest &req) {
  MepEntry mep;
  if (req.kind < 0 || req.kind >= kPmKinds || !cfm_pm_period_ok(req.period_ms) || req.priority > kMaxPriority ||
      !find_mep(req.md_id, req.ma_id, req.mep_id, &mep)) {
    return CFM_ERR_FAILURE;
  }
  // A session towards a MEPID nobody knows would send nothing; the results
  // of the one before stay.
  if (req.by_mepid && !cfm_pm_remote_mep(req.md_id, req.ma_id, req.target_mep, nullptr, nullptr)) {
    return CFM_DB_NOT_FOUND;
  }
  {
    PmLock lock(cfm_pm_mutex());
    PmMep *pm = cfm_pm_find(req.md_id, req.ma_id, req.mep_id, true);
    if (pm == nullptr) return CFM_ERR_FAILURE;
    PmSession &s = pm->s[req.kind];
    // Taken while the session it replaces still runs, so the two differ.
    uint32_t test_id = req.test_id_set || req.kind != kPmSlm ? req.test_id : cfm_pm_fresh_test_id();
    s = {};
    s.state = 1;
    memcpy(s.target_mac, req.target_mac, kMacLen);
    s.target_mep = req.target_mep;
    s.by_mepid = req.by_mepid ? 1 : 0;
    s.count = req.count;
    s.period_ms = req.period_ms;
    s.priority = req.priority;
    s.test_id = test_id;
    s.next_due_ms = g_clock();
  }
  kick_task();
  return CFM_OK;
}

uint32_t cfm_pm_stop(PmKind kind, uint32_t md_id, uint32_t ma_id, uint16_t mep_id) {
  if (kind < 0 || kind >= kPmKinds) return CFM_ERR_FAILURE;
  PmLock lock(cfm_pm_mutex());
  PmMep *pm = cfm_pm_find(md_id, ma_id, mep_id, false);
  if (pm == nullptr || pm->s[kind].state != 1) return CFM_ERR_FAILURE;
  finish(pm, kind, true);
  return CFM_OK;
}

PmResult cfm_pm_result(const PmMep &pm, PmKind kind) {
  const PmSession &s = pm.s[kind];
  PmResult r = {};
  r.sent = s.sent;
  r.received = s.received;
  r.invalid = s.invalid;
  r.lost = s.sent > s.received + s.invalid ? s.sent - s.received - s.invalid : 0;
  if (kind == kPmSlm) loss_result(s, &r);
  if (kind != kPmDm || s.received == 0) return r;
  r.has_delay = true;
  r.delay_min_ns = s.delay_min_ns;
  r.delay_max_ns = s.delay_max_ns;
  r.delay_avg_ns = cfm_pm_sum_mean(s.delay_sum, s.received);
  size_t n = s.received < CFM_PM_RECENT ? s.received : CFM_PM_RECENT;
  std::vector<int64_t> recent(pm.recent_ns, pm.recent_ns + n);
  std::nth_element(recent.begin(), recent.begin() + n / 2, recent.end());
  r.delay_median_ns = recent[n / 2];
  r.has_dv = s.dv_count > 0;
  if (r.has_dv) r.dv_avg_ns = cfm_pm_sum_mean(s.dv_sum, s.dv_count);
  r.dv_max_ns = s.dv_max_ns;
  return r;
}

void cfm_pm_print_counters(FILE *out, uint32_t md_id, uint32_t ma_id, uint16_t mep_id) {
  PmLock lock(cfm_pm_mutex());
  if (const PmMep *pm = cfm_pm_find(md_id, ma_id, mep_id, false)) print_counters(out, *pm);
}

void cfm_pm_report(FILE *out, bool json) {
  PmLock lock(cfm_pm_mutex());
  int rows[kPmKinds] = {0, 0, 0};
  int mep_row = 0;
  for (int i = 0; i < CFM_PM_MAX_MEP; ++i) {
    const PmMep *pm = cfm_pm_at(i);
    if (pm == nullptr) continue;
    put_tree_counters(*pm, ++mep_row);
    if (!json) print_counters(out, *pm);
    for (int k = 0; k < kPmKinds; ++k) {
      if (pm->s[k].state == 0) continue;
      put_tree(*pm, static_cast<PmKind>(k), ++rows[k]);
      if (!json) text_session(out, *pm, static_cast<PmKind>(k));
    }
  }
  if (json) print_json(out);
  fflush(out);
}
