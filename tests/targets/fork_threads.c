/* Forks from two threads while three threads allocate, resize and free
 * without pause: the main thread and worker 0 fork 40 times each (worker 0
 * churns between its forks). Fork handlers allocate and free in prepare,
 * parent and child: the program's own, registered in main (after the
 * agent's), and libqmforkhandlers', registered before the agent's. Before
 * each fork the forking thread allocates eight blocks; the child checks
 * them, frees seven, resizes the eighth, works the heap a little and leaves
 * with _exit, after two threads of its own have allocated blocks that it
 * frees; the parent frees its copies and waits for the child. All
 * threads share one arena and most blocks are too large for the C library's
 * per-thread cache, so a child's allocations reuse the blocks the other
 * threads were releasing when it was forked. Nothing may hang (alarm: the
 * program then says what it was doing), no child may fail, and no event may
 * be raised in parent or child.
 * Usage: fork_threads [forks per forking thread] [alarm seconds] [child threads: 1 or 0] */
#include <malloc.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#define WORKERS 3
#define PRE 8

int fork_handlers_registered_early(void);

static int forks_per_thread = 40;
static const char* volatile phase = "starting";

static void no_progress(int sig) {
  (void)sig;
  const char* p = phase;
  write(2, "fork_threads: stopped by alarm while ", 37);
  write(2, p, strlen(p));
  write(2, "\n", 1);
  _exit(124);
}
static atomic_int stop;
static atomic_int failed_children;
static atomic_int forks_done;

/* The handlers run in the forking thread; two threads may fork at once. */
static __thread void* prepared;

static void prepare(void) {
  void* scratch = malloc(300);
  prepared = malloc(100);
  if (prepared != NULL) memset(prepared, 'p', 100);
  free(scratch);
}

static void parent(void) {
  free(prepared);
  prepared = NULL;
  free(malloc(50));
}

static void child(void) {
  char* q = malloc(70);
  if (prepared == NULL || ((char*)prepared)[99] != 'p' || q == NULL) _exit(10);
  free(prepared);
  prepared = NULL;
  free(q);
}

static uint32_t rnd(uint32_t* s) {
  *s = *s * 1103515245u + 12345u;
  return *s >> 4;
}

/* A thread of the child: the C library gives it the stack, and so the
 * thread handle, of one of the parent's threads that were inside heap calls
 * when the child was forked. It hands its blocks to the child's main thread,
 * which frees them. */
#define CHILD_BLOCKS 64
static void* child_thread(void* arg) {
  void** out = arg;
  for (int i = 0; i < 200; ++i) free(malloc(1 + (size_t)i % 300));
  for (int i = 0; i < CHILD_BLOCKS; ++i)
    if ((out[i] = malloc(16 + (size_t)i)) == NULL) return (void*)1;
  return NULL;
}

static int with_child_threads = 1;

static int child_threads(void) {
  if (!with_child_threads) return 0;
  static void* blocks[2][CHILD_BLOCKS];
  pthread_t t[2];
  for (int i = 0; i < 2; ++i)
    if (pthread_create(&t[i], NULL, child_thread, blocks[i]) != 0) return 16;
  for (int i = 0; i < 2; ++i) {
    void* r;
    if (pthread_join(t[i], &r) != 0 || r != NULL) return 17;
  }
  for (int i = 0; i < 2; ++i)
    for (int j = 0; j < CHILD_BLOCKS; ++j) free(blocks[i][j]);
  return 0;
}

static int child_work(unsigned char* pre[PRE], const size_t len[PRE]) {
  for (int i = 0; i < PRE; ++i)
    for (size_t j = 0; j < len[i]; ++j)
      if (pre[i][j] != (unsigned char)(i + 1)) return 11;
  for (int i = 0; i < PRE - 1; ++i) free(pre[i]);
  unsigned char* r = realloc(pre[PRE - 1], 5000);
  if (r == NULL) return 12;
  for (size_t j = 0; j < len[PRE - 1]; ++j)
    if (r[j] != PRE) return 13;
  void* p[32] = {0};
  uint32_t s = (uint32_t)getpid();
  for (int i = 0; i < 1000; ++i) {
    int k = (int)(rnd(&s) % 32);
    size_t n = 1 + rnd(&s) % 4000;
    if (i % 4 == 0) {
      void* q = realloc(p[k], n);
      if (q == NULL) return 14;
      p[k] = q;
    } else {
      free(p[k]);
      p[k] = malloc(n);
      if (p[k] == NULL) return 15;
    }
    memset(p[k], 1, n);
  }
  for (int k = 0; k < 32; ++k) free(p[k]);
  free(r);
  return child_threads();
}

static void fork_once(uint32_t* s) {
  unsigned char* pre[PRE];
  size_t len[PRE];
  for (int i = 0; i < PRE; ++i) {
    len[i] = 1 + rnd(s) % 3000;
    pre[i] = malloc(len[i]);
    if (pre[i] == NULL) {
      ++failed_children;
      return;
    }
    memset(pre[i], i + 1, len[i]);
  }
  pid_t pid = fork();
  if (pid == 0) {
    phase = "in a child";
    signal(SIGALRM, no_progress);
    alarm(60);
    _exit(child_work(pre, len));
  }
  for (int i = 0; i < PRE; ++i) free(pre[i]);
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    fprintf(stderr, "fork_threads: child %s %d\n", WIFSIGNALED(status) ? "signal" : "status",
            WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    ++failed_children;
  }
  ++forks_done;
}

static void* worker(void* arg) {
  int id = (int)(intptr_t)arg;
  void* slot[128] = {0};
  uint32_t s = 13u + (uint32_t)id;
  int forks = 0;
  for (unsigned long i = 0; !stop; ++i) {
    unsigned k = rnd(&s) % 128;
    size_t n = 1 + rnd(&s) % 4000;
    switch (rnd(&s) % 3) {
      case 0: free(slot[k]); slot[k] = malloc(n); break;
      case 1: {
        void* q = realloc(slot[k], n);
        if (q != NULL) slot[k] = q;
        break;
      }
      default: free(slot[k]); slot[k] = NULL;
    }
    if (slot[k] != NULL) memset(slot[k], 0x77, 8);
    if (id == 0 && forks < forks_per_thread && i % 500 == 499) {
      fork_once(&s);
      ++forks;
    }
  }
  for (unsigned k = 0; k < 128; ++k) free(slot[k]);
  return NULL;
}

int main(int argc, char** argv) {
  if (argc > 1) forks_per_thread = atoi(argv[1]);
  signal(SIGALRM, no_progress);
  alarm(argc > 2 ? (unsigned)atoi(argv[2]) : 120);
  if (argc > 3) with_child_threads = atoi(argv[3]);
  setvbuf(stdout, NULL, _IONBF, 0);
  mallopt(M_ARENA_MAX, 1);
  if (!fork_handlers_registered_early()) return 2;
  pthread_atfork(prepare, parent, child);
  phase = "forking";
  pthread_t t[WORKERS];
  for (int i = 0; i < WORKERS; ++i) pthread_create(&t[i], NULL, worker, (void*)(intptr_t)i);
  uint32_t s = 5u;
  for (int i = 0; i < forks_per_thread; ++i) {
    void* busy = malloc(1 + i * 10);
    fork_once(&s);
    free(busy);
  }
  /* Worker 0 ends its forks on its own; the others churn until then. */
  while (forks_done < 2 * forks_per_thread && failed_children == 0) sched_yield();
  stop = 1;
  phase = "joining the threads";
  for (int i = 0; i < WORKERS; ++i) pthread_join(t[i], NULL);
  printf("fork_threads: %d forks, %d failed children\n", (int)forks_done, (int)failed_children);
  return failed_children == 0 ? 0 : 1;
}
