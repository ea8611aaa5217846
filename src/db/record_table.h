// One ordered table of whole heap records under its own semaphore, shared by
// the MEP/MIP, remote-MEP and LTR databases. Records cross the boundary as
// whole copies; node pointers never leave the scope that holds the semaphore,
// and removed records are freed only after it is released. The callers check
// readiness and null arguments and map the results to their own status codes.
#pragma once
#include <compare>
#include <cstdint>
#include <cstring>
#include <tuple>

#include "core/os.h"
#include "db/avl.h"

// -1, 0 or +1 as a orders before, with or after b; tuples (std::tie of key
// fields) compare field by field.
template <typename T>
int order(const T &a, const T &b) {
  auto c = a <=> b;
  return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

// The key is read by copying the leading bytes, so a key buffer and a stored
// record are handled alike.
template <typename Key>
Key load_key(const void *p) {
  Key key{};
  memcpy(&key, p, sizeof key);
  return key;
}

// Comparison of two keys (or records) by the fields `fields` picks, in order.
template <typename Key, typename Fields>
int compare_keys(const void *a, const void *b, Fields fields) {
  Key x = load_key<Key>(a);
  Key y = load_key<Key>(b);
  return order(fields(x), fields(y));
}

template <typename Entry, typename Key>
struct RecordTable {
  static_assert(sizeof(Key) <= sizeof(Entry));

  OrderedTable *tree = nullptr;
  int sem = -1;
  uint32_t capacity = 0;

  // Creates the table and its semaphore, once.
  void create(avl_comparison_func cmp, const char *sem_name, uint32_t limit) {
    if (tree != nullptr) return;
    tree = UTL_AVLT_Create(cmp, nullptr);
    sem = CFM_OS_Create_Semaphore(sem_name, 1, 1);
    capacity = limit;
  }

  // Fills *entry with the record of its key.
  bool get(Entry *entry) {
    Key key = load_key<Key>(entry);
    SemLock lock(sem);
    return copy_out(UTL_AVLT_Find(tree, &key), entry);
  }

  // Fills *entry with the record of the smallest key greater than its key.
  bool get_next(Entry *entry) {
    Key key = load_key<Key>(entry);
    SemLock lock(sem);
    return copy_out(UTL_AVLT_Next_Greater(tree, &key), entry);
  }

  // Overwrites the record with the key, or inserts a copy while the table is
  // below its capacity.
  bool update(const Entry *entry) {
    SemLock lock(sem);
    return store_locked(entry, capacity);
  }

  // The same with the semaphore held by the caller and a limit of its own.
  bool store_locked(const Entry *entry, uint32_t limit) {
    Key key = load_key<Key>(entry);
    avlt_node *node = UTL_AVLT_Find(tree, &key);
    if (node != nullptr) {
      memcpy(node->data, entry, sizeof(Entry));
      return true;
    }
    if (UTL_AVLT_Count(tree) >= limit) return false;
    void *copy = CFM_OS_Allocate_Memory(sizeof(Entry));
    if (copy == nullptr) return false;
    memcpy(copy, entry, sizeof(Entry));
    if (UTL_AVLT_Insert(tree, copy) != nullptr) {
      CFM_OS_Deallocate_Memory(copy);
      return false;
    }
    return true;
  }

  bool remove(const Entry *entry) {
    Key key = load_key<Key>(entry);
    void *item = nullptr;
    {
      SemLock lock(sem);
      item = UTL_AVLT_Delete(tree, &key);
    }
    if (item == nullptr) return false;
    CFM_OS_Deallocate_Memory(item);
    return true;
  }

  uint32_t count() const { return UTL_AVLT_Count(tree); }

  // Removes every record, one at a time under the semaphore.
  void empty() {
    if (tree == nullptr) return;
    for (;;) {
      void *item = nullptr;
      {
        SemLock lock(sem);
        avlt_node *first = UTL_AVLT_Next(tree, nullptr);
        if (first != nullptr) item = UTL_AVLT_Delete(tree, first->data);
      }
      if (item == nullptr) return;
      CFM_OS_Deallocate_Memory(item);
    }
  }

 private:
  static bool copy_out(const avlt_node *node, Entry *entry) {
    if (node == nullptr) return false;
    memcpy(entry, node->data, sizeof(Entry));
    return true;
  }
};
