// Performance-monitoring commands (option -y):
//   pmstart dm|slm|1dm MD MA MEP TARGET COUNT PERIOD PRIORITY [TESTID]
//     TARGET a MAC ("00:11:22:33:44:55") or a remote MEPID the MA has
//     learnt; COUNT 0 runs until pmstop; PERIOD in milliseconds (100, 1000,
//     10000); without TESTID a loss session gets one no running session uses
//   pmstop dm|slm|1dm MD MA MEP
//   pmshow [json]
#include <cstring>

#include "cli/commands.h"
#include "core/hwaddr.h"
#include "core/status.h"
#include "engines/pm_session.h"

namespace {

constexpr int kStartWords = 8;
constexpr uint16_t kMaxMepId = 8191;

// The words of a request as text, at most `max`; returns how many.
int collect(CliArg *args, const char **words, int max) {
  int n = 0;
  for (CliArg *a = args; a != nullptr && n < max; a = a->next) words[n++] = a->word;
  return n;
}

bool parse_kind(const char *word, PmKind *kind) {
  if (strcmp(word, "dm") == 0) {
    *kind = kPmDm;
  } else if (strcmp(word, "slm") == 0) {
    *kind = kPmSlm;
  } else if (strcmp(word, "1dm") == 0) {
    *kind = kPm1Dm;
  } else {
    return false;
  }
  return true;
}

bool parse_u32(const char *word, uint32_t max, uint32_t *out) {
  if (cfm_cli_is_number(word) == 0 || strlen(word) > 10) return false;
  unsigned long long v = strtoull(word, nullptr, 10);
  if (v > max) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

bool pm_on(FILE *out) {
  if (cfm_pm_enabled()) return true;
  fputs("\r\nError!! Performance monitoring is off (start with -y)", out);
  return false;
}

bool parse_target(const char *word, PmStartRequest *req) {
  uint32_t mepid = 0;
  if (parse_u32(word, kMaxMepId, &mepid)) {
    if (mepid == 0) return false;
    req->by_mepid = true;
    req->target_mep = static_cast<uint16_t>(mepid);
    return true;
  }
  return strlen(word) == 17 && hwaddr_aton(word, req->target_mac) == 0 && (req->target_mac[0] & 1) == 0;
}

bool parse_mep(const char *const *w, uint32_t *md, uint32_t *ma, uint16_t *mep) {
  uint32_t id = 0;
  if (!parse_u32(w[0], UINT32_MAX, md) || !parse_u32(w[1], UINT32_MAX, ma) || !parse_u32(w[2], kMaxMepId, &id))
    return false;
  *mep = static_cast<uint16_t>(id);
  return true;
}

}  // namespace

int cli_usr_cfm_pmstart(FILE *out, CliArg *args, int) {
  if (!pm_on(out)) return 0;
  const char *w[kStartWords + 1];
  int n = collect(args, w, kStartWords + 1);
  PmStartRequest req = {};
  uint32_t priority = 0;
  bool ok = n >= kStartWords && parse_kind(w[0], &req.kind) && parse_mep(w + 1, &req.md_id, &req.ma_id, &req.mep_id) &&
            parse_target(w[4], &req) && parse_u32(w[5], UINT32_MAX, &req.count) &&
            parse_u32(w[6], UINT32_MAX, &req.period_ms) && parse_u32(w[7], 7, &priority) &&
            (n == kStartWords || parse_u32(w[8], UINT32_MAX, &req.test_id));
  req.test_id_set = n > kStartWords;
  req.priority = static_cast<uint8_t>(priority);
  if (!ok) {
    fputs("\r\nError!! Usage: pmstart dm|slm|1dm MD MA MEP TARGET COUNT PERIOD PRIORITY [TESTID]", out);
    return 0;
  }
  uint32_t started = cfm_pm_start(req);
  if (started == CFM_DB_NOT_FOUND) {
    fprintf(out, "\r\nError!! Cannot start: remote MEP %u is unknown in the MEP's MA", req.target_mep);
    return 0;
  }
  if (started != CFM_OK) {
    fputs("\r\nError!! Cannot start: no such MEP, or period not 100, 1000 or 10000", out);
    return 0;
  }
  return 1;
}

int cli_usr_cfm_pmstop(FILE *out, CliArg *args, int) {
  if (!pm_on(out)) return 0;
  const char *w[4];
  PmKind kind = kPmDm;
  uint32_t md = 0, ma = 0;
  uint16_t mep = 0;
  if (collect(args, w, 4) < 4 || !parse_kind(w[0], &kind) || !parse_mep(w + 1, &md, &ma, &mep)) {
    fputs("\r\nError!! Usage: pmstop dm|slm|1dm MD MA MEP", out);
    return 0;
  }
  if (cfm_pm_stop(kind, md, ma, mep) != CFM_OK) {
    fputs("\r\nError!! No such session running", out);
    return 0;
  }
  return 1;
}

int cli_usr_cfm_pmshow(FILE *out, CliArg *args, int) {
  if (!pm_on(out)) return 0;
  bool json = args != nullptr && args->word != nullptr && strcmp(args->word, "json") == 0;
  cfm_pm_report(out, json);
  return 1;
}
