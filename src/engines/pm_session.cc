#include "engines/pm_session.h"

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <ctime>
#include <iterator>
#include <vector>

#include "core/config_tree.h"
#include "core/hwaddr.h"
#include "core/status.h"
#include "db/md_ma.h"
#include "db/mep_mip.h"
#include "db/rmep_db.h"
#include "engines/dm.h"
#include "engines/pm_pdu.h"
#include "engines/slm.h"

using namespace cfm;

namespace {

// A tick longer than the period sends the frames that fell due in it, at
// most this many, and lets the rest go.
constexpr int kMaxSendsPerTick = 10;
// A session that sent its last frame waits this long for late replies.
constexpr int64_t kReplyGraceMs = 2000;
constexpr uint8_t kMaxPriority = 7;
const char *const kKindName[kPmKinds] = {"dm", "slm", "1dm"};

int64_t monotonic_ms() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool find_mep(uint32_t md_id, uint32_t ma_id, uint16_t mep_id, MepEntry *mep) {
  *mep = {};
  mep->md_id = md_id;
  mep->ma_id = ma_id;
  mep->mep_id = mep_id;
  return CFM_GetNext_MEP_Entry(mep) == 1 && mep->md_id == md_id && mep->ma_id == ma_id && mep->mep_id == mep_id;
}

// The target's MAC: as given, or that of the remote MEP learnt in the MA.
bool resolve_target(const PmSession &s, const MepEntry &mep, uint8_t *dst) {
  if (!s.by_mepid) {
    memcpy(dst, s.target_mac, kMacLen);
    return true;
  }
  RemoteMepEntry r = {};
  r.md_id = mep.md_id;
  r.ma_id = mep.ma_id;
  while (CFM_MEP_Get_NextRemEntry(&r) == CFM_DB_FOUND && r.md_id == mep.md_id && r.ma_id == mep.ma_id) {
    if (r.rmep_id == s.target_mep) {
      memcpy(dst, r.src_mac, kMacLen);
      return true;
    }
  }
  return false;
}

void run_session(PmMep *pm, PmKind kind, int64_t now) {
  PmSession &s = pm->s[kind];
  MepEntry mep;
  MdEntry md = {};
  md.MdIndex = pm->md_id;
  if (!find_mep(pm->md_id, pm->ma_id, pm->mep_id, &mep) || CFM_Get_MD_Entry(&md) != 1) {
    s.state = 2;
    return;
  }
  bool done_sending = s.count != 0 && s.sent >= s.count;
  if (done_sending) {
    if (now >= s.end_ms) s.state = 2;
    return;
  }
  uint8_t dst[kMacLen];
  if (!resolve_target(s, mep, dst)) return;
  for (int n = 0; n < kMaxSendsPerTick && now >= s.next_due_ms && (s.count == 0 || s.sent < s.count); ++n) {
    if (kind != kPmSlm) {
      cfm_dm_send(mep, pm, dst, md.MdLevel, kind == kPm1Dm);
    } else {
      cfm_slm_send(mep, pm, dst, md.MdLevel);
    }
    s.next_due_ms += s.period_ms;
  }
  if (now >= s.next_due_ms) s.next_due_ms = now + s.period_ms;
  if (s.count != 0 && s.sent >= s.count) s.end_ms = now + kReplyGraceMs;
}

double ratio(uint32_t part, uint32_t whole) { return whole == 0 ? 0.0 : static_cast<double>(part) / whole; }

void put_session(const PmMep &pm, PmKind kind, int row) {
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
    snprintf(text, sizeof text, "%.4f", r.near_ratio);
    ConfigTree::setStr(text, "/runtime/cfm/pm/%s:%d/near_loss", k, row);
    snprintf(text, sizeof text, "%.4f", r.far_ratio);
    ConfigTree::setStr(text, "/runtime/cfm/pm/%s:%d/far_loss", k, row);
  }
}

void print_session(FILE *out, const PmMep &pm, PmKind kind, bool json, bool *first) {
  const PmSession &s = pm.s[kind];
  PmResult r = cfm_pm_result(pm, kind);
  const char *state = s.state == 1 ? "running" : "finished";
  if (json) {
    fprintf(out, "%s{\"kind\":\"%s\",\"md\":%u,\"ma\":%u,\"mep\":%u,\"state\":\"%s\",\"sent\":%u,\"received\":%u,"
                 "\"lost\":%u",
            *first ? "" : ",", kKindName[kind], pm.md_id, pm.ma_id, pm.mep_id, state, r.sent, r.received, r.lost);
    if (kind == kPmDm) {
      fprintf(out, ",\"delay_min_ns\":%" PRId64 ",\"delay_avg_ns\":%" PRId64 ",\"delay_max_ns\":%" PRId64
                   ",\"delay_median_ns\":%" PRId64 ",\"dv_avg_ns\":%" PRId64 ",\"dv_max_ns\":%" PRId64 "}",
              r.delay_min_ns, r.delay_avg_ns, r.delay_max_ns, r.delay_median_ns, r.dv_avg_ns, r.dv_max_ns);
    } else {
      if (kind == kPmSlm) fprintf(out, ",\"near_loss\":%.4f,\"far_loss\":%.4f", r.near_ratio, r.far_ratio);
      fputs("}", out);
    }
  } else if (kind == kPmDm) {
    fprintf(out, "\r\nPM DM  md %u ma %u mep %u %s: sent %u received %u lost %u, delay min/avg/max %.1f/%.1f/%.1f us, "
                 "median %.1f us, variation avg/max %.1f/%.1f us, below zero %u",
            pm.md_id, pm.ma_id, pm.mep_id, state, r.sent, r.received, r.lost, r.delay_min_ns / 1e3,
            r.delay_avg_ns / 1e3, r.delay_max_ns / 1e3, r.delay_median_ns / 1e3, r.dv_avg_ns / 1e3, r.dv_max_ns / 1e3,
            r.negative);
  } else if (kind == kPm1Dm) {
    fprintf(out, "\r\nPM 1DM md %u ma %u mep %u %s: sent %u", pm.md_id, pm.ma_id, pm.mep_id, state, r.sent);
  } else {
    fprintf(out, "\r\nPM SLM md %u ma %u mep %u %s: sent %u received %u lost %u, near-end loss %.2f%% (%u), "
                 "far-end loss %.2f%% (%u)",
            pm.md_id, pm.ma_id, pm.mep_id, state, r.sent, r.received, r.lost, r.near_ratio * 100, r.near_lost,
            r.far_ratio * 100, r.far_lost);
  }
  *first = false;
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
  int64_t now = monotonic_ms();
  PmLock lock(cfm_pm_mutex());
  for (int i = 0; i < CFM_PM_MAX_MEP; ++i) {
    PmMep *pm = cfm_pm_at(i);
    for (int k = 0; pm != nullptr && k < kPmKinds; ++k) {
      if (pm->s[k].state == 1) run_session(pm, static_cast<PmKind>(k), now);
    }
  }
}

bool cfm_pm_period_ok(uint32_t period_ms) { return period_ms == 100 || period_ms == 1000 || period_ms == 10000; }

uint32_t cfm_pm_start(const PmStartRequest &req) {
  MepEntry mep;
  if (req.kind < 0 || req.kind >= kPmKinds || !cfm_pm_period_ok(req.period_ms) || req.priority > kMaxPriority ||
      !find_mep(req.md_id, req.ma_id, req.mep_id, &mep)) {
    return CFM_ERR_FAILURE;
  }
  PmLock lock(cfm_pm_mutex());
  PmMep *pm = cfm_pm_find(req.md_id, req.ma_id, req.mep_id, true);
  if (pm == nullptr) return CFM_ERR_FAILURE;
  PmSession &s = pm->s[req.kind];
  s = {};
  s.state = 1;
  memcpy(s.target_mac, req.target_mac, kMacLen);
  s.target_mep = req.target_mep;
  s.by_mepid = req.by_mepid ? 1 : 0;
  s.count = req.count;
  s.period_ms = req.period_ms;
  s.priority = req.priority;
  s.test_id = req.test_id;
  s.next_due_ms = monotonic_ms();
  return CFM_OK;
}

uint32_t cfm_pm_stop(PmKind kind, uint32_t md_id, uint32_t ma_id, uint16_t mep_id) {
  if (kind < 0 || kind >= kPmKinds) return CFM_ERR_FAILURE;
  PmLock lock(cfm_pm_mutex());
  PmMep *pm = cfm_pm_find(md_id, ma_id, mep_id, false);
  if (pm == nullptr || pm->s[kind].state != 1) return CFM_ERR_FAILURE;
  pm->s[kind].state = 2;
  return CFM_OK;
}

PmResult cfm_pm_result(const PmMep &pm, PmKind kind) {
  const PmSession &s = pm.s[kind];
  PmResult r = {};
  r.sent = s.sent;
  r.received = s.received;
  r.lost = s.sent > s.received ? s.sent - s.received : 0;
  if (kind == kPmDm) {
    if (s.received > 0) {
      r.delay_min_ns = s.delay_min_ns;
      r.delay_max_ns = s.delay_max_ns;
      r.delay_avg_ns = s.delay_sum_ns / s.received;
    }
    if (s.dv_count > 0) r.dv_avg_ns = s.dv_sum_ns / s.dv_count;
    r.negative = s.negative;
    size_t n = s.received < CFM_PM_RECENT ? s.received : CFM_PM_RECENT;
    std::vector<int64_t> recent(pm.recent_ns, pm.recent_ns + n);
    std::nth_element(recent.begin(), recent.begin() + n / 2, recent.end());
    if (n > 0) r.delay_median_ns = recent[n / 2];
    r.dv_max_ns = s.dv_max_ns;
    return r;
  }
  if (kind == kPm1Dm) return r;
  // The latest SLR tells how many SLMs the peer had sent us a reply to
  // (TxFCf) and how many of them it had received (TxFCb).
  r.far_lost = s.last_txfcf > s.last_txfcb ? s.last_txfcf - s.last_txfcb : 0;
  r.near_lost = s.last_txfcb > s.received ? s.last_txfcb - s.received : 0;
  r.far_ratio = ratio(r.far_lost, s.last_txfcf);
  r.near_ratio = ratio(r.near_lost, s.last_txfcb);
  return r;
}

void cfm_pm_print_counters(FILE *out, uint32_t md_id, uint32_t ma_id, uint16_t mep_id) {
  PmLock lock(cfm_pm_mutex());
  if (const PmMep *pm = cfm_pm_find(md_id, ma_id, mep_id, false)) print_counters(out, *pm);
}

void cfm_pm_report(FILE *out, bool json) {
  PmLock lock(cfm_pm_mutex());
  bool first = true;
  int rows[kPmKinds] = {0, 0};
  int mep_row = 0;
  if (json) fprintf(out, "{\"sessions\":[");
  for (int i = 0; i < CFM_PM_MAX_MEP; ++i) {
    PmMep *pm = cfm_pm_at(i);
    if (pm == nullptr) continue;
    if (!json) print_counters(out, *pm);
    ++mep_row;
    const PmCounters &c = pm->c;
    const uint32_t v[] = {c.dmm_in, c.dmm_out, c.dmr_in, c.dmr_out, c.slm_in,
                          c.slm_out, c.slr_in, c.slr_out, c.one_dm_in, c.one_dm_out};
    const char *names[] = {"dmm_in", "dmm_out", "dmr_in", "dmr_out", "slm_in",
                           "slm_out", "slr_in", "slr_out", "1dm_in", "1dm_out"};
    ConfigTree::setInt(pm->mep_id, "/runtime/cfm/pm/mep:%d/mep", mep_row);
    static_assert(sizeof v / sizeof v[0] == sizeof names / sizeof names[0]);
    for (size_t n = 0; n < std::size(v); ++n) {
      ConfigTree::setInt(static_cast<int>(v[n]), "/runtime/cfm/pm/mep:%d/%s", mep_row, names[n]);
    }
    for (int k = 0; k < kPmKinds; ++k) {
      if (pm->s[k].state == 0) continue;
      print_session(out, *pm, static_cast<PmKind>(k), json, &first);
      put_session(*pm, static_cast<PmKind>(k), ++rows[k]);
    }
  }
  if (json) fprintf(out, "]}\n");
  fflush(out);
}
