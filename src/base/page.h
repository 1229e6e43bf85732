// Page layer: the system page size and thin wrappers over the mapping calls.
// Safe anywhere: no heap, no lock, callable before the C library has started.
#pragma once
#include <stddef.h>
#include <sys/types.h>

extern "C" {
// The system page size, cached after the first call.
size_t QM_getpagesize();
// len rounded up (ceil) or down (floor) to whole pages; 0 stays 0.
size_t QM_pagesize_ceil(size_t len);
size_t QM_pagesize_floor(size_t len);
// The raw mapping system call (mmap2 on i386, mmap on x86-64). An offset that
// is not page aligned fails with EINVAL and makes no system call.
void* QM_mmap(void* addr, size_t len, int prot, int flags, int fd, off_t offset);
// Private anonymous read-write pages near the agent's usual address; NULL on failure.
void* QM_mmap_anon(size_t len);
int QM_munmap(void* addr, size_t len);
// prot is masked to PROT_READ|PROT_WRITE|PROT_EXEC.
int QM_mprotect(void* p, size_t len, int prot);
}
