#include "redzone/rz_controls.h"

#include "base/assert.h"
#include "core/bodies.h"
#include "base/format.h"

#pragma GCC diagnostic ignored "-Wformat"
#include "base/page.h"
#include "events/output.h"

extern "C" {

constinit volatile int QM_HEAP_rz_supported = 1;
constinit volatile int QM_HEAP_rz_enabled = 0;
constinit volatile int QM_HEAP_rz_alloc_mode = rzam_overrun;
constinit volatile int QM_HEAP_rz_alignment = 0;
constinit volatile int QM_HEAP_rz_fence_size = 0;
constinit volatile int QM_HEAP_rz_exit_val = -1;
constinit volatile int QM_HEAP_rz_want_end_aligned = 0;
constinit volatile int QM_HEAP_rz_want_pre_fence = 0;
constinit volatile int QM_HEAP_rz_want_post_fence = 0;
constinit volatile int QM_HEAP_rz_want_use_after_free = 0;
constinit volatile int QM_HEAP_rz_size_ranges_enabled = 0;
constinit QM_HEAP_rz_size_range_t QM_HEAP_rz_size_ranges[rz_num_size_ranges] = {};
constinit int QM_HEAP_rz_size_ranges_num_ranges = rz_num_size_ranges;

}  // extern "C"

namespace {

int set_if_supported(volatile int& var, int v) {
  int old = var;
  if (QM_HEAP_rz_supported) var = v;
  return old;
}

int set_bool_if_supported(volatile int& var, int v) { return set_if_supported(var, v != 0); }

bool valid_range_id(int id) { return id >= 0 && id < rz_num_size_ranges; }

const char* rz_state_to_str(rz_state_e s) {
  switch (s) {
    case rzs_none: return "rzs_none";
    case rzs_allocated: return "rzs_allocated";
    case rzs_deallocated: return "rzs_deallocated";
    default: return "?";
  }
}

}  // namespace

extern "C" {

int QM_HEAP_rz_is_supported() { return QM_HEAP_rz_supported; }
int QM_HEAP_rz_is_enabled() { return QM_HEAP_rz_supported && QM_HEAP_rz_enabled; }
int QM_HEAP_rz_set_enabled(int v) { return set_bool_if_supported(QM_HEAP_rz_enabled, v); }
int QM_HEAP_rz_get_alloc_mode() { return QM_HEAP_rz_alloc_mode; }
int QM_HEAP_rz_set_alloc_mode(int mode) {
  int old = QM_HEAP_rz_alloc_mode;
  if (mode >= rzam_overrun && mode < rzam_avoid_trailing_comma_misery) QM_HEAP_rz_alloc_mode = mode;
  return old;
}
int QM_HEAP_rz_get_alignment_setting() { return QM_HEAP_rz_alignment; }
size_t QM_HEAP_rz_get_alignment() {
  return QM_HEAP_rz_alignment != 0 ? static_cast<size_t>(static_cast<unsigned>(QM_HEAP_rz_alignment))
                                   : QM_HEAP_alignment_default;
}
int QM_HEAP_rz_set_alignment(int v) { return set_if_supported(QM_HEAP_rz_alignment, v); }
int QM_HEAP_rz_get_fence_size_setting() { return QM_HEAP_rz_fence_size; }
size_t QM_HEAP_rz_get_fence_size() {
  size_t f = static_cast<size_t>(QM_HEAP_rz_fence_size);
  return f == 0 ? QM_getpagesize() : QM_pagesize_ceil(f);
}
int QM_HEAP_rz_set_fence_size(int v) { return set_if_supported(QM_HEAP_rz_fence_size, v); }
int QM_HEAP_rz_get_exit_val() { return QM_HEAP_rz_exit_val; }
int QM_HEAP_rz_set_exit_val(int v) { return set_if_supported(QM_HEAP_rz_exit_val, v); }
int QM_HEAP_rz_get_want_end_aligned() { return QM_HEAP_rz_want_end_aligned; }
int QM_HEAP_rz_set_want_end_aligned(int v) { return set_bool_if_supported(QM_HEAP_rz_want_end_aligned, v); }
int QM_HEAP_rz_get_want_pre_fence() { return QM_HEAP_rz_want_pre_fence; }
int QM_HEAP_rz_set_want_pre_fence(int v) { return set_bool_if_supported(QM_HEAP_rz_want_pre_fence, v); }
int QM_HEAP_rz_get_want_post_fence() { return QM_HEAP_rz_want_post_fence; }
int QM_HEAP_rz_set_want_post_fence(int v) { return set_bool_if_supported(QM_HEAP_rz_want_post_fence, v); }
int QM_HEAP_rz_get_want_use_after_free() { return QM_HEAP_rz_want_use_after_free; }
int QM_HEAP_rz_set_want_use_after_free(int v) {
  return set_bool_if_supported(QM_HEAP_rz_want_use_after_free, v);
}
int QM_HEAP_rz_size_ranges_is_enabled() { return QM_HEAP_rz_size_ranges_enabled; }
int QM_HEAP_rz_size_ranges_set_enabled(int v) { return set_bool_if_supported(QM_HEAP_rz_size_ranges_enabled, v); }

int QM_HEAP_rz_size_ranges_get_num_ranges() {
  if (QM_HEAP_rz_size_ranges_num_ranges != rz_num_size_ranges)
    QM_assert(0, "%s.%d: QM_HEAP_rz_size_ranges_num_ranges has unexpected value:\n%s.%d: expected %d, actual is %d\n",
              "../rz_controls", __LINE__, "../rz_controls", __LINE__, rz_num_size_ranges,
              QM_HEAP_rz_size_ranges_num_ranges);
  return rz_num_size_ranges;
}

int QM_HEAP_rz_size_ranges_get_range(int id, QM_HEAP_rz_size_range_t* out) {
  if (!valid_range_id(id) || out == nullptr) return -1;
  *out = QM_HEAP_rz_size_ranges[id];
  return 0;
}

int QM_HEAP_rz_size_ranges_set_range(int id, const QM_HEAP_rz_size_range_t* new_range,
                                     QM_HEAP_rz_size_range_t* old_range) {
  if (!valid_range_id(id)) return -1;
  if (old_range != nullptr) *old_range = QM_HEAP_rz_size_ranges[id];
  if (new_range != nullptr) QM_HEAP_rz_size_ranges[id] = *new_range;
  QM_HEAP_rz_size_ranges[id].flags |= rzsrf_in_use;
  return 0;
}

int QM_HEAP_rz_size_ranges_is_range_active(int id, int* is_active) {
  if (!valid_range_id(id) || is_active == nullptr) return -1;
  *is_active = (QM_HEAP_rz_size_ranges[id].flags & rzsrf_is_active) != 0;
  return 0;
}

int QM_HEAP_rz_size_ranges_set_range_active(int id, int bool_val) {
  if (!valid_range_id(id)) return -1;
  int f = QM_HEAP_rz_size_ranges[id].flags | rzsrf_in_use;
  QM_HEAP_rz_size_ranges[id].flags = bool_val ? (f | rzsrf_is_active) : (f & ~rzsrf_is_active);
  return 0;
}

int QM_HEAP_rz_size_ranges_iterate(rz_size_range_iterator_t* it) {
  if (it == nullptr) return -1;
  it->stop_iterating = 0;
  int r = 0;
  for (int id = 0; id < rz_num_size_ranges; ++id) {
    it->id = id;
    r = it->callback(it, &QM_HEAP_rz_size_ranges[id]);
    if (r != 0 || it->stop_iterating) break;
  }
  return r;
}

void QM_HEAP_rz_dump_rz_record(const rz_record_t* rec) {
  QM_HEAP_printf("  payload %#p length %lu, mapping %#p length %lu, fence %lu, alignment %d, %s",
                 rec->payload, static_cast<unsigned long>(rec->payload_len), rec->alloc_addr,
                 static_cast<unsigned long>(rec->alloc_len), static_cast<unsigned long>(rec->fence_size),
                 rec->alignment, rz_state_to_str(rec->state));
  static constexpr struct {
    int bit;
    const char* name;
  } kFlags[] = {{rzf_has_pre_fence, "rzf_has_pre_fence"},
                {rzf_has_post_fence, "rzf_has_post_fence"},
                {rzf_detect_use_after_free, "rzf_detect_use_after_free"},
                {rzf_end_aligned, "rzf_end_aligned"}};
  for (const auto& f : kFlags)
    if (rec->flags & f.bit) QM_s_printf(QM_stderr, " %s", f.name);
  QM_s_printf(QM_stderr, "\n");
}

}  // extern "C"
