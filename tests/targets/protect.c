/* Guards, painting and the hoard seen from the program's side.
 *
 *   overrun FN | underrun FN   a 10-byte block from FN (malloc, calloc,
 *                  realloc, memalign, posix_memalign, valloc, strdup), one
 *                  byte written just past its end (before its start), freed
 *   overrun-live   the same, not freed: a later malloc finds it (with the
 *                  check on entry)
 *   hoard-write    a block freed into the hoard, written, then pushed out of
 *                  the hoard by 40 more releases
 *   hoard-double   a block freed twice while it sits in the hoard
 *   layout         prints the bytes around a 10-byte block, what a few
 *                  painted blocks hold, malloc_usable_size
 *   resize         grows, shrinks and moves guarded blocks with realloc and
 *                  checks contents and guards' bytes
 *   geometry       a block, a stop at checkpoint() (where a debugger may change
 *                  the guard settings), another block: prints each one's
 *                  pre-guard length, then frees both
 *   autoshrink     with the address space limited, releases four 4 MiB
 *                  blocks into the hoard, then asks for 12 MiB: only the
 *                  hoard giving blocks back makes room
 */
#define _GNU_SOURCE
#include <malloc.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

static char* volatile sink;

static char* make(const char* fn) {
  char* p = NULL;
  if (strcmp(fn, "malloc") == 0) p = malloc(10);
  else if (strcmp(fn, "calloc") == 0) p = calloc(5, 2);
  else if (strcmp(fn, "realloc") == 0) p = realloc(NULL, 10);
  else if (strcmp(fn, "memalign") == 0) p = memalign(64, 10);
  else if (strcmp(fn, "posix_memalign") == 0) {
    void* q;
    if (posix_memalign(&q, 32, 10) == 0) p = q;
  } else if (strcmp(fn, "valloc") == 0) p = valloc(10);
  else if (strcmp(fn, "strdup") == 0) p = strdup("123456789");
  if (p == NULL) {
    fprintf(stderr, "protect: no block from %s\n", fn);
    exit(2);
  }
  return p;
}

static void hex(const char* what, const unsigned char* p, size_t n) {
  printf("%s:", what);
  for (size_t i = 0; i < n; ++i) printf(" %02x", p[i]);
  printf("\n");
}

__attribute__((noinline)) void checkpoint(void) { __asm__ volatile("" ::: "memory"); }

static int pre_guard(const unsigned char* p) {
  int n = 0;
  while (n < 4096 && p[-1 - n] == 0x77) ++n;
  return n;
}

static int resize(void) {
  int bad = 0;
  char* p = malloc(100);
  for (int i = 0; i < 100; ++i) p[i] = (char)i;
  p = realloc(p, 5000); /* grows, most likely moves */
  for (int i = 0; i < 100; ++i) bad += p[i] != (char)i;
  memset(p + 100, 7, 4900);
  p = realloc(p, 50); /* shrinks in place */
  for (int i = 0; i < 50; ++i) bad += p[i] != (char)i;
  p = realloc(p, 60); /* grows a little */
  for (int i = 0; i < 50; ++i) bad += p[i] != (char)i;
  memset(p, 1, 60);
  free(p);
  char* q = realloc(NULL, 30);
  memset(q, 2, 30);
  q = realloc(q, 0);
  printf("resize: %d bad bytes\n", bad);
  return bad != 0;
}

int main(int argc, char** argv) {
  const char* what = argc > 1 ? argv[1] : "";
  if (strcmp(what, "overrun") == 0 || strcmp(what, "underrun") == 0) {
    char* p = make(argc > 2 ? argv[2] : "malloc");
    if (what[0] == 'o') p[10] = 'x';
    else p[-1] = 'x';
    free(p);
    return 0;
  }
  if (strcmp(what, "overrun-live") == 0) {
    char* p = malloc(10);
    p[12] = 'x';
    sink = malloc(20);
    return 0;
  }
  if (strcmp(what, "hoard-write") == 0) {
    char* p = malloc(24);
    memset(p, 0, 24);
    free(p);
    p[3] = 'x';
    for (int i = 0; i < 40; ++i) free(malloc(16));
    return 0;
  }
  if (strcmp(what, "hoard-double") == 0) {
    char* p = malloc(24);
    free(p);
    free(p);
    return 0;
  }
  if (strcmp(what, "layout") == 0) {
    unsigned char* p = malloc(10);
    memset(p, 0x55, 10);
    hex("before", p - 8, 8);
    hex("after", p + 10, 8);
    printf("usable: %zu\n", malloc_usable_size(p));
    free(p);
    unsigned char* a = malloc(7);
    hex("painted", a, 7);
    unsigned char* c = calloc(2, 3);
    hex("calloc", c, 6);
    unsigned char* d = malloc(9);
    memset(d, 0, 9);
    free(d);
    hex("released", d, 9); /* still in the hoard: the deallocation pattern */
    free(a);
    free(c);
    return 0;
  }
  if (strcmp(what, "resize") == 0) return resize();
  if (strcmp(what, "geometry") == 0) {
    unsigned char* a = malloc(10);
    checkpoint();
    unsigned char* b = malloc(10);
    printf("pre-guards %d %d\n", pre_guard(a), pre_guard(b));
    free(a);
    free(b);
    return 0;
  }
  if (strcmp(what, "autoshrink") == 0) {
    /* Room for the program as it is and about 20 MiB more. */
    FILE* f = fopen("/proc/self/statm", "r");
    unsigned long pages = 0;
    if (f == NULL || fscanf(f, "%lu", &pages) != 1) return 2;
    fclose(f);
    struct rlimit rl = {pages * (unsigned long)sysconf(_SC_PAGESIZE) + (20ul << 20), RLIM_INFINITY};
    if (setrlimit(RLIMIT_AS, &rl) != 0) return 2;
    char* held[4];
    for (int i = 0; i < 4; ++i) {
      held[i] = malloc(4 << 20);
      if (held[i] == NULL) return 3;
      memset(held[i], i, 4 << 20);
    }
    for (int i = 0; i < 4; ++i) free(held[i]);
    char* big = malloc(12 << 20);
    printf("autoshrink: %s\n", big != NULL ? "made room" : "no room");
    free(big);
    return 0;
  }
  fprintf(stderr, "protect: unknown mode %s\n", what);
  return 2;
}
