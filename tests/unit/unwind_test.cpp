// Stack capture: the step-cached walk against the C library's backtrace on
// random call chains of differently shaped frames (frame pointer set up by
// alloca, large frames, deep recursion), from several threads, across cache
// invalidations; and the FDE cache against a stand-in for the unwinder's
// own lookup: answers (null ones too) kept, eviction, unloads.
#include "backtrace/fast_unwind.h"
#include "backtrace/fde_cache.h"

#include <alloca.h>
#include <execinfo.h>
#include <gtest/gtest.h>
#include <stdint.h>

#include <atomic>
#include <random>
#include <set>
#include <thread>
#include <vector>

namespace {

// ---- the walk ------------------------------------------------------------

struct Capture {
  std::vector<void*> fast, slow;
  int fast_n = 0, slow_n = 0;
};

__attribute__((noinline)) void capture_both(Capture* c, int size) {
  c->fast.assign(size, nullptr);
  c->slow.assign(size, nullptr);
  c->fast_n = QM_STACK_fast_backtrace(c->fast.data(), size);
  c->slow_n = backtrace(c->slow.data(), size);
  __asm__ volatile("" ::: "memory");
}

struct Chain {
  const std::vector<int>* steps;
  size_t at;
  Capture* out;
  int size;
};

using Step = void (*)(Chain*);
extern Step kSteps[];
constexpr int kNumSteps = 5;

__attribute__((noinline)) void next(Chain* c) {
  if (c->at == c->steps->size()) {
    capture_both(c->out, c->size);
    return;
  }
  kSteps[(*c->steps)[c->at++]](c);
  __asm__ volatile("" ::: "memory");
}

__attribute__((noinline)) void plain(Chain* c) {
  volatile int x = 1;
  next(c);
  x = x + 1;
}

__attribute__((noinline)) void with_alloca(Chain* c) {
  volatile char* p = static_cast<char*>(alloca(16 + c->at * 8));
  p[0] = 1;
  next(c);
  p[1] = p[0];
}

__attribute__((noinline)) void large_frame(Chain* c) {
  volatile char buf[70000];
  buf[c->at] = 1;
  next(c);
  buf[1] = buf[c->at];
}

__attribute__((noinline)) void many_registers(Chain* c) {
  volatile uint64_t a = c->at, b = a * 3, d = b ^ 7, e = d + a, f = e * b;
  next(c);
  a = a + b + d + e + f;
}

__attribute__((noinline)) void through_lambda(Chain* c) {
  auto f = [c]() __attribute__((noinline)) { next(c); };
  f();
  __asm__ volatile("" ::: "memory");
}

Step kSteps[kNumSteps] = {plain, with_alloca, large_frame, many_registers, through_lambda};

void expect_same(const Capture& c, const char* what) {
  ASSERT_GE(c.fast_n, 0) << what << ": the fast walk gave up";
  ASSERT_EQ(c.fast_n, c.slow_n) << what;
  // Frame 0 is the return address of each call: they differ by design.
  for (int i = 1; i < c.fast_n; ++i) ASSERT_EQ(c.fast[i], c.slow[i]) << what << " frame " << i;
}

void random_chains(unsigned seed, int rounds) {
  std::mt19937 rng(seed);
  for (int r = 0; r < rounds; ++r) {
    std::vector<int> steps(rng() % 40);
    for (int& s : steps) s = static_cast<int>(rng() % kNumSteps);
    int size = r % 5 == 0 ? 1 + static_cast<int>(rng() % 8) : 128;
    Capture cap;
    Chain c{&steps, 0, &cap, size};
    next(&c);
    expect_same(cap, "random chain");
    if (::testing::Test::HasFatalFailure()) return;
  }
}

TEST(FastUnwind, GivesBacktracesFramesOnRandomChains) {
  ASSERT_EQ(QM_STACK_fast_unwind_available(), 1);
  random_chains(1, 300);
  qm_unwind_step_stats_t s;
  QM_STACK_unwind_steps_get_stats(&s);
  EXPECT_EQ(s.fallbacks, 0);
  EXPECT_GT(s.misses, 0);
}

TEST(FastUnwind, DeepRecursionAndTruncation) {
  std::vector<int> steps(3000, 0);
  for (size_t i = 0; i < steps.size(); i += 7) steps[i] = 3;
  Capture cap;
  Chain c{&steps, 0, &cap, 2500};
  next(&c);
  expect_same(cap, "deep");
  EXPECT_EQ(cap.fast_n, 2500);
}

TEST(FastUnwind, ThreadsAndInvalidationsDoNotChangeTheFrames) {
  std::atomic<bool> done{false};
  std::thread invalidator([&] {
    while (!done.load()) {
      QM_STACK_unwind_steps_invalidate(1);
      std::this_thread::yield();
      QM_STACK_unwind_steps_invalidate(0);
    }
  });
  std::vector<std::thread> ts;
  for (unsigned i = 0; i < 3; ++i) ts.emplace_back([i] { random_chains(100 + i, 150); });
  for (auto& t : ts) t.join();
  done = true;
  invalidator.join();
}

// ---- the FDE cache ---------------------------------------------------------

std::atomic<int> real_calls{0};
std::atomic<int> dlclose_calls{0};

// Even pcs have an FDE (pc + 1) and bases derived from the pc; odd pcs none.
const void* fake_find(void* pc, qm_anb_dwarf_eh_bases_t* bases) {
  real_calls++;
  uintptr_t v = reinterpret_cast<uintptr_t>(pc);
  if (v & 1) return nullptr;
  bases->tbase = reinterpret_cast<void*>(v + 10);
  bases->dbase = reinterpret_cast<void*>(v + 20);
  bases->func = reinterpret_cast<void*>(v + 30);
  return reinterpret_cast<void*>(v + 1);
}

void* P(uintptr_t v) { return reinterpret_cast<void*>(v); }

int fake_dlclose(void*) {
  dlclose_calls++;
  // While a library is being unloaded the cache is out of use.
  int before = real_calls;
  qm_anb_dwarf_eh_bases_t b;
  QM_STACK_fde_cache_find(P(0x1000), &b);
  QM_STACK_fde_cache_find(P(0x1000), &b);
  EXPECT_EQ(real_calls, before + 2);
  EXPECT_EQ(QM_STACK_fde_cache_debug_is_in(P(0x1000)), 0);
  return 0;
}

int count_cached() {
  int n = 0;
  QM_STACK_fde_cache_iterate([](void*, int*, void* a) { return ++*static_cast<int*>(a), 0; }, &n);
  return n;
}

class FdeCache : public ::testing::Test {
 protected:
  void SetUp() override {
    QM_STACK_fde_cache_set_real_functions(fake_find, fake_dlclose);
    QM_STACK_fde_cache_reset();
    real_calls = 0;
  }
  void TearDown() override { QM_STACK_fde_cache_reset(); }
};

TEST_F(FdeCache, AnswersAreKeptNullOnesToo) {
  qm_anb_dwarf_eh_bases_t b = {};
  EXPECT_EQ(QM_STACK_fde_cache_find(P(0x2000), &b), P(0x2001));
  EXPECT_EQ(real_calls, 1);
  b = {};
  EXPECT_EQ(QM_STACK_fde_cache_find(P(0x2000), &b), P(0x2001));
  EXPECT_EQ(real_calls, 1);
  EXPECT_EQ(b.tbase, P(0x200a));
  EXPECT_EQ(b.dbase, P(0x2014));
  EXPECT_EQ(b.func, P(0x201e));
  EXPECT_EQ(QM_STACK_fde_cache_find(P(0x2001), &b), nullptr);
  EXPECT_EQ(QM_STACK_fde_cache_find(P(0x2001), &b), nullptr);
  EXPECT_EQ(real_calls, 2);
  EXPECT_EQ(QM_STACK_fde_cache_debug_is_in(P(0x2001)), 1);
  fde_cache_stats_t s;
  QM_STACK_fde_cache_get_stats(&s);
  EXPECT_EQ(s.num_hits, 2);
  EXPECT_EQ(s.hit_positions[0], 2);
}

TEST_F(FdeCache, FullCacheEvictsAndStaysBounded) {
  EXPECT_EQ(QM_STACK_fde_cache_get_num_nodes(), 512);
  EXPECT_EQ(QM_STACK_fde_cache_get_num_chains(), 31);
  qm_anb_dwarf_eh_bases_t b;
  const int n = 2000;
  for (int i = 0; i < n; ++i) QM_STACK_fde_cache_find(P(0x10000 + 2 * i), &b);
  EXPECT_EQ(real_calls, n);
  int cached = count_cached();
  EXPECT_GE(cached, 512);  // every node that fits the region is used
  EXPECT_LT(cached, n);
  // The most recent pcs are still there, the oldest were evicted.
  EXPECT_EQ(QM_STACK_fde_cache_debug_is_in(P(0x10000 + 2 * (n - 1))), 1);
  EXPECT_EQ(QM_STACK_fde_cache_debug_is_in(P(0x10000)), 0);
  // Whatever is cached answers exactly as the real function.
  for (int i = 0; i < n; ++i) {
    qm_anb_dwarf_eh_bases_t c = {};
    ASSERT_EQ(QM_STACK_fde_cache_find(P(0x10000 + 2 * i), &c), P(0x10001 + 2 * i));
    ASSERT_EQ(c.func, P(0x10000 + 2 * i + 30));
  }
}

TEST_F(FdeCache, AnUnloadEmptiesTheCache) {
  qm_anb_dwarf_eh_bases_t b;
  for (int i = 0; i < 100; ++i) QM_STACK_fde_cache_find(P(0x4000 + 2 * i), &b);
  EXPECT_EQ(count_cached(), 100);
  EXPECT_EQ(QM_STACK_fde_cache_dlclose(nullptr), 0);
  EXPECT_EQ(dlclose_calls, 1);
  EXPECT_EQ(count_cached(), 0);
  int before = real_calls;
  QM_STACK_fde_cache_find(P(0x4000), &b);
  QM_STACK_fde_cache_find(P(0x4000), &b);
  EXPECT_EQ(real_calls, before + 1);  // in use again, refilled
  // Released nodes are used again before fresh ones.
  for (int i = 0; i < 600; ++i) QM_STACK_fde_cache_find(P(0x8000 + 2 * i), &b);
  EXPECT_GE(count_cached(), 512);
}

}  // namespace
