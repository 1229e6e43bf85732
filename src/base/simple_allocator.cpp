#include "base/simple_allocator.h"

#include <stdint.h>

#include "base/assert.h"
#include "base/page.h"

namespace {

constexpr size_t kAlign = sizeof(void*);

inline char* end_of(QM_SA_block_t* b) { return reinterpret_cast<char*>(b) + b->len; }

// Exact fit first; else the largest block if it is strictly larger than need.
QM_SA_block_t* get_worst_sized_block(QM_SA_simple_allocator_t* sa, size_t need) {
  QM_SA_block_t* largest = nullptr;
  for (QM_SA_block_t* b = sa->free_list; b != nullptr; b = b->next) {
    if (b->len == need) return b;
    if (largest == nullptr || b->len > largest->len) largest = b;
  }
  return largest != nullptr && largest->len > need ? largest : nullptr;
}

void unlink_block(QM_SA_simple_allocator_t* sa, QM_SA_block_t* b) {
  if (b->prev != nullptr)
    b->prev->next = b->next;
  else
    sa->free_list = b->next;
  if (b->next != nullptr) b->next->prev = b->prev;
}

// Address-ordered insertion with coalescing of both neighbours.
void insert_into_free_list(QM_SA_simple_allocator_t* sa, QM_SA_block_t* b) {
  QM_SA_block_t* head = sa->free_list;
  if (head == nullptr) {
    b->prev = b->next = nullptr;
    sa->free_list = b;
    return;
  }
  if (b < head) {
    b->prev = nullptr;
    if (end_of(b) == reinterpret_cast<char*>(head)) {
      b->next = head->next;
      b->len += head->len;
    } else {
      b->next = head;
    }
    if (b->next != nullptr) b->next->prev = b;
    sa->free_list = b;
    return;
  }
  QM_SA_block_t* prev = head;
  while (prev->next != nullptr && prev->next < b) prev = prev->next;
  QM_SA_block_t* following = prev->next;
  if (following != nullptr && end_of(b) == reinterpret_cast<char*>(following)) {
    b->len += following->len;
    following = following->next;
    prev->next = following;
    if (following != nullptr) following->prev = prev;
  }
  if (end_of(prev) == reinterpret_cast<char*>(b)) {
    prev->len += b->len;
  } else {
    b->prev = prev;
    b->next = following;
    prev->next = b;
    if (following != nullptr) following->prev = b;
  }
}

}  // namespace

extern "C" {

int QM_SA_init(QM_SA_simple_allocator_t* sa, size_t min_chunk_size) {
  if (sa == nullptr) return -1;
  size_t ps = QM_getpagesize();
  sa->min_chunk_size = QM_pagesize_ceil(min_chunk_size > ps ? min_chunk_size : ps);
  sa->block_header_size = sizeof(QM_SA_block_t);
  sa->chunk_header_size = sizeof(QM_SA_chunk_t);
  sa->free_list = nullptr;
  sa->chunk_list = nullptr;
  return 0;
}

void* QM_SA_alloc(QM_SA_simple_allocator_t* sa, size_t len) {
  if (sa == nullptr || len == 0) return nullptr;
  size_t need = (len + sa->block_header_size + kAlign - 1) & ~(kAlign - 1);
  QM_SA_block_t* b = get_worst_sized_block(sa, need);
  if (b == nullptr) {
    size_t chunk_len = need + sa->chunk_header_size > sa->min_chunk_size
                           ? QM_pagesize_ceil(need + sa->chunk_header_size)
                           : sa->min_chunk_size;
    void* mem = QM_mmap_anon(chunk_len);
    if (mem == nullptr) return nullptr;
    auto* chunk = static_cast<QM_SA_chunk_t*>(mem);
    chunk->len = chunk_len;
    chunk->link = sa->chunk_list;
    sa->chunk_list = chunk;
    auto* fresh = reinterpret_cast<QM_SA_block_t*>(static_cast<char*>(mem) + sa->chunk_header_size);
    fresh->len = chunk_len - sa->chunk_header_size;
    insert_into_free_list(sa, fresh);
    b = get_worst_sized_block(sa, need);
    if (b == nullptr) return nullptr;
  }
  size_t rest = b->len - need;
  if (rest > sa->block_header_size) {
    b->len = rest;
    b = reinterpret_cast<QM_SA_block_t*>(end_of(b));
    b->len = need;
  } else {
    unlink_block(sa, b);
  }
  b->prev = b->next = nullptr;
  return reinterpret_cast<char*>(b) + sa->block_header_size;
}

int QM_SA_dealloc(QM_SA_simple_allocator_t* sa, void* p) {
  if (p == nullptr) return 0;
  if (sa == nullptr) return -1;
  insert_into_free_list(sa, reinterpret_cast<QM_SA_block_t*>(static_cast<char*>(p) - sa->block_header_size));
  return 0;
}

int QM_SA_destroy(QM_SA_simple_allocator_t* sa) {
  if (sa == nullptr) return -1;
  for (QM_SA_chunk_t* c = sa->chunk_list; c != nullptr;) {
    QM_SA_chunk_t* next = c->link;
    if (QM_munmap(c, c->len) != 0) QM_assert(0, "error releasing chunk in QM_SA_destroy\n");
    c = next;
  }
  return 0;
}

}  // extern "C"
