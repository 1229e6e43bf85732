// Red-zone placement arithmetic in every mode and alignment, the fault
// classification at each edge of each fence, the allocator's table and
// statistics through release, use-after-free keeping and resizes, and the
// signal table's view of the program's actions.
#include "core/binding.h"
#include "core/owners.h"
#include "redzone/rz_allocator.h"
#include "redzone/rz_controls.h"
#include "redzone/signals.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <vector>

namespace {

const size_t kPage = static_cast<size_t>(sysconf(_SC_PAGESIZE));

rz_settings_t mode(bool pre, bool post, bool end_aligned, size_t alignment = 0, size_t fence = 0) {
  rz_settings_t s = {};
  s.alignment = alignment;
  s.fence_size = fence;
  s.want_pre_fence = pre;
  s.want_post_fence = post;
  s.is_end_aligned = end_aligned;
  return s;
}

TEST(RedZonePlacement, PayloadTouchesItsFenceInEveryModeAndAlignment) {
  const size_t lengths[] = {0, 1, 10, 16, 100, 4095, 4096, 4097, 20000};
  const size_t alignments[] = {1, 8, 16, 64, 4096, 8192, 65536};
  const rz_settings_t modes[] = {mode(false, true, true), mode(true, false, false), mode(false, false, false),
                                 mode(false, false, true), mode(true, true, true), mode(true, true, false)};
  for (const rz_settings_t& base : modes)
    for (size_t forced : {size_t{0}, size_t{1}})
      for (size_t a : alignments)
        for (size_t len : lengths) {
          rz_settings_t s = base;
          s.alignment = forced;
          qm::RzPlacement p;
          ASSERT_TRUE(qm::rz_place(len, a, s, kPage, &p));
          SCOPED_TRACE(testing::Message() << "len " << len << " align " << a << " forced " << forced << " pre "
                                          << s.want_pre_fence << " post " << s.want_post_fence << " end "
                                          << s.is_end_aligned);
          const size_t want_a = forced ? 1 : (a > 16 ? a : 16);
          EXPECT_EQ(p.alignment, want_a);
          EXPECT_EQ(p.aligned_len % want_a, 0u);
          EXPECT_GE(p.aligned_len, len);
          EXPECT_LT(p.aligned_len - len, want_a);
          EXPECT_EQ(p.pre_fence, s.want_pre_fence ? kPage : 0u);
          EXPECT_EQ(p.post_fence, s.want_post_fence ? kPage : 0u);
          const size_t data = p.map_len - p.pre_fence - p.post_fence;
          EXPECT_EQ(data % kPage, 0u);
          EXPECT_EQ(data, p.aligned_len == 0 ? kPage : (p.aligned_len + kPage - 1) / kPage * kPage);
          if (s.is_end_aligned)
            EXPECT_EQ(p.payload_offset + p.aligned_len, p.map_len - p.post_fence);
          else
            EXPECT_EQ(p.payload_offset, p.pre_fence);
          // Alignments up to a page come from the mapping's own; above it
          // the slack lets the mapping start where the payload is aligned.
          if (want_a <= kPage) {
            EXPECT_EQ(p.payload_offset % want_a, 0u);
            EXPECT_EQ(p.map_slack, 0u);
          } else {
            EXPECT_EQ(p.map_slack, want_a - kPage);
          }
          EXPECT_EQ(p.flags, (s.want_pre_fence ? rzf_has_pre_fence : 0) | (s.want_post_fence ? rzf_has_post_fence : 0) |
                                 (s.is_end_aligned ? rzf_end_aligned : 0));
        }
}

TEST(RedZonePlacement, FenceSizesAreWholePagesAndOverflowFails) {
  qm::RzPlacement p;
  ASSERT_TRUE(qm::rz_place(10, 16, mode(true, true, true, 0, 1), kPage, &p));
  EXPECT_EQ(p.post_fence, kPage);
  ASSERT_TRUE(qm::rz_place(10, 16, mode(true, true, true, 0, kPage + 1), kPage, &p));
  EXPECT_EQ(p.pre_fence, 2 * kPage);
  EXPECT_EQ(p.map_len, 5 * kPage);
  // A requested alignment that is no power of two gets the next one; a
  // forced one is used as it is.
  ASSERT_TRUE(qm::rz_place(10, 48, mode(false, true, true), kPage, &p));
  EXPECT_EQ(p.alignment, 64u);
  ASSERT_TRUE(qm::rz_place(10, 48, mode(false, true, true, 3), kPage, &p));
  EXPECT_EQ(p.alignment, 3u);
  EXPECT_EQ(p.aligned_len, 12u);
  EXPECT_FALSE(qm::rz_place(SIZE_MAX - 10, 16, mode(false, true, true), kPage, &p));
  EXPECT_FALSE(qm::rz_place(SIZE_MAX - 2 * kPage, 1, mode(true, true, true), kPage, &p));
}

rz_record_t record(rz_state_e state, int flags) {
  rz_record_t r = {};
  r.alloc_addr = reinterpret_cast<void*>(0x100000);
  r.alloc_len = 4 * kPage;
  r.fence_size = kPage;
  r.flags = flags;
  r.state = state;
  return r;
}

TEST(RedZoneFaults, ClassifiedAtEachEdgeOfEachFence) {
  const uintptr_t s = 0x100000, e = s + 4 * kPage, f = kPage;
  const int both = rzf_has_pre_fence | rzf_has_post_fence;
  struct Case {
    rz_state_e state;
    int flags;
    uintptr_t addr;
    QM_HEAP_event_e want;
  } cases[] = {
      {rzs_allocated, both, s, qm_heap_event_rz_underrun},
      {rzs_allocated, both, s + f - 1, qm_heap_event_rz_underrun},
      {rzs_allocated, both, s + f, qm_heap_event_rz_unknown},
      {rzs_allocated, both, e - f - 1, qm_heap_event_rz_unknown},
      {rzs_allocated, both, e - f, qm_heap_event_rz_overrun},
      {rzs_allocated, both, e - 1, qm_heap_event_rz_overrun},
      {rzs_allocated, rzf_has_post_fence, s, qm_heap_event_rz_unknown},
      {rzs_allocated, rzf_has_pre_fence, e - 1, qm_heap_event_rz_unknown},
      {rzs_deallocated, both, s, qm_heap_event_rz_use_after_free_underrun},
      {rzs_deallocated, both, s + f - 1, qm_heap_event_rz_use_after_free_underrun},
      {rzs_deallocated, both, s + f, qm_heap_event_rz_use_after_free},
      {rzs_deallocated, both, e - f - 1, qm_heap_event_rz_use_after_free},
      {rzs_deallocated, both, e - f, qm_heap_event_rz_use_after_free_overrun},
      {rzs_deallocated, both, e - 1, qm_heap_event_rz_use_after_free_overrun},
      {rzs_deallocated, 0, s, qm_heap_event_rz_use_after_free},
      {rzs_deallocated, both, e, qm_heap_event_rz_unknown},
  };
  for (const Case& c : cases)
    EXPECT_EQ(qm::rz_classify(record(c.state, c.flags), c.addr), c.want)
        << "state " << c.state << " flags " << c.flags << " at +" << (c.addr - s);
}

// The controls as they were, put back after each test.
struct RedZoneControls : testing::Test {
  int enabled, mode, alignment, uaf, ranges;
  allocator_t* rz;
  owner_t* owner;
  void SetUp() override {
    ASSERT_EQ(init_malloc_wrappers(), 1);
    QM_HEAP_am_initialize();
    rz = QM_HEAP_rz_allocator_get_instance();
    owner = qm::as_owner(QM_HEAP_c_owner_get_instance());
    enabled = QM_HEAP_rz_enabled;
    mode = QM_HEAP_rz_alloc_mode;
    alignment = QM_HEAP_rz_alignment;
    uaf = QM_HEAP_rz_want_use_after_free;
    ranges = QM_HEAP_rz_size_ranges_enabled;
  }
  void TearDown() override {
    QM_HEAP_rz_enabled = enabled;
    QM_HEAP_rz_alloc_mode = mode;
    QM_HEAP_rz_alignment = alignment;
    QM_HEAP_rz_want_use_after_free = uaf;
    QM_HEAP_rz_size_ranges_enabled = ranges;
  }
};

TEST_F(RedZoneControls, StatisticsFollowBlocksThroughReleaseAndUseAfterFreeKeeping) {
  const rz_stats_t before = QM_HEAP_rz_table.alloc_stats, kept = QM_HEAP_rz_table.dealloc_stats;
  char* p = static_cast<char*>(rz->funcs->malloc(rz, owner, 100));
  ASSERT_NE(p, nullptr);
  memset(p, 1, 100);
  EXPECT_EQ(QM_HEAP_rz_table.alloc_stats.num, before.num + 1);
  EXPECT_EQ(QM_HEAP_rz_table.alloc_stats.payload, before.payload + 100);
  EXPECT_EQ(QM_HEAP_rz_table.alloc_stats.alloc, before.alloc + 2 * kPage);
  EXPECT_EQ(QM_HEAP_rz_table.alloc_stats.fence, before.fence + kPage);
  EXPECT_TRUE(qm::rz_owns_address(p + 50));
  rz->funcs->free(rz, owner, p);
  EXPECT_EQ(QM_HEAP_rz_table.alloc_stats.num, before.num);
  EXPECT_FALSE(qm::rz_owns_address(p + 50));  // unmapped and forgotten

  QM_HEAP_rz_want_use_after_free = 1;
  p = static_cast<char*>(rz->funcs->calloc(rz, owner, 10, 10));
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(p[99], 0);
  rz->funcs->free(rz, owner, p);
  EXPECT_EQ(QM_HEAP_rz_table.dealloc_stats.num, kept.num + 1);
  EXPECT_EQ(QM_HEAP_rz_table.dealloc_stats.payload, kept.payload + 100);
  EXPECT_TRUE(qm::rz_owns_address(p));  // still mapped, inaccessible
  EXPECT_EQ(rz->funcs->calloc(rz, owner, SIZE_MAX / 2, 4), nullptr);
}

TEST_F(RedZoneControls, ResizesMoveWithinTheMappingOrToANewOne) {
  char* p = static_cast<char*>(rz->funcs->malloc(rz, owner, 100));
  for (int i = 0; i < 100; ++i) p[i] = static_cast<char>(i);
  // End aligned: a smaller block moves up against the fence, in place.
  char* q = static_cast<char*>(rz->funcs->realloc(rz, owner, p, 40));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(q) + 48, reinterpret_cast<uintptr_t>(p) + 112);
  for (int i = 0; i < 40; ++i) ASSERT_EQ(q[i], static_cast<char>(i));
  // Larger than the mapping: a new one, the old one gone.
  char* r = static_cast<char*>(rz->funcs->realloc(rz, owner, q, 3 * kPage));
  ASSERT_NE(r, nullptr);
  for (int i = 0; i < 40; ++i) ASSERT_EQ(r[i], static_cast<char>(i));
  EXPECT_FALSE(qm::rz_owns_address(q));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(r + 3 * kPage) % kPage, 0u);
  EXPECT_EQ(rz->funcs->realloc(rz, owner, r, 0), nullptr);
  EXPECT_FALSE(qm::rz_owns_address(r));
  // Start aligned: the payload stays where it is.
  QM_HEAP_rz_alloc_mode = rzam_underrun;
  p = static_cast<char*>(rz->funcs->realloc(rz, owner, nullptr, 100));
  EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % kPage, 0u);
  EXPECT_EQ(rz->funcs->realloc(rz, owner, p, 200), p);
  rz->funcs->free(rz, owner, p);
}

TEST_F(RedZoneControls, ReleasedMappingsServeBlocksOfTheSameShapeZeroedForCalloc) {
  char* p = static_cast<char*>(rz->funcs->malloc(rz, owner, 100));
  memset(p, 7, 100);
  rz->funcs->free(rz, owner, p);
  // Kept oldest first: within as many blocks as are kept, p's mapping
  // comes back, and to a zeroed request it comes zeroed.
  std::vector<void*> got;
  char* q = nullptr;
  for (int i = 0; i < 200 && q == nullptr; ++i) {
    char* c = static_cast<char*>(rz->funcs->calloc(rz, owner, 1, 100));
    got.push_back(c);
    if (c == p) q = c;
  }
  ASSERT_EQ(q, p);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(q[i], 0);
  // Another shape (three data pages) never gets it, nor another mode's.
  char* big = static_cast<char*>(rz->funcs->malloc(rz, owner, 3 * kPage));
  rz->funcs->free(rz, owner, big);
  QM_HEAP_rz_alloc_mode = rzam_underrun;
  for (int i = 0; i < 200; ++i) {
    char* c = static_cast<char*>(rz->funcs->malloc(rz, owner, 3 * kPage));
    ASSERT_NE(c, big);
    got.push_back(c);
  }
  // With use-after-free detection a released block is never reused.
  QM_HEAP_rz_want_use_after_free = 1;
  char* kept = static_cast<char*>(rz->funcs->malloc(rz, owner, 100));
  rz->funcs->free(rz, owner, kept);
  for (int i = 0; i < 200; ++i) {
    char* c = static_cast<char*>(rz->funcs->malloc(rz, owner, 100));
    ASSERT_NE(c, kept);
    got.push_back(c);
  }
  QM_HEAP_rz_want_use_after_free = 0;
  for (void* g : got) rz->funcs->free(rz, owner, g);
}

TEST_F(RedZoneControls, SizeRangesDecideWhichRequestsGetRedZones) {
  QM_HEAP_rz_enabled = 0;
  EXPECT_FALSE(qm::use_rz_allocator(100));
  QM_HEAP_rz_enabled = 1;
  EXPECT_TRUE(qm::use_rz_allocator(100));
  QM_HEAP_rz_size_ranges_enabled = 1;
  QM_HEAP_rz_size_range_t saved[2], r = {0, 50, 100};
  QM_HEAP_rz_size_ranges_set_range(0, &r, &saved[0]);
  r = {0, 1000, 0};
  QM_HEAP_rz_size_ranges_set_range(1, &r, &saved[1]);
  EXPECT_FALSE(qm::use_rz_allocator(60));  // no range active yet
  QM_HEAP_rz_size_ranges_set_range_active(0, 1);
  QM_HEAP_rz_size_ranges_set_range_active(1, 1);
  EXPECT_FALSE(qm::use_rz_allocator(49));
  EXPECT_TRUE(qm::use_rz_allocator(50));
  EXPECT_TRUE(qm::use_rz_allocator(100));
  EXPECT_FALSE(qm::use_rz_allocator(101));
  EXPECT_FALSE(qm::use_rz_allocator(999));
  EXPECT_TRUE(qm::use_rz_allocator(SIZE_MAX));  // an open end
  QM_HEAP_rz_size_ranges_set_range(0, &saved[0], nullptr);
  QM_HEAP_rz_size_ranges_set_range(1, &saved[1], nullptr);
}

void program_handler(int) {}

TEST_F(RedZoneControls, TheProgramSeesItsOwnActionsForAClaimedSignal) {
  hia_sigaction_t mine = {};
  ASSERT_EQ(QM_HEAP_sm_sigaction(SIGSEGV, nullptr, &mine), 0);
  EXPECT_NE(mine.catcher, nullptr);  // claimed with the allocator's first use
  struct sigaction act = {}, old = {}, kernel = {};
  act.sa_handler = program_handler;
  act.sa_flags = SA_NODEFER;
  ASSERT_EQ(QM_HEAP_sigaction_interposer(SIGSEGV, &act, &old), 0);
  ASSERT_EQ(QM_HEAP_sigaction_interposer(SIGSEGV, nullptr, &old), 0);
  EXPECT_EQ(old.sa_handler, program_handler);
  EXPECT_EQ(old.sa_flags, SA_NODEFER);
  // The kernel still runs the agent's handler.
  syscall(SYS_rt_sigaction, SIGSEGV, nullptr, &kernel, 8);
  EXPECT_NE(kernel.sa_handler, program_handler);
  EXPECT_EQ(QM_HEAP_signal_interposer(SIGSEGV, SIG_DFL), program_handler);
  // An unclaimed signal is the kernel's business alone.
  EXPECT_EQ(QM_HEAP_signal_interposer(SIGUSR2, program_handler), SIG_DFL);
  EXPECT_EQ(QM_HEAP_signal_interposer(SIGUSR2, SIG_DFL), program_handler);
  hia_sigaction_t none = {};
  ASSERT_EQ(QM_HEAP_sm_sigaction(SIGUSR2, nullptr, &none), 0);
  EXPECT_EQ(none.catcher, nullptr);
}

}  // namespace
