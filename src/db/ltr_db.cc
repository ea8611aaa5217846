// Linktrace-reply database "cfmLtrDb": up to 512 replies, ordered by the MEP
// that sent the LTM, the LTM's transaction ID and the reply number.
#include "db/ltr_db.h"

#include <cstring>

#include "core/os.h"
#include "core/status.h"
#include "db/avl.h"
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

OrderedTable *g_table = nullptr;
int g_sem = -1;

LtrKey key_of(const void *p) {
  LtrKey key{};
  memcpy(&key, p, sizeof key);
  return key;
}

template <typename T>
int order(T a, T b) {
  return a < b ? -1 : (a > b ? 1 : 0);
}

int compare(const void *a, const void *b, void * /*param*/) {
  LtrKey x = key_of(a);
  LtrKey y = key_of(b);
  if (int c = order(x.md_id, y.md_id)) return c;
  if (int c = order(x.ma_id, y.ma_id)) return c;
  if (int c = order(x.mep_id, y.mep_id)) return c;
  if (int c = order(x.sequence, y.sequence)) return c;
  return order(x.ReplyNumber, y.ReplyNumber);
}

uint32_t check(const void *entry) {
  if (!cfm_mep_db_ready()) return CFM_DB_NOT_READY;
  if (entry == nullptr) return CFM_DB_NULL_ARG;
  return CFM_OK;
}

}  // namespace

void cfm_ltr_db_Create() {
  if (g_table == nullptr) g_table = UTL_AVLT_Create(compare, nullptr);
}

void cfm_ltr_db_Create_Semaphore() {
  if (g_sem < 0) g_sem = CFM_OS_Create_Semaphore("cfmLtrDb", 1, 1);
}

void cfm_ltr_db_Empty() {
  if (g_table == nullptr) return;
  for (;;) {
    void *item = nullptr;
    {
      SemLock lock(g_sem);
      avlt_node *first = UTL_AVLT_Next(g_table, nullptr);
      if (first != nullptr) item = UTL_AVLT_Delete(g_table, first->data);
    }
    if (item == nullptr) return;
    CFM_OS_Deallocate_Memory(item);
  }
}

uint32_t CFM_DB_Get_LtrEntry(LtrEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  LtrKey key = key_of(entry);
  SemLock lock(g_sem);
  const avlt_node *node = UTL_AVLT_Find(g_table, &key);
  if (node == nullptr) return CFM_DB_NOT_FOUND;
  memcpy(entry, node->data, sizeof *entry);
  return CFM_DB_FOUND;
}

uint32_t CFM_DB_GetNext_LtrEntry(LtrEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  LtrKey key = key_of(entry);
  SemLock lock(g_sem);
  const avlt_node *node = UTL_AVLT_Next_Greater(g_table, &key);
  if (node == nullptr) return CFM_DB_NOT_FOUND;
  memcpy(entry, node->data, sizeof *entry);
  return CFM_DB_FOUND;
}

uint32_t CFM_DB_Update_LtrEntry(const LtrEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  LtrKey key = key_of(entry);
  SemLock lock(g_sem);
  avlt_node *node = UTL_AVLT_Find(g_table, &key);
  if (node != nullptr) {
    memcpy(node->data, entry, sizeof *entry);
    return CFM_DB_FOUND;
  }
  if (UTL_AVLT_Count(g_table) >= static_cast<uint32_t>(CFM_MAX_LTR)) return CFM_DB_FULL;
  void *copy = CFM_OS_Allocate_Memory(sizeof *entry);
  if (copy == nullptr) return CFM_DB_FULL;
  memcpy(copy, entry, sizeof *entry);
  if (UTL_AVLT_Insert(g_table, copy) != nullptr) {
    CFM_OS_Deallocate_Memory(copy);
    return CFM_DB_FULL;
  }
  return CFM_DB_FOUND;
}

uint32_t CFM_DB_Del_LtrEntry(const LtrEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  LtrKey key = key_of(entry);
  void *item = nullptr;
  {
    SemLock lock(g_sem);
    item = UTL_AVLT_Delete(g_table, &key);
  }
  if (item == nullptr) return CFM_DB_NOT_FOUND;
  CFM_OS_Deallocate_Memory(item);
  return CFM_DB_FOUND;
}

uint32_t CFM_DB_Get_TotalLtrEntries() {
  if (!cfm_mep_db_ready()) return 0;
  return UTL_AVLT_Count(g_table);
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
