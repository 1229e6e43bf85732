#include "base/avl.h"

#include "base/assert.h"
#include "base/avl_impl.h"
#include "base/format.h"

extern "C" {
constinit volatile int QM_AVL_assert_insert = 0;
constinit volatile int QM_AVL_assert_delete = 0;
constinit volatile int QM_AVL_assert_all_insert_ret_val = 0;
constinit volatile int QM_AVL_assert_all_delete_ret_val = 0;

void QM_AVL_fatal(const char* msg) {
  QM_s_printf(QM_stderr, "QM_AVL: %s\n", msg);
  QM_halt();
}
}

namespace {

// The algorithms run through a caller's operations table.
struct TableOps {
  avl_ops_t* t;
  avl_arg_t a;
  int cmp(void* k, void* nk) const { return t->cmpKey(k, nk); }
  bool is_empty(void* x) const { return t->isEmpty(x, a) != 0; }
  void* empty() const { return t->empty(a); }
  void* key(void* n) const { return t->getKey(n, a); }
  void* left(void* n) const { return t->getLeft(n, a); }
  void* right(void* n) const { return t->getRight(n, a); }
  avl_balance_t balance(void* n) const { return t->getBalance(n, a); }
  void set_left(void* n, void* x) const { t->setLeft(n, x, a); }
  void set_right(void* n, void* x) const { t->setRight(n, x, a); }
  void set_balance(void* n, avl_balance_t b) const { t->setBalance(n, b, a); }
};

using Algo = qm::avl::Algo<TableOps>;

}  // namespace

extern "C" {

avl_tree_t QM_AVL_insertAvl(avl_tree_t T, avl_node_t N, avl_ops_t* ops, avl_arg_t arg) {
  return qm::avl::insert(TableOps{ops, arg}, T, N);
}

avl_tree_t QM_AVL_deleteAvl(avl_tree_t T, avl_node_t N, avl_ops_t* ops, avl_arg_t arg) {
  return qm::avl::remove(TableOps{ops, arg}, T, ops->getKey(N, arg));
}

avl_node_t QM_AVL_lookupAvl(avl_tree_t T, avl_key_t K, avl_ops_t* ops, avl_arg_t arg) {
  TableOps o{ops, arg};
  return Algo{o}.lookup(T, K);
}

int QM_AVL_countAvl(avl_tree_t T, avl_ops_t* ops, avl_arg_t arg) {
  TableOps o{ops, arg};
  return Algo{o}.count(T);
}

avl_node_t QM_AVL_get_nth_nodeAvl(avl_tree_t T, int x, avl_ops_t* ops, avl_arg_t arg) {
  TableOps o{ops, arg};
  return Algo{o}.nth(T, x);
}

int QM_AVL_checkAvl(avl_tree_t T, avl_ops_t* ops, avl_arg_t arg) {
  TableOps o{ops, arg};
  return Algo{o}.check(T);
}

int QM_AVL_traverse_in_order(avl_tree_t T, avl_ops_t* ops, avl_arg_t arg, int* stop_iterating,
                             avl_iter_func_t f, void* func_arg) {
  TableOps o{ops, arg};
  return Algo{o}.traverse(T, stop_iterating, f, func_arg);
}

int QM_AVL_traverse_in_order_range(avl_tree_t T, avl_ops_t* ops, avl_arg_t arg, avl_key_t start_key,
                                   avl_key_t end_key, int* stop_iterating, avl_iter_func_t f,
                                   void* func_arg) {
  TableOps o{ops, arg};
  return Algo{o}.traverse_range(T, start_key, end_key, stop_iterating, f, func_arg);
}

}  // extern "C"
