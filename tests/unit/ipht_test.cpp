// The int-to-pointer hash table: bucketing by quotient, lookups that see only
// the most recently used node, chains kept whole when a node moves to the
// front, and growth into further page blocks, checked against std::map.
#include "base/ipht.h"
#include "base/memory_manager.h"
#include "base/page.h"

#include <gtest/gtest.h>
#include <stdint.h>

#include <map>
#include <random>

namespace {

void* val(int k) { return reinterpret_cast<void*>(static_cast<intptr_t>(k) * 16 + 8); }

bool lookup(int_pointer_hash_table_t* t, int key, void** p = nullptr) {
  int found = -1;
  EXPECT_EQ(QM_ipht_lookup(t, key, &found, p), 0);
  return found == 1;
}

// Every key reachable from the buckets; each must sit in the bucket of its
// quotient and appear once.
std::map<int, void*> contents(int_pointer_hash_table_t* t) {
  std::map<int, void*> out;
  for (int b = 0; b < t->hash_table_size; ++b)
    for (hash_node_t* n = t->hash_table[b]; n != nullptr; n = n->next) {
      EXPECT_EQ(n->key / t->hash_table_size, b);
      EXPECT_TRUE(out.emplace(n->key, n->p).second) << "key twice: " << n->key;
    }
  return out;
}

int_pointer_hash_table_t* new_table(int size) {
  int_pointer_hash_table_t* t = nullptr;
  EXPECT_EQ(QM_ipht_new_table(&t, size), 0);
  return t;
}

TEST(Ipht, NewTableLivesInATaggedBlock) {
  EXPECT_EQ(QM_ipht_new_table(nullptr, 5), -1);
  EXPECT_EQ(new_table(-4)->hash_table_size, 17);
  for (int size : {0, 2000}) {  // 2000 buckets alone take more than a page
    int_pointer_hash_table_t* t = new_table(size);
    const int n = size < 1 ? 17 : size;
    ASSERT_EQ(t->hash_table_size, n);
    for (int b = 0; b < n; ++b) ASSERT_EQ(t->hash_table[b], nullptr);
    memory_manager_region_t r{};
    ASSERT_EQ(QM_page_get_info(t, &r), 0);
    EXPECT_TRUE(r.tag == mmt_utils_ipht_first_block && static_cast<size_t>(t->page_info.key) == r.len);
    // The never-used nodes lie after the buckets and inside the block.
    EXPECT_GE(reinterpret_cast<char*>(t->fresh_nodes), reinterpret_cast<char*>(t->hash_table + n));
    EXPECT_LT(t->fresh_nodes, t->fresh_nodes_bound);
    EXPECT_LE(reinterpret_cast<char*>(t->fresh_nodes_bound), reinterpret_cast<char*>(t) + r.len);
  }
}

TEST(Ipht, LookupSeesOnlyTheMostRecentNode) {
  int_pointer_hash_table_t* t = new_table(0);
  int found = 0;
  EXPECT_EQ(QM_ipht_lookup(nullptr, 1, &found, nullptr), -1);
  EXPECT_EQ(QM_ipht_lookup(t, 1, nullptr, nullptr), -1);
  EXPECT_EQ(QM_ipht_insert(nullptr, 1, val(1)), -1);
  EXPECT_EQ(QM_ipht_remove(nullptr, 1), -1);
  void* p = nullptr;
  ASSERT_EQ(QM_ipht_insert(t, 5, val(5)), 0);
  ASSERT_EQ(QM_ipht_insert(t, 6, val(6)), 0);
  EXPECT_TRUE(lookup(t, 6, &p) && p == val(6));
  EXPECT_FALSE(lookup(t, 5));  // present, but not the last one touched
  ASSERT_EQ(QM_ipht_insert(t, 5, val(50)), 0);
  EXPECT_TRUE(lookup(t, 5, &p) && p == val(50));

  // Removing another key keeps the MRU; removing the MRU clears it.
  EXPECT_EQ(QM_ipht_remove(t, 6), 0);
  EXPECT_TRUE(lookup(t, 5));
  EXPECT_EQ(QM_ipht_remove(t, 5), 0);
  EXPECT_FALSE(lookup(t, 5));
  EXPECT_TRUE(contents(t).empty());
  EXPECT_EQ(QM_ipht_remove(t, 5), 0);  // absent: not an error

  // Keys must be non-negative and below size * size.
  EXPECT_EQ(QM_ipht_insert(t, 17 * 17, val(1)), -1);
  EXPECT_EQ(QM_ipht_insert(t, -1, val(1)), -1);
  EXPECT_EQ(QM_ipht_insert(t, 17 * 17 - 1, val(2)), 0);
  EXPECT_EQ(QM_ipht_remove(t, 17 * 17), 0);
  EXPECT_EQ(contents(t).size(), 1u);
}

TEST(Ipht, UpdateMovesNodeToFrontAndKeepsTheChain) {
  int_pointer_hash_table_t* t = new_table(0);
  std::map<int, void*> want;
  for (int k = 0; k < 8; ++k) {  // all in bucket 0, chain 7 6 5 ... 0
    ASSERT_EQ(QM_ipht_insert(t, k, val(k)), 0);
    want[k] = val(k);
  }
  for (int k : {3, 0, 7, 5, 3}) {  // middle, tail, head, ...
    ASSERT_EQ(QM_ipht_insert(t, k, val(100 + k)), 0);
    want[k] = val(100 + k);
    EXPECT_EQ(t->hash_table[0]->key, k);
    EXPECT_EQ(contents(t), want);
  }
  // Each key is still reachable: removing it takes exactly that key out.
  for (int k : {1, 3, 6, 0, 7, 2, 4, 5}) {
    ASSERT_EQ(QM_ipht_remove(t, k), 0);
    want.erase(k);
    EXPECT_EQ(contents(t), want) << "after removing " << k;
  }
}

TEST(Ipht, RandomOperationsAgainstMapAndGrowth) {
  const int size = 64;  // keys below 4096
  int_pointer_hash_table_t* t = new_table(size);
  const size_t first_nodes = static_cast<size_t>(t->fresh_nodes_bound - t->fresh_nodes);
  const size_t per_block = QM_pagesize_ceil(2 * sizeof(hash_node_t)) / sizeof(hash_node_t) - 1;
  std::mt19937 rng(7);
  std::map<int, void*> want;
  size_t nodes_taken = 0;  // removed nodes are not reused
  for (int step = 0; step < 6000; ++step) {
    int key = static_cast<int>(rng() % (size * size));
    if (rng() % 4 == 0) {
      ASSERT_EQ(QM_ipht_remove(t, key), 0);
      want.erase(key);
      EXPECT_FALSE(lookup(t, key));
    } else {
      nodes_taken += want.count(key) == 0;
      ASSERT_EQ(QM_ipht_insert(t, key, val(step)), 0);
      want[key] = val(step);
      void* got = nullptr;
      EXPECT_TRUE(lookup(t, key, &got) && got == val(step));
    }
    if (step % 250 == 0) {
      ASSERT_EQ(contents(t), want);
    }
  }
  EXPECT_EQ(contents(t), want);

  // Further blocks: recorded by the manager, their length in their first
  // slot, and just as many as the nodes taken required.
  size_t blocks = 0;
  for (hash_node_t* b = t->next_block; b != nullptr; b = b->next, ++blocks) {
    memory_manager_region_t r{};
    ASSERT_EQ(QM_page_get_info(b, &r), 0);
    EXPECT_TRUE(r.tag == mmt_utils_ipht_general_block && static_cast<size_t>(b->key) == r.len);
  }
  ASSERT_GT(nodes_taken, first_nodes + per_block);
  EXPECT_EQ(blocks, (nodes_taken - first_nodes + per_block - 1) / per_block);
}

}  // namespace
