/* Calls the agent's control functions on itself, as a debugger would call
 * them in the stopped process, and prints every answer as one JSON object,
 * so that a test can compare them with what a reader of the root block
 * finds in the process's memory.
 *
 *   hia_api probe CORE  sets settings, makes, frees and hoards blocks, writes
 *                       a lightweight core to CORE, prints the answers, then
 *                       waits for a line on stdin (while the test reads its
 *                       memory) and exits
 *   hia_api edges       the status codes of the edge cases, one per line
 *   hia_api settings    every setting's getter, as JSON
 *   hia_api workload STEP...  heap calls whose behaviour shows the settings
 *                       a debugger changed at start-up */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qmheap/hia_api.h"

/* Each control function, found in the process like a debugger finds it. */
#define API(name) ((__typeof__(&QM_HIA_API_##name))api("QM_HIA_API_" #name))
static void* api(const char* name) {
  void* f = dlsym(RTLD_DEFAULT, name);
  if (f == NULL) {
    fprintf(stderr, "hia_api: %s is not in the process\n", name);
    exit(2);
  }
  return f;
}

static int get(int (*f)(int*)) {
  int v = -12345;
  int st = f(&v);
  if (st != 0) {
    fprintf(stderr, "hia_api: a getter answered %d\n", st);
    exit(3);
  }
  return v;
}

#define FIELD(key, fn) printf("%s\"%s\": %d", first++ ? ", " : "", key, get(API(fn)))

/* Every setting the getters answer, as JSON members. */
static void print_settings(void) {
  int first = 0;
  FIELD("verbosity", get_verbosity);
  FIELD("dump_allocation_table_on_exit", is_dump_allocation_table_on_exit);
  FIELD("memalign_strict", is_memalign_strict_alignment_even_multiple);
  FIELD("backtrace_depth", get_backtrace_depth);
  FIELD("backtrace_trim", get_backtrace_trim);
  FIELD("paint_on_alloc", is_painting_on_alloc);
  FIELD("paint_on_dealloc", is_painting_on_dealloc);
  FIELD("paint_on_zalloc", is_painting_on_zalloc);
  FIELD("alloc_pattern", get_alloc_pattern);
  FIELD("dealloc_pattern", get_dealloc_pattern);
  FIELD("hoarding_enabled", is_hoarding_enabled);
  FIELD("hoarding_all_blocks", is_hoarding_all_blocks);
  FIELD("hoard_max_num_blocks", get_hoard_max_num_blocks);
  FIELD("hoard_max_kb", get_hoard_max_kb);
  FIELD("guards_supported", is_guards_supported);
  FIELD("guards_enabled", is_guards_enabled);
  FIELD("max_guard_size", get_max_guard_size);
  FIELD("pre_guard_size", get_pre_guard_size);
  FIELD("post_guard_size", get_post_guard_size);
  FIELD("pre_guard_pattern", get_pre_guard_pattern);
  FIELD("post_guard_pattern", get_post_guard_pattern);
  FIELD("core_supported", is_generate_core_supported);
  FIELD("core_enabled", is_generate_core_enabled);
  FIELD("lwmem_supported", is_generate_lwmem_supported);
  FIELD("lwmem_enabled", is_generate_lwmem_enabled);
  FIELD("generation", get_generation);
}

static int probe(const char* core) {
  /* Settings, each set to a value the configuration does not give. */
  API(set_verbosity)(1);
  API(set_backtrace_depth)(7);
  API(set_painting_on_dealloc)(1);
  API(set_alloc_pattern)(0x5a5a5a5a);
  API(set_hoarding_enabled)(1);
  API(set_hoard_max_num_blocks)(9);
  API(set_hoard_max_kb)(77);
  API(set_guard_post_size)(24);
  API(set_generate_lwmem_event)(3, 1);
  API(set_generate_core_event)(4, 1);
  int generation;
  API(inc_generation)(&generation);
  API(inc_generation)(&generation);

  /* Blocks: live ones looked up by an address inside them, one released,
   * one marked to be held back on release. */
  char* live[3] = {malloc(100), calloc(10, 30), malloc(5000)};
  char* gone = malloc(77);
  free(gone);
  char* held = malloc(40);
  API(set_alloc_hoard_status)(held + 5, 1);
  char* hoarded = malloc(64);
  free(hoarded);

  if (API(lwmem_generate_file)(core, "probe", "notes") != 0) {
    fprintf(stderr, "hia_api: no lightweight core\n");
    return 1;
  }

  printf("{");
  print_settings();
  printf(", \"inc_generation\": %d", generation);

  int major, minor, point, service;
  API(get_version)(&major, &minor, &point, &service);
  printf(", \"version\": [%d, %d, %d, %d]", major, minor, point, service);

  int n = get(API(get_num_events));
  printf(", \"events\": [");
  for (int i = 0; i < n; ++i) {
    const char* name;
    int index = -1, core_flag = -1, lwmem_flag = -1;
    API(get_event_name)(i, &name);
    API(get_event_index)(name, &index);
    API(is_generate_core_event)(i, &core_flag);
    API(is_generate_lwmem_event)(i, &lwmem_flag);
    printf("%s[\"%s\", %d, %d, %d]", i ? ", " : "", name, index, core_flag, lwmem_flag);
  }
  printf("]");

  char spec[256], dflt[256];
  int spec_len, dflt_len;
  API(get_lwmem_pathname_specifier)(spec, sizeof spec, &spec_len);
  API(get_default_lwmem_pathname_specifier)(dflt, sizeof dflt, &dflt_len);
  printf(", \"lwmem_pathname\": \"%s\", \"lwmem_pathname_len\": %d, \"lwmem_default\": \"%s\"", spec, spec_len,
         dflt);

  printf(", \"live\": [");
  for (int i = 0; i < 4; ++i) {
    char* p = i < 3 ? live[i] : held;
    int is_allocated = -1, len = -1, hoard = -1, pre = -1, post = -1, pre_ok = -1, post_ok = -1, pre_pat = -1,
        post_pat = -1;
    void* base = NULL;
    API(get_alloc_base_len)(p + 3, &is_allocated, &base, &len);
    API(get_alloc_hoard_status)(p + 1, &hoard);
    API(get_alloc_guard_settings)(p, &pre, &post, &pre_pat, &post_pat);
    API(get_alloc_guard_status)(p, &pre_ok, &post_ok);
    printf("%s{\"p\": %lu, \"allocated\": %d, \"base\": %lu, \"len\": %d, \"hoard\": %d, \"guards\": [%d, %d, %d, %d], "
           "\"guards_ok\": [%d, %d]}",
           i ? ", " : "", (unsigned long)p, is_allocated, (unsigned long)base, len, hoard, pre, post, pre_pat,
           post_pat, pre_ok, post_ok);
  }
  int is_dealloc = -1, dlen = -1, is_alloc = -1;
  void* dbase = NULL;
  API(get_dealloc_base_len)(gone + 10, &is_dealloc, &dbase, &dlen);
  API(get_alloc_base_len)(gone + 10, &is_alloc, NULL, NULL);
  printf("], \"released\": {\"p\": %lu, \"deallocated\": %d, \"base\": %lu, \"len\": %d, \"allocated\": %d}",
         (unsigned long)gone, is_dealloc, (unsigned long)dbase, dlen, is_alloc);
  printf(", \"hoarded\": %lu}\n", (unsigned long)hoarded);
  fflush(stdout);

  char line[16];
  fgets(line, sizeof line, stdin);
  free(live[0]);
  free(live[1]);
  free(live[2]);
  free(held);
  return 0;
}

static int edges(void) {
  int index = -1, v = 99;
  const char* name = NULL;
  const char* names[] = {"guard_corruption", "dealloc", "double_dealloc"};
  for (int i = 0; i < 3; ++i) {
    int st = API(get_event_index)(names[i], &index);
    printf("index %s %d %d\n", names[i], st, index);
  }
  printf("index startup_config_done %d\n", API(get_event_index)("startup_config_done", &index));
  printf("index null %d\n", API(get_event_index)(NULL, &index));
  printf("name 38 %d\n", API(get_event_name)(38, &name));
  printf("name -1 %d\n", API(get_event_name)(-1, &name));
  printf("core_event 38 %d\n", API(set_generate_core_event)(38, 1));
  printf("lwmem_event -1 %d\n", API(is_generate_lwmem_event)(-1, &v));
  printf("verbosity null %d\n", API(get_verbosity)(NULL));
  printf("version nulls %d\n", API(get_version)(NULL, NULL, NULL, NULL));
  printf("inc_generation null %d\n", API(inc_generation)(NULL));
  char big[2000];
  memset(big, 'x', sizeof big - 1);
  big[sizeof big - 1] = 0;
  printf("long specifier %d\n", API(set_lwmem_pathname_specifier)(big));
  char small[4];
  int len = -1;
  int st = API(get_lwmem_pathname_specifier)(small, sizeof small, &len);
  printf("small buffer %d %d\n", st, len);
  int found = -1, hoard = -1;
  char local;
  st = API(get_alloc_base_len)(&local, &found, NULL, NULL);
  printf("unknown block %d %d\n", st, found);
  st = API(get_alloc_hoard_status)(&local, &hoard);
  printf("unknown hoard %d %d\n", st, hoard);
  printf("unknown set hoard %d\n", API(set_alloc_hoard_status)(&local, 1));
  int pre = -7;
  st = API(get_alloc_guard_settings)(&local, &pre, NULL, NULL, NULL);
  printf("unknown guards %d %d\n", st, pre);
  return 0;
}

/* Heap calls whose outcome shows the settings in force, one step per
 * argument: a released block's last bytes (painting; the allocator keeps
 * its own links in the first ones), a write past a block (seen with guards),
 * a second release (held back and reported with the hoard; only run with
 * it), and a block never released (the list at exit). */
static int workload(int argc, char** argv) {
  for (int i = 2; i < argc; ++i) {
    if (strcmp(argv[i], "paint") == 0) {
      unsigned char* a = malloc(32);
      free(a);
      printf("released bytes %02x %02x %02x %02x\n", a[24], a[25], a[26], a[27]);
    } else if (strcmp(argv[i], "overrun") == 0) {
      unsigned char* b = malloc(16);
      b[16] = 0x41;
      free(b);
    } else if (strcmp(argv[i], "double") == 0) {
      char* c = malloc(24);
      free(c);
      free(c);
    } else if (strcmp(argv[i], "leak") == 0) {
      char* volatile d = malloc(1234);
      (void)d;
    }
  }
  printf("done\n");
  return 0;
}

int main(int argc, char** argv) {
  if (argc >= 3 && strcmp(argv[1], "probe") == 0) return probe(argv[2]);
  if (argc >= 2 && strcmp(argv[1], "edges") == 0) return edges();
  if (argc >= 2 && strcmp(argv[1], "workload") == 0) return workload(argc, argv);
  if (argc >= 2 && strcmp(argv[1], "settings") == 0) {
    printf("{");
    print_settings();
    printf("}\n");
    return 0;
  }
  fprintf(stderr, "usage: hia_api probe CORE | settings | edges | workload STEP...\n");
  return 2;
}
