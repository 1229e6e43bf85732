// The backtrace table against a std::map model: identifiers dense in order
// of first insertion, the same stack always the same identifier, counters
// read back intact across info and pcs chunk boundaries, chains kept
// move-to-front, and the MRU/lookup/iterate edge cases.
#include "backtrace/backtrace_table.h"

#include <gtest/gtest.h>
#include <stdint.h>

#include <map>
#include <random>
#include <vector>

namespace {

using Stack = std::vector<const void*>;

const void* pc(uintptr_t v) { return reinterpret_cast<const void*>(v); }

backtrace_id_t insert(stack_backtrace_table_t* t, Stack s) {
  return QM_STACK_insert_backtrace(t, s.data(), static_cast<int>(s.size()));
}

Stack lookup(stack_backtrace_table_t* t, int id) {
  int n = QM_STACK_lookup_backtrace(t, id, nullptr, 0);
  EXPECT_GE(n, 0);
  Stack s(n);
  EXPECT_EQ(QM_STACK_lookup_backtrace(t, id, s.data(), n), n);
  return s;
}

stack_backtrace_info_t* head_of_chain(stack_backtrace_table_t* t, uint32_t sum) {
  backtrace_id_t id = t->hash_table[sum % t->hash_table_bound].chain;
  if (id == 0) return nullptr;
  int per = t->info_table.units_per_chunk;
  return static_cast<stack_backtrace_info_t*>(t->info_table.table[id / per]) + id % per;
}

class BacktraceTable : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(QM_STACK_init_backtrace_table(&t), 0); }
  stack_backtrace_table_t t = {};
};

TEST_F(BacktraceTable, FirstInsertsAndEdgeArguments) {
  EXPECT_EQ(QM_STACK_init_backtrace_table(nullptr), -1);
  EXPECT_EQ(t.next_backtrace_id, 1);
  EXPECT_EQ(t.info_table.chunk_current, nullptr);
  EXPECT_EQ(QM_STACK_is_in_backtrace(&t, nullptr, 0), 0);

  // A null or empty backtrace is counted but stores nothing.
  EXPECT_EQ(QM_STACK_insert_backtrace(&t, nullptr, 3), 0);
  EXPECT_EQ(insert(&t, {}), 0);
  EXPECT_EQ(t.num_insertions, 2);
  EXPECT_EQ(t.next_backtrace_id, 1);

  Stack a = {pc(0x1000), pc(0x2000), pc(0x3000)};
  EXPECT_EQ(insert(&t, a), 1);
  EXPECT_EQ(insert(&t, a), 1);
  EXPECT_EQ(t.mru_hit_count, 1);
  EXPECT_EQ(t.num_insertions, 4);

  // Same counters in another order: same checksum, another stack.
  Stack b = {pc(0x3000), pc(0x2000), pc(0x1000)};
  EXPECT_EQ(insert(&t, b), 2);
  EXPECT_EQ(QM_STACK_is_in_backtrace(&t, a.data(), 3), 1);
  EXPECT_EQ(QM_STACK_is_in_backtrace(&t, b.data(), 3), 2);
  Stack c = {pc(0x1000), pc(0x2000)};
  EXPECT_EQ(QM_STACK_is_in_backtrace(&t, c.data(), 2), 0);

  // Lookups: id 0 is "none", the next id and negatives are bad, a short
  // buffer is refused, a null buffer asks for the size.
  const void* buf[3];
  EXPECT_EQ(QM_STACK_lookup_backtrace(&t, 0, buf, 3), 0);
  EXPECT_EQ(QM_STACK_lookup_backtrace(&t, 3, buf, 3), -1);
  EXPECT_EQ(QM_STACK_lookup_backtrace(&t, -1, buf, 3), -1);
  EXPECT_EQ(QM_STACK_lookup_backtrace(nullptr, 1, buf, 3), -1);
  EXPECT_EQ(QM_STACK_lookup_backtrace(&t, 1, nullptr, 0), 3);
  EXPECT_EQ(QM_STACK_lookup_backtrace(&t, 1, buf, 2), -1);
  EXPECT_EQ(lookup(&t, 2), b);
}

TEST_F(BacktraceTable, ChainsAreMoveToFront) {
  // Three one-counter stacks whose sums fall on one chain.
  const uintptr_t bound = static_cast<uintptr_t>(t.hash_table_bound);
  Stack a = {pc(5)}, b = {pc(5 + bound)}, c = {pc(5 + 2 * bound)};
  EXPECT_EQ(insert(&t, a), 1);
  EXPECT_EQ(insert(&t, b), 2);
  EXPECT_EQ(insert(&t, c), 3);
  EXPECT_EQ(t.hash_table[5].chain, 3);  // newest first
  EXPECT_EQ(insert(&t, a), 1);          // found down the chain: moved to the head
  EXPECT_EQ(t.hash_table[5].chain, 1);
  EXPECT_EQ(head_of_chain(&t, 5)->next, 3);
  EXPECT_EQ(insert(&t, a), 1);
  EXPECT_EQ(t.mru_hit_count, 1);
  EXPECT_EQ(insert(&t, c), 3);  // the chain keeps every entry once
  std::vector<backtrace_id_t> order;
  for (backtrace_id_t id = t.hash_table[5].chain; id != 0;) {
    order.push_back(id);
    int per = t.info_table.units_per_chunk;
    id = (static_cast<stack_backtrace_info_t*>(t.info_table.table[id / per]) + id % per)->next;
  }
  EXPECT_EQ(order, (std::vector<backtrace_id_t>{3, 1, 2}));
}

// Random stacks of random length against a map: crosses info chunk 0 (one
// unit short: unit 0 is the dummy) and several pcs chunks, whose last unit
// is never filled.
TEST_F(BacktraceTable, AgreesWithAModelAcrossChunks) {
  std::mt19937 rng(7);
  std::map<Stack, backtrace_id_t> model;
  std::vector<Stack> by_id(1);
  const int per_info = t.info_table.units_per_chunk;
  for (int i = 0; i < 3 * per_info; ++i) {
    Stack s;
    if (!by_id.empty() && by_id.size() > 1 && rng() % 3 == 0) {
      s = by_id[1 + rng() % (by_id.size() - 1)];
    } else {
      int n = 1 + static_cast<int>(rng() % 40);
      for (int k = 0; k < n; ++k) s.push_back(pc(0x400000 + (rng() % 64) * 16));
    }
    backtrace_id_t id = insert(&t, s);
    auto it = model.find(s);
    if (it == model.end()) {
      ASSERT_EQ(id, static_cast<backtrace_id_t>(by_id.size()));  // dense, in order of first insertion
      model[s] = id;
      by_id.push_back(s);
    } else {
      ASSERT_EQ(id, it->second);
    }
  }
  ASSERT_GT(t.info_table.table_next, 1);
  ASSERT_GT(t.pcs_table.table_next, 1);
  EXPECT_EQ(t.next_backtrace_id, static_cast<backtrace_id_t>(by_id.size()));
  // Entry per_info - 1 is the last in chunk 0, per_info the first in chunk 1.
  int per = t.info_table.units_per_chunk;
  auto info = [&](int id) { return static_cast<stack_backtrace_info_t*>(t.info_table.table[id / per]) + id % per; };
  EXPECT_EQ(info(per_info - 1)->info_chunk_no, 0);
  EXPECT_EQ(info(per_info)->info_chunk_no, 1);
  for (size_t id = 1; id < by_id.size(); ++id) {
    ASSERT_EQ(lookup(&t, static_cast<int>(id)), by_id[id]);
    stack_backtrace_info_t* e = info(static_cast<int>(id));
    ASSERT_LT(e->pcs_chunk_offset + e->num_pcs, t.pcs_table.units_per_chunk);  // never straddles, last unit free
  }

  // Iteration visits every id in order, and stops when asked.
  struct Walk {
    std::vector<Stack>* expect;
    int next = 1;
    int stop_at = 0;
  } w{&by_id};
  auto f = [](backtrace_id_t id, const void** pcs, int n, int* stop, void* arg) {
    Walk* w = static_cast<Walk*>(arg);
    EXPECT_EQ(id, w->next++);
    EXPECT_EQ(Stack(pcs, pcs + n), (*w->expect)[id]);
    if (id == w->stop_at) *stop = 1;
    return 0;
  };
  EXPECT_EQ(QM_STACK_table_iterate(&t, f, &w), 0);
  EXPECT_EQ(w.next, static_cast<int>(by_id.size()));
  w.next = 1;
  w.stop_at = 10;
  EXPECT_EQ(QM_STACK_table_iterate(&t, f, &w), 0);
  EXPECT_EQ(w.next, 11);
  auto g = [](backtrace_id_t id, const void**, int, int*, void*) { return id == 4 ? 99 : 0; };
  EXPECT_EQ(QM_STACK_table_iterate(&t, g, nullptr), 99);
}

TEST_F(BacktraceTable, ABacktraceThatWouldFillAPcsChunkStartsANewOne) {
  const int per = t.pcs_table.units_per_chunk;
  Stack big;
  for (int k = 0; k < per - 10; ++k) big.push_back(pc(0x1000 + k));
  EXPECT_EQ(insert(&t, big), 1);
  Stack exact;
  for (int k = 0; k < 10; ++k) exact.push_back(pc(0x900000 + k));
  EXPECT_EQ(insert(&t, exact), 2);  // would end exactly at the chunk's end
  EXPECT_EQ(t.pcs_table.table_next, 2);
  EXPECT_EQ(lookup(&t, 2), exact);
  EXPECT_EQ(lookup(&t, 1), big);
}

TEST(BacktraceTableEmpty, IteratesNothing) {
  stack_backtrace_table_t t = {};
  ASSERT_EQ(QM_STACK_init_backtrace_table(&t), 0);
  int calls = 0;
  EXPECT_EQ(QM_STACK_table_iterate(
                &t, [](backtrace_id_t, const void**, int, int*, void* a) { return ++*static_cast<int*>(a), 0; },
                &calls),
            0);
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(QM_STACK_table_iterate(nullptr, nullptr, nullptr), -1);
}

}  // namespace
