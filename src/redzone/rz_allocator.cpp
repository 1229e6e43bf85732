// The red-zone allocator. It never uses the C library's heap: each block is
// an anonymous mapping of its own, the fences in it made inaccessible, so
// that an access off the block's end (or start) faults at the instruction.
// A released block is unmapped, or, when use after free is to be caught,
// made wholly inaccessible and kept for the rest of the process.
//
// The table is guarded by its mutex for every operation; the fault
// classifier runs in a signal handler and must never wait for it: it tries
// the lock for a while and otherwise reads the table as it stands (nodes are
// never unmapped, so a read racing an update sees stale nodes, not freed
// memory).
#include "redzone/rz_allocator.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/assert.h"
#include "base/avl_impl.h"
#include "base/export.h"
#include "base/format.h"
#include "base/memory_manager.h"
#include "base/page.h"
#include "core/bodies.h"
#include "events/events.h"
#include "events/output.h"
#include "heap/heap_tables.h"
#include "redzone/rz_controls.h"
#include "redzone/signals.h"

#pragma GCC diagnostic ignored "-Wformat"

extern "C" {
constinit QM_pthread_mutex_t QM_HEAP_rz_table_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit rz_table_t QM_HEAP_rz_table = {};
}

namespace {

constexpr const char kFile[] = "../rz_allocator.c";
constexpr int kNodesPerBatch = 8192;

// Set with the first block: until then no address can be a red-zone one.
constinit int ever_used = 0;

inline uintptr_t U(const void* p) { return reinterpret_cast<uintptr_t>(p); }
inline void* P(uintptr_t a) { return reinterpret_cast<void*>(a); }

size_t round_up(size_t v, size_t m, bool* overflow) {
  size_t r = v % m == 0 ? v : v + (m - v % m);
  if (r < v) *overflow = true;
  return r;
}

bool tracing() { return QM_HEAP_co_is_emit_for_key(co_rz_trace) || QM_HEAP_get_verbosity() > 3; }

// --- the table -------------------------------------------------------------------

rz_table_t& T = QM_HEAP_rz_table;

// Exact order: by payload.
struct ExactOps {
  static rz_avl_node_t* N(void* n) { return static_cast<rz_avl_node_t*>(n); }
  int cmp(void* k, void* nk) const { return U(k) < U(nk) ? -1 : U(k) > U(nk) ? 1 : 0; }
  bool is_empty(void* t) const { return t == nullptr; }
  void* empty() const { return nullptr; }
  void* key(void* n) const { return N(n)->rz_record.payload; }
  void* left(void* n) const { return N(n)->left; }
  void* right(void* n) const { return N(n)->right; }
  avl_balance_t balance(void* n) const { return static_cast<avl_balance_t>(N(n)->balance); }
  void set_left(void* n, void* t) const { N(n)->left = N(t); }
  void set_right(void* n, void* t) const { N(n)->right = N(t); }
  void set_balance(void* n, avl_balance_t b) const { N(n)->balance = b; }
};

// Region order: a key inside a node's mapping equals that node.
struct RegionOps : ExactOps {
  int cmp(void* k, void* nk) const {
    const rz_record_t& r = N(nk)->rz_record;
    if (U(k) < U(r.alloc_addr)) return -1;
    if (U(k) - U(r.alloc_addr) >= r.alloc_len) return 1;
    return 0;
  }
  void* key(void* n) const { return n; }
};

rz_avl_node_t* lookup(const void* addr, rz_lookup_method_e m) {
  if (m == rz_lookup_exact) {
    ExactOps o;
    return static_cast<rz_avl_node_t*>(qm::avl::Algo<ExactOps>{o}.lookup(T.root, const_cast<void*>(addr)));
  }
  if (m == rz_lookup_region) {
    RegionOps o;
    return static_cast<rz_avl_node_t*>(qm::avl::Algo<RegionOps>{o}.lookup(T.root, const_cast<void*>(addr)));
  }
  QM_assert(0, "%s.%d: error getting ops for lookup method (%d)\n", kFile, __LINE__, static_cast<int>(m));
  return nullptr;
}

bool grow_table() {
  const size_t len = QM_pagesize_ceil(kNodesPerBatch * sizeof(rz_avl_node_t));
  const int n = static_cast<int>(len / sizeof(rz_avl_node_t));
  QM_assert(n > 0, "%s.%d: number of new rz nodes is not greater than zero (%d)\n", kFile, __LINE__, n);
  auto* region = static_cast<rz_avl_node_t*>(QM_page_alloc(len, mmt_hia_rz_avl_nodes));
  if (region == nullptr) {
    QM_HEAP_printf("%s.%d: unable to get region for rz nodes\n", kFile, __LINE__);
    return false;
  }
  T.fresh = region;
  T.fresh_bound = region + n;
  return true;
}

rz_avl_node_t* new_node() {
  if (T.free != nullptr) {
    rz_avl_node_t* n = T.free;
    T.free = n->left;
    return n;
  }
  if (T.fresh == T.fresh_bound && !grow_table()) return nullptr;
  QM_assert(T.fresh < T.fresh_bound, "%s.%d: no new nodes after growing rz table\n", kFile, __LINE__);
  return T.fresh++;
}

bool insert(const rz_record_t& r) {
  rz_avl_node_t* n = new_node();
  if (n == nullptr) return false;
  *n = rz_avl_node_t{};
  n->rz_record = r;
  ExactOps o;
  T.root = static_cast<rz_avl_node_t*>(qm::avl::insert(o, T.root, n));
  return true;
}

void remove(rz_avl_node_t* n) {
  ExactOps o;
  void* removed = nullptr;
  T.root = static_cast<rz_avl_node_t*>(qm::avl::remove(o, T.root, n->rz_record.payload, &removed));
  if (removed == nullptr)
    QM_assert(0, "%s.%d: address to be deleted (%p) not in rz table\n", kFile, __LINE__, n->rz_record.payload);
  auto* r = static_cast<rz_avl_node_t*>(removed);
  r->left = T.free;
  T.free = r;
}

void add_stats(rz_stats_t& s, const rz_record_t& r, int sign) {
  int fences = ((r.flags & rzf_has_pre_fence) != 0) + ((r.flags & rzf_has_post_fence) != 0);
  s.payload += sign * r.payload_len;
  s.fence += sign * fences * r.fence_size;
  s.alloc += sign * r.alloc_len;
  s.num += sign;
}

struct Lock {
  bool on;
  explicit Lock(bool need) : on(need) {
    if (on) qm::mutex_lock(&QM_HEAP_rz_table_mutex);
  }
  ~Lock() {
    if (on) qm::mutex_unlock(&QM_HEAP_rz_table_mutex);
  }
};

// --- released mappings kept for reuse ---------------------------------------------
//
// A block released without use-after-free detection leaves its mapping,
// fences and all, here rather than going back to the kernel, and a new block
// with the same mapping length and fences takes the oldest such one: that
// saves the three system calls and the first-touch page faults of a fresh
// mapping, which are most of a red-zone block's cost (and, with several
// threads, the contention on the kernel's mapping lock). Only small mappings
// are kept, a few per length; the table lock guards them.

constexpr int kCacheClasses = 8;  // mappings of 1 to 8 data pages
constexpr int kCachePerClass = 64;

struct CachedMapping {
  uintptr_t addr;
  size_t len, pre, post;
};

struct CacheClass {
  CachedMapping slot[kCachePerClass];
  int head;  // oldest
  int n;
};

constinit CacheClass mapping_cache[kCacheClasses] = {};

// The class of a mapping of map_len bytes with these fences; -1 for none.
int cache_class(size_t map_len, size_t pre, size_t post) {
  const size_t page = QM_getpagesize();
  if ((pre != 0 && pre != page) || (post != 0 && post != page)) return -1;
  const size_t data = (map_len - pre - post) / page;
  return data >= 1 && data <= kCacheClasses ? static_cast<int>(data - 1) : -1;
}

// A kept mapping of the placement's shape, or 0. Called with the lock held.
uintptr_t cache_take(const qm::RzPlacement& pl) {
  if (pl.map_slack != 0) return 0;
  const int c = cache_class(pl.map_len, pl.pre_fence, pl.post_fence);
  if (c < 0) return 0;
  CacheClass& k = mapping_cache[c];
  for (int i = 0; i < k.n; ++i) {
    const int at = (k.head + i) % kCachePerClass;
    if (k.slot[at].len != pl.map_len || k.slot[at].pre != pl.pre_fence || k.slot[at].post != pl.post_fence)
      continue;
    const uintptr_t a = k.slot[at].addr;
    // The oldest entries before this one move up by one.
    for (int j = i; j > 0; --j)
      k.slot[(k.head + j) % kCachePerClass] = k.slot[(k.head + j - 1) % kCachePerClass];
    k.head = (k.head + 1) % kCachePerClass;
    --k.n;
    return a;
  }
  return 0;
}

// Keeps a released mapping; returns the mapping to unmap once the lock is
// released: the block's own when it is not kept, the oldest kept one when
// this one pushes it out, or none (addr 0).
CachedMapping cache_put(const rz_record_t& r) {
  const size_t pre = (r.flags & rzf_has_pre_fence) ? r.fence_size : 0;
  const size_t post = (r.flags & rzf_has_post_fence) ? r.fence_size : 0;
  const CachedMapping m = {U(r.alloc_addr), r.alloc_len, pre, post};
  const int c = cache_class(r.alloc_len, pre, post);
  if (c < 0) return m;
  CacheClass& k = mapping_cache[c];
  CachedMapping evicted = {};
  if (k.n == kCachePerClass) {
    evicted = k.slot[k.head];
    k.head = (k.head + 1) % kCachePerClass;
    --k.n;
  }
  k.slot[(k.head + k.n) % kCachePerClass] = m;
  ++k.n;
  return evicted;
}

// --- mappings --------------------------------------------------------------------

// The first time a mapping cannot be had, say why that usually is: each
// fenced block takes two of the kernel's mappings, and the kernel's limit on
// them is reached long before memory runs out.
void explain_mapping_failure(size_t len, const char* what) {
  static constinit int told = 0;
  if (__atomic_exchange_n(&told, 1, __ATOMIC_RELAXED)) return;
  char buf[32] = {};
  long limit = -1;
  const int err = errno;
  int fd = open("/proc/sys/vm/max_map_count", O_RDONLY);
  if (fd >= 0) {
    long n = read(fd, buf, sizeof buf - 1);
    close(fd);
    if (n > 0) {
      limit = 0;
      for (long i = 0; i < n && buf[i] >= '0' && buf[i] <= '9'; ++i) limit = limit * 10 + (buf[i] - '0');
    }
  }
  const char* why = strerrordesc_np(err);
  QM_HEAP_printf("red zones: %s failed for a block of %lu bytes (%s); the allocation returns NULL\n", what,
                 static_cast<unsigned long>(len), why != nullptr ? why : "?");
  QM_HEAP_printf("red zones: each red-zone block takes mappings of its own, and the kernel allows a process %ld "
                 "(vm.max_map_count)\n",
                 limit);
  QM_HEAP_printf("red zones: put red zones on the sizes that matter (enable_rz_size_ranges, rz_size_range) or "
                 "raise vm.max_map_count\n");
}

bool disable_access(void* p, size_t len) {
  int r = QM_mprotect(p, QM_pagesize_ceil(len), PROT_NONE);
  if (QM_HEAP_co_is_emit_for_key(co_rz_trace))
    QM_HEAP_printf("disable_access ( %p, %ld (%ld) ) returning %d\n", p, static_cast<long>(len),
                   static_cast<long>(QM_pagesize_ceil(len)), r);
  return r == 0;
}

void describe(const qm::RzPlacement& pl, uintptr_t start, size_t length, rz_record_t* out) {
  *out = rz_record_t{};
  out->payload = P(start + pl.payload_offset);
  out->alloc_addr = P(start);
  out->payload_len = length;
  out->alloc_len = pl.map_len;
  out->fence_size = pl.pre_fence != 0 ? pl.pre_fence : pl.post_fence;
  out->flags = pl.flags;
  out->alignment = static_cast<int>(pl.alignment);
  out->state = rzs_allocated;
}

// Maps and fences one block; false when the system refused.
bool map_block(const qm::RzPlacement& pl, size_t length, rz_record_t* out) {
  const size_t total = pl.map_len + pl.map_slack;
  void* raw = QM_mmap_anon(total);
  if (raw == nullptr) {
    explain_mapping_failure(length, "mapping");
    return false;
  }
  uintptr_t start = U(raw);
  if (pl.map_slack != 0) {
    // An alignment above the page size: the mapping starts where the payload
    // is aligned, and the pages around it go back.
    const uintptr_t a = pl.alignment;
    const uintptr_t payload = (start + pl.payload_offset + a - 1) / a * a;
    start = payload - pl.payload_offset;
    if (start > U(raw)) QM_munmap(raw, start - U(raw));
    const uintptr_t end = start + pl.map_len, raw_end = U(raw) + total;
    if (raw_end > end) QM_munmap(P(end), raw_end - end);
  }
  if ((pl.pre_fence != 0 && !disable_access(P(start), pl.pre_fence)) ||
      (pl.post_fence != 0 && !disable_access(P(start + pl.map_len - pl.post_fence), pl.post_fence))) {
    explain_mapping_failure(length, "making a fence");
    QM_munmap(P(start), pl.map_len);
    return false;
  }
  describe(pl, start, length, out);
  return true;
}

// --- allocation, release, reallocation ---------------------------------------------

rz_settings_t settings_from_record(const rz_record_t& r) {
  rz_settings_t s = {};
  s.fence_size = r.fence_size != 0 ? r.fence_size : QM_HEAP_rz_get_fence_size();
  s.want_pre_fence = (r.flags & rzf_has_pre_fence) != 0;
  s.want_post_fence = (r.flags & rzf_has_post_fence) != 0;
  s.want_use_after_free = (r.flags & rzf_detect_use_after_free) != 0;
  s.is_end_aligned = (r.flags & rzf_end_aligned) != 0;
  return s;
}

// Makes up to arg.n blocks into results; the number made. Called with the
// table lock held when need_to_lock is clear.
int do_allocation(const rz_allocate_arg_t& arg, const rz_settings_t& s, void** results) {
  const size_t page = QM_getpagesize();
  int made = 0;
  for (; made < arg.n; ++made) {
    qm::RzPlacement pl;
    rz_record_t rec;
    if (!qm::rz_place(arg.length, arg.alignment, s, page, &pl)) break;
    uintptr_t kept = 0;
    bool inserted = false;
    {
      Lock l(arg.need_to_lock != 0);
      kept = cache_take(pl);
      if (kept != 0) {
        describe(pl, kept, arg.length, &rec);
        inserted = insert(rec);
        if (inserted) add_stats(T.alloc_stats, rec, 1);
      }
    }
    if (kept == 0 && !map_block(pl, arg.length, &rec)) break;
    if (kept == 0) {
      Lock l(arg.need_to_lock != 0);
      inserted = insert(rec);
      if (inserted) add_stats(T.alloc_stats, rec, 1);
    }
    if (!inserted) {
      QM_HEAP_printf("%s.%d: error inserting rz allocation record\n", kFile, __LINE__);
      QM_munmap(rec.alloc_addr, rec.alloc_len);
      break;
    }
    // A kept mapping holds what its last block held: a zeroed request gets
    // its zeros here (a fresh mapping is zero already).
    if (kept != 0 && arg.zalloc) __builtin_memset(rec.payload, 0, arg.length);
    __atomic_store_n(&ever_used, 1, __ATOMIC_RELAXED);
    results[made] = rec.payload;
  }
  return made;
}

void* allocate_one(QM_HEAP_heap_op_e op, size_t alignment, size_t length, int zalloc, bool need_to_lock) {
  rz_allocate_arg_t arg = {&T, op, 1, zalloc, alignment, length, need_to_lock};
  void* p = nullptr;
  if (do_allocation(arg, qm::rz_current_settings(), &p) != 1) errno = ENOMEM;  // as from the C library
  return p;
}

// Releases one block; the lock is taken here when need_to_lock.
void do_deallocation(void* p, bool need_to_lock) {
  rz_record_t r;
  CachedMapping unmap = {};
  {
    Lock l(need_to_lock);
    rz_avl_node_t* n = lookup(p, rz_lookup_exact);
    QM_assert(n != nullptr, "%s.%d: no record for record being deallocated\n", kFile, __LINE__);
    QM_assert(n->rz_record.payload == p, "%s.%d: address being deallocated does not match address in rz record\n",
              kFile, __LINE__);
    r = n->rz_record;
    add_stats(T.alloc_stats, r, -1);
    if (r.flags & rzf_detect_use_after_free) {
      n->rz_record.state = rzs_deallocated;
      disable_access(r.alloc_addr, r.alloc_len);
      add_stats(T.dealloc_stats, n->rz_record, 1);
    } else {
      remove(n);
      unmap = cache_put(r);
    }
  }
  if (unmap.addr != 0 && QM_munmap(P(unmap.addr), unmap.len) != 0)
    QM_assert(0, "%s.%d: error munmapping block to be deallocated\n", kFile, __LINE__);
}

void* do_reallocation(QM_HEAP_heap_op_e op, void* p, size_t len) {
  if (p == nullptr) return allocate_one(op, QM_HEAP_alignment_default, len, 0, true);
  if (len == 0) {
    do_deallocation(p, true);
    return nullptr;
  }
  void* result = nullptr;
  rz_record_t old;
  bool release_old = false;
  {
    Lock l(true);
    rz_avl_node_t* n = lookup(p, rz_lookup_exact);
    if (n == nullptr || n->rz_record.state != rzs_allocated) {
      QM_HEAP_printf("%s.%d: error looking up address %p for reallocation in rz table\n", kFile, __LINE__, p);
      return nullptr;
    }
    old = n->rz_record;
    const size_t da = QM_HEAP_alignment_default;
    const size_t alignment = static_cast<size_t>(old.alignment) < da ? static_cast<size_t>(old.alignment) : da;
    rz_settings_t s = settings_from_record(old);
    s.alignment = alignment;
    qm::RzPlacement pl;
    if (!qm::rz_place(len, alignment, s, QM_getpagesize(), &pl)) {
      errno = ENOMEM;
      return nullptr;
    }
    const size_t keep = old.payload_len < len ? old.payload_len : len;
    if (pl.map_len > old.alloc_len) {
      rz_allocate_arg_t arg = {&T, op, 1, 0, alignment, len, 0};
      if (do_allocation(arg, s, &result) != 1) {
        errno = ENOMEM;
        return nullptr;
      }
      __builtin_memcpy(result, old.payload, keep);
      release_old = true;
    } else {
      const size_t off = qm::rz_payload_offset(old.alloc_len, pl.aligned_len, s.want_pre_fence ? old.fence_size : 0,
                                               s.want_post_fence ? old.fence_size : 0, s.is_end_aligned);
      result = static_cast<char*>(old.alloc_addr) + off;
      if (result != old.payload) __builtin_memmove(result, old.payload, keep);
      T.alloc_stats.payload += len - old.payload_len;
      // The key changes, but not the order: mappings never overlap.
      n->rz_record.payload = result;
      n->rz_record.payload_len = len;
      n->rz_record.alignment = static_cast<int>(alignment);
    }
  }
  if (release_old) do_deallocation(old.payload, true);
  return result;
}

// --- the allocator's slots -------------------------------------------------------------

void* rz_calloc(allocator_t*, owner_t*, size_t nmemb, size_t size) {
  size_t len;
  void* p = nullptr;
  if (__builtin_mul_overflow(nmemb, size, &len))
    errno = ENOMEM;
  else
    p = allocate_one(qm_heap_op_calloc, QM_HEAP_alignment_default, len, 1, true);
  if (tracing())
    QM_HEAP_printf("rz_calloc ( %ld, %ld ) returning %p\n", static_cast<long>(nmemb), static_cast<long>(size), p);
  return p;
}

void rz_free(allocator_t*, owner_t*, void* p) {
  if (tracing()) QM_HEAP_printf("rz_free ( %p )\n", p);
  if (p != nullptr) do_deallocation(p, true);
}

void* rz_malloc(allocator_t*, owner_t*, size_t len) {
  void* p = allocate_one(qm_heap_op_malloc, QM_HEAP_alignment_default, len, 0, true);
  if (tracing()) QM_HEAP_printf("rz_malloc ( %ld ) returning %p\n", static_cast<long>(len), p);
  return p;
}

void* rz_memalign(allocator_t*, owner_t*, size_t alignment, size_t len) {
  void* p = allocate_one(qm_heap_op_memalign, alignment, len, 0, true);
  if (tracing())
    QM_HEAP_printf("rz_memalign ( %ld, %ld ) returning %p\n", static_cast<long>(alignment), static_cast<long>(len), p);
  return p;
}

int rz_posix_memalign(allocator_t*, owner_t*, void** out, size_t alignment, size_t len) {
  // The C library's contract: a power of two and a multiple of a pointer.
  if (alignment == 0 || (alignment & (alignment - 1)) != 0 || alignment % sizeof(void*) != 0) return EINVAL;
  void* p = allocate_one(qm_heap_op_posix_memalign, alignment, len, 0, true);
  if (tracing())
    QM_HEAP_printf("rz_posix_memalign ( %p, %ld, %ld ) returning %p\n", out, static_cast<long>(alignment),
                   static_cast<long>(len), p);
  if (p == nullptr) return ENOMEM;
  *out = p;
  return 0;
}

void* rz_realloc(allocator_t*, owner_t*, void* p, size_t len) {
  void* r = do_reallocation(qm_heap_op_realloc, p, len);
  if (tracing()) QM_HEAP_printf("rz_realloc ( %p, %ld ) returning %p\n", p, static_cast<long>(len), r);
  return r;
}

void* rz_valloc(allocator_t*, owner_t*, size_t len) {
  void* p = allocate_one(qm_heap_op_valloc, QM_getpagesize(), len, 0, true);
  if (tracing()) QM_HEAP_printf("rz_valloc ( %ld ) returning %p\n", static_cast<long>(len), p);
  return p;
}

unsigned rz_batch_malloc(allocator_t*, owner_t*, size_t size, void** results, unsigned n) {
  rz_allocate_arg_t arg = {&T, qm_heap_op_malloc, static_cast<int>(n), 0, QM_HEAP_alignment_default, size, 1};
  int made = do_allocation(arg, qm::rz_current_settings(), results);
  if (tracing())
    QM_HEAP_printf("rz_batch_malloc ( %ld, %p, %u ) returning %d\n", static_cast<long>(size), results, n, made);
  return static_cast<unsigned>(made);
}

void rz_batch_free(allocator_t*, owner_t*, void**, unsigned) {}

constinit const allocator_ftable_t rz_allocator_ftable = {
    QM_HEAP_allocator_get_id, rz_calloc, rz_free,  rz_malloc,       rz_memalign, rz_posix_memalign,
    rz_realloc,               rz_valloc, rz_batch_malloc, rz_batch_free};

constinit allocator_t rz_allocator = {nullptr, 0};
constinit allocator_t* rz_allocator_instance = nullptr;

// --- the fault ------------------------------------------------------------------------------

constinit int fault_reported = 0;

}  // namespace

namespace qm {

rz_settings_t rz_current_settings() {
  rz_settings_t s = {};
  s.alignment = static_cast<size_t>(static_cast<unsigned>(QM_HEAP_rz_get_alignment_setting()));
  s.fence_size = QM_HEAP_rz_get_fence_size();
  s.want_use_after_free = QM_HEAP_rz_get_want_use_after_free();
  switch (QM_HEAP_rz_get_alloc_mode()) {
    case rzam_overrun:
      s.want_post_fence = 1;
      s.is_end_aligned = 1;
      break;
    case rzam_underrun: s.want_pre_fence = 1; break;
    case rzam_unfenced: s.is_end_aligned = QM_HEAP_rz_get_want_end_aligned(); break;
    case rzam_manual:
      s.want_pre_fence = QM_HEAP_rz_get_want_pre_fence();
      s.want_post_fence = QM_HEAP_rz_get_want_post_fence();
      s.is_end_aligned = QM_HEAP_rz_get_want_end_aligned();
      break;
    default:
      QM_assert(0, "%s.%d: current red zone allocation mode is not legal (%d)\n", "../rz_controls.c", __LINE__,
                QM_HEAP_rz_get_alloc_mode());
  }
  return s;
}

size_t rz_payload_offset(size_t map_len, size_t aligned_len, size_t pre_fence, size_t post_fence, bool end_aligned) {
  return end_aligned ? map_len - aligned_len - post_fence : pre_fence;
}

bool rz_place(size_t length, size_t alignment, const rz_settings_t& s, size_t page, RzPlacement* out) {
  // A requested alignment that is not a power of two gets the next one, as
  // from the C library; a forced one is taken as it is.
  if (alignment != 0 && (alignment & (alignment - 1)) != 0) {
    size_t p2 = 1;
    while (p2 < alignment && p2 != 0) p2 <<= 1;
    alignment = p2 != 0 ? p2 : alignment;
  }
  size_t a = s.alignment != 0 ? s.alignment : (alignment > QM_HEAP_alignment_default ? alignment : QM_HEAP_alignment_default);
  if (a == 0) a = 1;
  bool overflow = false;
  RzPlacement& p = *out;
  p = RzPlacement{};
  p.alignment = a;
  p.aligned_len = round_up(length, a, &overflow);
  const size_t fence = s.fence_size == 0 ? page : round_up(s.fence_size, page, &overflow);
  p.pre_fence = s.want_pre_fence ? fence : 0;
  p.post_fence = s.want_post_fence ? fence : 0;
  size_t data = round_up(p.aligned_len, page, &overflow);
  if (data == 0) data = page;  // even an empty block has a page of its own
  p.map_len = data + p.pre_fence + p.post_fence;
  if (p.map_len < data) overflow = true;
  p.map_slack = a > page ? a - page : 0;
  if (p.map_len + p.map_slack < p.map_len) overflow = true;
  p.payload_offset = rz_payload_offset(p.map_len, p.aligned_len, p.pre_fence, p.post_fence, s.is_end_aligned != 0);
  p.flags = (p.pre_fence ? rzf_has_pre_fence : 0) | (p.post_fence ? rzf_has_post_fence : 0) |
            (s.want_use_after_free ? rzf_detect_use_after_free : 0) | (s.is_end_aligned ? rzf_end_aligned : 0);
  return !overflow;
}

QM_HEAP_event_e rz_classify(const rz_record_t& r, uintptr_t addr) {
  const uintptr_t start = U(r.alloc_addr), end = start + r.alloc_len;
  const bool in_pre = (r.flags & rzf_has_pre_fence) && addr >= start && addr - start < r.fence_size;
  const bool in_post = (r.flags & rzf_has_post_fence) && addr < end && end - addr <= r.fence_size;
  if (r.state == rzs_allocated) {
    if (in_pre) return qm_heap_event_rz_underrun;
    if (in_post) return qm_heap_event_rz_overrun;
    return qm_heap_event_rz_unknown;
  }
  if (r.state == rzs_deallocated) {
    if (in_pre) return qm_heap_event_rz_use_after_free_underrun;
    if (in_post) return qm_heap_event_rz_use_after_free_overrun;
    if (addr >= start && addr < end) return qm_heap_event_rz_use_after_free;
  }
  return qm_heap_event_rz_unknown;
}

namespace {
int range_matches(rz_size_range_iterator_t* it, QM_HEAP_rz_size_range_t* r) {
  const size_t len = *static_cast<const size_t*>(it->callback_arg);
  if ((r->flags & rzsrf_is_active) && r->start <= len && (r->end == 0 || len <= r->end)) return 1;
  return 0;
}
}  // namespace

bool use_rz_allocator_for(size_t len) {
  if (!QM_HEAP_rz_is_enabled()) return false;
  if (!QM_HEAP_rz_size_ranges_is_enabled()) return true;
  rz_size_range_iterator_t it = {&len, range_matches, 0, 0};
  int r = QM_HEAP_rz_size_ranges_iterate(&it);
  if (r < 0) QM_HEAP_printf("ERROR: rz_range_size iterator return error (%s.%d)\n", kFile, __LINE__);
  return r == 1;
}

bool rz_owns_address(const void* p) {
  if (QM_LIKELY(!__atomic_load_n(&ever_used, __ATOMIC_RELAXED))) return false;
  bool in_mapping;
  {
    Lock l(true);
    in_mapping = lookup(p, rz_lookup_region) != nullptr;
  }
  if (in_mapping) return true;
  allocation_record_t d;
  QM_HEAP_ht_alloc_read_lock();
  alloc_rec_id_t id = QM_HEAP_lookup_deallocation_record(p, &d, exact);
  QM_HEAP_ht_alloc_read_unlock();
  return id != nullptr && d.allocator_id == am_id_rz_allocator;
}

size_t rz_effective_alignment(size_t requested) {
  const int forced = QM_HEAP_rz_get_alignment_setting();
  return forced > 0 ? static_cast<size_t>(forced) : requested;
}

void rz_signal_handler(void* addr, int* handled) {
  const bool rz_locked = qm::mutex_try_for_a_while(&QM_HEAP_rz_table_mutex);
  rz_avl_node_t* n = lookup(addr, rz_lookup_region);
  rz_record_t rec = n != nullptr ? n->rz_record : rz_record_t{};
  if (rz_locked) qm::mutex_unlock(&QM_HEAP_rz_table_mutex);
  if (n == nullptr) return;  // not ours: the program's own handling follows
  if (QM_HEAP_co_is_emit_for_key(co_rz_signal)) {
    QM_HEAP_printf("rz_signal_handler: p == %p\n", addr);
    QM_HEAP_rz_dump_rz_record(&rec);
  }
  // One report: a second thread faulting meanwhile waits for the exit.
  if (__atomic_exchange_n(&fault_reported, 1, __ATOMIC_ACQ_REL) != 0)
    for (;;) syscall(SYS_pause);

  QM_HEAP_event_info_t e = {};
  e.event = rz_classify(rec, U(addr));
  e.op = qm_heap_op_rz_signal;
  e.addr = addr;
  if (e.event != qm_heap_event_rz_unknown) {
    const bool ht_locked = qm::mutex_try_for_a_while(QM_HEAP_ht_alloc_mutex());
    allocation_record_t r = {};
    if (rec.state == rzs_allocated)
      QM_HEAP_lookup_allocation_range_record(rec.alloc_addr, rec.alloc_len, &r);
    else
      QM_HEAP_lookup_deallocation_range_record(rec.alloc_addr, rec.alloc_len, &r);
    if (ht_locked) qm::mutex_unlock(QM_HEAP_ht_alloc_mutex());
    e.allocation_record = r;
  }
  e.rz_record = rec;
  e.rz_record.flags |= 0xF000;
  QM_HEAP_notify_event(&e);
  *handled = 1;
  exit(QM_HEAP_rz_get_exit_val());
}

}  // namespace qm

extern "C" {

allocator_t* QM_HEAP_rz_allocator_get_instance() {
  if (QM_LIKELY(rz_allocator_instance != nullptr)) return rz_allocator_instance;
  if (QM_HEAP_allocator_constructor(&rz_allocator) != 0)
    QM_assert(0, "%s.%d: error construting rz_allocator\n", kFile, __LINE__);
  rz_allocator.funcs = &rz_allocator_ftable;
  T.mutex = &QM_HEAP_rz_table_mutex;
  rz_allocator_instance = &rz_allocator;
  if (QM_HEAP_rz_install_handler(qm::rz_signal_handler) != 1)
    QM_assert(0, "%s.%d: error installing rz_signal_handler\n", kFile, __LINE__);
  return rz_allocator_instance;
}

void QM_HEAP_rz_atfork_prepare() { qm::mutex_lock(&QM_HEAP_rz_table_mutex); }
void QM_HEAP_rz_atfork_parent() { qm::mutex_unlock(&QM_HEAP_rz_table_mutex); }
void QM_HEAP_rz_atfork_child() { qm::mutex_unlock(&QM_HEAP_rz_table_mutex); }

}  // extern "C"
