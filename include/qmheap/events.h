/* The heap event record, as a debugger reads it from QM_HEAP_event.
 * Valid C and C++. */
#ifndef QMHEAP_EVENTS_H
#define QMHEAP_EVENTS_H

#include <stddef.h>
#include <time.h>

#include "qmheap/heap_types.h"
#include "qmheap/records.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum rz_flags_e {
  rzf_none = 0,
  rzf_has_pre_fence = 1,
  rzf_has_post_fence = 2,
  rzf_detect_use_after_free = 4,
  rzf_end_aligned = 8
} rz_flags_e;

typedef enum rz_state_e {
  rzs_none = 0,
  rzs_allocated = 1,
  rzs_deallocated = 2,
  rzs_avoid_trailing_comma_misery = 3
} rz_state_e;

/* One red-zone block. */
typedef struct rz_record_t {
  void* payload;
  void* alloc_addr;
  size_t payload_len;
  size_t alloc_len;
  size_t fence_size;
  int flags;
  int alignment;
  rz_state_e state;
} rz_record_t;

typedef struct QM_HEAP_event_info_t {
  QM_HEAP_event_e event;
  QM_HEAP_heap_op_e op;
  allocation_record_t allocation_record;
  allocation_record_t allocation_record_2;
  const void* addr;
  size_t len;
  size_t alignment;
  time_t timestamp;
  int backtrace_id;
  owner_id_t owner_id;
  allocator_id_t allocator_id;
  rz_record_t rz_record;
} QM_HEAP_event_info_t;

typedef enum QM_HEAP_event_fields_e {
  ef_event = 0,
  ef_op = 1,
  ef_allocation_record = 2,
  ef_allocation_record_2 = 3,
  ef_addr = 4,
  ef_len = 5,
  ef_alignment = 6,
  ef_timestamp = 7,
  ef_backtrace_id = 8,
  ef_owner_id = 9,
  ef_allocator_id = 10,
  ef_rz_record = 11,
  ef_avoid_trailing_comma_misery = 12
} QM_HEAP_event_fields_e;

typedef unsigned int event_fields_bitmask_t;

enum { QM_HEAP_NUM_EVENT_FILTERS = 41 };
typedef volatile int event_filters_t[QM_HEAP_NUM_EVENT_FILTERS];

typedef struct event_config_name_mapping_t {
  const char* config_name;
  QM_HEAP_event_e event;
} event_config_name_mapping_t;

#ifdef __cplusplus
}
#endif
#endif
