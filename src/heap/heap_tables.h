// The allocation table (one record per live block) and the deallocation
// table (one record per released range not handed out again): AVL trees of
// nodes kept in agent pages, keyed by address. A record id is the node's
// address and stays valid until the record is removed.
//
// Each table has one mutex (the read and write locks are the same mutex);
// callers hold it around every call below. The allocation-table mutex is
// also the one threads wait with for an operation in progress on a block.
#pragma once
#include "base/avl.h"
#include "qmheap/records.h"
#include "threads/thread_utils.h"

extern "C" {

typedef struct heap_avl_node_t {
  allocation_record_t allocation_record;  // first: a node reads as a record
  avl_balance_t balance;
  struct heap_avl_node_t* left;
  struct heap_avl_node_t* right;
#if defined(__x86_64__)
  // A copy of allocation_record.addr beside the links, so that a descent by
  // address reads one cache line of each node (the record's first line holds
  // addr, the second the links); 128 bytes, one aligned pair of lines.
  void* key_addr;
  char pad[8];
#endif
} heap_avl_node_t;

typedef heap_avl_node_t* alloc_rec_id_t;  // null: no record

typedef struct heap_avl_info_t {
  heap_avl_node_t* root;
  heap_avl_node_t* free;  // released nodes, linked through left
  heap_avl_node_t* fresh_nodes;
  int fresh_nodes_next;
  int fresh_nodes_bound;
  int num_records;
} heap_avl_info_t;

typedef enum allocation_record_fields_e {
  ar_field_addr = 1,
  ar_field_len = 2,
  ar_field_backtrace_id = 4,
  ar_field_thread_id = 8,
  ar_field_flags = 16,
  ar_field_org_addr = 32,
  ar_field_org_len = 64,
  ar_field_org_backtrace_id = 128,
  ar_field_control_info = 256
} allocation_record_fields_e;

typedef enum lookup_method_e { lookup_exact = 0, lookup_non_exact = 1, lookup_region = 2 } lookup_method_e;
typedef enum exact_lookup_e { non_exact = 0, exact = 1 } exact_lookup_e;

typedef struct region_t {
  const void* base;
  const void* limit;
} region_t;

typedef struct allocation_table_iterator_t {
  int curr_pos;
} allocation_table_iterator_t;

typedef struct ht_filter_arg_t {
  int stop_iterating;
  int delete_it;
} ht_filter_arg_t;

typedef int (*ht_iter_func_t)(allocation_record_t* rec, int* stop_iterating, void* arg);
typedef int (*ht_filter_func_t)(alloc_rec_id_t id, ht_filter_arg_t* farg, void* arg);

extern heap_avl_info_t QM_HEAP_allocation_table;
// Changes of the allocation table's blocks (inserted, removed, resized).
extern unsigned long QM_HEAP_allocation_table_changes;
extern heap_avl_info_t QM_HEAP_deallocation_table;
extern volatile int default_heap_table_inc_num_nodes;
// One operations table per lookup method, indexed by lookup_method_e.
extern avl_ops_t* QM_HEAP_lookup_method_ops[3];

int QM_HEAP_init_heap_tables();
const char* QM_HEAP_alloc_rec_flag_to_str(int flag);

alloc_rec_id_t QM_HEAP_insert_allocation_record(const allocation_record_t* rec);
alloc_rec_id_t QM_HEAP_lookup_allocation_record(const void* addr, allocation_record_t* rec_out,
                                                exact_lookup_e exact_lookup);
// Inserts the record only if no live record intersects [addr, addr + span)
// (span 0 counts as 1), in one descent; null when one does (nothing changed).
alloc_rec_id_t QM_HEAP_insert_allocation_record_if_clear(const allocation_record_t* rec, size_t span);
alloc_rec_id_t QM_HEAP_lookup_allocation_range_record(const void* addr, size_t len,
                                                      allocation_record_t* rec_out);
int QM_HEAP_remove_allocation_record(const void* addr);
int QM_HEAP_get_num_records_in_allocation_table();
int QM_HEAP_get_allocation_record_by_id(alloc_rec_id_t id, allocation_record_t* rec_out);
int QM_HEAP_set_alloc_len_by_id(alloc_rec_id_t id, size_t len);
int QM_HEAP_set_alloc_flags_by_id(alloc_rec_id_t id, int flags);
int QM_HEAP_clear_alloc_flags_by_id(alloc_rec_id_t id, int flags);
int QM_HEAP_set_alloc_control_info_by_id(alloc_rec_id_t id, void* control_info);
int QM_HEAP_set_alloc_fields_by_id(alloc_rec_id_t id, const allocation_record_t* rec, int fields);
int QM_HEAP_check_allocation_table();
int QM_HEAP_iterate_over_allocation_table(ht_iter_func_t f, void* arg);
int QM_HEAP_iterate_over_allocation_table_range(ht_iter_func_t f, void* arg, const void* start,
                                                const void* limit);
int QM_HEAP_init_allocation_table_iterator(allocation_table_iterator_t* it);
int QM_HEAP_is_more_allocation_table_records(allocation_table_iterator_t* it);
// 1 and the next record in address order, or 0 at the end.
int QM_HEAP_next_allocation_table_record(allocation_table_iterator_t* it, allocation_record_t* rec_out);
int QM_HEAP_ht_alloc_filter(ht_filter_func_t f, void* arg);

alloc_rec_id_t QM_HEAP_insert_deallocation_record(const allocation_record_t* rec);
alloc_rec_id_t QM_HEAP_lookup_deallocation_record(const void* addr, allocation_record_t* rec_out,
                                                  exact_lookup_e exact_lookup);
alloc_rec_id_t QM_HEAP_lookup_deallocation_range_record(const void* addr, size_t len,
                                                        allocation_record_t* rec_out);
int QM_HEAP_remove_deallocation_record(const void* addr);
// The same, and *next the record that followed it in address order (null
// for none), found on the same descent.
int QM_HEAP_remove_deallocation_record_next(const void* addr, alloc_rec_id_t* next);
int QM_HEAP_get_num_records_in_deallocation_table();
int QM_HEAP_set_dealloc_addr_len_by_id(alloc_rec_id_t id, void* p, size_t len);
int QM_HEAP_set_dealloc_flags_by_id(alloc_rec_id_t id, int flags);
int QM_HEAP_clear_dealloc_flags_by_id(alloc_rec_id_t id, int flags);
int QM_HEAP_check_deallocation_table();
int QM_HEAP_iterate_over_deallocation_table(ht_iter_func_t f, void* arg);

// The allocation-table lock itself, for code that must only ever try it.
QM_pthread_mutex_t* QM_HEAP_ht_alloc_mutex();
QM_pthread_mutex_t* QM_HEAP_ht_dealloc_mutex();
int QM_HEAP_ht_alloc_read_lock();
int QM_HEAP_ht_alloc_read_unlock();
int QM_HEAP_ht_alloc_write_lock();
int QM_HEAP_ht_alloc_write_unlock();
int QM_HEAP_ht_dealloc_read_lock();
int QM_HEAP_ht_dealloc_read_unlock();
int QM_HEAP_ht_dealloc_write_lock();
int QM_HEAP_ht_dealloc_write_unlock();
int QM_HEAP_ht_alloc_cond_wait(QM_pthread_cond_t* cond);
void QM_HEAP_ht_atfork_prepare();
void QM_HEAP_ht_atfork_parent();
void QM_HEAP_ht_atfork_child();

// The address the allocator returned for the record's block (payload less
// any pre-guard); null for a null record.
void* QM_HEAP_ht_get_alloc_base_addr(const allocation_record_t* rec);
}
