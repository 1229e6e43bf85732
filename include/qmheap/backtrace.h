/* The backtrace table as a debugger or a tool reads it: every distinct call
 * stack stored once, named by a dense identifier (1, 2, ...; 0 = none).
 * Valid C and C++. */
#ifndef QMHEAP_BACKTRACE_H
#define QMHEAP_BACKTRACE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int32_t backtrace_id_t;
typedef uint32_t backtrace_checksum_t;

/* One distinct call stack: the unit of the info chunks. */
typedef struct stack_backtrace_info_t {
  backtrace_checksum_t checksum; /* sum of its program counters, mod 2^32 */
  backtrace_id_t next;           /* next entry on its hash chain, 0 at the end */
  uint16_t info_chunk_no;
  uint16_t pcs_chunk_no;
  uint16_t pcs_chunk_offset; /* in program counters */
  uint16_t num_pcs;
} stack_backtrace_info_t;

/* A growable array of fixed-size chunks of equal units. Tags are
 * memory_manager_tag_e values, held as int. */
typedef struct stack_backtrace_chunk_table_t {
  void** table;
  int table_bound;
  int table_next;
  size_t table_current_size;
  size_t table_inc_size;
  int table_mm_tag;
  size_t chunk_size;
  int unit_size;
  int units_per_chunk;
  int chunk_mm_tag;
  void* chunk_current;
  int chunk_next;
} stack_backtrace_chunk_table_t;

typedef struct stack_backtrace_hash_chain_t {
  backtrace_id_t chain;
} stack_backtrace_hash_chain_t;

typedef struct stack_backtrace_table_t {
  backtrace_id_t next_backtrace_id;
  stack_backtrace_hash_chain_t* hash_table;
  int hash_table_bound;
  stack_backtrace_chunk_table_t info_table;
  stack_backtrace_chunk_table_t pcs_table;
  int num_insertions;
  stack_backtrace_info_t* mru;
  int mru_hit_count;
} stack_backtrace_table_t;

typedef struct stack_backtrace_table_stats_t {
  long num_insertions;
  long mru_hit_count;
  long num_entries;
  long num_chains;
  long chain_length_min;
  long chain_length_max;
  double chain_length_mean;
  double chain_length_sample_variance;
  long chain_hit_head_count_min;
  long chain_hit_head_count_max;
  double chain_hit_head_count_mean;
  double chain_hit_head_count_sample_variance;
} stack_backtrace_table_stats_t;

typedef int (*stack_backtrace_table_iter_func_t)(backtrace_id_t id, const void** pcs, int num_pcs, int* stop,
                                                  void* arg);

/* The three base addresses the unwinder expects with an FDE. */
typedef struct qm_anb_dwarf_eh_bases_t {
  void* tbase;
  void* dbase;
  void* func;
} qm_anb_dwarf_eh_bases_t;

enum { fde_cache_stats_num_hit_pos_buckets = 32 };

typedef struct fde_cache_stats_t {
  long num_accesses;
  long num_hits;
  long num_hits_second_try;
  long hit_positions[fde_cache_stats_num_hit_pos_buckets];
} fde_cache_stats_t;

#ifdef __cplusplus
}
#endif
#endif
