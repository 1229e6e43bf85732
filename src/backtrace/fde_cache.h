// The unwinder's FDE lookup, cached by program counter, and the library
// unload that empties the cache. The exported _Unwind_Find_FDE and dlclose
// (backtrace/unwind_entry.cpp) are thin calls into these, so that unit tests
// can drive the cache without replacing their own unwinder.
#pragma once
#include "qmheap/backtrace.h"
#include "threads/thread_utils.h"

extern "C" {

typedef struct links_t {
  struct cache_node_t* prev;
  struct cache_node_t* next;
} links_t;

typedef struct cache_info_t {
  const void* fde;
  qm_anb_dwarf_eh_bases_t bases;
} cache_info_t;

typedef struct cache_node_t {
  void* pc;
  cache_info_t info;
  links_t hash_chain_links;
  links_t mru_chain_links;  // kept, never used
} cache_node_t;

typedef struct cache_chain_t {
  cache_node_t* head;
  cache_node_t* tail;
} cache_chain_t;

typedef QM_pthread_mutex_t cache_mutex_t;

typedef struct cache_t {
  cache_mutex_t mutex;
  int dlclose_count;
  int initialized;
  int valid;
  int eviction_cursor;
  int num_chains;
  cache_chain_t* chains;
  int num_nodes;
  cache_node_t* nodes;
  cache_node_t* free_nodes;
  cache_node_t* fresh_nodes;
  cache_node_t* fresh_nodes_bound;
  void* region;
  size_t region_length;
  fde_cache_stats_t stats;
} cache_t;

extern int QM_STACK_fde_cache_caching;
extern int QM_STACK_fde_cache__Unwind_Find_FDE_times_called;

int QM_STACK_fde_cache_init();
void QM_STACK_fde_cache_reset();
int QM_STACK_fde_cache_get_num_nodes();
int QM_STACK_fde_cache_get_num_chains();
void QM_STACK_fde_cache_get_stats(fde_cache_stats_t* stats);
int QM_STACK_fde_cache_debug_is_in(void* pc);
int QM_STACK_fde_cache_iterate(int (*f)(void* pc, int* stop, void* arg), void* arg);

// The bodies of the exported functions. real_find and real_dlclose override
// the located real functions when not null (unit tests).
const void* QM_STACK_fde_cache_find(void* pc, qm_anb_dwarf_eh_bases_t* bases);
int QM_STACK_fde_cache_dlclose(void* handle);
typedef const void* (*qm_find_fde_fn)(void*, qm_anb_dwarf_eh_bases_t*);
void QM_STACK_fde_cache_set_real_functions(qm_find_fde_fn real_find, int (*real_dlclose)(void*));

// Called around every library unload, with the cache's own state: the fast
// unwinder's step cache is emptied at the same moments.
void QM_STACK_unwind_steps_invalidate(int dlclose_in_progress);
}
