#include "leaks/reachability.h"

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "backtrace/backtrace_heap.h"
#include "base/export.h"
#include "base/format.h"
#include "base/memory_manager.h"
#include "base/page.h"
#include "events/output.h"
#include "heap/heap_tables.h"
#include "leaks/stop_world.h"
#include "redzone/signals.h"
#include "snapshot/snapshot.h"
#include "threads/reentrancy.h"
#include "threads/thread_utils.h"

extern "C" {
// The agent's own ELF header, which the linker defines for every image.
extern const ElfW(Ehdr) __ehdr_start __attribute__((visibility("hidden")));
}

namespace {

using uptr = uintptr_t;
constexpr uptr kWord = sizeof(uptr);
constexpr int kPageShift = 12;
// A block over this many pages is looked up by search, not by its pages.
constexpr uptr kBigPages = 64;
constexpr int kStopTimeoutMs = 1000;
constexpr int kMaxGroupsShown = 25;
constexpr int kMaxFramesShown = 16;

enum State : uint8_t { kUnseen = 0, kReached = 1, kInterior = 2, kIndirect = 3, kDefinite = 4 };

struct Block {
  uptr addr, end;
};
struct Range {
  uptr start, end;
};
struct PageEntry {
  uptr key;  // page number + 1; 0: empty
  uint32_t first, count;
};
enum LineFlags : unsigned { kRead = 1, kWrite = 2, kPrivate = 4, kExec = 8, kRoot = 16 };
struct MapLine {
  uptr start, end, offset;
  unsigned flags;
  int name;  // offset of its image's name in the name pool, else -1
  bool heap, stack, anon;
  unsigned long long inode;
};

// Settings.
constinit volatile int scan_on_exit = 0;
constinit volatile int scan_signal = 0;
constinit volatile int scan_pending = 0;
constinit QM_pthread_mutex_t scan_mutex = PTHREAD_MUTEX_INITIALIZER;
constinit int scan_sequence = 0;

// The memory the scan maps for itself, never a root: the working arena of a
// scan in progress and the kept result.
constinit Range own[4] = {};

// The kept result (under the allocation-table lock).
constinit QM_HEAP_reach_summary_t last_summary = {};
constinit bool have_result = false;
constinit QM_HEAP_reach_block_t* last_blocks = nullptr;
constinit size_t last_count = 0;
constinit size_t last_bytes = 0;  // the size of its mapping

template <typename T>
void swap_(T& a, T& b) {
  T t = a;
  a = b;
  b = t;
}

// In place, no memory: a heap sort.
template <typename T, typename Less>
void heap_sort(T* a, size_t n, Less less) {
  auto sift = [&](size_t i, size_t m) {
    for (;;) {
      size_t c = 2 * i + 1;
      if (c >= m) return;
      if (c + 1 < m && less(a[c], a[c + 1])) ++c;
      if (!less(a[i], a[c])) return;
      swap_(a[i], a[c]);
      i = c;
    }
  };
  for (size_t i = n / 2; i-- > 0;) sift(i, n);
  for (size_t m = n; m-- > 1;) {
    swap_(a[0], a[m]);
    sift(0, m);
  }
}

// The agent's image, from its program headers.
Range own_image() {
  const ElfW(Ehdr)* eh = &__ehdr_start;
  const auto* ph = reinterpret_cast<const ElfW(Phdr)*>(reinterpret_cast<const char*>(eh) + eh->e_phoff);
  uptr lo = ~uptr{0}, hi = 0, bias = 0;
  bool first = true;
  for (int i = 0; i < eh->e_phnum; ++i) {
    if (ph[i].p_type != PT_LOAD) continue;
    if (first) {
      bias = reinterpret_cast<uptr>(eh) - (ph[i].p_vaddr - ph[i].p_offset);
      first = false;
    }
    if (ph[i].p_vaddr < lo) lo = ph[i].p_vaddr;
    if (ph[i].p_vaddr + ph[i].p_memsz > hi) hi = ph[i].p_vaddr + ph[i].p_memsz;
  }
  const uptr page = QM_getpagesize();
  return Range{(bias + lo) & ~(page - 1), (bias + hi + page - 1) & ~(page - 1)};
}

// --- reading /proc/self/maps ---------------------------------------------------

struct MapsReader {
  buffered_file_reader_t r;
  bool open() {
    r.fd = qm::open_proc_maps();
    r.next = 0;
    r.length = 0;
    r.sizeof_buffer = bfr_constants_sizeof_buffer;
    r.eof = 0;
    return r.fd >= 0;
  }
  void close() { QM_bfr_close(&r); }
  // One line into buf (cut at cap - 1); false at the end.
  bool line(char* buf, int cap) {
    int n = 0, ch = 0;
    bool any = false;
    while (QM_bfr_read_char(&r, &ch) == 1) {
      any = true;
      if (ch == '\n') break;
      if (n < cap - 1) buf[n++] = static_cast<char>(ch);
    }
    buf[n] = '\0';
    return any;
  }
};

int count_map_lines() {
  MapsReader m;
  if (!m.open()) return 0;
  char buf[512];
  int n = 0;
  while (m.line(buf, sizeof buf)) ++n;
  m.close();
  return n;
}

bool starts(const char* s, const char* prefix) {
  while (*prefix != '\0')
    if (*s++ != *prefix++) return false;
  return true;
}

// --- the scan --------------------------------------------------------------------

struct Scan {
  // Live blocks in address order, and per block: backtrace, state, leader.
  Block* blocks;
  int* bt;
  uint8_t* state;
  uint32_t* leader;
  size_t n;
  char* arena;  // the memory of all of it, and the page index's
  size_t arena_len, index_len;
  uint32_t* stack;  // of block indexes, room for 2n
  size_t depth;
  uint32_t* big;  // blocks looked up by search
  size_t nbig;
  PageEntry* pages;
  size_t page_mask;
  uptr lo, hi;  // every block lies in [lo, hi)
  // Ranges that are never roots, each list sorted.
  Range* released;
  size_t nreleased;
  Range* agent;
  size_t nagent, agent_cap;
  Range* extra;  // dead frames below the stack pointers
  size_t nextra, extra_cap;
  // The mappings, and the readable memory they make.
  MapLine* maps;
  size_t nmaps, maps_cap;
  Range* readable;
  size_t nreadable;
  char* names;
  size_t names_used, names_cap;
  unsigned long long* image_inodes;
  size_t nimages, images_cap;
  // Stopped threads.
  qm::StoppedWorld world;
  uptr self_sp;

  static size_t hash(uptr key) { return static_cast<size_t>(key * 0x9E3779B97F4A7C15ULL >> 17); }

  PageEntry* page_slot(uptr key) {
    for (size_t h = hash(key) & page_mask;; h = (h + 1) & page_mask)
      if (pages[h].key == key || pages[h].key == 0) return &pages[h];
  }

  // The block that v points at or into, or -1; *at_start when v is its start.
  long find(uptr v, bool* at_start) const {
    if (v - lo >= hi - lo) return -1;
    const uptr key = (v >> kPageShift) + 1;
    for (size_t h = hash(key) & page_mask;; h = (h + 1) & page_mask) {
      const PageEntry& e = pages[h];
      if (e.key == 0) break;
      if (e.key != key) continue;
      size_t a = e.first, b = static_cast<size_t>(e.first) + e.count;  // last block with addr <= v
      if (blocks[a].addr > v) break;
      while (b - a > 1) {
        const size_t m = (a + b) / 2;
        if (blocks[m].addr <= v)
          a = m;
        else
          b = m;
      }
      if (v < blocks[a].end || v == blocks[a].addr) {
        *at_start = v == blocks[a].addr;
        return static_cast<long>(a);
      }
      break;
    }
    if (nbig > 0) {
      size_t a = 0, b = nbig;
      while (b - a > 1) {
        const size_t m = (a + b) / 2;
        if (blocks[big[m]].addr <= v)
          a = m;
        else
          b = m;
      }
      const Block& k = blocks[big[a]];
      if (k.addr <= v && v < k.end) {
        *at_start = v == k.addr;
        return static_cast<long>(big[a]);
      }
    }
    return -1;
  }

  void build_index() {
    uptr last = 0;
    PageEntry* e = nullptr;
    lo = n > 0 ? blocks[0].addr : 0;
    hi = lo;
    for (size_t i = 0; i < n; ++i) {
      const Block& b = blocks[i];
      const uptr end = b.end > b.addr ? b.end : b.addr + 1;
      if (end > hi) hi = end;
      const uptr p0 = b.addr >> kPageShift, p1 = (end - 1) >> kPageShift;
      if (p1 - p0 >= kBigPages) {
        big[nbig++] = static_cast<uint32_t>(i);
        continue;
      }
      for (uptr p = p0; p <= p1; ++p) {
        if (e != nullptr && last == p + 1) {
          ++e->count;
          continue;
        }
        e = page_slot(p + 1);
        e->key = p + 1;
        e->first = static_cast<uint32_t>(i);
        e->count = 1;
        last = p + 1;
      }
    }
  }

  void mark(uptr v, bool chain_of_starts) {
    bool at_start = false;
    const long i = find(v, &at_start);
    if (i < 0) return;
    const uint8_t s = chain_of_starts && at_start ? kReached : kInterior;
    if (state[i] == kUnseen || (state[i] == kInterior && s == kReached)) {
      state[i] = s;
      stack[depth++] = static_cast<uint32_t>(i);
    }
  }

  // The first range of a sorted list that ends after at, or null.
  static const Range* next_of(const Range* list, size_t count, uptr at) {
    size_t l = 0, h = count;
    while (l < h) {
      const size_t m = (l + h) / 2;
      if (list[m].end <= at)
        l = m + 1;
      else
        h = m;
    }
    return l < count ? &list[l] : nullptr;
  }

  // The readable part of [a, b) that starts first, within the mappings; false
  // when none.
  bool readable_part(uptr a, uptr b, uptr* ra, uptr* rb) const {
    const Range* r = next_of(readable, nreadable, a);
    if (r == nullptr || r->start >= b) return false;
    *ra = r->start > a ? r->start : a;
    *rb = r->end < b ? r->end : b;
    return true;
  }

  template <typename F>
  void for_each_word(uptr a, uptr b, F f) const {
    while (a < b) {
      uptr ra, rb;
      if (!readable_part(a, b, &ra, &rb)) return;
      ra = (ra + kWord - 1) & ~(kWord - 1);
      for (uptr p = ra; p + kWord <= rb; p += kWord) f(*reinterpret_cast<const volatile uptr*>(p));
      a = rb;
    }
  }

  void drain() {
    while (depth > 0) {
      const uint32_t i = stack[--depth];
      const bool starts_chain = state[i] == kReached;
      for_each_word(blocks[i].addr, blocks[i].end, [&](uptr v) { mark(v, starts_chain); });
    }
  }

  // The first excluded range that ends after at: a live block, a released
  // range, the agent's memory, a stack below its pointer.
  Range next_excluded(uptr at) const {
    Range best = {~uptr{0}, ~uptr{0}};
    auto take = [&](uptr s, uptr e) {
      if (e > at && s < best.start) best = Range{s, e};
    };
    size_t l = 0, h = n;
    while (l < h) {
      const size_t m = (l + h) / 2;
      if ((blocks[m].end > blocks[m].addr ? blocks[m].end : blocks[m].addr + 1) <= at)
        l = m + 1;
      else
        h = m;
    }
    if (l < n) take(blocks[l].addr, blocks[l].end > blocks[l].addr ? blocks[l].end : blocks[l].addr + 1);
    if (const Range* r = next_of(released, nreleased, at)) take(r->start, r->end);
    if (const Range* r = next_of(agent, nagent, at)) take(r->start, r->end);
    if (const Range* r = next_of(extra, nextra, at)) take(r->start, r->end);
    return best;
  }

  void scan_root(uptr a, uptr b) {
    uptr at = a;
    while (at < b) {
      const Range x = next_excluded(at);
      if (x.start > at) {
        const uptr stop = x.start < b ? x.start : b;
        for_each_word(at, stop, [&](uptr v) { mark(v, true); });
        drain();
        at = stop;
      }
      if (x.start <= at) at = x.end;
    }
  }

  // Names of images, for the frames of the report.
  int keep_name(const char* s) {
    size_t len = 0;
    while (s[len] != '\0') ++len;
    if (names_used + len + 1 > names_cap) return -1;
    const int at = static_cast<int>(names_used);
    __builtin_memcpy(names + names_used, s, len + 1);
    names_used += len + 1;
    return at;
  }

  // Reads the mappings: which lines are roots, and the readable ranges.
  // The loaded images, from the dynamic linker's list: each one's dynamic
  // section lies in its data, whose mapping names its file's inode (the
  // files' own first bytes are never read: a mapped file may have shrunk).
  void mark_images() {
    nimages = 0;
    for (const struct link_map* l = _r_debug.r_map; l != nullptr; l = l->l_next) {
      const uptr ld = reinterpret_cast<uptr>(l->l_ld);
      for (size_t i = 0; i < nmaps && nimages < images_cap; ++i)
        if (maps[i].start <= ld && ld < maps[i].end && maps[i].inode != 0 && !maps[i].anon)
          image_inodes[nimages++] = maps[i].inode;
    }
    for (size_t i = 0; i < nmaps; ++i) {
      MapLine& l = maps[i];
      if (l.anon || l.inode == 0 || !is_image(l.inode)) {
        if (!l.anon) l.name = -1;
        continue;
      }
      // A file's pages are read only when they are an image's data (a file
      // that has shrunk faults past its end; a device may fault anywhere).
      if ((l.flags & (kRead | kWrite | kPrivate)) == (kRead | kWrite | kPrivate)) l.flags |= kRoot;
    }
  }

  bool is_image(unsigned long long inode) const {
    for (size_t i = 0; i < nimages; ++i)
      if (image_inodes[i] == inode) return inode != 0;
    return false;
  }

  // Reads the mappings: which lines are roots, and the readable ranges.
  // False when the mappings cannot be read (then there is no scan).
  bool read_maps() {
    MapsReader m;
    nmaps = 0;
    if (!m.open()) return false;
    char buf[768];
    while (nmaps < maps_cap && m.line(buf, sizeof buf)) {
      const char* p = buf;
      MapLine& l = maps[nmaps];
      l.start = qm::parse_hex(p);
      if (*p++ != '-') continue;
      l.end = qm::parse_hex(p);
      while (*p == ' ') ++p;
      l.flags = 0;
      if (p[0] == 'r') l.flags |= kRead;
      if (p[1] == 'w') l.flags |= kWrite;
      if (p[2] == 'x') l.flags |= kExec;
      if (p[3] == 'p') l.flags |= kPrivate;
      p += 4;
      while (*p == ' ') ++p;
      l.offset = qm::parse_hex(p);
      while (*p == ' ') ++p;
      while (*p != ' ' && *p != '\0') ++p;  // device
      while (*p == ' ') ++p;
      unsigned long long inode = 0;
      for (; *p >= '0' && *p <= '9'; ++p) inode = inode * 10 + static_cast<unsigned>(*p - '0');
      while (*p == ' ') ++p;
      const char* name = p;
      l.name = -1;
      l.heap = starts(name, "[heap]");
      l.stack = starts(name, "[stack");
      // Memory of no file: anonymous, shared or not, writable or not (a
      // table made read-only once filled), huge pages, System V segments.
      l.anon = name[0] == '\0' || l.heap || l.stack || starts(name, "[anon") || starts(name, "/dev/zero") ||
               starts(name, "/anon_hugepage") || starts(name, "/SYSV");
      l.inode = inode;
      if (name[0] == '/' && !l.anon) l.name = keep_name(name);
      if ((l.flags & kRead) && l.anon) l.flags |= kRoot;
      ++nmaps;
    }
    mark_images();
    m.close();
    // Released ranges are left out of the roots only inside the brk heap:
    // memory the allocator mapped for a block is unmapped at its release,
    // and the addresses may since hold anything (a thread's stack).
    const uptr brk = static_cast<uptr>(syscall(SYS_brk, 0));
    uptr hs = 0, he = 0;
    for (size_t i = 0; i < nmaps; ++i)
      if (maps[i].heap || (maps[i].start < brk && brk <= maps[i].end)) {
        maps[i].heap = true;
        hs = maps[i].start;
        he = maps[i].end;
      }
    size_t kept = 0;
    for (size_t i = 0; i < nreleased; ++i)
      if (released[i].start >= hs && released[i].end <= he) released[kept++] = released[i];
    nreleased = kept;
    nreadable = 0;
    for (size_t i = 0; i < nmaps; ++i) {
      if (!(maps[i].flags & kRead)) continue;
      if (nreadable > 0 && readable[nreadable - 1].end == maps[i].start)
        readable[nreadable - 1].end = maps[i].end;
      else
        readable[nreadable++] = Range{maps[i].start, maps[i].end};
    }
    return nmaps > 0;
  }

  // The stacks below each stopped thread's pointer (and the scanner's own)
  // are dead frames; not so for a handler that runs on a stack of the
  // program's own making (the heap, or a block).
  void exclude_dead_frames(uptr sp) {
    bool at_start;
    if (find(sp, &at_start) >= 0) return;
    for (size_t i = 0; i < nmaps; ++i) {
      if (!(maps[i].start <= sp && sp < maps[i].end)) continue;
      // A stack: the process's own, or a thread's (anonymous, above an
      // inaccessible guard). Not an alternate signal stack in a program's
      // data, nor a pool of coroutine stacks without guards.
      const bool guarded = i > 0 && maps[i - 1].end == maps[i].start && maps[i - 1].anon &&
                           !(maps[i - 1].flags & kRead);
      if ((maps[i].stack || (maps[i].anon && !maps[i].heap && guarded)) && nextra < extra_cap) {
        extra[nextra++] = Range{maps[i].start, sp};
      }
      return;
    }
  }

  void mark_from_roots() {
    // The registers of the stopped threads.
    for (int t = 0; t < world.count; ++t) {
      const qm::StoppedThread& s = world.threads[t];
      if (s.state != qm::kStopped) continue;
      for (int r = 0; r < s.num_regs; ++r) mark(s.regs[r], true);
    }
    drain();
    for (size_t i = 0; i < nmaps; ++i)
      if (maps[i].flags & kRoot) scan_root(maps[i].start, maps[i].end);
  }

  // Every block not reached: the first of each lost structure in address
  // order is definitely lost, what it reaches indirectly lost (a definitely
  // lost block reached later becomes indirect, under the later one).
  void classify_lost() {
    for (size_t i = 0; i < n; ++i) {
      if (state[i] != kUnseen) continue;
      state[i] = kDefinite;
      leader[i] = static_cast<uint32_t>(i);
      stack[depth++] = static_cast<uint32_t>(i);
      while (depth > 0) {
        const uint32_t j = stack[--depth];
        for_each_word(blocks[j].addr, blocks[j].end, [&](uptr v) {
          bool at_start;
          const long k = find(v, &at_start);
          if (k < 0 || static_cast<size_t>(k) == i) return;
          if (state[k] == kUnseen) {
            state[k] = kIndirect;
            leader[k] = static_cast<uint32_t>(i);
            stack[depth++] = static_cast<uint32_t>(k);
          } else if (state[k] == kDefinite) {
            state[k] = kIndirect;
            leader[k] = static_cast<uint32_t>(i);
          }
        });
      }
    }
    // Leaders of leaders that became indirect: the definitely lost one.
    for (size_t i = 0; i < n; ++i) {
      if (state[i] != kIndirect) continue;
      uint32_t l = leader[i];
      while (state[l] == kIndirect) l = leader[l];
      leader[i] = l;
    }
  }
};

// One scan at a time (under scan_mutex).
constinit Scan the_scan = {};

// --- gathering what the scan needs, under the table lock ---------------------------

struct Arena {
  char* base;
  size_t len, used;
  template <typename T>
  T* take(size_t count) {
    used = (used + 15) & ~size_t{15};
    T* p = reinterpret_cast<T*>(base + used);
    used += count * sizeof(T);
    return p;
  }
};

size_t arena_size(size_t n, size_t nreleased, size_t nagent, size_t nmaps, size_t names) {
  return n * (sizeof(Block) + sizeof(int) + 1 + sizeof(uint32_t) * 4) + nreleased * sizeof(Range) +
         nagent * sizeof(Range) + nmaps * (sizeof(MapLine) + sizeof(Range) + sizeof(unsigned long long)) + names +
         16 * 16;
}

int collect_block(allocation_record_t* r, int*, void* arg) {
  Scan& s = *static_cast<Scan*>(arg);
  s.blocks[s.n] = Block{reinterpret_cast<uptr>(r->addr), reinterpret_cast<uptr>(r->addr) + r->len};
  s.bt[s.n] = r->backtrace_id;
  ++s.n;
  return 0;
}

int collect_released(allocation_record_t* r, int*, void* arg) {
  Scan& s = *static_cast<Scan*>(arg);
  if (r->len > 0) s.released[s.nreleased++] = Range{reinterpret_cast<uptr>(r->addr), reinterpret_cast<uptr>(r->addr) + r->len};
  return 0;
}

int collect_region(QM_MM_iterator_callbacks_t* cb) {
  Scan& s = *static_cast<Scan*>(cb->arg);
  if (s.nagent < s.agent_cap) {
    const uptr b = reinterpret_cast<uptr>(cb->region.base);
    s.agent[s.nagent++] = Range{b, b + QM_pagesize_ceil(cb->region.len)};
  }
  return 0;
}

void sort_ranges(Range* r, size_t n) {
  for (size_t i = 1; i < n; ++i)
    if (r[i - 1].start > r[i].start) {
      heap_sort(r, n, [](const Range& a, const Range& b) { return a.start < b.start; });
      return;
    }
}

void add_own(uptr start, uptr end) {
  for (Range& r : own)
    if (r.start == r.end) {
      r = Range{start, end};
      return;
    }
}

void drop_own(uptr start) {
  for (Range& r : own)
    if (r.start == start) r = Range{0, 0};
}

// --- the console report -------------------------------------------------------------

struct Group {
  int bt;
  unsigned long blocks, bytes, ind_blocks, ind_bytes;
};

const char* blocks_word(unsigned long n) { return n == 1 ? "block" : "blocks"; }

void print_frames(const Scan& s, int bt) {
  const void* pcs[kMaxFramesShown * 4];
  QM_HEAP_backtrace_table_lock();
  int n = QM_STACK_lookup_backtrace(&QM_HEAP_backtrace_table, bt, pcs, sizeof pcs / sizeof *pcs);
  QM_HEAP_backtrace_table_unlock();
  if (n <= 0) {
    QM_HEAP_printf("      (no backtrace: backtrace_depth=0, or none was taken)\n");
    return;
  }
  for (int i = 0; i < n && i < kMaxFramesShown; ++i) {
    const uptr pc = reinterpret_cast<uptr>(pcs[i]);
    const char* name = nullptr;
    uptr off = 0;
    for (size_t k = 0; k < s.nmaps; ++k)
      if (s.maps[k].start <= pc && pc < s.maps[k].end && s.maps[k].name >= 0) {
        name = s.names + s.maps[k].name;
        off = pc - s.maps[k].start + s.maps[k].offset;
      }
    if (name != nullptr) {
      const char* base = name;
      for (const char* c = name; *c != '\0'; ++c)
        if (*c == '/') base = c + 1;
      QM_HEAP_printf("      #%-2d %p %s+%#lx\n", i, pcs[i], base, static_cast<unsigned long>(off));
    } else {
      QM_HEAP_printf("      #%-2d %p\n", i, pcs[i]);
    }
  }
  if (n > kMaxFramesShown) QM_HEAP_printf("      ... %d more frames\n", n - kMaxFramesShown);
}

// The blocks of one kind grouped by the stack that allocated them, largest
// first; groups is scratch room for one per block of the kind.
void report_kind(Scan& s, Group* groups, int kind, const unsigned long* ind_blocks,
                 const unsigned long* ind_bytes) {
  const uint8_t want = kind == reach_definitely_lost ? kDefinite : kInterior;
  size_t ng = 0;
  for (size_t i = 0; i < s.n; ++i) {
    if (s.state[i] != want) continue;
    const unsigned long len = s.blocks[i].end - s.blocks[i].addr;
    groups[ng++] = Group{s.bt[i], 1, len, want == kDefinite ? ind_blocks[i] : 0, want == kDefinite ? ind_bytes[i] : 0};
  }
  if (ng == 0) return;
  heap_sort(groups, ng, [](const Group& a, const Group& b) { return a.bt < b.bt; });
  size_t m = 0;
  for (size_t i = 0; i < ng; ++i) {
    if (m > 0 && groups[m - 1].bt == groups[i].bt) {
      Group& g = groups[m - 1];
      g.blocks += groups[i].blocks;
      g.bytes += groups[i].bytes;
      g.ind_blocks += groups[i].ind_blocks;
      g.ind_bytes += groups[i].ind_bytes;
    } else {
      groups[m++] = groups[i];
    }
  }
  heap_sort(groups, m, [](const Group& a, const Group& b) { return a.bytes + a.ind_bytes > b.bytes + b.ind_bytes; });
  for (size_t i = 0; i < m && i < static_cast<size_t>(kMaxGroupsShown); ++i) {
    const Group& g = groups[i];
    if (want == kDefinite && g.ind_blocks > 0)
      QM_HEAP_printf("%s: %lu bytes in %lu %s (and %lu bytes in %lu %s indirectly), allocated at\n",
                     QM_HEAP_reach_kind_name(kind), g.bytes, g.blocks, blocks_word(g.blocks), g.ind_bytes,
                     g.ind_blocks, blocks_word(g.ind_blocks));
    else
      QM_HEAP_printf("%s: %lu bytes in %lu %s, allocated at\n", QM_HEAP_reach_kind_name(kind), g.bytes, g.blocks,
                     blocks_word(g.blocks));
    print_frames(s, g.bt);
  }
  if (m > static_cast<size_t>(kMaxGroupsShown))
    QM_HEAP_printf("%s: %lu more stacks (the snapshot file has every block)\n", QM_HEAP_reach_kind_name(kind),
                   static_cast<unsigned long>(m - kMaxGroupsShown));
}

void print_summary(const QM_HEAP_reach_summary_t& r) {
  QM_HEAP_printf(
      "reachability : %lu blocks (%lu bytes) reachable, %lu (%lu bytes) only through interior pointers, "
      "%lu (%lu bytes) definitely lost, %lu (%lu bytes) indirectly lost\n",
      r.blocks[reach_reachable], r.bytes[reach_reachable], r.blocks[reach_interior], r.bytes[reach_interior],
      r.blocks[reach_definitely_lost], r.bytes[reach_definitely_lost], r.blocks[reach_indirectly_lost],
      r.bytes[reach_indirectly_lost]);
  QM_HEAP_printf("reachability : scan %d: %d other threads stopped, %d not stopped, %ld.%03ld s\n", r.sequence,
                 r.threads_stopped, r.threads_not_stopped, r.microseconds / 1000000, r.microseconds / 1000 % 1000);
  if (r.threads_not_stopped > 0)
    QM_HEAP_printf("reachability : the threads not stopped block the stop signal: what only their registers hold, or "
                   "what they change meanwhile, may show as lost\n");
}

// --- the scan's steps -----------------------------------------------------------------

bool lock_table(int lock) {
  if (lock == reach_lock_wait) {
    QM_HEAP_ht_alloc_write_lock();
    return true;
  }
  if (lock == reach_lock_try_once) return qm::mutex_trylock(QM_HEAP_ht_alloc_mutex()) == 0;
  return qm::mutex_try_for_a_while(QM_HEAP_ht_alloc_mutex());
}

void release_scan(Scan& s);

QM_NOINLINE int scan_locked(Scan& s, QM_HEAP_reach_summary_t* out, long long t0) {
  // Everything the scan needs is mapped before any thread stops.
  const size_t n = static_cast<size_t>(QM_HEAP_get_num_records_in_allocation_table());
  const size_t nreleased = static_cast<size_t>(QM_HEAP_get_num_records_in_deallocation_table());
  const size_t nagent = static_cast<size_t>(QM_memory_manager_table.num_regions) + 16;
  const size_t maps_cap = static_cast<size_t>(count_map_lines()) * 2 + 256;
  const size_t names_cap = 256 * 1024;
  const int threads = qm::count_other_threads();
  if (!qm::reserve_stop_slots(threads * 2 + 16)) return -3;
  const size_t len = QM_pagesize_ceil(arena_size(n, nreleased, nagent, maps_cap, names_cap) +
                                      (static_cast<size_t>(threads) * 2 + 32) * sizeof(Range));
  Arena a = {static_cast<char*>(QM_mmap_anon(len)), len, 0};
  if (a.base == nullptr) return -3;
  add_own(reinterpret_cast<uptr>(a.base), reinterpret_cast<uptr>(a.base) + len);
  s.blocks = a.take<Block>(n);
  s.bt = a.take<int>(n);
  s.leader = a.take<uint32_t>(n);
  s.stack = a.take<uint32_t>(2 * n + 1);
  s.big = a.take<uint32_t>(n);
  s.state = a.take<uint8_t>(n);
  s.released = a.take<Range>(nreleased);
  s.agent = a.take<Range>(nagent);
  s.agent_cap = nagent - 8;
  s.maps = a.take<MapLine>(maps_cap);
  s.maps_cap = maps_cap;
  s.readable = a.take<Range>(maps_cap);
  s.names = a.take<char>(names_cap);
  s.image_inodes = a.take<unsigned long long>(maps_cap);
  s.images_cap = maps_cap;
  s.extra_cap = static_cast<size_t>(threads) * 2 + 16;
  s.extra = a.take<Range>(s.extra_cap);
  s.names_cap = names_cap;

  QM_HEAP_iterate_over_allocation_table(collect_block, &s);
  QM_HEAP_iterate_over_deallocation_table(collect_released, &s);
  sort_ranges(s.released, s.nreleased);
  QM_MM_iterator_callbacks_t cb = {};
  cb.arg = &s;
  cb.f = collect_region;
  QM_MM_iterate_regions(&cb);
  const Range image = own_image();
  s.agent[s.nagent++] = image;
  for (const Range& r : own)
    if (r.end > r.start) s.agent[s.nagent++] = r;
  sort_ranges(s.agent, s.nagent);

  // The page index: a slot per page that a block covers, at most half full.
  size_t covered = 0;
  {
    uptr last = 0;
    for (size_t i = 0; i < s.n; ++i) {
      const uptr end = s.blocks[i].end > s.blocks[i].addr ? s.blocks[i].end : s.blocks[i].addr + 1;
      const uptr p0 = s.blocks[i].addr >> kPageShift, p1 = (end - 1) >> kPageShift;
      if (p1 - p0 >= kBigPages) continue;
      covered += p1 - p0 + 1 - (last == p0 + 1 ? 1 : 0);
      last = p1 + 1;
    }
  }
  size_t slots = 64;
  while (slots < covered * 2) slots *= 2;
  const size_t index_len = QM_pagesize_ceil(slots * sizeof(PageEntry));
  s.index_len = index_len;
  s.arena = a.base;
  s.arena_len = a.len;
  s.pages = static_cast<PageEntry*>(QM_mmap_anon(index_len));
  if (s.pages == nullptr) {
    drop_own(reinterpret_cast<uptr>(a.base));
    QM_munmap(a.base, a.len);
    return -3;
  }
  add_own(reinterpret_cast<uptr>(s.pages), reinterpret_cast<uptr>(s.pages) + index_len);
  s.agent[s.nagent++] = Range{reinterpret_cast<uptr>(s.pages), reinterpret_cast<uptr>(s.pages) + index_len};
  uptr slots_start, slots_end;
  qm::stop_slots_range(&slots_start, &slots_end);
  if (slots_end > slots_start) s.agent[s.nagent++] = Range{slots_start, slots_end};
  sort_ranges(s.agent, s.nagent);
  s.page_mask = slots - 1;
  s.build_index();

  // Marking sees memory no thread changes.
  qm::stop_world(&s.world, kStopTimeoutMs);
  if (!s.read_maps() || (!s.world.listed && QM_thread_is_multi_threaded())) {
    qm::resume_world(&s.world);
    release_scan(s);
    return -2;
  }
  s.exclude_dead_frames(s.self_sp);
  for (int t = 0; t < s.world.count; ++t)
    if (s.world.threads[t].state == qm::kStopped) s.exclude_dead_frames(s.world.threads[t].sp);
  sort_ranges(s.extra, s.nextra);
  s.mark_from_roots();
  qm::resume_world(&s.world);

  // Lost blocks can be reached by nobody: no thread changes them.
  s.classify_lost();
  QM_HEAP_reach_summary_t r = {};
  size_t kept = 0;
  for (size_t i = 0; i < s.n; ++i) {
    const int k = s.state[i] == kReached    ? reach_reachable
                  : s.state[i] == kInterior ? reach_interior
                  : s.state[i] == kDefinite ? reach_definitely_lost
                                            : reach_indirectly_lost;
    ++r.blocks[k];
    r.bytes[k] += s.blocks[i].end - s.blocks[i].addr;
    if (k != reach_reachable) ++kept;
  }
  r.table_changes = QM_HEAP_allocation_table_changes;
  r.threads_stopped = s.world.num_stopped;
  r.threads_not_stopped = s.world.num_not_stopped;
  r.sequence = ++scan_sequence;

  // The result replaces the last one.
  if (last_blocks != nullptr) {
    drop_own(reinterpret_cast<uptr>(last_blocks));
    QM_munmap(last_blocks, last_bytes);
  }
  last_blocks = nullptr;
  last_count = 0;
  last_bytes = QM_pagesize_ceil(kept * sizeof(QM_HEAP_reach_block_t));
  if (kept > 0) last_blocks = static_cast<QM_HEAP_reach_block_t*>(QM_mmap_anon(last_bytes));
  if (last_blocks != nullptr) {
    add_own(reinterpret_cast<uptr>(last_blocks), reinterpret_cast<uptr>(last_blocks) + last_bytes);
    for (size_t i = 0; i < s.n; ++i) {
      if (s.state[i] == kReached) continue;
      QM_HEAP_reach_block_t& b = last_blocks[last_count++];
      b.addr = reinterpret_cast<void*>(s.blocks[i].addr);
      b.len = s.blocks[i].end - s.blocks[i].addr;
      b.backtrace_id = s.bt[i];
      b.kind = s.state[i] == kInterior ? reach_interior : s.state[i] == kDefinite ? reach_definitely_lost
                                                                                  : reach_indirectly_lost;
      b.leader = reinterpret_cast<void*>(s.blocks[s.state[i] == kIndirect ? s.leader[i] : i].addr);
    }
  }
  r.microseconds = static_cast<long>(qm::monotonic_us() - t0);
  last_summary = r;
  have_result = true;
  *out = r;

  return 0;
}

// The console report of a scan made (after the table lock is released: the
// output lock is taken before it by a fork).
void report_scan(Scan& s, const QM_HEAP_reach_summary_t& r) {
  // What hangs from each definitely lost block, then the groups; the
  // arena's per-block scratch (stack, big) is free again.
  auto* ind_blocks = reinterpret_cast<unsigned long*>(s.stack);
  static_assert(sizeof(unsigned long) <= 2 * sizeof(uint32_t));
  for (size_t i = 0; i < s.n; ++i) ind_blocks[i] = 0;
  size_t extra_len = QM_pagesize_ceil((s.n + 1) * (sizeof(Group) + sizeof(unsigned long)));
  char* extra = static_cast<char*>(QM_mmap_anon(extra_len));
  QM_HEAP_io_lock_io_mutex();
  print_summary(r);
  if (extra != nullptr) {
    auto* ind_bytes = reinterpret_cast<unsigned long*>(extra);
    auto* groups = reinterpret_cast<Group*>(extra + (s.n + 1) * sizeof(unsigned long));
    for (size_t i = 0; i < s.n; ++i) ind_bytes[i] = 0;
    for (size_t i = 0; i < s.n; ++i)
      if (s.state[i] == kIndirect) {
        ++ind_blocks[s.leader[i]];
        ind_bytes[s.leader[i]] += s.blocks[i].end - s.blocks[i].addr;
      }
    report_kind(s, groups, reach_definitely_lost, ind_blocks, ind_bytes);
    report_kind(s, groups, reach_interior, ind_blocks, ind_bytes);
    QM_munmap(extra, extra_len);
  }
  QM_HEAP_io_unlock_io_mutex();
}

void release_scan(Scan& s) {
  drop_own(reinterpret_cast<uptr>(s.pages));
  QM_munmap(s.pages, s.index_len);
  drop_own(reinterpret_cast<uptr>(s.arena));
  QM_munmap(s.arena, s.arena_len);
}

// A scan asked for by signal while the thread was inside the agent: made as
// the thread leaves it (the table lock only tried: the thread may be leaving
// from inside something that holds it).
void run_pending() {
  // Read before written: every thread passes here on every heap call.
  if (!__atomic_load_n(&scan_pending, __ATOMIC_RELAXED) || !__atomic_exchange_n(&scan_pending, 0, __ATOMIC_ACQ_REL))
    return;
  if (QM_HEAP_reach_scan(1, reach_lock_try_once, nullptr) == -1) __atomic_store_n(&scan_pending, 1, __ATOMIC_RELEASE);
}

void scan_catcher(int sig, siginfo_t*, void*, int* handled) {
  if (sig != scan_signal || sig == 0) return;
  *handled = 1;
  if (QM_get_num_times_entered_ia() > 0) {
    __atomic_store_n(&scan_pending, 1, __ATOMIC_RELEASE);
    return;
  }
  if (QM_HEAP_reach_scan(1, reach_lock_try_once, nullptr) == -1) __atomic_store_n(&scan_pending, 1, __ATOMIC_RELEASE);
}

}  // namespace

extern "C" {

const char* QM_HEAP_reach_kind_name(int kind) {
  static constexpr const char* kNames[] = {"reachable", "interior", "definitely lost", "indirectly lost"};
  return kind >= 0 && kind < reach_num_kinds ? kNames[kind] : "unknown";
}

int QM_HEAP_reach_get_scan_on_exit() { return scan_on_exit; }
int QM_HEAP_reach_set_scan_on_exit(int v) {
  const int old = scan_on_exit;
  scan_on_exit = v != 0;
  if (scan_on_exit) qm::keep_proc_open();
  return old;
}
int QM_HEAP_reach_get_scan_signal() { return scan_signal; }
int QM_HEAP_reach_set_scan_signal(int signo) {
  const int old = scan_signal;
  if (signo == old) return old;
  if (signo < 0 || signo > 64 || signo == SIGKILL || signo == SIGSTOP || signo == SIGSEGV ||
      signo == qm::kStopSignal) {
    QM_HEAP_printf("reachability_scan_signal: signal %d cannot be used for scans on demand\n", signo);
    return -1;
  }
  hia_sigaction_t act = {};
  if (old != 0) QM_HEAP_sm_sigaction(old, &act, nullptr);
  scan_signal = 0;
  if (signo != 0) {
    act.catcher = scan_catcher;
    act.options = sm_option_set;
    if (QM_HEAP_sm_sigaction(signo, &act, nullptr) != 0) {
      QM_HEAP_printf("reachability_scan_signal: signal %d cannot be claimed\n", signo);
      return -1;
    }
    scan_signal = signo;
    QM_leave_ia_hook = run_pending;
    qm::keep_proc_open();
  }
  return old;
}

int QM_HEAP_reach_scan(int report, int lock, QM_HEAP_reach_summary_t* out) {
  // The callers' registers go to this frame, and everything above the
  // stack pointer here is the caller's: the scan's own frames are below.
  // Its state is not on the stack (it holds block addresses).
  __builtin_unwind_init();
  uptr sp;
#if defined(__x86_64__)
  __asm__ volatile("mov %%rsp, %0" : "=r"(sp));
#else
  __asm__ volatile("mov %%esp, %0" : "=r"(sp));
#endif
  const long long t0 = qm::monotonic_us();
  if (lock != reach_lock_wait ? qm::mutex_trylock(&scan_mutex) != 0 : qm::mutex_lock(&scan_mutex) != 0) return -1;
  Scan& s = the_scan;
  s = Scan{};
  if (!lock_table(lock)) {
    qm::mutex_unlock(&scan_mutex);
    if (report && lock != reach_lock_try_once)
      QM_HEAP_printf("reachability : the scan could not run (the heap tables are in use by a thread that does not "
                     "let go)\n");
    return -1;
  }
  s.self_sp = sp;
  int r = -1;
  int cancel = 0;
  QM_thread_disable_cancel(&cancel);
  QM_HEAP_reach_summary_t summary = {};
  r = scan_locked(s, &summary, t0);
  QM_HEAP_ht_alloc_write_unlock();
  if (r == 0) {
    if (out != nullptr) *out = summary;
    if (report) report_scan(s, summary);
    release_scan(s);
  }
  QM_thread_restore_cancelstate(cancel);
  qm::mutex_unlock(&scan_mutex);
  if (r == -3 && report) QM_HEAP_printf("reachability : the scan could not run (no memory for its tables)\n");
  if (r == -2 && report)
    QM_HEAP_printf("reachability : the scan could not run (/proc/self cannot be read: the process's memory and "
                   "threads cannot be searched)\n");
  return r == 0 ? 0 : -2;
}

const QM_HEAP_reach_summary_t* QM_HEAP_reach_last_result(const QM_HEAP_reach_block_t** blocks, size_t* count) {
  if (!have_result) return nullptr;
  if (blocks != nullptr) *blocks = last_blocks;
  if (count != nullptr) *count = last_blocks != nullptr ? last_count : 0;
  return &last_summary;
}

// Fork waits for a scan in progress; the child starts with none.
void QM_HEAP_reach_atfork_prepare() { qm::mutex_lock(&scan_mutex); }
void QM_HEAP_reach_atfork_parent() { qm::mutex_unlock(&scan_mutex); }
void QM_HEAP_reach_atfork_child() {
  have_result = false;  // the parent's, not of this process
  qm::mutex_unlock(&scan_mutex);
}

void QM_HEAP_reach_at_exit() {
  if (scan_on_exit) QM_HEAP_reach_scan(1, reach_lock_wait, nullptr);
}

}  // extern "C"
