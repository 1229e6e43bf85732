// Micro benchmarks of the per-operation pieces: the heap tables, reentrancy
// counting and the formatter. Run with build/x86_64/bench/qmheap_micro.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include <execinfo.h>
#include <string.h>

#include "backtrace/backtrace_heap.h"
#include "backtrace/fast_unwind.h"
#include "backtrace/fde_cache.h"
#include "base/format.h"
#include "heap/guards.h"
#include "heap/heap_tables.h"
#include "threads/reentrancy.h"

// The unwinder in libgcc_s finds FDEs through its PLT: this program's own
// definition (exported with -rdynamic) routes it through the agent's cache,
// as the preloaded agent does; with caching off it forwards at once.
extern "C" const void* _Unwind_Find_FDE(void* pc, qm_anb_dwarf_eh_bases_t* bases) {
  return QM_STACK_fde_cache_find(pc, bases);
}

namespace {

// Stack capture at a depth of about 40 frames (the recursion below plus the
// harness's own), reported per captured frame. Three ways: the C library's
// backtrace with the unwinder's own FDE lookup, the same through the FDE
// cache, and the step-cached walk.
enum CaptureWay { kBacktrace, kBacktraceFdeCache, kFastWalk };

__attribute__((noinline)) int capture(int way, void** pcs, int n) {
  int r = way == kFastWalk ? QM_STACK_fast_backtrace(pcs, n) : backtrace(pcs, n);
  __asm__ volatile("" ::: "memory");
  return r;
}

__attribute__((noinline)) int recurse(int depth, int way, void** pcs, int n) {
  int r = depth == 0 ? capture(way, pcs, n) : recurse(depth - 1, way, pcs, n);
  __asm__ volatile("" ::: "memory");
  return r;
}

void BM_CapturePerFrame(benchmark::State& state) {
  const int way = static_cast<int>(state.range(0));
  void* warm[4];
  backtrace(warm, 4);  // the cache decides on caching at its first lookup
  QM_STACK_fde_cache_caching = way == kBacktraceFdeCache;
  QM_STACK_fast_unwind_available();
  void* pcs[256];
  long frames = 0;
  for (auto _ : state) {
    int n = recurse(30, way, pcs, 256);
    if (n < 0) state.SkipWithError("the fast walk gave up");
    frames += n;
  }
  state.SetItemsProcessed(frames);
  state.SetLabel(way == kBacktrace ? "backtrace" : way == kBacktraceFdeCache ? "backtrace + FDE cache" : "step-cached walk");
}
BENCHMARK(BM_CapturePerFrame)->Arg(kBacktrace)->Arg(kBacktraceFdeCache)->Arg(kFastWalk);

void* addr(size_t i) { return reinterpret_cast<void*>(uintptr_t{0x40000000} + i * 64); }

// A table holding n live blocks; each iteration frees one at random and
// allocates it again, the table work of one free and one malloc.
void BM_AllocationTableChurn(benchmark::State& state) {
  QM_HEAP_init_heap_tables();
  const size_t n = static_cast<size_t>(state.range(0));
  for (size_t i = 0; i < n; ++i) {
    allocation_record_t r = {};
    r.addr = addr(i);
    r.len = 48;
    QM_HEAP_insert_allocation_record(&r);
  }
  std::mt19937 rng(1);
  for (auto _ : state) {
    size_t i = rng() % n;
    allocation_record_t r;
    benchmark::DoNotOptimize(QM_HEAP_lookup_allocation_record(addr(i), &r, non_exact));
    QM_HEAP_remove_allocation_record(addr(i));
    QM_HEAP_insert_allocation_record(&r);
  }
  for (size_t i = 0; i < n; ++i) QM_HEAP_remove_allocation_record(addr(i));
}
BENCHMARK(BM_AllocationTableChurn)->Arg(1 << 10)->Arg(1 << 14)->Arg(1 << 18);

void BM_ReentrancyEnterLeave(benchmark::State& state) {
  for (auto _ : state) {
    void* info = &state;
    benchmark::DoNotOptimize(QM_enter_ia(&info));
    QM_leave_ia();
  }
}
BENCHMARK(BM_ReentrancyEnterLeave);

void BM_FormatEventLine(benchmark::State& state) {
  char buf[256];
  for (auto _ : state)
    benchmark::DoNotOptimize(QM_s_snprintf(buf, sizeof buf, "%0#*p--%0#*p  %*ld [%0#lx]\n", 10, buf, 10, buf + 40, 11,
                                           40L, 40UL));
}
BENCHMARK(BM_FormatEventLine);

}  // namespace

// Guards and painting, in bytes per second, next to what the C library's
// memset and memcmp do with the same bytes. A block of the given payload
// length with default 16-byte guards on both sides: fill both, check both.
void BM_GuardFillAndCheck(benchmark::State& state) {
  const size_t guard = static_cast<size_t>(state.range(0));
  guard_settings_t g = {static_cast<guard_size_t>(guard), 0x77777777u, static_cast<guard_size_t>(guard), 0x99999999u};
  std::vector<uint8_t> buf(2 * guard + 64);
  uint8_t* payload = buf.data() + guard;
  for (auto _ : state) {
    QM_HEAP_guard_fill_guards(gfm_both, payload, 64, &g);
    benchmark::DoNotOptimize(QM_HEAP_guard_check_guards(payload, 64, &g));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 * 2 * static_cast<int64_t>(guard));
}
BENCHMARK(BM_GuardFillAndCheck)->Arg(16)->Arg(256)->Arg(4096);

void BM_GuardMemsetMemcmp(benchmark::State& state) {
  const size_t guard = static_cast<size_t>(state.range(0));
  std::vector<uint8_t> buf(2 * guard + 64), ref(guard, 0x77);
  for (auto _ : state) {
    memset(buf.data(), 0x77, guard);
    memset(buf.data() + guard + 64, 0x77, guard);
    benchmark::DoNotOptimize(memcmp(buf.data(), ref.data(), guard) | memcmp(buf.data() + guard + 64, ref.data(), guard));
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * 2 * 2 * static_cast<int64_t>(guard));
}
BENCHMARK(BM_GuardMemsetMemcmp)->Arg(16)->Arg(256)->Arg(4096);

void BM_Paint(benchmark::State& state) {
  const size_t len = static_cast<size_t>(state.range(0));
  std::vector<uint8_t> buf(len + 8);
  for (auto _ : state) {
    QM_HEAP_paint_block(buf.data() + 3, static_cast<int>(0xa110ca7fu), len);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(len));
}
BENCHMARK(BM_Paint)->Arg(24)->Arg(256)->Arg(65536);

void BM_Memset(benchmark::State& state) {
  const size_t len = static_cast<size_t>(state.range(0));
  std::vector<uint8_t> buf(len + 8);
  for (auto _ : state) {
    memset(buf.data() + 3, 0xa1, len);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(len));
}
BENCHMARK(BM_Memset)->Arg(24)->Arg(256)->Arg(65536);

BENCHMARK_MAIN();
