// Agent page memory: every table the agent keeps lives in whole pages that it
// maps itself and tags, so that a debugger or a core writer can enumerate the
// agent's own memory. Never touches the watched heap.
//
// The public functions take the manager's mutex while the process is
// multi-threaded; the *_internal ones take no lock and are for this file and
// its tests.
#pragma once
#include <stddef.h>

extern "C" {

typedef enum memory_manager_tag_e {
  mmt_unspecified = 0,
  mmt_priavte_start = 1,
  mmt_private_hash_table = 2,
  mmt_private_nodes = 3,
  mmt_priavte_end = 63,
  mmt_utils_start = 64,
  mmt_utils_ipht_first_block = 65,
  mmt_utils_ipht_general_block = 66,
  mmt_utils_end = 127,
  mmt_dwarf_start = 128,
  mmt_dwarf_fde_lookup_tables = 129,
  mmt_dwarf_end = 191,
  mmt_backtrace_start = 192,
  mmt_backtrace_hash_table = 193,
  mmt_backtrace_info_table = 194,
  mmt_backtrace_info_chunk = 195,
  mmt_backtrace_pcs_table = 196,
  mmt_backtrace_pcs_chunk = 197,
  mmt_backtrace_fde_cache = 198,
  mmt_backtrace_end = 255,
  mmt_threads_start = 256,
  mmt_threads_reentrancy_table = 257,
  mmt_threads_cond_waiters_table = 258,
  mmt_threads_end = 319,
  mmt_hia_start = 320,
  mmt_hia_heap_avl_nodes = 321,
  mmt_hia_hoard_blocks = 322,
  mmt_hia_paint_block = 323,
  mmt_hia_guard_hash_nodes = 324,
  mmt_hia_guard_settings = 325,
  mmt_hia_dmz_owner_manager_nodes = 326,
  mnt_hia_dmz_batch_free_vector = 327,
  mmt_hia_rz_avl_nodes = 328,
  mmt_hia_lwmdbg_buffer = 329,
  mmt_hia_end = 383
} memory_manager_tag_e;

typedef struct memory_manager_region_t {
  void* base;
  size_t len;
  memory_manager_tag_e tag;
} memory_manager_region_t;

typedef struct mem_region_node_t {
  memory_manager_region_t region;
  struct mem_region_node_t* next;
} mem_region_node_t;

enum { QM_MM_HASH_TABLE_SIZE = 1021 };

typedef struct memory_manager_table_t {
  int hash_table_size;
  mem_region_node_t** hash_table;
  mem_region_node_t* free_chain;
  mem_region_node_t* fresh_nodes_base;
  int fresh_nodes_next;
  int fresh_nodes_bound;
  int num_regions;  // regions ever created, not regions alive
} memory_manager_table_t;

extern memory_manager_table_t QM_memory_manager_table;

typedef struct QM_MM_iterator_callbacks_t {
  void* arg;
  int stop_iterating;
  memory_manager_region_t region;
  int (*f)(struct QM_MM_iterator_callbacks_t* cb);
} QM_MM_iterator_callbacks_t;

// A zero-filled, page-aligned region of at least len bytes. Never NULL: a
// failed mapping is an assertion.
void* QM_page_alloc(const size_t len, const memory_manager_tag_e tag);
// Releases the region that starts exactly at p: 0, or -1 if there is none.
int QM_page_dealloc(const void* p);
// The region that starts exactly at addr: 0 and *region filled, or -1.
int QM_page_get_info(const void* addr, memory_manager_region_t* region);
// Visits every region, bucket by bucket; a non-zero callback result ends the
// walk and is returned; a set stop_iterating ends it with 0.
int QM_MM_iterate_regions(QM_MM_iterator_callbacks_t* callbacks);

void* QM_page_alloc_internal(const size_t len, const memory_manager_tag_e tag);
int QM_page_dealloc_internal(const void* p);
int QM_page_get_info_internal(const void* addr, memory_manager_region_t* region);
int QM_MM_iterate_regions_internal(QM_MM_iterator_callbacks_t* callbacks);

void QM_memory_manager_atfork_prepare();
void QM_memory_manager_atfork_post();
}
