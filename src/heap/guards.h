// Guard blocks: the geometry of a new block's guards, their fill and check,
// and the guard table that names each geometry once. Block painting, whose
// patterns are anchored the same way, lives here too.
#pragma once
#include <stddef.h>

#include "qmheap/protection.h"
#include "threads/thread_utils.h"

extern "C" {

// How an allocation is painted: never (a resize's preserved part), as an
// ordinary block, or as one the allocator zeroed (only with over-zero on).
typedef enum painting_op_e { ptop_never = 0, ptop_isnt_zeroed_alloc = 1, ptop_is_zeroed_alloc = 2 } painting_op_e;

extern guard_table_t QM_HEAP_guard_table;
extern volatile int QM_HEAP_guard_payload_alignment;
extern volatile int QM_HEAP_guard_alignment_checked;
extern volatile int QM_HEAP_guard_check_on_entry;
extern volatile int QM_HEAP_guard_check_on_exit;
extern guard_stats_t QM_HEAP_guard_stats;

int QM_HEAP_guard_init();
int QM_HEAP_guard_init_settings(guard_settings_t* settings);
int QM_HEAP_guard_get_settings(const int alignment, const size_t unit_size, guard_settings_t* settings);
int QM_HEAP_guard_fill_guards(const guard_fill_mode_t fill_mode, const void* payload_addr, const size_t payload_len,
                              const guard_settings_t* settings);
guard_status_e QM_HEAP_guard_check_guards(const void* payload_addr, const size_t payload_len,
                                          const guard_settings_t* settings);
const void* QM_HEAP_guard_payload_to_base_address(const void* payload, const guard_settings_t* settings);
const void* QM_HEAP_guard_base_to_payload_address(const void* base, const guard_settings_t* settings);

int QM_HEAP_gt_insert_settings(const guard_settings_t* settings, guard_id_t* id_out);
int QM_HEAP_gt_lookup_id(const guard_id_t id, guard_settings_t* settings_out);
typedef int (*guard_table_iter_func_t)(guard_id_t id, const guard_settings_t* settings, int* stop, void* arg);
int QM_HEAP_gt_table_iterate(guard_table_iter_func_t f, void* arg);
void QM_HEAP_gt_atfork_prepare();
void QM_HEAP_gt_atfork_parent();
void QM_HEAP_gt_atfork_child();
void QM_HEAP_guard_debug_comp_stats();

int QM_HEAP_guard_get_check_on_entry();
int QM_HEAP_guard_set_check_on_entry(int v);
int QM_HEAP_guard_get_check_on_exit();
int QM_HEAP_guard_set_check_on_exit(int v);

void QM_HEAP_paint_block(void* addr, int pattern, size_t len);
}

namespace qm {

// The 4-byte pattern laid out so that its byte 0 falls on multiples of
// anchor (1: from the first byte), and the check that bytes still hold it.
void fill_anchored(void* to, size_t len, uint32_t pattern, size_t anchor);
bool intact_anchored(const void* from, size_t len, uint32_t pattern, size_t anchor);

// The geometry of a guard id, as QM_HEAP_gt_lookup_id gives it, through a
// per-thread copy of the last one asked for (a geometry never changes once
// stored, and almost every block has the same one). False for an unknown id.
bool guard_settings_of(guard_id_t id, guard_settings_t* out);

}  // namespace qm
