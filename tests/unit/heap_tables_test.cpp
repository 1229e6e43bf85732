// The allocation and deallocation tables: lookups at block boundaries, the
// filter's rebuild, iteration order, re-keying and id stability across
// growth of the node supply. Addresses are made up; nothing is dereferenced.
#include "heap/heap_tables.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

extern "C" {
extern allocation_record_t QM_HEAP_debug_allocation_record;
int QM_HEAP_debug_lookup_allocation_table(void* p);
int QM_HEAP_debug_lookup_deallocation_table(void* p);
}

namespace {

char* A(uintptr_t off) { return reinterpret_cast<char*>(uintptr_t{0x10000000} + off); }

allocation_record_t rec(void* addr, size_t len) {
  allocation_record_t r = {};
  r.addr = addr;
  r.len = len;
  r.org_addr = addr;
  r.org_len = len;
  r.owner_id = 1;
  r.allocator_id = 1;
  return r;
}

class HeapTables : public testing::Test {
 protected:
  void SetUp() override {
    QM_HEAP_init_heap_tables();
    base_count_ = QM_HEAP_get_num_records_in_allocation_table();
  }
  void TearDown() override {
    for (void* p : inserted_) QM_HEAP_remove_allocation_record(p);
    EXPECT_EQ(QM_HEAP_get_num_records_in_allocation_table(), base_count_);
    EXPECT_EQ(QM_HEAP_check_allocation_table(), 0);
  }
  alloc_rec_id_t add(uintptr_t off, size_t len) {
    allocation_record_t r = rec(A(off), len);
    inserted_.push_back(A(off));
    return QM_HEAP_insert_allocation_record(&r);
  }
  std::vector<void*> inserted_;
  int base_count_ = 0;
};

TEST_F(HeapTables, LookupsAtBlockBoundaries) {
  alloc_rec_id_t b = add(0x100, 0x40);
  alloc_rec_id_t z = add(0x200, 0);  // a zero-length block
  allocation_record_t out;
  EXPECT_EQ(QM_HEAP_lookup_allocation_record(A(0x100), &out, exact), b);
  EXPECT_EQ(out.len, 0x40u);
  EXPECT_EQ(QM_HEAP_lookup_allocation_record(A(0x13f), nullptr, exact), nullptr);
  EXPECT_EQ(QM_HEAP_lookup_allocation_record(A(0x13f), nullptr, non_exact), b);
  EXPECT_EQ(QM_HEAP_lookup_allocation_record(A(0x140), nullptr, non_exact), nullptr);  // one past the end
  EXPECT_EQ(QM_HEAP_lookup_allocation_record(A(0xff), nullptr, non_exact), nullptr);
  EXPECT_EQ(QM_HEAP_lookup_allocation_record(A(0x200), nullptr, non_exact), z);
  EXPECT_EQ(QM_HEAP_lookup_allocation_record(A(0x201), nullptr, non_exact), nullptr);

  EXPECT_EQ(QM_HEAP_lookup_allocation_range_record(A(0xf0), 0x11, nullptr), b);  // overlaps the start
  EXPECT_EQ(QM_HEAP_lookup_allocation_range_record(A(0xf0), 0x10, nullptr), nullptr);  // ends at it
  EXPECT_EQ(QM_HEAP_lookup_allocation_range_record(A(0x13f), 0x40, nullptr), b);
  EXPECT_EQ(QM_HEAP_lookup_allocation_range_record(A(0x140), 0x40, nullptr), nullptr);
  EXPECT_EQ(QM_HEAP_lookup_allocation_range_record(A(0x1f0), 0x20, nullptr), z);

  EXPECT_EQ(QM_HEAP_remove_allocation_record(A(0x120)), -1);  // inside, not the start
  EXPECT_EQ(QM_HEAP_lookup_allocation_record(A(0x100), nullptr, exact), b);

  // The debugger's lookups find a block by any address inside it.
  EXPECT_EQ(QM_HEAP_debug_lookup_allocation_table(A(0x13f)), 1);
  EXPECT_EQ(QM_HEAP_debug_allocation_record.addr, A(0x100));
  EXPECT_EQ(QM_HEAP_debug_lookup_allocation_table(A(0x140)), 0);
  EXPECT_EQ(QM_HEAP_debug_lookup_deallocation_table(A(0x13f)), 0);
}

TEST_F(HeapTables, RecordsAreEditedInPlaceAndKeepTheirIds) {
  alloc_rec_id_t b = add(0x1000, 16);
  QM_HEAP_set_alloc_flags_by_id(b, af_notify_dealloc | af_hoarded);
  QM_HEAP_clear_alloc_flags_by_id(b, af_hoarded);
  QM_HEAP_set_alloc_len_by_id(b, 24);
  int marker = 0;
  QM_HEAP_set_alloc_control_info_by_id(b, &marker);
  allocation_record_t out;
  ASSERT_EQ(QM_HEAP_get_allocation_record_by_id(b, &out), 0);
  EXPECT_EQ(out.flags, af_notify_dealloc);
  EXPECT_EQ(out.len, 24u);
  EXPECT_EQ(out.control_info, &marker);
  EXPECT_STREQ(QM_HEAP_alloc_rec_flag_to_str(af_dont_free_on_dealloc), "Hoard When Deallocated");
  EXPECT_STREQ(QM_HEAP_alloc_rec_flag_to_str(3), "?");

  // A new address re-keys the record; the id stays.
  allocation_record_t moved = rec(A(0x5000), 64);
  ASSERT_EQ(QM_HEAP_set_alloc_fields_by_id(b, &moved, ar_field_addr | ar_field_len), 0);
  inserted_[0] = A(0x5000);
  EXPECT_EQ(QM_HEAP_lookup_allocation_record(A(0x5010), nullptr, non_exact), b);
  EXPECT_EQ(QM_HEAP_lookup_allocation_record(A(0x1000), nullptr, non_exact), nullptr);
  EXPECT_EQ(b->allocation_record.org_addr, A(0x1000));  // not selected, not changed
}

TEST_F(HeapTables, IdsStayValidWhileTheNodeSupplyGrows) {
  int saved = default_heap_table_inc_num_nodes;
  default_heap_table_inc_num_nodes = 1;  // grow by one page at a time
  std::map<uintptr_t, alloc_rec_id_t> ids;
  for (uintptr_t i = 0; i < 3000; ++i) ids[0x100000 + i * 32] = add(0x100000 + i * 32, 8 + i % 24);
  default_heap_table_inc_num_nodes = saved;
  for (auto& [off, id] : ids) {
    ASSERT_EQ(id->allocation_record.addr, A(off));
    ASSERT_EQ(QM_HEAP_lookup_allocation_record(A(off + 4), nullptr, non_exact), id);
  }
  // Iteration is in address order, and the iterator agrees with it.
  std::vector<void*> walked;
  QM_HEAP_iterate_over_allocation_table(
      [](allocation_record_t* r, int*, void* a) {
        static_cast<std::vector<void*>*>(a)->push_back(r->addr);
        return 0;
      },
      &walked);
  EXPECT_TRUE(std::is_sorted(walked.begin(), walked.end()));
  allocation_table_iterator_t it;
  ASSERT_EQ(QM_HEAP_init_allocation_table_iterator(&it), 0);
  allocation_record_t r;
  size_t n = 0;
  while (QM_HEAP_next_allocation_table_record(&it, &r) == 1) ASSERT_EQ(r.addr, walked[n++]);
  EXPECT_EQ(n, walked.size());
  EXPECT_FALSE(QM_HEAP_is_more_allocation_table_records(&it));

  std::vector<void*> ranged;
  QM_HEAP_iterate_over_allocation_table_range(
      [](allocation_record_t* rr, int*, void* a) {
        static_cast<std::vector<void*>*>(a)->push_back(rr->addr);
        return 0;
      },
      &ranged, A(0x100000 + 32 * 10), A(0x100000 + 32 * 20));
  EXPECT_EQ(ranged.size(), 11u);
}

TEST_F(HeapTables, FilterRebuildsWithoutTheDeletedRecords) {
  std::vector<alloc_rec_id_t> ids;
  for (uintptr_t i = 0; i < 200; ++i) ids.push_back(add(0x200000 + i * 0x100, 0x80));
  int deleted_tag = 0;
  int r = QM_HEAP_ht_alloc_filter(
      [](alloc_rec_id_t id, ht_filter_arg_t* farg, void* arg) {
        uintptr_t off = reinterpret_cast<uintptr_t>(id->allocation_record.addr) - 0x10200000;
        if (off < 0x100000 && (off / 0x100) % 2 == 1) {
          farg->delete_it = 1;
          ++*static_cast<int*>(arg);
        }
        return 0;
      },
      &deleted_tag);
  EXPECT_EQ(r, 0);
  EXPECT_EQ(deleted_tag, 100);
  EXPECT_EQ(QM_HEAP_get_num_records_in_allocation_table(), base_count_ + 100);
  for (uintptr_t i = 0; i < 200; ++i) {
    alloc_rec_id_t found = QM_HEAP_lookup_allocation_record(A(0x200000 + i * 0x100 + 1), nullptr, non_exact);
    EXPECT_EQ(found, i % 2 == 0 ? ids[i] : nullptr);
  }
  std::vector<void*> kept;
  for (uintptr_t i = 0; i < 200; i += 2) kept.push_back(A(0x200000 + i * 0x100));
  inserted_ = kept;
}

TEST(DeallocationTable, ReleasedRangesMergeByRekeying) {
  QM_HEAP_init_heap_tables();
  int before = QM_HEAP_get_num_records_in_deallocation_table();
  allocation_record_t r = rec(A(0x900000), 0x20);
  alloc_rec_id_t id = QM_HEAP_insert_deallocation_record(&r);
  allocation_record_t other = rec(A(0x900100), 0x20);
  QM_HEAP_insert_deallocation_record(&other);
  EXPECT_EQ(QM_HEAP_lookup_deallocation_range_record(A(0x8ffff0), 0x20, nullptr), id);
  // Grow the first range downwards: it is found under its new start.
  ASSERT_EQ(QM_HEAP_set_dealloc_addr_len_by_id(id, A(0x8fff00), 0x120), 0);
  EXPECT_EQ(QM_HEAP_lookup_deallocation_record(A(0x8fff00), nullptr, exact), id);
  EXPECT_EQ(QM_HEAP_lookup_deallocation_record(A(0x900000), nullptr, exact), nullptr);
  EXPECT_EQ(QM_HEAP_lookup_deallocation_record(A(0x90001f), nullptr, non_exact), id);
  EXPECT_EQ(QM_HEAP_check_deallocation_table(), 0);
  // Moving the start within the range (an allocation took its head) keeps the
  // record in place; it is found under the new start and nowhere before it.
  ASSERT_EQ(QM_HEAP_set_dealloc_addr_len_by_id(id, A(0x8fff80), 0xa0), 0);
  EXPECT_EQ(QM_HEAP_lookup_deallocation_record(A(0x8fff80), nullptr, exact), id);
  EXPECT_EQ(QM_HEAP_lookup_deallocation_record(A(0x8fff7f), nullptr, non_exact), nullptr);
  EXPECT_EQ(QM_HEAP_lookup_deallocation_record(A(0x90001f), nullptr, non_exact), id);
  ASSERT_EQ(QM_HEAP_set_dealloc_addr_len_by_id(id, A(0x8fff00), 0x120), 0);
  EXPECT_EQ(QM_HEAP_remove_deallocation_record(A(0x8fff00)), 0);
  EXPECT_EQ(QM_HEAP_remove_deallocation_record(A(0x900100)), 0);
  EXPECT_EQ(QM_HEAP_remove_deallocation_record(A(0x900100)), -1);
  EXPECT_EQ(QM_HEAP_get_num_records_in_deallocation_table(), before);
}

}  // namespace
