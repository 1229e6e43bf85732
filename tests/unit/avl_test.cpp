// The AVL tree through its generic operations table: a randomised
// differential test against std::set with the balance invariant checked after
// every step, the walks, positional access and the fatal messages.
#include "base/avl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <vector>

namespace {

struct TNode {
  long key;
  TNode* left;
  TNode* right;
  avl_balance_t balance;
};

TNode* T(void* p) { return static_cast<TNode*>(p); }
int cmp_key(avl_key_t a, avl_key_t b) {
  long x = reinterpret_cast<long>(a), y = reinterpret_cast<long>(b);
  return x < y ? -1 : x > y ? 1 : 0;
}
int is_empty(avl_tree_t t, avl_arg_t) { return t == nullptr; }
avl_tree_t empty(avl_arg_t) { return nullptr; }
avl_key_t get_key(avl_node_t n, avl_arg_t) { return reinterpret_cast<avl_key_t>(T(n)->key); }
avl_tree_t get_left(avl_node_t n, avl_arg_t) { return T(n)->left; }
avl_tree_t get_right(avl_node_t n, avl_arg_t) { return T(n)->right; }
avl_balance_t get_balance(avl_node_t n, avl_arg_t) { return T(n)->balance; }
void set_left(avl_node_t n, avl_tree_t t, avl_arg_t) { T(n)->left = T(t); }
void set_right(avl_node_t n, avl_tree_t t, avl_arg_t) { T(n)->right = T(t); }
void set_balance(avl_node_t n, avl_balance_t b, avl_arg_t) { T(n)->balance = b; }

avl_ops_t ops = {cmp_key, is_empty, empty, get_key, get_left, get_right,
                 get_balance, set_left, set_right, set_balance};

void* K(long k) { return reinterpret_cast<void*>(k); }

struct Tree {
  std::vector<TNode> pool = std::vector<TNode>(4096);
  void* root = nullptr;
  TNode* node(long k) { return &pool[static_cast<size_t>(k)]; }
  void insert(long k) {
    node(k)->key = k;
    root = QM_AVL_insertAvl(root, node(k), &ops, nullptr);
  }
  void remove(long k) {
    TNode probe = {k, nullptr, nullptr, avl_equal_high_e};
    root = QM_AVL_deleteAvl(root, &probe, &ops, nullptr);
  }
  std::vector<long> keys() {
    std::vector<long> out;
    int stop = 0;
    QM_AVL_traverse_in_order(root, &ops, nullptr, &stop,
                             [](avl_node_t n, int*, void* a) {
                               static_cast<std::vector<long>*>(a)->push_back(T(n)->key);
                               return 0;
                             },
                             &out);
    return out;
  }
};

TEST(Avl, RandomOperationsMatchAnOrderedSetAndStayBalanced) {
  std::mt19937 rng(20261122);
  for (int round = 0; round < 4; ++round) {
    Tree t;
    std::set<long> oracle;
    for (int step = 0; step < 6000; ++step) {
      long k = static_cast<long>(rng() % (round == 0 ? 64 : 4000));
      bool present = oracle.count(k) != 0;
      if (!present && rng() % 3 != 0) {
        t.insert(k);
        oracle.insert(k);
      } else {
        t.remove(k);  // also removes absent keys, which changes nothing
        oracle.erase(k);
      }
      ASSERT_EQ(QM_AVL_checkAvl(t.root, &ops, nullptr), 0) << "step " << step;
      ASSERT_EQ(QM_AVL_countAvl(t.root, &ops, nullptr), static_cast<int>(oracle.size()));
      if (step % 97 == 0) {
        ASSERT_EQ(t.keys(), std::vector<long>(oracle.begin(), oracle.end()));
        long probe = static_cast<long>(rng() % 4000);
        void* found = QM_AVL_lookupAvl(t.root, K(probe), &ops, nullptr);
        ASSERT_EQ(found != nullptr, oracle.count(probe) != 0);
        if (!oracle.empty()) {
          int x = static_cast<int>(rng() % oracle.size());
          ASSERT_EQ(T(QM_AVL_get_nth_nodeAvl(t.root, x, &ops, nullptr))->key, *std::next(oracle.begin(), x));
        }
      }
    }
  }
}

TEST(Avl, ShapesOfSmallTrees) {
  Tree t;
  t.insert(1);
  EXPECT_EQ(t.root, t.node(1));
  EXPECT_EQ(t.node(1)->balance, avl_equal_high_e);
  t.insert(2);
  t.insert(3);
  EXPECT_EQ(t.root, t.node(2));  // a single rotation
  for (long k : {1, 2, 3}) EXPECT_EQ(t.node(k)->balance, avl_equal_high_e);
  void* before = t.root;
  t.remove(7);
  EXPECT_EQ(t.root, before);
  t.remove(2);  // the predecessor takes the root's place
  EXPECT_EQ(t.root, t.node(1));
  EXPECT_EQ(T(t.root)->right, t.node(3));
  EXPECT_EQ(QM_AVL_get_nth_nodeAvl(t.root, 2, &ops, nullptr), nullptr);
  EXPECT_EQ(QM_AVL_get_nth_nodeAvl(t.root, 0, &ops, nullptr), t.node(1));
  EXPECT_EQ(QM_AVL_checkAvl(t.root, &ops, nullptr), 0);
  t.node(3)->balance = avl_left_high_e;  // a lie the check must see
  EXPECT_EQ(QM_AVL_checkAvl(t.root, &ops, nullptr), -1);
}

struct Visit {
  std::vector<long> seen;
  long fail_at = -1;
  long stop_at = -1;
};

int visit(avl_node_t n, int* stop, void* a) {
  auto* v = static_cast<Visit*>(a);
  v->seen.push_back(T(n)->key);
  if (T(n)->key == v->stop_at) *stop = 1;
  return T(n)->key == v->fail_at ? 3 : 0;
}

TEST(Avl, FullAndRangeWalksDifferOnResultsFromLeftSubtrees) {
  Tree t;
  for (long k = 1; k <= 15; ++k) t.insert(k);  // perfectly balanced, root 8
  ASSERT_EQ(T(t.root)->key, 8);
  int stop = 0;
  Visit full;
  full.fail_at = 2;
  EXPECT_EQ(QM_AVL_traverse_in_order(t.root, &ops, nullptr, &stop, visit, &full), 3);
  EXPECT_EQ(full.seen, (std::vector<long>{1, 2}));

  // The range walk drops the 3 returned inside the left subtree of 4 and goes
  // on with the ancestors (2's own right subtree is skipped).
  Visit range;
  range.fail_at = 2;
  stop = 0;
  EXPECT_EQ(QM_AVL_traverse_in_order_range(t.root, &ops, nullptr, K(1), K(6), &stop, visit, &range), 0);
  EXPECT_EQ(range.seen, (std::vector<long>{1, 2, 4, 5, 6}));

  Visit single;
  stop = 0;
  QM_AVL_traverse_in_order_range(t.root, &ops, nullptr, K(5), K(5), &stop, visit, &single);
  EXPECT_EQ(single.seen, (std::vector<long>{5}));
  Visit none;
  stop = 0;
  QM_AVL_traverse_in_order_range(t.root, &ops, nullptr, K(9), K(3), &stop, visit, &none);
  EXPECT_TRUE(none.seen.empty());
  Visit stopped;
  stopped.stop_at = 5;
  stop = 0;
  EXPECT_EQ(QM_AVL_traverse_in_order_range(t.root, &ops, nullptr, K(2), K(12), &stop, visit, &stopped), 0);
  EXPECT_EQ(stopped.seen, (std::vector<long>{2, 3, 4, 5}));
}

TEST(AvlDeathTest, BrokenInvariantsHaltWithTheirMessage) {
  EXPECT_EXIT(
      {
        Tree t;
        t.insert(4);
        t.insert(4);
      },
      testing::KilledBySignal(SIGFPE), "QM_AVL: insert: duplicate key\n");
  EXPECT_EXIT(
      {
        Tree t;
        for (long k = 1; k <= 3; ++k) t.insert(k);
        QM_AVL_assert_insert = 1;
        t.node(1)->balance = avl_right_high_e;
        t.insert(9);
      },
      testing::KilledBySignal(SIGFPE), "QM_AVL: insert checkAvl");
}

}  // namespace
