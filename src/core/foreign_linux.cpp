// Blocks of the C library's allocator that the agent did not see being made.
//
// glibc hands out memory through functions the agent does not interpose
// (aligned_alloc and pvalloc go straight to its internal memalign), and
// those blocks come back through free and realloc. To stay silent about them
// without hiding wild pointers, a pointer is accepted only when the
// allocator's own chunk layout around it describes a block in use: a size
// word with sane flags and alignment and, for a block of the main heaps, a
// following chunk that records its predecessor as in use; for a block of its
// own mapping, a mapping that starts and ends on page boundaries.
#include <stddef.h>
#include <stdint.h>
#include <sys/mman.h>

#include "base/page.h"
#include "core/binding.h"
#include "core/bodies.h"

namespace {

constexpr uintptr_t kSz = sizeof(size_t);
constexpr uintptr_t kAlign = 16;  // the allocator's alignment on both x86 targets
constexpr size_t kPrevInUse = 1;
constexpr size_t kIsMmapped = 2;
constexpr size_t kFlagBits = 7;

// Whether the pages holding [addr, addr + len) are mapped (first and last).
bool mapped(uintptr_t addr, uintptr_t len) {
  uintptr_t ps = QM_getpagesize();
  unsigned char vec[1];
  uintptr_t first = addr - addr % ps;
  uintptr_t last = (addr + len - 1) - (addr + len - 1) % ps;
  if (mincore(reinterpret_cast<void*>(first), 1, vec) != 0) return false;
  return last == first || mincore(reinterpret_cast<void*>(last), 1, vec) == 0;
}

size_t word_at(uintptr_t a) { return *reinterpret_cast<const volatile size_t*>(a); }

// A block in the allocator's per-thread cache still looks in use from its
// neighbour, but carries the cache's key in its second word. The key is
// learnt once by releasing a block of our own through the real allocator.
constexpr size_t kCacheMax = 1032;
constinit uintptr_t cache_key = 0;
constinit int cache_key_known = 0;

void learn_cache_key() {
  if (cache_key_known) return;
  cache_key_known = 1;
  if (QM_HEAP_org_malloc == nullptr || QM_HEAP_org_free == nullptr) return;
  auto* p = static_cast<uintptr_t*>(QM_HEAP_org_malloc(3 * sizeof(uintptr_t)));
  if (p == nullptr) return;
  p[1] = 0;
  QM_HEAP_org_free(p);
  cache_key = *reinterpret_cast<volatile uintptr_t*>(&p[1]);
}

}  // namespace

extern "C" int QM_HEAP_is_foreign_live_block(const void* p) {
  uintptr_t u = reinterpret_cast<uintptr_t>(p);
  if (u < 4096 || u % kAlign != 0) return 0;
  uintptr_t chunk = u - 2 * kSz;
  if (!mapped(chunk, 2 * kSz)) return 0;
  size_t field = word_at(chunk + kSz);
  size_t size = field & ~kFlagBits;
  uintptr_t ps = QM_getpagesize();
  if (field & kIsMmapped) {
    size_t prev = word_at(chunk);
    uintptr_t start = chunk - prev;
    if (start > chunk || size < ps || (start % ps) != 0 || ((prev + size) % ps) != 0) return 0;
    return mapped(start, prev + size) ? 1 : 0;
  }
  if (size < 4 * kSz || size % kAlign != 0) return 0;
  uintptr_t next = chunk + size;
  if (next < chunk || !mapped(next, 2 * kSz)) return 0;
  if (!(word_at(next + kSz) & kPrevInUse)) return 0;
  if (size - kSz <= kCacheMax) {
    learn_cache_key();
    if (cache_key != 0 && word_at(u + kSz) == cache_key) return 0;  // released into the cache
  }
  return 1;
}
