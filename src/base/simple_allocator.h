// A small allocator of variable-sized pieces carved from page chunks, for
// short-lived work that needs many small records of unknown count. An
// instance belongs to one thread and is placed by its user (often on the
// stack). Worst-fit from an address-ordered free list; blocks are cut from
// the high end of a free block; released blocks coalesce with neighbours.
#pragma once
#include <stddef.h>

extern "C" {

typedef struct QM_SA_chunk_t {
  struct QM_SA_chunk_t* link;
  size_t len;  // the whole mapped length
} QM_SA_chunk_t;

typedef struct QM_SA_block_t {
  struct QM_SA_block_t* prev;
  struct QM_SA_block_t* next;
  size_t len;  // the whole block, header included
} QM_SA_block_t;

typedef struct QM_SA_simple_allocator_t {
  size_t min_chunk_size;
  size_t block_header_size;
  size_t chunk_header_size;
  QM_SA_block_t* free_list;
  QM_SA_chunk_t* chunk_list;
} QM_SA_simple_allocator_t;

int QM_SA_init(QM_SA_simple_allocator_t* sa, size_t min_chunk_size);
// len usable bytes aligned to the machine word; NULL for len 0 or no memory.
void* QM_SA_alloc(QM_SA_simple_allocator_t* sa, size_t len);
int QM_SA_dealloc(QM_SA_simple_allocator_t* sa, void* p);
// Unmaps every chunk; the instance must be initialised again before reuse.
int QM_SA_destroy(QM_SA_simple_allocator_t* sa);
}
