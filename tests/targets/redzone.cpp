/* Red zones seen from the program's side.
 *
 *   overread FN | overwrite FN     a 10-byte block from FN (malloc, calloc,
 *                 realloc, memalign, posix_memalign, valloc, strdup, new),
 *                 the byte just past its end read (written)
 *   underread FN | underwrite FN   the byte just before its start
 *   afterfree FN  the block freed, then its first byte read
 *   freed-past | freed-before   a freed block's former fence read (past its
 *                 end, before its start)
 *   layout        prints where blocks sit in their pages and what guards them
 *   resize        reallocation within and across mappings, zeroing, the
 *                 aligned functions; checks contents
 *   ranges        blocks of several sizes: which have a fence behind them,
 *                 and resizes that move blocks between the two allocators
 *   threads       four threads allocate and free; one overruns a block
 *   unknown-segv  a fault outside every red zone, no handler of the program's
 *   protected     the program makes a page inside its own block inaccessible
 *                 and reads it: a fault in a red-zone mapping but in no fence
 *   mapcount      allocates 10-byte blocks until one fails, prints how many
 */
#include <malloc.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

static volatile char sink;

static char* make(const char* fn, size_t n) {
  char* p = NULL;
  if (strcmp(fn, "malloc") == 0) p = (char*)malloc(n);
  else if (strcmp(fn, "calloc") == 0) p = (char*)calloc(n, 1);
  else if (strcmp(fn, "realloc") == 0) p = (char*)realloc(NULL, n);
  else if (strcmp(fn, "memalign") == 0) p = (char*)memalign(64, n);
  else if (strcmp(fn, "posix_memalign") == 0) {
    void* q;
    if (posix_memalign(&q, 32, n) == 0) p = (char*)q;
  } else if (strcmp(fn, "valloc") == 0) p = (char*)valloc(n);
  else if (strcmp(fn, "strdup") == 0) p = strdup("123456789");
  else if (strcmp(fn, "new") == 0) p = new char[n];
  if (p == NULL) {
    fprintf(stderr, "redzone: no block from %s\n", fn);
    exit(2);
  }
  return p;
}

static void release(const char* fn, char* p) {
  if (strcmp(fn, "new") == 0) delete[] p;
  else free(p);
}

/* Whether the page holding a is inaccessible, from the process's map. */
static int is_fence(const void* a) {
  FILE* f = fopen("/proc/self/maps", "r");
  char line[512];
  int fence = -1;
  while (f != NULL && fgets(line, sizeof line, f) != NULL) {
    unsigned long lo, hi;
    char perms[8];
    if (sscanf(line, "%lx-%lx %7s", &lo, &hi, perms) == 3 && (uintptr_t)a >= lo && (uintptr_t)a < hi)
      fence = strncmp(perms, "---", 3) == 0;
  }
  if (f != NULL) fclose(f);
  return fence;
}

static size_t page(void) { return (size_t)sysconf(_SC_PAGESIZE); }

/* The address as a number the compiler knows nothing about (it would take
 * memalign's alignment on trust). */
static uintptr_t addr_of(const void* p) {
  uintptr_t a = (uintptr_t)p;
  __asm__ volatile("" : "+r"(a));
  return a;
}

static int layout(void) {
  const size_t sizes[] = {0, 1, 10, 100, 4096, 5000};
  for (size_t i = 0; i < sizeof sizes / sizeof *sizes; ++i) {
    char* p = (char*)malloc(sizes[i]);
    uintptr_t a = addr_of(p);
    printf("malloc %zu: offset %zu, fence before %d, fence after %d\n", sizes[i], (size_t)(a % page()),
           is_fence(p - 1), is_fence(p + (sizes[i] + 15) / 16 * 16));
    free(p);
  }
  char* v = (char*)valloc(10);
  char* m = (char*)memalign(8192, 10);
  void* q = NULL;
  posix_memalign(&q, 256, 10);
  printf("aligned: valloc %d, memalign %d, posix_memalign %d\n", (int)(addr_of(v) % page()),
         (int)(addr_of(m) % 8192), (int)(addr_of(q) % 256));
  free(v);
  free(m);
  free(q);
  return 0;
}

static int check(const char* what, const char* p, size_t n, char c) {
  for (size_t i = 0; i < n; ++i)
    if (p[i] != c) {
      printf("%s: byte %zu is %d, not %d\n", what, i, p[i], c);
      return 1;
    }
  return 0;
}

static int resize(void) {
  int bad = 0;
  char* z = (char*)calloc(3000, 3);
  bad += check("calloc", z, 9000, 0);
  char* p = (char*)malloc(100);
  memset(p, 1, 100);
  p = (char*)realloc(p, 50); /* within the mapping */
  bad += check("shrunk", p, 50, 1);
  p = (char*)realloc(p, 3000); /* still one page */
  bad += check("grown in place", p, 50, 1);
  memset(p, 2, 3000);
  p = (char*)realloc(p, 20000); /* a mapping of its own */
  bad += check("moved", p, 3000, 2);
  memset(p, 3, 20000);
  p = (char*)realloc(p, 0);
  char* q = (char*)realloc(NULL, 77);
  memset(q, 4, 77);
  q = (char*)realloc(q, 78);
  bad += check("from null", q, 77, 4);
  free(q);
  free(z);
  printf("resize: %s\n", bad ? "bad" : "ok");
  return bad != 0;
}

static int ranges(void) {
  const size_t sizes[] = {10, 100, 1000, 5000};
  for (size_t i = 0; i < sizeof sizes / sizeof *sizes; ++i) {
    char* p = (char*)malloc(sizes[i]);
    printf("%zu: %s\n", sizes[i], is_fence(p + sizes[i]) == 1 ? "red zone" : "heap");
    free(p);
  }
  /* Across: a red-zone block resized out of its range and a heap block into one. */
  int bad = 0;
  char* a = (char*)malloc(100);
  memset(a, 5, 100);
  a = (char*)realloc(a, 5000);
  bad += check("rz to heap", a, 100, 5);
  printf("grown: %s\n", is_fence(a + 5000) == 1 ? "red zone" : "heap");
  char* b = (char*)malloc(10);
  memset(b, 6, 10);
  b = (char*)realloc(b, 100);
  bad += check("heap to rz", b, 10, 6);
  printf("grown: %s\n", is_fence(b + 100) == 1 ? "red zone" : "heap");
  free(a);
  free(b);
  printf("ranges: %s\n", bad ? "bad" : "ok");
  return bad != 0;
}

static void* churn(void* arg) {
  for (int i = 0; i < 2000; ++i) {
    char* p = (char*)malloc(16 + i % 64);
    p[0] = 1;
    free(p);
  }
  if (arg != NULL) {
    char* p = (char*)malloc(10);
    sink = p[16];
  }
  return NULL;
}

static int threads(void) {
  pthread_t t[4];
  for (int i = 0; i < 4; ++i) pthread_create(&t[i], NULL, churn, i == 2 ? (void*)1 : NULL);
  for (int i = 0; i < 4; ++i) pthread_join(t[i], NULL);
  return 0;
}

int main(int argc, char** argv) {
  const char* mode = argc > 1 ? argv[1] : "";
  const char* fn = argc > 2 ? argv[2] : "malloc";
  setvbuf(stdout, NULL, _IONBF, 0);
  if (strcmp(mode, "overread") == 0) sink = make(fn, 10)[10];
  else if (strcmp(mode, "overwrite") == 0) make(fn, 10)[10] = 1;
  else if (strcmp(mode, "underread") == 0) sink = make(fn, 10)[-1];
  else if (strcmp(mode, "underwrite") == 0) make(fn, 10)[-1] = 1;
  else if (strcmp(mode, "afterfree") == 0) {
    char* p = make(fn, 10);
    release(fn, p);
    sink = p[0];
  } else if (strcmp(mode, "freed-past") == 0 || strcmp(mode, "freed-before") == 0) {
    char* p = make(fn, 10);
    free(p);
    sink = mode[6] == 'p' ? p[10] : p[-1];
  } else if (strcmp(mode, "layout") == 0) return layout();
  else if (strcmp(mode, "resize") == 0) return resize();
  else if (strcmp(mode, "ranges") == 0) return ranges();
  else if (strcmp(mode, "threads") == 0) return threads();
  else if (strcmp(mode, "unknown-segv") == 0) {
    char* pg = (char*)mmap(NULL, page(), PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    sink = pg[0];
  } else if (strcmp(mode, "protected") == 0) {
    char* p = (char*)malloc(3 * page());
    char* mid = (char*)((addr_of(p) + page() + page() - 1) / page() * page());
    mprotect(mid, page(), PROT_NONE);
    sink = mid[1];
  } else if (strcmp(mode, "mapcount") == 0) {
    long n = 0;
    while (malloc(10) != NULL) ++n;
    printf("blocks: %s\n", n > 1000 ? "many" : "few");
    return 0;
  } else {
    fprintf(stderr, "redzone: unknown mode %s\n", mode);
    return 2;
  }
  printf("not caught\n");
  return 0;
}
