/* Enumerations and ids that a debugger or a tool reads from the agent.
 * Valid C and C++. */
#ifndef QMHEAP_HEAP_TYPES_H
#define QMHEAP_HEAP_TYPES_H

#ifdef __cplusplus
extern "C" {
#endif

typedef enum QM_HEAP_heap_op_e {
  qm_heap_op_nop = 0,
  qm_heap_op_calloc = 1,
  qm_heap_op_free = 2,
  qm_heap_op_malloc = 3,
  qm_heap_op_realloc = 4,
  qm_heap_op_memalign = 5,
  qm_heap_op_posix_memalign = 6,
  qm_heap_op_valloc = 7,
  qm_heap_op_private_hoard_insert = 8,
  qm_heap_op_private_hoard_remove = 9,
  qm_heap_op_init = 10,
  qm_heap_op_fini = 11,
  qm_heap_op_exit = 12,
  qm_heap_op__exit = 13,
  qm_heap_op_malloc_create_zone = 14,
  qm_heap_op_malloc_destroy_zone = 15,
  qm_heap_op_malloc_zone_calloc = 16,
  qm_heap_op_malloc_zone_free = 17,
  qm_heap_op_malloc_zone_malloc = 18,
  qm_heap_op_malloc_zone_realloc = 19,
  qm_heap_op_malloc_zone_valloc = 20,
  qm_heap_op_malloc_zone_memalign = 21,
  qm_heap_op_malloc_zone_batch_free = 22,
  qm_heap_op_malloc_zone_batch_malloc = 23,
  qm_heap_op_malloc_zone_from_ptr = 24,
  qm_heap_op_malloc_size = 25,
  qm_heap_op_rz_signal = 26,
  /* Extensions: the C++ allocation functions. */
  qm_heap_op_new = 27,
  qm_heap_op_new_array = 28,
  qm_heap_op_delete = 29,
  qm_heap_op_delete_array = 30
} QM_HEAP_heap_op_e;

typedef enum QM_HEAP_event_e {
  qm_heap_event_none = 0,
  qm_heap_event_free_not_allocated = 1,
  qm_heap_event_realloc_not_allocated = 2,
  qm_heap_event_addr_not_at_start = 3,
  qm_heap_event_double_alloc = 4,
  qm_heap_event_alloc_not_in_heap = 5,
  qm_heap_event_alloc_null = 6,
  qm_heap_event_alloc_returned_bad_alignment = 7,
  qm_heap_event_bad_alignment_argument = 8,
  qm_heap_event_op_in_progress = 9,
  qm_heap_event_alloc_added_during_op = 10,
  qm_heap_event_alloc_deleted_during_op = 11,
  qm_heap_event_alloc_changed_during_op = 12,
  qm_heap_event_dealloc_notification = 13,
  qm_heap_event_realloc_notification = 14,
  qm_heap_event_deletion_error = 15,
  qm_heap_event_insertion_error = 16,
  qm_heap_event_modification_error = 17,
  qm_heap_event_record_not_found = 18,
  qm_heap_event_startup_config_done = 19,
  qm_heap_event_double_dealloc = 20,
  qm_heap_event_guard_corruption = 21,
  qm_heap_event_termination_notification = 22,
  qm_heap_event_unknown_error = 23,
  qm_heap_event_addr_not_in_heap = 24,
  qm_heap_event_dmz_unknown_zone = 25,
  qm_heap_event_dmz_destruction_in_progress = 26,
  qm_heap_event_dmz_pending_zone = 27,
  qm_heap_event_dmz_unknown_state = 28,
  qm_heap_event_dmz_zone_creation_error = 29,
  qm_heap_event_dmz_duplicate_zone_created = 30,
  qm_heap_event_dmz_deleting_default_zone = 31,
  qm_heap_event_api_error = 32,
  qm_heap_event_rz_unknown = 33,
  qm_heap_event_rz_underrun = 34,
  qm_heap_event_rz_overrun = 35,
  qm_heap_event_rz_use_after_free = 36,
  qm_heap_event_rz_use_after_free_underrun = 37,
  qm_heap_event_rz_use_after_free_overrun = 38,
  qm_heap_event_autoshrink_threshold = 39,
  /* Extension: a block released by a function of another family than the
   * one that made it (free of new, delete of new[], ...), or by a sized
   * delete whose size is not the block's. */
  qm_heap_event_dealloc_mismatch = 40,
  qm_heap_event_avoid_trailing_comma_misery = 41
} QM_HEAP_event_e;

typedef int allocator_id_t;
typedef int owner_id_t;

typedef enum am_ids_e {
  am_id_invalid = 0,
  am_id_c_allocator = 1,
  am_id_rz_allocator = 2,
  am_id_dmz_allocator = 3,
  am_id_first_non_special = 4
} am_ids_e;

typedef enum om_ids_e {
  om_id_invalid = 0,
  om_id_c_owner = 1,
  om_id_darwin_default_zone = 2,
  om_id_first_non_special = 3
} om_ids_e;

typedef enum owner_rights_e {
  or_free = 0,
  or_realloc = 1,
  or_avoid_trailing_comma_misery = 2
} owner_rights_e;

#ifdef __cplusplus
}
#endif
#endif
