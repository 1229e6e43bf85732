/* Records of the heap tables, as a debugger reads them in the target's
 * memory. Valid C and C++. */
#ifndef QMHEAP_RECORDS_H
#define QMHEAP_RECORDS_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "qmheap/heap_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef int backtrace_id_t;   /* 0: none; dense from 1, never reused */
typedef int guard_id_t;       /* 0: no guards */
typedef uint16_t generation_t;

typedef enum QM_HEAP_alloc_flags_e {
  af_op_in_progress = 1,
  af_notify_dealloc = 2,
  af_notify_realloc = 4,
  af_paint_on_dealloc = 8,
  af_dont_free_on_dealloc = 16,
  af_hoarded = 32
} QM_HEAP_alloc_flags_e;

/* Extension: which family of functions made a block, in flags bits the
 * defined flags leave free; none of them for the C functions. A block must
 * be released by its own family: free and realloc for the C functions,
 * delete for new, delete[] for new[], the aligned forms for aligned ones. */
typedef enum QM_HEAP_alloc_kind_e {
  af_kind_new = 64,
  af_kind_new_array = 128,
  af_kind_aligned = 256,
  af_kind_mask = 64 | 128 | 256
} QM_HEAP_alloc_kind_e;

typedef struct allocation_record_t {
  void* addr;          /* payload start (released range start in the deallocation table) */
  size_t len;          /* requested (or released) length */
  int backtrace_id;
  pthread_t thread_id;
  volatile int flags;  /* QM_HEAP_alloc_flags_e */
  void* org_addr;      /* the block as first allocated */
  size_t org_len;
  int org_backtrace_id;
  void* control_info;  /* waiters while an operation on the block is in progress */
  guard_id_t guard_id;
  generation_t generation;
  allocator_id_t allocator_id;
  owner_id_t owner_id;
} allocation_record_t;

#ifdef __cplusplus
}
#endif
#endif
