// One-time start-up in phases, and shut-down.
#include "base/assert.h"
#include "backtrace/backtrace_heap.h"
#include "base/export.h"
#include "config/runtime_config.h"
#include "core/binding.h"
#include "core/bodies.h"
#include "core/entry.h"
#include "core/owners.h"
#include "events/events.h"
#include "propagate/preloading.h"
#include "events/output.h"
#include "redzone/rz_allocator.h"
#include "snapshot/snapshot.h"
#include "heap/guards.h"
#include "heap/heap_tables.h"
#include "leaks/reachability.h"
#include "threads/reentrancy.h"
#include "threads/thread_utils.h"

extern "C" {
extern volatile int QM_HEAP_zero;
extern volatile int QM_HEAP_volatile_int;
void QM_HEAP_on_init();
const char* QM_get_qm_distribution();
extern const int QM_HEAP_version_major;
extern const int QM_HEAP_version_minor;
extern const int QM_HEAP_version_point;
extern const int QM_HEAP_version_service;

constinit int malloc_interposers_initialized = 0;
constinit int QM_HEAP_startup_config_done = 0;
}

namespace {

constinit int done_init_phase_00 = 0;
constinit int done_init_phase_00_00 = 0;
constinit int done_init_phase_00_01 = 0;
constinit int done_init_phase_01 = 0;
constinit int malloc_interposer_init_has_been_called = 0;

constinit QM_thread_atfork_handlers_t heap_ia_atfork_handlers = {};

int do_init_phase_00_00() {
  if (done_init_phase_00_00) return done_init_phase_00_00;
  done_init_phase_00_00 = 1;
  QM_HEAP_alignment_default = QM_HEAP_get_default_alignment();
  QM_HEAP_alignment_valloc = QM_HEAP_get_valloc_alignment();
  QM_thread_bind_library();
  QM_HEAP_runtime_config_initialize();
  QM_HEAP_init_heap_tables();
  QM_HEAP_backtrace_init();
  QM_HEAP_mpi_initialize();
  QM_HEAP_lwcore_initialize();
  QM_HEAP_lwmdbg_initialize();
  QM_HEAP_om_initialize();
  QM_HEAP_am_initialize();
  return 1;
}

int do_init_phase_00_01() {
  done_init_phase_00_01 = 1;
  return done_init_phase_00_01;
}

int do_init_phase_00() {
  if (done_init_phase_00 == 0) {
    done_init_phase_00 = 1;
    done_init_phase_00 = done_init_phase_00 && do_init_phase_00_00();
    done_init_phase_00 = done_init_phase_00 && do_init_phase_00_01();
  }
  return done_init_phase_00;
}

int do_init_phase_01() {
  if (done_init_phase_01 == 0) {
    done_init_phase_01 = QM_HEAP_may_read_runtime_config();
    if (!done_init_phase_01) return 0;
    QM_HEAP_read_runtime_config();
    QM_execve_remember_environment();
    if (QM_HEAP_get_verbosity() > 1 || QM_HEAP_co_is_emit_for_key(co_announce_starting))
      QM_HEAP_printf("STARTING malloc interposition (version %d.%03d)\n", QM_HEAP_version_major,
                     QM_HEAP_version_minor);
    // A debugger stopped at this event may still change the settings.
    QM_HEAP_event_info_t e = {};
    e.event = qm_heap_event_startup_config_done;
    e.op = qm_heap_op_nop;
    QM_HEAP_notify_event(&e);
    QM_HEAP_startup_config_done = 1;
  }
  return done_init_phase_01;
}

// Fork: the agent's locks are taken in one fixed order and released in the
// reverse order, in parent and child alike.
void lock_all_mutexes() {
  lock_op_counts();
  QM_HEAP_io_lock_io_mutex();
}

void unlock_all_mutexes() {
  QM_HEAP_io_unlock_io_mutex();
  unlock_op_counts();
}

void heap_ia_atfork_prepare() {
  QM_HEAP_reach_atfork_prepare();
  lock_all_mutexes();
  QM_HEAP_event_core_atfork_prepare();
  QM_HEAP_ht_atfork_prepare();
  QM_HEAP_backtrace_atfork_prepare();
  QM_HEAP_om_atfork_prepare();
  QM_HEAP_c_owner_atfork_prepare();
  QM_HEAP_gt_atfork_prepare();
  QM_HEAP_lwmdbg_atfork_prepare();
  QM_HEAP_lwcore_atfork_prepare();
  QM_HEAP_generation_atfork_prepare();
  QM_HEAP_rz_atfork_prepare();
}

void heap_ia_atfork_parent() {
  QM_HEAP_rz_atfork_parent();
  QM_HEAP_generation_atfork_parent();
  QM_HEAP_lwcore_atfork_parent();
  QM_HEAP_lwmdbg_atfork_parent();
  QM_HEAP_gt_atfork_parent();
  QM_HEAP_c_owner_atfork_parent();
  QM_HEAP_om_atfork_parent();
  QM_HEAP_backtrace_atfork_parent();
  QM_HEAP_ht_atfork_parent();
  QM_HEAP_event_core_atfork_parent();
  unlock_all_mutexes();
  QM_HEAP_reach_atfork_parent();
}

void heap_ia_atfork_child() {
  QM_HEAP_rz_atfork_child();
  QM_HEAP_generation_atfork_child();
  QM_HEAP_lwcore_atfork_child();
  QM_HEAP_lwmdbg_atfork_child();
  QM_HEAP_gt_atfork_child();
  QM_HEAP_c_owner_atfork_child();
  QM_HEAP_om_atfork_child();
  QM_HEAP_backtrace_atfork_child();
  QM_HEAP_ht_atfork_child();
  QM_HEAP_event_core_atfork_child();
  unlock_all_mutexes();
  QM_HEAP_reach_atfork_child();
}

}  // namespace

extern "C" {

// In address order, by one in-order walk: the positional iterator costs a
// walk per record, which a program with many blocks left would feel at exit.
void dump_allocation_table(int need_to_lock) {
  QM_HEAP_printf("ALLOCATION TABLE --- START\n");
  allocation_table_iterator_t it;
  if (QM_HEAP_init_allocation_table_iterator(&it) != 0) {
    QM_HEAP_printf("error initializing iterator\n");
  } else {
    if (need_to_lock) QM_HEAP_ht_alloc_read_lock();
    QM_HEAP_iterate_over_allocation_table(
        [](allocation_record_t* r, int*, void*) {
          QM_HEAP_printf("%*p %14d\n", 10, r->addr, static_cast<int>(r->len));
          return 0;
        },
        nullptr);
    if (need_to_lock) QM_HEAP_ht_alloc_read_unlock();
  }
  QM_HEAP_printf("ALLOCATION TABLE --- END\n");
}

// The valloc and memalign lines print the realloc counters: the report has
// always read so, and tools compare against it.
void dump_op_counts(int need_to_lock) {
  if (need_to_lock) lock_op_counts();
  static constexpr struct {
    const char* name;
    QM_HEAP_op_count_t* counts;
  } kLines[] = {{"calloc", &QM_HEAP_calloc_op_counts},   {"free", &QM_HEAP_free_op_counts},
                {"malloc", &QM_HEAP_malloc_op_counts},   {"realloc", &QM_HEAP_realloc_op_counts},
                {"valloc", &QM_HEAP_realloc_op_counts},  {"memalign", &QM_HEAP_realloc_op_counts}};
  for (const auto& l : kLines) QM_HEAP_printf("%9d %8s (%9d errors)\n", l.counts->ops, l.name, l.counts->errors);
  if (need_to_lock) {
    unlock_op_counts();
    QM_HEAP_ht_alloc_read_lock();
  }
  QM_HEAP_printf("number of outstanding allocations: %9d\n", QM_HEAP_get_num_records_in_allocation_table());
  if (need_to_lock) QM_HEAP_ht_alloc_read_unlock();
}

void do_initialization() {
  if (malloc_interposers_initialized) return;
  malloc_interposers_initialized = 1;
  malloc_interposers_initialized = malloc_interposers_initialized && do_init_phase_00();
  malloc_interposers_initialized = malloc_interposers_initialized && do_init_phase_01();
}

QM_EXPORT void QM_HEAP_malloc_interposer_init() {
  op_body_arg_t op_arg = {};
  reentry_info_t local = {};
  op_arg.op = qm_heap_op_init;
  op_arg.owner = nullptr;
  op_arg.rp = &local;
  QM_HEAP_on_init();
  {
    // Settles the temporary directory (TMPDIR, read once) before the
    // program can change its environment.
    char none[1];
    int len = 0;
    QM_get_tmp_filename(0, "", none, &len);
  }
  op_arg.num_times_entered = QM_enter_ia(reinterpret_cast<void**>(&op_arg.rp));
  setup_reentry_info(&op_arg, &local);
  QM_assert(!malloc_interposer_init_has_been_called,
            "QM_HEAP_malloc_interposer_init called more than once (../malloc_interposers.c)\n");
  malloc_interposer_init_has_been_called = 1;
  QM_HEAP_volatile_int = QM_HEAP_version_major;
  QM_HEAP_volatile_int = QM_HEAP_version_minor;
  QM_HEAP_volatile_int = QM_HEAP_version_point;
  QM_HEAP_volatile_int = QM_HEAP_version_service;
  do_initialization();
  QM_HEAP_runtime_config_init_section_initializer();
  QM_thread_utils_initializer();
  heap_ia_atfork_handlers.prepare = heap_ia_atfork_prepare;
  heap_ia_atfork_handlers.parent = heap_ia_atfork_parent;
  heap_ia_atfork_handlers.child = heap_ia_atfork_child;
  heap_ia_atfork_handlers.state = fhs_active;
  if (QM_thread_atfork_register_handlers(&heap_ia_atfork_handlers) != 0)
    QM_assert(0, "Error registering heap_ia atfork handlers in QM_HEAP_malloc_interposer_init "
                 "(../malloc_interposers.c)\n");
  if (QM_HEAP_zero != 0 || QM_HEAP_get_verbosity() >= 2 || QM_HEAP_co_is_emit_for_key(co_announce_starting))
    QM_HEAP_printf("QM distribution: %s\n", QM_get_qm_distribution());
  QM_leave_ia();
}

QM_EXPORT void QM_HEAP_malloc_interposer_fini() {
  op_body_arg_t op_arg = {};
  reentry_info_t local = {};
  op_arg.op = qm_heap_op_fini;
  op_arg.rp = &local;
  op_arg.num_times_entered = QM_enter_ia(reinterpret_cast<void**>(&op_arg.rp));
  setup_reentry_info(&op_arg, &local);
  if (QM_HEAP_get_verbosity() > 1 || QM_HEAP_co_is_emit_for_key(co_announce_terminating))
    QM_HEAP_printf("FINISHING malloc interposition\n");
  if (QM_HEAP_get_dump_allocation_table_on_exit()) {
    QM_HEAP_printf("remaining allocated blocks\n");
    dump_allocation_table(0);
    dump_op_counts(0);
  }
  // Before the termination event, so that its snapshot holds the result.
  QM_HEAP_reach_at_exit();
  QM_HEAP_event_info_t e = {};
  e.event = qm_heap_event_termination_notification;
  e.op = qm_heap_op_fini;
  QM_HEAP_notify_event(&e);
  QM_leave_ia();
}

}  // extern "C"
