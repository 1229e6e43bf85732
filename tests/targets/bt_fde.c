/* The agent's _Unwind_Find_FDE must answer as the unwinder's own (the
 * definition the unwinder binds to without the agent: the first one loaded
 * after the agent; on i386 the C library's own copy, which it keeps for old
 * programs and which fills in another data base than libgcc_s's). For every
 * 7th byte of the code of the program, of the C library and of a loaded
 * library, the FDE and (when there is one) its three base addresses from
 * the agent's function (asked twice in a row: the second answer comes from
 * its cache when it caches) equal those of libgcc_s's. Two passes over
 * everything, the second after the cache has turned over. Then the library
 * is unloaded (with ask-unloaded, its range is asked about while nothing is
 * there), another library is loaded, likely at the same place, and both
 * ranges are asked about once more.
 * Prints a line per range with its mismatches (the first few in detail on
 * standard error), the agent's count of cached lookups before and after,
 * and a summary line.
 * Without the agent it only says whether the definition it takes for the
 * unwinder's own is the one the dynamic linker binds.
 * Usage: bt_fde LIBRARY OTHER-LIBRARY [ask-unloaded] */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <link.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

struct dwarf_eh_bases {
  void* tbase;
  void* dbase;
  void* func;
};
typedef const void* (*find_fde_fn)(void*, struct dwarf_eh_bases*);

static find_fde_fn agent_find, real_find;
static const int step = 7;
static long total_mismatches;

typedef struct {
  uintptr_t start, end;
} range_t;

typedef struct {
  const char* piece; /* "" for the program */
  range_t r;
} want_t;

static int find_text(struct dl_phdr_info* info, size_t size, void* arg) {
  (void)size;
  want_t* w = arg;
  int match = w->piece[0] == '\0' ? info->dlpi_name[0] == '\0' : strstr(info->dlpi_name, w->piece) != NULL;
  if (!match || w->r.start != 0) return 0;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)* ph = &info->dlpi_phdr[i];
    if (ph->p_type == PT_LOAD && (ph->p_flags & PF_X)) {
      w->r.start = info->dlpi_addr + ph->p_vaddr;
      w->r.end = w->r.start + ph->p_memsz;
      return 1;
    }
  }
  return 0;
}

static range_t text_of(const char* piece) {
  want_t w = {piece, {0, 0}};
  dl_iterate_phdr(find_text, &w);
  return w.r;
}

typedef struct {
  int n;
  char names[64][256];
} objects_t;

static int list_object(struct dl_phdr_info* info, size_t size, void* arg) {
  (void)size;
  objects_t* o = arg;
  if (info->dlpi_name[0] != '\0' && strstr(info->dlpi_name, "libqmheap") == NULL && o->n < 64)
    snprintf(o->names[o->n++], sizeof o->names[0], "%s", info->dlpi_name);
  return 0;
}

/* The first object in load order (after the program and the agent) that
 * defines _Unwind_Find_FDE itself. */
static find_fde_fn unwinders_own(void) {
  static objects_t o;
  dl_iterate_phdr(list_object, &o);
  for (int i = 0; i < o.n; ++i) {
    void* h = dlopen(o.names[i], RTLD_LAZY | RTLD_NOLOAD);
    void* f = h != NULL ? dlsym(h, "_Unwind_Find_FDE") : NULL;
    Dl_info di;
    if (f != NULL && dladdr(f, &di) != 0 && strcmp(di.dli_fname, o.names[i]) == 0) return (find_fde_fn)f;
  }
  return NULL;
}

static int same(const void* f1, const struct dwarf_eh_bases* b1, const void* f2, const struct dwarf_eh_bases* b2) {
  if (f1 != f2) return 0;
  return f1 == NULL || (b1->tbase == b2->tbase && b1->dbase == b2->dbase && b1->func == b2->func);
}

static void compare(const char* name, range_t r) {
  long pcs = 0, found = 0, mismatches = 0;
  for (uintptr_t pc = r.start; pc < r.end; pc += (uintptr_t)step) {
    struct dwarf_eh_bases a1, a2, real;
    memset(&a1, 0x11, sizeof a1);
    memset(&a2, 0x22, sizeof a2);
    memset(&real, 0x33, sizeof real);
    const void* f1 = agent_find((void*)pc, &a1);
    const void* f2 = agent_find((void*)pc, &a2);
    const void* fr = real_find((void*)pc, &real);
    ++pcs;
    if (fr != NULL) ++found;
    if (!same(f1, &a1, fr, &real) || !same(f2, &a2, fr, &real)) {
      if (++total_mismatches <= 5)
        fprintf(stderr,
                "bt_fde: %s: pc %p: agent %p (%p %p %p), again %p (%p %p %p), unwinder %p (%p %p %p)\n", name,
                (void*)pc, f1, a1.tbase, a1.dbase, a1.func, f2, a2.tbase, a2.dbase, a2.func, fr, real.tbase,
                real.dbase, real.func);
      ++mismatches;
    }
  }
  printf("range %s: %ld pcs, %s, %ld mismatches\n", name, pcs, found > 0 ? "some with an FDE" : "none with an FDE",
         mismatches);
}

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: bt_fde LIBRARY OTHER-LIBRARY [ask-unloaded]\n");
    return 2;
  }
  int ask_unloaded = argc > 3 && strcmp(argv[3], "ask-unloaded") == 0;
  void* gcc = dlopen("libgcc_s.so.1", RTLD_NOW);
  if (gcc == NULL) {
    puts("bt_fde: no libgcc_s");
    return 2;
  }
  agent_find = (find_fde_fn)dlsym(RTLD_DEFAULT, "_Unwind_Find_FDE");
  real_find = unwinders_own();
  int* counter = (int*)dlsym(RTLD_DEFAULT, "QM_STACK_fde_cache__Unwind_Find_FDE_times_called");
  if (counter == NULL) {
    /* libgcc_s's call binds the global definition, or else its own. */
    find_fde_fn bound = agent_find != NULL ? agent_find : (find_fde_fn)dlsym(gcc, "_Unwind_Find_FDE");
    Dl_info di;
    printf("bt_fde: without the agent, the unwinder's own is %s one bound\n",
           real_find != NULL && real_find == bound ? "the" : "not the");
    if (real_find != NULL && dladdr((void*)real_find, &di) != 0) fprintf(stderr, "bt_fde: in %s\n", di.dli_fname);
    return real_find == NULL || real_find != bound;
  }
  if (agent_find == NULL || real_find == NULL || agent_find == real_find) {
    puts("bt_fde: the agent's or the unwinder's _Unwind_Find_FDE is missing");
    return 2;
  }
  void* lib = dlopen(argv[1], RTLD_NOW);
  if (lib == NULL) {
    printf("bt_fde: %s\n", dlerror());
    return 2;
  }
  const char* lib_name = strrchr(argv[1], '/') != NULL ? strrchr(argv[1], '/') + 1 : argv[1];
  const char* other_name = strrchr(argv[2], '/') != NULL ? strrchr(argv[2], '/') + 1 : argv[2];
  range_t program = text_of(""), libc = text_of("libc.so"), loaded = text_of(lib_name);
  if (program.start == 0 || libc.start == 0 || loaded.start == 0) {
    puts("bt_fde: a code range is missing");
    return 2;
  }
  int before = *counter;
  for (int pass = 1; pass <= 2; ++pass) {
    char name[64];
    snprintf(name, sizeof name, "program.%d", pass);
    compare(name, program);
    snprintf(name, sizeof name, "libc.%d", pass);
    compare(name, libc);
    snprintf(name, sizeof name, "library.%d", pass);
    compare(name, loaded);
  }
  dlclose(lib);
  if (ask_unloaded) compare("library.unloaded", loaded);
  void* other = dlopen(argv[2], RTLD_NOW);
  if (other == NULL) {
    printf("bt_fde: %s\n", dlerror());
    return 2;
  }
  range_t second = text_of(other_name);
  compare("library.range-after-load", loaded);
  compare("other-library", second);
  printf("other library %s\n", second.start < loaded.end && loaded.start < second.end ? "overlaps" : "elsewhere");
  printf("cached lookups: %d before, %d after\n", before, *counter);
  printf("bt_fde: %ld mismatches\n", total_mismatches);
  dlclose(other);
  return total_mismatches != 0;
}
