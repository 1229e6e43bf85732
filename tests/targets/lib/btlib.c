/* A library that backtrace targets load and unload at run time: it uses the
 * heap from its own functions and walks the stack from inside itself, so
 * that the unwinder asks about its code while it comes and goes. Built
 * twice: libqmbtlib, and libqmbtlib2 with BTLIB_OTHER. */
#include <execinfo.h>
#include <stdlib.h>
#include <string.h>

#define KEEP(p) __asm__ volatile("" : : "r"(p) : "memory")

#ifdef BTLIB_OTHER
/* The second build of the library (libqmbtlib2): other code, with frames of
 * other shapes, where the first build has its functions. */
__attribute__((noinline)) long btlib_other_mix(const long* v, int n) {
  long table[300];
  for (int i = 0; i < 300; ++i) table[i] = v[i % n] * i;
  KEEP(table);
  long s = 0;
  for (int i = 0; i < 300; i += 3) s += table[i] ^ table[(i * 7) % 300];
  return s;
}

__attribute__((noinline)) void* btlib_other_pair(size_t a, size_t b) {
  char* p = malloc(a + b);
  KEEP(p);
  if (p != NULL) memset(p, 0, a + b);
  return p;
}
#endif

__attribute__((noinline)) void* btlib_alloc(size_t n) {
  void* p = malloc(n);
  KEEP(p);
  return p;
}

__attribute__((noinline)) void* btlib_resize(void* p, size_t n) {
  void* q = realloc(p, n);
  KEEP(q);
  return q;
}

__attribute__((noinline)) void btlib_free(void* p) {
  free(p);
  KEEP(p);
}

/* depth frames of this library, then a walk of the whole stack: the
 * number of frames found (more than depth when the unwinder got through
 * this library's frames). */
__attribute__((noinline)) int btlib_unwind(int depth) {
  if (depth > 0) {
    char* scratch = malloc(16 + depth);
    int n = btlib_unwind(depth - 1);
    free(scratch);
    KEEP(n);
    return n;
  }
  void* pcs[256];
  return backtrace(pcs, 256);
}
