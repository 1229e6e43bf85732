// The lightweight core file: an ELF core that holds only what a debugger
// needs to read the agent and the program's heap after the process is gone:
//   - the writable segments of every loaded image (the agent's root block
//     and controls, the program's globals, the dynamic linker's list of
//     images, which lets the debugger find the shared libraries), and the
//     anonymous mapping right after each (its bss);
//   - the brk heap;
//   - every region of the agent's own pages (the tables);
//   - every live block the allocation table knows, whole pages around it;
//   - the pages of each entry of the dynamic linker's list of images.
//   - the agent's own image, read-only segments included (the descriptors
//     of its root block and their names).
// Notes: the writing thread's status (its thread id), the process's
// information and the auxiliary vector (which places a position-independent
// executable). Stacks, file-backed read-only pages and other anonymous memory
// are left out; the debugger reads code and constants from the files.
// Memory that cannot be read (an inaccessible page) is written as zeros.
#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <link.h>
#include <string.h>
#include <sys/procfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/export.h"
#include "base/format.h"
#include "base/memory_manager.h"
#include "base/page.h"
#include "config/runtime_config.h"
#include "events/events.h"
#include "events/output.h"
#include "heap/heap_tables.h"
#include "snapshot/snapshot.h"
#include "threads/thread_utils.h"

#pragma GCC diagnostic ignored "-Wformat"

extern "C" {
constinit volatile int QM_HEAP_lwcore_sequence_number = 0;
constinit QM_pthread_mutex_t QM_HEAP_lwcore_sequence_mutex = PTHREAD_MUTEX_INITIALIZER;
}

namespace {

#if defined(__x86_64__)
using Ehdr = Elf64_Ehdr;
using Phdr = Elf64_Phdr;
using Nhdr = Elf64_Nhdr;
constexpr int kClass = ELFCLASS64;
constexpr int kMachine = EM_X86_64;
#else
using Ehdr = Elf32_Ehdr;
using Phdr = Elf32_Phdr;
using Nhdr = Elf32_Nhdr;
constexpr int kClass = ELFCLASS32;
constexpr int kMachine = EM_386;
#endif

struct Range {
  uintptr_t start, end;
};

// A growing array of ranges in the agent's pages.
struct Ranges {
  Range* r = nullptr;
  size_t n = 0, cap = 0;
  bool failed = false;

  // Room for extra more ranges, so that add() need not allocate (while the
  // page memory manager's own lock is held, say).
  void reserve(size_t extra) {
    if (n + extra > cap) grow(n + extra);
  }

  void grow(size_t at_least) {
    size_t ncap = cap == 0 ? 1024 : 2 * cap;
    while (ncap < at_least) ncap *= 2;
    auto* nr = static_cast<Range*>(QM_page_alloc(ncap * sizeof(Range), mmt_hia_lwmdbg_buffer));
    if (n > 0) __builtin_memcpy(nr, r, n * sizeof(Range));
    if (r != nullptr) QM_page_dealloc(r);
    r = nr;
    cap = ncap;
  }

  void add(uintptr_t start, uintptr_t end, bool may_grow = true) {
    const size_t page = QM_getpagesize();
    start &= ~(page - 1);
    end = (end + page - 1) & ~(page - 1);
    if (start >= end) return;
    if (n > 0 && start <= r[n - 1].end && start >= r[n - 1].start) {  // the usual case: in order
      if (end > r[n - 1].end) r[n - 1].end = end;
      return;
    }
    if (n == cap) {
      if (!may_grow) {
        failed = true;
        return;
      }
      grow(n + 1);
    }
    r[n++] = Range{start, end};
  }

  // Sorted by start, overlapping and touching ranges merged.
  void normalise() {
    for (size_t gap = n / 2; gap > 0; gap /= 2)
      for (size_t i = gap; i < n; ++i)
        for (size_t j = i; j >= gap && r[j - gap].start > r[j].start; j -= gap) {
          Range t = r[j];
          r[j] = r[j - gap];
          r[j - gap] = t;
        }
    size_t out = 0;
    for (size_t i = 0; i < n; ++i) {
      if (out > 0 && r[i].start <= r[out - 1].end) {
        if (r[i].end > r[out - 1].end) r[out - 1].end = r[i].end;
      } else {
        r[out++] = r[i];
      }
    }
    n = out;
  }

  ~Ranges() {
    if (r != nullptr) QM_page_dealloc(r);
  }
};

// The images' writable segments and their bss, and the brk heap, from the
// process's map.
__attribute__((noinline)) void add_mappings(Ranges& out) {
  buffered_file_reader_t r;
  if (QM_bfr_open(&r, "/proc/self/maps") != 0) return;
  char line[1024];
  int n = 0, ch;
  bool previous_was_image_data = false;
  while (QM_bfr_read_char(&r, &ch) == 1) {
    if (ch != '\n') {
      if (n < static_cast<int>(sizeof line) - 1) line[n++] = static_cast<char>(ch);
      continue;
    }
    line[n] = '\0';
    n = 0;
    const char* p = line;
    const uintptr_t start = static_cast<uintptr_t>(qm::parse_hex(p));
    ++p;
    const uintptr_t end = static_cast<uintptr_t>(qm::parse_hex(p));
    ++p;
    const bool writable = p[1] == 'w', priv = p[3] == 'p';
    // The path follows the fourth run of spaces after the permissions.
    int field = 0;
    for (; *p != '\0' && field < 4; ++p)
      if (*p == ' ') {
        ++field;
        while (p[1] == ' ') ++p;
      }
    const bool anonymous = *p == '\0';
    const bool file = *p == '/';
    const bool heap = strcmp(p, "[heap]") == 0;
    if (writable && priv && (file || heap || (anonymous && previous_was_image_data))) out.add(start, end);
    previous_was_image_data = writable && priv && file;
  }
  QM_bfr_close(&r);
}

int add_agent_region(QM_MM_iterator_callbacks_t* cb) {
  auto* out = static_cast<Ranges*>(cb->arg);
  out->add(reinterpret_cast<uintptr_t>(cb->region.base), reinterpret_cast<uintptr_t>(cb->region.base) + cb->region.len,
           false);
  return 0;
}

int add_block(allocation_record_t* rec, int*, void* arg) {
  auto* out = static_cast<Ranges*>(arg);
  const uintptr_t a = reinterpret_cast<uintptr_t>(rec->addr);
  out->add(a, a + (rec->len > 0 ? rec->len : 1));
  return 0;
}

// The agent's own image whole, constants and code too: the root block's
// descriptors and names are then read from the file alone, without the
// library that wrote it.
extern "C" const ElfW(Ehdr) __ehdr_start __attribute__((visibility("hidden")));

void add_agent_image(Ranges& out) {
  const auto* eh = &__ehdr_start;
  const auto* ph = reinterpret_cast<const ElfW(Phdr)*>(reinterpret_cast<const char*>(eh) + eh->e_phoff);
  uintptr_t base = 0;
  bool first = true;
  for (int i = 0; i < eh->e_phnum; ++i) {
    if (ph[i].p_type != PT_LOAD) continue;
    if (first) base = reinterpret_cast<uintptr_t>(eh) - (ph[i].p_vaddr & ~(QM_getpagesize() - 1));
    first = false;
    out.add(base + ph[i].p_vaddr, base + ph[i].p_vaddr + ph[i].p_memsz);
  }
}

void add_images(Ranges& out) {
  add_agent_image(out);
  for (const link_map* m = _r_debug.r_map; m != nullptr; m = m->l_next) {
    out.add(reinterpret_cast<uintptr_t>(m), reinterpret_cast<uintptr_t>(m) + 1024);
    // Each image's dynamic section (read-only after relocation, so not
    // among the writable segments): the debugger finds the list of images
    // through the executable's.
    if (m->l_ld != nullptr) {
      const ElfW(Dyn)* d = m->l_ld;
      while (d->d_tag != DT_NULL) ++d;
      out.add(reinterpret_cast<uintptr_t>(m->l_ld), reinterpret_cast<uintptr_t>(d + 1));
    }
    if (m->l_name != nullptr)
      out.add(reinterpret_cast<uintptr_t>(m->l_name), reinterpret_cast<uintptr_t>(m->l_name) + strlen(m->l_name) + 1);
  }
  out.add(reinterpret_cast<uintptr_t>(&_r_debug), reinterpret_cast<uintptr_t>(&_r_debug) + sizeof _r_debug);
}

using qm::write_all;

// A range of memory, page by page; a page that cannot be read goes as zeros.
bool write_memory(int fd, uintptr_t start, uintptr_t end) {
  static constexpr char kZeros[4096] = {};
  const size_t page = QM_getpagesize();
  for (uintptr_t a = start; a < end;) {
    const size_t len = end - a;
    ssize_t n = write(fd, reinterpret_cast<const void*>(a), len);
    if (n > 0) {
      a += static_cast<uintptr_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EFAULT) return false;
    for (size_t done = 0; done < page && a < end; done += sizeof kZeros, a += sizeof kZeros)
      if (!write_all(fd, kZeros, sizeof kZeros < page ? sizeof kZeros : page)) return false;
  }
  return true;
}

size_t note_size(size_t desc) { return sizeof(Nhdr) + 8 + ((desc + 3) & ~size_t{3}); }

// A note of the given owner name ("CORE", or "QMHEAP" for the agent's own;
// seven characters at most).
bool write_note(int fd, int type, const void* desc, size_t len, const char* owner = "CORE") {
  Nhdr h = {};
  char name[8] = {};
  size_t n = 0;
  while (owner[n] != '\0' && n < 7) {
    name[n] = owner[n];
    ++n;
  }
  h.n_namesz = static_cast<decltype(h.n_namesz)>(n + 1);
  h.n_descsz = static_cast<decltype(h.n_descsz)>(len);
  h.n_type = static_cast<decltype(h.n_type)>(type);
  static constexpr char kPad[4] = {};
  return write_all(fd, &h, sizeof h) && write_all(fd, name, 8) && write_all(fd, desc, len) &&
         write_all(fd, kPad, ((len + 3) & ~size_t{3}) - len);
}

// The agent's note: the executable's path and the loaded images as the
// snapshot file lists them ("base^dynamic^name" lines), so that a reader can
// name the heap's stacks from the core file alone. Into out, or measured.
constexpr int kImagesNote = 1;
size_t images_text(char* out, size_t cap) {
  char line[4096 + 64];
  size_t n = 0;
  auto put = [&](int len) {
    if (out != nullptr && n + static_cast<size_t>(len) < cap) __builtin_memcpy(out + n, line, static_cast<size_t>(len));
    n += static_cast<size_t>(len);
  };
  __builtin_memcpy(line, "exe^", 4);
  int len = QM_getexepathname(line + 4, static_cast<int>(sizeof line) - 6) >= 0 ? 4 + static_cast<int>(strlen(line + 4)) : 4;
  line[len++] = '\n';
  put(len);
  for (const link_map* m = _r_debug.r_map; m != nullptr; m = m->l_next)
    put(QM_s_snprintf(line, sizeof line, "%#lx^%#lx^%s\n", static_cast<unsigned long>(m->l_addr),
                      reinterpret_cast<unsigned long>(m->l_ld), m->l_name != nullptr ? m->l_name : ""));
  if (out != nullptr && n < cap) out[n] = '\0';
  return n;
}

// The auxiliary vector, read whole.
size_t read_auxv(char* buf, size_t cap) {
  const int fd = static_cast<int>(syscall(SYS_open, "/proc/self/auxv", O_RDONLY));
  if (fd < 0) return 0;
  size_t n = 0;
  while (n < cap) {
    ssize_t r = read(fd, buf + n, cap - n);
    if (r <= 0) break;
    n += static_cast<size_t>(r);
  }
  close(fd);
  return n;
}

__attribute__((noinline)) int write_core(int fd) {
  Ranges ranges;
  add_mappings(ranges);
  add_images(ranges);
  QM_MM_iterator_callbacks_t cb = {};
  cb.arg = &ranges;
  cb.f = add_agent_region;
  // The walk holds the page manager's lock: the room is made first.
  ranges.reserve(static_cast<size_t>(QM_memory_manager_table.num_regions) + 16);
  QM_MM_iterate_regions(&cb);
  QM_HEAP_ht_alloc_read_lock();
  QM_HEAP_iterate_over_allocation_table(add_block, &ranges);
  QM_HEAP_ht_alloc_read_unlock();
  ranges.normalise();

  elf_prstatus status = {};
  status.pr_pid = static_cast<int>(syscall(SYS_gettid));
  status.pr_ppid = getppid();
  status.pr_pgrp = getpid();
  elf_prpsinfo info = {};
  info.pr_pid = getpid();
  info.pr_ppid = getppid();
  QM_getexebasename(info.pr_fname, sizeof info.pr_fname);
  QM_getexebasename(info.pr_psargs, sizeof info.pr_psargs);
  char auxv[4096];
  const size_t auxv_len = read_auxv(auxv, sizeof auxv);

  const size_t images_len = images_text(nullptr, 0);
  char* images = static_cast<char*>(QM_page_alloc(images_len + 1, mmt_hia_lwmdbg_buffer));
  if (images == nullptr) return -1;
  images_text(images, images_len + 1);
  struct Release {
    char* p;
    ~Release() { QM_page_dealloc(p); }
  } release{images};
  const size_t notes =
      note_size(sizeof status) + note_size(sizeof info) + note_size(auxv_len) + note_size(images_len);
  const size_t phnum = 1 + ranges.n;
  Ehdr eh = {};
  __builtin_memcpy(eh.e_ident, ELFMAG, SELFMAG);
  eh.e_ident[EI_CLASS] = kClass;
  eh.e_ident[EI_DATA] = ELFDATA2LSB;
  eh.e_ident[EI_VERSION] = EV_CURRENT;
  eh.e_ident[EI_OSABI] = ELFOSABI_NONE;
  eh.e_type = ET_CORE;
  eh.e_machine = kMachine;
  eh.e_version = EV_CURRENT;
  eh.e_phoff = sizeof(Ehdr);
  eh.e_ehsize = sizeof(Ehdr);
  eh.e_phentsize = sizeof(Phdr);
  eh.e_phnum = phnum < PN_XNUM ? static_cast<decltype(eh.e_phnum)>(phnum) : PN_XNUM;
  if (phnum >= PN_XNUM) return -1;  // more segments than the header can say (never met: pages are merged)
  if (!write_all(fd, &eh, sizeof eh)) return -1;

  size_t offset = sizeof(Ehdr) + phnum * sizeof(Phdr);
  Phdr note = {};
  note.p_type = PT_NOTE;
  note.p_offset = offset;
  note.p_filesz = notes;
  if (!write_all(fd, &note, sizeof note)) return -1;
  offset += notes;
  const size_t page = QM_getpagesize();
  offset = (offset + page - 1) & ~(page - 1);
  const size_t data_start = offset;
  for (size_t i = 0; i < ranges.n; ++i) {
    Phdr ph = {};
    ph.p_type = PT_LOAD;
    ph.p_offset = offset;
    ph.p_vaddr = ranges.r[i].start;
    ph.p_filesz = ph.p_memsz = ranges.r[i].end - ranges.r[i].start;
    ph.p_flags = PF_R | PF_W;
    ph.p_align = page;
    if (!write_all(fd, &ph, sizeof ph)) return -1;
    offset += ph.p_filesz;
  }
  if (!write_note(fd, NT_PRSTATUS, &status, sizeof status) || !write_note(fd, NT_PRPSINFO, &info, sizeof info) ||
      !write_note(fd, NT_AUXV, auxv, auxv_len) || !write_note(fd, kImagesNote, images, images_len, "QMHEAP"))
    return -1;
  if (lseek(fd, static_cast<off_t>(data_start), SEEK_SET) < 0) return -1;
  for (size_t i = 0; i < ranges.n; ++i)
    if (!write_memory(fd, ranges.r[i].start, ranges.r[i].end)) return -1;
  return 0;
}

int next_sequence(format_pathname_callbacks_t*) {
  return qm::next_in_sequence(&QM_HEAP_lwcore_sequence_mutex, &QM_HEAP_lwcore_sequence_number);
}

int mpi_rank(format_pathname_callbacks_t*) { return QM_HEAP_mpi_get_rank(); }

int generate(const char* fmt) {
  format_pathname_callbacks_t cb = {nullptr, next_sequence, mpi_rank};
  const int fd = qm::create_named_file(fmt, QM_HEAP_lwcore_get_pathname_specifier, &cb, "lwmem",
                                       "lightweight core file");
  if (fd < 0) return -1;
  if (write_core(fd) != 0) QM_HEAP_printf("lwmem: error writing the lightweight core file: %s\n", strerrordesc_np(errno));
  return close(fd);
}

}  // namespace

extern "C" {

QM_EXPORT int QM_HEAP_lwcore_generate_file(const char* fmt) { return generate(fmt); }
int QM_HEAP_lwcore_generate_file_event(const char* fmt, const QM_HEAP_event_info_t*) { return generate(fmt); }

int QM_HEAP_lwcore_initialize() { return 0; }

void QM_HEAP_lwcore_atfork_prepare() { qm::mutex_lock(&QM_HEAP_lwcore_sequence_mutex); }
void QM_HEAP_lwcore_atfork_parent() { qm::mutex_unlock(&QM_HEAP_lwcore_sequence_mutex); }
void QM_HEAP_lwcore_atfork_child() { qm::mutex_unlock(&QM_HEAP_lwcore_sequence_mutex); }

}  // extern "C"
