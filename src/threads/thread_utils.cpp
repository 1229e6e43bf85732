#include "threads/thread_utils.h"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/assert.h"
#include "base/export.h"
#include "base/memory_manager.h"
#include "base/page.h"
#include "threads/reentrancy.h"

extern "C" {
constinit QM_thread_state_t QM_thread_state = {};
}

namespace {

QM_thread_functions_t& fns = QM_thread_state.fns;
int& bound = QM_thread_state.bound;
constinit int initializer_done = 0;

constinit QM_thread_atfork_handlers_t* chain_head = nullptr;
constinit QM_thread_atfork_handlers_t* chain_tail = nullptr;
constinit QM_thread_atfork_handlers_t* outer_head = nullptr;
constinit QM_thread_atfork_handlers_t* outer_tail = nullptr;
constinit int own_handlers_registered = 0;

template <typename F>
void bind(F* slot, const char* name) {
  *slot = reinterpret_cast<F>(dlsym(RTLD_DEFAULT, name));
}

// The agent's single registration with the C library; everything else rides
// on the chain.
void prepare_chain(QM_thread_atfork_handlers_t* tail) {
  for (auto* h = tail; h != nullptr; h = h->prev)
    if (h->state == fhs_active && h->prepare != nullptr) h->prepare();
}
void run_prepare() {
  prepare_chain(outer_tail);
  prepare_chain(chain_tail);
}
void run_parent() {
  QM_thread_atfork_handlers_t* heads[] = {chain_head, outer_head};
  for (auto* head : heads)
    for (auto* h = head; h != nullptr; h = h->next)
      if (h->state == fhs_active && h->parent != nullptr) h->parent();
}
void run_child() {
  QM_thread_atfork_handlers_t* heads[] = {chain_head, outer_head};
  for (auto* head : heads)
    for (auto* h = head; h != nullptr; h = h->next)
      if (h->state == fhs_active && h->child != nullptr) h->child();
}

int append(QM_thread_atfork_handlers_t* h, QM_thread_atfork_handlers_t** head,
           QM_thread_atfork_handlers_t** tail) {
  if (h == nullptr || h->next != nullptr || h->prev != nullptr || h == chain_head || h == outer_head)
    return -1;
  h->prev = *tail;
  if (*tail != nullptr)
    (*tail)->next = h;
  else
    *head = h;
  *tail = h;
  h->error_number = 0;
  return 0;
}

// Names the agent to the C library's handler list (removed only if the agent
// itself were unloaded, which it never is).
constinit char own_dso_handle = 0;

void register_own_handlers() {
  if (own_handlers_registered) return;
  QM_thread_bind_library();
  if (fns.register_atfork == nullptr) return;
  own_handlers_registered = 1;
  fns.register_atfork(run_prepare, run_parent, run_child, &own_dso_handle);
}

// Locks that live below the heap agent, registered first so that prepare
// takes them last: waiter pool, reentrancy table, page memory (the first two
// allocate pages under their locks).
constinit QM_thread_atfork_handlers_t memory_manager_handlers = {
    QM_memory_manager_atfork_prepare, QM_memory_manager_atfork_post,
    QM_memory_manager_atfork_post, fhs_active, 0, nullptr, nullptr};
constinit QM_thread_atfork_handlers_t reentrancy_handlers = {
    QM_thread_enter_ia_atfork_prepare, QM_thread_enter_ia_atfork_parent,
    QM_thread_enter_ia_atfork_child, fhs_active, 0, nullptr, nullptr};

inline bool locking() { return bound && qm::is_multi_threaded(); }

// Condition-waiter objects: a free list over runs of agent pages.
constinit QM_pthread_mutex_t waiters_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit QM_cond_waiters_t* waiters_free = nullptr;

void waiters_atfork_prepare() { qm::mutex_lock(&waiters_mutex); }
void waiters_atfork_post() { qm::mutex_unlock(&waiters_mutex); }

constinit QM_thread_atfork_handlers_t waiters_handlers = {
    waiters_atfork_prepare, waiters_atfork_post, waiters_atfork_post, fhs_active, 0, nullptr, nullptr};

}  // namespace

extern "C" {

void QM_thread_bind_library() {
  if (bound) return;
  bind(&fns.mutex_lock, "pthread_mutex_lock");
  bind(&fns.mutex_unlock, "pthread_mutex_unlock");
  bind(&fns.mutex_trylock, "pthread_mutex_trylock");
  bind(&fns.cond_wait, "pthread_cond_wait");
  bind(&fns.cond_signal, "pthread_cond_signal");
  bind(&fns.cond_broadcast, "pthread_cond_broadcast");
  bind(&fns.self, "pthread_self");
  bind(&fns.equal, "pthread_equal");
  bind(&fns.setcancelstate, "pthread_setcancelstate");
  bind(&fns.setcanceltype, "pthread_setcanceltype");
  bind(&fns.key_create, "pthread_key_create");
  bind(&fns.setspecific, "pthread_setspecific");
  fns.register_atfork = reinterpret_cast<decltype(fns.register_atfork)>(
      dlsym(RTLD_NEXT, "__register_atfork"));
  QM_thread_state.single_threaded_flag =
      static_cast<const char*>(dlsym(RTLD_DEFAULT, "__libc_single_threaded"));
  bound = fns.mutex_lock != nullptr && fns.mutex_unlock != nullptr && fns.self != nullptr &&
          fns.equal != nullptr;
}

int QM_thread_is_multi_threaded() {
  if (QM_LIKELY(QM_thread_state.multi_latched)) return 1;
  // Without the C library's flag (older libraries) assume the worst once bound.
  const char* f = QM_thread_state.single_threaded_flag;
  if (f == nullptr) return bound;
  if (*f) return 0;
  QM_thread_state.multi_latched = 1;
  return 1;
}

int QM_thread_utils_initializer() {
  if (initializer_done) return 0;
  QM_thread_bind_library();
  QM_thread_atfork_register_handlers(&memory_manager_handlers);
  QM_thread_atfork_register_handlers(&reentrancy_handlers);
  QM_thread_atfork_register_handlers(&waiters_handlers);
  register_own_handlers();
  initializer_done = 1;
  return 0;
}

int QM_thread_has_initializer_completed() { return initializer_done; }

int QM_pthread_mutex_lock(QM_pthread_mutex_t* m) { return qm::mutex_lock(m); }
int QM_pthread_mutex_unlock(QM_pthread_mutex_t* m) { return qm::mutex_unlock(m); }
int QM_pthread_cond_wait(QM_pthread_cond_t* c, QM_pthread_mutex_t* m) {
  return locking() && fns.cond_wait != nullptr ? fns.cond_wait(c, m) : 0;
}
int QM_pthread_cond_signal(QM_pthread_cond_t* c) {
  return locking() && fns.cond_signal != nullptr ? fns.cond_signal(c) : 0;
}
int QM_pthread_cond_broadcast(QM_pthread_cond_t* c) {
  return locking() && fns.cond_broadcast != nullptr ? fns.cond_broadcast(c) : 0;
}
QM_pthread_t QM_pthread_self() { return bound ? fns.self() : QM_pthread_t{}; }
int QM_pthread_equal(QM_pthread_t a, QM_pthread_t b) { return bound ? fns.equal(a, b) : a == b; }
int QM_pthread_setcancelstate(int state, int* oldstate) {
  return fns.setcancelstate != nullptr ? fns.setcancelstate(state, oldstate) : 0;
}

int QM_thread_key_create(pthread_key_t* key, void (*destructor)(void*)) {
  return fns.key_create != nullptr ? fns.key_create(key, destructor) : -1;
}
int QM_thread_setspecific(pthread_key_t key, const void* value) {
  return fns.setspecific != nullptr ? fns.setspecific(key, value) : -1;
}

int QM_thread_disable_cancel(int* old_cancelstate) {
  return QM_pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, old_cancelstate);
}

int QM_thread_restore_cancelstate(int old_cancelstate) {
  int ignored;
  return QM_pthread_setcancelstate(old_cancelstate, &ignored);
}

int QM_thread_defer_cancel(int* old_canceltype) {
  return fns.setcanceltype != nullptr ? fns.setcanceltype(PTHREAD_CANCEL_DEFERRED, old_canceltype) : 0;
}

int QM_thread_restore_canceltype(int old_canceltype) {
  int ignored;
  return fns.setcanceltype != nullptr ? fns.setcanceltype(old_canceltype, &ignored) : 0;
}

QM_cond_waiters_t* QM_thread_new_cond_waiters_t() {
  qm::mutex_lock(&waiters_mutex);
  if (waiters_free == nullptr) {
    size_t len = QM_getpagesize();
    auto* run = static_cast<QM_cond_waiters_t*>(QM_page_alloc(len, mmt_threads_cond_waiters_table));
    size_t n = len / sizeof(QM_cond_waiters_t);
    for (size_t i = 0; i < n; ++i) run[i].next_free = i + 1 < n ? &run[i + 1] : nullptr;
    waiters_free = run;
  }
  QM_cond_waiters_t* w = waiters_free;
  waiters_free = w->next_free;
  qm::mutex_unlock(&waiters_mutex);
  w->num_waiters = 0;
  w->finished = 0;
  w->cond = QM_pthread_cond_t{};
  w->next_free = nullptr;
  return w;
}

int QM_thread_delete_cond_waiters_t(QM_cond_waiters_t* w) {
  if (w == nullptr) return -1;
  qm::mutex_lock(&waiters_mutex);
  w->next_free = waiters_free;
  waiters_free = w;
  qm::mutex_unlock(&waiters_mutex);
  return 0;
}

int QM_thread_atfork_register_handlers(QM_thread_atfork_handlers_t* h) {
  return append(h, &chain_head, &chain_tail);
}

int QM_thread_atfork_register_outer_handlers(QM_thread_atfork_handlers_t* h) {
  return append(h, &outer_head, &outer_tail);
}

int QM_thread_register_atfork_forward(void (*prepare)(void), void (*parent)(void),
                                      void (*child)(void), void* dso_handle) {
  register_own_handlers();
  if (fns.register_atfork == nullptr) return 12;  // ENOMEM, as the C library reports failure
  return fns.register_atfork(prepare, parent, child, dso_handle);
}

}  // extern "C"

bool qm::mutex_try_for_a_while(QM_pthread_mutex_t* m) {
  for (int i = 0; i < 1000; ++i) {
    if (mutex_trylock(m) == 0) return true;
    syscall(SYS_sched_yield);
  }
  return false;
}
