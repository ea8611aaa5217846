// Local MEP and MIP tables. Each holds heap copies of whole records in an
// ordered table guarded by its own semaphore; every node pointer stays inside
// the function that holds the semaphore.
#include "db/mep_mip.h"

#include <atomic>
#include <cstring>

#include "core/os.h"
#include "db/avl.h"

namespace {

struct MipKey {
  uint32_t md_id;
  uint32_t ma_id;
  uint16_t MipId;
  uint8_t port;
};

static_assert(offsetof(MipEntry, md_id) == offsetof(MipKey, md_id));
static_assert(offsetof(MipEntry, port) == offsetof(MipKey, port));
static_assert(sizeof(MepKey) <= sizeof(MepEntry));
static_assert(sizeof(MipKey) <= sizeof(MipEntry));

// One table with its semaphore, record type and capacity.
template <typename Entry, typename Key>
struct Table {
  OrderedTable *tree = nullptr;
  int sem = -1;
  uint32_t capacity = 0;
};

Table<MepEntry, MepKey> g_mep;
Table<MipEntry, MipKey> g_mip;
std::atomic<bool> g_ready{false};

// The key is read by copying the leading bytes, so a key buffer and a stored
// record are handled alike.
template <typename Key>
Key load_key(const void *p) {
  Key key{};
  memcpy(&key, p, sizeof key);
  return key;
}

template <typename T>
int order(T a, T b) {
  return a < b ? -1 : (a > b ? 1 : 0);
}

// Copies the key out of the request before any search, so the request buffer
// may then receive the result.
template <typename Entry, typename Key>
Key key_of(const Entry *entry) {
  return load_key<Key>(entry);
}

template <typename Entry, typename Key>
int table_get(Table<Entry, Key> &table, Entry *entry) {
  if (!g_ready.load() || entry == nullptr) return 0;
  Key key = key_of<Entry, Key>(entry);
  SemLock lock(table.sem);
  const avlt_node *node = UTL_AVLT_Find(table.tree, &key);
  if (node == nullptr) return 0;
  memcpy(entry, node->data, sizeof(Entry));
  return 1;
}

template <typename Entry, typename Key>
int table_get_next(Table<Entry, Key> &table, Entry *entry) {
  if (!g_ready.load() || entry == nullptr) return 0;
  Key key = key_of<Entry, Key>(entry);
  SemLock lock(table.sem);
  const avlt_node *node = UTL_AVLT_Next_Greater(table.tree, &key);
  if (node == nullptr) return 0;
  memcpy(entry, node->data, sizeof(Entry));
  return 1;
}

// Overwrites the record with the key, or inserts a copy while the table is
// below its capacity.
template <typename Entry, typename Key>
int table_update(Table<Entry, Key> &table, const Entry *entry) {
  if (!g_ready.load() || entry == nullptr) return 0;
  Key key = key_of<Entry, Key>(entry);
  SemLock lock(table.sem);
  avlt_node *node = UTL_AVLT_Find(table.tree, &key);
  if (node != nullptr) {
    memcpy(node->data, entry, sizeof(Entry));
    return 1;
  }
  if (UTL_AVLT_Count(table.tree) >= table.capacity) return 0;
  void *copy = CFM_OS_Allocate_Memory(sizeof(Entry));
  if (copy == nullptr) return 0;
  memcpy(copy, entry, sizeof(Entry));
  if (UTL_AVLT_Insert(table.tree, copy) != nullptr) {
    CFM_OS_Deallocate_Memory(copy);
    return 0;
  }
  return 1;
}

template <typename Entry, typename Key>
int table_delete(Table<Entry, Key> &table, const Entry *entry) {
  if (!g_ready.load() || entry == nullptr) return 0;
  Key key = key_of<Entry, Key>(entry);
  void *item = nullptr;
  {
    SemLock lock(table.sem);
    item = UTL_AVLT_Delete(table.tree, &key);
  }
  if (item == nullptr) return 0;
  CFM_OS_Deallocate_Memory(item);
  return 1;
}

template <typename Entry, typename Key>
uint32_t table_count(const Table<Entry, Key> &table) {
  if (!g_ready.load()) return 0;
  return UTL_AVLT_Count(table.tree);
}

template <typename Entry, typename Key>
void table_empty(Table<Entry, Key> &table) {
  if (table.tree == nullptr) return;
  for (;;) {
    void *item = nullptr;
    {
      SemLock lock(table.sem);
      avlt_node *first = UTL_AVLT_Next(table.tree, nullptr);
      if (first != nullptr) item = UTL_AVLT_Delete(table.tree, first->data);
    }
    if (item == nullptr) return;
    CFM_OS_Deallocate_Memory(item);
  }
}

}  // namespace

int cfm_mep_key_compare(const void *a, const void *b, void * /*param*/) {
  MepKey x = load_key<MepKey>(a);
  MepKey y = load_key<MepKey>(b);
  if (int c = order(x.md_id, y.md_id)) return c;
  if (int c = order(x.ma_id, y.ma_id)) return c;
  if (int c = order(x.mep_id, y.mep_id)) return c;
  if (int c = order(x.port, y.port)) return c;
  if (int c = order(x.vid, y.vid)) return c;
  return order(x.direction, y.direction);
}

int cfm_mip_key_compare(const void *a, const void *b, void * /*param*/) {
  MipKey x = load_key<MipKey>(a);
  MipKey y = load_key<MipKey>(b);
  if (int c = order(x.md_id, y.md_id)) return c;
  if (int c = order(x.ma_id, y.ma_id)) return c;
  if (int c = order(x.MipId, y.MipId)) return c;
  return order(x.port, y.port);
}

void CFM_MEP_MIP_Init() {
  if (g_mep.tree == nullptr) {
    g_mep.tree = UTL_AVLT_Create(cfm_mep_key_compare, nullptr);
    g_mep.sem = CFM_OS_Create_Semaphore("CFM_MEP", 1, 1);
    g_mep.capacity = CFM_MAX_MEP;
  }
  if (g_mip.tree == nullptr) {
    g_mip.tree = UTL_AVLT_Create(cfm_mip_key_compare, nullptr);
    g_mip.sem = CFM_OS_Create_Semaphore("CFM_MIP", 1, 1);
    g_mip.capacity = CFM_MAX_MIP;
  }
  g_ready.store(true);
}

void CFM_MEP_MIP_Reset() {
  g_ready.store(false);
  table_empty(g_mep);
  table_empty(g_mip);
}

int CFM_Get_MEP_Entry(MepEntry *entry) { return table_get(g_mep, entry); }
int CFM_GetNext_MEP_Entry(MepEntry *entry) { return table_get_next(g_mep, entry); }
int CFM_Update_MEP_Entry(const MepEntry *entry) { return table_update(g_mep, entry); }
int CFM_Delete_MEP_Entry(const MepEntry *entry) { return table_delete(g_mep, entry); }
uint32_t CFM_Get_TotalMepEntries() { return table_count(g_mep); }

int CFM_Get_MIP_Entry(MipEntry *entry) { return table_get(g_mip, entry); }
int CFM_GetNext_MIP_Entry(MipEntry *entry) { return table_get_next(g_mip, entry); }
int CFM_Update_MIP_Entry(const MipEntry *entry) { return table_update(g_mip, entry); }
int CFM_Delete_MIP_Entry(const MipEntry *entry) { return table_delete(g_mip, entry); }
uint32_t CFM_Get_TotalMipEntries() { return table_count(g_mip); }
