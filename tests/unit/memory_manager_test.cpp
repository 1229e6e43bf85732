// The page layer and the agent's page memory manager: rounding, the raw
// mapping call, region bookkeeping, node recycling and the region walk.
#include "base/memory_manager.h"
#include "base/page.h"

#include <gtest/gtest.h>
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <vector>

namespace {

const size_t ps = static_cast<size_t>(sysconf(_SC_PAGESIZE));
const int nodes_per_page = static_cast<int>(ps / sizeof(mem_region_node_t));

std::vector<memory_manager_region_t> walk() {
  std::vector<memory_manager_region_t> out;
  QM_MM_iterator_callbacks_t cb{};
  cb.arg = &out;
  cb.f = [](QM_MM_iterator_callbacks_t* c) {
    static_cast<std::vector<memory_manager_region_t>*>(c->arg)->push_back(c->region);
    return 0;
  };
  EXPECT_EQ(QM_MM_iterate_regions(&cb), 0);
  return out;
}

int count_tag(memory_manager_tag_e tag) {
  int n = 0;
  for (const auto& r : walk()) n += r.tag == tag;
  return n;
}

// The manager's table is process-wide. These tests swap in an empty one so
// that its creation can be observed, then put the original back and unmap
// whatever the scratch table still holds.
class PageManager : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = QM_memory_manager_table;
    QM_memory_manager_table = memory_manager_table_t{};
  }
  void TearDown() override {
    std::vector<memory_manager_region_t> left = walk();
    QM_memory_manager_table = saved_;
    for (const auto& r : left) munmap(r.base, r.len);
  }
  memory_manager_table_t saved_;
  memory_manager_table_t& t = QM_memory_manager_table;
};

TEST(PageLayer, RoundingAndRawMapping) {
  const size_t in[] = {0, 1, ps, ps + 1, 3 * ps - 1};
  const size_t ceil[] = {0, ps, ps, 2 * ps, 3 * ps}, floor[] = {0, 0, ps, ps, 2 * ps};
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(QM_pagesize_ceil(in[i]), ceil[i]) << in[i];
    EXPECT_EQ(QM_pagesize_floor(in[i]), floor[i]) << in[i];
  }
  errno = 0;
  EXPECT_EQ(QM_mmap(nullptr, ps, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 12), MAP_FAILED);
  EXPECT_EQ(errno, EINVAL);

  // The offset is in bytes, whatever unit the system call underneath uses.
  char path[] = "/tmp/qm_page_layer_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  unlink(path);
  std::vector<char> data(3 * ps);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>('a' + i / ps);
  ASSERT_EQ(write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
  void* m = QM_mmap(nullptr, ps, PROT_READ, MAP_PRIVATE, fd, static_cast<off_t>(2 * ps));
  ASSERT_NE(m, MAP_FAILED);
  EXPECT_EQ(static_cast<char*>(m)[0], 'c');
  QM_munmap(m, ps);
  close(fd);

  // Bits beyond read/write/exec are dropped: PROT_GROWSDOWN here would be refused.
  void* a = QM_mmap_anon(ps);
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(QM_mprotect(a, ps, PROT_READ | PROT_GROWSDOWN), 0);
  QM_munmap(a, ps);
}

TEST_F(PageManager, FirstAllocationCreatesTheTableAndDeallocRecyclesNodes) {
  EXPECT_EQ(QM_page_dealloc(&saved_), -1);  // no table yet
  EXPECT_EQ(QM_page_get_info(&saved_, nullptr), -1);

  char* a = static_cast<char*>(QM_page_alloc(ps + 1, mmt_hia_paint_block));
  EXPECT_EQ(t.hash_table_size, 1021);
  EXPECT_EQ(t.num_regions, 3);  // the hash-table page, a node page, the request
  EXPECT_EQ(t.fresh_nodes_next, 3);
  EXPECT_EQ(t.fresh_nodes_bound, nodes_per_page);
  std::vector<memory_manager_region_t> rs = walk();
  ASSERT_EQ(rs.size(), 3u);
  for (const auto& r : rs) {
    void* want = r.tag == mmt_private_hash_table ? static_cast<void*>(t.hash_table)
                 : r.tag == mmt_private_nodes    ? static_cast<void*>(t.fresh_nodes_base)
                                                 : a;
    EXPECT_EQ(r.base, want) << r.tag;
    EXPECT_TRUE(r.base != a || (r.len == 2 * ps && r.tag == mmt_hia_paint_block));
  }
  EXPECT_EQ(reinterpret_cast<uintptr_t>(a) % ps, 0u);
  for (size_t i = 0; i < 2 * ps; ++i) ASSERT_EQ(a[i], 0) << i;

  QM_page_alloc(ps, mmt_backtrace_pcs_chunk);
  memory_manager_region_t info{};
  EXPECT_EQ(QM_page_get_info(a + 1, &info), -1);
  EXPECT_EQ(QM_page_dealloc(a + ps), -1);  // inside a region, not at its base
  EXPECT_EQ(QM_page_dealloc(a), 0);
  unsigned char v;
  EXPECT_NE(mincore(a, ps, &v), 0);  // really unmapped
  EXPECT_EQ(QM_page_dealloc(a), -1);
  ASSERT_NE(t.free_chain, nullptr);
  EXPECT_EQ(t.num_regions, 4);  // counts creations, not live regions

  // The released node is taken again before any fresh one.
  void* c = QM_page_alloc(10, mmt_hia_guard_settings);
  EXPECT_EQ(t.free_chain, nullptr);
  EXPECT_EQ(t.fresh_nodes_next, 4);
  EXPECT_EQ(t.num_regions, 5);
  ASSERT_EQ(QM_page_get_info(c, &info), 0);
  EXPECT_EQ(info.tag, mmt_hia_guard_settings);
}

TEST_F(PageManager, WalkStopsOnResultOrFlag) {
  for (int i = 0; i < 5; ++i) QM_page_alloc(ps, mmt_hia_hoard_blocks);
  int calls = 0;
  QM_MM_iterator_callbacks_t cb{};
  cb.arg = &calls;
  cb.f = [](QM_MM_iterator_callbacks_t* c) { return ++*static_cast<int*>(c->arg) == 2 ? 7 : 0; };
  EXPECT_EQ(QM_MM_iterate_regions(&cb), 7);
  EXPECT_EQ(calls, 2);
  calls = 0;
  cb.stop_iterating = 1;  // cleared by the walk before the first call
  cb.f = [](QM_MM_iterator_callbacks_t* c) {
    c->stop_iterating = ++*static_cast<int*>(c->arg) == 3;
    return 0;
  };
  EXPECT_EQ(QM_MM_iterate_regions(&cb), 0);
  EXPECT_EQ(calls, 3);
  cb.f = nullptr;
  EXPECT_EQ(QM_MM_iterate_regions(&cb), -1);
}

TEST_F(PageManager, ManyRegionsTakeFurtherNodePages) {
  std::vector<void*> bases;
  for (int i = 0; i < nodes_per_page - 2; ++i) bases.push_back(QM_page_alloc(1, mmt_hia_heap_avl_nodes));
  EXPECT_EQ(t.fresh_nodes_next, nodes_per_page);
  mem_region_node_t* first_page = t.fresh_nodes_base;
  bases.push_back(QM_page_alloc(1, mmt_hia_heap_avl_nodes));
  EXPECT_NE(t.fresh_nodes_base, first_page);
  EXPECT_EQ(t.fresh_nodes_next, 2);  // the new page's own node, then the request's
  EXPECT_EQ(t.num_regions, nodes_per_page + 2);
  for (int i = 0; i < nodes_per_page; ++i) bases.push_back(QM_page_alloc(1, mmt_hia_heap_avl_nodes));
  EXPECT_EQ(count_tag(mmt_private_nodes), 3);
  EXPECT_EQ(count_tag(mmt_hia_heap_avl_nodes), 2 * nodes_per_page - 1);
  for (void* b : bases) ASSERT_EQ(QM_page_dealloc(b), 0);
  EXPECT_EQ(walk().size(), 4u);  // the table page and the three node pages stay
}

}  // namespace
