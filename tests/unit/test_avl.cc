// Ordered table: structure checked node by node against a reference map
// after every change, plus the searches and the copy. (Leaks are left to the
// sanitizer build.)
#include "db/avl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

namespace {

using Ref = std::map<int, int *>;  // key -> the item stored, an int holding the key

int cmp_items(const void *a, const void *b, void *) {
  const int x = *static_cast<const int *>(a), y = *static_cast<const int *>(b);
  return x < y ? -1 : (x > y ? 1 : 0);
}

// Checks tags, threads (to `lo`/`hi`, the in-order neighbours of the
// subtree) and balance factors of the subtree at `n`; appends its nodes in
// order. Returns the height.
int check_subtree(const avlt_node *n, const avlt_node *lo, const avlt_node *hi, std::vector<const avlt_node *> *order) {
  for (int s : {0, 1}) EXPECT_TRUE(n->tag[s] == 1 || (n->tag[s] == -1 && n->link[s] == (s ? hi : lo)));
  const int hl = n->tag[0] == 1 ? check_subtree(n->link[0], lo, n, order) : 0;
  order->push_back(n);
  const int hr = n->tag[1] == 1 ? check_subtree(n->link[1], n, hi, order) : 0;
  EXPECT_EQ(n->bal, hr - hl);
  EXPECT_TRUE(hr - hl >= -1 && hr - hl <= 1);
  return 1 + std::max(hl, hr);
}

// Full consistency check of the table against the reference contents; Next
// walks the same sequence.
void check_table(const OrderedTable *t, const Ref &ref) {
  const avlt_node *head = &t->root;
  ASSERT_EQ(UTL_AVLT_Count(t), ref.size());
  ASSERT_EQ(head->tag[0], ref.empty() ? -1 : 1);
  std::vector<const avlt_node *> order;
  if (!ref.empty()) check_subtree(head->link[0], head, head, &order);
  ASSERT_EQ(order.size(), ref.size());
  auto it = ref.begin();
  const avlt_node *n = nullptr;
  for (const avlt_node *o : order) {
    ASSERT_EQ(o->data, (it++)->second);
    ASSERT_EQ(n = UTL_AVLT_Next(t, n), o);
  }
  EXPECT_EQ(UTL_AVLT_Next(t, n), nullptr);
}

// Insert keeps an existing item and returns it; Delete returns the item it
// removes; Next_Greater gives the smallest item strictly greater.
TEST(Avl, RandomChangesKeepStructureAndMatchReference) {
  OrderedTable *t = UTL_AVLT_Create(cmp_items, nullptr);
  std::vector<int> pool(4000);
  std::mt19937 rng(12345);
  Ref ref;
  for (int step = 0; step < 4000; ++step) {
    int *item = &pool[step];
    *item = static_cast<int>(rng() % 200);
    int *old = ref.count(*item) ? ref[*item] : nullptr;
    const bool insert = rng() % 2 == 0;
    EXPECT_EQ(insert ? UTL_AVLT_Insert(t, item) : UTL_AVLT_Delete(t, item), old);
    if (insert && !old) ref[*item] = item;
    if (!insert) ref.erase(*item);
    check_table(t, ref);
    const auto up = ref.upper_bound(*item);
    const avlt_node *g = UTL_AVLT_Next_Greater(t, item);
    EXPECT_EQ(g ? g->data : nullptr, up == ref.end() ? nullptr : up->second);
  }
  // A copy shares the items and has the same structure.
  OrderedTable *copy = UTL_AVLT_Copy(t, nullptr);
  check_table(copy, ref);
  UTL_AVLT_Destroy(copy, nullptr);
  UTL_AVLT_Destroy(t, nullptr);
}

}  // namespace
