// Remote-MEP database: one entry per peer MEP learnt from CCMs. "cfmMepDb"
// guards each single table operation; "cfmMepDbSet" is taken first around the
// check-then-store of the CCM receiver and the read-modify-store of ageing.
#include "db/rmep_db.h"

#include <atomic>
#include <cstring>

#include "core/os.h"
#include "core/status.h"
#include "db/avl.h"
#include "db/ltr_db.h"

namespace {

struct RemoteMepKey {
  uint32_t md_id;
  uint32_t ma_id;
  uint16_t rmep_id;
};

static_assert(offsetof(RemoteMepEntry, rmep_id) == offsetof(RemoteMepKey, rmep_id));

constexpr int32_t kAgeStepMs = 1000;  // one ageing pass counts as one second

OrderedTable *g_table = nullptr;
int g_sem_db = -1;
int g_sem_set = -1;
std::atomic<bool> g_ready{false};

RemoteMepKey key_of(const void *p) {
  RemoteMepKey key{};
  memcpy(&key, p, sizeof key);
  return key;
}

template <typename T>
int order(T a, T b) {
  return a < b ? -1 : (a > b ? 1 : 0);
}

int compare(const void *a, const void *b, void * /*param*/) {
  RemoteMepKey x = key_of(a);
  RemoteMepKey y = key_of(b);
  if (int c = order(x.md_id, y.md_id)) return c;
  if (int c = order(x.ma_id, y.ma_id)) return c;
  return order(x.rmep_id, y.rmep_id);
}

uint32_t check(const void *entry) {
  if (!g_ready.load()) return CFM_DB_NOT_READY;
  if (entry == nullptr) return CFM_DB_NULL_ARG;
  return CFM_OK;
}

// Store with "cfmMepDb" held by the caller's scope.
uint32_t store_locked(const RemoteMepEntry *entry, const RemoteMepKey &key) {
  avlt_node *node = UTL_AVLT_Find(g_table, &key);
  if (node != nullptr) {
    memcpy(node->data, entry, sizeof *entry);
    return CFM_DB_FOUND;
  }
  void *copy = CFM_OS_Allocate_Memory(sizeof *entry);
  if (copy == nullptr) return CFM_DB_FULL;
  memcpy(copy, entry, sizeof *entry);
  if (UTL_AVLT_Insert(g_table, copy) != nullptr) {
    CFM_OS_Deallocate_Memory(copy);
    return CFM_DB_FULL;
  }
  return CFM_DB_FOUND;
}

void empty_table() {
  if (g_table == nullptr) return;
  for (;;) {
    void *item = nullptr;
    {
      SemLock lock(g_sem_db);
      avlt_node *first = UTL_AVLT_Next(g_table, nullptr);
      if (first != nullptr) item = UTL_AVLT_Delete(g_table, first->data);
    }
    if (item == nullptr) return;
    CFM_OS_Deallocate_Memory(item);
  }
}

}  // namespace

uint32_t cfm_mep_db_Init() {
  if (g_table == nullptr) {
    g_table = UTL_AVLT_Create(compare, nullptr);
    cfm_ltr_db_Create();
    g_sem_db = CFM_OS_Create_Semaphore("cfmMepDb", 1, 1);
    g_sem_set = CFM_OS_Create_Semaphore("cfmMepDbSet", 1, 1);
    cfm_ltr_db_Create_Semaphore();
  }
  g_ready.store(true);
  return CFM_OK;
}

void cfm_mep_db_Reset() {
  g_ready.store(false);
  empty_table();
  cfm_ltr_db_Empty();
}

bool cfm_mep_db_ready() { return g_ready.load(); }

uint32_t CFM_MEP_DB_Get_RemEntry(RemoteMepEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  RemoteMepKey key = key_of(entry);
  SemLock lock(g_sem_db);
  const avlt_node *node = UTL_AVLT_Find(g_table, &key);
  if (node == nullptr) return CFM_DB_NOT_FOUND;
  memcpy(entry, node->data, sizeof *entry);
  return CFM_DB_FOUND;
}

uint32_t CFM_MEP_Get_NextRemEntry(RemoteMepEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  RemoteMepKey key = key_of(entry);
  SemLock lock(g_sem_db);
  const avlt_node *node = UTL_AVLT_Next_Greater(g_table, &key);
  if (node == nullptr) return CFM_DB_NOT_FOUND;
  memcpy(entry, node->data, sizeof *entry);
  return CFM_DB_FOUND;
}

uint32_t CFM_MEP_Del_RemEntry(const RemoteMepEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  RemoteMepKey key = key_of(entry);
  void *item = nullptr;
  {
    SemLock lock(g_sem_db);
    item = UTL_AVLT_Delete(g_table, &key);
  }
  if (item == nullptr) return CFM_DB_NOT_FOUND;
  CFM_OS_Deallocate_Memory(item);
  return CFM_DB_FOUND;
}

// No capacity check here: mep_process_normal_frame decides whether a new
// entry may be added.
uint32_t CFM_MEP_DB_Store_RemEntry(const RemoteMepEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  RemoteMepKey key = key_of(entry);
  SemLock lock(g_sem_db);
  return store_locked(entry, key);
}

uint32_t CFM_MEP_DB_RemEntry_Count() {
  if (!g_ready.load()) return 0;
  return UTL_AVLT_Count(g_table);
}

// A known peer is always refreshed; a new one is added only below capacity.
uint32_t mep_process_normal_frame(const RemoteMepEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  RemoteMepKey key = key_of(entry);
  SemLock set_lock(g_sem_set);
  SemLock lock(g_sem_db);
  bool known = UTL_AVLT_Find(g_table, &key) != nullptr;
  if (!known && UTL_AVLT_Count(g_table) >= static_cast<uint32_t>(CFM_MAX_REMOTE_MEP)) {
    return CFM_DB_FULL;
  }
  return store_locked(entry, key);
}

// One pass: every entry found with time left loses a fixed 1000 ms; an entry
// found with none left (0 or below) is deleted.
uint32_t CFM_MEP_DB_Check_RemEntries_Age() {
  if (!g_ready.load()) return CFM_DB_NOT_READY;
  RemoteMepEntry cursor{};
  while (CFM_MEP_Get_NextRemEntry(&cursor) == CFM_DB_FOUND) {
    SemLock set_lock(g_sem_set);
    RemoteMepEntry current = cursor;
    if (CFM_MEP_DB_Get_RemEntry(&current) != CFM_DB_FOUND) continue;
    if (current.AgeTime > 0) {
      current.AgeTime -= kAgeStepMs;
      CFM_MEP_DB_Store_RemEntry(&current);
    } else {
      CFM_MEP_Del_RemEntry(&current);
    }
  }
  return CFM_DB_FOUND;
}
