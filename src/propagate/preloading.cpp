#include "propagate/preloading.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "config/runtime_config.h"

extern "C" char** environ;

namespace {

constexpr const char kPreloadVar[] = "LD_PRELOAD";
constexpr int kPreloadVarLen = sizeof kPreloadVar - 1;
constexpr const char kName32[] = "libqmheap.so";
constexpr const char kName64[] = "libqmheap_64.so";
// Each model's list; the 64-bit one stores the 32-bit name after its own,
// uncounted.
constexpr const char* kLibs32[] = {kName32};
constexpr const char* kLibs64[] = {kName64, kName32};

bool is_separator(char c) { return c == ':' || c == ' '; }

// --- the registry of propagated variables ------------------------------------------

constexpr int kMaxRegistered = 32;
// Every variable the agent reads from its environment, registered from the
// start (sorted), so that a child gets them whatever the parent did first.
constinit const char* registered[kMaxRegistered] = {
    "QMHEAP_ARGS",      "QMHEAP_CONFIG_FILE",    "QMHEAP_DEEPBIND",
    "QMHEAP_MPI_RANK",  "QMHEAP_MPI_RANK_DISCOVERY_METHOD",
    "QMHEAP_NO_FAST_UNWIND", "QMSTACK_DONT_WANT_UNWIND_FIND_FDE_CACHE"};
constinit int num_registered = 7;

int compare(const char* a, const char* b, int len) {
  for (int i = 0; i < len; ++i) {
    const unsigned char x = static_cast<unsigned char>(a[i]), y = static_cast<unsigned char>(b[i]);
    if (x != y) return x < y ? -1 : 1;
    if (x == 0) return 0;
  }
  return 0;
}

int name_len(const char* entry) {
  int n = 0;
  while (entry[n] != '\0' && entry[n] != '=') ++n;
  return entry[n] == '=' ? n : -1;
}

const char* find_value(const char* name, int len, char* const* envp) {
  const int i = QM_env_find_index_of_definition(name, len, envp);
  return i < 0 ? nullptr : envp[i] + len + 1;
}

// Does the entry [s, s + n) of a preload value name the library? Its last
// path component must be the library's name.
bool entry_names(const char* s, int n, const char* lib) {
  const int len = static_cast<int>(strlen(lib));
  if (n < len || compare(s + n - len, lib, len) != 0) return false;
  return n == len || s[n - len - 1] == '/';
}

bool names_an_agent(const char* s, int n) { return entry_names(s, n, kName32) || entry_names(s, n, kName64); }

// The new "LD_PRELOAD=" entry into out (null: only measured): the new
// program's library with the agent's directory, then every entry of the old
// value (null: none) that names neither agent library, joined by ":".
// Returns its length without the NUL.
size_t write_preload(const qm::EnvironmentPlan& p, const char* old, char* out) {
  size_t n = 0;
  auto put = [&](const char* s, size_t len) {
    if (out != nullptr) memcpy(out + n, s, len);
    n += len;
  };
  put(kPreloadVar, kPreloadVarLen);
  put("=", 1);
  put(p.dir, static_cast<size_t>(p.dir_len));
  put(p.lib, strlen(p.lib));
  for (const char* s = old; s != nullptr && *s != '\0';) {
    while (is_separator(*s)) ++s;
    const char* e = s;
    while (*e != '\0' && !is_separator(*e)) ++e;
    if (e > s && !names_an_agent(s, static_cast<int>(e - s))) {
      put(":", 1);
      put(s, static_cast<size_t>(e - s));
    }
    s = e;
  }
  if (out != nullptr) out[n] = '\0';
  return n;
}

}  // namespace

extern "C" {

constinit volatile int QM_HEAP_execve_env_var_auto_propagate = 1;

int QM_HEAP_execve_env_var_get_auto_propagate() { return QM_HEAP_execve_env_var_auto_propagate; }
int QM_HEAP_execve_env_var_set_auto_propagate(int bool_val) {
  const int old = QM_HEAP_execve_env_var_auto_propagate;
  QM_HEAP_execve_env_var_auto_propagate = bool_val != 0;
  return old;
}

const char* QM_execve_get_default_search_path() { return ":/bin:/usr/bin"; }
const char* QM_execve_get_default_interpreter() { return "/bin/sh"; }

int QM_execve_env_var_register_for_propagation(const char* name) {
  if (num_registered == kMaxRegistered) return -1;
  // Insertion keeps the table sorted for the bisection.
  int i = num_registered;
  while (i > 0 && compare(registered[i - 1], name, 1 << 20) > 0) {
    registered[i] = registered[i - 1];
    --i;
  }
  registered[i] = name;
  ++num_registered;
  return 0;
}

int QM_execve_env_var_is_registered_for_propagation(const char* name, int len) {
  int lo = 0, hi = num_registered - 1;
  while (lo <= hi) {
    const int mid = (lo + hi) / 2;
    const int c = compare(registered[mid], name, len);
    if (c == 0) return 1;
    if (c < 0)
      lo = mid + 1;
    else
      hi = mid - 1;
  }
  return 0;
}

int QM_env_find_index_of_definition(const char* name, int len, char* const* envp) {
  for (int i = 0; envp != nullptr && envp[i] != nullptr; ++i)
    if (strncmp(envp[i], name, static_cast<size_t>(len)) == 0 && envp[i][len] == '=') return i;
  return -1;
}

program_model_e QM_pm_fd_get_program_model(int fd) {
  const off_t at = lseek(fd, 0, SEEK_CUR);
  unsigned char ident[5] = {};
  ssize_t n;
  do {
    n = pread(fd, ident, sizeof ident, 0);
  } while (n < 0 && errno == EINTR);
  if (at >= 0) lseek(fd, at, SEEK_SET);
  if (n != sizeof ident || ident[0] != 0x7f || ident[1] != 'E' || ident[2] != 'L' || ident[3] != 'F') return pm_unknown;
  return ident[4] == 1 ? pm_32bit : ident[4] == 2 ? pm_64bit : pm_unknown;
}

program_model_e QM_pm_self_get_program_model() {
#if defined(__x86_64__)
  return pm_64bit;
#else
  return pm_32bit;
#endif
}

int QM_preloading_is_pm_supported(program_model_e pm) { return pm == pm_32bit || pm == pm_64bit; }

int QM_execve_find_and_open_exe(const char* path) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -1;
  char line[4096 + 1];
  ssize_t n;
  do {
    n = pread(fd, line, sizeof line - 1, 0);
  } while (n < 0 && errno == EINTR);
  if (n < 2 || line[0] != '#' || line[1] != '!') return fd;
  close(fd);
  line[n] = '\0';
  char* s = line + 2;
  while (*s == ' ' || *s == '\t') ++s;
  char* e = s;
  while (*e != '\0' && *e != ' ' && *e != '\t' && *e != '\n' && *e != '\r') ++e;
  *e = '\0';
  return open(e > s ? s : QM_execve_get_default_interpreter(), O_RDONLY | O_CLOEXEC);
}

int QM_HEAP_preloading_get_hia_info(program_model_e pm, hia_preloading_info_t* info) {
  if (info == nullptr || !QM_preloading_is_pm_supported(pm)) return -1;
  info->libs = pm == pm_32bit ? kLibs32 : kLibs64;
  info->nlibs = 1;
  info->index_of_hia = 0;
  info->pm = pm;
  return 0;
}

int QM_HEAP_preloading_get_hia_info_for_exe(const char* path, hia_preloading_info_t* info) {
  if (info == nullptr) return -1;
  const int fd = QM_execve_find_and_open_exe(path);
  if (fd < 0) {
    info->pm = pm_unknown;
    return -1;
  }
  const program_model_e pm = QM_pm_fd_get_program_model(fd);
  close(fd);
  if (QM_HEAP_preloading_get_hia_info(pm, info) != 0) {
    info->pm = pm;
    return -1;
  }
  return 0;
}

const char* QM_HEAP_get_hia_name(program_model_e pm) {
  hia_preloading_info_t info;
  if (QM_HEAP_preloading_get_hia_info(pm, &info) != 0) return nullptr;
  return info.libs[info.index_of_hia];
}

const char* QM_HEAP_get_hia_name_self() { return QM_HEAP_get_hia_name(QM_pm_self_get_program_model()); }

// --- the environment at start-up ------------------------------------------------------

namespace {
constexpr int kRemembered = 40;
constinit char remembered_text[16384];
constinit char* remembered[kRemembered + 1] = {};

bool wanted(const char* entry, int n) {
  return (n == kPreloadVarLen && strncmp(entry, kPreloadVar, kPreloadVarLen) == 0) ||
         QM_execve_env_var_is_registered_for_propagation(entry, n);
}
}  // namespace

void QM_execve_remember_environment() {
  size_t used = 0;
  int k = 0;
  for (int i = 0; environ != nullptr && environ[i] != nullptr && k < kRemembered; ++i) {
    const int n = name_len(environ[i]);
    const size_t len = strlen(environ[i]) + 1;
    if (n <= 0 || !wanted(environ[i], n) || used + len > sizeof remembered_text) continue;
    memcpy(remembered_text + used, environ[i], len);
    remembered[k++] = remembered_text + used;
    used += len;
  }
  remembered[k] = nullptr;
}

}  // extern "C"

void qm::own_environment(char* const* now, char** out, int cap) {
  int k = 0;
  for (int i = 0; now != nullptr && now[i] != nullptr && k < cap - 1; ++i) {
    const int n = name_len(now[i]);
    if (n > 0 && wanted(now[i], n)) out[k++] = now[i];
  }
  for (int i = 0; remembered[i] != nullptr && k < cap - 1; ++i)
    if (QM_env_find_index_of_definition(remembered[i], name_len(remembered[i]), now) < 0) out[k++] = remembered[i];
  out[k] = nullptr;
}

void qm::plan_environment(char* const* own, char* const* envp, program_model_e new_pm, EnvironmentPlan* p) {
  *p = EnvironmentPlan{};
  p->own = own;
  p->envp = envp;
  while (envp != nullptr && envp[p->num_entries] != nullptr) ++p->num_entries;
  p->preload_index = QM_env_find_index_of_definition(kPreloadVar, kPreloadVarLen, envp);

  // Registered variables of our own that the new environment lacks.
  if (QM_HEAP_execve_env_var_auto_propagate)
    for (int i = 0; own != nullptr && own[i] != nullptr; ++i) {
      const int n = name_len(own[i]);
      if (n > 0 && QM_execve_env_var_is_registered_for_propagation(own[i], n) &&
          QM_env_find_index_of_definition(own[i], n, envp) < 0)
        ++p->num_propagated;
    }

  // The preload edit, when we came in through LD_PRELOAD and the new program
  // is of a model we have a library for.
  const char* self = QM_HEAP_get_hia_name_self();
  const char* mine = find_value(kPreloadVar, kPreloadVarLen, own);
  const char* lib = QM_HEAP_get_hia_name(new_pm);
  if (self != nullptr && mine != nullptr && lib != nullptr) {
    for (const char* s = mine; *s != '\0';) {
      while (is_separator(*s)) ++s;
      const char* e = s;
      while (*e != '\0' && !is_separator(*e)) ++e;
      if (e > s && entry_names(s, static_cast<int>(e - s), self)) {
        p->lib = lib;
        p->dir = s;
        p->dir_len = static_cast<int>(e - s) - static_cast<int>(strlen(self));
        break;
      }
      s = e;
    }
  }
  const char* old = p->preload_index >= 0 ? envp[p->preload_index] + kPreloadVarLen + 1 : nullptr;
  if (p->lib != nullptr) {
    p->preload_len = write_preload(*p, old, nullptr) + 1;
    // An entry that would come out as it is needs no new environment.
    if (old != nullptr && p->preload_len == strlen(envp[p->preload_index]) + 1) {
      char* probe = static_cast<char*>(__builtin_alloca(p->preload_len));
      write_preload(*p, old, probe);
      if (strcmp(probe, envp[p->preload_index]) == 0) {
        p->lib = nullptr;
        p->preload_len = 0;
      }
    }
  }
  if (p->lib == nullptr && p->num_propagated == 0) return;
  const int entries = p->num_entries + (p->lib != nullptr && p->preload_index < 0 ? 1 : 0) + p->num_propagated;
  p->size = static_cast<size_t>(entries + 1) * sizeof(char*) + p->preload_len;
}

char** qm::build_environment(const EnvironmentPlan& p, void* block) {
  char** env = static_cast<char**>(block);
  char* text = reinterpret_cast<char*>(block) + p.size - p.preload_len;
  int k = 0;
  for (int i = 0; i < p.num_entries; ++i) env[k++] = p.envp[i];
  if (p.lib != nullptr) {
    write_preload(p, p.preload_index >= 0 ? p.envp[p.preload_index] + kPreloadVarLen + 1 : nullptr, text);
    if (p.preload_index >= 0)
      env[p.preload_index] = text;
    else
      env[k++] = text;
  }
  if (p.num_propagated > 0)
    for (int i = 0; p.own[i] != nullptr; ++i) {
      const int n = name_len(p.own[i]);
      if (n > 0 && QM_execve_env_var_is_registered_for_propagation(p.own[i], n) &&
          QM_env_find_index_of_definition(p.own[i], n, p.envp) < 0)
        env[k++] = p.own[i];
    }
  env[k] = nullptr;
  return env;
}

program_model_e qm::program_model_of_command(const char* file) {
  if (file == nullptr || *file == '\0') return pm_unknown;
  hia_preloading_info_t info;
  if (strchr(file, '/') != nullptr) {
    QM_HEAP_preloading_get_hia_info_for_exe(file, &info);
    return info.pm;
  }
  // The search the C library's execvp makes: the process's PATH, else its
  // default; an empty element is the current directory.
  const char* path = QM_getenv("PATH");
  if (path == nullptr) path = "/bin:/usr/bin";
  const size_t flen = strlen(file);
  char buf[4096 + 256];
  for (const char* s = path;;) {
    const char* e = s;
    while (*e != '\0' && *e != ':') ++e;
    const size_t dlen = static_cast<size_t>(e - s);
    if (dlen + 1 + flen < sizeof buf) {
      memcpy(buf, s, dlen);
      size_t n = dlen;
      if (dlen > 0) buf[n++] = '/';
      memcpy(buf + n, file, flen + 1);
      if (QM_HEAP_preloading_get_hia_info_for_exe(buf, &info) == 0) return info.pm;
    }
    if (*e == '\0') break;
    s = e + 1;
  }
  return pm_unknown;
}
