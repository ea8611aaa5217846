// Threaded AVL tree. Every link is either a child (tag +1) or a thread (tag
// -1) to the in-order neighbour; the head node `root` of the table holds the
// tree's root in link[0] and points at itself through link[1]. Insertion
// records the path in each node's cache byte; deletion keeps the path nodes
// on a small fixed array and their directions in the cache bytes.
#include "db/avl.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/os.h"

namespace {

constexpr int8_t kChild = +1;
constexpr int8_t kThread = -1;

// Taller than any AVL tree of 2^32 nodes can grow.
constexpr int kMaxHeight = 64;

std::atomic<long> g_allocations{0};

// Consistency failures are fatal: report like the standard assertion and
// abort. Always compiled in, whatever NDEBUG says.
[[noreturn]] void avl_assert_fail(const char *expr, const char *file, int line, const char *func) {
  fflush(stdout);
  fprintf(stderr, "%s: %s:%d: %s: Assertion `%s' failed.\n", program_invocation_short_name, file,
          line, func, expr);
  abort();
}

#define AVL_CHECK(cond, text) \
  ((cond) ? static_cast<void>(0) : avl_assert_fail(text, __FILE__, __LINE__, __func__))
#define AVL_ASSERT(expr) AVL_CHECK(expr, #expr)
#define AVL_ASSERT_TREE(tree) AVL_CHECK((tree) != nullptr, "tree != ((void *)0)")
// Balance of `node` must equal `v` (+1 or -1).
#define AVL_ASSERT_BAL(node, v) \
  AVL_CHECK((node)->bal == (v), (v) > 0 ? #node "->bal == +1" : #node "->bal == -1")

void *utl_xmalloc(size_t size) {
  if (size == 0) {
    return nullptr;
  }
  void *vp = CFM_OS_Allocate_Memory(size);
  AVL_CHECK(vp != nullptr, "vp != ((void *)0)");
  memset(vp, 0, size);
  ++g_allocations;
  return vp;
}

void utl_xfree(void *ptr) {
  if (ptr != nullptr) {
    --g_allocations;
    CFM_OS_Deallocate_Memory(ptr);
  }
}

int8_t weight(int dir) { return dir ? +1 : -1; }

bool is_empty(const OrderedTable *tree) { return tree->root.tag[0] == kThread; }

// Hangs a new leaf holding `data` below `parent` on side `dir`. The leaf takes
// over the parent's thread on that side and threads back to the parent on the
// other side.
avlt_node *attach_leaf(avlt_node *parent, int dir, void *data) {
  auto *n = static_cast<avlt_node *>(utl_xmalloc(sizeof(avlt_node)));
  n->data = data;
  n->link[dir] = parent->link[dir];
  n->tag[dir] = kThread;
  n->link[!dir] = parent;
  n->tag[!dir] = kThread;
  parent->link[dir] = n;
  parent->tag[dir] = kChild;
  return n;
}

// Rebalances `s`, whose subtree on side `e` is two levels taller than the
// other one, by a single or double rotation; returns the subtree's new root.
// After insertion the rotated subtree regains its old height; after deletion
// it is one level lower unless the returned root is left unbalanced.
avlt_node *rotate(avlt_node *s, int e) {
  const int8_t we = weight(e);
  AVL_ASSERT_BAL(s, we);
  avlt_node *r = s->link[e];
  if (r->bal != -we) {
    // Single rotation: r rises, s becomes its child on the far side.
    if (r->tag[!e] == kThread) {
      s->link[e] = r;
      s->tag[e] = kThread;
      r->tag[!e] = kChild;
    } else {
      s->link[e] = r->link[!e];
    }
    r->link[!e] = s;
    if (r->bal == we) {
      r->bal = 0;
      s->bal = 0;
    } else {  // only after deletion
      r->bal = -we;
      s->bal = we;
    }
    return r;
  }
  // Double rotation: r's inner child p rises above both.
  AVL_ASSERT_BAL(r, -we);
  avlt_node *p = r->link[!e];
  if (p->tag[e] == kThread) {
    r->link[!e] = p;
    r->tag[!e] = kThread;
  } else {
    r->link[!e] = p->link[e];
  }
  p->link[e] = r;
  if (p->tag[!e] == kThread) {
    s->link[e] = p;
    s->tag[e] = kThread;
  } else {
    s->link[e] = p->link[!e];
  }
  p->link[!e] = s;
  p->tag[0] = kChild;
  p->tag[1] = kChild;
  if (p->bal == we) {
    s->bal = -we;
    r->bal = 0;
  } else if (p->bal == 0) {
    s->bal = 0;
    r->bal = 0;
  } else {
    AVL_ASSERT_BAL(p, -we);
    s->bal = 0;
    r->bal = we;
  }
  p->bal = 0;
  return p;
}

// Find-or-insert; *inserted tells which happened.
void **probe(OrderedTable *tree, void *item, bool *inserted) {
  *inserted = false;
  if (is_empty(tree)) {
    avlt_node *n = attach_leaf(&tree->root, 0, item);
    tree->count++;
    AVL_ASSERT(tree->count == 1);
    *inserted = true;
    return &n->data;
  }
  // t is the parent of s, the deepest unbalanced node on the path (or the
  // root): the only place where a rotation may become necessary.
  avlt_node *t = &tree->root;
  avlt_node *s = tree->root.link[0];
  avlt_node *p = s;
  int dir;
  for (;;) {
    const int diff = tree->cmp(item, p->data, tree->param);
    if (diff == 0) {
      return &p->data;
    }
    dir = diff > 0;
    p->cache = static_cast<int8_t>(dir);
    if (p->tag[dir] == kThread) {
      break;
    }
    avlt_node *q = p->link[dir];
    if (q->bal != 0) {
      t = p;
      s = q;
    }
    p = q;
  }
  avlt_node *n = attach_leaf(p, dir, item);
  tree->count++;
  *inserted = true;

  // Nodes strictly between s and the new leaf were balanced and now lean
  // towards the path.
  for (avlt_node *q = s->link[s->cache]; q != n; q = q->link[q->cache]) {
    q->bal = weight(q->cache);
  }
  const int8_t w = weight(s->cache);
  if (s->bal == 0) {
    s->bal = w;
  } else if (s->bal == -w) {
    s->bal = 0;
  } else {
    avlt_node *top = rotate(s, s->cache);
    t->link[t->link[1] == s ? 1 : 0] = top;
  }
  return &n->data;
}

// Follows links on side `side` from `p` while they are children: the
// leftmost (side 0) or rightmost (side 1) node of p's subtree.
avlt_node *descend(avlt_node *p, int side) {
  while (p->tag[side] == kChild) {
    p = p->link[side];
  }
  return p;
}

// In-order neighbour of `p` on side `dir` (1 successor, 0 predecessor); the
// head stands for "before the first" and "after the last".
avlt_node *step(avlt_node *p, int dir) {
  if (p->tag[dir] == kThread) {
    return p->link[dir];
  }
  AVL_CHECK(p->tag[dir] == kChild, dir ? "p->tag[1] == +1" : "p->tag[0] == +1");
  return descend(p->link[dir], !dir);
}

avlt_node *search(const OrderedTable *tree, const void *key, bool *found) {
  *found = false;
  if (is_empty(tree)) {
    return nullptr;
  }
  avlt_node *p = tree->root.link[0];
  for (;;) {
    const int diff = tree->cmp(key, p->data, tree->param);
    if (diff == 0) {
      *found = true;
      return p;
    }
    const int dir = diff > 0;
    if (p->tag[dir] == kThread) {
      return p;
    }
    p = p->link[dir];
  }
}

}  // namespace

OrderedTable *UTL_AVLT_Create(avl_comparison_func cmp, void *param) {
  AVL_CHECK(cmp != nullptr, "cmp != ((void *)0)");
  auto *tree = static_cast<OrderedTable *>(utl_xmalloc(sizeof(OrderedTable)));
  tree->root.link[0] = &tree->root;
  tree->root.link[1] = &tree->root;
  tree->root.tag[0] = kThread;
  tree->root.tag[1] = kChild;
  tree->cmp = cmp;
  tree->count = 0;
  tree->param = param;
  return tree;
}

void UTL_AVLT_Destroy(OrderedTable *tree, avl_node_func free_func) {
  AVL_ASSERT_TREE(tree);
  // Successors are computed before a node is freed and only ever lie ahead
  // of it, so the walk never touches freed memory.
  avlt_node *head = &tree->root;
  avlt_node *p = step(head, 1);
  while (p != head) {
    avlt_node *next = step(p, 1);
    if (free_func != nullptr) {
      free_func(p->data, tree->param);
    }
    utl_xfree(p);
    p = next;
  }
  utl_xfree(tree);
}

uint32_t UTL_AVLT_Count(const OrderedTable *tree) {
  AVL_ASSERT_TREE(tree);
  return tree->count;
}

OrderedTable *UTL_AVLT_Copy(const OrderedTable *tree, avl_copy_func copy) {
  AVL_ASSERT_TREE(tree);
  OrderedTable *new_tree = UTL_AVLT_Create(tree->cmp, tree->param);
  if (is_empty(tree)) {
    return new_tree;
  }
  // p walks the original, q the copy in lockstep. A node is copied when its
  // parent is visited; threads come out right because every copy is hung as
  // a leaf exactly like an insertion would.
  const avlt_node *head = &tree->root;
  const avlt_node *p = head;
  avlt_node *q = &new_tree->root;
  auto clone = [&](avlt_node *dst, int dir, const avlt_node *src) {
    avlt_node *n = attach_leaf(dst, dir, copy ? copy(src->data, tree->param) : src->data);
    n->bal = src->bal;
  };
  int dir = 0;  // the head has only its left subtree
  for (;;) {
    clone(q, dir, p->link[dir]);
    p = p->link[dir];
    q = q->link[dir];
    while (p->tag[0] == kChild) {
      clone(q, 0, p->link[0]);
      p = p->link[0];
      q = q->link[0];
    }
    // Left side done: climb along right threads to the next node whose right
    // subtree is still to be copied.
    while (p->tag[1] == kThread) {
      p = p->link[1];
      q = q->link[1];
      if (p == head) {
        AVL_ASSERT(q == &new_tree->root);
        new_tree->count = tree->count;
        return new_tree;
      }
    }
    dir = 1;
  }
}

void UTL_AVLT_Walk(const OrderedTable *tree, avl_node_func walk_func, void *param) {
  AVL_ASSERT(tree && walk_func);
  avlt_node *head = const_cast<avlt_node *>(&tree->root);
  for (avlt_node *p = step(head, 1); p != head; p = step(p, 1)) {
    walk_func(p->data, param);
  }
}

void *UTL_AVLT_Traverse(const OrderedTable *tree, avlt_traverser *trav) {
  AVL_ASSERT(tree && trav);
  avlt_node *from = trav->init ? const_cast<avlt_node *>(trav->p) : nullptr;
  avlt_node *p = UTL_AVLT_Next(tree, from);
  if (p == nullptr) {
    trav->init = 0;
    trav->p = nullptr;
    return nullptr;
  }
  trav->init = 1;
  trav->p = p;
  return p->data;
}

avlt_node *UTL_AVLT_Next(const OrderedTable *tree, const avlt_node *node) {
  AVL_ASSERT_TREE(tree);
  avlt_node *head = const_cast<avlt_node *>(&tree->root);
  avlt_node *p = step(node ? const_cast<avlt_node *>(node) : head, 1);
  return p == head ? nullptr : p;
}

avlt_node *UTL_AVLT_Prev(const OrderedTable *tree, const avlt_node *node) {
  AVL_ASSERT_TREE(tree);
  avlt_node *head = const_cast<avlt_node *>(&tree->root);
  avlt_node *p = step(node ? const_cast<avlt_node *>(node) : head, 0);
  return p == head ? nullptr : p;
}

void **UTL_AVLT_Probe(OrderedTable *tree, void *item) {
  AVL_ASSERT_TREE(tree);
  bool inserted;
  return probe(tree, item, &inserted);
}

avlt_node *UTL_AVLT_Find(const OrderedTable *tree, const void *key) {
  AVL_ASSERT_TREE(tree);
  bool found;
  avlt_node *p = search(tree, key, &found);
  return found ? p : nullptr;
}

avlt_node *UTL_AVLT_Find_Close(const OrderedTable *tree, const void *key) {
  AVL_ASSERT_TREE(tree);
  bool found;
  return search(tree, key, &found);
}

avlt_node *UTL_AVLT_Next_Greater(const OrderedTable *tree, const void *key) {
  AVL_ASSERT_TREE(tree);
  avlt_node *p = UTL_AVLT_Find_Close(tree, key);
  // The search ends next to the key on one side or the other; step over it
  // when it holds an item not greater than the key.
  if (p != nullptr && tree->cmp(key, p->data, tree->param) >= 0) {
    p = UTL_AVLT_Next(tree, p);
  }
  return p;
}

void *UTL_AVLT_Insert(OrderedTable *tree, void *item) {
  AVL_ASSERT_TREE(tree);
  bool inserted;
  void **slot = probe(tree, item, &inserted);
  return inserted ? nullptr : *slot;
}

void *UTL_AVLT_Replace(OrderedTable *tree, void *item) {
  AVL_ASSERT_TREE(tree);
  bool inserted;
  void **slot = probe(tree, item, &inserted);
  if (inserted) {
    return nullptr;
  }
  void *old = *slot;
  *slot = item;
  return old;
}

void *UTL_AVLT_Delete(OrderedTable *tree, const void *key) {
  AVL_ASSERT_TREE(tree);
  // pa[0..k-1] is the path down to the node; each one's cache byte says
  // which way the path continues, and later on which side it lost height.
  avlt_node *pa[kMaxHeight];
  int k = 0;
  avlt_node *q = &tree->root;
  q->cache = 0;
  pa[k++] = q;
  if (is_empty(tree)) {
    return nullptr;
  }
  avlt_node *p = tree->root.link[0];
  for (;;) {
    const int diff = tree->cmp(key, p->data, tree->param);
    if (diff == 0) {
      break;
    }
    const int dir = diff > 0;
    if (p->tag[dir] == kThread) {
      return nullptr;
    }
    p->cache = static_cast<int8_t>(dir);
    pa[k++] = p;
    p = p->link[dir];
  }
  void *item = p->data;
  q = pa[k - 1];
  const int dq = q->cache;

  if (p->tag[1] == kThread) {
    // No right subtree: the left child (if any) moves up.
    if (p->tag[0] == kChild) {
      avlt_node *t = descend(p->link[0], 1);
      t->link[1] = p->link[1];
      q->link[dq] = p->link[0];
    } else {
      q->link[dq] = p->link[dq];
      q->tag[dq] = kThread;
    }
  } else {
    avlt_node *r = p->link[1];
    if (r->tag[0] == kThread) {
      // The right child is the successor and takes p's place.
      r->link[0] = p->link[0];
      r->tag[0] = p->tag[0];
      if (r->tag[0] == kChild) {
        descend(r->link[0], 1)->link[1] = r;
      }
      q->link[dq] = r;
      r->bal = p->bal;
      r->cache = 1;
      pa[k++] = r;
    } else {
      // The successor s, leftmost in the right subtree, takes p's place.
      const int j = k++;
      avlt_node *s;
      for (;;) {
        r->cache = 0;
        pa[k++] = r;
        s = r->link[0];
        if (s->tag[0] == kThread) {
          break;
        }
        r = s;
      }
      if (s->tag[1] == kChild) {
        r->link[0] = s->link[1];
      } else {
        AVL_ASSERT(s->tag[1] == -1);
        r->link[0] = s;
        r->tag[0] = kThread;
      }
      s->link[0] = p->link[0];
      s->tag[0] = p->tag[0];
      if (s->tag[0] == kChild) {
        descend(s->link[0], 1)->link[1] = s;
      }
      s->link[1] = p->link[1];
      s->tag[1] = kChild;
      s->bal = p->bal;
      s->cache = 1;
      q->link[dq] = s;
      pa[j] = s;
    }
  }
  utl_xfree(p);
  tree->count--;

  // Walk back up: each node on the path lost height on its cache side.
  while (--k > 0) {
    avlt_node *y = pa[k];
    const int d = y->cache;
    const int8_t w = weight(d);
    if (y->bal == 0) {
      y->bal = -w;
      break;  // height unchanged
    }
    if (y->bal == w) {
      y->bal = 0;
      continue;  // y got lower; go on up
    }
    AVL_ASSERT(k > 0);
    avlt_node *parent = pa[k - 1];
    avlt_node *top = rotate(y, !d);
    parent->link[parent->cache] = top;
    if (top->bal != 0) {
      break;
    }
  }
  return item;
}

long UTL_AVLT_Allocations() { return g_allocations.load(); }
