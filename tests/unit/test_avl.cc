// Ordered table: structure checked node by node against a reference map
// after every change, plus the search rules the database builds on.
#include "db/avl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <map>
#include <random>
#include <vector>

namespace {

struct Item {
  int key;
  int version;
};

int cmp_items(const void *a, const void *b, void *) {
  const int x = static_cast<const Item *>(a)->key;
  const int y = static_cast<const Item *>(b)->key;
  return x < y ? -1 : (x > y ? 1 : 0);
}

int key_of(const avlt_node *n) { return static_cast<const Item *>(n->data)->key; }

// Checks tags, balance factors and height of the subtree at `n`; appends
// its nodes in order. Returns the height.
int check_subtree(const avlt_node *n, std::vector<const avlt_node *> *order) {
  EXPECT_TRUE(n->tag[0] == 1 || n->tag[0] == -1);
  EXPECT_TRUE(n->tag[1] == 1 || n->tag[1] == -1);
  const int hl = n->tag[0] == 1 ? check_subtree(n->link[0], order) : 0;
  order->push_back(n);
  const int hr = n->tag[1] == 1 ? check_subtree(n->link[1], order) : 0;
  EXPECT_EQ(n->bal, hr - hl) << "key " << key_of(n);
  EXPECT_LE(std::abs(hr - hl), 1) << "key " << key_of(n);
  return 1 + std::max(hl, hr);
}

// Full consistency check of the table against the reference contents.
void check_table(const OrderedTable *t, const std::map<int, Item *> &ref) {
  const avlt_node *head = &t->root;
  ASSERT_EQ(head->link[1], head);
  ASSERT_EQ(head->tag[1], 1);
  ASSERT_EQ(t->count, ref.size());
  std::vector<const avlt_node *> order;
  if (ref.empty()) {
    ASSERT_EQ(head->tag[0], -1);
    ASSERT_EQ(head->link[0], head);
  } else {
    ASSERT_EQ(head->tag[0], 1);
    const int h = check_subtree(head->link[0], &order);
    // AVL height bound: 1.44 log2(n + 2).
    EXPECT_LE(h, 1.45 * std::log2(ref.size() + 2.0));
  }
  ASSERT_EQ(order.size(), ref.size());
  auto it = ref.begin();
  for (size_t i = 0; i < order.size(); ++i, ++it) {
    ASSERT_EQ(order[i]->data, it->second);
    const avlt_node *pred = i == 0 ? head : order[i - 1];
    const avlt_node *succ = i + 1 == order.size() ? head : order[i + 1];
    if (order[i]->tag[0] == -1) {
      EXPECT_EQ(order[i]->link[0], pred) << "left thread of " << it->first;
    }
    if (order[i]->tag[1] == -1) {
      EXPECT_EQ(order[i]->link[1], succ) << "right thread of " << it->first;
    }
  }
  // Next and Prev walk the same sequence in both directions.
  const avlt_node *n = UTL_AVLT_Next(t, nullptr);
  for (const avlt_node *o : order) {
    ASSERT_EQ(n, o);
    n = UTL_AVLT_Next(t, n);
  }
  EXPECT_EQ(n, nullptr);
  n = UTL_AVLT_Prev(t, nullptr);
  for (auto r = order.rbegin(); r != order.rend(); ++r) {
    ASSERT_EQ(n, *r);
    n = UTL_AVLT_Prev(t, n);
  }
  EXPECT_EQ(n, nullptr);
}

class AvlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    base_allocs_ = UTL_AVLT_Allocations();
    t_ = UTL_AVLT_Create(cmp_items, nullptr);
  }
  void TearDown() override {
    UTL_AVLT_Destroy(t_, nullptr);
    EXPECT_EQ(UTL_AVLT_Allocations(), base_allocs_);
  }
  Item *make(int key, int version = 0) {
    pool_.push_back(std::make_unique<Item>(Item{key, version}));
    return pool_.back().get();
  }
  // Node holding the smallest item strictly greater than `key`, or -1.
  int next_greater(int key) {
    Item k{key, 0};
    const avlt_node *n = UTL_AVLT_Next_Greater(t_, &k);
    return n ? key_of(n) : -1;
  }
  OrderedTable *t_ = nullptr;
  long base_allocs_ = 0;
  std::vector<std::unique_ptr<Item>> pool_;
};

TEST_F(AvlTest, RandomChangesKeepStructureAndMatchReference) {
  std::mt19937 rng(12345);
  std::map<int, Item *> ref;
  for (int step = 0; step < 4000; ++step) {
    const int key = static_cast<int>(rng() % 200);
    Item k{key, 0};
    const auto found = ref.find(key);
    switch (rng() % 4) {
      case 0:
      case 1: {
        Item *it = make(key, step);
        void *r = UTL_AVLT_Insert(t_, it);
        if (found == ref.end()) {
          EXPECT_EQ(r, nullptr);
          ref[key] = it;
        } else {
          EXPECT_EQ(r, found->second);
        }
        break;
      }
      case 2: {
        Item *it = make(key, step);
        void *r = UTL_AVLT_Replace(t_, it);
        EXPECT_EQ(r, found == ref.end() ? nullptr : found->second);
        ref[key] = it;
        break;
      }
      default: {
        void *r = UTL_AVLT_Delete(t_, &k);
        EXPECT_EQ(r, found == ref.end() ? nullptr : found->second);
        if (found != ref.end()) ref.erase(found);
        break;
      }
    }
    check_table(t_, ref);
    if (HasFailure()) FAIL() << "after step " << step;
    const avlt_node *f = UTL_AVLT_Find(t_, &k);
    EXPECT_EQ(f ? f->data : nullptr, ref.count(key) ? ref[key] : nullptr);
    // One table plus one node per item are live.
    EXPECT_EQ(UTL_AVLT_Allocations() - base_allocs_, static_cast<long>(ref.size()) + 1);
  }
  // Drain in random order down to empty, checking each step.
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
}

TEST_F(AvlTest, FindCloseAndNextGreaterRules) {
  Item k{5, 0};
  EXPECT_EQ(UTL_AVLT_Find_Close(t_, &k), nullptr);
  EXPECT_EQ(UTL_AVLT_Next(t_, nullptr), nullptr);
  EXPECT_EQ(UTL_AVLT_Prev(t_, nullptr), nullptr);
  EXPECT_EQ(next_greater(0), -1);

  UTL_AVLT_Insert(t_, make(10));
  for (int key : {0, 10, 99}) {
    Item q{key, 0};
    const avlt_node *n = UTL_AVLT_Find_Close(t_, &q);
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(key_of(n), 10);
  }
  EXPECT_EQ(next_greater(0), 10);
  EXPECT_EQ(next_greater(10), -1);

  for (int key : {20, 30, 40, 50, 60, 70}) UTL_AVLT_Insert(t_, make(key));
  // The search ends next to the key, on either side of it.
  for (int key = 0; key <= 80; ++key) {
    Item q{key, 0};
    const int close = key_of(UTL_AVLT_Find_Close(t_, &q));
    const int below = std::max(10, key / 10 * 10);
    const int above = std::min(70, (key + 9) / 10 * 10);
    EXPECT_TRUE(close == below || close == above) << key << " -> " << close;
    const int expect_next = key >= 70 ? -1 : (key < 10 ? 10 : key / 10 * 10 + 10);
    EXPECT_EQ(next_greater(key), expect_next) << key;
  }
  // Engines start at an all-zero key and step until the end.
  std::vector<int> seen;
  for (int key = 0, n; (n = next_greater(key)) != -1; key = n) seen.push_back(n);
  EXPECT_EQ(seen, (std::vector<int>{10, 20, 30, 40, 50, 60, 70}));
}

TEST_F(AvlTest, InsertReplaceDeleteResults) {
  Item *a = make(7, 1);
  Item *b = make(7, 2);
  EXPECT_EQ(UTL_AVLT_Insert(t_, a), nullptr);
  EXPECT_EQ(UTL_AVLT_Insert(t_, b), a);
  EXPECT_EQ(UTL_AVLT_Count(t_), 1u);
  // Probe finds the stored slot instead of inserting.
  EXPECT_EQ(*UTL_AVLT_Probe(t_, b), a);
  EXPECT_EQ(UTL_AVLT_Replace(t_, b), a);
  EXPECT_EQ(UTL_AVLT_Find(t_, a)->data, b);
  EXPECT_EQ(UTL_AVLT_Count(t_), 1u);

  Item absent{8, 0};
  EXPECT_EQ(UTL_AVLT_Delete(t_, &absent), nullptr);
  EXPECT_EQ(UTL_AVLT_Count(t_), 1u);
  EXPECT_EQ(UTL_AVLT_Find(t_, &absent), nullptr);

  EXPECT_EQ(UTL_AVLT_Delete(t_, a), b);
  EXPECT_EQ(UTL_AVLT_Count(t_), 0u);
  EXPECT_EQ(t_->root.tag[0], -1);
  EXPECT_EQ(UTL_AVLT_Delete(t_, a), nullptr);
  // Usable again after becoming empty.
  EXPECT_EQ(UTL_AVLT_Replace(t_, a), nullptr);
  check_table(t_, {{7, a}});
}

TEST_F(AvlTest, ComparisonGetsKeyFirst) {
  for (int key : {3, 1, 4, 5, 9, 2, 6}) UTL_AVLT_Insert(t_, make(key));
  static const void *probe_key;
  static bool key_second;
  key_second = false;
  auto spy = [](const void *a, const void *b, void *p) {
    if (b == probe_key) key_second = true;
    return cmp_items(a, b, p);
  };
  t_->cmp = spy;
  Item k{7, 0};
  probe_key = &k;
  UTL_AVLT_Find(t_, &k);
  UTL_AVLT_Next_Greater(t_, &k);
  UTL_AVLT_Delete(t_, &k);
  Item *n = make(8);
  probe_key = n;
  UTL_AVLT_Insert(t_, n);
  EXPECT_FALSE(key_second);
  t_->cmp = cmp_items;
}

TEST_F(AvlTest, WalkTraverseCopyAndDestroy) {
  std::map<int, Item *> ref;
  std::mt19937 rng(7);
  for (int i = 0; i < 100; ++i) {
    Item *it = make(static_cast<int>(rng() % 1000));
    if (UTL_AVLT_Insert(t_, it) == nullptr) ref[it->key] = it;
  }
  std::vector<int> walked;
  UTL_AVLT_Walk(t_, [](void *d, void *p) { static_cast<std::vector<int> *>(p)->push_back(static_cast<Item *>(d)->key); },
                &walked);
  std::vector<int> expect;
  for (auto &kv : ref) expect.push_back(kv.first);
  EXPECT_EQ(walked, expect);

  // Traverse runs to the end, reports null once, then starts over.
  avlt_traverser tr{0, nullptr};
  for (int round = 0; round < 2; ++round) {
    std::vector<int> got;
    while (void *d = UTL_AVLT_Traverse(t_, &tr)) got.push_back(static_cast<Item *>(d)->key);
    EXPECT_EQ(got, expect);
    EXPECT_EQ(tr.init, 0);
  }

  // A copy without copy function shares items and has the same shape.
  OrderedTable *c = UTL_AVLT_Copy(t_, nullptr);
  check_table(c, ref);
  for (const avlt_node *a = UTL_AVLT_Next(t_, nullptr), *b = UTL_AVLT_Next(c, nullptr); a;
       a = UTL_AVLT_Next(t_, a), b = UTL_AVLT_Next(c, b)) {
    EXPECT_EQ(a->bal, b->bal);
    EXPECT_EQ(a->tag[0], b->tag[0]);
    EXPECT_EQ(a->tag[1], b->tag[1]);
  }
  UTL_AVLT_Destroy(c, nullptr);

  // With a copy function items are duplicated, and the free function sees
  // every copy exactly once.
  c = UTL_AVLT_Copy(t_, [](void *d, void *) -> void * { return new Item(*static_cast<Item *>(d)); });
  EXPECT_EQ(UTL_AVLT_Count(c), ref.size());
  EXPECT_NE(UTL_AVLT_Next(c, nullptr)->data, UTL_AVLT_Next(t_, nullptr)->data);
  static int freed;
  freed = 0;
  UTL_AVLT_Destroy(c, [](void *d, void *) {
    ++freed;
    delete static_cast<Item *>(d);
  });
  EXPECT_EQ(freed, static_cast<int>(ref.size()));

  OrderedTable *empty = UTL_AVLT_Create(cmp_items, nullptr);
  OrderedTable *ec = UTL_AVLT_Copy(empty, nullptr);
  check_table(ec, {});
  UTL_AVLT_Destroy(ec, nullptr);
  UTL_AVLT_Destroy(empty, nullptr);
}

TEST(AvlDeathTest, ConsistencyFailuresAbortWithExpression) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(UTL_AVLT_Count(nullptr), "Assertion `tree != \\(\\(void \\*\\)0\\)' failed");
  EXPECT_DEATH(UTL_AVLT_Insert(nullptr, nullptr), "UTL_AVLT_Insert: Assertion `tree != ");
  EXPECT_DEATH(UTL_AVLT_Create(nullptr, nullptr), "Assertion `cmp != \\(\\(void \\*\\)0\\)' failed");
  OrderedTable *t = UTL_AVLT_Create(cmp_items, nullptr);
  EXPECT_DEATH(UTL_AVLT_Walk(t, nullptr, nullptr), "Assertion `tree && walk_func' failed");
  EXPECT_DEATH(UTL_AVLT_Traverse(t, nullptr), "Assertion `tree && trav' failed");
  UTL_AVLT_Destroy(t, nullptr);
}

}  // namespace
