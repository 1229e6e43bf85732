// The heap tables against a std::map model under long random runs: every
// insertion (plain, and the checked one that refuses to overlap a live
// block), removal (with the record that followed), re-keying, in-place moves
// of a released range's start, and lookups by exact start, by any address
// inside a record and by range. The index of block starts beside each tree
// must agree with the tree after every step, through its growth and through
// removals that shift its probe chains.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <map>
#include <random>
#include <vector>

#include "heap/heap_tables.h"

namespace {

using Model = std::map<uintptr_t, size_t>;  // start -> length

constexpr uintptr_t kBase = 0x40000000;
constexpr uintptr_t kSlots = 400000;  // 16-byte steps over which records are placed

void* P(uintptr_t a) { return reinterpret_cast<void*>(a); }
uintptr_t U(const void* p) { return reinterpret_cast<uintptr_t>(p); }

allocation_record_t rec(uintptr_t addr, size_t len) {
  allocation_record_t r = {};
  r.addr = P(addr);
  r.len = len;
  r.org_addr = P(addr);
  r.org_len = len;
  return r;
}

// The model record that contains a (a zero-length one contains its start).
Model::const_iterator containing(const Model& m, uintptr_t a) {
  auto it = m.upper_bound(a);
  if (it == m.begin()) return m.end();
  --it;
  return (it->first == a || a < it->first + it->second) ? it : m.end();
}

// Whether a model record intersects [s, s + span) as the tables judge it.
bool intersects(const Model& m, uintptr_t s, size_t span) {
  const uintptr_t e = s + span;
  auto it = m.lower_bound(s);
  if (it != m.end() && it->first < e) return true;
  if (it != m.end() && it->first == s) return true;
  if (it == m.begin()) return false;
  --it;
  return s < it->first + it->second;
}

struct Table {
  bool alloc;
  alloc_rec_id_t insert(uintptr_t a, size_t n) const {
    allocation_record_t r = rec(a, n);
    return alloc ? QM_HEAP_insert_allocation_record(&r) : QM_HEAP_insert_deallocation_record(&r);
  }
  alloc_rec_id_t lookup(uintptr_t a, exact_lookup_e how) const {
    return alloc ? QM_HEAP_lookup_allocation_record(P(a), nullptr, how)
                 : QM_HEAP_lookup_deallocation_record(P(a), nullptr, how);
  }
  alloc_rec_id_t range(uintptr_t a, size_t n) const {
    return alloc ? QM_HEAP_lookup_allocation_range_record(P(a), n, nullptr)
                 : QM_HEAP_lookup_deallocation_range_record(P(a), n, nullptr);
  }
  int remove(uintptr_t a) const {
    return alloc ? QM_HEAP_remove_allocation_record(P(a)) : QM_HEAP_remove_deallocation_record(P(a));
  }
  int count() const {
    return alloc ? QM_HEAP_get_num_records_in_allocation_table()
                 : QM_HEAP_get_num_records_in_deallocation_table();
  }
  int check() const { return alloc ? QM_HEAP_check_allocation_table() : QM_HEAP_check_deallocation_table(); }
  std::vector<std::pair<uintptr_t, size_t>> contents() const {
    std::vector<std::pair<uintptr_t, size_t>> v;
    auto f = [](allocation_record_t* r, int*, void* arg) {
      static_cast<std::vector<std::pair<uintptr_t, size_t>>*>(arg)->push_back({U(r->addr), r->len});
      return 0;
    };
    if (alloc)
      QM_HEAP_iterate_over_allocation_table(f, &v);
    else
      QM_HEAP_iterate_over_deallocation_table(f, &v);
    return v;
  }
};

class HeapTablesModel : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    QM_HEAP_init_heap_tables();
    ASSERT_EQ(t.count(), 0) << "tables must start empty";
  }
  void TearDown() override {
    for (auto& [a, n] : model) EXPECT_EQ(t.remove(a), 0);
    EXPECT_EQ(t.count(), 0);
  }
  // A free spot of length n (records never overlap within a table), or 0.
  uintptr_t free_spot(size_t n) {
    for (int tries = 0; tries < 20; ++tries) {
      uintptr_t a = kBase + 16 * (rng() % kSlots);
      if (!intersects(model, a, n > 0 ? n : 1)) return a;
    }
    return 0;
  }
  void compare_everything() {
    ASSERT_EQ(t.check(), 0);
    ASSERT_EQ(t.count(), static_cast<int>(model.size()));
    std::vector<std::pair<uintptr_t, size_t>> want(model.begin(), model.end());
    ASSERT_EQ(t.contents(), want);
  }

  Table t{GetParam()};
  Model model;
  std::mt19937_64 rng{GetParam() ? 1234u : 5678u};
};

TEST_P(HeapTablesModel, RandomRunsAgreeWithTheModel) {
  // Four phases: the tables grow to thousands of records (the index of
  // starts grows several times), churn, shrink (long probe chains are
  // shifted back on removal), churn again.
  static constexpr int kInsert[] = {60, 35, 10, 35};
  size_t largest = 0;
  for (int step = 0; step < 200000; ++step) {
    const int phase = step / 50000;
    // what < 35 inserts and 35..64 removes, with the phase's share of inserts.
    int what = static_cast<int>(rng() % 100);
    if (what < 65)
      what = what < kInsert[phase] ? what * 35 / kInsert[phase]
                                   : 35 + (what - kInsert[phase]) * 30 / (65 - kInsert[phase]);
    const size_t n = rng() % 8 == 0 ? 0 : 1 + rng() % 600;
    if (what < 35 || model.size() < 50) {  // insert, the checked way on the allocation table
      uintptr_t a = kBase + 16 * (rng() % kSlots);
      const bool clear = !intersects(model, a, n > 0 ? n : 1);
      if (t.alloc) {
        allocation_record_t r = rec(a, n);
        alloc_rec_id_t id = QM_HEAP_insert_allocation_record_if_clear(&r, n);
        ASSERT_EQ(id != nullptr, clear) << std::hex << a << " len " << n;
        if (id != nullptr) model[a] = n;
      } else if (clear) {
        ASSERT_NE(t.insert(a, n), nullptr);
        model[a] = n;
      }
    } else if (what < 65 && !model.empty()) {  // remove a record, or miss one
      auto it = std::next(model.begin(), static_cast<long>(rng() % model.size()));
      if (rng() % 500 == 0) {
        uintptr_t inside = it->first + 1 + (it->second > 1 ? rng() % (it->second - 1) : 0);
        if (model.count(inside) == 0) ASSERT_NE(t.remove(inside), 0);
        continue;
      }
      if (!t.alloc && rng() % 2 == 0) {
        alloc_rec_id_t next = nullptr;
        ASSERT_EQ(QM_HEAP_remove_deallocation_record_next(P(it->first), &next), 0);
        auto after = std::next(it);
        ASSERT_EQ(next == nullptr ? 0 : U(next->allocation_record.addr), after == model.end() ? 0 : after->first);
      } else {
        ASSERT_EQ(t.remove(it->first), 0);
      }
      model.erase(it);
    } else if (what < 75 && !model.empty()) {  // move a record's start
      auto it = std::next(model.begin(), static_cast<long>(rng() % model.size()));
      const uintptr_t a = it->first;
      const size_t len = it->second;
      alloc_rec_id_t id = t.lookup(a, exact);
      ASSERT_NE(id, nullptr);
      if (!t.alloc && len > 16 && rng() % 2 == 0) {  // within the range: the order holds
        const size_t cut = 16 * (1 + rng() % ((len - 1) / 16));  // the range keeps a byte
        ASSERT_EQ(QM_HEAP_set_dealloc_addr_len_by_id(id, P(a + cut), len - cut), 0);
        model.erase(it);
        model[a + cut] = len - cut;
      } else {
        model.erase(it);
        const uintptr_t to = free_spot(len);
        if (to == 0) {
          model[a] = len;
          continue;
        }
        if (t.alloc) {
          allocation_record_t r = rec(to, len);
          ASSERT_EQ(QM_HEAP_set_alloc_fields_by_id(id, &r, ar_field_addr), 0);
        } else {
          ASSERT_EQ(QM_HEAP_set_dealloc_addr_len_by_id(id, P(to), len), 0);
        }
        model[to] = len;
        ASSERT_EQ(t.lookup(to, exact), id);  // the id follows the record
      }
      ASSERT_EQ(t.lookup(a, exact) != nullptr, model.count(a) != 0);
    } else {  // lookups by start, by any address, by range
      const uintptr_t a = kBase + rng() % (16 * kSlots + 64);
      auto exact_it = model.find(a);
      alloc_rec_id_t id = t.lookup(a, exact);
      ASSERT_EQ(id == nullptr ? 0 : U(id->allocation_record.addr), exact_it == model.end() ? 0 : a);
      auto in = containing(model, a);
      id = t.lookup(a, non_exact);
      ASSERT_EQ(id == nullptr ? 0 : U(id->allocation_record.addr), in == model.end() ? 0 : in->first)
          << std::hex << a;
      const size_t span = 1 + rng() % 200;
      id = t.range(a, span);
      ASSERT_EQ(id != nullptr, intersects(model, a, span)) << std::hex << a << " span " << span;
    }
    if (step % 20000 == 0) compare_everything();
    largest = std::max(largest, model.size());
  }
  compare_everything();
  EXPECT_GT(largest, 10000u) << "the run should grow the index of starts a few times";
}

INSTANTIATE_TEST_SUITE_P(BothTables, HeapTablesModel, testing::Values(true, false),
                         [](const testing::TestParamInfo<bool>& i) {
                           return std::string(i.param ? "Allocation" : "Deallocation");
                         });

}  // namespace
