#include "base/page.h"

#include <errno.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {
constinit size_t cached_pagesize = 0;
// A hint, not MAP_FIXED: the agent's own pages are asked for near this address
// so that they are easy to tell from the program's in a memory map.
constexpr unsigned long kAnonHint = 0x20000000UL;
}  // namespace

extern "C" {

size_t QM_getpagesize() {
  if (cached_pagesize == 0) cached_pagesize = static_cast<size_t>(getpagesize());
  return cached_pagesize;
}

size_t QM_pagesize_ceil(size_t len) {
  size_t ps = QM_getpagesize();
  size_t rem = len % ps;
  return rem == 0 ? len : len - rem + ps;
}

size_t QM_pagesize_floor(size_t len) { return len - len % QM_getpagesize(); }

void* QM_mmap(void* addr, size_t len, int prot, int flags, int fd, off_t offset) {
  size_t ps = QM_getpagesize();
  if (static_cast<size_t>(offset) % ps != 0) {
    errno = EINVAL;
    return MAP_FAILED;
  }
#if defined(__i386__)
  long r = syscall(SYS_mmap2, addr, len, prot, flags, fd, static_cast<long>(offset / ps));
#else
  long r = syscall(SYS_mmap, addr, len, prot, flags, fd, offset);
#endif
  return reinterpret_cast<void*>(r);
}

void* QM_mmap_anon(size_t len) {
  void* p = QM_mmap(reinterpret_cast<void*>(kAnonHint), len, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  return p == MAP_FAILED ? nullptr : p;
}

int QM_munmap(void* addr, size_t len) { return munmap(addr, len); }

int QM_mprotect(void* p, size_t len, int prot) {
  return mprotect(p, len, prot & (PROT_READ | PROT_WRITE | PROT_EXEC));
}

}  // extern "C"
