/* Reads the agent's backtrace table and heap records from inside a target,
 * as a tool would: through the exported symbols, found with dlsym, and the
 * layout of include/qmheap. Linked into the bt_* targets. Nothing here uses
 * the heap, and nothing locks: a target reads only while no other thread
 * uses the heap (or, for btr_frames, only identifiers it already holds).
 * Program counters are named with dladdr at pc - 1 (a return address may be
 * the first byte after its function), so the targets export their symbols. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "qmheap/backtrace.h"
#include "qmheap/records.h"

static stack_backtrace_table_t* table;
static volatile int* depth_var;
static volatile int* trim_var;
static int (*lookup_alloc)(void*);
static int (*lookup_dealloc)(void*);
static allocation_record_t* alloc_rec;
static allocation_record_t* dealloc_rec;
static int (*dump_backtrace)(int);

/* 1 when the agent is loaded (and everything it exports for tools is
 * there), else 0. */
int btr_init(void) {
  table = (stack_backtrace_table_t*)dlsym(RTLD_DEFAULT, "QM_HEAP_backtrace_table");
  depth_var = (volatile int*)dlsym(RTLD_DEFAULT, "QM_HEAP_backtrace_depth");
  trim_var = (volatile int*)dlsym(RTLD_DEFAULT, "QM_HEAP_backtrace_initial_trim");
  lookup_alloc = (int (*)(void*))dlsym(RTLD_DEFAULT, "QM_HEAP_debug_lookup_allocation_table");
  lookup_dealloc = (int (*)(void*))dlsym(RTLD_DEFAULT, "QM_HEAP_debug_lookup_deallocation_table");
  alloc_rec = (allocation_record_t*)dlsym(RTLD_DEFAULT, "QM_HEAP_debug_allocation_record");
  dealloc_rec = (allocation_record_t*)dlsym(RTLD_DEFAULT, "QM_HEAP_debug_deallocation_record");
  dump_backtrace = (int (*)(int))dlsym(RTLD_DEFAULT, "QM_HEAP_debug_dump_backtrace");
  return table && depth_var && trim_var && lookup_alloc && lookup_dealloc && alloc_rec && dealloc_rec &&
         dump_backtrace;
}

int btr_next_id(void) { return table->next_backtrace_id; }
int btr_units_per_chunk(void) { return table->info_table.units_per_chunk; }

/* The counters of id (a pointer into the table) and their number; -1 for
 * an identifier the table does not hold. */
int btr_frames(int id, void* const** pcs) {
  if (id <= 0 || id >= table->next_backtrace_id) return -1;
  int per = table->info_table.units_per_chunk;
  const stack_backtrace_info_t* info = (const stack_backtrace_info_t*)table->info_table.table[id / per] + id % per;
  *pcs = (void* const*)table->pcs_table.table[info->pcs_chunk_no] + info->pcs_chunk_offset;
  return info->num_pcs;
}

/* The agent's own dump of id on standard error: what it returns (the
 * number of counters, or negative). */
int btr_dump(int id) { return dump_backtrace(id); }

void btr_set_depth(int v) { *depth_var = v; }
void btr_set_trim(int v) { *trim_var = v; }
int btr_depth(void) { return *depth_var; }
int btr_trim(void) { return *trim_var; }

/* The live block that holds p: 1 and its identifiers, else 0. */
int btr_block(void* p, int* bt, int* org) {
  if (!lookup_alloc(p)) return 0;
  *bt = alloc_rec->backtrace_id;
  *org = alloc_rec->org_backtrace_id;
  return 1;
}

/* The released range that holds p: 1 and the identifier of its release
 * (and its start), else 0. */
int btr_release(void* p, int* bt, void** start) {
  if (!lookup_dealloc(p)) return 0;
  *bt = dealloc_rec->backtrace_id;
  if (start != NULL) *start = dealloc_rec->addr;
  return 1;
}

static const char* base_name(const char* path) {
  const char* s = path != NULL ? strrchr(path, '/') : NULL;
  return s != NULL ? s + 1 : path != NULL ? path : "?";
}

/* The function (exported name) that holds pc, or null. */
const char* btr_function(const void* pc) {
  Dl_info di;
  if (pc == NULL || dladdr((const char*)pc - 1, &di) == 0) return NULL;
  return di.dli_sname;
}

/* The file name (no directory) of the object that holds pc, or null. */
const char* btr_object(const void* pc) {
  Dl_info di;
  if (pc == NULL || dladdr((const char*)pc - 1, &di) == 0) return NULL;
  return base_name(di.dli_fname);
}

/* "function+0xoff (object)" in buf. */
const char* btr_where(const void* pc, char* buf, size_t len) {
  Dl_info di;
  if (pc == NULL || dladdr((const char*)pc - 1, &di) == 0) {
    snprintf(buf, len, "%p (nowhere)", pc);
  } else if (di.dli_sname == NULL) {
    snprintf(buf, len, "%s+0x%lx", base_name(di.dli_fname),
             (unsigned long)((const char*)pc - (const char*)di.dli_fbase));
  } else {
    snprintf(buf, len, "%s+0x%lx (%s)", di.dli_sname, (unsigned long)((const char*)pc - (const char*)di.dli_saddr),
             base_name(di.dli_fname));
  }
  return buf;
}

/* "object+0xoffset": the same in every run of the program, whatever the
 * load addresses. */
const char* btr_offset(const void* pc, char* buf, size_t len) {
  Dl_info di;
  if (pc == NULL || dladdr(pc, &di) == 0) snprintf(buf, len, "?");
  else snprintf(buf, len, "%s+0x%lx", base_name(di.dli_fname), (unsigned long)((const char*)pc - (const char*)di.dli_fbase));
  return buf;
}

static int in_object(const void* pc, const char* piece) {
  const char* o = btr_object(pc);
  return o != NULL && strstr(o, piece) != NULL;
}

/* Whether the stack id was captured in function fn: its first frames lie in
 * an object whose name contains skip (none when skip is null, at most
 * three), and the next one in fn. When not, why in why. */
int btr_called_from(int id, const char* skip, const char* fn, char* why, size_t len) {
  void* const* pcs;
  int n = btr_frames(id, &pcs);
  if (n <= 0) {
    snprintf(why, len, "id %d holds no frames (%d)", id, n);
    return 0;
  }
  int k = 0;
  while (skip != NULL && k < n && k < 3 && in_object(pcs[k], skip)) ++k;
  const char* f = k < n ? btr_function(pcs[k]) : NULL;
  if (f != NULL && strcmp(f, fn) == 0) return 1;
  char a[160], b[160];
  snprintf(why, len, "id %d: frame 0 %s, frame %d %s", id, btr_where(pcs[0], a, sizeof a), k,
           k < n ? btr_where(pcs[k], b, sizeof b) : "(none)");
  return 0;
}

/* The whole table: every identifier below the next one holds between 1 and
 * max_pcs non-null counters, and (unless agent is null) no first frame
 * lies in the agent's library (a name containing agent). The number of
 * identifiers, or -1 with the reason in why. */
int btr_check_table(int max_pcs, const char* agent, char* why, size_t len) {
  int next = table->next_backtrace_id;
  for (int id = 1; id < next; ++id) {
    void* const* pcs;
    int n = btr_frames(id, &pcs);
    if (n < 1 || n > max_pcs) {
      snprintf(why, len, "id %d holds %d frames (at most %d expected)", id, n, max_pcs);
      return -1;
    }
    for (int i = 0; i < n; ++i)
      if (pcs[i] == NULL) {
        snprintf(why, len, "id %d: frame %d is null", id, i);
        return -1;
      }
    if (agent != NULL && in_object(pcs[0], agent)) {
      char a[160];
      snprintf(why, len, "id %d: frame 0 in the agent: %s", id, btr_where(pcs[0], a, sizeof a));
      return -1;
    }
  }
  return next - 1;
}
