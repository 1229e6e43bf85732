// The control functions a debugger calls in a stopped process. Each returns
// a status and passes results through pointers, so that a debugger can call
// it with nothing more than integer and pointer arguments.
//
// They may run while other threads are stopped anywhere, a table lock held
// for good among them: the block queries only ever try the table locks, for
// a while, and answer 3 rather than wait. Settings are plain words written
// without locks, as the configuration writes them.
#include "qmheap/hia_api.h"

#include "backtrace/backtrace_heap.h"
#include "base/export.h"
#include "core/binding.h"
#include "core/bodies.h"
#include "events/events.h"
#include "events/output.h"
#include "heap/controls.h"
#include "heap/guards.h"
#include "heap/heap_tables.h"
#include "leaks/reachability.h"
#include "snapshot/snapshot.h"

extern "C" {
extern const int QM_HEAP_version_major;
extern const int QM_HEAP_version_minor;
extern const int QM_HEAP_version_point;
extern const int QM_HEAP_version_service;
}

namespace {

constexpr int kOk = QM_HIA_API_ok;
constexpr int kInternal = QM_HIA_API_internal_error;
constexpr int kNullName = QM_HIA_API_null_name;
constexpr int kBadIndex = QM_HIA_API_bad_index;

inline int get(int* out, int value) {
  if (out != nullptr) *out = value;
  return kOk;
}

// The number of configurable events: counted once, on first use, by walking
// the name table to its null end.
constinit int num_configurable_events = -1;

int num_events() {
  if (num_configurable_events < 0) {
    int n = 0;
    while (QM_HEAP_event_config_name_mappings[n].config_name != nullptr) ++n;
    num_configurable_events = n;
  }
  return num_configurable_events;
}

bool event_of(int index, QM_HEAP_event_e* event) {
  if (index < 0 || index >= num_events()) return false;
  *event = QM_HEAP_event_config_name_mappings[index].event;
  return true;
}

// A block of one table found by any address inside it, under that table's
// lock (tried, never waited for). lookup gives 0 when found, 1 when not, and
// kInternal when the lock could not be taken or given back.
struct TableLock {
  QM_pthread_mutex_t* mutex;
  bool held;
  explicit TableLock(QM_pthread_mutex_t* m) : mutex(m), held(qm::mutex_try_for_a_while(m)) {}
  int release() {
    if (!held) return kInternal;
    held = false;
    return qm::mutex_unlock(mutex) == 0 ? kOk : kInternal;
  }
  ~TableLock() {
    if (held) qm::mutex_unlock(mutex);
  }
};

int base_len(bool allocated, const void* p, int* found, void** base, int* len) {
  TableLock lock(allocated ? QM_HEAP_ht_alloc_mutex() : QM_HEAP_ht_dealloc_mutex());
  if (!lock.held) return kInternal;
  allocation_record_t rec;
  const alloc_rec_id_t id = allocated ? QM_HEAP_lookup_allocation_record(p, &rec, non_exact)
                                      : QM_HEAP_lookup_deallocation_record(p, &rec, non_exact);
  if (lock.release() != kOk) return kInternal;
  get(found, id != nullptr);
  if (id != nullptr) {
    if (base != nullptr) *base = rec.addr;
    get(len, static_cast<int>(rec.len));
  }
  return kOk;
}

// The guard geometry of the live block holding p; 1 for no such block.
int block_guards(const void* p, allocation_record_t* rec, guard_settings_t* gs) {
  TableLock lock(QM_HEAP_ht_alloc_mutex());
  if (!lock.held) return kInternal;
  const alloc_rec_id_t id = QM_HEAP_lookup_allocation_record(p, rec, non_exact);
  if (id != nullptr && QM_HEAP_gt_lookup_id(rec->guard_id, gs) != 0) return kInternal;
  if (lock.release() != kOk) return kInternal;
  return id != nullptr ? kOk : 1;
}

}  // namespace

extern "C" {

QM_EXPORT int QM_HIA_API_get_version(int* major_ver, int* minor_ver, int* point_ver, int* service_ver) {
  get(major_ver, QM_HEAP_version_major);
  get(minor_ver, QM_HEAP_version_minor);
  get(point_ver, QM_HEAP_version_point);
  return get(service_ver, QM_HEAP_version_service);
}

// Getter and setter pairs over the agent's own accessors.
#define QM_API_GET(name, getter) \
  QM_EXPORT int QM_HIA_API_##name(int* v) { return get(v, getter()); }
#define QM_API_SET(name, setter) \
  QM_EXPORT int QM_HIA_API_##name(int v) {  \
    setter(v);                              \
    return kOk;                             \
  }
#define QM_API_PAIR(getname, setname, getter, setter) \
  QM_API_GET(getname, getter)                         \
  QM_API_SET(setname, setter)

QM_API_PAIR(get_verbosity, set_verbosity, QM_HEAP_get_verbosity, QM_HEAP_set_verbosity)
QM_API_PAIR(is_dump_allocation_table_on_exit, set_dump_allocation_table_on_exit,
            QM_HEAP_get_dump_allocation_table_on_exit, QM_HEAP_set_dump_allocation_table_on_exit)
QM_API_PAIR(is_memalign_strict_alignment_even_multiple, set_memalign_strict_alignment_even_multiple,
            QM_HEAP_get_memalign_strict_even_multiple_of_alignment,
            QM_HEAP_set_memalign_strict_even_multiple_of_alignment)
QM_API_PAIR(get_backtrace_depth, set_backtrace_depth, QM_HEAP_backtrace_get_depth, QM_HEAP_backtrace_set_depth)
QM_API_PAIR(get_backtrace_trim, set_backtrace_trim, QM_HEAP_backtrace_get_trim, QM_HEAP_backtrace_set_trim)
QM_API_PAIR(is_painting_on_alloc, set_painting_on_alloc, QM_HEAP_is_painting_on_alloc, QM_HEAP_set_painting_on_alloc)
QM_API_PAIR(is_painting_on_dealloc, set_painting_on_dealloc, QM_HEAP_is_painting_on_dealloc,
            QM_HEAP_set_painting_on_dealloc)
QM_API_PAIR(is_painting_on_zalloc, set_painting_on_zalloc, QM_HEAP_is_painting_on_zalloc,
            QM_HEAP_set_painting_on_zalloc)
QM_API_PAIR(get_alloc_pattern, set_alloc_pattern, QM_HEAP_paint_get_alloc_pattern, QM_HEAP_paint_set_alloc_pattern)
QM_API_PAIR(get_dealloc_pattern, set_dealloc_pattern, QM_HEAP_paint_get_dealloc_pattern,
            QM_HEAP_paint_set_dealloc_pattern)
QM_API_PAIR(is_hoarding_enabled, set_hoarding_enabled, QM_HEAP_is_hoarding_enabled, QM_HEAP_set_hoarding_enabled)
QM_API_PAIR(is_hoarding_all_blocks, set_hoarding_all_blocks, QM_HEAP_is_hoarding_all_blocks,
            QM_HEAP_set_hoarding_all_blocks)
QM_API_PAIR(get_hoard_max_num_blocks, set_hoard_max_num_blocks, QM_HEAP_hoard_get_max_num_blocks,
            QM_HEAP_hoard_set_max_num_blocks)
QM_API_PAIR(get_hoard_max_kb, set_hoard_max_kb, QM_HEAP_hoard_get_max_kb, QM_HEAP_hoard_set_max_kb)
QM_API_GET(is_guards_supported, QM_HEAP_guard_is_supported)
QM_API_PAIR(is_guards_enabled, set_guards_enabled, QM_HEAP_guard_is_enabled, QM_HEAP_guard_set_enabled)
QM_API_PAIR(get_max_guard_size, set_max_guard_size, QM_HEAP_guard_get_max_guard_size,
            QM_HEAP_guard_set_max_guard_size)
QM_API_PAIR(get_pre_guard_size, set_guard_pre_size, QM_HEAP_guard_get_pre_size, QM_HEAP_guard_set_pre_size)
QM_API_PAIR(get_post_guard_size, set_guard_post_size, QM_HEAP_guard_get_post_size, QM_HEAP_guard_set_post_size)
QM_API_PAIR(get_pre_guard_pattern, set_guard_pre_pattern, QM_HEAP_guard_get_pre_pattern,
            QM_HEAP_guard_set_pre_pattern)
QM_API_PAIR(get_post_guard_pattern, set_guard_post_pattern, QM_HEAP_guard_get_post_pattern,
            QM_HEAP_guard_set_post_pattern)
QM_API_GET(is_generate_core_supported, QM_HEAP_core_is_supported)
QM_API_PAIR(is_generate_core_enabled, set_generate_core_enabled, QM_HEAP_is_generate_core_enabled,
            QM_HEAP_set_generate_core_enabled)
QM_API_GET(is_generate_lwmem_supported, QM_HEAP_lwcore_is_supported)
QM_API_PAIR(is_generate_lwmem_enabled, set_generate_lwmem_enabled, QM_HEAP_lwcore_is_generate_enabled,
            QM_HEAP_lwcore_set_generate_enabled)
QM_API_GET(get_generation, QM_HEAP_get_generation)

#undef QM_API_PAIR
#undef QM_API_SET
#undef QM_API_GET

QM_EXPORT int QM_HIA_API_inc_generation(int* val) { return get(val, QM_HEAP_inc_generation()); }

// Per-event actions.
QM_EXPORT int QM_HIA_API_is_generate_core_event(int index, int* bool_val) {
  QM_HEAP_event_e e;
  if (!event_of(index, &e)) return kBadIndex;
  return QM_HEAP_get_generate_core_filter(e, bool_val) == 0 ? kOk : kInternal;
}
QM_EXPORT int QM_HIA_API_set_generate_core_event(int index, int bool_val) {
  QM_HEAP_event_e e;
  if (!event_of(index, &e)) return kBadIndex;
  return QM_HEAP_set_generate_core_filter(e, bool_val, nullptr) == 0 ? kOk : kInternal;
}
QM_EXPORT int QM_HIA_API_is_generate_lwmem_event(int index, int* bool_val) {
  QM_HEAP_event_e e;
  if (!event_of(index, &e)) return kBadIndex;
  return QM_HEAP_lwcore_get_generate_filter(e, bool_val) == 0 ? kOk : kInternal;
}
QM_EXPORT int QM_HIA_API_set_generate_lwmem_event(int index, int bool_val) {
  QM_HEAP_event_e e;
  if (!event_of(index, &e)) return kBadIndex;
  return QM_HEAP_lwcore_set_generate_filter(e, bool_val, nullptr) == 0 ? kOk : kInternal;
}

// Events by name.
QM_EXPORT int QM_HIA_API_get_num_events(int* n) { return get(n, num_events()); }

QM_EXPORT int QM_HIA_API_get_event_index(const char* name, int* index) {
  if (name == nullptr) return kNullName;
  for (int i = 0; i < num_events(); ++i) {
    const char* s = QM_HEAP_event_config_name_mappings[i].config_name;
    int k = 0;
    while (s[k] != '\0' && s[k] == name[k]) ++k;
    if (s[k] == name[k]) return get(index, i);
  }
  return kBadIndex;
}

QM_EXPORT int QM_HIA_API_get_event_name(int index, const char** event_name) {
  if (index < 0 || index >= num_events()) return kBadIndex;
  if (event_name != nullptr) *event_name = QM_HEAP_event_config_name_mappings[index].config_name;
  return kOk;
}

// The lightweight core file.
QM_EXPORT int QM_HIA_API_get_default_lwmem_pathname_specifier(char* buffer, int buffer_len, int* specifier_len) {
  return QM_HEAP_lwcore_get_pathname_specifier_default(buffer, buffer_len, specifier_len) == 0 ? kOk : kBadIndex;
}
QM_EXPORT int QM_HIA_API_get_lwmem_pathname_specifier(char* buffer, int buffer_len, int* specifier_len) {
  return QM_HEAP_lwcore_get_pathname_specifier(buffer, buffer_len, specifier_len) == 0 ? kOk : kBadIndex;
}
QM_EXPORT int QM_HIA_API_set_lwmem_pathname_specifier(const char* specifier) {
  return QM_HEAP_lwcore_set_pathname_specifier(specifier) == 0 ? kOk : kBadIndex;
}
// The lightweight core holds memory, not words: the title and notes have no
// place in it.
QM_EXPORT int QM_HIA_API_lwmem_generate_file(const char* fname, const char*, const char*) {
  return QM_HEAP_lwcore_generate_file(fname) == 0 ? kOk : kInternal;
}

// Block queries.
QM_EXPORT int QM_HIA_API_get_alloc_base_len(const void* p, int* is_allocated, void** base, int* len) {
  return base_len(true, p, is_allocated, base, len);
}
QM_EXPORT int QM_HIA_API_get_dealloc_base_len(const void* p, int* is_deallocated, void** base, int* len) {
  return base_len(false, p, is_deallocated, base, len);
}

QM_EXPORT int QM_HIA_API_get_alloc_hoard_status(const void* p, int* hoard_status) {
  TableLock lock(QM_HEAP_ht_alloc_mutex());
  if (!lock.held) return kInternal;
  allocation_record_t rec;
  const bool found = QM_HEAP_lookup_allocation_record(p, &rec, non_exact) != nullptr;
  if (lock.release() != kOk) return kInternal;
  return get(hoard_status, found && (rec.flags & af_dont_free_on_dealloc) != 0);
}

// The flag is changed under the table's read lock, as a debugger's write to
// the record would be.
QM_EXPORT int QM_HIA_API_set_alloc_hoard_status(const void* p, int hoard_status) {
  TableLock lock(QM_HEAP_ht_alloc_mutex());
  if (!lock.held) return kInternal;
  allocation_record_t rec;
  const alloc_rec_id_t id = QM_HEAP_lookup_allocation_record(p, &rec, non_exact);
  if (id != nullptr) {
    if (hoard_status)
      QM_HEAP_set_alloc_flags_by_id(id, af_dont_free_on_dealloc);
    else
      QM_HEAP_clear_alloc_flags_by_id(id, af_dont_free_on_dealloc);
  }
  return lock.release();
}

QM_EXPORT int QM_HIA_API_get_alloc_guard_settings(const void* p, int* pre_size, int* post_size, int* pre_pattern,
                                                  int* post_pattern) {
  allocation_record_t rec;
  guard_settings_t gs;
  const int r = block_guards(p, &rec, &gs);
  if (r != kOk) return r == 1 ? kOk : r;
  get(pre_size, static_cast<int>(gs.pre_size));
  get(post_size, static_cast<int>(gs.post_size));
  get(pre_pattern, static_cast<int>(gs.pre_pattern));
  return get(post_pattern, static_cast<int>(gs.post_pattern));
}

QM_EXPORT int QM_HIA_API_get_alloc_guard_status(const void* p, int* pre_is_ok, int* post_is_ok) {
  TableLock lock(QM_HEAP_ht_alloc_mutex());
  if (!lock.held) return kInternal;
  allocation_record_t rec;
  guard_settings_t gs;
  if (QM_HEAP_lookup_allocation_record(p, &rec, non_exact) == nullptr) return lock.release();
  if (QM_HEAP_gt_lookup_id(rec.guard_id, &gs) != 0) return kInternal;
  // The block's memory is read under the lock, so that it cannot be released
  // meanwhile.
  const guard_status_e s = QM_HEAP_guard_check_guards(rec.addr, rec.len, &gs);
  if (lock.release() != kOk) return kInternal;
  get(pre_is_ok, s != guards_pre_bad && s != guards_both_bad);
  return get(post_is_ok, s != guards_post_bad && s != guards_both_bad);
}

QM_EXPORT int QM_HIA_API_scan_reachability(int print, long* counts) {
  QM_HEAP_reach_summary_t r;
  // Only tried: a debugger's threads may be stopped holding the table lock.
  if (QM_HEAP_reach_scan(print, reach_lock_try_a_while, &r) != 0) return kInternal;
  if (counts != nullptr)
    for (int k = 0; k < reach_num_kinds; ++k) {
      counts[2 * k] = static_cast<long>(r.blocks[k]);
      counts[2 * k + 1] = static_cast<long>(r.bytes[k]);
    }
  return kOk;
}

}  // extern "C"
