// Ordered table: structure checked node by node against a reference map
// after every change, plus the search rules the database builds on.
#include "db/avl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <memory>
#include <random>
#include <vector>

namespace {

struct Item {
  int key;
  int version;
};
using Ref = std::map<int, Item *>;

int cmp_items(const void *a, const void *b, void *) {
  const int x = static_cast<const Item *>(a)->key, y = static_cast<const Item *>(b)->key;
  return x < y ? -1 : (x > y ? 1 : 0);
}

int key_of(const avlt_node *n) { return static_cast<const Item *>(n->data)->key; }

// Checks tags, threads (to `lo`/`hi`, the in-order neighbours of the
// subtree), balance factors and height of the subtree at `n`; appends its
// nodes in order. Returns the height.
int check_subtree(const avlt_node *n, const avlt_node *lo, const avlt_node *hi, std::vector<const avlt_node *> *order) {
  for (int s : {0, 1}) {
    EXPECT_TRUE(n->tag[s] == 1 || (n->tag[s] == -1 && n->link[s] == (s ? hi : lo))) << s << " of " << key_of(n);
  }
  const int hl = n->tag[0] == 1 ? check_subtree(n->link[0], lo, n, order) : 0;
  order->push_back(n);
  const int hr = n->tag[1] == 1 ? check_subtree(n->link[1], n, hi, order) : 0;
  EXPECT_EQ(n->bal, hr - hl) << "key " << key_of(n);
  EXPECT_LE(std::abs(hr - hl), 1) << "key " << key_of(n);
  return 1 + std::max(hl, hr);
}

// Full consistency check of the table against the reference contents.
void check_table(const OrderedTable *t, const Ref &ref) {
  const avlt_node *head = &t->root;
  ASSERT_TRUE(head->link[1] == head && head->tag[1] == 1);
  ASSERT_EQ(UTL_AVLT_Count(t), ref.size());
  ASSERT_EQ(head->tag[0], ref.empty() ? -1 : 1);
  std::vector<const avlt_node *> order;
  if (ref.empty()) {
    ASSERT_EQ(head->link[0], head);
  } else {  // AVL height bound: 1.44 log2(n + 2).
    EXPECT_LE(check_subtree(head->link[0], head, head, &order), 1.45 * std::log2(ref.size() + 2.0));
  }
  ASSERT_EQ(order.size(), ref.size());
  auto it = ref.begin();
  for (const avlt_node *o : order) ASSERT_EQ(o->data, (it++)->second);
  // Next and Prev walk the same sequence in both directions.
  const avlt_node *n = nullptr;
  for (const avlt_node *o : order) ASSERT_EQ(n = UTL_AVLT_Next(t, n), o);
  EXPECT_EQ(UTL_AVLT_Next(t, n), nullptr);
  n = nullptr;
  for (auto r = order.rbegin(); r != order.rend(); ++r) ASSERT_EQ(n = UTL_AVLT_Prev(t, n), *r);
  EXPECT_EQ(UTL_AVLT_Prev(t, n), nullptr);
}

class AvlTest : public ::testing::Test {
 protected:
  void SetUp() override { t_ = UTL_AVLT_Create(cmp_items, nullptr); }
  void TearDown() override {
    UTL_AVLT_Destroy(t_, nullptr);
    EXPECT_EQ(UTL_AVLT_Allocations(), base_allocs_);
  }
  Item *make(int key, int version = 0) {
    pool_.push_back(std::make_unique<Item>(Item{key, version}));
    return pool_.back().get();
  }
  long base_allocs_ = UTL_AVLT_Allocations();
  OrderedTable *t_ = nullptr;
  std::vector<std::unique_ptr<Item>> pool_;
};

TEST_F(AvlTest, RandomChangesKeepStructureAndMatchReference) {
  std::mt19937 rng(12345);
  Ref ref;
  auto stored = [&](int key) -> Item * { return ref.count(key) ? ref[key] : nullptr; };
  for (int step = 0; step < 4000; ++step) {
    const int key = static_cast<int>(rng() % 200);
    Item k{key, 0}, *item = make(key, step), *old = stored(key);
    switch (rng() % 4) {
      case 0:  // Insert keeps an existing item and returns it.
        EXPECT_EQ(UTL_AVLT_Insert(t_, item), old);
        if (!old) ref[key] = item;
        break;
      case 1: {  // Probe returns the slot of the stored or new item.
        void **slot = UTL_AVLT_Probe(t_, item);
        ASSERT_NE(slot, nullptr);
        EXPECT_EQ(*slot, old ? old : item);
        if (!old) ref[key] = item;
        break;
      }
      case 2:
        EXPECT_EQ(UTL_AVLT_Replace(t_, item), old);
        ref[key] = item;
        break;
      default:
        EXPECT_EQ(UTL_AVLT_Delete(t_, &k), old);
        ref.erase(key);
    }
    check_table(t_, ref);
    // Find is exact; Find_Close ends on the key or next to it on either side;
    // Next_Greater gives the smallest item strictly greater.
    const auto lo = ref.lower_bound(key), up = ref.upper_bound(key);
    const avlt_node *f = UTL_AVLT_Find(t_, &k), *c = UTL_AVLT_Find_Close(t_, &k), *g = UTL_AVLT_Next_Greater(t_, &k);
    EXPECT_EQ(f ? f->data : nullptr, stored(key));
    EXPECT_EQ(g ? g->data : nullptr, up == ref.end() ? nullptr : up->second);
    EXPECT_EQ(c == nullptr, ref.empty());
    EXPECT_TRUE(!c || (lo != ref.end() && c->data == lo->second) ||
                (lo != ref.begin() && up == lo && c->data == std::prev(lo)->second));
    // One table plus one node per item are live.
    EXPECT_EQ(UTL_AVLT_Allocations() - base_allocs_, static_cast<long>(ref.size()) + 1);
    if (HasFailure()) FAIL() << "after step " << step;
  }
  // Drain in random order down to empty, checking each step; then reuse.
  std::vector<int> keys;
  for (auto &kv : ref) keys.push_back(kv.first);
  std::shuffle(keys.begin(), keys.end(), rng);
  for (int key : keys) {
    Item k{key, 0};
    EXPECT_EQ(UTL_AVLT_Delete(t_, &k), ref[key]);
    ref.erase(key);
    check_table(t_, ref);
    if (HasFailure()) FAIL() << "draining " << key;
  }
  Item *a = make(7);
  EXPECT_TRUE(!UTL_AVLT_Delete(t_, a) && !UTL_AVLT_Find_Close(t_, a) && !UTL_AVLT_Next_Greater(t_, a));
  EXPECT_EQ(UTL_AVLT_Replace(t_, a), nullptr);
  check_table(t_, {{7, a}});
}

// The comparison function always gets the searched key as its first argument.
TEST_F(AvlTest, ComparisonGetsKeyFirst) {
  for (int key : {3, 1, 4, 5, 9, 2, 6}) UTL_AVLT_Insert(t_, make(key));
  static const void *probe_key;
  static bool key_second;
  key_second = false;
  t_->cmp = [](const void *a, const void *b, void *p) {
    key_second |= b == probe_key;
    return cmp_items(a, b, p);
  };
  Item k{7, 0}, *n = make(8);
  probe_key = &k;
  UTL_AVLT_Find(t_, &k);
  UTL_AVLT_Next_Greater(t_, &k);
  UTL_AVLT_Delete(t_, &k);
  probe_key = n;
  UTL_AVLT_Insert(t_, n);
  EXPECT_FALSE(key_second);
  t_->cmp = cmp_items;
}

TEST_F(AvlTest, WalkTraverseAndCopy) {
  Ref ref;
  for (int key : {50, 20, 80, 10, 30, 70, 90, 60}) ref[key] = make(key), UTL_AVLT_Insert(t_, ref[key]);
  std::vector<int> expect, walked, traversed;
  for (auto &kv : ref) expect.push_back(kv.first);
  UTL_AVLT_Walk(t_, [](void *d, void *p) { static_cast<std::vector<int> *>(p)->push_back(static_cast<Item *>(d)->key); },
                &walked);
  EXPECT_EQ(walked, expect);
  // Traverse runs to the end, reports null once, then starts over.
  avlt_traverser tr{0, nullptr};
  for (int round = 0; round < 2; ++round) {
    while (void *d = UTL_AVLT_Traverse(t_, &tr)) traversed.push_back(static_cast<Item *>(d)->key);
  }
  EXPECT_EQ(traversed.size(), 2 * expect.size());
  EXPECT_TRUE(std::equal(expect.begin(), expect.end(), traversed.begin() + expect.size()));
  OrderedTable *c = UTL_AVLT_Copy(t_, nullptr);
  check_table(c, ref);
  UTL_AVLT_Destroy(c, nullptr);
}

}  // namespace
