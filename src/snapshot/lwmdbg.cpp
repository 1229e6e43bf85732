// The memory-debug snapshot file: every live and released block, every
// distinct backtrace, the process's identity, the writing thread's stack,
// the causing event, the guard settings, the mappings and the loaded images,
// as "^"-separated lines, with a table of contents at the end that gives
// each subsection's first data line and count (a reader starts from the
// last line).
//
// Lines are formatted straight into one buffer of the agent's own pages and
// written out when it fills: no heap, no system call per line. Lines are
// counted as they are written, so no second pass is needed.
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <string.h>
#include <stdarg.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "backtrace/backtrace_heap.h"
#include "base/assert.h"
#include "base/export.h"
#include "base/format.h"
#include "base/memory_manager.h"
#include "core/bodies.h"
#include "events/events.h"
#include "events/output.h"
#include "heap/guards.h"
#include "heap/heap_tables.h"
#include "leaks/reachability.h"
#include "snapshot/snapshot.h"
#include "threads/thread_utils.h"

#pragma GCC diagnostic ignored "-Wformat"

extern "C" {
constinit volatile int QM_HEAP_lwmdbg_supported = 1;
QM_EXPORT constinit volatile int QM_HEAP_lwmdbg_write_comments = 1;
constinit volatile int QM_HEAP_lwmdbg_check_alloc_guards = 1;
constinit volatile int QM_HEAP_lwmdbg_sequence_number = 0;
constinit QM_pthread_mutex_t QM_HEAP_lwmdbg_sequence_mutex = PTHREAD_MUTEX_INITIALIZER;
extern const int QM_HEAP_version_major, QM_HEAP_version_minor, QM_HEAP_version_point, QM_HEAP_version_service;
const char* QM_get_qm_distribution();
}

namespace {

constexpr const char S[] = "^";
constexpr int kPtrWidth = 10;
constexpr size_t kBufferSize = 256 * 1024;

// --- the writer ---------------------------------------------------------------

struct Writer {
  int fd;
  int lineno;  // the number of the next line
  bool comments;
  bool failed;
  char* buf;
  size_t cap;
  size_t used;
  unsigned long long written;
  unsigned long long limit;  // the process's file size limit
  char fallback[2048];

  void flush() {
    if (failed) {
      used = 0;
      return;
    }
    // Past the file size limit a write would raise SIGXFSZ, whose default
    // action ends the process: the file is cut at the limit instead.
    const bool cut = written + used > limit;
    if (cut) {
      used = limit > written ? static_cast<size_t>(limit - written) : 0;
      QM_HEAP_printf("lwmdbg: the snapshot file reached the file size limit (RLIMIT_FSIZE, %lu bytes); it is cut "
                     "short\n",
                     static_cast<unsigned long>(limit));
    }
    size_t off = 0;
    while (off < used) {
      ssize_t n = write(fd, buf + off, used - off);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        QM_HEAP_printf("lwmdbg: error writing the snapshot file: %s\n", strerrordesc_np(errno));
        failed = true;
        break;
      }
      off += static_cast<size_t>(n);
    }
    written += off;
    used = 0;
    if (cut) failed = true;
  }

  // Formats one piece; counts a line for each newline it holds.
  void vput(const char* fmt, va_list ap) {
    for (int attempt = 0; attempt < 2; ++attempt) {
      const size_t room = cap - used;
      va_list copy;
      va_copy(copy, ap);
      int n = QM_s_vsnprintf(buf + used, static_cast<int>(room), fmt, copy);
      va_end(copy);
      if (n >= 0 && static_cast<size_t>(n) < room - 1) {
        for (int i = 0; i < n; ++i)
          if (buf[used + i] == '\n') ++lineno;
        used += static_cast<size_t>(n);
        return;
      }
      flush();  // it may not have fitted: again, into an empty buffer
    }
  }
  void put(const char* fmt, ...) __attribute__((format(printf, 2, 3))) {
    va_list ap;
    va_start(ap, fmt);
    vput(fmt, ap);
    va_end(ap);
  }
  void comment(const char* text) {
    if (comments) put("# %s\n", text);
  }
  void toc(int sid, int count, int lineno) { put("%d%s%d%s%d\n", sid, S, count, S, lineno); }
};

// --- the extension section ------------------------------------------------------

// The last reachability scan's result, after the file section, when a scan
// has been made. Nothing of it is in the table of contents: a reader that
// knows it finds its own entry (900: the number of its toc lines and the
// first of them) as the last line, comments aside, before the table of
// contents; a reader that does not, never reads these lines.
void write_reachability(Writer& w) {
  QM_HEAP_ht_alloc_read_lock();
  const QM_HEAP_reach_block_t* b = nullptr;
  size_t n = 0;
  const QM_HEAP_reach_summary_t* r = QM_HEAP_reach_last_result(&b, &n);
  if (r != nullptr) {
    w.comment("============ start of extension section: reachability");
    w.comment("--- start of reachability summary");
    const int summary_line = w.lineno;
    // The last field: 1 while the blocks are those the scan saw, 0 once
    // the table has changed since.
    w.put("%d%s%lu%s%lu%s%lu%s%lu%s%lu%s%lu%s%lu%s%lu%s%d%s%d%s%ld%s%d\n", r->sequence, S, r->blocks[0], S, r->bytes[0],
          S, r->blocks[1], S, r->bytes[1], S, r->blocks[2], S, r->bytes[2], S, r->blocks[3], S, r->bytes[3], S,
          r->threads_stopped, S, r->threads_not_stopped, S, r->microseconds, S,
          r->table_changes == QM_HEAP_allocation_table_changes ? 1 : 0);
    w.comment("--- end of reachability summary");
    w.comment("--- start of reachability blocks");
    const int blocks_line = w.lineno;
    static constexpr const char* kKinds[] = {"reachable", "interior", "definitely_lost", "indirectly_lost"};
    for (size_t i = 0; i < n; ++i)
      w.put("%p%s%lu%s%s%s%d%s%p\n", b[i].addr, S, static_cast<unsigned long>(b[i].len), S,
            kKinds[b[i].kind & 3], S, b[i].backtrace_id, S, b[i].leader);
    w.comment("--- end of reachability blocks");
    w.comment("--- start of extension section toc");
    const int ext_toc = w.lineno;
    w.toc(901, 1, summary_line);
    w.toc(902, static_cast<int>(n), blocks_line);
    w.comment("--- end of extension section toc");
    w.toc(900, 2, ext_toc);
    w.comment("============ end of extension section");
  }
  QM_HEAP_ht_alloc_read_unlock();
}

// --- allocation lines ------------------------------------------------------------

void put_record(Writer& w, const allocation_record_t& r, bool check_guards, bool newline) {
  int pre_bad = 0, post_bad = 0;
  if (check_guards && r.guard_id != 0) {
    guard_settings_t gs;
    if (QM_HEAP_gt_lookup_id(r.guard_id, &gs) == 0) {
      const guard_status_e st = QM_HEAP_guard_check_guards(r.addr, r.len, &gs);
      pre_bad = (st & 1) != 0;
      post_bad = (st & 2) != 0;
    } else {
      w.failed = true;
    }
  }
  w.put("%p%s%lu%s%d%s%lu%s", r.addr, S, static_cast<unsigned long>(r.len), S, r.backtrace_id, S,
        static_cast<unsigned long>(r.thread_id), S);
  if (r.flags == 0) {
    w.put("none");
  } else {
    bool first = true;
    for (int bit = 0; bit < 31; ++bit) {
      if (!(r.flags & (1 << bit))) continue;
      const char* name = QM_HEAP_alloc_rec_flag_to_str(1 << bit);
      w.put("%s%s", first ? "" : ", ", name != nullptr ? name : "?");
      first = false;
    }
  }
  w.put("%s%lu%s%p%s%lu%s%d%s%d%s%d%s0%s%d%s%d%s", S, static_cast<unsigned long>(static_cast<unsigned>(r.flags)), S,
        r.org_addr, S, static_cast<unsigned long>(r.org_len), S, r.org_backtrace_id, S, r.guard_id, S,
        static_cast<int>(r.generation), S, S, pre_bad, S, post_bad, newline ? "\n" : "");
}

struct TableWalk {
  Writer* w;
  bool check_guards;
  int num_records;
};

int walk_record(allocation_record_t* r, int* stop, void* arg) {
  auto* t = static_cast<TableWalk*>(arg);
  put_record(*t->w, *r, t->check_guards, true);
  ++t->num_records;
  if (t->w->failed) *stop = 1;
  return 0;
}

// --- backtraces ----------------------------------------------------------------------

struct PcWalk {
  Writer* w;
  int num_backtraces;
  int* first_line;  // per id, the line of its first pc (agent pages)
  int* num_pcs;
  int capacity;
};

int walk_pcs(backtrace_id_t id, const void** pcs, int n, int* stop, void* arg) {
  auto* t = static_cast<PcWalk*>(arg);
  if (id >= 1 && id <= t->capacity) {
    t->first_line[id - 1] = t->w->lineno;
    t->num_pcs[id - 1] = n;
  }
  for (int i = 0; i < n; ++i) t->w->put("%ld%s%0#*p\n", static_cast<long>(id), S, kPtrWidth, pcs[i]);
  if (id > t->num_backtraces) t->num_backtraces = id;
  if (t->w->failed) *stop = 1;
  return 0;
}

// --- the process ------------------------------------------------------------------------

const char* const kEventNames[] = {
    "unknown_event", "free_not_allocated", "realloc_not_allocated", "addr_not_at_start", "double_alloc",
    "alloc_not_in_heap", "alloc_null", "alloc_returned_bad_alignment", "bad_alignment_argument", "op_in_progress",
    "alloc_added_during_op", "alloc_deleted_during_op", "alloc_changed_during_op", "dealloc", "realloc",
    "deletion_error", "insertion_error", "modification_error", "record_not_found_error", "unknown_event",
    "double_dealloc", "guard_corruption", "termination", "unknown_event", "addr_not_in_heap", "dmz_unknown_zone",
    "dmz_destruction_in_progress", "dmz_pending_zone", "dmz_unknown_state", "dmz_zone_creation_error",
    "dmz_duplicate_zone_created", "dmz_deleting_default_zone", "api_error", "rz_unknown", "rz_underrun",
    "rz_overrun", "rz_use_after_free", "rz_use_after_free_underrun", "rz_use_after_free_overrun",
    "autoshrink_threshold",
    // Extension events, by their configuration names.
    "dealloc_mismatch"};
static_assert(sizeof kEventNames / sizeof *kEventNames == qm_heap_event_avoid_trailing_comma_misery);

const char* event_name(int e) {
  return e >= 0 && e < static_cast<int>(sizeof kEventNames / sizeof *kEventNames) ? kEventNames[e] : "unknown_event";
}

int guard_line(guard_id_t id, const guard_settings_t* g, int* stop, void* arg) {
  auto* w = static_cast<Writer*>(arg);
  w->put("%d%s%d%s%lx%s%d%s%lx\n", static_cast<int>(id), S, static_cast<int>(g->pre_size), S,
         static_cast<unsigned long>(g->pre_pattern), S, static_cast<int>(g->post_size), S,
         static_cast<unsigned long>(g->post_pattern));
  if (w->failed) *stop = 1;
  return 0;
}

// One line of the process's map, as "start^size^attributes^offset^major^minor^inode^path".
bool mapping_line(Writer& w, const char* line) {
  const char* p = line;
  const unsigned long start = qm::parse_hex(p);
  if (*p++ != '-') return false;
  const unsigned long end = qm::parse_hex(p);
  if (*p++ != ' ') return false;
  char attrs[8];
  int na = 0;
  for (int i = 0; i < 4; ++i, ++p) {
    switch (*p) {
      case 'r': case 'w': case 'x': case 's': case 'p': attrs[na++] = *p; break;
      case '-': break;
      default: return false;
    }
  }
  attrs[na] = '\0';
  // The attribute letters in their fixed order: r w x p s.
  char ordered[8];
  int no = 0;
  for (const char* c = "rwxps"; *c != '\0'; ++c)
    for (int i = 0; i < na; ++i)
      if (attrs[i] == *c) ordered[no++] = *c;
  ordered[no] = '\0';
  if (*p++ != ' ') return false;
  const unsigned long offset = qm::parse_hex(p);
  if (*p++ != ' ') return false;
  const unsigned long major = qm::parse_hex(p);
  if (*p++ != ':') return false;
  const unsigned long minor = qm::parse_hex(p);
  if (*p++ != ' ') return false;
  unsigned long inode = 0;
  while (*p >= '0' && *p <= '9') inode = inode * 10 + static_cast<unsigned long>(*p++ - '0');
  while (*p == ' ') ++p;
  w.put("%0#*lx%s%#lx%s%s%s%#lx%s%#lx%s%#lx%s%#lx%s%s\n", kPtrWidth, start, S, end - start, S, ordered, S, offset, S,
        major, S, minor, S, inode, S, p);
  return true;
}

__attribute__((noinline)) int write_mappings(Writer& w) {
  buffered_file_reader_t r;
  if (QM_bfr_open(&r, "/proc/self/maps") != 0) return 0;
  char line[3 * 1024];  // a longer path is cut
  int n = 0, count = 0, ch;
  bool ok = true;
  while (ok && QM_bfr_read_char(&r, &ch) == 1) {
    if (ch == '\n') {
      line[n] = '\0';
      ok = mapping_line(w, line);
      count += ok;
      n = 0;
    } else if (n < static_cast<int>(sizeof line) - 1) {
      line[n++] = static_cast<char>(ch);
    }
  }
  QM_bfr_close(&r);
  if (!ok) w.failed = true;
  return count;
}

int write_images(Writer& w) {
  int n = 0;
  for (const link_map* m = _r_debug.r_map; m != nullptr; m = m->l_next, ++n)
    w.put("%0#*lx%s%0#*lx%s%s\n", kPtrWidth, static_cast<unsigned long>(m->l_addr), S, kPtrWidth,
          reinterpret_cast<unsigned long>(m->l_ld), S, m->l_name != nullptr ? m->l_name : "");
  return n;
}

// The current directory, growing the buffer while it is too small.
__attribute__((noinline)) void put_cwd(Writer& w) {
  char buf[4096];
  for (int size = 256; size <= static_cast<int>(sizeof buf); size += 256) {
    long r = syscall(SYS_getcwd, buf, size);
    if (r > 0) {
      w.put("%s", buf);
      return;
    }
    if (errno != ERANGE) return;
  }
}

__attribute__((noinline)) void put_exe(Writer& w) {
  char buf[4096];
  int n = QM_getexepathname(buf, sizeof buf);
  if (n > 0) w.put("%s", buf);
}

// --- the file ------------------------------------------------------------------------------

__attribute__((noinline)) int write_file(Writer& w, const char* title, const char* notes, const QM_HEAP_event_info_t* ev) {
  // 1. Heap section.
  w.comment("============ start of heap section");
  TableWalk alloc = {&w, QM_HEAP_lwmdbg_check_alloc_guards != 0, 0};
  TableWalk dealloc = {&w, false, 0};
  int alloc_line, dealloc_line;
  QM_HEAP_ht_alloc_read_lock();
  w.comment("--- start of allocation table");
  alloc_line = w.lineno;
  int r1 = QM_HEAP_iterate_over_allocation_table(walk_record, &alloc);
  w.comment("--- end of allocation table");
  w.comment("--- start of deallocation table");
  dealloc_line = w.lineno;
  int r2 = w.failed ? 0 : QM_HEAP_iterate_over_deallocation_table(walk_record, &dealloc);
  w.comment("--- end of deallocation table");
  QM_HEAP_ht_alloc_read_unlock();
  if (r1 < 0 || r2 < 0 || w.failed) return -1;
  w.comment("--- start of heap section toc");
  const int heap_toc = w.lineno;
  w.toc(301, alloc.num_records, alloc_line);
  w.toc(302, dealloc.num_records, dealloc_line);
  w.comment("--- end of heap section toc");
  w.comment("============ end of heap section");

  // 2. Backtrace section: the index is made from the same pass as the pcs.
  w.comment("============ start of backtrace table section");
  QM_HEAP_backtrace_table_lock();
  const int capacity = QM_HEAP_backtrace_table.next_backtrace_id > 0 ? QM_HEAP_backtrace_table.next_backtrace_id : 0;
  const size_t index_bytes = 2 * sizeof(int) * static_cast<size_t>(capacity > 0 ? capacity : 1);
  int* index = static_cast<int*>(QM_page_alloc(index_bytes, mmt_hia_lwmdbg_buffer));
  PcWalk pcs = {&w, 0, index, index != nullptr ? index + capacity : nullptr, index != nullptr ? capacity : 0};
  w.comment("--- start of pcs");
  int r3 = QM_HEAP_backtrace_table_iterate(0, walk_pcs, &pcs);
  w.comment("--- end of pcs");
  w.comment("--- start of pcs index");
  const int index_line = w.lineno;
  for (int id = 1; id <= pcs.num_backtraces && id <= pcs.capacity; ++id)
    w.put("%ld%s%d%s%d\n", static_cast<long>(id), S, pcs.num_pcs[id - 1], S, pcs.first_line[id - 1]);
  w.comment("--- end of pcs index");
  QM_HEAP_backtrace_table_unlock();
  if (index != nullptr) QM_page_dealloc(index);
  const int num_indexed = pcs.num_backtraces < pcs.capacity ? pcs.num_backtraces : pcs.capacity;
  if (r3 < 0 || w.failed) return -1;
  w.comment("--- start of pc data");
  const int pc_data_line = w.lineno;
  w.comment("--- end of pc data");
  w.comment("--- start of pc section toc");
  const int pc_toc = w.lineno;
  w.toc(401, num_indexed, index_line);
  w.toc(402, 0, pc_data_line);
  w.comment("--- end of pc section toc");
  w.comment("============ end of backtrace section");

  // 3. Process section.
  w.comment("============ start of process section");
  w.comment("--- start of hia process properties");
  const int props_line = w.lineno;
  char host[65] = {};
  if (QM_gethostname(host, sizeof host) != 0) return -1;
  host[sizeof host - 1] = '\0';
  w.put("%d%s%d%s%d%s%d%s%d%s%d%s%d%s%s%s", static_cast<int>(getuid()), S, static_cast<int>(geteuid()), S,
        static_cast<int>(getgid()), S, static_cast<int>(getegid()), S, static_cast<int>(getpid()), S,
        static_cast<int>(getppid()), S, static_cast<int>(8 * sizeof(void*)), S, host, S);
  put_cwd(w);
  w.put("%s", S);
  put_exe(w);
  w.put("\n");
  w.comment("--- end of hia process properties");
  w.comment("--- start of hia properties");
  const int hia_line = w.lineno;
  w.put("%d.%d-%d.%d%s%s%s%d%s%d\n", QM_HEAP_version_major, QM_HEAP_version_minor, QM_HEAP_version_point,
        QM_HEAP_version_service, S, QM_get_qm_distribution(), S, static_cast<int>(QM_HEAP_get_generation()), S,
        ev != nullptr ? 1 : 0);
  w.comment("--- end of hia properties");
  w.comment("--- start of current backtrace");
  const int bt_line = w.lineno;
  void* here[lwmdbg_num_pcs_for_current_backtrace];
  const int nbt = QM_STACK_get_backtrace(here, lwmdbg_num_pcs_for_current_backtrace);
  for (int i = 0; i < nbt; ++i) w.put("%0#*p\n", kPtrWidth, here[i]);
  w.comment("--- end of current backtrace");
  int event_line = 0;
  if (ev != nullptr) {
    w.comment("--- start of hia event");
    event_line = w.lineno;
    w.put("%s%s%s%s", event_name(ev->event), S, QM_HEAP_get_op_name(ev->op), S);
    put_record(w, ev->allocation_record, false, false);
    w.put("%s", S);
    put_record(w, ev->allocation_record_2, false, false);
    w.put("%s%p%s%lu%s%lu\n", S, ev->addr, S, static_cast<unsigned long>(ev->len), S,
          static_cast<unsigned long>(ev->alignment));
    w.comment("--- end of hia event");
  }
  w.comment("--- start of guard table");
  const int guard_line_no = w.lineno;
  QM_HEAP_gt_table_iterate(guard_line, &w);
  const int num_guards = w.lineno - guard_line_no;
  w.comment("--- end of guard table");
  w.comment("--- start of memory mappings");
  const int maps_line = w.lineno;
  const int num_maps = write_mappings(w);
  if (w.failed) return -1;
  w.comment("--- end of memory mappings");
  w.comment("--- start of image list");
  const int images_line = w.lineno;
  const int num_images = write_images(w);
  w.comment("--- end of image list");
  w.comment("--- start of process properties toc");
  const int process_toc = w.lineno;
  w.toc(205, num_guards, guard_line_no);
  w.toc(209, 1, props_line);
  w.toc(210, 1, hia_line);
  w.toc(211, nbt > 0 ? nbt : 0, bt_line);
  if (ev != nullptr) w.toc(212, 1, event_line);
  w.toc(213, num_maps, maps_line);
  w.toc(214, num_images, images_line);
  w.comment("--- end of process properties toc");
  w.comment("============ end of process section");

  // 4. File section.
  w.comment("============ start of file section");
  w.comment("--- start of file info");
  const int info_line = w.lineno;
  time_t now = time(nullptr);
  struct tm tm;
  char stamp[64];
  if (localtime_r(&now, &tm) != nullptr && strftime(stamp, sizeof stamp, "%m/%d/%y %H:%M:%S", &tm) > 0)
    w.put("%s%s%s%s%d%s%s%s%s%s%s%s%s%s%s%s%s%s%s\n", "1.30", S, stamp, S, tm.tm_isdst, S, title != nullptr ? title : "",
          S, notes != nullptr ? notes : "", S, "", S, host, S, "0", S, "0", S, "0");
  w.comment("--- end of file info");
  w.comment("--- start of file section toc");
  const int file_toc = w.lineno;
  w.toc(101, 1, info_line);
  w.comment("--- end of file section toc");
  w.comment("============ end of file section");

  write_reachability(w);

  // 5. Table of contents; its own entry is the last line.
  w.comment("============ start of table of contents");
  const int toc_line = w.lineno;
  w.toc(100, 1, file_toc);
  w.toc(200, ev != nullptr ? 7 : 6, process_toc);
  w.toc(300, 2, heap_toc);
  w.toc(400, 2, pc_toc);
  w.comment("============ end of table of contents");
  w.toc(99, 4, toc_line);
  return 0;
}

int generate(const char* fmt, const char* title, const char* notes, const QM_HEAP_event_info_t* ev) {
  if (!QM_HEAP_lwmdbg_supported) return -1;
  // The snapshot's template has no rank conversion.
  format_pathname_callbacks_t cb = {nullptr, [](format_pathname_callbacks_t*) { return QM_HEAP_lwmdbg_getnextsequence(); },
                                    nullptr};
  const int fd = qm::create_named_file(fmt, QM_HEAP_lwmdbg_get_pathname_specifier, &cb, "lwmdbg", "snapshot file");
  if (fd < 0) return -1;
  Writer w = {};
  w.fd = fd;
  w.limit = ~0ULL;
  struct {
    unsigned long long cur, max;
  } fsize;
  if (syscall(SYS_prlimit64, 0, RLIMIT_FSIZE, nullptr, &fsize) == 0) w.limit = fsize.cur;
  w.lineno = 1;
  w.comments = QM_HEAP_lwmdbg_write_comments != 0;
  w.buf = static_cast<char*>(QM_page_alloc(kBufferSize, mmt_hia_lwmdbg_buffer));
  w.cap = kBufferSize;
  if (w.buf == nullptr) {
    w.buf = w.fallback;
    w.cap = sizeof w.fallback;
  }
  write_file(w, title, notes, ev);
  w.flush();
  if (w.buf != w.fallback) QM_page_dealloc(w.buf);
  return close(fd);
}

}  // namespace

extern "C" {

int QM_HEAP_lwmdbg_getnextsequence() {
  return qm::next_in_sequence(&QM_HEAP_lwmdbg_sequence_mutex, &QM_HEAP_lwmdbg_sequence_number);
}

QM_EXPORT int QM_HEAP_lwmdbg_generate_file(const char* fmt, const char* session_title, const char* user_notes) {
  return generate(fmt, session_title, user_notes, nullptr);
}

int QM_HEAP_lwmdbg_generate_file_event(const char* fmt, const QM_HEAP_event_info_t* event) {
  return generate(fmt, nullptr, "note: generated from event", event);
}

void QM_HEAP_lwmdbg_atfork_prepare() { qm::mutex_lock(&QM_HEAP_lwmdbg_sequence_mutex); }
void QM_HEAP_lwmdbg_atfork_parent() { qm::mutex_unlock(&QM_HEAP_lwmdbg_sequence_mutex); }
void QM_HEAP_lwmdbg_atfork_child() { qm::mutex_unlock(&QM_HEAP_lwmdbg_sequence_mutex); }

int QM_HEAP_lwmdbg_is_supported() { return QM_HEAP_lwmdbg_supported; }
int QM_HEAP_lwmdbg_get_write_comments() { return QM_HEAP_lwmdbg_write_comments; }
int QM_HEAP_lwmdbg_get_check_alloc_guards() { return QM_HEAP_lwmdbg_check_alloc_guards; }
const char* QM_HEAP_lwmdbg_get_field_sep() { return S; }
int QM_HEAP_lwmdbg_initialize() { return 0; }

}  // extern "C"
