// Control variables of guards, painting and hoarding, with their accessors.
// Plain volatile globals so that a stopped debugger can read and write them;
// every setter returns the previous value.
#pragma once

extern "C" {

extern const int QM_HEAP_guard_supported;
extern volatile int QM_HEAP_guard_enabled;
extern volatile int QM_HEAP_guard_max_size;
extern volatile int QM_HEAP_guard_pre_size;
extern volatile int QM_HEAP_guard_post_size;
extern volatile int QM_HEAP_guard_pre_pattern;
extern volatile int QM_HEAP_guard_post_pattern;
extern const int QM_HEAP_guard_pattern_width;
extern const int QM_HEAP_guard_pattern_alignment;
int QM_HEAP_guard_is_supported();
int QM_HEAP_guard_is_enabled();
int QM_HEAP_guard_set_enabled(int v);
int QM_HEAP_guard_get_max_guard_size();
int QM_HEAP_guard_set_max_guard_size(int v);
int QM_HEAP_guard_get_pre_size();
int QM_HEAP_guard_set_pre_size(int v);
int QM_HEAP_guard_get_post_size();
int QM_HEAP_guard_set_post_size(int v);
int QM_HEAP_guard_get_pre_pattern();
int QM_HEAP_guard_set_pre_pattern(int v);
int QM_HEAP_guard_get_post_pattern();
int QM_HEAP_guard_set_post_pattern(int v);
int QM_HEAP_guard_get_pattern_width();
int QM_HEAP_guard_get_pattern_alignment();

extern volatile int QM_HEAP_paint_paint_on_allocation;
extern volatile int QM_HEAP_paint_paint_on_deallocation;
extern volatile int QM_HEAP_paint_paint_over_zero;
extern volatile int QM_HEAP_paint_pattern_allocation;
extern volatile int QM_HEAP_paint_pattern_deallocation;
extern const int QM_HEAP_paint_pattern_width;
int QM_HEAP_is_painting_on_alloc();
int QM_HEAP_set_painting_on_alloc(int v);
int QM_HEAP_is_painting_on_dealloc();
int QM_HEAP_set_painting_on_dealloc(int v);
int QM_HEAP_is_painting_on_zalloc();
int QM_HEAP_set_painting_on_zalloc(int v);
int QM_HEAP_paint_get_alloc_pattern();
int QM_HEAP_paint_set_alloc_pattern(int v);
int QM_HEAP_paint_get_dealloc_pattern();
int QM_HEAP_paint_set_dealloc_pattern(int v);
int QM_HEAP_paint_get_pattern_width();

extern const int QM_HEAP_hoard_supported;
extern volatile int QM_HEAP_hoarding_enabled;
extern volatile int QM_HEAP_hoarding_all_blocks;
extern volatile int QM_HEAP_hoard_max_num_blocks;
extern volatile int QM_HEAP_hoard_max_kb;
extern volatile int QM_HEAP_hoard_autoshrink_enabled;
extern volatile int QM_HEAP_hoard_autoshrink_threshold_kb;
extern volatile int QM_HEAP_hoard_autoshrink_threshold_trigger_count;
extern volatile int QM_HEAP_hoard_num_blocks;
extern volatile int QM_HEAP_hoard_kb;
extern volatile int QM_HEAP_hoard_bytes;
int QM_HEAP_is_hoarding_supported();
int QM_HEAP_is_hoarding_enabled();
int QM_HEAP_set_hoarding_enabled(int v);
int QM_HEAP_is_hoarding_all_blocks();
int QM_HEAP_set_hoarding_all_blocks(int v);
int QM_HEAP_hoard_get_max_num_blocks();
int QM_HEAP_hoard_set_max_num_blocks(int v);
int QM_HEAP_hoard_get_max_kb();
int QM_HEAP_hoard_set_max_kb(int v);
long QM_HEAP_hoard_get_current_size_bytes();
int QM_HEAP_hoard_autoshrink_is_enabled();
int QM_HEAP_hoard_autoshrink_set_enabled(int v);
int QM_HEAP_hoard_autoshrink_threshold_get_size_kb();
long QM_HEAP_hoard_autoshrink_threshold_get_size_bytes();
int QM_HEAP_hoard_autoshrink_threshold_set_size_kb(int v);
int QM_HEAP_hoard_autoshrink_threshold_trigger_get_count();
int QM_HEAP_hoard_autoshrink_threshold_trigger_set_count(int v);
int QM_HEAP_hoard_autoshrink_threshold_trigger_inc_count(int delta);

extern volatile int QM_HEAP_memalign_strict_even_multiple_of_alignment;
int QM_HEAP_get_memalign_strict_even_multiple_of_alignment();
int QM_HEAP_set_memalign_strict_even_multiple_of_alignment(int v);
}

namespace qm {
inline int swap_setting(volatile int& var, int v) {
  int old = var;
  var = v;
  return old;
}
}  // namespace qm
