/* Starts a program in one of the ways a process can:
 *   spawn METHOD PROG ARGS...   METHOD is execve, execle, execv, execvp,
 *                               execvpe, execlp, fexecve, posix_spawn,
 *                               posix_spawnp or system (PROG then the command);
 *                               the explicit-environment ways pass "A=1" alone
 *   spawn errors DIR            every failure, as "case: result errno" lines */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;
static char* explicit_env[] = {"A=1", NULL};

static int wait_for(pid_t pid) {
  int status;
  if (waitpid(pid, &status, 0) != pid) return 126;
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

static void report(const char* what, int r) {
  printf("%s: %d %s\n", what, r, r == -1 ? strerrorname_np(errno) : "-");
  fflush(stdout);
}

/* Each call in a child of its own, so that a success does not end the list. */
#define TRY(what, call)           \
  do {                            \
    fflush(stdout);               \
    pid_t p_ = fork();            \
    if (p_ == 0) {                \
      int r_ = (call);            \
      report(what, r_);           \
      _exit(0);                   \
    }                             \
    wait_for(p_);                 \
  } while (0)

static int errors(const char* dir) {
  char text[4096], plain[4096], noexec[4096], path[4096];
  snprintf(text, sizeof text, "%s/text", dir);     /* executable, neither ELF nor "#!" */
  snprintf(plain, sizeof plain, "%s/plain", dir);  /* not executable */
  snprintf(noexec, sizeof noexec, "%s/bin", dir);  /* a directory holding "plain" and "text" */
  char* argv[] = {"x", NULL};
  TRY("execve missing", execve("/nonexistent/prog", argv, environ));
  TRY("execve empty", execve("", argv, environ));
  TRY("execve directory", execve(dir, argv, environ));
  TRY("execve not executable", execve(plain, argv, environ));
  TRY("execve text", execve(text, argv, explicit_env));
  TRY("execv missing", execv("/nonexistent/prog", argv));
  setenv("PATH", "/nonexistent", 1);
  TRY("execvp missing", execvp("prog-that-is-not-there", argv));
  snprintf(path, sizeof path, "/nonexistent::%s", noexec);
  setenv("PATH", path, 1);
  TRY("execvp not executable", execvp("plain", argv));
  TRY("execvp text runs as a script", execvp("text", argv));
  TRY("execlp empty", execlp("", "x", (char*)NULL));
  TRY("execvpe missing", execvpe("prog-that-is-not-there", argv, explicit_env));
  pid_t pid;
  int r = posix_spawn(&pid, "/nonexistent/prog", NULL, NULL, argv, environ);
  printf("posix_spawn missing: %s\n", r == 0 ? "started" : strerrorname_np(r));
  r = posix_spawnp(&pid, "prog-that-is-not-there", NULL, NULL, argv, explicit_env);
  printf("posix_spawnp missing: %s\n", r == 0 ? "started" : strerrorname_np(r));
  setenv("PATH", "/usr/bin:/bin", 1);
  r = system("exit 3");
  printf("system exit 3: %d\n", WIFEXITED(r) ? WEXITSTATUS(r) : -1);
  printf("system null: %d\n", system(NULL));
  return 0;
}

int main(int argc, char** argv) {
  if (argc >= 3 && strcmp(argv[1], "errors") == 0) return errors(argv[2]);
  if (argc < 3) {
    fprintf(stderr, "usage: spawn METHOD PROG ARGS... | errors DIR\n");
    return 2;
  }
  const char* m = argv[1];
  char** args = argv + 2;
  fflush(stdout);
  if (strcmp(m, "execve") == 0) execve(args[0], args, explicit_env);
  else if (strcmp(m, "execle") == 0) execle(args[0], args[0], (char*)NULL, explicit_env);
  else if (strcmp(m, "execv") == 0) execv(args[0], args);
  else if (strcmp(m, "execvp") == 0) execvp(args[0], args);
  else if (strcmp(m, "execvpe") == 0) execvpe(args[0], args, explicit_env);
  else if (strcmp(m, "execlp") == 0) execlp(args[0], args[0], (char*)NULL);
  else if (strcmp(m, "fexecve") == 0) {
    int fd = open(args[0], O_RDONLY | O_CLOEXEC);
    fexecve(fd, args, explicit_env);
  } else if (strcmp(m, "posix_spawn") == 0 || strcmp(m, "posix_spawnp") == 0) {
    pid_t pid;
    int r = m[11] == 'p' ? posix_spawnp(&pid, args[0], NULL, NULL, args, explicit_env)
                         : posix_spawn(&pid, args[0], NULL, NULL, args, explicit_env);
    if (r != 0) {
      printf("%s: %s\n", m, strerror(r));
      return 1;
    }
    return wait_for(pid);
  } else if (strcmp(m, "system") == 0) {
    int r = system(args[0]);
    return WIFEXITED(r) ? WEXITSTATUS(r) : 1;
  }
  printf("%s: %s\n", m, strerror(errno));
  return 1;
}
