// The operation bodies: the agent's work for one outermost heap call. Each
// records what the allocator did in the allocation and deallocation tables
// and raises an event for every inconsistency, then hands the allocator's
// result back unchanged.
#pragma once
#include <stddef.h>

#include "core/entry.h"
#include "qmheap/records.h"

extern "C" {

typedef struct QM_HEAP_op_count_t {
  QM_pthread_mutex_t mutex;
  int ops;
  int errors;
} QM_HEAP_op_count_t;

extern QM_HEAP_op_count_t QM_HEAP_calloc_op_counts, QM_HEAP_free_op_counts, QM_HEAP_malloc_op_counts,
    QM_HEAP_realloc_op_counts, QM_HEAP_valloc_op_counts, QM_HEAP_memalign_op_counts,
    QM_HEAP_posix_memalign_op_counts, QM_HEAP_malloc_zone_from_ptr_op_counts, QM_HEAP_malloc_size_op_counts;

extern size_t QM_HEAP_alignment_default;
extern size_t QM_HEAP_alignment_valloc;
size_t QM_HEAP_get_default_alignment();
size_t QM_HEAP_get_valloc_alignment();

void inc_op_count(QM_HEAP_op_count_t* counts, int need_to_lock, int inc_ops, int inc_errors);
void lock_op_counts();
void unlock_op_counts();

extern volatile int QM_HEAP_generation;
generation_t QM_HEAP_get_generation();
generation_t QM_HEAP_inc_generation();
void QM_HEAP_generation_atfork_prepare();
void QM_HEAP_generation_atfork_parent();
void QM_HEAP_generation_atfork_child();

void* malloc_body(op_body_arg_t* a, size_t len);
void* calloc_body(op_body_arg_t* a, size_t nelems, size_t sizeof_elem);
void* valloc_body(op_body_arg_t* a, size_t len);
void* memalign_body(op_body_arg_t* a, size_t alignment, size_t len);
int posix_memalign_body(op_body_arg_t* a, void** memptr, size_t alignment, size_t len);
void* realloc_body(op_body_arg_t* a, void* old_addr, size_t len);
void free_body(op_body_arg_t* a, void* p);

}
