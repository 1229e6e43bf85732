// Red-zone controls and size ranges. Every setter returns the previous
// value; the setters other than the mode setter change nothing while red
// zones are unsupported, and the boolean setters store 1 for any non-zero
// argument.
#pragma once
#include <stddef.h>

#include "qmheap/events.h"

extern "C" {

typedef enum QM_HEAP_rz_alloc_mode_e {
  rzam_overrun = 0,
  rzam_underrun = 1,
  rzam_unfenced = 2,
  rzam_manual = 3,
  rzam_avoid_trailing_comma_misery = 4
} QM_HEAP_rz_alloc_mode_e;

enum { rzsrf_in_use = 1, rzsrf_is_active = 2 };
enum { rz_num_size_ranges = 16 };

typedef struct QM_HEAP_rz_size_range_t {
  int flags;
  size_t start;
  size_t end;  // 0: no upper bound
} QM_HEAP_rz_size_range_t;

typedef struct rz_size_range_iterator_t {
  void* callback_arg;
  int (*callback)(struct rz_size_range_iterator_t* it, QM_HEAP_rz_size_range_t* range);
  int id;
  int stop_iterating;
} rz_size_range_iterator_t;

extern volatile int QM_HEAP_rz_supported;
extern volatile int QM_HEAP_rz_enabled;
extern volatile int QM_HEAP_rz_alloc_mode;
extern volatile int QM_HEAP_rz_alignment;
extern volatile int QM_HEAP_rz_fence_size;
extern volatile int QM_HEAP_rz_exit_val;
extern volatile int QM_HEAP_rz_want_end_aligned;
extern volatile int QM_HEAP_rz_want_pre_fence;
extern volatile int QM_HEAP_rz_want_post_fence;
extern volatile int QM_HEAP_rz_want_use_after_free;
extern volatile int QM_HEAP_rz_size_ranges_enabled;
extern QM_HEAP_rz_size_range_t QM_HEAP_rz_size_ranges[rz_num_size_ranges];
extern int QM_HEAP_rz_size_ranges_num_ranges;

int QM_HEAP_rz_is_supported();
int QM_HEAP_rz_is_enabled();
int QM_HEAP_rz_set_enabled(int v);
int QM_HEAP_rz_get_alloc_mode();
int QM_HEAP_rz_set_alloc_mode(int mode);
int QM_HEAP_rz_get_alignment_setting();
// The raw setting, or the default alignment when it is 0.
size_t QM_HEAP_rz_get_alignment();
int QM_HEAP_rz_set_alignment(int v);
int QM_HEAP_rz_get_fence_size_setting();
size_t QM_HEAP_rz_get_fence_size();
int QM_HEAP_rz_set_fence_size(int v);
int QM_HEAP_rz_get_exit_val();
int QM_HEAP_rz_set_exit_val(int v);
int QM_HEAP_rz_get_want_end_aligned();
int QM_HEAP_rz_set_want_end_aligned(int v);
int QM_HEAP_rz_get_want_pre_fence();
int QM_HEAP_rz_set_want_pre_fence(int v);
int QM_HEAP_rz_get_want_post_fence();
int QM_HEAP_rz_set_want_post_fence(int v);
int QM_HEAP_rz_get_want_use_after_free();
int QM_HEAP_rz_set_want_use_after_free(int v);
int QM_HEAP_rz_size_ranges_is_enabled();
int QM_HEAP_rz_size_ranges_set_enabled(int v);
int QM_HEAP_rz_size_ranges_get_num_ranges();
int QM_HEAP_rz_size_ranges_get_range(int id, QM_HEAP_rz_size_range_t* out);
int QM_HEAP_rz_size_ranges_set_range(int id, const QM_HEAP_rz_size_range_t* new_range,
                                     QM_HEAP_rz_size_range_t* old_range);
int QM_HEAP_rz_size_ranges_is_range_active(int id, int* is_active);
int QM_HEAP_rz_size_ranges_set_range_active(int id, int bool_val);
int QM_HEAP_rz_size_ranges_iterate(rz_size_range_iterator_t* it);

void QM_HEAP_rz_dump_rz_record(const rz_record_t* rec);
}
