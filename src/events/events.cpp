#include "events/events.h"

#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "base/assert.h"
#include "base/export.h"
#include "base/format.h"
#include "events/output.h"
#include "threads/thread_utils.h"

extern "C" {

// All zero at load: reporting consumers report everything, action consumers
// do nothing, until configuration or a debugger says otherwise.
constinit volatile int QM_HEAP_event_console_filter_master_switch = 0;
constinit event_filters_t QM_HEAP_event_console_filters = {};
constinit volatile int QM_HEAP_event_filter_master_switch = 0;
constinit event_filters_t QM_HEAP_event_filters = {};
constinit volatile int QM_HEAP_generate_core_master_switch = 0;
constinit event_filters_t QM_HEAP_generate_core_filters = {};
constinit volatile int QM_HEAP_lwmdbg_generate_master_switch = 0;
constinit event_filters_t QM_HEAP_lwmdbg_generate_filters = {};
constinit volatile int QM_HEAP_lwcore_generate_master_switch = 0;
constinit event_filters_t QM_HEAP_lwcore_generate_filters = {};
constinit volatile int QM_HEAP_exit_on_event_master_switch = 0;
constinit event_filters_t QM_HEAP_exit_on_event_filters = {};

QM_EXPORT constinit volatile QM_HEAP_event_info_t QM_HEAP_event = {};
constinit volatile QM_HEAP_event_info_t QM_HEAP_event_core = {};
constinit int QM_HEAP_event_core_is_valid = 0;
extern constinit const int QM_HEAP_core_supported = 1;
extern constinit const int QM_HEAP_lwcore_supported = 1;

extern constinit const event_config_name_mapping_t QM_HEAP_event_config_name_mappings[] = {
#define QM_EVENT(name, event) {name, event},
#include "events/events.inc"
#undef QM_EVENT
    {nullptr, qm_heap_event_none},
};

}  // extern "C"

#if defined(__i386__)
static_assert(sizeof(QM_HEAP_event_info_t) == 43 * 4, "the event record is 43 words on i386");
#endif
static_assert(sizeof(QM_HEAP_event_info_t) % sizeof(int) == 0, "copied as words");
static_assert(sizeof(event_fields_bitmask_t) * 8 >= ef_avoid_trailing_comma_misery,
              "the field mask must hold a bit per field");

namespace {

constinit QM_pthread_mutex_t QM_HEAP_event_core_mutex = PTHREAD_MUTEX_INITIALIZER;

constexpr const char* kOpNames[] = {
    "",
    "calloc",
    "free",
    "malloc",
    "realloc",
    "memalign",
    "posix_memalign",
    "valloc",
    "hoard_insert",
    "hoard_remove",
    "initializer",
    "finalizer",
    "exit",
    "_exit",
    "malloc_create_zone",
    "malloc_destroy_zone",
    "malloc_zone_calloc",
    "malloc_zone_free",
    "malloc_zone_malloc",
    "malloc_zone_realloc",
    "malloc_zone_valloc",
    "malloc_zone_memalign",
    "malloc_zone_batch_free",
    "malloc_zone_batch_malloc",
    "malloc_zone_from_ptr",
    "malloc_zone_size",
    "rz_signal",
    "new",
    "new[]",
    "delete",
    "delete[]",
};

// The debugger's records are volatile: copy them word by word.
void copy_event(volatile QM_HEAP_event_info_t* dst, const QM_HEAP_event_info_t* src) {
  auto* d = reinterpret_cast<volatile int*>(dst);
  auto* s = reinterpret_cast<const int*>(src);
  for (size_t i = 0; i < sizeof(QM_HEAP_event_info_t) / sizeof(int); ++i) d[i] = s[i];
}

int get_event_filter(event_filters_t& filters, QM_HEAP_event_e event, int* bool_val) {
  if (static_cast<unsigned>(event) >= QM_HEAP_NUM_EVENT_FILTERS) return -1;
  if (bool_val != nullptr) *bool_val = filters[event];
  return 0;
}

int set_event_filter(event_filters_t& filters, QM_HEAP_event_e event, int bool_val, int* old_val) {
  if (get_event_filter(filters, event, old_val) != 0) return -1;
  filters[event] = bool_val;
  return 0;
}

int swap_switch(volatile int& sw, int bool_val) {
  int old = sw;
  sw = bool_val;
  return old;
}

// An action consumer acts only with its switch on, the event flagged, and
// never for the start-up event.
bool selected(volatile int& master, event_filters_t& filters, QM_HEAP_event_e event) {
  if (!master || event == qm_heap_event_startup_config_done) return false;
  int flag = 0;
  get_event_filter(filters, event, &flag);
  return flag != 0;
}

constexpr unsigned bit(QM_HEAP_event_fields_e f) { return 1u << f; }

constexpr event_fields_bitmask_t kOpAddr = bit(ef_op) | bit(ef_addr);
constexpr event_fields_bitmask_t kOpRec = bit(ef_op) | bit(ef_allocation_record);

}  // namespace

extern "C" {

event_fields_bitmask_t QM_HEAP_get_event_fields_used(QM_HEAP_event_e event) {
  event_fields_bitmask_t used = bit(ef_event);
  switch (event) {
    case qm_heap_event_free_not_allocated:
    case qm_heap_event_addr_not_in_heap:
    case qm_heap_event_dmz_unknown_zone:
    case qm_heap_event_dmz_destruction_in_progress:
    case qm_heap_event_dmz_pending_zone:
    case qm_heap_event_dmz_deleting_default_zone:
      return used | kOpAddr;
    case qm_heap_event_addr_not_at_start:
    case qm_heap_event_double_alloc:
      return used | kOpAddr | kOpRec | bit(ef_len);
    case qm_heap_event_alloc_null:
    case qm_heap_event_autoshrink_threshold:
      return used | bit(ef_op) | bit(ef_len);
    case qm_heap_event_alloc_returned_bad_alignment:
      return used | kOpAddr | kOpRec | bit(ef_len) | bit(ef_alignment);
    case qm_heap_event_bad_alignment_argument:
      return used | bit(ef_op) | bit(ef_alignment);
    case qm_heap_event_op_in_progress:
    case qm_heap_event_double_dealloc:
      return used | kOpAddr | kOpRec;
    case qm_heap_event_dealloc_mismatch:
      return used | kOpAddr | kOpRec | bit(ef_len) | bit(ef_alignment);
    case qm_heap_event_alloc_deleted_during_op:
    case qm_heap_event_dealloc_notification:
    case qm_heap_event_deletion_error:
    case qm_heap_event_insertion_error:
    case qm_heap_event_modification_error:
    case qm_heap_event_record_not_found:
    case qm_heap_event_guard_corruption:
      return used | kOpRec;
    case qm_heap_event_realloc_notification:
      return used | kOpRec | bit(ef_len);
    case qm_heap_event_alloc_changed_during_op:
      return used | kOpRec | bit(ef_allocation_record_2);
    case qm_heap_event_startup_config_done:
    case qm_heap_event_termination_notification:
    case qm_heap_event_unknown_error:
      return used | bit(ef_op);
    case qm_heap_event_dmz_unknown_state:
      return used | kOpAddr | bit(ef_len);
    case qm_heap_event_dmz_zone_creation_error:
      return used | bit(ef_op) | bit(ef_alignment) | bit(ef_len);
    case qm_heap_event_dmz_duplicate_zone_created:
      return used | kOpAddr | bit(ef_len) | bit(ef_alignment) | bit(ef_backtrace_id);
    case qm_heap_event_api_error:
      return used | kOpRec | bit(ef_owner_id);
    case qm_heap_event_rz_unknown:
      return used | kOpAddr | bit(ef_rz_record);
    case qm_heap_event_rz_underrun:
    case qm_heap_event_rz_overrun:
    case qm_heap_event_rz_use_after_free:
    case qm_heap_event_rz_use_after_free_underrun:
    case qm_heap_event_rz_use_after_free_overrun:
      return used | kOpAddr | kOpRec | bit(ef_rz_record);
    default:
      return used;
  }
}

void QM_HEAP_clear_unused_event_fields(QM_HEAP_event_info_t* e) {
  QM_assert(sizeof(event_fields_bitmask_t) * 8 >= ef_avoid_trailing_comma_misery,
            "%s.%d\ntype of fields is too small to act as a bit mask for the\nenumeration "
            "QM_HEAP_event_info_fields_e.\nTry changing the fields_bitmask_t to something bigger.\n",
            "../qm_heap_event.c", __LINE__);
  event_fields_bitmask_t used = QM_HEAP_get_event_fields_used(e->event);
  for (int f = ef_event; f < ef_avoid_trailing_comma_misery; ++f) {
    if (used & (1u << f)) continue;
    switch (f) {
      case ef_event: e->event = qm_heap_event_none; e->op = qm_heap_op_nop; break;
      case ef_op: e->op = qm_heap_op_nop; break;
      case ef_allocation_record: e->allocation_record = allocation_record_t{}; break;
      case ef_allocation_record_2: e->allocation_record_2 = allocation_record_t{}; break;
      case ef_addr: e->addr = nullptr; break;
      case ef_len: e->len = 0; break;
      case ef_alignment: e->alignment = 0; break;
      case ef_timestamp: break;  // overwritten next
      case ef_backtrace_id: e->backtrace_id = 0; break;
      case ef_owner_id: e->owner_id = 0; break;
      case ef_allocator_id: e->allocator_id = 0; break;
      case ef_rz_record: e->rz_record = rz_record_t{}; break;
    }
  }
}

const char* QM_HEAP_get_op_name(QM_HEAP_heap_op_e op) {
  unsigned i = static_cast<unsigned>(op);
  return i < sizeof kOpNames / sizeof *kOpNames ? kOpNames[i] : "unknown";
}

int QM_HEAP_get_event_short_message(const QM_HEAP_event_info_t* e, char* buffer, int buffer_len) {
  const char* op = QM_HEAP_get_op_name(e->op);
  if (buffer == nullptr || buffer_len < 1 || static_cast<unsigned>(e->event) > qm_heap_event_avoid_trailing_comma_misery) return -1;
  const allocation_record_t& r = e->allocation_record;
  const auto len = static_cast<unsigned long>(e->len);
  // Several messages print the record's address where its length belongs;
  // the debugger's displays were made against that output.
  const auto raddr = static_cast<unsigned long>(reinterpret_cast<uintptr_t>(r.addr));
  const auto raddr2 = static_cast<unsigned long>(reinterpret_cast<uintptr_t>(e->allocation_record_2.addr));
  const auto rlen = static_cast<unsigned long>(r.len);
  char* b = buffer;
  int n = buffer_len;
  switch (e->event) {
    case qm_heap_event_none: return QM_s_snprintf(b, n, "%s: empty event", op);
    case qm_heap_event_free_not_allocated:
    case qm_heap_event_realloc_not_allocated:
      return QM_s_snprintf(b, n, "%s: deallocating unknown address %p", op, e->addr);
    case qm_heap_event_addr_not_at_start:
      return QM_s_snprintf(b, n,
                           "%s: deallocating or reallocating address %p in middle of block starting at %p "
                           "and length %lu",
                           op, e->addr, r.addr, rlen);
    case qm_heap_event_double_alloc:
      return QM_s_snprintf(b, n,
                           "%s: memory manager returned address %p for allocation request of length %ld in "
                           "already allocated block starting at %p and length %lu",
                           op, e->addr, static_cast<long>(e->len), r.addr, rlen);
    case qm_heap_event_alloc_not_in_heap:
    case qm_heap_event_avoid_trailing_comma_misery:
      buffer[0] = '\0';
      return 0;
    case qm_heap_event_alloc_null:
      return QM_s_snprintf(b, n, "%s: heap manager returned NULL for allocation request of size %ld", op,
                           static_cast<long>(e->len));
    case qm_heap_event_alloc_returned_bad_alignment:
      return QM_s_snprintf(b, n,
                           "%s: block %p returned for allocation request of size %lu does not have "
                           "expected alignment of %lu",
                           op, e->addr, len, static_cast<unsigned long>(e->alignment));
    case qm_heap_event_bad_alignment_argument:
      return QM_s_snprintf(b, n, "%s: bad alignment %lu supplied for request", op,
                           static_cast<unsigned long>(e->alignment));
    case qm_heap_event_op_in_progress:
      // The message lacks its first conversion: the op name fills the %p.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-extra-args"
      return QM_s_snprintf(b, n,
                           "s: attempting an operation on a block starting at %p and length %lu whilst "
                           "another operation is in progress",
                           op, raddr, rlen);
#pragma GCC diagnostic pop
    case qm_heap_event_alloc_added_during_op:
      return QM_s_snprintf(b, n,
                           "%s: a record for a block starting at %p and length %lu was added whilst this "
                           "operation was in progress",
                           op, r.addr, raddr);
    case qm_heap_event_alloc_deleted_during_op:
      return QM_s_snprintf(b, n,
                           "%s: allocation record for lock starting at %p and length %lu was deleted whilst "
                           "an operation on it was in progress",
                           op, r.addr, raddr);
    case qm_heap_event_alloc_changed_during_op:
      return QM_s_snprintf(b, n,
                           "%s: allocation record for block starting at %p and length %lu was changed whilst "
                           "an operation on it was in progress.  Record now describes a block starting at "
                           "%p and length %lu",
                           op, r.addr, raddr, e->allocation_record_2.addr, raddr2);
    case qm_heap_event_dealloc_notification:
      return QM_s_snprintf(b, n, "%s: deallocation notification for block starting at %p and length %lu", op,
                           r.addr, raddr);
    case qm_heap_event_realloc_notification:
      return QM_s_snprintf(b, n, "%s: reallocation notification for block starting at %p and length %lu", op,
                           r.addr, raddr);
    case qm_heap_event_deletion_error:
      return QM_s_snprintf(b, n, "%s: deletion error for block starting at %p and length %lu", op, r.addr,
                           raddr);
    case qm_heap_event_insertion_error:
      return QM_s_snprintf(b, n, "%s: insertion error for block starting at %p and length %lu", op, r.addr,
                           raddr);
    case qm_heap_event_modification_error:
      return QM_s_snprintf(b, n, "%s: modification error for block starting at %p and length %lu", op, r.addr,
                           raddr);
    case qm_heap_event_record_not_found:
      return QM_s_snprintf(b, n, "%s: record for block starting at %p and length %lu not found when expected",
                           op, e->addr, len);
    case qm_heap_event_startup_config_done: return QM_s_snprintf(b, n, "startup configuration done");
    case qm_heap_event_double_dealloc:
      return QM_s_snprintf(b, n, "%s: double deallocation for block starting at %p", op, e->addr);
    case qm_heap_event_guard_corruption:
      return QM_s_snprintf(b, n, "%s: corrupted guards detected for block starting at %p and length %lu", op,
                           r.addr, raddr);
    case qm_heap_event_termination_notification: return QM_s_snprintf(b, n, "termination notification");
    case qm_heap_event_unknown_error: return QM_s_snprintf(b, n, "unknown error");
    case qm_heap_event_addr_not_in_heap: return QM_s_snprintf(b, n, "address not in heap");
    case qm_heap_event_dmz_unknown_zone: return QM_s_snprintf(b, n, "unknown dmz zone");
    case qm_heap_event_dmz_destruction_in_progress: return QM_s_snprintf(b, n, "operation on dmz being destroyed");
    case qm_heap_event_dmz_pending_zone:
      return QM_s_snprintf(b, n, "operation on dmz zone awaiting finalization");
    case qm_heap_event_dmz_unknown_state: return QM_s_snprintf(b, n, "dmz zone in unknown state");
    case qm_heap_event_dmz_zone_creation_error: return QM_s_snprintf(b, n, "error creating dmz zone");
    case qm_heap_event_dmz_duplicate_zone_created: return QM_s_snprintf(b, n, "duplicate dmz zone created");
    case qm_heap_event_dmz_deleting_default_zone:
      return QM_s_snprintf(b, n, "attempting to delete default dmz zone");
    case qm_heap_event_api_error:
      return QM_s_snprintf(b, n, "incorrect api or api instance used in operation");
    case qm_heap_event_rz_unknown: return QM_s_snprintf(b, n, "unknown red zone error");
    case qm_heap_event_rz_underrun: return QM_s_snprintf(b, n, "underrun bounds error");
    case qm_heap_event_rz_overrun: return QM_s_snprintf(b, n, "overrun bounds error");
    case qm_heap_event_rz_use_after_free: return QM_s_snprintf(b, n, "attempt to access freed block");
    case qm_heap_event_rz_use_after_free_underrun:
    case qm_heap_event_rz_use_after_free_overrun:  // shares the underrun text, as displays expect
      return QM_s_snprintf(b, n, "underrun bounds error on freed block");
    case qm_heap_event_autoshrink_threshold: return QM_s_snprintf(b, n, "hoard autoshrink threshold crossed");
    case qm_heap_event_dealloc_mismatch:
      return QM_s_snprintf(b, n, "%s: mismatched deallocation for block starting at %p", op, e->addr);
  }
  return -1;
}

const char* QM_HEAP_alloc_kind_name(int flags) {
  switch (flags & af_kind_mask) {
    case af_kind_new: return "new";
    case af_kind_new_array: return "new[]";
    case af_kind_new | af_kind_aligned: return "aligned new";
    case af_kind_new_array | af_kind_aligned: return "aligned new[]";
    default: return "malloc";
  }
}

int QM_HEAP_release_kind(QM_HEAP_heap_op_e op, size_t alignment) {
  const int aligned = alignment != 0 ? af_kind_aligned : 0;
  if (op == qm_heap_op_delete) return af_kind_new | aligned;
  if (op == qm_heap_op_delete_array) return af_kind_new_array | aligned;
  return 0;
}

// Beside the event record the debugger reads the call stack of the operation
// that raised it (0 outside an operation or without capture): the record
// itself keeps only the fields its event defines.
QM_EXPORT constinit volatile int QM_HEAP_event_op_backtrace_id = 0;
constinit __thread int QM_HEAP_op_backtrace_id __attribute__((tls_model("initial-exec"))) = 0;

QM_EXPORT QM_NOINLINE void QM_HEAP_notify_breakpoint_here(QM_HEAP_event_info_t* event) {
  copy_event(&QM_HEAP_event, event);
  QM_HEAP_event_op_backtrace_id = QM_HEAP_op_backtrace_id;
  __asm__ volatile("" ::: "memory");
}

int QM_HEAP_event_core_set_event(const QM_HEAP_event_info_t* event) {
  int r = QM_pthread_mutex_lock(&QM_HEAP_event_core_mutex);
  if (r != 0) return r;
  copy_event(&QM_HEAP_event_core, event);
  QM_HEAP_event_core_is_valid = 1;
  return 0;
}

int QM_HEAP_event_core_clear_event() {
  QM_HEAP_event_core_is_valid = 0;
  return QM_pthread_mutex_unlock(&QM_HEAP_event_core_mutex);
}

void QM_HEAP_event_core_atfork_prepare() { QM_pthread_mutex_lock(&QM_HEAP_event_core_mutex); }
void QM_HEAP_event_core_atfork_parent() { QM_pthread_mutex_unlock(&QM_HEAP_event_core_mutex); }
void QM_HEAP_event_core_atfork_child() { QM_pthread_mutex_unlock(&QM_HEAP_event_core_mutex); }

// SIGABRT back to its default through the raw call: the agent's own signal
// functions may stand in front of the C library's.
void QM_HEAP_generate_core() {
  struct {
    void (*handler)(int);
    unsigned long flags;
    void (*restorer)();
    unsigned long mask[2];
  } ksa = {SIG_DFL, 0, nullptr, {0, 0}};
  syscall(SYS_rt_sigaction, SIGABRT, &ksa, nullptr, 8);
  abort();
}

int QM_HEAP_core_is_supported() { return QM_HEAP_core_supported; }
int QM_HEAP_lwcore_is_supported() { return QM_HEAP_lwcore_supported; }

void QM_HEAP_notify_event(QM_HEAP_event_info_t* event) {
  if (event != nullptr) {
    QM_HEAP_clear_unused_event_fields(event);
    event->timestamp = time(nullptr);
  }
  const QM_HEAP_event_e ev = event->event;

  int ignored = 0;
  if (QM_HEAP_event_console_filter_master_switch) get_event_filter(QM_HEAP_event_console_filters, ev, &ignored);
  if (!ignored && QM_HEAP_allow_console_notification) {
    QM_HEAP_io_lock_io_mutex();
    QM_HEAP_console_notify(event);
    QM_HEAP_io_unlock_io_mutex();
  }

  ignored = 0;
  if (QM_HEAP_event_filter_master_switch) get_event_filter(QM_HEAP_event_filters, ev, &ignored);
  if (!ignored || ev == qm_heap_event_startup_config_done) QM_HEAP_notify_breakpoint_here(event);

  if (selected(QM_HEAP_lwcore_generate_master_switch, QM_HEAP_lwcore_generate_filters, ev)) {
    QM_HEAP_event_core_set_event(event);
    QM_HEAP_lwcore_generate_file_event(nullptr, event);
    QM_HEAP_event_core_clear_event();
  }

  if (selected(QM_HEAP_lwmdbg_generate_master_switch, QM_HEAP_lwmdbg_generate_filters, ev))
    QM_HEAP_lwmdbg_generate_file_event(nullptr, event);

  if (selected(QM_HEAP_generate_core_master_switch, QM_HEAP_generate_core_filters, ev)) {
    if (QM_HEAP_co_is_emit_for_key(co_generate_core)) {
      char msg[241];
      if (QM_HEAP_get_event_short_message(event, msg, sizeof msg) > 0) QM_HEAP_printf("%s --- dumping core\n", msg);
    }
    QM_HEAP_event_core_set_event(event);
    QM_HEAP_generate_core();
  }

  if (selected(QM_HEAP_exit_on_event_master_switch, QM_HEAP_exit_on_event_filters, ev)) {
    if (QM_HEAP_co_is_emit_for_key(co_exit_on_event)) {
      char msg[241];
      if (QM_HEAP_get_event_short_message(event, msg, sizeof msg) > 0)
        QM_HEAP_printf("%s --- exiting on event\n", msg);
    }
    _exit(0);
  }
}

// Filter accessors.
int QM_HEAP_event_console_filter_is_enabled() { return QM_HEAP_event_console_filter_master_switch; }
// Returns the debugger switch's previous value, not the console one's: the
// control interface has always reported it so.
int QM_HEAP_set_event_console_filter_enabled(int bool_val) {
  int old = QM_HEAP_event_filter_master_switch;
  QM_HEAP_event_console_filter_master_switch = bool_val;
  return old;
}
int QM_HEAP_get_event_console_filter(QM_HEAP_event_e e, int* v) {
  return get_event_filter(QM_HEAP_event_console_filters, e, v);
}
int QM_HEAP_set_event_console_filter(QM_HEAP_event_e e, int v, int* old) {
  return set_event_filter(QM_HEAP_event_console_filters, e, v, old);
}
int QM_HEAP_get_event_filter_master_switch() { return QM_HEAP_event_filter_master_switch; }
int QM_HEAP_set_event_filter_master_switch(int v) { return swap_switch(QM_HEAP_event_filter_master_switch, v); }
int QM_HEAP_get_event_filter(QM_HEAP_event_e e, int* v) { return get_event_filter(QM_HEAP_event_filters, e, v); }
int QM_HEAP_set_event_filter(QM_HEAP_event_e e, int v, int* old) {
  return set_event_filter(QM_HEAP_event_filters, e, v, old);
}
int QM_HEAP_is_generate_core_enabled() { return QM_HEAP_generate_core_master_switch; }
int QM_HEAP_set_generate_core_enabled(int v) { return swap_switch(QM_HEAP_generate_core_master_switch, v); }
int QM_HEAP_get_generate_core_filter(QM_HEAP_event_e e, int* v) {
  return get_event_filter(QM_HEAP_generate_core_filters, e, v);
}
int QM_HEAP_set_generate_core_filter(QM_HEAP_event_e e, int v, int* old) {
  return set_event_filter(QM_HEAP_generate_core_filters, e, v, old);
}
int QM_HEAP_lwmdbg_is_generate_enabled() { return QM_HEAP_lwmdbg_generate_master_switch; }
int QM_HEAP_lwmdbg_set_generate_enabled(int v) { return swap_switch(QM_HEAP_lwmdbg_generate_master_switch, v); }
int QM_HEAP_lwmdbg_get_generate_filter(QM_HEAP_event_e e, int* v) {
  return get_event_filter(QM_HEAP_lwmdbg_generate_filters, e, v);
}
int QM_HEAP_lwmdbg_set_generate_filter(QM_HEAP_event_e e, int v, int* old) {
  return set_event_filter(QM_HEAP_lwmdbg_generate_filters, e, v, old);
}
int QM_HEAP_lwcore_is_generate_enabled() { return QM_HEAP_lwcore_generate_master_switch; }
int QM_HEAP_lwcore_set_generate_enabled(int v) { return swap_switch(QM_HEAP_lwcore_generate_master_switch, v); }
int QM_HEAP_lwcore_get_generate_filter(QM_HEAP_event_e e, int* v) {
  return get_event_filter(QM_HEAP_lwcore_generate_filters, e, v);
}
int QM_HEAP_lwcore_set_generate_filter(QM_HEAP_event_e e, int v, int* old) {
  return set_event_filter(QM_HEAP_lwcore_generate_filters, e, v, old);
}
int QM_HEAP_exit_on_event_is_enabled() { return QM_HEAP_exit_on_event_master_switch; }
int QM_HEAP_exit_on_event_set_enabled(int v) { return swap_switch(QM_HEAP_exit_on_event_master_switch, v); }
int QM_HEAP_exit_on_event_get_filter(QM_HEAP_event_e e, int* v) {
  return get_event_filter(QM_HEAP_exit_on_event_filters, e, v);
}
int QM_HEAP_exit_on_event_set_filter(QM_HEAP_event_e e, int v, int* old) {
  return set_event_filter(QM_HEAP_exit_on_event_filters, e, v, old);
}

}  // extern "C"
