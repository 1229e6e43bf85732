// An intrusive, height-balanced (AVL) binary search tree. The tree owns no
// memory and knows nothing of the node layout: every access goes through an
// operations table and an opaque argument supplied by the caller.
//
// The algorithms are templates (avl_impl.h) so that a user with a fixed node
// layout (the heap tables) gets them inlined; the QM_AVL_* functions are the
// same algorithms run through an avl_ops_t table. A broken invariant writes
// "QM_AVL: <message>" and halts.
#pragma once

extern "C" {

typedef void* avl_tree_t;
typedef void* avl_node_t;
typedef void* avl_key_t;
typedef void* avl_arg_t;

typedef enum avl_balance_t {
  avl_left_high_e = 0,
  avl_equal_high_e = 1,
  avl_right_high_e = 2
} avl_balance_t;

typedef enum side_shortened_t {
  shortened_neither_e = 0,
  shortened_left_e = 1,
  shortened_right_e = 2
} side_shortened_t;

typedef struct avl_ops_t {
  int (*cmpKey)(avl_key_t a, avl_key_t b);  // a: the searched key, b: the node's
  int (*isEmpty)(avl_tree_t t, avl_arg_t arg);
  avl_tree_t (*empty)(avl_arg_t arg);
  avl_key_t (*getKey)(avl_node_t n, avl_arg_t arg);
  avl_tree_t (*getLeft)(avl_node_t n, avl_arg_t arg);
  avl_tree_t (*getRight)(avl_node_t n, avl_arg_t arg);
  avl_balance_t (*getBalance)(avl_node_t n, avl_arg_t arg);
  void (*setLeft)(avl_node_t n, avl_tree_t t, avl_arg_t arg);
  void (*setRight)(avl_node_t n, avl_tree_t t, avl_arg_t arg);
  void (*setBalance)(avl_node_t n, avl_balance_t b, avl_arg_t arg);
} avl_ops_t;

// 0 to go on; non-zero (or setting *stop_iterating) stops the walk.
typedef int (*avl_iter_func_t)(avl_node_t n, int* stop_iterating, void* func_arg);

// Debug switches for a debugger: verify the tree after each step.
extern volatile int QM_AVL_assert_insert;
extern volatile int QM_AVL_assert_delete;
extern volatile int QM_AVL_assert_all_insert_ret_val;
extern volatile int QM_AVL_assert_all_delete_ret_val;

avl_tree_t QM_AVL_insertAvl(avl_tree_t T, avl_node_t N, avl_ops_t* ops, avl_arg_t arg);
avl_tree_t QM_AVL_deleteAvl(avl_tree_t T, avl_node_t N, avl_ops_t* ops, avl_arg_t arg);
avl_node_t QM_AVL_lookupAvl(avl_tree_t T, avl_key_t K, avl_ops_t* ops, avl_arg_t arg);
int QM_AVL_countAvl(avl_tree_t T, avl_ops_t* ops, avl_arg_t arg);
avl_node_t QM_AVL_get_nth_nodeAvl(avl_tree_t T, int x, avl_ops_t* ops, avl_arg_t arg);
int QM_AVL_checkAvl(avl_tree_t T, avl_ops_t* ops, avl_arg_t arg);
int QM_AVL_traverse_in_order(avl_tree_t T, avl_ops_t* ops, avl_arg_t arg, int* stop_iterating,
                             avl_iter_func_t f, void* func_arg);
int QM_AVL_traverse_in_order_range(avl_tree_t T, avl_ops_t* ops, avl_arg_t arg, avl_key_t start_key,
                                   avl_key_t end_key, int* stop_iterating, avl_iter_func_t f,
                                   void* func_arg);

// Writes "QM_AVL: <msg>\n" and halts.
void QM_AVL_fatal(const char* msg);
}
