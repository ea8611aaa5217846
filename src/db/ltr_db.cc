// Linktrace-reply database "cfmLtrDb": up to 512 replies, ordered by the MEP
// that sent the LTM, the LTM's transaction ID and the reply number.
#include "db/ltr_db.h"

#include <cstddef>
#include <cstdint>

#include "core/os.h"
#include "core/status.h"
#include "db/avl.h"
#include "db/record_table.h"
#include "db/rmep_db.h"

namespace {

struct LtrKey {
  uint32_t md_id;
  uint32_t ma_id;
  uint16_t mep_id;
  uint16_t mep_pad;
  uint32_t sequence;
  uint32_t ReplyNumber;
};

static_assert(offsetof(LtrEntry, ReplyNumber) == offsetof(LtrKey, ReplyNumber));

RecordTable<LtrEntry, LtrKey> g_table;

int compare(const void *a, const void *b, void * /*param*/) {
  return compare_keys<LtrKey>(a, b, [](const LtrKey &k) {
    return std::tie(k.md_id, k.ma_id, k.mep_id, k.sequence, k.ReplyNumber);
  });
}

uint32_t check(const void *entry) {
  if (!cfm_mep_db_ready()) return CFM_DB_NOT_READY;
  if (entry == nullptr) return CFM_DB_NULL_ARG;
  return CFM_OK;
}

uint32_t found(bool ok) { return ok ? CFM_DB_FOUND : CFM_DB_NOT_FOUND; }

}  // namespace

void cfm_ltr_db_Create() {
  if (g_table.tree == nullptr) {
    g_table.tree = UTL_AVLT_Create(compare, nullptr);
    g_table.capacity = CFM_MAX_LTR;
  }
}

void cfm_ltr_db_Create_Semaphore() {
  if (g_table.sem < 0) g_table.sem = CFM_OS_Create_Semaphore("cfmLtrDb", 1, 1);
}

void cfm_ltr_db_Empty() { g_table.empty(); }

uint32_t CFM_DB_Get_LtrEntry(LtrEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  return found(g_table.get(entry));
}

uint32_t CFM_DB_GetNext_LtrEntry(LtrEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  return found(g_table.get_next(entry));
}

uint32_t CFM_DB_Update_LtrEntry(const LtrEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  return g_table.update(entry) ? CFM_DB_FOUND : CFM_DB_FULL;
}

uint32_t CFM_DB_Del_LtrEntry(const LtrEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  return found(g_table.remove(entry));
}

uint32_t CFM_DB_Get_TotalLtrEntries() {
  if (!cfm_mep_db_ready()) return 0;
  return g_table.count();
}

// On a full table the lowest-keyed reply goes first, then the update is tried
// again, until it succeeds or nothing is left to delete.
uint32_t CFM_DB_Update_LtrEntry_Make_Room(const LtrEntry *entry) {
  uint32_t status = CFM_DB_Update_LtrEntry(entry);
  while (status == CFM_DB_FULL) {
    LtrEntry first{};
    if (CFM_DB_GetNext_LtrEntry(&first) != CFM_DB_FOUND) return status;
    CFM_DB_Del_LtrEntry(&first);
    status = CFM_DB_Update_LtrEntry(entry);
  }
  return status;
}
