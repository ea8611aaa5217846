// Remote-MEP database: one entry per peer MEP learnt from CCMs. "cfmMepDb"
// guards each single table operation; "cfmMepDbSet" is taken first around the
// check-then-store of the CCM receiver and the read-modify-store of ageing.
#include "db/rmep_db.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "core/events.h"
#include "core/os.h"
#include "core/status.h"
#include "db/avl.h"
#include "db/ltr_db.h"
#include "db/record_table.h"

namespace {

struct RemoteMepKey {
  uint32_t md_id;
  uint32_t ma_id;
  uint16_t rmep_id;
};

static_assert(offsetof(RemoteMepEntry, rmep_id) == offsetof(RemoteMepKey, rmep_id));

constexpr int32_t kAgeStepMs = 1000;  // one ageing pass counts as one second

RecordTable<RemoteMepEntry, RemoteMepKey> g_table;
int g_sem_set = -1;
std::atomic<bool> g_ready{false};

int compare(const void *a, const void *b, void * /*param*/) {
  return compare_keys<RemoteMepKey>(a, b, [](const RemoteMepKey &k) {
    return std::tie(k.md_id, k.ma_id, k.rmep_id);
  });
}

uint32_t check(const void *entry) {
  if (!g_ready.load()) return CFM_DB_NOT_READY;
  if (entry == nullptr) return CFM_DB_NULL_ARG;
  return CFM_OK;
}

uint32_t found(bool ok) { return ok ? CFM_DB_FOUND : CFM_DB_NOT_FOUND; }

void post_rmep(CfmEventKind kind, const RemoteMepEntry &entry) {
  CfmEvent event = cfm_event_make(kind, entry.md_id, entry.ma_id, static_cast<uint16_t>(entry.mep_id), entry.vlan_id);
  event.rmep = entry.rmep_id;
  memcpy(event.mac, entry.src_mac, sizeof event.mac);
  cfm_event_post(event);
}

}  // namespace

uint32_t cfm_mep_db_Init() {
  if (g_table.tree == nullptr) {
    g_table.create(compare, "cfmMepDb", CFM_MAX_REMOTE_MEP);
    cfm_ltr_db_Create();
    g_sem_set = CFM_OS_Create_Semaphore("cfmMepDbSet", 1, 1);
    cfm_ltr_db_Create_Semaphore();
  }
  g_ready.store(true);
  return CFM_OK;
}

void cfm_mep_db_Reset() {
  g_ready.store(false);
  g_table.empty();
  cfm_ltr_db_Empty();
}

bool cfm_mep_db_ready() { return g_ready.load(); }

uint32_t CFM_MEP_DB_Get_RemEntry(RemoteMepEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  return found(g_table.get(entry));
}

uint32_t CFM_MEP_Get_NextRemEntry(RemoteMepEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  return found(g_table.get_next(entry));
}

uint32_t CFM_MEP_Del_RemEntry(const RemoteMepEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  return found(g_table.remove(entry));
}

// No capacity check here: mep_process_normal_frame decides whether a new
// entry may be added.
uint32_t CFM_MEP_DB_Store_RemEntry(const RemoteMepEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  SemLock lock(g_table.sem);
  return g_table.store_locked(entry, UINT32_MAX) ? CFM_DB_FOUND : CFM_DB_FULL;
}

uint32_t CFM_MEP_DB_RemEntry_Count() {
  if (!g_ready.load()) return 0;
  return g_table.count();
}

// A known peer is always refreshed; a new one is added only below capacity.
uint32_t mep_process_normal_frame(const RemoteMepEntry *entry) {
  if (uint32_t status = check(entry); status != CFM_OK) return status;
  SemLock set_lock(g_sem_set);
  SemLock lock(g_table.sem);
  RemoteMepKey key = load_key<RemoteMepKey>(entry);
  bool known = UTL_AVLT_Find(g_table.tree, &key) != nullptr;
  if (!g_table.store_locked(entry, g_table.capacity)) return CFM_DB_FULL;
  if (!known) post_rmep(CfmEventKind::RmepUp, *entry);
  return CFM_DB_FOUND;
}

// One pass: every entry with time left loses a fixed 1000 ms; an entry with
// none left (0 or below) is deleted. The whole pass runs under one hold of
// both semaphores, in the order the CCM receiver takes them, so the timer
// spends no semaphore operations per entry.
uint32_t CFM_MEP_DB_Check_RemEntries_Age() {
  if (!g_ready.load()) return CFM_DB_NOT_READY;
  SemLock set_lock(g_sem_set);
  SemLock lock(g_table.sem);
  RemoteMepKey key{};
  for (avlt_node *node = UTL_AVLT_Next_Greater(g_table.tree, &key); node != nullptr;
       node = UTL_AVLT_Next_Greater(g_table.tree, &key)) {
    auto *entry = static_cast<RemoteMepEntry *>(node->data);
    key = load_key<RemoteMepKey>(entry);
    if (entry->AgeTime > 0) {
      entry->AgeTime -= kAgeStepMs;
    } else {
      post_rmep(CfmEventKind::RmepDown, *entry);
      CFM_OS_Deallocate_Memory(UTL_AVLT_Delete(g_table.tree, &key));
    }
  }
  return CFM_DB_FOUND;
}
