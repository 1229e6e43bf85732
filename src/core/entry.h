// Per-call records of the entry protocol, and the pieces of it that start-up
// shares with the interposers.
#pragma once
#include "core/owners.h"
#include "qmheap/heap_types.h"

extern "C" {

typedef struct reentry_info_t {
  int allow_reentry;
  int want_cleanup_handler;
} reentry_info_t;

typedef struct caller_state_info_t {
  int is_multi_threaded;
  int old_cancelstate;
  int old_canceltype;
} caller_state_info_t;

typedef struct op_body_arg_t {
  QM_HEAP_heap_op_e op;
  owner_t* owner;
  reentry_info_t* rp;
  int num_times_entered;
  caller_state_info_t caller_info;
  // The family of the call (QM_HEAP_alloc_kind_e bits; 0 for the C
  // functions): a new block is recorded with it, a released one must have
  // it. A sized delete names the block's length (SIZE_MAX: none); an
  // aligned new or delete its alignment.
  int kind;
  size_t sized_len;
  size_t alignment;
} op_body_arg_t;

// First entry: local gets allow_reentry 0 and wants a cancellation clean-up
// once the load hook has completed; nested entry: local copies the outermost
// call's record (to which op_arg->rp then points).
void setup_reentry_info(op_body_arg_t* op_arg, reentry_info_t* local);
void interposer_entry_setup_caller_state(caller_state_info_t* caller);
// Counts the operation out of its owner's gate, restores the cancellation
// state and leaves the agent: exactly once per outermost call (its argument
// is the call's op_body_arg_t), also when a cancellation unwinds through it.
void interposer_finish_cleanup_handler(void* op_arg);
}

// The same, inline for the interposers' hot path.
#include "core/binding.h"
#include "threads/reentrancy.h"
#include "threads/thread_utils.h"
namespace qm {
inline void setup_reentry_info(op_body_arg_t* op_arg, reentry_info_t* local) {
  if (op_arg->num_times_entered == 1) {
    local->allow_reentry = 0;
    local->want_cleanup_handler = QM_IA_has_ia_initializer_completed() != 0;
  } else {
    *local = *op_arg->rp;
  }
}
// Cancellation disabled and deferred: no request, however its signal is
// timed, can act while the agent holds a lock or has a block in progress.
inline void setup_caller_state(caller_state_info_t* caller) {
  caller->is_multi_threaded = QM_IA_has_ia_initializer_started() && is_multi_threaded();
  if (caller->is_multi_threaded) {
    QM_thread_disable_cancel(&caller->old_cancelstate);
    QM_thread_defer_cancel(&caller->old_canceltype);
  }
}
// The caller's own cancellation state, type last: an asynchronous request
// made meanwhile acts there, when the thread is out of the agent.
inline void restore_caller_cancellation(const caller_state_info_t* caller) {
  if (!caller->is_multi_threaded) return;
  QM_thread_restore_cancelstate(caller->old_cancelstate);
  QM_thread_restore_canceltype(caller->old_canceltype);
}
inline void disable_cancellation_again() {
  int ignored;
  QM_thread_defer_cancel(&ignored);
  QM_thread_disable_cancel(&ignored);
}
// The end of an outermost call: out of the gate and the agent first, while
// cancellation is still off, so that no cancellation can leave either
// counting the thread.
inline void finish_outermost(op_body_arg_t* a) {
  c_owner_t* c = reinterpret_cast<c_owner_t*>(a->owner);
  c->funcs->finish_op(c);
  QM_leave_ia();
  restore_caller_cancellation(&a->caller_info);
}
}  // namespace qm
