/* Guard geometries, the guard table and the hoard, as a debugger reads them
 * in the target's memory. Valid C and C++. */
#ifndef QMHEAP_PROTECTION_H
#define QMHEAP_PROTECTION_H

#include <stddef.h>
#include <stdint.h>

#include "qmheap/events.h"
#include "qmheap/records.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t guard_size_t;
typedef uint32_t guard_pattern_t;
typedef uint32_t hash_sigma_t;

/* The guards of one block: pre_size bytes before the payload, post_size
 * after it, each the 4-byte pattern repeated (pattern 0 for no guard). */
typedef struct guard_settings_t {
  guard_size_t pre_size;
  guard_pattern_t pre_pattern;
  guard_size_t post_size;
  guard_pattern_t post_pattern;
} guard_settings_t;

typedef enum guard_status_e {
  guards_ok = 0,
  guards_pre_bad = 1,
  guards_post_bad = 2,
  guards_both_bad = 3
} guard_status_e;

typedef enum guard_fill_mode_t { gfm_none = 0, gfm_pre = 1, gfm_post = 2, gfm_both = 3 } guard_fill_mode_t;

typedef struct guard_hash_node_t {
  struct guard_hash_node_t* next;
  hash_sigma_t hash_val;
  guard_id_t id;
} guard_hash_node_t;

typedef struct guard_hash_chain_t {
  guard_hash_node_t* chain;
  int chain_length;
} guard_hash_chain_t;

enum { guard_table_hash_size = 41 };

typedef struct guard_table_t {
  pthread_mutex_t mutex;
  guard_hash_chain_t hash_table[guard_table_hash_size];
  int num_entries;
  guard_id_t mru_id;
  volatile long num_insertions;
  long num_insertions_satisfied_by_mru;
  long num_insertions_satisfied_by_table_lookup;
  guard_hash_node_t* nodes_base;
  int nodes_next;
  int nodes_bound;
  guard_settings_t* settings; /* indexed by guard id; id 0 is never stored */
  int settings_next;
  int settings_bound;
  size_t settings_size;
} guard_table_t;

typedef struct guard_stats_t {
  double chain_length_mean;
  double chain_length_sample_variance;
  int chain_length_max;
  int chain_length_min;
  int table_num_entries;
} guard_stats_t;

/* One hoarded block; index 0 of the array is never used (0 is "none"). */
typedef struct QM_HEAP_hoard_block_t {
  const void* addr;       /* the payload the program had */
  const void* alloc_addr; /* what goes back to the allocator */
  size_t len;             /* all ones while the entry is free */
  int next;               /* towards the back, or the next free entry */
  int prev;               /* towards the front */
} QM_HEAP_hoard_block_t;

typedef struct QM_HEAP_hoard_t {
  void* region;
  size_t region_size;
  QM_HEAP_hoard_block_t* blocks;
  int blocks_capacity;
  int front; /* oldest: the next to leave */
  int back;  /* newest */
  int free;
} QM_HEAP_hoard_t;

/* The red-zone allocator's table: one node per block it made, ordered by
 * payload address (mappings never overlap, so the same order answers "which
 * mapping holds this address"). Nodes come from the agent's pages and are
 * reused, never returned. The record type is in events.h. */
typedef struct rz_avl_node_t {
  rz_record_t rz_record;
  int balance; /* avl_balance_t */
  struct rz_avl_node_t* left;
  struct rz_avl_node_t* right;
} rz_avl_node_t;

typedef struct rz_stats_t {
  size_t payload; /* payload bytes */
  size_t fence;   /* fence bytes: the fence size once per fence present */
  size_t alloc;   /* mapped bytes */
  int num;        /* blocks */
} rz_stats_t;

typedef struct rz_table_t {
  rz_avl_node_t* root;
  rz_avl_node_t* free; /* released nodes, chained through left */
  rz_avl_node_t* fresh;
  rz_avl_node_t* fresh_bound;
  pthread_mutex_t* mutex;
  rz_stats_t alloc_stats;   /* live blocks */
  rz_stats_t dealloc_stats; /* released blocks kept to catch use after free */
} rz_table_t;

#ifdef __cplusplus
}
#endif
#endif
