// Ordered tables: a threaded AVL tree of caller-owned items, ordered by the
// owner's comparison function. Successor and predecessor follow threads, so
// no parent pointers, no stack and no recursion are needed.
#pragma once
#include <cstdint>

using avl_comparison_func = int (*)(const void *a, const void *b, void *param);
using avl_node_func = void (*)(void *data, void *param);
using avl_copy_func = void *(*)(void *data, void *param);

// One node. link[0]/link[1] are left/right; tag[i] is +1 for a child link and
// -1 for a thread (a left thread points to the predecessor, a right thread to
// the successor; the extremes thread to the head node).
struct avlt_node {
  void *data;
  avlt_node *link[2];
  int8_t bal;    // right height minus left height: -1, 0, +1
  int8_t cache;  // direction taken on the current search path: 0 left, 1 right
  int8_t tag[2];
};

struct OrderedTable {
  avlt_node root;  // head: link[0] is the tree's root, link[1] the head itself
  avl_comparison_func cmp;
  uint32_t count;
  void *param;
};

// Iterator over items in ascending order.
struct avlt_traverser {
  int init;
  const avlt_node *p;
};

OrderedTable *UTL_AVLT_Create(avl_comparison_func cmp, void *param);
void UTL_AVLT_Destroy(OrderedTable *tree, avl_node_func free_func);
uint32_t UTL_AVLT_Count(const OrderedTable *tree);
OrderedTable *UTL_AVLT_Copy(const OrderedTable *tree, avl_copy_func copy);
void UTL_AVLT_Walk(const OrderedTable *tree, avl_node_func walk_func, void *param);
void *UTL_AVLT_Traverse(const OrderedTable *tree, avlt_traverser *trav);
avlt_node *UTL_AVLT_Next(const OrderedTable *tree, const avlt_node *node);
avlt_node *UTL_AVLT_Prev(const OrderedTable *tree, const avlt_node *node);
void **UTL_AVLT_Probe(OrderedTable *tree, void *item);
avlt_node *UTL_AVLT_Find(const OrderedTable *tree, const void *key);
avlt_node *UTL_AVLT_Find_Close(const OrderedTable *tree, const void *key);
void *UTL_AVLT_Insert(OrderedTable *tree, void *item);
void *UTL_AVLT_Replace(OrderedTable *tree, void *item);
void *UTL_AVLT_Delete(OrderedTable *tree, const void *key);

// "Next greater than a key", the rule every GetNext of the database uses:
// Find_Close, then one step of Next if the node found orders at or before the
// key. Returns the node of the smallest item strictly greater than the key.
avlt_node *UTL_AVLT_Next_Greater(const OrderedTable *tree, const void *key);

// Live allocations of the module (diagnosis only).
long UTL_AVLT_Allocations();
