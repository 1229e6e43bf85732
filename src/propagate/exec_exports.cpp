// The exported ways to start a program (the exec family, system,
// posix_spawn) and dlopen. Each hands the C library's own function the
// environment the new program should get: the agent library for its word
// size first in LD_PRELOAD, and the agent's variables it lacks. The C
// library then does the rest (path search, scripts, errors) exactly as
// without the agent.
//
// May run in a child of vfork: the new environment is built on the stack, or
// in pages mapped for the call and unmapped if it returns; no heap, no lock.
#include <dlfcn.h>
#include <errno.h>
#include <spawn.h>
#include <stdarg.h>
#include <unistd.h>

#include "base/export.h"
#include "base/page.h"
#include "core/binding.h"
#include "propagate/deepbind.h"
#include "propagate/preloading.h"

extern "C" char** environ;

namespace {

template <class Fn>
Fn bind(Fn* cache, const char* name) {
  Fn f = __atomic_load_n(cache, __ATOMIC_ACQUIRE);
  if (f == nullptr) {
    f = reinterpret_cast<Fn>(QM_IA_dlsym(RTLD_NEXT, name));
    __atomic_store_n(cache, f, __ATOMIC_RELEASE);
  }
  return f;
}

using execve_fn = int (*)(const char*, char* const[], char* const[]);
using fexecve_fn = int (*)(int, char* const[], char* const[]);
using spawn_fn = int (*)(pid_t*, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*,
                         char* const[], char* const[]);
using system_fn = int (*)(const char*);
using dlopen_fn = void* (*)(const char*, int);

constinit execve_fn real_execve = nullptr;
constinit execve_fn real_execvpe = nullptr;
constinit fexecve_fn real_fexecve = nullptr;
constinit spawn_fn real_posix_spawn = nullptr;
constinit spawn_fn real_posix_spawnp = nullptr;
constinit system_fn real_system = nullptr;
constinit dlopen_fn real_dlopen = nullptr;

constexpr size_t kStackEnvironment = 16384;

// Calls start with the environment the new program should get in place of
// envp, and returns its result with errno as it left it.
template <class Start>
int with_environment(char* const* envp, program_model_e pm, Start start) {
  char* own[96];
  qm::own_environment(environ, own, 96);
  qm::EnvironmentPlan plan;
  qm::plan_environment(own, envp, pm, &plan);
  if (plan.size == 0) return start(envp);
  if (plan.size <= kStackEnvironment) return start(qm::build_environment(plan, __builtin_alloca(plan.size)));
  const size_t len = QM_pagesize_ceil(plan.size);
  void* block = QM_mmap_anon(len);
  if (block == nullptr) return start(envp);
  const int r = start(qm::build_environment(plan, block));
  const int saved = errno;
  QM_munmap(block, len);
  errno = saved;
  return r;
}

program_model_e model_of_file(const char* path) {
  hia_preloading_info_t info;
  const int saved = errno;
  QM_HEAP_preloading_get_hia_info_for_exe(path, &info);
  errno = saved;
  return info.pm;
}

program_model_e model_of_command(const char* file) {
  const int saved = errno;
  const program_model_e pm = qm::program_model_of_command(file);
  errno = saved;
  return pm;
}

// The arguments of execl and its kin, up to the null that ends them, as a
// vector on the caller's stack; *after is left at what follows the null.
#define QM_GATHER_ARGS(arg, argv, ap)                                     \
  va_list ap;                                                             \
  va_start(ap, arg);                                                      \
  int argc_ = 1;                                                          \
  while (va_arg(ap, char*) != nullptr) ++argc_;                           \
  va_end(ap);                                                             \
  char** argv = static_cast<char**>(__builtin_alloca((argc_ + 1) * sizeof(char*))); \
  va_start(ap, arg);                                                      \
  argv[0] = const_cast<char*>(arg);                                       \
  for (int i_ = 1; i_ <= argc_; ++i_) argv[i_] = va_arg(ap, char*);

}  // namespace

extern "C" {

int QM_HEAP_execve_interposer(const char* path, char* const argv[], char* const envp[]) {
  execve_fn real = bind(&real_execve, "execve");
  return with_environment(envp, model_of_file(path), [&](char* const* env) { return real(path, argv, env); });
}

QM_EXPORT int execve(const char* path, char* const argv[], char* const envp[]) {
  return QM_HEAP_execve_interposer(path, argv, envp);
}

QM_EXPORT int execv(const char* path, char* const argv[]) { return QM_HEAP_execve_interposer(path, argv, environ); }

QM_EXPORT int execvpe(const char* file, char* const argv[], char* const envp[]) {
  execve_fn real = bind(&real_execvpe, "execvpe");
  return with_environment(envp, model_of_command(file), [&](char* const* env) { return real(file, argv, env); });
}

QM_EXPORT int execvp(const char* file, char* const argv[]) { return execvpe(file, argv, environ); }

QM_EXPORT int execl(const char* path, const char* arg, ...) {
  QM_GATHER_ARGS(arg, argv, ap);
  va_end(ap);
  return QM_HEAP_execve_interposer(path, argv, environ);
}

QM_EXPORT int execle(const char* path, const char* arg, ...) {
  QM_GATHER_ARGS(arg, argv, ap);
  char* const* envp = va_arg(ap, char* const*);
  va_end(ap);
  return QM_HEAP_execve_interposer(path, argv, envp);
}

QM_EXPORT int execlp(const char* file, const char* arg, ...) {
  QM_GATHER_ARGS(arg, argv, ap);
  va_end(ap);
  return execvpe(file, argv, environ);
}

QM_EXPORT int fexecve(int fd, char* const argv[], char* const envp[]) {
  fexecve_fn real = bind(&real_fexecve, "fexecve");
  const int saved = errno;
  const program_model_e pm = QM_pm_fd_get_program_model(fd);
  errno = saved;
  return with_environment(envp, pm, [&](char* const* env) { return real(fd, argv, env); });
}

// posix_spawn runs the new program without the exported execve.
QM_EXPORT int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions,
                          const posix_spawnattr_t* attr, char* const argv[], char* const envp[]) {
  spawn_fn real = bind(&real_posix_spawn, "posix_spawn");
  return with_environment(envp, model_of_file(path),
                          [&](char* const* env) { return real(pid, path, actions, attr, argv, env); });
}

QM_EXPORT int posix_spawnp(pid_t* pid, const char* file, const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attr, char* const argv[], char* const envp[]) {
  spawn_fn real = bind(&real_posix_spawnp, "posix_spawnp");
  return with_environment(envp, model_of_command(file),
                          [&](char* const* env) { return real(pid, file, actions, attr, argv, env); });
}

// The C library's system starts the shell with the process's own
// environment, by a path we cannot reach; when the shell needs another
// preload, the process's environment is that one for the call.
QM_EXPORT int system(const char* command) {
  system_fn real = bind(&real_system, "system");
  if (command == nullptr) return real(command);
  return with_environment(environ, model_of_file(QM_execve_get_default_interpreter()), [&](char* const* env) {
    if (env == environ) return real(command);
    char** saved = environ;
    environ = const_cast<char**>(env);
    const int r = real(command);
    environ = saved;
    return r;
  });
}

// A plain dlopen is a tail call, so that the C library takes the program,
// not the agent, as the caller (whose search path and namespace apply).
QM_EXPORT void* dlopen(const char* filename, int flags) {
  dlopen_fn real = bind(&real_dlopen, "dlopen");
  if (filename != nullptr && (flags & RTLD_DEEPBIND) != 0) return QM_HEAP_dlopen_deepbind(filename, flags, real);
  return real(filename, flags);
}

}  // extern "C"
