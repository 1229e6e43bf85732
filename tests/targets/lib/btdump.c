/* Preloaded after the agent (LD_PRELOAD=agent:libqmbtdump.so) into any
 * program, this library writes the agent's backtrace table to the file
 * named by QMBT_DUMP when the program ends, one line a stack:
 *   "id N: object+offset object+offset ..."
 * (offsets from the object's lowest address, the same in every run), after
 * a header that says, of the first frames, how many lie in the agent and
 * how many follow a direct call, through the calling object's PLT, to one of
 * the agent's heap functions ("after-plt-call malloc 12"; x86-64 only).
 *
 * Its constructor makes one block, which must carry a stack (so that the
 * agent has decided by then how it walks stacks), and then renames
 * QMHEAP_NO_FAST_UNWIND and a stand-in of the same length,
 * QMHEAP_NO_FAST_UNWINX, to QMHEAP_NO_FAST_UNWIN_: the program then sees the
 * same environment whichever walk the agent uses, and runs the same way.
 * Linked with libgcc_s, so that the unwinder is loaded from the start in
 * every run. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern char** environ;

int btr_init(void);
int btr_next_id(void);
int btr_frames(int id, void* const** pcs);
int btr_block(void* p, int* bt, int* org);
const char* btr_object(const void* pc);

static int out = -1;
static int captured;

static const char* const heap_functions[] = {"malloc", "calloc", "realloc", "free", "memalign", "posix_memalign",
                                             "valloc"};
enum { num_heap_functions = sizeof heap_functions / sizeof *heap_functions };

/* The loaded objects' address ranges, sorted, for naming counters fast. */
typedef struct {
  uintptr_t start, end, base;
  char name[120];
} object_t;
enum { max_objects = 256 };
static object_t objects[max_objects];
static int num_objects;

static int add_object(struct dl_phdr_info* info, size_t size, void* arg) {
  (void)size;
  (void)arg;
  uintptr_t lo = UINTPTR_MAX, hi = 0;
  for (int i = 0; i < info->dlpi_phnum; ++i)
    if (info->dlpi_phdr[i].p_type == PT_LOAD) {
      uintptr_t s = info->dlpi_addr + info->dlpi_phdr[i].p_vaddr;
      if (s < lo) lo = s;
      if (s + info->dlpi_phdr[i].p_memsz > hi) hi = s + info->dlpi_phdr[i].p_memsz;
    }
  if (lo >= hi || num_objects == max_objects) return 0;
  object_t* o = &objects[num_objects++];
  o->start = lo;
  o->end = hi;
  o->base = lo;
  const char* n = strrchr(info->dlpi_name, '/');
  snprintf(o->name, sizeof o->name, "%s", n != NULL ? n + 1 : info->dlpi_name[0] != '\0' ? info->dlpi_name : "program");
  return 0;
}

static int by_start(const void* a, const void* b) {
  const object_t* x = a;
  const object_t* y = b;
  return x->start < y->start ? -1 : x->start > y->start;
}

static const char* offset_of(const void* pc, char* buf, size_t len) {
  uintptr_t a = (uintptr_t)pc;
  int lo = 0, hi = num_objects;
  while (hi - lo > 1) {
    int mid = (lo + hi) / 2;
    if (objects[mid].start <= a) lo = mid;
    else hi = mid;
  }
  if (num_objects > 0 && objects[lo].start <= a && a < objects[lo].end)
    snprintf(buf, len, "%s+0x%lx", objects[lo].name, (unsigned long)(a - objects[lo].base));
  else
    snprintf(buf, len, "?");
  return buf;
}

__attribute__((constructor)) static void dump_start(void) {
  const char* path = getenv("QMBT_DUMP");
  if (path == NULL || !btr_init()) return;
  out = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  void* volatile p = malloc(1);
  int bt = 0, org;
  captured = btr_block(p, &bt, &org) && bt != 0;
  free(p);
  for (char** e = environ; *e != NULL; ++e)
    if (strncmp(*e, "QMHEAP_NO_FAST_UNWIN", 20) == 0 && ((*e)[20] == 'D' || (*e)[20] == 'X') && (*e)[21] == '=')
      (*e)[20] = '_';
}

static char buffer[1 << 16];
static size_t buffered;

static void flush(void) {
  const char* s = buffer;
  while (buffered > 0) {
    ssize_t w = write(out, s, buffered);
    if (w <= 0) break;
    s += w;
    buffered -= (size_t)w;
  }
  buffered = 0;
}

static void put(const char* s) {
  size_t n = strlen(s);
  if (buffered + n > sizeof buffer) flush();
  if (n > sizeof buffer) n = sizeof buffer;
  memcpy(buffer + buffered, s, n);
  buffered += n;
}

/* The heap function of the agent that the instruction before pc calls
 * directly through a PLT entry, or -1. */
static int heap_call_before(const void* pc) {
#if defined(__x86_64__)
  Dl_info di;
  const unsigned char* r = pc;
  if (dladdr(r - 5, &di) == 0 || r[-5] != 0xe8) return -1;
  int32_t rel;
  memcpy(&rel, r - 4, 4);
  const unsigned char* t = r + rel;
  if (dladdr(t, &di) == 0) return -1;
  if (t[0] == 0xf3 && t[1] == 0x0f && t[2] == 0x1e && t[3] == 0xfa) t += 4; /* endbr64 */
  if (t[0] == 0xf2) ++t;                                                    /* bnd */
  if (t[0] != 0xff || t[1] != 0x25) return -1;
  int32_t disp;
  memcpy(&disp, t + 2, 4);
  const void* const* slot = (const void* const*)(t + 6 + disp);
  if (dladdr(slot, &di) == 0) return -1;
  const void* f = *slot;
  if (dladdr(f, &di) == 0 || di.dli_sname == NULL || di.dli_saddr != f || strstr(di.dli_fname, "libqmheap") == NULL)
    return -1;
  for (int i = 0; i < num_heap_functions; ++i)
    if (strcmp(di.dli_sname, heap_functions[i]) == 0) return i;
#else
  (void)pc;
#endif
  return -1;
}

__attribute__((destructor)) static void dump_end(void) {
  if (out < 0) return;
  char line[512];
  dl_iterate_phdr(add_object, NULL);
  qsort(objects, (size_t)num_objects, sizeof objects[0], by_start);
  int next = btr_next_id();
  int in_agent = 0, after[num_heap_functions] = {0};
  for (int id = 1; id < next; ++id) {
    void* const* pcs;
    if (btr_frames(id, &pcs) < 1) continue;
    const char* o = btr_object(pcs[0]);
    if (o != NULL && strstr(o, "libqmheap") != NULL) ++in_agent;
    int f = heap_call_before(pcs[0]);
    if (f >= 0) ++after[f];
  }
  snprintf(line, sizeof line, "stacks %d\ncaptured at start %s\nin-agent %d\n", next - 1, captured ? "yes" : "no",
           in_agent);
  put(line);
  for (int i = 0; i < num_heap_functions; ++i) {
    snprintf(line, sizeof line, "after-plt-call %s %d\n", heap_functions[i], after[i]);
    put(line);
  }
  for (int id = 1; id < next; ++id) {
    void* const* pcs;
    int n = btr_frames(id, &pcs);
    snprintf(line, sizeof line, "id %d:", id);
    put(line);
    for (int i = 0; i < n; ++i) {
      char a[300];
      snprintf(line, sizeof line, " %s", offset_of(pcs[i], a, sizeof a));
      put(line);
    }
    put("\n");
  }
  flush();
  close(out);
  out = -1;
}
