// Stack walking at the cost of a table probe per frame.
//
// The C library's backtrace reads and interprets the unwind tables for every
// frame of every walk. The rule that takes a frame to its caller (where the
// canonical frame address is, where the return address and the frame pointer
// were saved) depends only on the return address, and stays the same while
// its library stays loaded; so it is derived once from the same tables and
// kept in a step cache keyed by return address. A library unload empties it.
// A frame whose rule does not fit the cache's forms (signal frames, unusual
// expressions, code without unwind tables) makes the walk give up, and the
// caller falls back to backtrace: the result is always what backtrace gives.
// The program's stack is only read, never rewritten.
#pragma once
#include <stdint.h>

extern "C" {

// Fills pcs with the return addresses from this function's caller outward,
// exactly as backtrace(pcs, size) called at the same place would, and
// returns their number; -1 when some frame needs the full unwinder (pcs[0]
// is then still the caller's return address). Safe in any thread, in a
// forked child and in a signal handler: it takes no lock and waits for none.
int QM_STACK_fast_backtrace(void** pcs, int size);

// The same walk from the caller of a function whose frame pointer is frame
// (the function saved its caller's at frame[0], below its return address):
// what backtrace would give from that function's caller outward.
int QM_STACK_fast_backtrace_above(const void* frame, void** pcs, int size);

// 1 when the fast walk may be used: the object lookup it needs exists and
// QMHEAP_NO_FAST_UNWIND is not set.
int QM_STACK_fast_unwind_available();

// Fork handlers, called with the FDE cache's.
void QM_STACK_unwind_steps_atfork_prepare();
void QM_STACK_unwind_steps_atfork_post();

// Counted rarely (a hit is not counted: the walk stays free of shared writes).
typedef struct qm_unwind_step_stats_t {
  long misses;
  long fallbacks;
  long invalidations;
} qm_unwind_step_stats_t;
void QM_STACK_unwind_steps_get_stats(qm_unwind_step_stats_t* stats);
}
