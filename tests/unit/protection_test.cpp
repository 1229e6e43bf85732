// Guard geometry, fill and check at every alignment of the guard, block
// painting's anchoring, the guard table, and the hoard's queue and
// accounting against the real deallocation table.
#include "core/binding.h"
#include "core/owners.h"
#include "heap/controls.h"
#include "heap/guards.h"
#include "heap/heap_tables.h"
#include "heap/hoard.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <stdlib.h>

#include <set>
#include <vector>

namespace {

struct GuardSettings {
  int enabled, pre, post, max, payload_alignment;
  GuardSettings() {
    enabled = QM_HEAP_guard_enabled;
    pre = QM_HEAP_guard_pre_size;
    post = QM_HEAP_guard_post_size;
    max = QM_HEAP_guard_max_size;
    payload_alignment = QM_HEAP_guard_payload_alignment;
    QM_HEAP_guard_alignment_checked = 1;
  }
  ~GuardSettings() {
    QM_HEAP_guard_enabled = enabled;
    QM_HEAP_guard_pre_size = pre;
    QM_HEAP_guard_post_size = post;
    QM_HEAP_guard_max_size = max;
    QM_HEAP_guard_payload_alignment = payload_alignment;
  }
};

guard_settings_t geometry(int alignment, size_t unit, int p, int pre, int post, int max = 0) {
  QM_HEAP_guard_enabled = 1;
  QM_HEAP_guard_payload_alignment = p;
  QM_HEAP_guard_pre_size = pre;
  QM_HEAP_guard_post_size = post;
  QM_HEAP_guard_max_size = max;
  guard_settings_t g;
  EXPECT_EQ(QM_HEAP_guard_get_settings(alignment, unit, &g), 0);
  return g;
}

TEST(Guards, GeometryRoundsToAlignmentsAndUnits) {
  GuardSettings saved;
  struct Case {
    int alignment;
    size_t unit;
    int p, pre, post, max;
    guard_size_t want_pre, want_post;
  } cases[] = {
      {8, 1, 8, 8, 8, 0, 8, 8},       // malloc on an 8-aligning allocator
      {8, 1, 16, 8, 8, 0, 16, 8},     // the allocator's 16 widens only the pre-guard
      {8, 1, 8, 8, 5, 0, 8, 8},       // post 5 rounds to the alignment
      {8, 12, 16, 8, 5, 0, 48, 24},   // calloc of 12-byte elements: lcm(8, 16, 12), lcm(8, 12)
      {8, 1, 16, 8, 8, 4, 0, 0},      // a maximum below one multiple leaves no guard
      {8, 1, 16, 40, 40, 20, 16, 16}, // the maximum rounded down to a multiple
      {64, 1, 16, 8, 8, 0, 64, 64},   // memalign(64)
      {4096, 1, 16, 8, 8, 0, 4096, 4096},
      {8, 1, 0, 8, 8, 0, 8, 8},       // no measured alignment
      {8, 0, 16, 8, 8, 0, 16, 8},     // unit 0: only the alignments count
      {8, 1, 16, 0, 0, 0, 0, 0},      // nothing asked for
  };
  for (const Case& c : cases) {
    guard_settings_t g = geometry(c.alignment, c.unit, c.p, c.pre, c.post, c.max);
    EXPECT_EQ(g.pre_size, c.want_pre) << c.alignment << "/" << c.unit << "/" << c.max;
    EXPECT_EQ(g.post_size, c.want_post) << c.alignment << "/" << c.unit << "/" << c.max;
    EXPECT_EQ(g.pre_pattern, g.pre_size != 0 ? 0x77777777u : 0u);
    EXPECT_EQ(g.post_pattern, g.post_size != 0 ? 0x99999999u : 0u);
  }
  QM_HEAP_guard_enabled = 0;
  guard_settings_t off;
  QM_HEAP_guard_get_settings(8, 1, &off);
  EXPECT_EQ(off.pre_size + off.post_size + off.pre_pattern + off.post_pattern, 0u);
}

TEST(Guards, FillAndCheckAtEveryAlignmentAndEveryByte) {
  guard_settings_t g = {8, 0x77777777u, 12, 0x04030201u};
  for (size_t offset = 0; offset < 8; ++offset) {
    for (size_t len : {0, 1, 7, 10}) {
      std::vector<uint8_t> buf(64, 0xee);
      uint8_t* payload = buf.data() + 16 + offset;
      ASSERT_EQ(QM_HEAP_guard_fill_guards(gfm_both, payload, len, &g), 0);
      for (int i = 0; i < 8; ++i) ASSERT_EQ(payload[i - 8], 0x77);
      for (int i = 0; i < 12; ++i) ASSERT_EQ(payload[len + i], i % 4 + 1) << offset << " " << len;
      ASSERT_EQ(payload[-9], 0xee);
      ASSERT_EQ(payload[len + 12], 0xee);
      if (len > 0) ASSERT_EQ(payload[0], 0xee);
      ASSERT_EQ(QM_HEAP_guard_check_guards(payload, len, &g), guards_ok);
      for (int i = -8; i < static_cast<int>(len) + 12; ++i) {
        uint8_t keep = payload[i];
        payload[i] ^= 0x10;
        guard_status_e want = i < 0 ? guards_pre_bad : i >= static_cast<int>(len) ? guards_post_bad : guards_ok;
        ASSERT_EQ(QM_HEAP_guard_check_guards(payload, len, &g), want) << offset << " " << len << " " << i;
        payload[i] = keep;
      }
      payload[-1] ^= 1;
      payload[len] ^= 1;
      EXPECT_EQ(QM_HEAP_guard_check_guards(payload, len, &g), guards_both_bad);
    }
  }
  std::vector<uint8_t> buf(32, 0);
  EXPECT_EQ(QM_HEAP_guard_fill_guards(gfm_post, buf.data() + 8, 4, &g), 0);
  EXPECT_EQ(buf[7], 0);  // the pre-guard was not asked for
  EXPECT_EQ(QM_HEAP_guard_fill_guards(gfm_both, nullptr, 4, &g), -1);
  EXPECT_EQ(QM_HEAP_guard_payload_to_base_address(buf.data() + 8, &g), buf.data());
  EXPECT_EQ(QM_HEAP_guard_base_to_payload_address(buf.data(), &g), buf.data() + 8);
  EXPECT_EQ(QM_HEAP_guard_payload_to_base_address(nullptr, &g), nullptr);
}

TEST(Painting, PatternIsAnchoredToFourByteBoundaries) {
  const uint32_t pattern = 0xa110ca7fu;
  alignas(8) uint8_t buf[64];
  for (size_t start = 0; start < 8; ++start) {
    for (size_t len = 0; len < 30; ++len) {
      __builtin_memset(buf, 0xee, sizeof buf);
      QM_HEAP_paint_block(buf + 8 + start, static_cast<int>(pattern), len);
      for (size_t i = 0; i < sizeof buf; ++i) {
        bool inside = i >= 8 + start && i < 8 + start + len;
        uint8_t want = inside ? static_cast<uint8_t>(pattern >> (8 * (reinterpret_cast<uintptr_t>(buf + i) & 3))) : 0xee;
        ASSERT_EQ(buf[i], want) << start << " " << len << " " << i;
      }
    }
  }
  // Seven bytes from an address 2 past a boundary.
  QM_HEAP_paint_block(buf + 2, static_cast<int>(pattern), 7);
  const uint8_t want[] = {0x10, 0xa1, 0x7f, 0xca, 0x10, 0xa1, 0x7f};
  for (int i = 0; i < 7; ++i) EXPECT_EQ(buf[2 + i], want[i]);
}

TEST(GuardTable, EachGeometryOnceMruFirstMoveToFront) {
  const long mru_before = QM_HEAP_guard_table.num_insertions_satisfied_by_mru;
  const long lookups_before = QM_HEAP_guard_table.num_insertions_satisfied_by_table_lookup;
  guard_settings_t zero = {};
  guard_id_t id = -1;
  const long insertions = QM_HEAP_guard_table.num_insertions;
  EXPECT_EQ(QM_HEAP_gt_insert_settings(&zero, &id), 0);
  EXPECT_EQ(id, 0);
  EXPECT_EQ(QM_HEAP_guard_table.num_insertions, insertions);

  // Geometries on one chain: the hash (the sum) is the same mod 41.
  std::vector<guard_settings_t> geos;
  for (uint32_t k = 0; k < 600; ++k) geos.push_back({8 * (k + 1000), 0x77777777u, 41 * k, 0x99999999u});
  std::vector<guard_id_t> ids;
  for (auto& g : geos) {
    guard_id_t i;
    QM_HEAP_gt_insert_settings(&g, &i);
    ids.push_back(i);
  }
  std::set<guard_id_t> distinct(ids.begin(), ids.end());
  EXPECT_EQ(distinct.size(), geos.size());
  for (size_t k = 1; k < ids.size(); ++k) EXPECT_EQ(ids[k], ids[k - 1] + 1);
  // Again the last one: from the MRU; an older one: found on its chain and
  // moved to the chain's front.
  guard_id_t again;
  QM_HEAP_gt_insert_settings(&geos.back(), &again);
  EXPECT_EQ(again, ids.back());
  EXPECT_EQ(QM_HEAP_guard_table.num_insertions_satisfied_by_mru, mru_before + 1);
  QM_HEAP_gt_insert_settings(&geos[3], &again);
  EXPECT_EQ(again, ids[3]);
  EXPECT_EQ(QM_HEAP_guard_table.num_insertions_satisfied_by_table_lookup, lookups_before + 1);
  uint32_t h = geos[3].pre_size + geos[3].post_size + geos[3].pre_pattern + geos[3].post_pattern;
  EXPECT_EQ(QM_HEAP_guard_table.hash_table[h % guard_table_hash_size].chain->id, ids[3]);

  for (size_t k = 0; k < geos.size(); k += 37) {
    guard_settings_t out;
    ASSERT_EQ(QM_HEAP_gt_lookup_id(ids[k], &out), 0);
    EXPECT_EQ(out.pre_size, geos[k].pre_size);
    EXPECT_EQ(out.post_size, geos[k].post_size);
  }
  guard_settings_t out = {1, 2, 3, 4};
  EXPECT_EQ(QM_HEAP_gt_lookup_id(0, &out), 0);
  EXPECT_EQ(out.pre_size + out.post_size + out.pre_pattern + out.post_pattern, 0u);
  EXPECT_EQ(QM_HEAP_gt_lookup_id(ids.back() + 1, &out), -1);
  int seen = 0;
  QM_HEAP_gt_table_iterate([](guard_id_t, const guard_settings_t*, int*, void* a) { return ++*static_cast<int*>(a), 0; },
                           &seen);
  EXPECT_EQ(seen, QM_HEAP_guard_table.settings_next - 1);
}

// The hoard against the real deallocation table and the C owner: blocks
// come from the real allocator and go back to it when they leave.
class Hoard : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(init_malloc_wrappers(), 1);
    QM_HEAP_om_initialize();
    QM_HEAP_am_initialize();
    QM_HEAP_init_heap_tables();
    saved_blocks = QM_HEAP_hoard_max_num_blocks;
    saved_kb = QM_HEAP_hoard_max_kb;
    QM_HEAP_hoard_remove_blocks(1 << 30, nullptr);
  }
  void TearDown() override {
    QM_HEAP_hoard_remove_blocks(1 << 30, nullptr);
    for (void* p : made) QM_HEAP_remove_deallocation_record(p);
    QM_HEAP_hoard_max_num_blocks = saved_blocks;
    QM_HEAP_hoard_max_kb = saved_kb;
    QM_HEAP_event_info_t ev[8];
    qm::take_hoard_events(ev, 8);
  }
  // A released block of len bytes, recorded and hoarded.
  void* hoard(size_t len) {
    void* p = QM_HEAP_org_malloc(len);
    // The allocator hands out again what earlier tests released: the agent
    // would drop the released ranges the new block covers.
    allocation_record_t old;
    while (QM_HEAP_lookup_deallocation_range_record(p, len, &old) != nullptr) QM_HEAP_remove_deallocation_record(old.addr);
    allocation_record_t r = {};
    r.addr = p;
    r.len = len;
    r.owner_id = qm::as_owner(QM_HEAP_c_owner_get_instance())->id;
    r.allocator_id = am_id_c_allocator;
    alloc_rec_id_t id = QM_HEAP_insert_deallocation_record(&r);
    EXPECT_NE(id, nullptr);
    made.push_back(p);
    QM_HEAP_hoard_insert(&r, id);
    return p;
  }
  bool hoarded(void* p) {
    allocation_record_t d;
    return QM_HEAP_lookup_deallocation_record(p, &d, exact) != nullptr && (d.flags & af_hoarded) != 0;
  }
  std::vector<const void*> contents() {
    std::vector<const void*> v;
    for (int i = QM_HEAP_hoard_table.front; i != 0; i = QM_HEAP_hoard_table.blocks[i].next)
      v.push_back(QM_HEAP_hoard_table.blocks[i].addr);
    return v;
  }
  int saved_blocks = 0, saved_kb = 0;
  std::vector<void*> made;
};

TEST_F(Hoard, FirstInFirstOutWithinTheCountLimit) {
  QM_HEAP_hoard_max_num_blocks = 32;
  QM_HEAP_hoard_max_kb = 256;
  std::vector<void*> blocks;
  for (int i = 0; i < 33; ++i) blocks.push_back(hoard(16));
  EXPECT_EQ(QM_HEAP_hoard_num_blocks, 32);
  EXPECT_FALSE(hoarded(blocks[0]));  // the first released left first, still recorded as released
  allocation_record_t d;
  EXPECT_NE(QM_HEAP_lookup_deallocation_record(blocks[0], &d, exact), nullptr);
  for (int i = 1; i < 33; ++i) EXPECT_TRUE(hoarded(blocks[i])) << i;
  EXPECT_EQ(contents(), std::vector<const void*>(blocks.begin() + 1, blocks.end()));
  // A lower limit takes effect at the next trim.
  QM_HEAP_hoard_max_num_blocks = 4;
  QM_HEAP_hoard_trim_to_size_constraints();
  EXPECT_EQ(contents(), std::vector<const void*>(blocks.end() - 4, blocks.end()));
}

TEST_F(Hoard, SizeIsExactToTheByteAndLimited) {
  QM_HEAP_hoard_max_num_blocks = 0;
  QM_HEAP_hoard_max_kb = 256;
  hoard(1000);
  hoard(100);
  EXPECT_EQ(QM_HEAP_hoard_get_current_size_bytes(), 1100);
  EXPECT_EQ(QM_HEAP_hoard_kb, 1);
  EXPECT_EQ(QM_HEAP_hoard_bytes, 76);
  // A block over the size limit goes in and out at once.
  QM_HEAP_hoard_remove_blocks(2, nullptr);
  void* big = hoard(300 * 1024);
  EXPECT_EQ(QM_HEAP_hoard_num_blocks, 0);
  EXPECT_FALSE(hoarded(big));
  // No limits at all: everything stays.
  QM_HEAP_hoard_max_kb = 0;
  for (int i = 0; i < 300; ++i) hoard(8);
  EXPECT_EQ(QM_HEAP_hoard_num_blocks, 300);
  size_t size = 0;
  EXPECT_EQ(QM_HEAP_hoard_remove_blocks(100, &size), 100);
  EXPECT_EQ(size, 200u * 8);
}

TEST_F(Hoard, AWriteIntoAPaintedBlockIsFoundWhenItLeaves) {
  QM_HEAP_hoard_max_num_blocks = 2;
  uint8_t* p = static_cast<uint8_t*>(hoard(24));
  QM_HEAP_paint_block(p, static_cast<int>(0xdea110cfu), 24);
  qm::hoard_note_painted(p, static_cast<int>(0xdea110cfu));
  uint8_t* clean = static_cast<uint8_t*>(hoard(24));
  QM_HEAP_paint_block(clean, static_cast<int>(0xdea110cfu), 24);
  qm::hoard_note_painted(clean, static_cast<int>(0xdea110cfu));
  p[5] = 0;
  hoard(8);  // p leaves
  hoard(8);  // clean leaves
  QM_HEAP_event_info_t ev[8];
  ASSERT_EQ(qm::take_hoard_events(ev, 8), 1);
  EXPECT_EQ(ev[0].event, qm_heap_event_guard_corruption);
  EXPECT_EQ(ev[0].op, qm_heap_op_private_hoard_remove);
  EXPECT_EQ(ev[0].allocation_record.addr, p);
  EXPECT_EQ(ev[0].allocation_record.len, 24u);
}

}  // namespace
