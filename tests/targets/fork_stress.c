/* Threads allocate, resize and free in a loop while one of them forks every
 * few thousand operations; each child uses the heap from its only thread and
 * exits. Nothing may deadlock in parent or child.
 * Usage: fork_stress [threads] [operations per thread] [operations between forks] */
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static unsigned long ops_per_thread = 1000000;
static unsigned long fork_every = 5000;

static uint32_t rnd(uint32_t* s) {
  *s = *s * 1103515245u + 12345u;
  return *s >> 4;
}

static int child_work(void) {
  void* p[64] = {0};
  uint32_t s = (uint32_t)getpid();
  for (int i = 0; i < 2000; ++i) {
    int k = (int)(rnd(&s) % 64);
    free(p[k]);
    p[k] = (i & 1) ? malloc(1 + rnd(&s) % 300) : calloc(1, 1 + rnd(&s) % 300);
    if (p[k] == NULL) return 1;
  }
  for (int k = 0; k < 64; ++k) free(p[k]);
  return 0;
}

struct arg {
  int id;
  unsigned long forks;
  unsigned long failures;
};

static void* worker(void* v) {
  struct arg* a = v;
  void* slot[256] = {0};
  uint32_t s = 7u + (uint32_t)a->id;
  for (unsigned long i = 0; i < ops_per_thread; ++i) {
    unsigned k = rnd(&s) % 256;
    size_t n = 1 + rnd(&s) % 1024;
    switch (rnd(&s) % 4) {
      case 0: free(slot[k]); slot[k] = malloc(n); break;
      case 1: slot[k] = realloc(slot[k], n); break;
      case 2: free(slot[k]); slot[k] = NULL; break;
      default: {
        void* q = NULL;
        free(slot[k]);
        slot[k] = posix_memalign(&q, 64, n) == 0 ? q : NULL;
      }
    }
    if (slot[k] != NULL) memset(slot[k], 0xab, 8);
    if (a->id == 0 && fork_every != 0 && i % fork_every == fork_every - 1) {
      fflush(stdout);
      pid_t pid = fork();
      if (pid == 0) _exit(child_work());
      int status = 0;
      if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        ++a->failures;
      ++a->forks;
    }
  }
  for (unsigned k = 0; k < 256; ++k) free(slot[k]);
  return NULL;
}

int main(int argc, char** argv) {
  int nthreads = argc > 1 ? atoi(argv[1]) : 4;
  if (argc > 2) ops_per_thread = strtoul(argv[2], NULL, 10);
  if (argc > 3) fork_every = strtoul(argv[3], NULL, 10);
  if (nthreads < 1 || nthreads > 16) nthreads = 4;
  pthread_t t[16];
  struct arg a[16];
  for (int i = 0; i < nthreads; ++i) {
    a[i] = (struct arg){i, 0, 0};
    pthread_create(&t[i], NULL, worker, &a[i]);
  }
  for (int i = 0; i < nthreads; ++i) pthread_join(t[i], NULL);
  printf("fork_stress: %d threads, %lu operations each, %lu forks, %lu failed children\n", nthreads,
         ops_per_thread, a[0].forks, a[0].failures);
  return a[0].failures == 0 ? 0 : 1;
}
