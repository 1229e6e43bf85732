// Symbols that exist so that a debugger can find, read or stop in them.
#include "base/assert.h"

#pragma GCC diagnostic ignored "-Wformat-zero-length"
#include "base/export.h"
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

QM_EXPORT constinit void* QM_HEAP_debug_search_addr = nullptr;
QM_EXPORT constinit volatile int QM_HEAP_zero = 0;
QM_EXPORT constinit volatile int QM_HEAP_volatile_int = 0;

// Keep the three enumeration types in the debugging information.
constinit QM_HEAP_event_e QM_HEAP_event_e_var = qm_heap_event_none;
QM_EXPORT constinit QM_HEAP_heap_op_e QM_HEAP_heap_op_e_var = qm_heap_op_nop;
constinit volatile int QM_HEAP_symbol_table_hacks_var = 0;

QM_HEAP_event_e QM_HEAP_event_e_func() { return QM_HEAP_event_e_var; }
QM_HEAP_heap_op_e QM_HEAP_heap_op_e_func() { return QM_HEAP_heap_op_e_var; }

}  // extern "C"
