// The agent's one backtrace table, its lock, and capture of the caller's
// call stack into it.
#pragma once
#include "backtrace/backtrace_table.h"
#include "threads/thread_utils.h"

extern "C" {

extern stack_backtrace_table_t QM_HEAP_backtrace_table;
extern QM_pthread_mutex_t QM_HEAP_backtrace_table_mutex;
extern volatile int QM_HEAP_backtrace_depth;
extern volatile int QM_HEAP_backtrace_initial_trim;

int QM_HEAP_backtrace_init();
void QM_HEAP_backtrace_table_lock();
void QM_HEAP_backtrace_table_unlock();
void QM_HEAP_backtrace_atfork_prepare();
void QM_HEAP_backtrace_atfork_parent();
void QM_HEAP_backtrace_atfork_child();
void QM_HEAP_backtrace_atfork_post_common();
int QM_HEAP_backtrace_table_iterate(int need_to_lock, stack_backtrace_table_iter_func_t f, void* arg);
int QM_HEAP_debug_dump_backtrace(int id);
void QM_HEAP_debug_dump_backtrace_table();
void QM_HEAP_debug_calc_backtrace_table_stats();

int QM_HEAP_backtrace_get_depth();
int QM_HEAP_backtrace_set_depth(int v);
int QM_HEAP_backtrace_get_trim();
int QM_HEAP_backtrace_set_trim(int v);

// Captures the calling operation's stack and stores it: its identifier, or
// 0 when capture is off, unsafe, or finds no frame beyond the trim. The
// default trim drops exactly the agent's frames between an exported heap
// function and here, so every caller must keep that shape: exported
// function -> interposer -> operation body -> this (none inlined, none a
// tail call).
backtrace_id_t QM_HEAP_backtrace_table_insert();

// The frames between an exported heap function's caller and the capture.
constexpr int QM_HEAP_agent_frames = 5;

// The frame of the exported heap function that the current operation came
// through, set by that function (built with frame pointers) for its
// operation body; null elsewhere.
extern __thread const void* QM_HEAP_op_caller_frame __attribute__((tls_model("initial-exec")));

// QM_HEAP_backtrace_table_insert for an operation body, called in its place:
// while the trim drops exactly the agent's frames, the walk starts at the
// exported function's caller instead of climbing through them.
backtrace_id_t QM_HEAP_backtrace_table_insert_for_op(const void* frame);

// The raw capture: 0 when capture is not safe now, else what the C
// library's backtrace gives at this place (by the fast walk when it can).
int QM_STACK_get_backtrace(void** pcs, int vector_length);
int QM_STACK_is_get_backtrace_safe();
}
