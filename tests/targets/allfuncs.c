/* Uses the seven heap functions in every combination of allocator and
 * releaser, with the C contract's edge cases, and checks results, alignment
 * and contents. With QM_EXPECT_AGENT set it also checks that the process's
 * malloc is the agent's. Prints one line and exits 0 when all is well. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <malloc.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int failures;
#define CHECK(c)                                                        \
  do {                                                                  \
    if (!(c)) {                                                         \
      fprintf(stderr, "allfuncs: %s:%d: %s\n", __FILE__, __LINE__, #c); \
      ++failures;                                                       \
    }                                                                   \
  } while (0)

enum { kAllocators = 6, kReleasers = 4 };

static void* allocate(int how, size_t n) {
  void* p = NULL;
  switch (how) {
    case 0: return malloc(n);
    case 1: return calloc(n, 1);
    case 2: return realloc(NULL, n);
    case 3: return memalign(64, n);
    case 4: return posix_memalign(&p, 128, n) == 0 ? p : NULL;
    default: return valloc(n);
  }
}

static void release(int how, void* p, size_t n) {
  switch (how) {
    case 0: free(p); break;
    case 1: free(realloc(p, n * 2 + 1)); break; /* grow, then free */
    case 2: free(realloc(p, n / 2 + 1)); break; /* shrink, then free */
    default: {
      void* q = realloc(p, 0); /* glibc frees and returns NULL */
      free(q);
    }
  }
}

static int aligned_as_promised(int how, void* p) {
  uintptr_t a = (uintptr_t)p;
  switch (how) {
    case 3: return a % 64 == 0;
    case 4: return a % 128 == 0;
    case 5: return a % (uintptr_t)sysconf(_SC_PAGESIZE) == 0;
    default: return a % (2 * sizeof(void*)) == 0;
  }
}

int main(void) {
  const size_t sizes[] = {1, 7, 16, 100, 4096, 70000, 300000};
  int combos = 0;
  for (int a = 0; a < kAllocators; ++a)
    for (int r = 0; r < kReleasers; ++r)
      for (size_t s = 0; s < sizeof sizes / sizeof *sizes; ++s) {
        size_t n = sizes[s];
        unsigned char* p = allocate(a, n);
        CHECK(p != NULL);
        if (p == NULL) continue;
        CHECK(aligned_as_promised(a, p));
        if (a == 1) {
          size_t zeros = 0;
          for (size_t i = 0; i < n; ++i) zeros += p[i] == 0;
          CHECK(zeros == n);
        }
        memset(p, 0x5a, n);
        if (r == 1 || r == 2) {
          /* realloc keeps the common prefix */
          unsigned char* q = realloc(p, r == 1 ? n * 3 : (n + 1) / 2);
          CHECK(q != NULL);
          size_t keep = r == 1 ? n : (n + 1) / 2;
          CHECK(q != NULL && q[0] == 0x5a && q[keep - 1] == 0x5a);
          p = q;
        }
        release(r, p, n);
        ++combos;
      }

  /* The C contract. */
  free(NULL);
  void* z = malloc(0);
  free(z);
  errno = 0;
  CHECK(calloc((size_t)-1 / 2, 4) == NULL && errno == ENOMEM);
  void* out = (void*)&combos;
  CHECK(posix_memalign(&out, 3, 16) == EINVAL && out == (void*)&combos);
  CHECK(posix_memalign(&out, sizeof(void*) * 3, 16) == EINVAL);
  CHECK(malloc((size_t)-1 - 4096) == NULL);
  void* big = NULL;
  CHECK(posix_memalign(&big, 4096, 1) == 0 && ((uintptr_t)big & 4095) == 0);
  free(big);

  if (getenv("QM_EXPECT_AGENT") != NULL) {
    Dl_info info;
    void* m = dlsym(RTLD_DEFAULT, "malloc");
    CHECK(m != NULL && dladdr(m, &info) != 0 && strstr(info.dli_fname, "libqmheap") != NULL);
    CHECK(dlsym(RTLD_DEFAULT, "QM_HEAP_malloc_interposers_c_marker_function") != NULL);
  }
  printf("allfuncs: %d combinations, %d failures\n", combos, failures);
  return failures == 0 ? 0 : 1;
}
