#include "base/ipht.h"

#include "base/memory_manager.h"
#include "base/page.h"

namespace {

constexpr int kDefaultSize = 17;

// The bucket head for key, or null when the key lies outside the table.
hash_node_t** bucket_of(int_pointer_hash_table_t* t, int key) {
  if (key < 0) return nullptr;
  int b = key / t->hash_table_size;
  return b < t->hash_table_size ? &t->hash_table[b] : nullptr;
}

hash_node_t* take_node(int_pointer_hash_table_t* t) {
  if (t->free_list != nullptr) {
    hash_node_t* n = t->free_list;
    t->free_list = n->next;
    return n;
  }
  if (t->fresh_nodes == nullptr || t->fresh_nodes >= t->fresh_nodes_bound) {
    size_t len = QM_pagesize_ceil(2 * sizeof(hash_node_t));
    auto* block = static_cast<hash_node_t*>(QM_page_alloc(len, mmt_utils_ipht_general_block));
    // The first slot records the block itself.
    block->key = static_cast<int>(len);
    block->next = t->next_block;
    t->next_block = block;
    t->fresh_nodes = block + 1;
    t->fresh_nodes_bound = block + len / sizeof(hash_node_t);
  }
  return t->fresh_nodes++;
}

}  // namespace

extern "C" {

int QM_ipht_new_table(int_pointer_hash_table_t** table, int size) {
  if (table == nullptr) return -1;
  if (size < 1) size = kDefaultSize;
  size_t head = sizeof(int_pointer_hash_table_t) + static_cast<size_t>(size) * sizeof(hash_node_t*);
  head = (head + alignof(hash_node_t) - 1) & ~(alignof(hash_node_t) - 1);
  size_t len = QM_pagesize_ceil(head + sizeof(hash_node_t));
  auto* t = static_cast<int_pointer_hash_table_t*>(QM_page_alloc(len, mmt_utils_ipht_first_block));
  if (t == nullptr) return -1;
  t->page_info.next = nullptr;
  t->page_info.p = nullptr;
  t->page_info.key = static_cast<int>(len);
  t->hash_table = reinterpret_cast<hash_node_t**>(t + 1);
  t->free_list = nullptr;
  t->fresh_nodes = reinterpret_cast<hash_node_t*>(reinterpret_cast<char*>(t) + head);
  t->fresh_nodes_bound = t->fresh_nodes + (len - head) / sizeof(hash_node_t);
  t->next_block = nullptr;
  t->mru = nullptr;
  t->hash_table_size = size;
  *table = t;
  return 0;
}

int QM_ipht_insert(int_pointer_hash_table_t* t, int key, void* p) {
  if (t == nullptr) return -1;
  hash_node_t** head = bucket_of(t, key);
  if (head == nullptr) return -1;
  hash_node_t** link = head;
  while (*link != nullptr && (*link)->key != key) link = &(*link)->next;
  hash_node_t* n = *link;
  if (n != nullptr) {
    // Move to the front, keeping the rest of the chain behind it.
    if (link != head) {
      *link = n->next;
      n->next = *head;
      *head = n;
    }
  } else {
    n = take_node(t);
    n->key = key;
    n->next = *head;
    *head = n;
  }
  n->p = p;
  t->mru = n;
  return 0;
}

int QM_ipht_lookup(int_pointer_hash_table_t* t, int key, int* found, void** p) {
  if (t == nullptr || found == nullptr) return -1;
  if (t->mru != nullptr && t->mru->key == key) {
    *found = 1;
    if (p != nullptr) *p = t->mru->p;
  } else {
    *found = 0;
  }
  return 0;
}

int QM_ipht_remove(int_pointer_hash_table_t* t, int key) {
  if (t == nullptr) return -1;
  hash_node_t** link = bucket_of(t, key);
  if (link == nullptr) return 0;
  while (*link != nullptr && (*link)->key != key) link = &(*link)->next;
  if (*link != nullptr) {
    if (t->mru == *link) t->mru = nullptr;
    *link = (*link)->next;
  }
  return 0;
}

}  // extern "C"
