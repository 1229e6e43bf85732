// The agent's backtrace table and the capture into it.
#include "backtrace/backtrace_heap.h"

#include <execinfo.h>

#include "backtrace/fast_unwind.h"
#include "base/export.h"
#include "base/format.h"
#include "core/binding.h"

extern "C" {

QM_EXPORT constinit stack_backtrace_table_t QM_HEAP_backtrace_table = {};
constinit QM_pthread_mutex_t QM_HEAP_backtrace_table_mutex = PTHREAD_MUTEX_INITIALIZER;
QM_EXPORT constinit volatile int QM_HEAP_backtrace_depth = 32;
QM_EXPORT constinit volatile int QM_HEAP_backtrace_initial_trim = QM_HEAP_agent_frames;
constinit __thread const void* QM_HEAP_op_caller_frame __attribute__((tls_model("initial-exec"))) = nullptr;

}  // extern "C"

namespace {

// The capture buffer lives on the stack of whatever thread allocates, which
// may be small: depth and trim together are held to this many frames.
constexpr int kMaxFrames = 1024;

constinit int capture_known_safe = 0;
constinit const void* debug_pcs[64] = {};

}  // namespace

extern "C" {

int QM_HEAP_backtrace_init() {
  QM_STACK_init();
  QM_STACK_init_backtrace_table(&QM_HEAP_backtrace_table);
  return 0;
}

void QM_HEAP_backtrace_table_lock() { qm::mutex_lock_spinning(&QM_HEAP_backtrace_table_mutex); }
void QM_HEAP_backtrace_table_unlock() { qm::mutex_unlock(&QM_HEAP_backtrace_table_mutex); }
void QM_HEAP_backtrace_atfork_prepare() { QM_HEAP_backtrace_table_lock(); }
void QM_HEAP_backtrace_atfork_post_common() { QM_HEAP_backtrace_table_unlock(); }
void QM_HEAP_backtrace_atfork_parent() { QM_HEAP_backtrace_atfork_post_common(); }
void QM_HEAP_backtrace_atfork_child() { QM_HEAP_backtrace_atfork_post_common(); }

// With need_to_lock the walk ends by calling the lock function a second
// time, not the unlock function: the agent has always done so, and its own
// caller passes 0 and holds the lock itself.
int QM_HEAP_backtrace_table_iterate(int need_to_lock, stack_backtrace_table_iter_func_t f, void* arg) {
  if (need_to_lock) QM_HEAP_backtrace_table_lock();
  int r = QM_STACK_table_iterate(&QM_HEAP_backtrace_table, f, arg);
  if (need_to_lock) QM_HEAP_backtrace_table_lock();
  return r;
}

QM_EXPORT int QM_HEAP_debug_dump_backtrace(int id) {
  int n = QM_STACK_lookup_backtrace(&QM_HEAP_backtrace_table, id, debug_pcs, 64);
  if (n < 0) {
    QM_s_printf(2, "error getting backtrace %d\n", id);
    return n;
  }
  QM_s_printf(2, "dumpings %d pcs for backtrace\n", n);
  for (int i = 0; i < n; ++i) QM_s_printf(2, "%3d %p\n", i, debug_pcs[i]);
  return n;
}

QM_EXPORT void QM_HEAP_debug_dump_backtrace_table() {
  QM_s_printf(2, "===============\n");
  QM_STACK_dump_table(&QM_HEAP_backtrace_table);
  QM_s_printf(2, "===============\n");
}

void QM_HEAP_debug_calc_backtrace_table_stats() {}

int QM_HEAP_backtrace_get_depth() { return QM_HEAP_backtrace_depth; }
int QM_HEAP_backtrace_set_depth(int v) {
  int old = QM_HEAP_backtrace_depth;
  QM_HEAP_backtrace_depth = v;
  return old;
}
int QM_HEAP_backtrace_get_trim() { return QM_HEAP_backtrace_initial_trim; }
int QM_HEAP_backtrace_set_trim(int v) {
  int old = QM_HEAP_backtrace_initial_trim;
  QM_HEAP_backtrace_initial_trim = v;
  return old;
}

// backtrace may load the unwinder and allocate, so not while the C library
// is still setting itself up.
int QM_STACK_is_get_backtrace_safe() {
  if (capture_known_safe) return 1;
  if (QM_IA_has_ia_initializer_started()) {
    capture_known_safe = 1;
    return 1;
  }
  if (!QM_IA_has_dl_tls_setup_started()) return 1;
  return QM_IA_is_libc_malloc_pthread_startup_full_init_done() ? 1 : 0;
}

// Both walks are made from this one frame, and the first address (the
// return address into this function) is always the fast walk's, so that a
// stack gets the same counters whichever walk served it.
__attribute__((noinline)) int QM_STACK_get_backtrace(void** pcs, int vector_length) {
  if (!QM_STACK_is_get_backtrace_safe() || vector_length <= 0) return 0;
  if (QM_STACK_fast_unwind_available()) {
    int n = QM_STACK_fast_backtrace(pcs, vector_length);
    if (n >= 0) return n;
    void* first = pcs[0];
    n = backtrace(pcs, vector_length);
    if (n > 0) pcs[0] = first;
    return n;
  }
  int n = backtrace(pcs, vector_length);
  __asm__ volatile("" ::: "memory");  // not a tail call: this frame is counted
  return n;
}

}  // extern "C"

namespace {

backtrace_id_t insert(void** pcs, int n) {
  QM_HEAP_backtrace_table_lock();
  backtrace_id_t id = QM_STACK_insert_backtrace(&QM_HEAP_backtrace_table, const_cast<const void**>(pcs), n);
  QM_HEAP_backtrace_table_unlock();
  return id;
}

// Melts into both callers below, so that each is one frame of the shape the
// trim counts.
__attribute__((always_inline)) inline backtrace_id_t capture_and_insert() {
  int depth = QM_HEAP_backtrace_depth;
  int trim = QM_HEAP_backtrace_initial_trim;
  if (depth < 1) return 0;
  if (trim < 0) trim = 0;
  if (trim >= kMaxFrames) return 0;
  int len = depth > kMaxFrames - trim ? kMaxFrames : depth + trim;
  void* pcs[len];
  int n = QM_STACK_get_backtrace(pcs, len);
  if (n <= trim) return 0;
  return insert(pcs + trim, n - trim);
}

}  // namespace

extern "C" {

__attribute__((noinline)) backtrace_id_t QM_HEAP_backtrace_table_insert() { return capture_and_insert(); }

// The agent's own frames are the same at every operation: climbing through
// them is a quarter of the walk on a typical stack and most of it on a
// shallow one. The frames from the caller outward are those the whole walk
// would give after them.
__attribute__((noinline)) backtrace_id_t QM_HEAP_backtrace_table_insert_for_op(const void* frame) {
  int depth = QM_HEAP_backtrace_depth;
  if (frame != nullptr && depth >= 1 && QM_HEAP_backtrace_initial_trim == QM_HEAP_agent_frames &&
      QM_STACK_is_get_backtrace_safe() && QM_STACK_fast_unwind_available()) {
    int len = depth > kMaxFrames - QM_HEAP_agent_frames ? kMaxFrames - QM_HEAP_agent_frames : depth;
    void* pcs[len];
    int n = QM_STACK_fast_backtrace_above(frame, pcs, len);
    if (n == 0) return 0;
    if (n > 0) return insert(pcs, n);
  }
  return capture_and_insert();
}

}  // extern "C"
