// The operation bodies. Table work happens under the allocation-table lock;
// the events it finds are queued and dispatched after the lock is released,
// so that the console, the debugger and the exit actions never run with a
// table lock held (the fork handlers take the output lock first).
//
// The table lock is held across the allocator's call whenever a block is
// released or resized: the allocator may hand the old address out again at
// once, and a concurrent allocation of it must find the tables already
// updated (or it would look like a double allocation), while a concurrent
// release of the same block must find the allocator done with it. The
// allocator never calls back into the agent's tables, so this cannot
// deadlock, and fork takes the table lock before the allocator's own locks.
#include "core/bodies.h"

#include <errno.h>
#include <stddef.h>
#include <stdint.h>

#include "backtrace/backtrace_heap.h"
#include "base/assert.h"
#include "base/export.h"
#include "base/memory_manager.h"
#include "base/page.h"
#include "core/owners.h"
#include "events/events.h"
#include "events/output.h"
#include "heap/controls.h"
#include "heap/guards.h"
#include "heap/heap_tables.h"
#include "heap/hoard.h"
#include "redzone/rz_allocator.h"
#include "threads/thread_utils.h"

extern "C" {

#define QM_OP_COUNT_INIT {PTHREAD_MUTEX_INITIALIZER, 0, 0}
constinit QM_HEAP_op_count_t QM_HEAP_calloc_op_counts = QM_OP_COUNT_INIT;
constinit QM_HEAP_op_count_t QM_HEAP_free_op_counts = QM_OP_COUNT_INIT;
constinit QM_HEAP_op_count_t QM_HEAP_malloc_op_counts = QM_OP_COUNT_INIT;
constinit QM_HEAP_op_count_t QM_HEAP_realloc_op_counts = QM_OP_COUNT_INIT;
constinit QM_HEAP_op_count_t QM_HEAP_valloc_op_counts = QM_OP_COUNT_INIT;
constinit QM_HEAP_op_count_t QM_HEAP_memalign_op_counts = QM_OP_COUNT_INIT;
constinit QM_HEAP_op_count_t QM_HEAP_posix_memalign_op_counts = QM_OP_COUNT_INIT;
constinit QM_HEAP_op_count_t QM_HEAP_malloc_zone_from_ptr_op_counts = QM_OP_COUNT_INIT;
constinit QM_HEAP_op_count_t QM_HEAP_malloc_size_op_counts = QM_OP_COUNT_INIT;
#undef QM_OP_COUNT_INIT

constinit size_t QM_HEAP_alignment_default = 16;
constinit size_t QM_HEAP_alignment_valloc = 4096;
constinit volatile int QM_HEAP_generation = 0;

}  // extern "C"

namespace {

constexpr const char kFile[] = "../malloc_interposers.c";

constinit QM_pthread_mutex_t* const op_count_mutexes[] = {
    &QM_HEAP_calloc_op_counts.mutex,   &QM_HEAP_free_op_counts.mutex,
    &QM_HEAP_malloc_op_counts.mutex,   &QM_HEAP_realloc_op_counts.mutex,
    &QM_HEAP_valloc_op_counts.mutex,   &QM_HEAP_memalign_op_counts.mutex,
    &QM_HEAP_posix_memalign_op_counts.mutex, &QM_HEAP_malloc_zone_from_ptr_op_counts.mutex,
    &QM_HEAP_malloc_size_op_counts.mutex};
constexpr int num_op_count_mutexes = sizeof op_count_mutexes / sizeof *op_count_mutexes;

constinit QM_pthread_mutex_t generation_mutex = PTHREAD_MUTEX_INITIALIZER;

inline uintptr_t U(const void* p) { return reinterpret_cast<uintptr_t>(p); }

// Events found under a lock, raised after it.
struct EventQueue {
  static constexpr int kCapacity = 8;
  QM_HEAP_event_info_t ev[kCapacity];
  int n = 0;

  QM_HEAP_event_info_t& add(QM_HEAP_event_e e, QM_HEAP_heap_op_e op) {
    QM_assert(n < kCapacity, "%s.%d: too many events for one operation\n", kFile, __LINE__);
    QM_HEAP_event_info_t& x = ev[n++];
    x = QM_HEAP_event_info_t{};
    x.event = e;
    x.op = op;
    return x;
  }
  void add_record(QM_HEAP_event_e e, QM_HEAP_heap_op_e op, const allocation_record_t& r) {
    add(e, op).allocation_record = r;
  }
  // What the hoard found under the table lock (called with it held).
  void take_hoard_events() { n += qm::take_hoard_events(ev + n, kCapacity - n); }
  // Dispatches everything queued; true when anything was.
  bool raise() {
    for (int i = 0; i < n; ++i) QM_HEAP_notify_event(&ev[i]);
    bool any = n > 0;
    n = 0;
    return any;
  }
};

QM_HEAP_op_count_t* counts_of(QM_HEAP_heap_op_e op) {
  switch (op) {
    case qm_heap_op_calloc: return &QM_HEAP_calloc_op_counts;
    case qm_heap_op_free: return &QM_HEAP_free_op_counts;
    case qm_heap_op_realloc: return &QM_HEAP_realloc_op_counts;
    case qm_heap_op_valloc: return &QM_HEAP_valloc_op_counts;
    case qm_heap_op_memalign: return &QM_HEAP_memalign_op_counts;
    case qm_heap_op_posix_memalign: return &QM_HEAP_posix_memalign_op_counts;
    default: return &QM_HEAP_malloc_op_counts;
  }
}

// The operation's call stack, captured first thing in every body: the
// records it makes and the events it raises carry it. Inlined, so that the
// body is the frame that calls the capture (the trim counts on that shape).
struct OpBacktrace {
  __attribute__((always_inline)) OpBacktrace() {
    const void* frame = QM_HEAP_op_caller_frame;
    QM_HEAP_op_caller_frame = nullptr;
    QM_HEAP_op_backtrace_id = QM_HEAP_backtrace_table_insert_for_op(frame);
  }
  __attribute__((always_inline)) ~OpBacktrace() { QM_HEAP_op_backtrace_id = 0; }
};

bool is_power_of_two(size_t v) { return v != 0 && (v & (v - 1)) == 0; }

// The allocator in charge of a new block of len bytes: the red-zone
// allocator when red zones apply to the length, else the owner's.
allocator_t* choose_allocator(owner_t* owner, size_t len) {
  return QM_UNLIKELY(qm::use_rz_allocator(len)) ? QM_HEAP_rz_allocator_get_instance() : qm::owner_allocator(owner);
}

// The alignment to expect of a block: a forced red-zone alignment replaces
// the request's.
size_t expected_alignment_of(allocator_t* al, size_t requested) {
  return al->id == am_id_rz_allocator ? qm::rz_effective_alignment(requested) : requested;
}

// Around the real allocator the caller's own cancellation state applies.
struct CancelWindow {
  op_body_arg_t* a;
  explicit CancelWindow(op_body_arg_t* arg) : a(arg) {
    if (a->num_times_entered == 1) qm::restore_caller_cancellation(&a->caller_info);
  }
  ~CancelWindow() {
    if (a->num_times_entered == 1 && a->caller_info.is_multi_threaded) qm::disable_cancellation_again();
  }
};

void raise_record_event(QM_HEAP_event_e ev, QM_HEAP_heap_op_e op, const allocation_record_t& r, size_t len = 0);

// --- guards, painting, hoarding ------------------------------------------------

// The length with guards, held to SIZE_MAX (which the allocator refuses).
size_t with_guards(const guard_settings_t& g, size_t len) {
  size_t n;
  if (__builtin_add_overflow(len, static_cast<size_t>(g.pre_size) + g.post_size, &n)) return SIZE_MAX;
  return n;
}

void paint_on_allocation(painting_op_e ptop, void* addr, size_t len) {
  if (!QM_HEAP_paint_paint_on_allocation || addr == nullptr) return;
  switch (ptop) {
    case ptop_never: return;
    case ptop_isnt_zeroed_alloc: break;
    case ptop_is_zeroed_alloc:
      if (!QM_HEAP_paint_paint_over_zero) return;
      break;
    default: QM_assert(0, "error in paint_on_allocation: unexpected ptop (%d)\n", static_cast<int>(ptop));
  }
  QM_HEAP_paint_block(addr, QM_HEAP_paint_pattern_allocation, len);
}

// The pattern painted, for the hoard's check when the block leaves it; or
// nothing painted.
struct DeallocPaint {
  bool painted = false;
  int pattern = 0;
};

DeallocPaint paint_on_deallocation(void* p, size_t len) {
  DeallocPaint d;
  if (p == nullptr || !QM_HEAP_paint_paint_on_deallocation) return d;
  d.pattern = QM_HEAP_paint_pattern_deallocation;
  d.painted = true;
  QM_HEAP_paint_block(p, d.pattern, len);
  return d;
}

// The geometry of a recorded block; a block whose guard id the table does
// not know is an impossibility.
guard_settings_t settings_of(const allocation_record_t& rec) {
  guard_settings_t gs = {};
  if (rec.guard_id != 0 && !qm::guard_settings_of(rec.guard_id, &gs))
    QM_assert(0, "lookup of guard settings entry failed\n");
  return gs;
}

// Checks a claimed block's guards, raising the event for a damaged one.
bool check_block_guards(QM_HEAP_heap_op_e op, const allocation_record_t& rec, const guard_settings_t& gs) {
  if (rec.guard_id == 0 || QM_HEAP_guard_check_guards(rec.addr, rec.len, &gs) == guards_ok) return false;
  raise_record_event(qm_heap_event_guard_corruption, op, rec);
  return true;
}

// Every live block's guards, for the checks on entry and exit. Blocks with
// an operation in progress are another thread's to check.
struct DamagedBlocks {
  static constexpr int kMax = 16;  // per check; the next check finds the rest
  allocation_record_t recs[kMax];
  int n = 0;
};

int check_live_block(allocation_record_t* r, int* stop, void* arg) {
  if (r->guard_id == 0 || (r->flags & af_op_in_progress)) return 0;
  guard_settings_t gs;
  if (!qm::guard_settings_of(r->guard_id, &gs) || QM_HEAP_guard_check_guards(r->addr, r->len, &gs) == guards_ok)
    return 0;
  auto* d = static_cast<DamagedBlocks*>(arg);
  d->recs[d->n++] = *r;
  if (d->n == DamagedBlocks::kMax) *stop = 1;
  return 0;
}

bool check_all_guards(QM_HEAP_heap_op_e op) {
  DamagedBlocks d;
  QM_HEAP_ht_alloc_read_lock();
  QM_HEAP_iterate_over_allocation_table(check_live_block, &d);
  QM_HEAP_ht_alloc_read_unlock();
  for (int i = 0; i < d.n; ++i) raise_record_event(qm_heap_event_guard_corruption, op, d.recs[i]);
  return d.n > 0;
}

bool should_block_be_hoarded(const allocation_record_t& rec) {
  (void)rec;
  return QM_HEAP_hoard_supported && QM_HEAP_hoarding_enabled && QM_HEAP_hoarding_all_blocks;
}

// Any protection at work on a release: the quiet path then does not apply.
inline bool protection_on_release(const allocation_record_t& rec) {
  return rec.guard_id != 0 || QM_HEAP_paint_paint_on_deallocation || QM_HEAP_hoarding_enabled;
}

// An allocation failed: give the hoard's blocks back one at a time, retrying
// after each, and report the hoard's size crossing the threshold downwards.
template <typename Retry>
void* autoshrink_and_retry(op_body_arg_t* a, QM_HEAP_heap_op_e op, Retry retry) {
  void* r = nullptr;
  int released;
  do {
    EventQueue q;
    QM_HEAP_ht_alloc_write_lock();
    released = 0;
    if (QM_HEAP_hoard_num_blocks > 0) {
      const long before = QM_HEAP_hoard_get_current_size_bytes();
      size_t after = 0;
      released = QM_HEAP_hoard_remove_blocks(1, &after);
      const long threshold = QM_HEAP_hoard_autoshrink_threshold_get_size_bytes();
      if (released == 1 && threshold >= static_cast<long>(after) && threshold < before &&
          QM_HEAP_hoard_autoshrink_threshold_trigger_count > 0) {
        q.add(qm_heap_event_autoshrink_threshold, op).len = after;
        QM_HEAP_hoard_autoshrink_threshold_trigger_count = QM_HEAP_hoard_autoshrink_threshold_trigger_count - 1;
      }
      q.take_hoard_events();
    }
    QM_HEAP_ht_alloc_write_unlock();
    q.raise();
    CancelWindow w(a);
    r = retry();
  } while (r == nullptr && released == 1 && QM_HEAP_hoard_num_blocks > 0);
  return r;
}

inline bool autoshrink_active() { return QM_HEAP_hoard_autoshrink_enabled && QM_HEAP_hoard_supported; }

// A resize that changes the allocator in charge (red zones now apply to the
// new length, or no longer do): a block from the new allocator, the old
// contents copied, the old block given back. Null, with the old block
// untouched, when the new allocator fails.
void* move_across(allocator_t* from, allocator_t* to, owner_t* owner, void* base, size_t old_alloc_len,
                  size_t alloc_len) {
  void* r = to->funcs->malloc(to, owner, alloc_len);
  if (r == nullptr) return nullptr;
  __builtin_memcpy(r, base, old_alloc_len < alloc_len ? old_alloc_len : alloc_len);
  from->funcs->free(from, owner, base);
  return r;
}

// --- the deallocation table -------------------------------------------------

alloc_rec_id_t do_insert_deallocation_record(allocation_record_t rec, QM_HEAP_heap_op_e op, EventQueue& q) {
  if (rec.len == 0) {
    alloc_rec_id_t found = QM_HEAP_lookup_deallocation_record(rec.addr, nullptr, non_exact);
    if (found != nullptr) {
      allocation_record_t& f = found->allocation_record;
      if (f.addr == rec.addr) return found;
      uintptr_t end = U(f.addr) + f.len;
      QM_assert(end >= U(rec.addr), "end of dealloc rec found does not follow start of new rec");
      size_t moved = end - U(rec.addr);
      if (QM_HEAP_set_dealloc_addr_len_by_id(found, f.addr, f.len - moved) != 0)
        q.add_record(qm_heap_event_modification_error, op, f);
      rec.len += moved;
    }
  }
  alloc_rec_id_t id = QM_HEAP_insert_deallocation_record(&rec);
  if (id == nullptr) q.add_record(qm_heap_event_insertion_error, op, rec);
  return id;
}

// Removes the released ranges that [start, start + len) now covers.
int do_remove_deallocations(const void* start, size_t len, QM_HEAP_heap_op_e op, EventQueue& q) {
  const uintptr_t s = U(start), e = U(start) + len;
  int result = 0;
  alloc_rec_id_t id;
  // The usual case: the allocator hands out again a range released at the
  // same start. Released ranges never overlap and are visited in order from
  // there: each one the block covers goes (its removal names the next), and
  // one that reaches past the block's end is moved to start there, which
  // keeps its place in the order.
  if (len > 0 && (id = QM_HEAP_lookup_deallocation_record(start, nullptr, exact)) != nullptr) {
    while (id != nullptr && U(id->allocation_record.addr) < e) {
      const uintptr_t rs = U(id->allocation_record.addr), re = rs + id->allocation_record.len;
      if (re > e) return QM_HEAP_set_dealloc_addr_len_by_id(id, reinterpret_cast<void*>(e), re - e) != 0 ? -1 : 0;
      alloc_rec_id_t next = nullptr;
      if (QM_HEAP_remove_deallocation_record_next(reinterpret_cast<void*>(rs), &next) != 0) return -1;
      id = next;
    }
    return 0;
  }
  while ((id = QM_HEAP_lookup_deallocation_range_record(start, len, nullptr)) != nullptr) {
    allocation_record_t r = id->allocation_record;
    const uintptr_t rs = U(r.addr), re = U(r.addr) + r.len;
    if (rs >= s && re <= e) {
      if (QM_HEAP_remove_deallocation_record(r.addr) != 0) return -1;
      continue;
    }
    // Released ranges never overlap one another: one that reaches over the
    // start or the end of the block is the last to look at on that side.
    const bool covers_end = re >= e;
    if (rs < s) {
      if (re > e) {
        allocation_record_t tail = r;
        tail.addr = reinterpret_cast<void*>(e);
        tail.len = re - e;
        if (QM_HEAP_insert_deallocation_record(&tail) == nullptr) {
          q.add_record(qm_heap_event_insertion_error, op, tail);
          result = -1;
        }
      }
      if (QM_HEAP_set_dealloc_addr_len_by_id(id, r.addr, s - rs) != 0) result = -1;
    } else {
      if (QM_HEAP_set_dealloc_addr_len_by_id(id, reinterpret_cast<void*>(e), re - e) != 0) result = -1;
      QM_assert(id->allocation_record.len == re - e,
                "Unexpected length of deallocation record after computing new length\nin case where block "
                "starts inside the range, but block extends beyond the end of the range\n");
    }
    if (len == 0 || result != 0 || (rs <= s && covers_end)) break;
  }
  return result;
}

// Removes a live record and records its range as released.
int do_remove_allocation_record(const allocation_record_t& rec, QM_HEAP_heap_op_e op, int backtrace_id,
                                alloc_rec_id_t* dealloc_id, EventQueue& q) {
  if (QM_HEAP_remove_allocation_record(rec.addr) != 0) {
    q.add_record(qm_heap_event_deletion_error, op, rec);
    return -1;
  }
  allocation_record_t d = rec;
  d.backtrace_id = backtrace_id;
  d.flags = d.flags & ~af_op_in_progress;
  d.control_info = nullptr;
  *dealloc_id = do_insert_deallocation_record(d, op, q);
  return *dealloc_id != nullptr ? 0 : -1;
}

// Under the table lock: finds a claimed record again, wakes the threads
// waiting for it and moves it to the deallocation table. False when another
// thread removed it in the meantime (only possible with several threads).
bool retire_claimed_record(alloc_rec_id_t id, const allocation_record_t& rec, QM_HEAP_heap_op_e op,
                           const char* who, EventQueue& q, bool locked_since_claim = false,
                           alloc_rec_id_t* dealloc_id_out = nullptr);

// --- serialisation of operations on one block -------------------------------

void wake_up_any_threads_waiting_for_alloc_record(alloc_rec_id_t id) {
  auto* w = static_cast<QM_cond_waiters_t*>(id->allocation_record.control_info);
  if (w == nullptr) return;
  w->finished = 1;
  if (QM_pthread_cond_broadcast(&w->cond) != 0) QM_HEAP_printf("Error waking waiting threads in %s\n", "free_body");
  id->allocation_record.control_info = nullptr;
}

void wait_for_alloc_record(alloc_rec_id_t id, const char* opname) {
  auto* w = static_cast<QM_cond_waiters_t*>(id->allocation_record.control_info);
  if (w == nullptr) {
    w = QM_thread_new_cond_waiters_t();
    QM_assert(w != nullptr, "error getting new QM_cond_waiters_t for %s\n", opname);
    if (QM_HEAP_set_alloc_control_info_by_id(id, w) != 0)
      QM_assert(0, "Error setting control info while waiting for %s\n", opname);
  }
  ++w->num_waiters;
  while (!w->finished)
    if (QM_HEAP_ht_alloc_cond_wait(&w->cond) != 0)
      QM_assert(0, "Error waiting on allocation record condition variable for %s\n", opname);
  if (--w->num_waiters > 0) {
    if (QM_pthread_cond_signal(&w->cond) != 0)
      QM_assert(0, "Error signalling allocation record condition variable for %s\n", opname);
  } else {
    QM_thread_delete_cond_waiters_t(w);
  }
}

// Finds the record that starts at p and marks it as in progress, waiting
// while another thread works on it. Null with *event set when p starts no
// live block. The caller holds the allocation-table lock.
alloc_rec_id_t claim_alloc_rec(const void* p, allocation_record_t* rec, QM_HEAP_event_e* event, QM_HEAP_heap_op_e op) {
  for (;;) {
    alloc_rec_id_t id = QM_HEAP_lookup_allocation_record(p, nullptr, non_exact);
    if (id == nullptr) {
      *event = qm_heap_event_alloc_not_in_heap;
      return nullptr;
    }
    const allocation_record_t& r = id->allocation_record;
    if (r.addr != p) {
      *rec = r;  // the block p lies in, for the report
      *event = qm_heap_event_addr_not_at_start;
      return nullptr;
    }
    if (r.flags & af_op_in_progress) {
      // With one thread nothing can finish the other operation: report it.
      if (!qm::is_multi_threaded()) {
        *rec = r;
        *event = qm_heap_event_op_in_progress;
        return nullptr;
      }
      wait_for_alloc_record(id, QM_HEAP_get_op_name(op));
      continue;
    }
    if (r.control_info != nullptr) QM_HEAP_printf("%s.%d: control_info not null on untagged record\n", kFile, __LINE__);
    if (QM_HEAP_set_alloc_control_info_by_id(id, nullptr) != 0 ||
        QM_HEAP_set_alloc_flags_by_id(id, af_op_in_progress) != 0) {
      *rec = r;
      *event = qm_heap_event_modification_error;
      return nullptr;
    }
    *rec = r;
    return id;
  }
}

bool retire_claimed_record(alloc_rec_id_t id, const allocation_record_t& rec, QM_HEAP_heap_op_e op,
                           const char* who, EventQueue& q, bool locked_since_claim, alloc_rec_id_t* dealloc_id_out) {
  // Unless the lock was held since the claim, another thread may have
  // removed the record meanwhile: find it again.
  alloc_rec_id_t again = locked_since_claim || !qm::is_multi_threaded()
                             ? id
                             : QM_HEAP_lookup_allocation_record(rec.addr, nullptr, exact);
  if (again == nullptr) return false;
  wake_up_any_threads_waiting_for_alloc_record(again);
  alloc_rec_id_t dealloc_id = nullptr;
  allocation_record_t current = again->allocation_record;
  if (do_remove_allocation_record(current, op, QM_HEAP_op_backtrace_id, &dealloc_id, q) == 0 &&
      dealloc_id == nullptr)
    QM_assert(0, "%s: invalid dealloc id returned from do_remove_allocation_record (../malloc_interposers.c)", who);
  if (dealloc_id_out != nullptr) *dealloc_id_out = dealloc_id;
  return true;
}

// A release after its checks: under the table lock the claimed record is
// retired and, when the block is to be hoarded, its released range goes to
// the hoard; otherwise the hoard is held to its limits. True when hoarded
// (the allocator must then not have the block); *gone when another thread
// removed the record meanwhile.
bool retire_into_hoard(alloc_rec_id_t id, const allocation_record_t& rec, QM_HEAP_heap_op_e op, const char* who,
                       EventQueue& q, const DeallocPaint& paint, bool* gone) {
  bool hoarded = should_block_be_hoarded(rec);
  alloc_rec_id_t dealloc_id = nullptr;
  QM_HEAP_ht_alloc_write_lock();
  *gone = !retire_claimed_record(id, rec, op, who, q, false, &dealloc_id);
  if (hoarded && !*gone && dealloc_id != nullptr) {
    allocation_record_t d = dealloc_id->allocation_record;
    QM_HEAP_hoard_insert(&d, dealloc_id);
    if (paint.painted) qm::hoard_note_painted(rec.addr, paint.pattern);
  } else {
    hoarded = false;
    QM_HEAP_hoard_trim_to_size_constraints();
  }
  q.take_hoard_events();
  QM_HEAP_ht_alloc_write_unlock();
  return hoarded;
}

// --- recording new blocks ------------------------------------------------------

struct NewBlock {
  QM_HEAP_heap_op_e op;
  void* addr;  // payload; null when the allocator failed
  size_t len;
  size_t alloc_len;
  size_t expected_alignment;  // 0: not checked
  owner_t* owner;
  allocator_t* allocator;
  int backtrace_id;
  const allocation_record_t* original;  // a moved block keeps its first allocation
  guard_id_t guard_id = 0;
  guard_size_t pre_size = 0;
  guard_size_t post_size = 0;
  int flags = 0;  // the family that made it (QM_HEAP_alloc_kind_e)
};

// Live records that the new block [addr, addr + len) overlaps: the one that
// contains addr and those that start inside the block.
struct Overlaps {
  static constexpr int kMax = 8;
  alloc_rec_id_t ids[kMax];
  int n = 0;
};

int collect_overlap(allocation_record_t* r, int* stop, void* arg) {
  auto* o = static_cast<Overlaps*>(arg);
  o->ids[o->n++] = reinterpret_cast<alloc_rec_id_t>(r);
  if (o->n == Overlaps::kMax) *stop = 1;
  return 0;
}

void find_overlaps(const void* addr, size_t len, Overlaps& o) {
  alloc_rec_id_t first = QM_HEAP_lookup_allocation_record(addr, nullptr, non_exact);
  if (first != nullptr) o.ids[o.n++] = first;
  if (len > 1) {
    const void* from = static_cast<const char*>(addr) + 1;
    const void* to = static_cast<const char*>(addr) + len - 1;
    QM_HEAP_iterate_over_allocation_table_range(collect_overlap, &o, from, to);
  }
}

// The allocator handed out memory that live records still claim: a double
// allocation. The stale records are dropped (an operation waiting on one of
// them then finds it gone).
void check_double_alloc(const NewBlock& b, EventQueue& q) {
  const size_t span = b.len + b.post_size > 0 ? b.len + b.post_size : 1;
  if (QM_HEAP_lookup_allocation_range_record(b.addr, span, nullptr) == nullptr) return;  // the usual case
  Overlaps o;
  find_overlaps(b.addr, span, o);
  for (int i = 0; i < o.n; ++i) {
    allocation_record_t r = o.ids[i]->allocation_record;
    if (i == 0) {
      QM_HEAP_event_info_t& e = q.add(qm_heap_event_double_alloc, b.op);
      e.allocation_record = r;
      e.addr = b.addr;
      e.len = b.len;
    }
    wake_up_any_threads_waiting_for_alloc_record(o.ids[i]);
    QM_HEAP_remove_allocation_record(r.addr);
  }
}

// Records one new block; the caller holds the allocation-table lock.
void record_new_block(const NewBlock& b, EventQueue& q) {
  if (b.addr == nullptr) {
    if (b.len != 0) q.add(qm_heap_event_alloc_null, b.op).len = b.len;
    return;
  }
  allocation_record_t rec = {};
  rec.addr = b.addr;
  rec.len = b.len;
  rec.backtrace_id = b.backtrace_id;
  rec.thread_id = QM_pthread_self();
  rec.flags = b.flags;
  rec.org_addr = b.original != nullptr ? b.original->org_addr : b.addr;
  rec.org_len = b.original != nullptr ? b.original->org_len : b.len;
  rec.org_backtrace_id = b.original != nullptr ? b.original->org_backtrace_id : b.backtrace_id;
  rec.control_info = nullptr;
  rec.guard_id = b.guard_id;
  rec.generation = QM_HEAP_get_generation();
  rec.allocator_id = b.allocator->funcs->get_id(b.allocator);
  rec.owner_id = b.owner->funcs->get_id(b.owner);
  if (b.expected_alignment != 0 && U(b.addr) % b.expected_alignment != 0) {
    QM_HEAP_event_info_t& e = q.add(qm_heap_event_alloc_returned_bad_alignment, b.op);
    e.addr = b.addr;
    e.len = b.len;
    e.allocation_record = rec;
    e.alignment = b.expected_alignment;
  }
  // The released ranges the block covers with its guards go; live blocks
  // are looked for over the payload and the post-guard (the pre-guard lies
  // below the record's start).
  do_remove_deallocations(static_cast<char*>(b.addr) - b.pre_size, b.alloc_len, b.op, q);
  // One descent inserts the record and proves it clear of live blocks; only
  // when it is not does the slow search for the overlapped records run.
  if (QM_HEAP_insert_allocation_record_if_clear(&rec, b.len + b.post_size) != nullptr) return;
  check_double_alloc(b, q);
  if (QM_HEAP_insert_allocation_record(&rec) == nullptr) q.add_record(qm_heap_event_insertion_error, b.op, rec);
}

bool handle_allocation(const NewBlock& b) {
  EventQueue q;
  QM_HEAP_ht_alloc_write_lock();
  record_new_block(b, q);
  QM_HEAP_ht_alloc_write_unlock();
  return q.raise();
}

// Guards, when on, are filled and the payload painted before the block is
// recorded: a check of every block from another thread never sees a block
// whose guards are not there yet. True when an event was raised.
bool record_allocation(NewBlock& b, const guard_settings_t& gs, painting_op_e ptop) {
  if (b.addr != nullptr && gs.pre_size + gs.post_size != 0) {
    QM_HEAP_gt_insert_settings(&gs, &b.guard_id);
    b.pre_size = gs.pre_size;
    b.post_size = gs.post_size;
    QM_HEAP_guard_fill_guards(gfm_both, b.addr, b.len, &gs);
  }
  paint_on_allocation(ptop, b.addr, b.len);
  return handle_allocation(b);
}

void* allocation_body(op_body_arg_t* a, QM_HEAP_heap_op_e op, size_t len, size_t alignment,
                      void* (*call)(allocator_t*, owner_t*, size_t, size_t, size_t), size_t x, size_t y,
                      bool bad_argument, size_t unit = 1, painting_op_e ptop = ptop_isnt_zeroed_alloc,
                      bool guardable = true) {
  if (a->kind != 0) op = a->op;  // new and new[] report as themselves
  owner_t* owner = a->owner;
  allocator_t* al = choose_allocator(owner, len);
  if (QM_UNLIKELY(QM_HEAP_guard_check_on_entry)) check_all_guards(op);
  guard_settings_t gs = {};
  size_t alloc_len = len;
  if (QM_UNLIKELY(QM_HEAP_guard_enabled) && guardable) {
    QM_HEAP_guard_get_settings(static_cast<int>(alignment), unit, &gs);
    alloc_len = with_guards(gs, len);
  }
  void* base;
  {
    CancelWindow w(a);
    base = call(al, owner, x, y, alloc_len);
  }
  if (QM_UNLIKELY(base == nullptr) && len != 0 && autoshrink_active())
    base = autoshrink_and_retry(a, op, [&] { return call(al, owner, x, y, alloc_len); });
  void* p = base != nullptr ? static_cast<char*>(base) + gs.pre_size : nullptr;
  NewBlock b = {op, p, len, alloc_len, bad_argument ? 0 : expected_alignment_of(al, alignment), owner, al,
                QM_HEAP_op_backtrace_id, nullptr};
  b.flags = a->kind;
  bool errors = record_allocation(b, gs, ptop) || bad_argument;
  inc_op_count(counts_of(op), 1, 1, errors);
  if (QM_UNLIKELY(QM_HEAP_guard_check_on_exit)) check_all_guards(op);
  return p;
}

void raise_bad_alignment(QM_HEAP_heap_op_e op, size_t alignment) {
  QM_HEAP_event_info_t e = {};
  e.event = qm_heap_event_bad_alignment_argument;
  e.op = op;
  e.alignment = alignment;
  QM_HEAP_notify_event(&e);
}

// A pointer that starts no live block: inside a released range (or at its
// start) it is a double release; anything else was never handed out. Every
// way a program can get a block passes through the agent, so there is no
// block it has not seen, and nothing but its own tables is read. True when
// an event was raised.
bool check_unknown_address(QM_HEAP_heap_op_e op, const void* p, size_t len, QM_HEAP_event_e claim_event,
                           const allocation_record_t& found) {
  QM_HEAP_event_info_t e = {};
  e.op = op;
  e.addr = p;
  e.len = len;
  if (claim_event == qm_heap_event_alloc_not_in_heap) {
    allocation_record_t d;
    QM_HEAP_ht_alloc_read_lock();
    alloc_rec_id_t did = QM_HEAP_lookup_deallocation_record(p, &d, non_exact);
    QM_HEAP_ht_alloc_read_unlock();
    if (did != nullptr) {
      e.event = qm_heap_event_double_dealloc;
      e.allocation_record = d;
    } else {
      e.event = op == qm_heap_op_realloc ? qm_heap_event_realloc_not_allocated : qm_heap_event_free_not_allocated;
    }
  } else {
    e.event = claim_event;
    e.allocation_record = found;
  }
  QM_HEAP_notify_event(&e);
  return true;
}

// A released range that sits in the hoard starts at p.
bool is_hoarded_range(const void* p) {
  allocation_record_t d;
  QM_HEAP_ht_alloc_read_lock();
  alloc_rec_id_t did = QM_HEAP_lookup_deallocation_record(p, &d, exact);
  QM_HEAP_ht_alloc_read_unlock();
  return did != nullptr && (d.flags & af_hoarded) != 0;
}

void raise_record_event(QM_HEAP_event_e ev, QM_HEAP_heap_op_e op, const allocation_record_t& r, size_t len) {
  QM_HEAP_event_info_t e = {};
  e.event = ev;
  e.op = op;
  e.allocation_record = r;
  e.len = len;
  QM_HEAP_notify_event(&e);
}

// A block released by a function of another family than the one that made
// it, or by a sized delete that names another length.
inline bool release_mismatch(const op_body_arg_t* a, const allocation_record_t& rec) {
  return (rec.flags & af_kind_mask) != a->kind || (a->sized_len != SIZE_MAX && a->sized_len != rec.len);
}

// The rights check, the family check, the block's own notifications.
bool check_claimed_block(op_body_arg_t* a, const allocation_record_t& rec, owner_rights_e right, size_t new_len,
                         bool releasing) {
  bool errors = false;
  if (QM_UNLIKELY(release_mismatch(a, rec))) {
    QM_HEAP_event_info_t e = {};
    e.event = qm_heap_event_dealloc_mismatch;
    e.op = a->op;
    e.addr = rec.addr;
    e.allocation_record = rec;
    e.len = a->sized_len != SIZE_MAX ? a->sized_len : 0;
    e.alignment = a->alignment;
    QM_HEAP_notify_event(&e);
    errors = true;
  }
  owner_t* rec_owner = QM_HEAP_om_get_owner(rec.owner_id);
  if (rec_owner != nullptr && !rec_owner->funcs->has_rights(rec_owner, a->owner, right)) {
    QM_HEAP_event_info_t e = {};
    e.event = qm_heap_event_api_error;
    e.op = a->op;
    e.allocation_record = rec;
    e.owner_id = a->owner->funcs->get_id(a->owner);
    QM_HEAP_notify_event(&e);
    errors = true;
  }
  if (releasing && (rec.flags & af_notify_dealloc)) raise_record_event(qm_heap_event_dealloc_notification, a->op, rec);
  if (!releasing && (rec.flags & af_notify_realloc))
    raise_record_event(qm_heap_event_realloc_notification, a->op, rec, new_len);
  return errors;
}

// The C owner's own block: the rights check cannot fail.
bool owns_quietly(op_body_arg_t* a, const allocation_record_t& rec) {
  return rec.owner_id == a->owner->id && a->owner == qm::as_owner(QM_HEAP_c_owner_get_instance());
}

// A release that raises nothing before the block goes: the caller owns the
// block and no one asked to stop at its release.
bool releases_quietly(op_body_arg_t* a, const allocation_record_t& rec) {
  return (rec.flags & af_notify_dealloc) == 0 && owns_quietly(a, rec);
}

allocator_t* allocator_of(const allocation_record_t& rec, owner_t* owner) {
  allocator_t* al = QM_HEAP_am_get_allocator(rec.allocator_id);
  return al != nullptr ? al : qm::owner_allocator(owner);
}

}  // namespace

extern "C" {

size_t QM_HEAP_get_default_alignment() { return alignof(max_align_t); }
size_t QM_HEAP_get_valloc_alignment() { return QM_getpagesize(); }

// The counts are atomic words: every operation counts itself without taking
// the counter's mutex, which only the fork handlers and a locked report take
// (an increment is never split by fork).
void inc_op_count(QM_HEAP_op_count_t* counts, int need_to_lock, int inc_ops, int inc_errors) {
  (void)need_to_lock;
  if (inc_ops) __atomic_fetch_add(&counts->ops, 1, __ATOMIC_RELAXED);
  if (inc_errors) __atomic_fetch_add(&counts->errors, 1, __ATOMIC_RELAXED);
}

void lock_op_counts() {
  for (int i = 0; i < num_op_count_mutexes; ++i) qm::mutex_lock(op_count_mutexes[i]);
}

void unlock_op_counts() {
  for (int i = num_op_count_mutexes - 1; i >= 0; --i) qm::mutex_unlock(op_count_mutexes[i]);
}

generation_t QM_HEAP_get_generation() { return static_cast<generation_t>(QM_HEAP_generation); }

generation_t QM_HEAP_inc_generation() {
  qm::mutex_lock(&generation_mutex);
  int g = QM_HEAP_generation + 1;
  QM_HEAP_generation = g;
  qm::mutex_unlock(&generation_mutex);
  return static_cast<generation_t>(g);
}

void QM_HEAP_generation_atfork_prepare() { qm::mutex_lock(&generation_mutex); }
void QM_HEAP_generation_atfork_parent() { qm::mutex_unlock(&generation_mutex); }
void QM_HEAP_generation_atfork_child() { qm::mutex_unlock(&generation_mutex); }

void* malloc_body(op_body_arg_t* a, size_t len) {
  OpBacktrace bt;
  return allocation_body(
      a, qm_heap_op_malloc, len, QM_HEAP_alignment_default,
      [](allocator_t* al, owner_t* o, size_t, size_t, size_t n) { return al->funcs->malloc(al, o, n); }, 0, 0,
      false);
}

void* calloc_body(op_body_arg_t* a, size_t nelems, size_t sizeof_elem) {
  OpBacktrace bt;
  size_t len;
  // A product that does not fit fails as the C library's calloc fails, and
  // is reported as the request it stands for: more than can be addressed.
  if (__builtin_mul_overflow(nelems, sizeof_elem, &len)) {
    QM_HEAP_event_info_t e = {};
    e.event = qm_heap_event_alloc_null;
    e.op = qm_heap_op_calloc;
    e.len = SIZE_MAX;
    QM_HEAP_notify_event(&e);
    inc_op_count(&QM_HEAP_calloc_op_counts, 1, 1, 1);
    errno = ENOMEM;
    return nullptr;
  }
  // With guards the allocator zeroes the guarded length: in elements when the
  // guards keep it a multiple of the element size, else in bytes.
  return allocation_body(
      a, qm_heap_op_calloc, len, QM_HEAP_alignment_default,
      [](allocator_t* al, owner_t* o, size_t n, size_t s, size_t total) {
        if (total == n * s) return al->funcs->calloc(al, o, n, s);
        if (s != 0 && total % s == 0) return al->funcs->calloc(al, o, total / s, s);
        return al->funcs->calloc(al, o, total, 1);
      },
      nelems, sizeof_elem, false, sizeof_elem, ptop_is_zeroed_alloc);
}

void* valloc_body(op_body_arg_t* a, size_t len) {
  OpBacktrace bt;
  return allocation_body(
      a, qm_heap_op_valloc, len, QM_HEAP_alignment_valloc,
      [](allocator_t* al, owner_t* o, size_t, size_t, size_t n) { return al->funcs->valloc(al, o, n); }, 0, 0,
      false);
}

void* memalign_body(op_body_arg_t* a, size_t alignment, size_t len) {
  OpBacktrace bt;
  bool bad = !is_power_of_two(alignment) ||
             (QM_HEAP_memalign_strict_even_multiple_of_alignment && alignment % sizeof(void*) != 0);
  if (bad) raise_bad_alignment(qm_heap_op_memalign, alignment);
  return allocation_body(
      a, qm_heap_op_memalign, len, alignment,
      [](allocator_t* al, owner_t* o, size_t b, size_t, size_t n) { return al->funcs->memalign(al, o, b, n); },
      alignment, 0, bad);
}

int posix_memalign_body(op_body_arg_t* a, void** memptr, size_t alignment, size_t len) {
  OpBacktrace bt;
  owner_t* owner = a->owner;
  allocator_t* al = choose_allocator(owner, len);
  if (QM_UNLIKELY(QM_HEAP_guard_check_on_entry)) check_all_guards(qm_heap_op_posix_memalign);
  bool bad = !is_power_of_two(alignment) || alignment % sizeof(void*) != 0;
  if (bad) raise_bad_alignment(qm_heap_op_posix_memalign, alignment);
  guard_settings_t gs = {};
  size_t alloc_len = len;
  if (QM_UNLIKELY(QM_HEAP_guard_enabled) && !bad) {
    QM_HEAP_guard_get_settings(static_cast<int>(alignment), 1, &gs);
    alloc_len = with_guards(gs, len);
  }
  void* base = nullptr;
  int r;
  {
    CancelWindow w(a);
    r = al->funcs->posix_memalign(al, owner, &base, alignment, alloc_len);
  }
  if (r == ENOMEM && len != 0 && autoshrink_active()) {
    base = autoshrink_and_retry(a, qm_heap_op_posix_memalign, [&]() -> void* {
      void* q = nullptr;
      return al->funcs->posix_memalign(al, owner, &q, alignment, alloc_len) == 0 ? q : nullptr;
    });
    if (base != nullptr) r = 0;
  }
  if (r == EINVAL && !bad) QM_HEAP_printf("posix_memalign returned EINVAL but this should have been caught earlier\n");
  else if (r != 0 && r != EINVAL) QM_HEAP_printf("posix_memalign returned %d\n", r);
  bool errors = bad;
  void* p = r == 0 ? static_cast<char*>(base) + gs.pre_size : nullptr;
  if (r == 0 || r == ENOMEM) {
    NewBlock b = {qm_heap_op_posix_memalign, p, len, alloc_len, expected_alignment_of(al, alignment), owner, al,
                  QM_HEAP_op_backtrace_id, nullptr};
    errors = record_allocation(b, gs, ptop_isnt_zeroed_alloc) || errors;
  }
  if (r == 0) *memptr = p;
  inc_op_count(&QM_HEAP_posix_memalign_op_counts, 1, 1, errors);
  if (QM_UNLIKELY(QM_HEAP_guard_check_on_exit)) check_all_guards(qm_heap_op_posix_memalign);
  return r;
}

void free_body(op_body_arg_t* a, void* p) {
  owner_t* owner = a->owner;
  // delete and delete[] report as themselves.
  const QM_HEAP_heap_op_e op = a->kind != 0 ? a->op : qm_heap_op_free;
  if (QM_UNLIKELY(QM_HEAP_guard_check_on_entry)) check_all_guards(op);
  if (p == nullptr) {
    inc_op_count(&QM_HEAP_free_op_counts, 1, 1, 0);
    if (QM_UNLIKELY(QM_HEAP_guard_check_on_exit)) check_all_guards(op);
    return;
  }
  OpBacktrace bt;
  // The tables first, in one critical section when the block asks for
  // nothing to be raised or done before its release; the allocator after,
  // outside the lock. Until the allocator has it back nobody can be handed
  // the block again, and a racing second release already finds it released.
  allocation_record_t rec;
  QM_HEAP_event_e claim_event = qm_heap_event_none;
  EventQueue q;
  bool retired = false, gone = false, hoarded = false;
  QM_HEAP_ht_alloc_write_lock();
  alloc_rec_id_t id = claim_alloc_rec(p, &rec, &claim_event, op);
  if (id != nullptr && releases_quietly(a, rec) && !protection_on_release(rec) && !release_mismatch(a, rec)) {
    gone = !retire_claimed_record(id, rec, op, "free_body", q, true);
    retired = true;
  }
  QM_HEAP_ht_alloc_write_unlock();

  if (id == nullptr) {
    bool errors = check_unknown_address(op, p, 0, claim_event, rec);
    // A hoarded block is the hoard's to give back: a second release of it is
    // reported and goes no further.
    // Nor is a red-zone block's address (or one inside it) the C
    // allocator's to see.
    if (!(errors && claim_event == qm_heap_event_alloc_not_in_heap && is_hoarded_range(p)) &&
        !qm::rz_owns_address(p)) {
      allocator_t* al = qm::owner_allocator(owner);
      CancelWindow w(a);
      al->funcs->free(al, owner, p);
    }
    inc_op_count(&QM_HEAP_free_op_counts, 1, 1, errors);
    if (QM_UNLIKELY(QM_HEAP_guard_check_on_exit)) check_all_guards(op);
    return;
  }

  bool errors = false;
  guard_settings_t gs = settings_of(rec);
  if (!retired) {
    errors = check_claimed_block(a, rec, or_free, 0, true);
    errors = check_block_guards(op, rec, gs) || errors;
    const DeallocPaint paint = paint_on_deallocation(rec.addr, rec.len);
    hoarded = retire_into_hoard(id, rec, op, "free_body", q, paint, &gone);
  }
  if (!hoarded) {
    allocator_t* al = allocator_of(rec, owner);
    CancelWindow w(a);
    al->funcs->free(al, owner, static_cast<char*>(rec.addr) - gs.pre_size);
  }
  if (gone) raise_record_event(qm_heap_event_alloc_deleted_during_op, op, rec);
  errors = q.raise() || gone || errors;
  inc_op_count(&QM_HEAP_free_op_counts, 1, 1, errors);
  if (QM_UNLIKELY(QM_HEAP_guard_check_on_exit)) check_all_guards(op);
}

// A resized block keeps its guards' geometry (its guard id never changes;
// new settings are for new blocks): the allocator resizes the guarded block,
// the payload stays after the same pre-guard, the post-guard is filled anew
// behind the new length, and only a grown tail is painted.
void* realloc_body(op_body_arg_t* a, void* old_addr, size_t len) {
  OpBacktrace bt;
  owner_t* owner = a->owner;
  if (old_addr == nullptr)
    return allocation_body(
        a, qm_heap_op_realloc, len, QM_HEAP_alignment_default,
        [](allocator_t* al, owner_t* o, size_t, size_t, size_t n) { return al->funcs->realloc(al, o, nullptr, n); },
        0, 0, false);
  if (QM_UNLIKELY(QM_HEAP_guard_check_on_entry)) check_all_guards(qm_heap_op_realloc);

  allocation_record_t rec;
  QM_HEAP_event_e claim_event = qm_heap_event_none;
  QM_HEAP_ht_alloc_write_lock();
  alloc_rec_id_t id = claim_alloc_rec(old_addr, &rec, &claim_event, qm_heap_op_realloc);
  // A resize that raises nothing before the allocator's call keeps the lock
  // from the claim to the record's update: one critical section.
  const bool held = id != nullptr && len != 0 && (rec.flags & af_notify_realloc) == 0 && owns_quietly(a, rec) &&
                    rec.guard_id == 0 && !QM_HEAP_paint_paint_on_deallocation && !release_mismatch(a, rec);
  if (!held) QM_HEAP_ht_alloc_write_unlock();

  if (id == nullptr) {
    // An unknown block is still handed to the allocator; what it returns is
    // recorded as a new block. A hoarded one is not: the program gets a new
    // block with what the old one held.
    bool errors = check_unknown_address(qm_heap_op_realloc, old_addr, len, claim_event, rec);
    allocator_t* al = qm::owner_allocator(owner);
    void* r;
    allocation_record_t d = {};
    const bool from_hoard = errors && claim_event == qm_heap_event_alloc_not_in_heap && is_hoarded_range(old_addr) &&
                            QM_HEAP_lookup_deallocation_record(old_addr, &d, exact) != nullptr;
    // An address in a red-zone mapping gets a new block, and what it held
    // stays where it was (it may be inaccessible).
    const bool rz_owned = !from_hoard && qm::rz_owns_address(old_addr);
    {
      CancelWindow w(a);
      r = al->funcs->realloc(al, owner, from_hoard || rz_owned ? nullptr : old_addr, len);
    }
    if (r != nullptr && from_hoard) __builtin_memcpy(r, old_addr, d.len < len ? d.len : len);
    if (r != nullptr) {
      NewBlock b = {qm_heap_op_realloc, r, len, len, QM_HEAP_alignment_default, owner, al, QM_HEAP_op_backtrace_id,
                    nullptr};
      errors = handle_allocation(b) || errors;
    }
    inc_op_count(&QM_HEAP_realloc_op_counts, 1, 1, errors);
    if (QM_UNLIKELY(QM_HEAP_guard_check_on_exit)) check_all_guards(qm_heap_op_realloc);
    return r;
  }

  const guard_settings_t gs = settings_of(rec);
  bool errors = held ? false : check_claimed_block(a, rec, or_realloc, len, len == 0);
  if (!held) errors = check_block_guards(qm_heap_op_realloc, rec, gs) || errors;
  allocator_t* al = allocator_of(rec, owner);
  void* base = static_cast<char*>(rec.addr) - gs.pre_size;
  EventQueue q;

  if (len == 0) {
    // Released: the tables first, then the allocator (which frees it), or
    // the hoard.
    const DeallocPaint paint = paint_on_deallocation(rec.addr, rec.len);
    bool gone = false;
    const bool hoarded = retire_into_hoard(id, rec, qm_heap_op_realloc, "realloc_body", q, paint, &gone);
    void* r = nullptr;
    if (!hoarded) {
      CancelWindow w(a);
      al->funcs->free(al, owner, base);
    }
    if (gone) raise_record_event(qm_heap_event_alloc_deleted_during_op, qm_heap_op_realloc, rec);
    errors = q.raise() || gone || errors;
    inc_op_count(&QM_HEAP_realloc_op_counts, 1, 1, errors);
    if (QM_UNLIKELY(QM_HEAP_guard_check_on_exit)) check_all_guards(qm_heap_op_realloc);
    return r;
  }

  // Painting the old block on its release: what it held is kept aside first
  // and put into the block the allocator returns.
  const size_t kept = rec.len < len ? rec.len : len;
  char small_copy[256];
  void* copy = nullptr;
  if (QM_HEAP_paint_paint_on_deallocation && kept > 0) {
    copy = kept <= sizeof small_copy ? small_copy : QM_page_alloc(kept, mmt_hia_paint_block);
    if (copy == nullptr) {
      QM_HEAP_printf("Error getting memory buffer for deallocation painting for realloc\n");
    } else {
      __builtin_memcpy(copy, rec.addr, kept);
      paint_on_deallocation(rec.addr, rec.len);
    }
  }

  bool deleted = false;
  bool changed = false;
  allocation_record_t current = {};
  const size_t alloc_len = with_guards(gs, len);
  void* r;
  // The lock is held across the allocator's call (it may hand the old range
  // to another thread at once), and so the caller's cancellation state is not
  // restored around it: a cancellation must never find an agent lock held.
  if (!held) QM_HEAP_ht_alloc_write_lock();
  // The block stays with its allocator unless red zones now apply to the new
  // length and it has none, or the reverse.
  allocator_t* r_al = al;
  if (QM_UNLIKELY(qm::use_rz_allocator(len) != (al->id == am_id_rz_allocator))) r_al = choose_allocator(owner, len);
  void* r_base = r_al == al ? al->funcs->realloc(al, owner, base, alloc_len)
                            : move_across(al, r_al, owner, base, with_guards(gs, rec.len), alloc_len);
  r = r_base != nullptr ? static_cast<char*>(r_base) + gs.pre_size : nullptr;
  if (r != nullptr) {
    if (copy != nullptr) __builtin_memcpy(r, copy, kept);
    if (len > rec.len) paint_on_allocation(ptop_isnt_zeroed_alloc, static_cast<char*>(r) + rec.len, len - rec.len);
    if (rec.guard_id != 0) QM_HEAP_guard_fill_guards(r == rec.addr ? gfm_post : gfm_both, r, len, &gs);
  } else if (copy != nullptr) {
    __builtin_memcpy(rec.addr, copy, kept);  // the old block lives on, unpainted
  }
  if (copy != nullptr && copy != small_copy) QM_page_dealloc(copy);
  alloc_rec_id_t again = held ? id : QM_HEAP_lookup_allocation_record(rec.addr, nullptr, exact);
  if (again != nullptr) current = again->allocation_record;
  if (again == nullptr) {
    deleted = true;
  } else {
    changed = again != id || current.len != rec.len;
    wake_up_any_threads_waiting_for_alloc_record(again);
    if (r == nullptr) {
      // The old block stays live as it was.
      QM_HEAP_clear_alloc_flags_by_id(again, af_op_in_progress);
      q.add(qm_heap_event_alloc_null, qm_heap_op_realloc).len = len;
    } else if (r == rec.addr) {
      // A block resized in place is realloc's now, whoever made it.
      if (QM_HEAP_set_alloc_control_info_by_id(again, nullptr) != 0 ||
          QM_HEAP_clear_alloc_flags_by_id(again, af_op_in_progress | static_cast<int>(af_kind_mask)) != 0 ||
          QM_HEAP_set_alloc_len_by_id(again, len) != 0)
        q.add_record(qm_heap_event_modification_error, qm_heap_op_realloc, current);
      if (len > current.len) {
        do_remove_deallocations(static_cast<char*>(r) + current.len, len - current.len + gs.post_size,
                                qm_heap_op_realloc, q);
      } else if (len < current.len) {
        allocation_record_t tail = current;
        tail.addr = static_cast<char*>(r) + len;
        tail.len = current.len - len;
        tail.backtrace_id = QM_HEAP_op_backtrace_id;
        tail.flags = 0;
        tail.control_info = nullptr;
        tail.guard_id = 0;
        do_insert_deallocation_record(tail, qm_heap_op_realloc, q);
      }
    } else {
      alloc_rec_id_t dealloc_id = nullptr;
      if (do_remove_allocation_record(current, qm_heap_op_realloc, QM_HEAP_op_backtrace_id, &dealloc_id, q) == 0 &&
          dealloc_id == nullptr)
        QM_assert(0, "realloc_body: invalid dealloc id returned from do_remove_allocation_record (../malloc_interposers.c)");
    }
  }
  if (r != nullptr && r != rec.addr) {
    NewBlock b = {qm_heap_op_realloc, r, len, alloc_len, expected_alignment_of(r_al, QM_HEAP_alignment_default), owner,
                  r_al, QM_HEAP_op_backtrace_id, &rec};
    b.guard_id = rec.guard_id;
    b.pre_size = gs.pre_size;
    b.post_size = gs.post_size;
    record_new_block(b, q);
  }
  QM_HEAP_hoard_trim_to_size_constraints();
  q.take_hoard_events();
  QM_HEAP_ht_alloc_write_unlock();
  if (deleted) raise_record_event(qm_heap_event_alloc_deleted_during_op, qm_heap_op_realloc, rec);
  if (changed) {
    QM_HEAP_event_info_t e = {};
    e.event = qm_heap_event_alloc_changed_during_op;
    e.op = qm_heap_op_realloc;
    e.allocation_record = rec;
    e.allocation_record_2 = current;
    QM_HEAP_notify_event(&e);
  }
  errors = q.raise() || deleted || changed || errors;
  inc_op_count(&QM_HEAP_realloc_op_counts, 1, 1, errors);
  if (QM_UNLIKELY(QM_HEAP_guard_check_on_exit)) check_all_guards(qm_heap_op_realloc);
  return r;
}

}  // extern "C"
