#include "heap/controls.h"

extern "C" {

// Guards.
extern constinit const int QM_HEAP_guard_supported = 1;
constinit volatile int QM_HEAP_guard_enabled = 0;
constinit volatile int QM_HEAP_guard_max_size = 0;
constinit volatile int QM_HEAP_guard_pre_size = 8;
constinit volatile int QM_HEAP_guard_post_size = 8;
constinit volatile int QM_HEAP_guard_pre_pattern = static_cast<int>(0x77777777u);
constinit volatile int QM_HEAP_guard_post_pattern = static_cast<int>(0x99999999u);
extern constinit const int QM_HEAP_guard_pattern_width = 4;
extern constinit const int QM_HEAP_guard_pattern_alignment = 1;

int QM_HEAP_guard_is_supported() { return QM_HEAP_guard_supported; }
int QM_HEAP_guard_is_enabled() { return QM_HEAP_guard_enabled; }
int QM_HEAP_guard_set_enabled(int v) { return qm::swap_setting(QM_HEAP_guard_enabled, v); }
int QM_HEAP_guard_get_max_guard_size() { return QM_HEAP_guard_max_size; }
int QM_HEAP_guard_set_max_guard_size(int v) { return qm::swap_setting(QM_HEAP_guard_max_size, v); }
int QM_HEAP_guard_get_pre_size() { return QM_HEAP_guard_pre_size; }
int QM_HEAP_guard_set_pre_size(int v) { return qm::swap_setting(QM_HEAP_guard_pre_size, v); }
int QM_HEAP_guard_get_post_size() { return QM_HEAP_guard_post_size; }
int QM_HEAP_guard_set_post_size(int v) { return qm::swap_setting(QM_HEAP_guard_post_size, v); }
int QM_HEAP_guard_get_pre_pattern() { return QM_HEAP_guard_pre_pattern; }
int QM_HEAP_guard_set_pre_pattern(int v) { return qm::swap_setting(QM_HEAP_guard_pre_pattern, v); }
int QM_HEAP_guard_get_post_pattern() { return QM_HEAP_guard_post_pattern; }
int QM_HEAP_guard_set_post_pattern(int v) { return qm::swap_setting(QM_HEAP_guard_post_pattern, v); }
int QM_HEAP_guard_get_pattern_width() { return QM_HEAP_guard_pattern_width; }
int QM_HEAP_guard_get_pattern_alignment() { return QM_HEAP_guard_pattern_alignment; }

// Painting.
constinit volatile int QM_HEAP_paint_paint_on_allocation = 0;
constinit volatile int QM_HEAP_paint_paint_on_deallocation = 0;
constinit volatile int QM_HEAP_paint_paint_over_zero = 0;
constinit volatile int QM_HEAP_paint_pattern_allocation = static_cast<int>(0xa110ca7fu);
constinit volatile int QM_HEAP_paint_pattern_deallocation = static_cast<int>(0xdea110cfu);
extern constinit const int QM_HEAP_paint_pattern_width = 4;

int QM_HEAP_is_painting_on_alloc() { return QM_HEAP_paint_paint_on_allocation; }
int QM_HEAP_set_painting_on_alloc(int v) { return qm::swap_setting(QM_HEAP_paint_paint_on_allocation, v); }
int QM_HEAP_is_painting_on_dealloc() { return QM_HEAP_paint_paint_on_deallocation; }
int QM_HEAP_set_painting_on_dealloc(int v) { return qm::swap_setting(QM_HEAP_paint_paint_on_deallocation, v); }
int QM_HEAP_is_painting_on_zalloc() { return QM_HEAP_paint_paint_over_zero; }
int QM_HEAP_set_painting_on_zalloc(int v) { return qm::swap_setting(QM_HEAP_paint_paint_over_zero, v); }
int QM_HEAP_paint_get_alloc_pattern() { return QM_HEAP_paint_pattern_allocation; }
int QM_HEAP_paint_set_alloc_pattern(int v) { return qm::swap_setting(QM_HEAP_paint_pattern_allocation, v); }
int QM_HEAP_paint_get_dealloc_pattern() { return QM_HEAP_paint_pattern_deallocation; }
int QM_HEAP_paint_set_dealloc_pattern(int v) { return qm::swap_setting(QM_HEAP_paint_pattern_deallocation, v); }
int QM_HEAP_paint_get_pattern_width() { return QM_HEAP_paint_pattern_width; }

// Hoard. The two boolean setters store 1 for any non-zero value.
extern constinit const int QM_HEAP_hoard_supported = 1;
constinit volatile int QM_HEAP_hoarding_enabled = 0;
constinit volatile int QM_HEAP_hoarding_all_blocks = 1;
constinit volatile int QM_HEAP_hoard_max_num_blocks = 32;
constinit volatile int QM_HEAP_hoard_max_kb = 256;
constinit volatile int QM_HEAP_hoard_autoshrink_enabled = 0;
constinit volatile int QM_HEAP_hoard_autoshrink_threshold_kb = 0;
constinit volatile int QM_HEAP_hoard_autoshrink_threshold_trigger_count = 1;
constinit volatile int QM_HEAP_hoard_num_blocks = 0;
constinit volatile int QM_HEAP_hoard_kb = 0;
constinit volatile int QM_HEAP_hoard_bytes = 0;

int QM_HEAP_is_hoarding_supported() { return QM_HEAP_hoard_supported; }
int QM_HEAP_is_hoarding_enabled() { return QM_HEAP_hoarding_enabled; }
int QM_HEAP_set_hoarding_enabled(int v) { return qm::swap_setting(QM_HEAP_hoarding_enabled, v != 0); }
int QM_HEAP_is_hoarding_all_blocks() { return QM_HEAP_hoarding_all_blocks; }
int QM_HEAP_set_hoarding_all_blocks(int v) { return qm::swap_setting(QM_HEAP_hoarding_all_blocks, v != 0); }
int QM_HEAP_hoard_get_max_num_blocks() { return QM_HEAP_hoard_max_num_blocks; }
int QM_HEAP_hoard_set_max_num_blocks(int v) { return qm::swap_setting(QM_HEAP_hoard_max_num_blocks, v); }
int QM_HEAP_hoard_get_max_kb() { return QM_HEAP_hoard_max_kb; }
int QM_HEAP_hoard_set_max_kb(int v) { return qm::swap_setting(QM_HEAP_hoard_max_kb, v); }
long QM_HEAP_hoard_get_current_size_bytes() {
  return static_cast<long>(QM_HEAP_hoard_kb) * 1024 + QM_HEAP_hoard_bytes;
}
int QM_HEAP_hoard_autoshrink_is_enabled() { return QM_HEAP_hoard_autoshrink_enabled; }
int QM_HEAP_hoard_autoshrink_set_enabled(int v) { return qm::swap_setting(QM_HEAP_hoard_autoshrink_enabled, v); }
int QM_HEAP_hoard_autoshrink_threshold_get_size_kb() { return QM_HEAP_hoard_autoshrink_threshold_kb; }
long QM_HEAP_hoard_autoshrink_threshold_get_size_bytes() {
  return static_cast<long>(QM_HEAP_hoard_autoshrink_threshold_kb) * 1024;
}
int QM_HEAP_hoard_autoshrink_threshold_set_size_kb(int v) {
  return qm::swap_setting(QM_HEAP_hoard_autoshrink_threshold_kb, v);
}
int QM_HEAP_hoard_autoshrink_threshold_trigger_get_count() {
  return QM_HEAP_hoard_autoshrink_threshold_trigger_count;
}
int QM_HEAP_hoard_autoshrink_threshold_trigger_set_count(int v) {
  return qm::swap_setting(QM_HEAP_hoard_autoshrink_threshold_trigger_count, v);
}
int QM_HEAP_hoard_autoshrink_threshold_trigger_inc_count(int delta) {
  return qm::swap_setting(QM_HEAP_hoard_autoshrink_threshold_trigger_count,
                          QM_HEAP_hoard_autoshrink_threshold_trigger_count + delta);
}

// memalign: whether the length must be an even multiple of the alignment.
constinit volatile int QM_HEAP_memalign_strict_even_multiple_of_alignment = 0;
int QM_HEAP_get_memalign_strict_even_multiple_of_alignment() {
  return QM_HEAP_memalign_strict_even_multiple_of_alignment;
}
int QM_HEAP_set_memalign_strict_even_multiple_of_alignment(int v) {
  return qm::swap_setting(QM_HEAP_memalign_strict_even_multiple_of_alignment, v);
}

}  // extern "C"
