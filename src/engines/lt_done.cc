#include "engines/lt_done.h"

#include <cstring>

#include "core/events.h"
#include "core/status.h"
#include "db/ltr_db.h"

namespace {

struct PendingTrace {
  bool used;
  uint32_t md, ma;
  uint16_t mep, vid;
  uint32_t trans_id;
  bool ok;
  int64_t due_ms;
};

// One linktrace per MEP at a time is the common case; more are dropped.
constexpr int kMaxPending = 16;
PendingTrace g_pending[kMaxPending];

uint32_t replies_of(const PendingTrace &p) {
  uint32_t replies = 0;
  LtrEntry entry;
  memset(&entry, 0, sizeof entry);
  while (CFM_DB_GetNext_LtrEntry(&entry) == CFM_DB_FOUND) {
    if (entry.md_id == p.md && entry.ma_id == p.ma && entry.mep_id == p.mep && entry.sequence == p.trans_id) {
      replies += 1;
    }
  }
  return replies;
}

}  // namespace

void cfm_lt_done_started(uint32_t md, uint32_t ma, uint16_t mep, uint16_t vid, uint32_t trans_id, bool ok,
                         int64_t now_ms) {
  for (PendingTrace &p : g_pending) {
    if (p.used) continue;
    p = {true, md, ma, mep, vid, trans_id, ok, now_ms + CFM_LT_DONE_AFTER_MS};
    return;
  }
}

void cfm_lt_done_check(int64_t now_ms) {
  for (PendingTrace &p : g_pending) {
    if (!p.used || now_ms < p.due_ms) continue;
    p.used = false;
    CfmEvent event = cfm_event_make(CfmEventKind::LtDone, p.md, p.ma, p.mep, p.vid);
    event.ok = p.ok;
    event.replies = p.ok ? replies_of(p) : 0;
    cfm_event_post(event);
  }
}
