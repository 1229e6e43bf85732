// Micro benchmarks of the per-operation pieces: the heap tables, reentrancy
// counting and the formatter. Run with build/x86_64/bench/qmheap_micro.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "base/format.h"
#include "heap/heap_tables.h"
#include "threads/reentrancy.h"

namespace {

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

BENCHMARK_MAIN();
