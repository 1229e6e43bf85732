// The AVL algorithms, generic over an operations object O that provides:
//   int cmp(void* key, void* node_key); bool is_empty(void* t); void* empty();
//   void* key(void* n); void* left(void* n); void* right(void* n);
//   avl_balance_t balance(void* n); void set_left(void* n, void* t);
//   void set_right(void* n, void* t); void set_balance(void* n, avl_balance_t b);
// Nothing is allocated; the paths kept on the stack are bounded by the height.
#pragma once
#include "base/avl.h"

namespace qm::avl {

template <class O>
struct Algo {
  const O& o;

  void* rotate_left(void* t) const {
    void* r = o.right(t);
    o.set_right(t, o.left(r));
    o.set_left(r, t);
    return r;
  }

  void* rotate_right(void* t) const {
    void* l = o.left(t);
    o.set_left(t, o.right(l));
    o.set_right(l, t);
    return l;
  }

  // Balances of a double rotation's two lower nodes from the former balance
  // of the grandchild that became the root: lo is the node now on the left.
  void set_double_balances(void* lo, void* hi, avl_balance_t g) const {
    o.set_balance(lo, g == avl_right_high_e ? avl_left_high_e : avl_equal_high_e);
    o.set_balance(hi, g == avl_left_high_e ? avl_right_high_e : avl_equal_high_e);
  }

  void* left_balance(void* t) const {
    void* l = o.left(t);
    switch (o.balance(l)) {
      case avl_left_high_e:
        o.set_balance(t, avl_equal_high_e);
        o.set_balance(l, avl_equal_high_e);
        return rotate_right(t);
      case avl_right_high_e: {
        void* g = o.right(l);
        avl_balance_t gb = o.balance(g);
        o.set_left(t, rotate_left(l));
        void* root = rotate_right(t);
        set_double_balances(l, t, gb);
        o.set_balance(root, avl_equal_high_e);
        return root;
      }
      default:
        QM_AVL_fatal("left_balance");
        return t;
    }
  }

  void* right_balance(void* t) const {
    void* r = o.right(t);
    switch (o.balance(r)) {
      case avl_right_high_e:
        o.set_balance(t, avl_equal_high_e);
        o.set_balance(r, avl_equal_high_e);
        return rotate_left(t);
      case avl_left_high_e: {
        void* g = o.left(r);
        avl_balance_t gb = o.balance(g);
        o.set_right(t, rotate_right(r));
        void* root = rotate_left(t);
        set_double_balances(t, r, gb);
        o.set_balance(root, avl_equal_high_e);
        return root;
      }
      default:
        QM_AVL_fatal("right_balance");
        return t;
    }
  }

  void* delete_balance(void* t, side_shortened_t side, bool* shorter) const {
    if (!*shorter) return t;
    if (side == shortened_neither_e) {
      QM_AVL_fatal("delete_balance: tree shortened, but side_shortened is shortened_neither_e");
      return t;
    }
    const bool left_side = side == shortened_left_e;
    const avl_balance_t same = left_side ? avl_left_high_e : avl_right_high_e;
    const avl_balance_t other = left_side ? avl_right_high_e : avl_left_high_e;
    avl_balance_t b = o.balance(t);
    if (b == avl_equal_high_e) {
      o.set_balance(t, other);
      *shorter = false;
      return t;
    }
    if (b == same) {
      o.set_balance(t, avl_equal_high_e);
      return t;
    }
    // High on the other side: rotate towards the shortened side.
    void* s = left_side ? o.right(t) : o.left(t);
    avl_balance_t sb = o.balance(s);
    if (sb == avl_equal_high_e) {
      void* root = left_side ? rotate_left(t) : rotate_right(t);
      o.set_balance(t, other);
      o.set_balance(root, same);
      *shorter = false;
      return root;
    }
    if (sb == other) {
      void* root = left_side ? rotate_left(t) : rotate_right(t);
      o.set_balance(t, avl_equal_high_e);
      o.set_balance(root, avl_equal_high_e);
      return root;
    }
    if (sb == same) {
      void* g = left_side ? o.left(s) : o.right(s);
      avl_balance_t gb = o.balance(g);
      void* root;
      if (left_side) {
        o.set_right(t, rotate_right(s));
        root = rotate_left(t);
        set_double_balances(t, s, gb);
      } else {
        o.set_left(t, rotate_left(s));
        root = rotate_right(t);
        set_double_balances(s, t, gb);
      }
      o.set_balance(root, avl_equal_high_e);
      return root;
    }
    QM_AVL_fatal("delete_balance");
    return t;
  }

  // A subtree that replaces a removed node must be empty or one balanced leaf.
  bool is_leaf_or_empty(void* t) const {
    return o.is_empty(t) || (o.is_empty(o.left(t)) && o.is_empty(o.right(t)) &&
                             o.balance(t) == avl_equal_high_e);
  }

  // Insertion and deletion walk down once, remembering the path, and
  // rebalance on the way back up only as far as the height changes: the
  // textbook recursion without its call per level and its rewrite of every
  // link on the path.
  static constexpr int kMaxDepth = 96;

  // Stores sub as the child of path[i - 1] on its side, or returns it as the root.
  void* relink(void** path, const bool* left, int i, void* sub, void* root) const {
    if (i == 0) return sub;
    if (left[i - 1])
      o.set_left(path[i - 1], sub);
    else
      o.set_right(path[i - 1], sub);
    return root;
  }

  void* insert(void* root, void* n, void* k) const {
    bool inserted;
    return insert_if(root, n, k, [](void*, void*) { return true; }, &inserted);
  }
  // Inserts n under k unless accept(pred, succ), shown the in-order
  // neighbours the node would get (the empty value where there is none),
  // refuses it; one descent either way. A duplicate key is fatal.
  template <class Accept>
  void* insert_if(void* root, void* n, void* k, Accept accept, bool* inserted) const {
    *inserted = false;
    void* path[kMaxDepth];
    bool left[kMaxDepth];
    int d = 0;
    void* pred = o.empty();
    void* succ = o.empty();
    for (void* t = root; !o.is_empty(t);) {
      int c = o.cmp(k, o.key(t));
      if (c == 0) {
        QM_AVL_fatal("insert: duplicate key");
        return root;
      }
      path[d] = t;
      left[d] = c < 0;
      ++d;
      if (c < 0) {
        succ = t;
        t = o.left(t);
      } else {
        pred = t;
        t = o.right(t);
      }
    }
    if (!accept(pred, succ)) return root;
    *inserted = true;
    o.set_left(n, o.empty());
    o.set_right(n, o.empty());
    o.set_balance(n, avl_equal_high_e);
    if (d == 0) return n;
    if (left[d - 1])
      o.set_left(path[d - 1], n);
    else
      o.set_right(path[d - 1], n);
    for (int i = d - 1; i >= 0; --i) {
      void* t = path[i];
      avl_balance_t b = o.balance(t);
      avl_balance_t grown = left[i] ? avl_left_high_e : avl_right_high_e;
      if (b == avl_equal_high_e) {
        o.set_balance(t, grown);
        if (QM_AVL_assert_all_insert_ret_val && check(t) != 0) QM_AVL_fatal("all insert checkAvl");
        continue;  // this subtree grew: go on up
      }
      if (b != grown) {
        o.set_balance(t, avl_equal_high_e);
      } else {
        void* sub = left[i] ? left_balance(t) : right_balance(t);
        root = relink(path, left, i, sub, root);
        t = sub;
      }
      if (QM_AVL_assert_all_insert_ret_val && check(t) != 0) QM_AVL_fatal("all insert checkAvl");
      break;
    }
    return root;
  }
  // *removed receives the node taken out (the empty value when k is absent);
  // *next, when asked for, the node that followed it in order (found on the
  // same descent: nodes stay where they are when others move in the tree).
  void* remove(void* root, void* k, void** removed = nullptr, void** next = nullptr) const {
    void* path[kMaxDepth];
    bool left[kMaxDepth];
    int d = 0;
    void* t = root;
    void* after = o.empty();
    if (removed != nullptr) *removed = o.empty();
    if (next != nullptr) *next = o.empty();
    for (;;) {
      if (o.is_empty(t)) return root;  // not present: nothing changes
      int c = o.cmp(k, o.key(t));
      if (c == 0) break;
      path[d] = t;
      left[d] = c < 0;
      ++d;
      if (c < 0) after = t;
      t = c < 0 ? o.left(t) : o.right(t);
    }
    if (removed != nullptr) *removed = t;
    if (next != nullptr) {
      if (!o.is_empty(o.right(t))) {
        after = o.right(t);
        while (!o.is_empty(o.left(after))) after = o.left(after);
      }
      *next = after;
    }
    if (o.is_empty(o.left(t)) || o.is_empty(o.right(t))) {
      void* rest = o.is_empty(o.left(t)) ? o.right(t) : o.left(t);
      if (!is_leaf_or_empty(rest)) QM_AVL_fatal("delete error");
      root = relink(path, left, d, rest, root);
    } else {
      // The in-order predecessor takes the removed node's place.
      const int at = d;
      path[d] = t;
      left[d] = true;
      ++d;
      void* pred = o.left(t);
      while (!o.is_empty(o.right(pred))) {
        path[d] = pred;
        left[d] = false;
        ++d;
        pred = o.right(pred);
      }
      void* rest = o.left(pred);
      if (!is_leaf_or_empty(rest)) QM_AVL_fatal("delete_aux error");
      if (left[d - 1])
        o.set_left(path[d - 1], rest);
      else
        o.set_right(path[d - 1], rest);
      o.set_left(pred, o.left(t));
      o.set_right(pred, o.right(t));
      o.set_balance(pred, o.balance(t));
      path[at] = pred;
      root = relink(path, left, at, pred, root);
    }
    bool shorter = true;
    for (int i = d - 1; i >= 0 && shorter; --i) {
      void* sub = delete_balance(path[i], left[i] ? shortened_left_e : shortened_right_e, &shorter);
      if (sub != path[i]) root = relink(path, left, i, sub, root);
      if (QM_AVL_assert_all_delete_ret_val && check(sub) != 0) QM_AVL_fatal("all delete checkAvl");
    }
    return root;
  }

  void* lookup(void* t, void* k) const {
    while (!o.is_empty(t)) {
      int c = o.cmp(k, o.key(t));
      if (c == 0) return t;
      t = c < 0 ? o.left(t) : o.right(t);
    }
    return o.empty();
  }

  int count(void* t) const {
    return o.is_empty(t) ? 0 : 1 + count(o.left(t)) + count(o.right(t));
  }

  void* nth(void* t, int x) const {
    while (!o.is_empty(t)) {
      int c = count(o.left(t));
      if (c > x) {
        t = o.left(t);
      } else if (c == x) {
        return t;
      } else {
        x -= c + 1;
        t = o.right(t);
      }
    }
    return o.empty();
  }

  // Height of a valid subtree, or -1.
  int height(void* t) const {
    if (o.is_empty(t)) return 0;
    int l = height(o.left(t));
    int r = height(o.right(t));
    if (l < 0 || r < 0 || l - r > 1 || r - l > 1) return -1;
    avl_balance_t want = l > r ? avl_left_high_e : l == r ? avl_equal_high_e : avl_right_high_e;
    if (o.balance(t) != want) return -1;
    return 1 + (l > r ? l : r);
  }

  int check(void* t) const { return height(t) < 0 ? -1 : 0; }

  int traverse(void* t, int* stop, avl_iter_func_t f, void* arg) const {
    if (o.is_empty(t) || *stop) return 0;
    int r = traverse(o.left(t), stop, f, arg);
    if (r != 0) return r;
    if (*stop) return 0;
    r = f(t, stop, arg);
    if (r != 0 || *stop) return r;
    return traverse(o.right(t), stop, f, arg);
  }

  // Unlike the full walk, a non-zero result inside a left subtree is dropped:
  // only the stop flag ends the walk from there.
  int traverse_range(void* t, void* start, void* end, int* stop, avl_iter_func_t f, void* arg) const {
    if (o.is_empty(t)) return 0;
    void* k = o.key(t);
    if (!*stop && o.cmp(start, k) < 0) traverse_range(o.left(t), start, end, stop, f, arg);
    if (*stop) return 0;
    if (o.cmp(start, k) <= 0 && o.cmp(end, k) >= 0) {
      int r = f(t, stop, arg);
      if (r != 0) return r;
    }
    if (*stop || o.cmp(end, k) <= 0) return 0;
    return traverse_range(o.right(t), start, end, stop, f, arg);
  }
};

template <class O>
inline void* insert(const O& o, void* root, void* n) {
  void* r = Algo<O>{o}.insert(root, n, o.key(n));
  if (QM_AVL_assert_insert && Algo<O>{o}.check(r) != 0) QM_AVL_fatal("insert checkAvl");
  return r;
}

template <class O>
inline void* remove(const O& o, void* root, void* key, void** removed = nullptr, void** next = nullptr) {
  void* r = Algo<O>{o}.remove(root, key, removed, next);
  if (QM_AVL_assert_delete && Algo<O>{o}.check(r) != 0) QM_AVL_fatal("delete checkAvl");
  return r;
}

}  // namespace qm::avl
