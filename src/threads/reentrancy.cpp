#include "threads/reentrancy.h"

#include <errno.h>
#include <stddef.h>
#include <unistd.h>

#include "base/assert.h"
#include "base/export.h"
#include "base/memory_manager.h"
#include "base/page.h"
#include "threads/thread_utils.h"

extern "C" int QM_IA_has_ia_initializer_completed();

namespace {

#define QM_RE_FILE "../arch/generic/enter_ia_multi_threaded"

// The calling thread's own count lives in thread-local storage (initial-exec:
// a fixed offset from the thread pointer, no call, no lock), and every
// decision is taken from it. Threads that a library's constructor starts
// before the agent's load hook, and threads that a forked child creates on
// the stacks of its parent's threads, each begin at zero there.
//
// The table below is the process-wide picture of the same counts: each
// thread that enters the agent once it is multi-threaded gets an entry (under
// the table's mutex, once), writes its count and info there itself on every
// entry and exit (no lock: only the owner writes its entry), and gives the
// entry back when it ends (a thread-specific-data destructor) or, in a forked
// child, when the child drops the threads it does not have.
struct ThreadState {
  int count;
  void* info;
  int index;  // this thread's entry in the table, 0 for none
  int keyed;  // the exit destructor is armed
};
constinit __thread ThreadState self_state __attribute__((tls_model("initial-exec"))) = {0, nullptr, 0, 0};

struct thread_counter_t {
  QM_pthread_t tid;
  volatile int counter;
  void* volatile info;
  int next;  // in-use list, or free list; 0 ends a list
  int prev;  // in-use list only
}
#if defined(__x86_64__)
// One entry a cache line: each thread writes its own entry on every call,
// and neighbours must not share the line.
__attribute__((aligned(64)))
#endif
;
#if defined(__i386__)
static_assert(sizeof(thread_counter_t) == 20, "reentrancy entry is five words on i386");
#endif

struct reentrancy_table_t {
  QM_pthread_mutex_t mutex;
  void* region;
  size_t region_size;
  thread_counter_t* volatile counters;
  int num_counters;
  int head;
  int tail;
  int free;
};

constinit int simple_counter = 0;
constinit void* simple_info = nullptr;
constinit volatile int using_multi_threaded_counter = 0;
constinit int initialized = 0;
constinit reentrancy_table_t thread_counters = {PTHREAD_MUTEX_INITIALIZER, nullptr, 0, nullptr,
                                                0, 0, 0, 0};
constinit pthread_key_t exit_key = 0;
constinit int exit_key_made = 0;

void lock(const char* fn) {
  if (qm::mutex_lock(&thread_counters.mutex) != 0)
    QM_assert(0, "Error locking reentrancy table mutex in %s (" QM_RE_FILE ")\n", fn);
}

void unlock(const char* fn) {
  if (qm::mutex_unlock(&thread_counters.mutex) != 0)
    QM_assert(0, "Error unlocking reentrancy table mutex in %s (" QM_RE_FILE ")\n", fn);
}

bool use_simple_counter() {
  if (QM_LIKELY(using_multi_threaded_counter)) return false;
  // The cheap test first: while the process has one thread nothing else matters.
  if (!qm::is_multi_threaded()) return true;
  if (QM_IA_has_ia_initializer_completed() && QM_thread_has_initializer_completed())
    QM_thread_switch_to_multi_threaded_reentrancy();
  return !using_multi_threaded_counter;
}

// A larger copy of the table. The old copy stays mapped: a thread may be
// writing its count into it at this moment, and finds the new copy on its
// next call.
void grow_reentrancy_table(reentrancy_table_t* r) {
  QM_assert(r->region == r->counters,
            "Error in grow_reentrancy_table: r->region and r->counters disagree (" QM_RE_FILE ")\n");
  size_t new_size = r->region_size + QM_getpagesize();
  int new_count = static_cast<int>(new_size / sizeof(thread_counter_t));
  void* region = QM_page_alloc(new_size, mmt_threads_reentrancy_table);
  QM_assert(region != nullptr,
            "Error in grow_reentrancy_table: unable to get space of newregion (" QM_RE_FILE ")\n");
  auto* counters = static_cast<thread_counter_t*>(region);
  int first = r->num_counters > 0 ? r->num_counters : 1;  // index 0 means "none"
  for (int i = first; i < new_count; ++i) counters[i].next = i + 1 < new_count ? i + 1 : r->free;
  if (r->region != nullptr)
    for (int i = 0; i < r->num_counters; ++i) {
      thread_counter_t& d = counters[i];
      const thread_counter_t& s = r->counters[i];
      d.tid = s.tid;
      d.counter = s.counter;
      d.info = s.info;
      d.next = s.next;
      d.prev = s.prev;
    }
  r->free = first < new_count ? first : r->free;
  r->region = region;
  r->counters = counters;
  r->region_size = new_size;
  r->num_counters = new_count;
}

int insert_reentrancy_entry(reentrancy_table_t* r, QM_pthread_t self) {
  if (r->free == 0) grow_reentrancy_table(r);
  int i = r->free;
  thread_counter_t* e = &r->counters[i];
  r->free = e->next;
  e->tid = self;
  e->counter = 0;
  e->info = nullptr;
  e->next = 0;
  e->prev = r->tail;
  if (r->tail != 0)
    r->counters[r->tail].next = i;
  else
    r->head = i;
  r->tail = i;
  return i;
}

void remove_reentrancy_entry(reentrancy_table_t* r, int i) {
  thread_counter_t* e = &r->counters[i];
  if (e->prev != 0)
    r->counters[e->prev].next = e->next;
  else
    r->head = e->next;
  if (e->next != 0)
    r->counters[e->next].prev = e->prev;
  else
    r->tail = e->prev;
  e->counter = 0;
  e->info = nullptr;
  e->prev = 0;
  e->next = r->free;
  r->free = i;
}

// Runs as the thread ends (after its own clean-up): its entry goes back.
void drop_entry_at_thread_exit(void*) {
  ThreadState& t = self_state;
  if (t.index == 0) return;
  lock("QM_leave_ia");
  remove_reentrancy_entry(&thread_counters, t.index);
  unlock("QM_leave_ia");
  t.index = 0;
  t.keyed = 0;
}

// Gives the calling thread its entry (the table's mutex is not held).
void register_self(ThreadState& t, const char* fn) {
  QM_pthread_t self = QM_pthread_self();
  lock(fn);
  if (!exit_key_made) exit_key_made = QM_thread_key_create(&exit_key, drop_entry_at_thread_exit) == 0 ? 1 : -1;
  t.index = insert_reentrancy_entry(&thread_counters, self);
  unlock(fn);
  if (exit_key_made == 1 && !t.keyed) t.keyed = QM_thread_setspecific(exit_key, &self_state) == 0;
}

// Writes the thread's count where the table shows it.
inline void publish(ThreadState& t, const char* fn) {
  if (QM_UNLIKELY(use_simple_counter())) {
    simple_counter = t.count;
    simple_info = t.count > 0 ? t.info : nullptr;
    return;
  }
  if (QM_UNLIKELY(t.index == 0)) register_self(t, fn);
  thread_counter_t* e = &thread_counters.counters[t.index];
  e->counter = t.count;
  e->info = t.info;
}

}  // namespace

extern "C" {

void (*volatile QM_leave_ia_hook)() = nullptr;

int QM_enter_ia(void** info) {
  ThreadState& t = self_state;
  int count = ++t.count;
  if (count == 1)
    t.info = info != nullptr ? *info : nullptr;
  else if (info != nullptr)
    *info = t.info;
  publish(t, "QM_enter_ia");
  return count;
}

int QM_leave_ia() {
  ThreadState& t = self_state;
  if (QM_UNLIKELY(t.count < 1) && using_multi_threaded_counter) {
    QM_pthread_t self = QM_pthread_self();
    QM_assert(0,
              "Error in QM_leave_ia: find_reentrancy_entry returned 0, which implies there is no "
              "entry for the entry.  (%s.%d) (pid == %d) (tid == %ld) (is_multi == %d)\n",
              "../arch/generic/enter_ia_multi_threaded.c", __LINE__, static_cast<int>(getpid()),
              static_cast<long>(self), QM_thread_is_multi_threaded());
  }
  int count = --t.count;
  if (count == 0) t.info = nullptr;
  publish(t, "QM_leave_ia");
  if (QM_UNLIKELY(count == 0) && QM_UNLIKELY(QM_leave_ia_hook != nullptr)) QM_leave_ia_hook();
  return count;
}

int QM_get_num_times_entered_ia() { return self_state.count; }

int QM_has_thread_reentered_ia() { return QM_get_num_times_entered_ia() > 1 ? 1 : 0; }

int QM_get_reentry_info(void** p) {
  const ThreadState& t = self_state;
  if (t.count < 1) return use_simple_counter() ? -1 : -ENOENT;
  *p = t.info;
  return 0;
}

int QM_thread_switch_to_multi_threaded_reentrancy() {
  ThreadState& t = self_state;
  if (t.count > 0 && t.index == 0) register_self(t, "QM_thread_switch_to_multi_threaded_reentrancy");
  if (t.index != 0) {
    thread_counter_t* e = &thread_counters.counters[t.index];
    e->counter = t.count;
    e->info = t.info;
  }
  simple_counter = 0;
  simple_info = nullptr;
  using_multi_threaded_counter = 1;
  return 0;
}

int QM_thread_enter_ia_initializer() {
  QM_assert(!initialized, "QM_thread_enter_ia_initializer called more than once (" QM_RE_FILE ")\n");
  initialized = 1;
  return 1;
}

void QM_thread_enter_ia_atfork_prepare() { lock("enter_ia_pre_fork_handler"); }
void QM_thread_enter_ia_atfork_parent() { unlock("enter_ia_post_fork_handler"); }

// The child has only the forking thread: the entries of the others go back
// (their threads' stacks, and so their thread handles, are reused there).
void QM_thread_enter_ia_atfork_child() {
  reentrancy_table_t* r = &thread_counters;
  const int mine = self_state.index;
  for (int i = r->head; i != 0;) {
    int next = r->counters[i].next;
    if (i != mine) remove_reentrancy_entry(r, i);
    i = next;
  }
  unlock("enter_ia_post_fork_handler");
}

}  // extern "C"
