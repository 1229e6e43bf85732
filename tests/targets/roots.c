/* Correct programs that keep blocks where a search for pointers easily
 * misses them; nothing here is lost.
 *
 *   roots memory    pointers in a shared anonymous page and in a page made
 *                   read-only once filled; a mapped file that has since
 *                   shrunk to nothing (reading it would fault)
 *   roots altstack  pointers in static data beside an alternate signal
 *                   stack, and a scan on demand (signal 10, with the
 *                   program's own SA_ONSTACK handler) that runs on it */
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

static struct {
  void* volatile ptrs[512];
  char stack[65536];
} S;

static void on_usr1(int sig) { (void)sig; }

int main(int argc, char** argv) {
  const char* mode = argc > 1 ? argv[1] : "memory";
  if (strcmp(mode, "memory") == 0) {
    void** shared = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    void** sealed = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    for (int i = 0; i < 8; ++i) shared[i] = malloc(24);
    for (int i = 0; i < 8; ++i) sealed[i] = malloc(40);
    mprotect(sealed, 4096, PROT_READ);
    char path[] = "/tmp/qmheap-roots-XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0 || ftruncate(fd, 8192) != 0) return 2;
    void* file = mmap(NULL, 8192, PROT_READ, MAP_SHARED, fd, 0);
    if (file == MAP_FAILED || ftruncate(fd, 0) != 0) return 2;
    unlink(path);
  } else {
    stack_t ss = {.ss_sp = S.stack, .ss_size = sizeof S.stack};
    sigaltstack(&ss, NULL);
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_usr1;
    sa.sa_flags = SA_ONSTACK;
    sigaction(SIGUSR1, &sa, NULL);
    for (int i = 0; i < 100; ++i) S.ptrs[i] = malloc(100);
    raise(SIGUSR1);
  }
  printf("roots: %s done\n", mode);
  return 0;
}
