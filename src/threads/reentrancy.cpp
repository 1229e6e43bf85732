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

struct thread_counter_t {
  QM_pthread_t tid;
  int counter;
  void* info;
  int next;  // in-use list, or free list; 0 ends a list
  int prev;  // in-use list only
};
#if defined(__i386__)
static_assert(sizeof(thread_counter_t) == 20, "reentrancy entry is five words on i386");
#endif

struct reentrancy_table_t {
  QM_pthread_mutex_t mutex;
  void* region;
  size_t region_size;
  thread_counter_t* counters;
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
  if (r->region != nullptr) {
    for (int i = 0; i < r->num_counters; ++i) counters[i] = r->counters[i];
    if (QM_page_dealloc(r->region) != 0)
      QM_assert(0, "problem releasing old memory for reentrancy table\n(%s.%d)\n",
                "../arch/generic/enter_ia_multi_threaded.c", __LINE__);
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
  e->next = 0;
  e->prev = r->tail;
  if (r->tail != 0)
    r->counters[r->tail].next = i;
  else
    r->head = i;
  r->tail = i;
  return i;
}

int find_reentrancy_entry(reentrancy_table_t* r, QM_pthread_t self) {
  for (int i = r->head; i != 0; i = r->counters[i].next)
    if (QM_pthread_equal(r->counters[i].tid, self)) return i;
  return 0;
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
  e->prev = 0;
  e->next = r->free;
  r->free = i;
}

}  // namespace

extern "C" {

int QM_enter_ia(void** info) {
  int count;
  if (use_simple_counter()) {
    count = ++simple_counter;
    if (count == 1)
      simple_info = info != nullptr ? *info : nullptr;
    else if (info != nullptr)
      *info = simple_info;
    return count;
  }
  reentrancy_table_t* r = &thread_counters;
  QM_pthread_t self = QM_pthread_self();
  lock("QM_enter_ia");
  int i = find_reentrancy_entry(r, self);
  if (i == 0) i = insert_reentrancy_entry(r, self);
  thread_counter_t* e = &r->counters[i];
  count = ++e->counter;
  // The info is the owning thread's alone, but it is set under the lock all
  // the same: another thread may be copying the table to a larger region.
  if (count == 1)
    e->info = info != nullptr ? *info : nullptr;
  else if (info != nullptr)
    *info = e->info;
  unlock("QM_enter_ia");
  return count;
}

int QM_leave_ia() {
  if (use_simple_counter()) return --simple_counter;
  reentrancy_table_t* r = &thread_counters;
  QM_pthread_t self = QM_pthread_self();
  lock("QM_leave_ia");
  int i = find_reentrancy_entry(r, self);
  if (i == 0)
    QM_assert(0,
              "Error in QM_leave_ia: find_reentrancy_entry returned 0, which implies there is no "
              "entry for the entry.  (%s.%d) (pid == %d) (tid == %ld) (is_multi == %d)\n",
              "../arch/generic/enter_ia_multi_threaded.c", __LINE__, static_cast<int>(getpid()),
              static_cast<long>(self), QM_thread_is_multi_threaded());
  thread_counter_t* e = &r->counters[i];
  int count;
  if (e->counter == 1) {
    remove_reentrancy_entry(r, i);
    count = 0;
  } else if (e->counter > 1) {
    count = --e->counter;
  } else {
    count = e->counter;
    QM_assert(0, "Error in QM_leave_ia: counter for this thread is less than 1 (%d) (" QM_RE_FILE ")\n",
              count);
  }
  unlock("QM_leave_ia");
  return count;
}

int QM_get_num_times_entered_ia() {
  if (use_simple_counter()) return simple_counter;
  reentrancy_table_t* r = &thread_counters;
  QM_pthread_t self = QM_pthread_self();
  lock("QM_has_thread_reentered_ia");
  int i = find_reentrancy_entry(r, self);
  int count = i != 0 ? r->counters[i].counter : 0;
  unlock("QM_has_thread_reentered_ia");
  return count;
}

int QM_has_thread_reentered_ia() { return QM_get_num_times_entered_ia() > 1 ? 1 : 0; }

int QM_get_reentry_info(void** p) {
  if (use_simple_counter()) {
    if (simple_counter < 1) return -1;
    *p = simple_info;
    return 0;
  }
  reentrancy_table_t* r = &thread_counters;
  QM_pthread_t self = QM_pthread_self();
  lock("QM_get_reentry_info");
  int i = find_reentrancy_entry(r, self);
  if (i != 0) *p = r->counters[i].info;
  unlock("QM_get_reentry_info");
  return i != 0 ? 0 : -ENOENT;
}

int QM_thread_switch_to_multi_threaded_reentrancy() {
  if (simple_counter > 0) {
    reentrancy_table_t* r = &thread_counters;
    QM_pthread_t self = QM_pthread_self();
    lock("QM_thread_switch_to_multi_threaded_reentrancy");
    int i = find_reentrancy_entry(r, self);
    if (i == 0) i = insert_reentrancy_entry(r, self);
    r->counters[i].counter += simple_counter;
    r->counters[i].info = simple_info;
    simple_counter = 0;
    simple_info = nullptr;
    unlock("QM_thread_switch_to_multi_threaded_reentrancy");
  }
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
void QM_thread_enter_ia_atfork_child() { unlock("enter_ia_post_fork_handler"); }

}  // extern "C"
