// Symbols that exist so that a debugger can find, read or stop in them.
#include "base/assert.h"

#pragma GCC diagnostic ignored "-Wformat-zero-length"
#include "base/export.h"
#include "heap/heap_tables.h"
#include "qmheap/heap_types.h"
#include "threads/reentrancy.h"

extern "C" {

// Start-up calls this first, so that a debugger can stop as the agent begins.
QM_EXPORT QM_NOINLINE void QM_HEAP_on_init() { __asm__ volatile(""); }
// Its presence tells a debugger that the interposers are in the process.
QM_EXPORT QM_NOINLINE void QM_HEAP_malloc_interposers_c_marker_function() { __asm__ volatile(""); }

// A place for a breakpoint reached only on nested entry; the assertion's
// condition is always true, so it never halts.
QM_EXPORT QM_NOINLINE void ANB_check_num_times_entered() {
  static constexpr const char kEmpty[] = "";
  if (QM_get_num_times_entered_ia() != 1) QM_assert(1, kEmpty);
}

// Lookups for a debugger that has stopped the process: no lock is taken (a
// stopped thread may hold it); the record found is copied where the debugger
// reads it.
QM_EXPORT constinit allocation_record_t QM_HEAP_debug_allocation_record = {};
QM_EXPORT constinit allocation_record_t QM_HEAP_debug_deallocation_record = {};

QM_EXPORT QM_NOINLINE int QM_HEAP_debug_lookup_allocation_table(void* p) {
  return QM_HEAP_lookup_allocation_record(p, &QM_HEAP_debug_allocation_record, non_exact) != nullptr;
}

QM_EXPORT QM_NOINLINE int QM_HEAP_debug_lookup_deallocation_table(void* p) {
  return QM_HEAP_lookup_deallocation_record(p, &QM_HEAP_debug_deallocation_record, non_exact) != nullptr;
}

QM_EXPORT constinit void* QM_HEAP_debug_search_addr = nullptr;
QM_EXPORT constinit volatile int QM_HEAP_zero = 0;
QM_EXPORT constinit volatile int QM_HEAP_volatile_int = 0;

// Keep the three enumeration types in the debugging information.
constinit QM_HEAP_alloc_flags_e QM_HEAP_alloc_flags_var = af_op_in_progress;
constinit QM_HEAP_event_e QM_HEAP_event_e_var = qm_heap_event_none;
QM_EXPORT constinit QM_HEAP_heap_op_e QM_HEAP_heap_op_e_var = qm_heap_op_nop;
constinit volatile int QM_HEAP_symbol_table_hacks_var = 0;

QM_HEAP_alloc_flags_e QM_HEAP_alloc_flags_func() { return QM_HEAP_alloc_flags_var; }
QM_HEAP_event_e QM_HEAP_event_e_func() { return QM_HEAP_event_e_var; }
QM_HEAP_heap_op_e QM_HEAP_heap_op_e_func() { return QM_HEAP_heap_op_e_var; }

// Nothing calls it; it keeps the three variables referenced.
[[gnu::used]] void QM_HEAP_do_symbol_table_hacks() {
  QM_HEAP_symbol_table_hacks_var = QM_HEAP_alloc_flags_var;
  QM_HEAP_symbol_table_hacks_var = QM_HEAP_event_e_var;
  QM_HEAP_symbol_table_hacks_var = QM_HEAP_heap_op_e_var;
}

}  // extern "C"
