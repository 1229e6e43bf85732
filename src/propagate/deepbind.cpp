// dlopen with RTLD_DEEPBIND: the library resolves its symbols in itself and
// its own dependencies first, so its malloc and free would be the C
// library's, not ours. Instead of the library we open a wrapper: a tiny ELF
// shared object whose only content is a dynamic section needing first the
// agent and then the library. In the wrapper's deep-bound scope the agent
// comes first, so the library's heap calls reach it.
#include "propagate/deepbind.h"

#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "base/assert.h"
#include "base/format.h"
#include "base/page.h"
#include "config/runtime_config.h"
#include "config/settings_parser.h"
#include "events/output.h"

extern "C" {
constinit deepbind_controls_t deepbind_controls = {};
}

namespace {

#if defined(__x86_64__)
using Ehdr = Elf64_Ehdr;
using Phdr = Elf64_Phdr;
using Shdr = Elf64_Shdr;
using Sym = Elf64_Sym;
using Dyn = Elf64_Dyn;
using Word = Elf64_Word;
constexpr unsigned char kClass = ELFCLASS64;
constexpr int kMachine = EM_X86_64;
constexpr size_t kAlign = 8;
#else
using Ehdr = Elf32_Ehdr;
using Phdr = Elf32_Phdr;
using Shdr = Elf32_Shdr;
using Sym = Elf32_Sym;
using Dyn = Elf32_Dyn;
using Word = Elf32_Word;
constexpr unsigned char kClass = ELFCLASS32;
constexpr int kMachine = EM_386;
constexpr size_t kAlign = 4;
#endif

// The header parts, written last at the start of the file.
struct headers_t {
  Ehdr ehdr;
  Phdr phdrs[3];
  Shdr shdrs[6];
};
constexpr size_t kDynstrOffset = sizeof(headers_t);  // 388 for the 32-bit form
#if defined(__i386__)
static_assert(kDynstrOffset == 388);
#endif

constexpr char kShstrtab[] = "\0.dynstr\0.shstrtab\0.dynamic\0.dynsym\0.hash";  // 42 bytes with the last NUL
static_assert(sizeof kShstrtab == 42);
enum { kNameDynstr = 1, kNameShstrtab = 9, kNameDynamic = 19, kNameDynsym = 28, kNameHash = 36 };

using qm::write_all;

// Zero bytes up to the next multiple of kAlign; the new offset, or 0 on failure.
size_t align_file_pointer(int fd, size_t at) {
  static constexpr char kZeros[8] = {};
  const size_t to = (at + kAlign - 1) & ~(kAlign - 1);
  return write_all(fd, kZeros, to - at) ? to : 0;
}

bool write_string(int fd, const char* s, size_t* at) {
  const size_t n = strlen(s) + 1;
  if (!write_all(fd, s, n)) return false;
  *at += n;
  return true;
}

// Writes the wrapper into the open file; false on a write failure.
bool write_wrapper(int fd, const char* target, const char** needed) {
  const size_t page = QM_getpagesize();
  if (lseek(fd, static_cast<off_t>(kDynstrOffset), SEEK_SET) != static_cast<off_t>(kDynstrOffset)) return false;
  // .dynstr: a NUL, then each needed name with its NUL.
  size_t at = kDynstrOffset;
  size_t name_offsets[64];
  int n = 0;
  if (!write_string(fd, "", &at)) return false;
  for (; needed[n] != nullptr && n < 63; ++n) {
    name_offsets[n] = at - kDynstrOffset;
    if (!write_string(fd, needed[n], &at)) return false;
  }
  name_offsets[n] = at - kDynstrOffset;
  if (!write_string(fd, target, &at)) return false;
  ++n;
  const size_t dynstr_size = at - kDynstrOffset;

  // .dynsym: one all-zero symbol; .hash: one bucket, one chain, both 0.
  const size_t dynsym = at = align_file_pointer(fd, at);
  const Sym sym = {};
  if (at == 0 || !write_all(fd, &sym, sizeof sym)) return false;
  at += sizeof sym;
  const size_t hash = at = align_file_pointer(fd, at);
  const Word hash_words[4] = {1, 1, 0, 0};
  if (at == 0 || !write_all(fd, hash_words, sizeof hash_words)) return false;
  at += sizeof hash_words;
  const size_t shstrtab = at = align_file_pointer(fd, at);
  if (at == 0 || !write_all(fd, kShstrtab, sizeof kShstrtab)) return false;
  at += sizeof kShstrtab;
  const size_t shstrtab_end = at;

  // .dynamic, in the page after the read-only part at the same page offset.
  const size_t dynamic = at = align_file_pointer(fd, at);
  if (at == 0) return false;
  const size_t dyn_addr = ((dynamic + page - 1) & ~(page - 1)) + dynamic % page;
  Dyn batch[6];
  for (int i = 0; i < n;) {
    int k = 0;
    for (; k < 6 && i < n; ++k, ++i) {
      batch[k].d_tag = DT_NEEDED;
      batch[k].d_un.d_val = name_offsets[i];
    }
    if (!write_all(fd, batch, k * sizeof(Dyn))) return false;
  }
  const Dyn mandatory[6] = {{DT_STRTAB, {kDynstrOffset}}, {DT_STRSZ, {dynstr_size}}, {DT_SYMTAB, {dynsym}},
                            {DT_SYMENT, {sizeof(Sym)}},   {DT_HASH, {hash}},          {DT_NULL, {0}}};
  if (!write_all(fd, mandatory, sizeof mandatory)) return false;
  const size_t dynamic_size = (static_cast<size_t>(n) + 6) * sizeof(Dyn);

  headers_t h = {};
  memcpy(h.ehdr.e_ident, ELFMAG, SELFMAG);
  h.ehdr.e_ident[EI_CLASS] = kClass;
  h.ehdr.e_ident[EI_DATA] = ELFDATA2LSB;
  h.ehdr.e_ident[EI_VERSION] = EV_CURRENT;
  h.ehdr.e_type = ET_DYN;
  h.ehdr.e_machine = kMachine;
  h.ehdr.e_version = EV_CURRENT;
  h.ehdr.e_phoff = offsetof(headers_t, phdrs);
  h.ehdr.e_shoff = offsetof(headers_t, shdrs);
  h.ehdr.e_ehsize = sizeof(Ehdr);
  h.ehdr.e_phentsize = sizeof(Phdr);
  h.ehdr.e_phnum = 3;
  h.ehdr.e_shentsize = sizeof(Shdr);
  h.ehdr.e_shnum = 6;
  h.ehdr.e_shstrndx = 2;

  h.phdrs[0] = Phdr{};
  h.phdrs[0].p_type = PT_LOAD;
  h.phdrs[0].p_filesz = h.phdrs[0].p_memsz = shstrtab_end;
  h.phdrs[0].p_flags = PF_R;
  h.phdrs[0].p_align = page;
  h.phdrs[1].p_type = PT_LOAD;
  h.phdrs[1].p_offset = dynamic;
  h.phdrs[1].p_vaddr = dyn_addr;
  h.phdrs[1].p_filesz = h.phdrs[1].p_memsz = dynamic_size;
  h.phdrs[1].p_flags = PF_R | PF_W;
  h.phdrs[1].p_align = page;
  h.phdrs[2] = h.phdrs[1];
  h.phdrs[2].p_type = PT_DYNAMIC;
  h.phdrs[2].p_paddr = dyn_addr;
  h.phdrs[2].p_align = 4;

  auto section = [&](int i, Word name, Word type, size_t flags, size_t addr, size_t offset, size_t size, Word link,
                     Word info, size_t align, size_t entsize) {
    h.shdrs[i].sh_name = name;
    h.shdrs[i].sh_type = type;
    h.shdrs[i].sh_flags = flags;
    h.shdrs[i].sh_addr = addr;
    h.shdrs[i].sh_offset = offset;
    h.shdrs[i].sh_size = size;
    h.shdrs[i].sh_link = link;
    h.shdrs[i].sh_info = info;
    h.shdrs[i].sh_addralign = align;
    h.shdrs[i].sh_entsize = entsize;
  };
  section(1, kNameDynstr, SHT_STRTAB, SHF_ALLOC, kDynstrOffset, kDynstrOffset, dynstr_size, 0, 0, 1, 0);
  section(2, kNameShstrtab, SHT_STRTAB, 0, 0, shstrtab, sizeof kShstrtab, 0, 0, 1, 0);
  section(3, kNameDynamic, SHT_DYNAMIC, SHF_WRITE | SHF_ALLOC, dyn_addr, dynamic, dynamic_size, 1, 0, kAlign,
          sizeof(Dyn));
  section(4, kNameDynsym, SHT_DYNSYM, SHF_ALLOC, dynsym, dynsym, sizeof(Sym), 1, 1, kAlign, sizeof(Sym));
  section(5, kNameHash, SHT_HASH, SHF_ALLOC, hash, hash, sizeof hash_words, 4, 0, kAlign, sizeof(Word));

  return lseek(fd, 0, SEEK_SET) == 0 && write_all(fd, &h, sizeof h);
}

// --- controls --------------------------------------------------------------------------

constinit int controls_read = 0;
constexpr int kTmpdirMax = sizeof deepbind_controls.tmpdir - 1;
constinit char settings_copy[kTmpdirMax + 256];
constinit char setting[kTmpdirMax + 256];

void apply(const char* s) {
  if (*QM_settings_skip_whitespace(s) == '\0') return;
  const char* name;
  int len;
  const char* rhs;
  if (QM_settings_get_setting_name_and_consume_equals(s, &name, &len, &rhs) != 0) {
    QM_s_printf(QM_stderr, "QMHEAP_DEEPBIND: syntax error in setting: %s\n", s);
    return;
  }
  int err = 0, v = 0;
  const char* value;
  int value_len;
  if (QM_settings_matches_true_false_setting("pass_through", name, len, &rhs, &err, &v)) {
    if (err == 0) deepbind_controls.pass_through = v;
  } else if (QM_settings_matches_true_false_setting("verbose", name, len, &rhs, &err, &v)) {
    if (err == 0) deepbind_controls.verbose = v;
  } else if (QM_settings_matches_true_false_setting("keep_wrapper", name, len, &rhs, &err, &v)) {
    if (err == 0) deepbind_controls.keep_wrapper = v;
  } else if (QM_settings_matches_string_val_setting("tmpdir", name, len, &rhs, &err, &value, &value_len)) {
    if (err == 0 && value_len > kTmpdirMax) {
      QM_s_printf(QM_stderr, "QMHEAP_DEEPBIND: %.*s: WARNING value of tmpdir is too long --- ignoring", len, name);
    } else if (err == 0) {
      memcpy(deepbind_controls.tmpdir, value, static_cast<size_t>(value_len));
      deepbind_controls.tmpdir[value_len] = '\0';
    }
  } else {
    QM_s_printf(QM_stderr, "QMHEAP_DEEPBIND: unrecognized setting: %.*s\n", len, name);
    return;
  }
  if (err == 0 && *QM_settings_skip_whitespace(rhs) != '\0')
    QM_s_printf(QM_stderr, "QMHEAP_DEEPBIND: %.*s: WARNING ignoring unexpected characters found following value.\n",
                len, name);
}

void read_controls() {
  const char* env = QM_getenv("QMHEAP_DEEPBIND");
  if (env != nullptr) {
    const size_t n = strlen(env);
    if (n < sizeof settings_copy) {
      memcpy(settings_copy, env, n + 1);
      QM_settings_parse_handle_string_t handle;
      QM_assert(QM_settings_parse_handle_string_init(&handle, settings_copy) == 0,
                "%s.%d: error initializing string settings parse handle\n", __FILE__, __LINE__);
      const QM_settings_parse_ops_t* ops = QM_settings_parse_ops_string;
      QM_assert(ops != nullptr, "%s.%d: QM_settings_parse_ops_string unexpectedly NULL\n", __FILE__, __LINE__);
      while (!ops->eof(ops, &handle)) {
        char* before = handle.pos;
        if (ops->get_setting(ops, &handle, setting, sizeof setting) != 0) {
          if (handle.pos == before) break;
          continue;
        }
        apply(setting);
      }
    }
  }
  char* dir = deepbind_controls.tmpdir;
  if (dir[0] == '\0') {
    const char* t = QM_getenv("TMPDIR");
    if (t != nullptr && t[0] != '\0') {
      if (strlen(t) > static_cast<size_t>(kTmpdirMax))
        QM_s_printf(QM_stderr, "QMHEAP_DEEPBIND: TMPDIR is too long\n");
      else
        memcpy(dir, t, strlen(t) + 1);
    } else {
      memcpy(dir, "/tmp/", 6);
    }
  }
  const size_t len = strlen(dir);
  if (len > 0 && dir[len - 1] != '/') {
    if (len < static_cast<size_t>(kTmpdirMax)) {
      dir[len] = '/';
      dir[len + 1] = '\0';
    } else {
      QM_s_printf(QM_stderr, "QMHEAP_DEEPBIND: not enough space to ensure tmpdir control ends with /\n");
    }
  }
}

const char* last_component(const char* path) {
  const char* s = path;
  for (const char* p = path; *p != '\0'; ++p)
    if (*p == '/') s = p + 1;
  return s;
}

}  // namespace

extern "C" {

int QM_HEAP_deepbind_elf_construct_wrapper(char* tmpl, const char* target, const char** needed) {
  QM_getpagesize();
  const int fd = mkstemp(tmpl);
  if (fd < 0) return -1;
  const bool ok = write_wrapper(fd, target, needed);
  const int saved = errno;
  close(fd);
  if (!ok) {
    unlink(tmpl);
    errno = saved;
    return -1;
  }
  return 0;
}

void* QM_HEAP_dlopen_deepbind(const char* filename, int flags, void* (*real)(const char*, int)) {
  // The controls are read on the first deep bind, without a lock: a race
  // reads the same environment twice.
  if (!__atomic_load_n(&controls_read, __ATOMIC_ACQUIRE)) {
    read_controls();
    __atomic_store_n(&controls_read, 1, __ATOMIC_RELEASE);
  }
  const bool report = deepbind_controls.verbose || QM_HEAP_get_verbosity() >= 2;
  if (report) QM_HEAP_printf("DEEPBIND (or equivalent) specified for dlopen ( %s )\n", filename);
  if (deepbind_controls.pass_through) {
    if (report)
      QM_HEAP_printf("DEEPBIND (or equivalent) passing operation through unmodified, and not generating a wrapper\n");
    return real(filename, flags);
  }
  Dl_info info;
  if (dladdr(reinterpret_cast<void*>(&QM_HEAP_dlopen_deepbind), &info) == 0 || info.dli_fname == nullptr)
    return real(filename, flags);
  char wrapper[sizeof deepbind_controls.tmpdir];
  if (QM_s_snprintf(wrapper, sizeof wrapper, "%sqm_elfwrapper_%s_XXXXXX", deepbind_controls.tmpdir,
                    last_component(filename)) >= static_cast<int>(sizeof wrapper)) {
    QM_HEAP_printf("DEEPBIND (or equivalent) error generating wrapper %s\n", wrapper);
    return real(filename, flags);
  }
  const char* needed[] = {info.dli_fname, nullptr};
  if (QM_HEAP_deepbind_elf_construct_wrapper(wrapper, filename, needed) != 0) {
    // Said whatever the verbosity: without the wrapper the library's heap
    // calls bypass the agent, and its blocks will look foreign.
    QM_HEAP_printf("DEEPBIND (or equivalent) error generating wrapper %s: %s; opening %s without it\n", wrapper,
                   strerrordesc_np(errno), filename);
    return real(filename, flags);
  }
  if (report) QM_HEAP_printf("DEEPBIND (or equivalent) successfully generated wrapper %s\n", wrapper);
  void* handle = real(wrapper, flags);
  if (!deepbind_controls.keep_wrapper) unlink(wrapper);
  return handle;
}

}  // extern "C"
