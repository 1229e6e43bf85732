// The backtrace table. Call stacks repeat enormously, so the common insert
// (the same call site as last time) is answered by the MRU entry with one
// pass over the counters, the next most common by a chain head (chains are
// move-to-front). Entries and counters live in large chunks that are never
// released, so a counter once stored never moves.
#include "backtrace/backtrace_table.h"

#include <stdint.h>

#include "base/assert.h"
#include "base/format.h"
#include "base/memory_manager.h"
#include "base/page.h"

static_assert(sizeof(stack_backtrace_info_t) == 16);
#if defined(__i386__)
static_assert(sizeof(stack_backtrace_chunk_table_t) == 48);
static_assert(sizeof(stack_backtrace_table_t) == 120);
#endif

extern "C" {
constinit const int QM_STACK_version_major = 1;
constinit const int QM_STACK_version_minor = 2;
constinit const int QM_STACK_version_point = 0;
constinit const int QM_STACK_version_service = 0;
constinit volatile int QM_STACK_volatile_int = 0;
int QM_STACK_fde_cache_init();
}

namespace {

constexpr const char kFile[] = "stack_backtrace_table";
constexpr int kHashTableBound = 8191;
constexpr size_t kInfoChunkSize = 20480;
constexpr size_t kPcsChunkSize = 65536;

size_t round_to_pages(size_t n) {
  size_t ps = QM_getpagesize();
  return (n + ps - 1) / ps * ps;
}

void init_chunk_table(stack_backtrace_chunk_table_t* t, memory_manager_tag_e table_tag, size_t chunk_size,
                      int unit_size, memory_manager_tag_e chunk_tag) {
  t->table = nullptr;
  t->table_bound = 0;
  t->table_next = 0;
  t->table_current_size = 0;
  t->table_inc_size = QM_getpagesize();
  t->table_mm_tag = table_tag;
  t->chunk_size = round_to_pages(chunk_size);
  t->unit_size = unit_size;
  t->units_per_chunk = static_cast<int>(t->chunk_size / unit_size);
  t->chunk_mm_tag = chunk_tag;
  t->chunk_current = nullptr;
  t->chunk_next = 0;
}

void allocate_new_chunk(stack_backtrace_chunk_table_t* t) {
  void* chunk = QM_page_alloc(t->chunk_size, static_cast<memory_manager_tag_e>(t->chunk_mm_tag));
  if (chunk == nullptr) QM_STACK_error("%s: error getting memory for new chunk\n", "allocate_new_chunk");
  if (t->table == nullptr || t->table_next >= t->table_bound) {
    size_t new_size = t->table_current_size + t->table_inc_size;
    void** grown = static_cast<void**>(QM_page_alloc(new_size, static_cast<memory_manager_tag_e>(t->table_mm_tag)));
    if (grown == nullptr) QM_STACK_error("%s: error getting memory to extend chunk table\n", "allocate_new_chunk");
    for (int i = 0; i < t->table_bound; ++i) grown[i] = t->table[i];
    if (t->table != nullptr && QM_page_dealloc(t->table) != 0)
      QM_STACK_error("%s: error releasing old chunk_table\n", "allocate_new_chunk");
    t->table = grown;
    t->table_bound = static_cast<int>(new_size / sizeof(void*));
    t->table_current_size = new_size;
  }
  t->table[t->table_next++] = chunk;
  t->chunk_current = chunk;
  t->chunk_next = 0;
}

void* get_entry_by_chunk_no_and_offset(const stack_backtrace_chunk_table_t* t, int chunk_no, int offset,
                                       const char* fn) {
  if (t == nullptr) QM_STACK_error("%s: null table (%s.%d)\n", fn, kFile, __LINE__);
  if (chunk_no >= t->table_bound)
    QM_STACK_error("%s: chunk_no %d is exceeds bounds %d (%s.%d)\n", fn, chunk_no, t->table_bound, kFile, __LINE__);
  if (offset >= t->units_per_chunk)
    QM_STACK_error("%s: chunk_offset %d exceeds bounds %d (%s.%d)\n", fn, offset, t->units_per_chunk, kFile,
                   __LINE__);
  return static_cast<char*>(t->table[chunk_no]) + static_cast<size_t>(offset) * t->unit_size;
}

stack_backtrace_info_t* info_of(const stack_backtrace_table_t* t, backtrace_id_t id) {
  int per = t->info_table.units_per_chunk;
  return static_cast<stack_backtrace_info_t*>(
      get_entry_by_chunk_no_and_offset(&t->info_table, id / per, id % per, "get_entry_by_index"));
}

const void** pcs_of(const stack_backtrace_table_t* t, const stack_backtrace_info_t* e) {
  return static_cast<const void**>(
      get_entry_by_chunk_no_and_offset(&t->pcs_table, e->pcs_chunk_no, e->pcs_chunk_offset,
                                       "get_entry_by_chunk_no_and_offset"));
}

backtrace_id_t id_of(const stack_backtrace_table_t* t, const stack_backtrace_info_t* e) {
  const stack_backtrace_info_t* base =
      static_cast<const stack_backtrace_info_t*>(t->info_table.table[e->info_chunk_no]);
  return e->info_chunk_no * t->info_table.units_per_chunk + static_cast<int>(e - base);
}

bool same_pcs(const void** a, const void** b, int n) {
  for (int i = 0; i < n; ++i)
    if (a[i] != b[i]) return false;
  return true;
}

// The MRU test: computes the checksum over all counters whatever the
// outcome, since the chain is needed on a miss.
bool mru_matches(const stack_backtrace_table_t* t, const void** pcs, int n, backtrace_checksum_t* sum) {
  const stack_backtrace_info_t* m = t->mru;
  bool match = m != nullptr && m->num_pcs == n;
  const void** stored = match ? pcs_of(t, m) : nullptr;
  backtrace_checksum_t s = 0;
  for (int i = 0; i < n; ++i) {
    s += static_cast<backtrace_checksum_t>(reinterpret_cast<uintptr_t>(pcs[i]));
    if (match && stored[i] != pcs[i]) match = false;
  }
  *sum = s;
  return match;
}

bool chain_matches(const stack_backtrace_table_t* t, const stack_backtrace_info_t* e, const void** pcs, int n,
                   backtrace_checksum_t sum) {
  return e != nullptr && e->num_pcs == n && e->checksum == sum && same_pcs(pcs_of(t, e), pcs, n);
}

stack_backtrace_info_t* insert_new(stack_backtrace_table_t* t, const void** pcs, int n, backtrace_checksum_t sum) {
  stack_backtrace_chunk_table_t* pt = &t->pcs_table;
  if (pt->chunk_current == nullptr || pt->chunk_next + n >= pt->units_per_chunk) allocate_new_chunk(pt);
  const void** dst = static_cast<const void**>(pt->chunk_current) + pt->chunk_next;
  for (int i = 0; i < n; ++i) dst[i] = pcs[i];
  int pcs_chunk_no = pt->table_next - 1, pcs_offset = pt->chunk_next;
  pt->chunk_next += n;

  stack_backtrace_chunk_table_t* it = &t->info_table;
  if (it->chunk_current == nullptr || it->chunk_next >= it->units_per_chunk) {
    allocate_new_chunk(it);
    if (it->table_next == 1 && it->chunk_next == 0) {
      *static_cast<stack_backtrace_info_t*>(it->chunk_current) = {};
      it->chunk_next = 1;
    }
  }
  stack_backtrace_info_t* e = static_cast<stack_backtrace_info_t*>(it->chunk_current) + it->chunk_next;
  e->checksum = sum;
  e->next = 0;
  e->info_chunk_no = static_cast<uint16_t>(it->table_next - 1);
  e->pcs_chunk_no = static_cast<uint16_t>(pcs_chunk_no);
  e->pcs_chunk_offset = static_cast<uint16_t>(pcs_offset);
  e->num_pcs = static_cast<uint16_t>(n);
  it->chunk_next++;
  backtrace_id_t id = id_of(t, e);
  QM_assert(id == t->next_backtrace_id,
            "%s: assetion failure: id %d of new info does not match next_backtrace_id %d in table\n  (%s.%d)\n",
            "insert_backtrace", id, t->next_backtrace_id, kFile, __LINE__);
  t->next_backtrace_id++;
  return e;
}

void dump_chunk_table(const char* title, const stack_backtrace_chunk_table_t* c) {
  QM_s_printf(2,
              "  %s\n    table               == %p\n    table_bound         == %d\n    table_next          == %d\n"
              "    table_current_size  == %ld\n    table_inc_size      == %ld\n    table_mm_tag        == %d\n"
              "    chunk_size          == %ld\n    unit_size           == %d\n    unit_per_chunk      == %d\n"
              "    chunk_mm_tag        == %d\n    chunk_current       == %p\n    chunk_next          == %d\n",
              title, static_cast<void*>(c->table), c->table_bound, c->table_next,
              static_cast<long>(c->table_current_size), static_cast<long>(c->table_inc_size), c->table_mm_tag,
              static_cast<long>(c->chunk_size), c->unit_size, c->units_per_chunk, c->chunk_mm_tag, c->chunk_current,
              c->chunk_next);
}

}  // namespace

extern "C" {

int QM_STACK_init() {
  QM_STACK_volatile_int = QM_STACK_version_major;
  QM_STACK_volatile_int = QM_STACK_version_minor;
  QM_STACK_volatile_int = QM_STACK_version_point;
  QM_STACK_volatile_int = QM_STACK_version_service;
  QM_STACK_fde_cache_init();
  return 0;
}

int QM_STACK_init_backtrace_table(stack_backtrace_table_t* t) {
  if (t == nullptr) return -1;
  t->next_backtrace_id = 1;
  t->hash_table_bound = kHashTableBound;
  t->hash_table = static_cast<stack_backtrace_hash_chain_t*>(
      QM_page_alloc(kHashTableBound * sizeof(stack_backtrace_hash_chain_t), mmt_backtrace_hash_table));
  for (int i = 0; i < kHashTableBound; ++i) t->hash_table[i].chain = 0;
  init_chunk_table(&t->info_table, mmt_backtrace_info_table, kInfoChunkSize, sizeof(stack_backtrace_info_t),
                   mmt_backtrace_info_chunk);
  init_chunk_table(&t->pcs_table, mmt_backtrace_pcs_table, kPcsChunkSize, sizeof(void*), mmt_backtrace_pcs_chunk);
  t->num_insertions = 0;
  t->mru = nullptr;
  t->mru_hit_count = 0;
  return 0;
}

backtrace_id_t QM_STACK_insert_backtrace(stack_backtrace_table_t* t, const void** pcs, int n) {
  const stack_backtrace_chunk_table_t* it = &t->info_table;
  if (it->chunk_current != nullptr) {
    int computed = (it->table_next - 1) * it->units_per_chunk + it->chunk_next;
    QM_assert(computed == t->next_backtrace_id,
              "%s: next_backtrace_id %d does not match the id %dcomputed from the\ninformation in the info chunk "
              "table\n  (%s.%d)\n",
              "QM_STACK_insert_backtrace", t->next_backtrace_id, computed, kFile, __LINE__);
  } else {
    QM_assert(t->next_backtrace_id == 1,
              "%s: next_backtrace_id is %d where 1 expected for null next info in chunk table\n  (%s.%d)\n",
              "QM_STACK_insert_backtrace", t->next_backtrace_id, kFile, __LINE__);
  }
  if (pcs == nullptr || n == 0) {
    t->num_insertions++;
    return 0;
  }
  backtrace_checksum_t sum;
  if (mru_matches(t, pcs, n, &sum)) {
    t->mru_hit_count++;
    t->num_insertions++;
    return id_of(t, t->mru);
  }
  stack_backtrace_hash_chain_t* chain = &t->hash_table[sum % static_cast<unsigned>(t->hash_table_bound)];
  stack_backtrace_info_t* found;
  if (chain->chain == 0) {
    found = insert_new(t, pcs, n, sum);
    chain->chain = id_of(t, found);
  } else {
    stack_backtrace_info_t* head = info_of(t, chain->chain);
    if (chain_matches(t, head, pcs, n, sum)) {
      found = head;
    } else {
      stack_backtrace_info_t* prev = head;
      found = nullptr;
      for (backtrace_id_t id = head->next; id != 0;) {
        stack_backtrace_info_t* e = info_of(t, id);
        if (chain_matches(t, e, pcs, n, sum)) {
          prev->next = e->next;
          found = e;
          break;
        }
        prev = e;
        id = e->next;
      }
      if (found == nullptr) found = insert_new(t, pcs, n, sum);
      found->next = chain->chain;
      chain->chain = id_of(t, found);
    }
  }
  t->mru = found;
  t->num_insertions++;
  return id_of(t, found);
}

backtrace_id_t QM_STACK_is_in_backtrace(stack_backtrace_table_t* t, const void** pcs, int n) {
  if (t == nullptr || pcs == nullptr || n == 0 || t->mru == nullptr) return 0;
  backtrace_checksum_t sum;
  if (mru_matches(t, pcs, n, &sum)) return id_of(t, t->mru);
  for (backtrace_id_t id = t->hash_table[sum % static_cast<unsigned>(t->hash_table_bound)].chain; id != 0;) {
    stack_backtrace_info_t* e = info_of(t, id);
    if (chain_matches(t, e, pcs, n, sum)) return id;
    id = e->next;
  }
  return 0;
}

int QM_STACK_lookup_backtrace(stack_backtrace_table_t* t, int id, const void** pcs, int n) {
  if (id == 0) return 0;
  if (t == nullptr || id < 0 || id >= t->next_backtrace_id) return -1;
  const stack_backtrace_info_t* e = info_of(t, id);
  if (pcs == nullptr) return e->num_pcs;
  if (e->num_pcs > n) return -1;
  const void** src = pcs_of(t, e);
  for (int i = 0; i < e->num_pcs; ++i) pcs[i] = src[i];
  return e->num_pcs;
}

int QM_STACK_table_iterate(stack_backtrace_table_t* t, stack_backtrace_table_iter_func_t f, void* arg) {
  if (t == nullptr) return -1;
  if (t->next_backtrace_id < 2) return 0;
  int stop = 0, r = 0;
  for (backtrace_id_t id = 1; id < t->next_backtrace_id; ++id) {
    const stack_backtrace_info_t* e = info_of(t, id);
    if (e == nullptr) return -1;
    r = f(id, pcs_of(t, e), e->num_pcs, &stop, arg);
    if (r != 0) return r;
    if (stop) return r;
  }
  return 0;
}

void QM_STACK_dump_table(stack_backtrace_table_t* t) {
  QM_s_printf(2,
              "stack table at %p\n  next_backtrace_id        == %d\n  hash_table               == %p\n"
              "  hash_table_bound         == %d\n",
              static_cast<void*>(t), t->next_backtrace_id, static_cast<void*>(t->hash_table), t->hash_table_bound);
  dump_chunk_table("info_table", &t->info_table);
  dump_chunk_table("pcs_table", &t->pcs_table);
  QM_s_printf(2, "num_insertions             == %d\n", t->num_insertions);
  if (const stack_backtrace_info_t* m = t->mru) {
    QM_s_printf(2,
                "  %s\n    checksum           == %ld\n    next               == %ld\n    info_chunk_no      == %ld\n"
                "    pcs_chunk_no       == %ld\n    pcs_chunk_offset   == %ld\n    num_pcs            == %ld\n",
                "mru", static_cast<long>(m->checksum), static_cast<long>(m->next), static_cast<long>(m->info_chunk_no),
                static_cast<long>(m->pcs_chunk_no), static_cast<long>(m->pcs_chunk_offset),
                static_cast<long>(m->num_pcs));
  } else {
    QM_s_printf(2, "  %s (NULL)\n", "mru");
  }
  QM_s_printf(2, "  mru_hit_count            == %d\n", t->mru_hit_count);
}

int QM_STACK_vfprintf(int fd, const char* fmt, va_list ap) {
  int a = QM_s_printf(fd, "QM_STACK:  ");
  if (a < 0) return a;
  int b = QM_s_vprintf(fd, fmt, ap);
  return b < 0 ? b : a + b;
}

int QM_STACK_fprintf(int fd, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int r = QM_STACK_vfprintf(fd, fmt, ap);
  va_end(ap);
  return r;
}

int QM_STACK_printf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int r = QM_STACK_vfprintf(2, fmt, ap);
  va_end(ap);
  return r;
}

void QM_STACK_error(const char* fmt, ...) {
  QM_s_printf(2, "QM_STACK:  ");
  QM_s_printf(2, "error: ");
  va_list ap;
  va_start(ap, fmt);
  QM_s_vprintf(2, fmt, ap);
  va_end(ap);
  QM_halt();
}

}  // extern "C"
