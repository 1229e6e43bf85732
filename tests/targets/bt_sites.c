/* Calls each heap function from a function of its own (a site_* function)
 * and checks, still under the agent, the call stacks recorded for the
 * blocks: their first frame (after the frames of the agent that the trim
 * keeps, see below) must lie in the site that made, resized or released the
 * block. Prints one line per check ("check NAME ok" or "check NAME FAIL:
 * why") and "bt_sites: N checks, M failed" at the end.
 * Usage: bt_sites [option]...
 *   agent-frames=K  the recorded stacks start with K frames in the agent
 *                   (what a trim of 5 - K keeps of it); default 0
 *   set-trim=T      write T into the agent's trim before the first site
 *   set-depth=D     the same for the depth
 *   max-pcs=N       every stored stack holds at most N counters, a block
 *                   made here exactly N when N <= 5 (default: the depth)
 *   empty           capture is off: the table stays empty, blocks carry 0
 *   deep=L          make one block below L levels of recursion
 *   dump            with deep: the agent's debugging dump of its stack prints
 *                   every counter, or fails for more than its buffer's 64 */
#define _GNU_SOURCE
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int btr_init(void);
int btr_next_id(void);
int btr_frames(int id, void* const** pcs);
int btr_dump(int id);
void btr_set_depth(int v);
void btr_set_trim(int v);
int btr_depth(void);
int btr_block(void* p, int* bt, int* org);
int btr_release(void* p, int* bt, void** start);
const char* btr_function(const void* pc);
const char* btr_object(const void* pc);
const char* btr_where(const void* pc, char* buf, size_t len);
int btr_check_table(int max_pcs, const char* agent, char* why, size_t len);

#define SITE __attribute__((noinline, noclone))
#define KEEP(p) __asm__ volatile("" : : "r"(p) : "memory")

static void* volatile no_block; /* null that the compiler cannot see */
static const char* volatile text = "a string to duplicate";

SITE void* site_malloc(size_t n) { void* p = malloc(n); KEEP(p); return p; }
SITE void* site_calloc(void) { void* p = calloc(10, 10); KEEP(p); return p; }
SITE void* site_realloc_null(void) { void* p = realloc(no_block, 100); KEEP(p); return p; }
SITE void* site_memalign(void) { void* p = memalign(256, 100); KEEP(p); return p; }
SITE void* site_posix_memalign(void) {
  void* p = NULL;
  int r = posix_memalign(&p, 64, 100);
  KEEP(r);
  return r == 0 ? p : NULL;
}
SITE void* site_valloc(void) { void* p = valloc(100); KEEP(p); return p; }
SITE char* site_strdup(void) { char* p = strdup(text); KEEP(p); return p; }
SITE void* site_malloc_moved(void) { void* p = malloc(16); KEEP(p); return p; }
/* Grows past the C library's mapping threshold: the block moves. */
SITE void* site_realloc_move(void* p) { void* q = realloc(p, 1 << 20); KEEP(q); return q; }
SITE void* site_malloc_shrunk(void) { void* p = malloc(4000); KEEP(p); return p; }
SITE void* site_realloc_shrink(void* p) { void* q = realloc(p, 100); KEEP(q); return q; }
SITE void* site_malloc_freed(void) { void* p = malloc(100); KEEP(p); return p; }
SITE void site_free(void* p) { free(p); KEEP(p); }
SITE void* site_repeated(void) { void* p = malloc(24); KEEP(p); return p; }
SITE void* site_fresh(void) { void* p = malloc(24); KEEP(p); return p; }

SITE void* deep_leaf(void) { void* p = malloc(32); KEEP(p); return p; }
SITE void* deep_recurse(int n) {
  void* p = n == 0 ? deep_leaf() : deep_recurse(n - 1);
  KEEP(p);
  return p;
}

static int checks, failures;
static int agent_frames, max_pcs, empty;
static const char* const agent_name = "libqmheap";

static void result(const char* name, int ok, const char* why) {
  ++checks;
  if (ok) {
    printf("check %s ok\n", name);
  } else {
    ++failures;
    printf("check %s FAIL: %s\n", name, why);
  }
}

/* The stack id was captured in fn: agent_frames frames of the agent, then
 * (when lead names an object) one to three frames of that object, then fn;
 * and it holds max_pcs counters (or fewer when the stack is shorter). */
static void expect_stack(const char* name, int id, const char* lead, const char* fn) {
  char why[600], a[160];
  if (empty) {
    snprintf(why, sizeof why, "capture is off, yet the block carries id %d", id);
    result(name, id == 0, why);
    return;
  }
  void* const* pcs;
  int n = btr_frames(id, &pcs);
  if (n <= 0) {
    snprintf(why, sizeof why, "id %d holds no frames (%d, next id %d)", id, n, btr_next_id());
    result(name, 0, why);
    return;
  }
  int k = 0;
  for (; k < agent_frames; ++k) {
    const char* o = k < n ? btr_object(pcs[k]) : NULL;
    if (o == NULL || strstr(o, agent_name) == NULL) {
      snprintf(why, sizeof why, "id %d: frame %d %s is not in the agent", id, k,
               k < n ? btr_where(pcs[k], a, sizeof a) : "(none)");
      result(name, 0, why);
      return;
    }
  }
  int first = k;
  while (lead != NULL && k < n && k < first + 3 && btr_object(pcs[k]) != NULL && strstr(btr_object(pcs[k]), lead))
    ++k;
  if (lead != NULL && k == first) {
    snprintf(why, sizeof why, "id %d: frame %d %s is not in %s", id, k, btr_where(pcs[k], a, sizeof a), lead);
    result(name, 0, why);
    return;
  }
  const char* f = k < n ? btr_function(pcs[k]) : NULL;
  if (f == NULL || strcmp(f, fn) != 0) {
    snprintf(why, sizeof why, "id %d: frame %d is %s, not in %s", id, k,
             k < n ? btr_where(pcs[k], a, sizeof a) : "(none)", fn);
    result(name, 0, why);
    return;
  }
  /* Every stack made here is at least five frames deep. */
  if (n > max_pcs || (max_pcs <= 5 && n != max_pcs)) {
    snprintf(why, sizeof why, "id %d holds %d counters, %d wanted", id, n, max_pcs);
    result(name, 0, why);
    return;
  }
  result(name, 1, NULL);
}

/* A live block made at site fn: its stack, and its first allocation's. */
static void expect_block(const char* name, void* p, const char* lead, const char* fn, const char* org_fn) {
  int bt = -1, org = -1;
  char n2[80];
  if (p == NULL || !btr_block(p, &bt, &org)) {
    result(name, 0, p == NULL ? "the heap function failed" : "no live record holds the block");
    return;
  }
  expect_stack(name, bt, lead, fn);
  snprintf(n2, sizeof n2, "%s.org", name);
  expect_stack(n2, org, lead, org_fn != NULL ? org_fn : fn);
}

/* A released range that holds p, released at site fn, starting at start. */
static void expect_release(const char* name, void* p, void* start, const char* fn) {
  int bt = -1;
  void* s = NULL;
  if (!btr_release(p, &bt, &s)) {
    result(name, 0, "no released range holds the address");
    return;
  }
  if (s != start) {
    char why[120];
    snprintf(why, sizeof why, "the released range starts at %p, not %p", s, start);
    result(name, 0, why);
    return;
  }
  expect_stack(name, bt, NULL, fn);
}

static void run_sites(void) {
  void* p = site_malloc(100);
  expect_block("malloc", p, NULL, "site_malloc", NULL);
  expect_block("calloc", site_calloc(), NULL, "site_calloc", NULL);
  expect_block("realloc-null", site_realloc_null(), NULL, "site_realloc_null", NULL);
  expect_block("memalign", site_memalign(), NULL, "site_memalign", NULL);
  expect_block("posix_memalign", site_posix_memalign(), NULL, "site_posix_memalign", NULL);
  expect_block("valloc", site_valloc(), NULL, "site_valloc", NULL);
  expect_block("strdup", site_strdup(), "libc.so", "site_strdup", NULL);

  /* A block that moves: the new record is the resize's, its first
   * allocation is kept, and the old range is released by the resize. */
  void* old = site_malloc_moved();
  void* moved = site_realloc_move(old);
  if (moved == old) {
    result("realloc-move", 0, "the block did not move");
  } else {
    expect_release("realloc-move.release", old, old, "site_realloc_move");
    expect_block("realloc-move", moved, NULL, "site_realloc_move", "site_malloc_moved");
  }
  /* Shrunk in place: the tail is released by the resize; the block keeps
   * its first allocation's stack, and its own is one of the two sites'. */
  char* big = site_malloc_shrunk();
  char* shrunk = site_realloc_shrink(big);
  int bt = -1, org = -1;
  if (shrunk != big) {
    result("realloc-shrink", 0, "the block did not stay in place");
  } else if (!btr_block(shrunk, &bt, &org)) {
    result("realloc-shrink", 0, "no live record holds the block");
  } else {
    expect_release("realloc-shrink.tail", big + 200, big + 100, "site_realloc_shrink");
    void* const* pcs;
    const char* f = btr_frames(bt, &pcs) > agent_frames ? btr_function(pcs[agent_frames]) : NULL;
    if (empty) {
      expect_stack("realloc-shrink", bt, NULL, "site_malloc_shrunk");
    } else if (f != NULL && strcmp(f, "site_realloc_shrink") == 0) {
      expect_stack("realloc-shrink", bt, NULL, "site_realloc_shrink");
    } else {
      expect_stack("realloc-shrink", bt, NULL, "site_malloc_shrunk");
    }
    expect_stack("realloc-shrink.org", org, NULL, "site_malloc_shrunk");
  }

  void* f = site_malloc_freed();
  site_free(f);
  expect_release("free", f, f, "site_free");

  if (empty) return;
  /* One stack, one identifier; a stack never seen before takes the next. */
  int ids[3];
  for (int i = 0; i < 3; ++i) {
    int org;
    void* r = site_repeated();
    if (!btr_block(r, &ids[i], &org)) ids[i] = -1;
  }
  char why[200];
  snprintf(why, sizeof why, "three blocks of one site carry ids %d %d %d", ids[0], ids[1], ids[2]);
  result("same-site-same-id", ids[0] > 0 && ids[0] == ids[1] && ids[1] == ids[2], why);
  int next = btr_next_id();
  bt = -1;
  void* fresh = site_fresh();
  btr_block(fresh, &bt, &org);
  snprintf(why, sizeof why, "a new stack got id %d (next id was %d, is %d)", bt, next, btr_next_id());
  result("new-stack-next-id", bt == next && btr_next_id() == next + 1, why);
  free(fresh);
  free(p);
}

int main(int argc, char** argv) {
  int deep = -1, dump = 0;
  const char* set_trim = NULL;
  const char* set_depth = NULL;
  max_pcs = -1;
  for (int i = 1; i < argc; ++i) {
    if (strncmp(argv[i], "agent-frames=", 13) == 0) agent_frames = atoi(argv[i] + 13);
    else if (strncmp(argv[i], "set-trim=", 9) == 0) set_trim = argv[i] + 9;
    else if (strncmp(argv[i], "set-depth=", 10) == 0) set_depth = argv[i] + 10;
    else if (strncmp(argv[i], "max-pcs=", 8) == 0) max_pcs = atoi(argv[i] + 8);
    else if (strcmp(argv[i], "empty") == 0) empty = 1;
    else if (strncmp(argv[i], "deep=", 5) == 0) deep = atoi(argv[i] + 5);
    else if (strcmp(argv[i], "dump") == 0) dump = 1;
    else {
      fprintf(stderr, "bt_sites: unknown option %s\n", argv[i]);
      return 2;
    }
  }
  if (!btr_init()) {
    puts("bt_sites: the agent is not loaded");
    return 2;
  }
  if (set_trim != NULL) btr_set_trim(atoi(set_trim));
  if (set_depth != NULL) btr_set_depth(atoi(set_depth));
  if (max_pcs < 0) max_pcs = btr_depth() > 0 ? btr_depth() : 32;

  if (deep >= 0) {
    void* p = deep_recurse(deep);
    int bt = -1, org;
    char why[600], a[160];
    if (!btr_block(p, &bt, &org)) {
      result("deep", 0, "no live record holds the block");
    } else {
      void* const* pcs;
      int n = btr_frames(bt, &pcs);
      snprintf(why, sizeof why, "id %d holds %d counters, %d wanted", bt, n, max_pcs);
      result("deep.count", n == max_pcs, why);
      int bad = -1;
      for (int i = 0; i < n && bad < 0; ++i)
        if (btr_function(pcs[i]) == NULL || strcmp(btr_function(pcs[i]), i == 0 ? "deep_leaf" : "deep_recurse") != 0)
          bad = i;
      snprintf(why, sizeof why, "frame %d is %s", bad, bad >= 0 ? btr_where(pcs[bad], a, sizeof a) : "");
      result("deep.frames", bad < 0, why);
      if (dump) {
        int dumped = btr_dump(bt);
        snprintf(why, sizeof why, "the dump of id %d (%d counters) returned %d", bt, n, dumped);
        result("deep.dump", dumped == (n <= 64 ? n : -1), why);
      }
    }
    free(p);
  } else {
    run_sites();
  }

  char why[600];
  if (empty) {
    snprintf(why, sizeof why, "next id is %d", btr_next_id());
    result("table-empty", btr_next_id() == 1, why);
  } else {
    int ids = btr_check_table(max_pcs, agent_frames > 0 ? NULL : agent_name, why, sizeof why);
    result("table", ids > 0, why);
  }
  printf("bt_sites: %d checks, %d failed\n", checks, failures);
  return failures != 0;
}
