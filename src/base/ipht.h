// A small map from non-negative int keys to pointers, kept in agent pages.
//
// Keys are bucketed by the quotient key / size, not the remainder (small keys
// share the first bucket); a key whose bucket would lie outside the table is
// refused. A lookup consults only the most recently inserted or updated node,
// so a key that is present may be reported as not found: callers must cope.
#pragma once

extern "C" {

typedef struct hash_node_t {
  struct hash_node_t* next;
  void* p;
  int key;
} hash_node_t;

typedef struct int_pointer_hash_table_t {
  hash_node_t page_info;  // the first block: next and p null, key its length
  hash_node_t** hash_table;
  hash_node_t* free_list;
  hash_node_t* fresh_nodes;
  hash_node_t* fresh_nodes_bound;
  hash_node_t* next_block;
  hash_node_t* mru;
  int hash_table_size;
} int_pointer_hash_table_t;

// size < 1 gives 17 buckets. 0, or -1 when no page could be had.
int QM_ipht_new_table(int_pointer_hash_table_t** table, int size);
int QM_ipht_insert(int_pointer_hash_table_t* table, int key, void* p);
int QM_ipht_lookup(int_pointer_hash_table_t* table, int key, int* found, void** p);
int QM_ipht_remove(int_pointer_hash_table_t* table, int key);
}
