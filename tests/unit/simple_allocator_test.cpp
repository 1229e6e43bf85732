// The simple allocator: worst fit from the high end of a free block, exact
// fits, coalescing, chunk sizing, and a random run checked against a map of
// live pieces.
#include "base/simple_allocator.h"
#include "base/page.h"

#include <gtest/gtest.h>
#include <stdint.h>
#include <string.h>

#include <map>
#include <random>
#include <utility>
#include <vector>

namespace {

const size_t ps = QM_getpagesize(), bh = sizeof(QM_SA_block_t), ch = sizeof(QM_SA_chunk_t);
const size_t align = sizeof(void*);

size_t need(size_t len) { return (len + bh + align - 1) & ~(align - 1); }
size_t block_len(void* p) { return reinterpret_cast<QM_SA_block_t*>(static_cast<char*>(p) - bh)->len; }

// The free list as (address, length) pairs, checking on the way: ascending
// addresses, consistent back links, and no two blocks that touch.
std::vector<std::pair<char*, size_t>> free_blocks(const QM_SA_simple_allocator_t& sa) {
  std::vector<std::pair<char*, size_t>> out;
  QM_SA_block_t* prev = nullptr;
  for (QM_SA_block_t* b = sa.free_list; b != nullptr; prev = b, b = b->next) {
    EXPECT_EQ(b->prev, prev);
    char* at = reinterpret_cast<char*>(b);
    if (!out.empty()) {
      EXPECT_LT(out.back().first + out.back().second, at) << "unordered or unmerged";
    }
    out.emplace_back(at, b->len);
  }
  return out;
}

class SimpleAllocator : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(QM_SA_init(&sa, 0), 0); }
  void TearDown() override { EXPECT_EQ(QM_SA_destroy(&sa), 0); }
  void reset(size_t min_chunk) {
    ASSERT_EQ(QM_SA_destroy(&sa), 0);
    ASSERT_EQ(QM_SA_init(&sa, min_chunk), 0);
  }
  char* chunk() { return reinterpret_cast<char*>(sa.chunk_list); }
  // A fresh chunk holding pieces of the given sizes (the first on top) and a
  // filler that uses up the rest exactly; returns the pieces, filler last.
  std::vector<char*> fill_chunk(const std::vector<size_t>& sizes) {
    reset(0);
    std::vector<char*> p;
    for (size_t len : sizes) p.push_back(static_cast<char*>(QM_SA_alloc(&sa, len)));
    p.push_back(static_cast<char*>(QM_SA_alloc(&sa, free_blocks(sa).at(0).second - bh)));
    EXPECT_EQ(p.back(), chunk() + ch + bh);
    EXPECT_EQ(sa.free_list, nullptr);
    return p;
  }
  QM_SA_simple_allocator_t sa;
};

TEST_F(SimpleAllocator, ArgumentsAndCuttingFromTheHighEnd) {
  EXPECT_EQ(sa.min_chunk_size, ps);
  reset(ps + 1);
  EXPECT_EQ(sa.min_chunk_size, 2 * ps);
  EXPECT_EQ(QM_SA_init(nullptr, 0), -1);
  EXPECT_EQ(QM_SA_alloc(&sa, 0), nullptr);
  EXPECT_EQ(QM_SA_alloc(nullptr, 8), nullptr);
  EXPECT_EQ(sa.chunk_list, nullptr);  // a refused request maps nothing
  EXPECT_EQ(QM_SA_dealloc(nullptr, nullptr), 0);
  EXPECT_EQ(QM_SA_dealloc(nullptr, &sa), -1);
  EXPECT_EQ(QM_SA_destroy(nullptr), -1);

  reset(0);
  char* p = static_cast<char*>(QM_SA_alloc(&sa, 100));
  EXPECT_EQ(sa.chunk_list->len, ps);
  EXPECT_EQ(p, chunk() + ps - need(100) + bh);  // the chunk's last need(100) bytes
  EXPECT_EQ(block_len(p), need(100));
  auto fb = free_blocks(sa);
  ASSERT_EQ(fb.size(), 1u);
  EXPECT_TRUE(fb[0].first == chunk() + ch && fb[0].second == ps - ch - need(100));
  EXPECT_EQ(static_cast<char*>(QM_SA_alloc(&sa, 1)), p - need(1));  // right below
}

TEST_F(SimpleAllocator, ExactFitBeatsWorstFitAndTiesGoLow) {
  struct Case {
    std::vector<size_t> sizes;
    std::vector<int> freed;  // never neighbours
    size_t request;
    int from;    // the piece whose block must serve the request
    bool whole;  // handed out whole rather than cut from its top
  };
  const size_t w = 64 - bh;  // need(w) == 64 on both word sizes
  const Case cases[] = {
      {{200, 16, 200, 16}, {0, 2}, 40, 2, false},  // equal largest blocks: the lower one
      {{16, 16, 200, 16}, {0, 2}, 16, 0, true},    // exact fit beats the larger block
      {{16, 64, 16}, {1}, w, 1, true},             // rest of only a header: whole block
      {{16, 64, 16}, {1}, w - align, 1, false},    // one word more: split
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.request);
    std::vector<char*> p = fill_chunk(k.sizes);
    for (int i : k.freed) QM_SA_dealloc(&sa, p[i]);
    char* got = static_cast<char*>(QM_SA_alloc(&sa, k.request));
    char* top = p[k.from] - bh + need(k.sizes[k.from]);
    EXPECT_EQ(got - bh + block_len(got), top);
    EXPECT_EQ(block_len(got), k.whole ? need(k.sizes[k.from]) : need(k.request));
    EXPECT_EQ(free_blocks(sa).size(), k.freed.size() - k.whole);
  }
}

TEST_F(SimpleAllocator, CoalescesInAnyOrder) {
  const int perms[6][3] = {{1, 2, 3}, {1, 3, 2}, {2, 1, 3}, {2, 3, 1}, {3, 1, 2}, {3, 2, 1}};
  for (const auto& perm : perms) {
    SCOPED_TRACE(perm[0] * 100 + perm[1] * 10 + perm[2]);
    std::vector<char*> p = fill_chunk({60, 60, 60, 60});
    for (int i : perm) free_blocks(sa), QM_SA_dealloc(&sa, p[i]);  // checked after each step
    auto fb = free_blocks(sa);
    ASSERT_EQ(fb.size(), 1u);
    EXPECT_TRUE(fb[0].first == p[3] - bh && fb[0].second == 3 * need(60));
    QM_SA_dealloc(&sa, p[4]);  // the low filler, below the head: absorbs it
    QM_SA_dealloc(&sa, p[0]);  // the top piece
    fb = free_blocks(sa);
    ASSERT_EQ(fb.size(), 1u);
    EXPECT_TRUE(fb[0].first == chunk() + ch && fb[0].second == ps - ch);
  }
}

TEST_F(SimpleAllocator, ChunkSizes) {
  const size_t big_chunk = QM_pagesize_ceil(need(3 * ps) + ch);
  char* big = static_cast<char*>(QM_SA_alloc(&sa, 3 * ps));
  EXPECT_EQ(sa.chunk_list->len, big_chunk);
  EXPECT_EQ(big + 3 * ps, chunk() + big_chunk);
  // A need that fills a page exactly with the chunk header takes one page.
  ASSERT_NE(QM_SA_alloc(&sa, ps - ch - bh), nullptr);
  EXPECT_EQ(sa.chunk_list->len, ps);
  ASSERT_NE(sa.chunk_list->link, nullptr);  // the newest chunk is at the head
  EXPECT_EQ(sa.chunk_list->link->len, big_chunk);
  reset(3 * ps);  // a larger minimum applies to small requests too
  ASSERT_NE(QM_SA_alloc(&sa, 8), nullptr);
  EXPECT_EQ(sa.chunk_list->len, 3 * ps);
}

TEST_F(SimpleAllocator, RandomRunAgainstLivePieceMap) {
  std::mt19937 rng(12345);
  std::map<char*, std::pair<size_t, unsigned char>> live;  // length, fill byte
  size_t chunks = 0;
  // Every chunk is tiled exactly by free and live blocks: nothing outside a
  // chunk, no overlap, no gap.
  auto check_tiling = [&] {
    std::map<char*, size_t> used;
    for (auto& fb : free_blocks(sa)) used[fb.first] += fb.second;
    for (auto& [p, pc] : live) used[p - bh] += block_len(p);
    chunks = 0;
    for (QM_SA_chunk_t* c = sa.chunk_list; c != nullptr; c = c->link, ++chunks) {
      char *at = reinterpret_cast<char*>(c) + ch, *end = reinterpret_cast<char*>(c) + c->len;
      for (auto it = used.find(at); it != used.end(); it = used.find(at)) {
        at += it->second;
        used.erase(it);
      }
      ASSERT_EQ(at, end) << "gap or overlap inside a chunk";
    }
    EXPECT_TRUE(used.empty());
  };
  for (int step = 0; step < 20000; ++step) {
    if (live.empty() || rng() % 100 < 55) {
      size_t len = rng() % 50 == 0 ? 1 + rng() % (3 * ps) : 1 + rng() % 300;
      char* p = static_cast<char*>(QM_SA_alloc(&sa, len));
      ASSERT_NE(p, nullptr);
      ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % align, 0u);
      unsigned char fill = static_cast<unsigned char>(rng());
      memset(p, fill, len);
      live[p] = {len, fill};
    } else {
      auto it = std::next(live.begin(), static_cast<long>(rng() % live.size()));
      for (size_t i = 0; i < it->second.first; ++i)
        ASSERT_EQ(static_cast<unsigned char>(it->first[i]), it->second.second) << "piece clobbered";
      ASSERT_EQ(QM_SA_dealloc(&sa, it->first), 0);
      live.erase(it);
    }
    if (step % 200 == 0) check_tiling();
  }
  for (auto& [p, pc] : live) QM_SA_dealloc(&sa, p);
  live.clear();
  check_tiling();  // everything freed: each chunk is one free block
  EXPECT_EQ(free_blocks(sa).size(), chunks);
  EXPECT_GT(chunks, 1u);
}

}  // namespace
