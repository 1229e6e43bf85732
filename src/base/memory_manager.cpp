#include "base/memory_manager.h"

#include <errno.h>
#include <stdint.h>

#include "base/assert.h"
#include "base/page.h"
#include "threads/thread_utils.h"

extern "C" {
constinit memory_manager_table_t QM_memory_manager_table = {};
}

namespace {

constexpr const char kFile[] = "../utils/memory_manager_internals.c";
constexpr const char kLockFile[] = "../utils/memory_manager_multi_threaded.c";

constinit QM_pthread_mutex_t memory_manager_mutex = PTHREAD_MUTEX_INITIALIZER;

inline size_t bucket_of(const void* p, const memory_manager_table_t* t) {
  return reinterpret_cast<uintptr_t>(p) % static_cast<uintptr_t>(t->hash_table_size);
}

int insert_region(memory_manager_table_t* t, void* base, size_t len, memory_manager_tag_e tag);

mem_region_node_t* take_node(memory_manager_table_t* t) {
  if (t->free_chain != nullptr) {
    mem_region_node_t* n = t->free_chain;
    t->free_chain = n->next;
    return n;
  }
  if (t->fresh_nodes_base == nullptr || t->fresh_nodes_next >= t->fresh_nodes_bound) {
    size_t len = QM_pagesize_ceil(sizeof(mem_region_node_t) * 2);
    void* page = QM_mmap_anon(len);
    QM_assert(page != nullptr, "error getting new page for memory manager hash table nodes\n");
    t->fresh_nodes_base = static_cast<mem_region_node_t*>(page);
    t->fresh_nodes_next = 0;
    t->fresh_nodes_bound = static_cast<int>(len / sizeof(mem_region_node_t));
    // The node page is a region of its own; recording it uses its first node.
    QM_assert(insert_region(t, page, len, mmt_private_nodes) == 0,
              "error inserting region for memory hash nodes\n");
  }
  return &t->fresh_nodes_base[t->fresh_nodes_next++];
}

int insert_region(memory_manager_table_t* t, void* base, size_t len, memory_manager_tag_e tag) {
  mem_region_node_t* n = take_node(t);
  n->region.base = base;
  n->region.len = len;
  n->region.tag = tag;
  mem_region_node_t** head = &t->hash_table[bucket_of(base, t)];
  n->next = *head;
  *head = n;
  ++t->num_regions;
  return 0;
}

void create_table(memory_manager_table_t* t) {
  size_t len = QM_pagesize_ceil(QM_MM_HASH_TABLE_SIZE * sizeof(mem_region_node_t*));
  void* page = QM_mmap_anon(len);
  t->hash_table_size = page != nullptr ? static_cast<int>(QM_MM_HASH_TABLE_SIZE) : -1;
  QM_assert(page != nullptr, "error allocating memory manager hash table\n");
  t->hash_table = static_cast<mem_region_node_t**>(page);
  QM_assert(insert_region(t, page, len, mmt_private_hash_table) == 0,
            "error inserting region for memory manager hash table\n");
}

// The link that points at the node whose base is exactly p, or null.
mem_region_node_t** find_link(memory_manager_table_t* t, const void* p) {
  mem_region_node_t** link = &t->hash_table[bucket_of(p, t)];
  while (*link != nullptr && (*link)->region.base != p) link = &(*link)->next;
  return *link != nullptr ? link : nullptr;
}

void lock(const char* fn, int line) {
  if (QM_pthread_mutex_lock(&memory_manager_mutex) != 0)
    QM_assert(0, "error locking memory manager mutex in function %s\n  (%s.%d)\n", fn, kLockFile,
              line);
}

void unlock(const char* fn, int line) {
  if (QM_pthread_mutex_unlock(&memory_manager_mutex) != 0)
    QM_assert(0, "error unlocking memory manager mutex in function %s\n  (%s.%d)\n", fn, kLockFile,
              line);
}

}  // namespace

extern "C" {

void* QM_page_alloc_internal(const size_t len, const memory_manager_tag_e tag) {
  memory_manager_table_t* t = &QM_memory_manager_table;
  if (t->hash_table == nullptr) create_table(t);
  QM_assert(t->hash_table != nullptr, "memory hash table does not exist\n");
  size_t rounded = QM_pagesize_ceil(len);
  void* base = QM_mmap_anon(rounded);
  if (base == nullptr)
    QM_assert(0, "error allocating region for request\n  (errno, len, tag) == (%d, %ld, %d)\n  (%s.%d)\n",
              errno, static_cast<long>(len), static_cast<int>(tag), kFile, __LINE__);
  if (insert_region(t, base, rounded, tag) != 0)
    QM_assert(0, "error inserting region for request\n  (%s.%d)\n", kFile, __LINE__);
  return base;
}

int QM_page_dealloc_internal(const void* p) {
  memory_manager_table_t* t = &QM_memory_manager_table;
  if (t->hash_table == nullptr) return -1;
  mem_region_node_t** link = find_link(t, p);
  if (link == nullptr) return -1;
  mem_region_node_t* n = *link;
  if (QM_munmap(n->region.base, n->region.len) != 0)
    QM_assert(0, "error deallocating region\n  (%s.%d)\n", kFile, __LINE__);
  *link = n->next;
  n->next = t->free_chain;
  t->free_chain = n;
  return 0;
}

int QM_page_get_info_internal(const void* addr, memory_manager_region_t* region) {
  memory_manager_table_t* t = &QM_memory_manager_table;
  if (t->hash_table == nullptr) return -1;
  mem_region_node_t** link = find_link(t, addr);
  if (link == nullptr) return -1;
  if (region != nullptr) *region = (*link)->region;
  return 0;
}

int QM_MM_iterate_regions_internal(QM_MM_iterator_callbacks_t* cb) {
  if (cb == nullptr || cb->f == nullptr) return -1;
  memory_manager_table_t* t = &QM_memory_manager_table;
  if (t->hash_table == nullptr) return 0;
  cb->stop_iterating = 0;
  for (int b = 0; b < t->hash_table_size; ++b) {
    for (mem_region_node_t* n = t->hash_table[b]; n != nullptr; n = n->next) {
      cb->region = n->region;
      int r = cb->f(cb);
      if (r != 0) return r;
      if (cb->stop_iterating) return 0;
    }
  }
  return 0;
}

void* QM_page_alloc(const size_t len, const memory_manager_tag_e tag) {
  lock("QM_page_alloc", __LINE__);
  void* p = QM_page_alloc_internal(len, tag);
  unlock("QM_page_alloc", __LINE__);
  return p;
}

int QM_page_dealloc(const void* p) {
  lock("QM_page_dealloc", __LINE__);
  int r = QM_page_dealloc_internal(p);
  unlock("QM_page_dealloc", __LINE__);
  return r;
}

int QM_page_get_info(const void* addr, memory_manager_region_t* region) {
  lock("QM_page_get_info", __LINE__);
  int r = QM_page_get_info_internal(addr, region);
  unlock("QM_page_get_info", __LINE__);
  return r;
}

// The callback runs under the manager's lock: it must not allocate pages.
int QM_MM_iterate_regions(QM_MM_iterator_callbacks_t* callbacks) {
  lock("QM_MM_iterate_regions", __LINE__);
  int r = QM_MM_iterate_regions_internal(callbacks);
  unlock("QM_MM_iterate_regions", __LINE__);
  return r;
}

void QM_memory_manager_atfork_prepare() { lock("QM_memory_manager_atfork_prepare", __LINE__); }
void QM_memory_manager_atfork_post() { unlock("QM_memory_manager_atfork_post", __LINE__); }

}  // extern "C"
