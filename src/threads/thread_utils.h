// Thread utilities: the threads library bound at run time, fork-handler chains
// and cancellation helpers.
//
// Mutexes and condition variables are the C library's own types, statically
// zero-initialised, so they are usable before anything has been bound. While
// the process has one thread (or before binding) lock, unlock, wait and
// signal do nothing. "Multi-threaded" is latched: once the process has had a
// second thread it stays multi-threaded for the agent, also in a forked
// child, so a lock taken for real is always released for real.
#pragma once
#include <pthread.h>

extern "C" {

typedef pthread_mutex_t QM_pthread_mutex_t;
typedef pthread_cond_t QM_pthread_cond_t;
typedef pthread_t QM_pthread_t;

int QM_pthread_mutex_lock(QM_pthread_mutex_t* m);
int QM_pthread_mutex_unlock(QM_pthread_mutex_t* m);
int QM_pthread_cond_wait(QM_pthread_cond_t* c, QM_pthread_mutex_t* m);
int QM_pthread_cond_signal(QM_pthread_cond_t* c);
int QM_pthread_cond_broadcast(QM_pthread_cond_t* c);
QM_pthread_t QM_pthread_self();
int QM_pthread_equal(QM_pthread_t a, QM_pthread_t b);
int QM_pthread_setcancelstate(int state, int* oldstate);

// 1 once the process has (had) more than one thread; 0 before binding.
int QM_thread_is_multi_threaded();
// Binds the threads library; idempotent, safe from the first heap call on.
void QM_thread_bind_library();
// Binds, registers the agent's base fork handlers; runs once (later calls return 0).
int QM_thread_utils_initializer();
int QM_thread_has_initializer_completed();

// Thread-specific data with a destructor run as a thread ends (the C
// library's keys: no heap for the first keys of a process). -1 when unbound.
int QM_thread_key_create(pthread_key_t* key, void (*destructor)(void*));
int QM_thread_setspecific(pthread_key_t key, const void* value);

// Cancellation: disable for the duration of an operation, then restore.
int QM_thread_disable_cancel(int* old_cancelstate);
int QM_thread_restore_cancelstate(int old_cancelstate);
// The cancellation type, deferred inside the agent as well: the C library
// (2.36) acts on an asynchronous request whose signal arrives after the
// thread disabled cancellation, unless the type is deferred by then.
int QM_thread_defer_cancel(int* old_canceltype);
int QM_thread_restore_canceltype(int old_canceltype);

// The threads library as bound at run time; read by the inline fast paths below.
typedef struct QM_thread_functions_t {
  int (*mutex_lock)(pthread_mutex_t*);
  int (*mutex_unlock)(pthread_mutex_t*);
  int (*mutex_trylock)(pthread_mutex_t*);
  int (*cond_wait)(pthread_cond_t*, pthread_mutex_t*);
  int (*cond_signal)(pthread_cond_t*);
  int (*cond_broadcast)(pthread_cond_t*);
  pthread_t (*self)(void);
  int (*equal)(pthread_t, pthread_t);
  int (*setcancelstate)(int, int*);
  int (*setcanceltype)(int, int*);
  int (*register_atfork)(void (*)(void), void (*)(void), void (*)(void), void*);
  int (*key_create)(pthread_key_t*, void (*)(void*));
  int (*setspecific)(pthread_key_t, const void*);
} QM_thread_functions_t;

typedef struct QM_thread_state_t {
  volatile int multi_latched;        // once 1, stays 1
  const char* single_threaded_flag;  // the C library's __libc_single_threaded, if any
  int bound;
  QM_thread_functions_t fns;
} QM_thread_state_t;

extern QM_thread_state_t QM_thread_state;

// A condition variable with a waiter count and a finished flag, hung on a
// block's record while threads wait for an operation on it. Taken from agent
// pages and recycled; never from the watched heap.
typedef struct QM_cond_waiters_t {
  int num_waiters;
  int finished;
  QM_pthread_cond_t cond;
  struct QM_cond_waiters_t* next_free;
} QM_cond_waiters_t;

// A fresh object (no waiters, not finished), or null when no page could be had.
QM_cond_waiters_t* QM_thread_new_cond_waiters_t();
int QM_thread_delete_cond_waiters_t(QM_cond_waiters_t* w);

// Thread-cancellation clean-up around an operation (the C library's own
// mechanism: it also runs when a cancellation unwinds through the frame).
#define QM_thread_cleanup_push(routine, arg) pthread_cleanup_push(routine, arg)
#define QM_thread_cleanup_pop(execute) pthread_cleanup_pop(execute)

// A link of the fork-handler chain. Prepare handlers run last-registered
// first; parent and child handlers first-registered first, so that locks are
// released in the reverse of the order in which they were taken.
typedef enum QM_pthread_fork_handler_state_e {
  fhs_unregistered = 0,
  fhs_active = 1,
  fhs_avoid_trailing_comma_misery
} QM_pthread_fork_handler_state_e;

typedef struct QM_thread_atfork_handlers_t {
  void (*prepare)(void);
  void (*parent)(void);
  void (*child)(void);
  QM_pthread_fork_handler_state_e state;
  int error_number;
  struct QM_thread_atfork_handlers_t* next;
  struct QM_thread_atfork_handlers_t* prev;
} QM_thread_atfork_handlers_t;

// Appends h to the chain; 0, or -1 for a null record or one already chained.
int QM_thread_atfork_register_handlers(QM_thread_atfork_handlers_t* h);

// Appends h to the outer chain, whose prepare handlers all run before the
// chain's and whose parent and child handlers all run after them, whenever
// either was registered. For locks that a thread may hold while a signal
// handler on it enters the heap agent (the unwinder's caches): a fork must
// own them before it takes the agent's locks, never the other way round.
int QM_thread_atfork_register_outer_handlers(QM_thread_atfork_handlers_t* h);

// The C library's __register_atfork, reached after the agent's own handlers
// have been registered with it (so that they run last in prepare and first in
// parent and child, whoever registers before or after).
int QM_thread_register_atfork_forward(void (*prepare)(void), void (*parent)(void),
                                      void (*child)(void), void* dso_handle);
}

// Fast paths for the per-operation code: no call while the process has one
// thread.
namespace qm {
inline int is_multi_threaded() {
  if (__builtin_expect(QM_thread_state.multi_latched, 1)) return 1;
  const char* f = QM_thread_state.single_threaded_flag;
  if (f != nullptr && *f) return 0;
  return QM_thread_is_multi_threaded();
}
inline int mutex_lock(QM_pthread_mutex_t* m) {
  return is_multi_threaded() && QM_thread_state.bound ? QM_thread_state.fns.mutex_lock(m) : 0;
}
// For a lock held briefly but taken on every heap call by every thread:
// spin on it for a while (reading, not writing, the lock word) before
// sleeping in the kernel, where a waiter and its wake-up cost more than the
// critical section itself.
inline int mutex_lock_spinning(QM_pthread_mutex_t* m) {
  if (!is_multi_threaded() || !QM_thread_state.bound) return 0;
  if (QM_thread_state.fns.mutex_trylock != nullptr) {
    for (int i = 0; i < 4000; ++i) {
      if (__atomic_load_n(&m->__data.__lock, __ATOMIC_RELAXED) == 0 &&
          QM_thread_state.fns.mutex_trylock(m) == 0)
        return 0;
      __builtin_ia32_pause();
    }
  }
  return QM_thread_state.fns.mutex_lock(m);
}
// 0 when taken (or when locks do nothing yet), else nonzero: for callers
// that must never wait, such as code a signal handler may reach.
inline int mutex_trylock(QM_pthread_mutex_t* m) {
  if (!is_multi_threaded() || !QM_thread_state.bound) return 0;
  return QM_thread_state.fns.mutex_trylock != nullptr ? QM_thread_state.fns.mutex_trylock(m) : 1;
}
inline int mutex_unlock(QM_pthread_mutex_t* m) {
  return is_multi_threaded() && QM_thread_state.bound ? QM_thread_state.fns.mutex_unlock(m) : 0;
}
// A lock tried for a while (about a thousand yields), never waited for: for
// a fault handler, and for a debugger's call into a stopped process, where
// the holder may be stopped for good. True when taken.
bool mutex_try_for_a_while(QM_pthread_mutex_t* m);
}  // namespace qm
