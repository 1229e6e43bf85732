// Per-thread count of how deep a thread is inside the agent. A count above 1
// means the call came from the agent itself (or from the real allocator or a
// library the agent called) and must bypass the bookkeeping.
//
// While the process has one thread a plain counter is used; from the moment
// it is multi-threaded (and the agent is initialised) a per-thread table
// under a mutex takes over for good, carrying a call in progress across.
#pragma once

extern "C" {
// Counts the calling thread in and returns its new depth. At depth 1 *info is
// stored as the thread's info; deeper, the stored info is written to *info.
int QM_enter_ia(void** info);
// Counts the calling thread out; returns its new depth.
int QM_leave_ia();
// Called by QM_leave_ia as a thread leaves the agent, while set: work a
// signal handler could not do inside it.
extern void (*volatile QM_leave_ia_hook)();
int QM_get_num_times_entered_ia();
int QM_has_thread_reentered_ia();
// The info of the thread's outermost entry: 0, or -ENOENT (table) / -1 (simple)
// when the thread is not inside the agent.
int QM_get_reentry_info(void** p);
int QM_thread_switch_to_multi_threaded_reentrancy();
int QM_thread_enter_ia_initializer();
void QM_thread_enter_ia_atfork_prepare();
void QM_thread_enter_ia_atfork_parent();
void QM_thread_enter_ia_atfork_child();
}
