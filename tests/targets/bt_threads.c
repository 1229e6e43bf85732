/* Call stacks captured from many threads at once, from forked children and
 * from a signal handler. Four workers allocate, resize and free without
 * pause, each through call sites of its own (worker_site_N); the main thread
 * and worker 0 fork while they do. One more thread, which never uses the
 * heap, alone takes SIGALRM (an interval timer) and SIGUSR1 (sent by the
 * main thread), whose handler allocates and frees through handler_site: the
 * agent captures stacks through a signal frame. That thread either computes
 * or (with walk) walks its own stack with backtrace() in a loop, so that the
 * signals interrupt it anywhere in the unwinder, and in the agent's FDE
 * lookup that the unwinder asks about every frame. Every other thread
 * blocks both signals, since a handler may not use the heap while the
 * thread it interrupts is inside it. With none, no signal at all.
 * A child checks the stacks of a block it makes (and of one its own thread
 * makes) and leaves with _exit. At the end the main thread checks the
 * stacks of the last block of every worker and of the handler, and the
 * whole table. A watchdog thread ends a program that hangs (exit 124, with
 * what it was doing).
 * Usage: bt_threads [rounds per worker] [forks per forking thread]
 *                   [child threads: 1 or 0] [watchdog seconds] [walk|compute]
 *                   [timer|none] */
#define _GNU_SOURCE
#include <errno.h>
#include <execinfo.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

int btr_init(void);
int btr_next_id(void);
int btr_frames(int id, void* const** pcs);
int btr_block(void* p, int* bt, int* org);
const char* btr_function(const void* pc);
const char* btr_where(const void* pc, char* buf, size_t len);
int btr_called_from(int id, const char* skip, const char* fn, char* why, size_t len);
int btr_check_table(int max_pcs, const char* agent, char* why, size_t len);

#define WORKERS 4
#define SITE __attribute__((noinline, noclone))
#define KEEP(p) __asm__ volatile("" : : "r"(p) : "memory")

static int rounds = 20000, forks_per_thread = 10, with_child_threads = 1, walking = 1, signals = 1;
static const char* volatile phase = "starting";
static int agent;
static atomic_int done, stop_walking, failures, forks_done, handler_runs, turns;

static void fail(const char* what) {
  ++failures;
  fprintf(stderr, "bt_threads: %s\n", what);
}

#define WORKER_SITE(n) \
  SITE void* worker_site_##n(void* p, size_t len) { void* q = realloc(p, len); KEEP(q); return q; }
WORKER_SITE(0)
WORKER_SITE(1)
WORKER_SITE(2)
WORKER_SITE(3)
static void* (*const worker_sites[WORKERS])(void*, size_t) = {worker_site_0, worker_site_1, worker_site_2,
                                                              worker_site_3};
static const char* const worker_site_names[WORKERS] = {"worker_site_0", "worker_site_1", "worker_site_2",
                                                       "worker_site_3"};

SITE void* handler_site(size_t len) { void* p = malloc(len); KEEP(p); return p; }
SITE void* child_site(size_t len) { void* p = malloc(len); KEEP(p); return p; }
SITE void* child_thread_site(size_t len) { void* p = malloc(len); KEEP(p); return p; }

static void* volatile handler_block;

SITE void on_signal(int sig) {
  int e = errno;
  void* p = handler_site(40 + (size_t)sig);
  void* old = handler_block;
  handler_block = p;
  free(old);
  ++handler_runs;
  errno = e;
}

static void block_signals(void) {
  sigset_t s;
  sigemptyset(&s);
  sigaddset(&s, SIGALRM);
  sigaddset(&s, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &s, NULL);
}

static uint32_t rnd(uint32_t* s) {
  *s = *s * 1103515245u + 12345u;
  return *s >> 4;
}

/* In a child: its block (and its thread's) carry stacks that name the
 * child's sites. Single-threaded while it reads the table. */
static int check_in_child(const char* fn, void* p) {
  int bt, org;
  char why[400];
  if (!agent) return p == NULL ? 20 : 0;
  if (p == NULL || !btr_block(p, &bt, &org)) return 20;
  if (!btr_called_from(bt, NULL, fn, why, sizeof why)) {
    fprintf(stderr, "bt_threads: child: %s\n", why);
    return 21;
  }
  return 0;
}

static void* child_thread(void* arg) {
  for (int i = 0; i < 100; ++i) free(malloc(1 + (size_t)i * 7));
  *(void**)arg = child_thread_site(77);
  return NULL;
}

static int child_work(void) {
  for (int i = 0; i < 200; ++i) free(malloc(1 + (size_t)i * 13));
  void* p = child_site(99);
  int r = check_in_child("child_site", p);
  if (r != 0 || !with_child_threads) return r;
  pthread_t t;
  void* q = NULL;
  if (pthread_create(&t, NULL, child_thread, &q) != 0 || pthread_join(t, NULL) != 0) return 22;
  r = check_in_child("child_thread_site", q);
  free(q);
  free(p);
  return r;
}

static void fork_once(void) {
  pid_t pid = fork();
  if (pid == 0) _exit(child_work());
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    char what[80];
    snprintf(what, sizeof what, "child %s %d", WIFSIGNALED(status) ? "signal" : "status",
             WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    fail(what);
  }
  ++forks_done;
}

static void* kept[WORKERS];

/* Not static: it is named in the checks. */
void* worker(void* arg) {
  int id = (int)(intptr_t)arg;
  block_signals();
  void* slot[64] = {0};
  uint32_t s = 7u + (uint32_t)id;
  for (int i = 0; i < rounds; ++i) {
    unsigned k = rnd(&s) % 64;
    if (rnd(&s) % 4 == 0) {
      free(slot[k]);
      slot[k] = NULL;
    } else {
      void* q = worker_sites[id](slot[k], 1 + rnd(&s) % 2000);
      if (q == NULL) {
        fail("realloc failed");
        break;
      }
      slot[k] = q;
    }
    if (id == 0 && i % (rounds / (forks_per_thread + 1) + 1) == 0 && forks_done < 2 * forks_per_thread &&
        i > 0)
      fork_once();
  }
  for (unsigned k = 1; k < 64; ++k) free(slot[k]);
  kept[id] = worker_sites[id](slot[0], 123);
  return NULL;
}

/* depth frames, then a walk of the whole stack. */
SITE int walk_down(int depth) {
  if (depth > 0) {
    int n = walk_down(depth - 1);
    KEEP(n);
    return n;
  }
  void* pcs[128];
  return backtrace(pcs, 128);
}

static volatile unsigned long computed;

static void* signal_thread(void* arg) {
  (void)arg;
  int shortest = 1 << 30;
  uint32_t s = 1;
  while (!stop_walking) {
    if (walking) {
      int n = walk_down(24);
      if (n < shortest) shortest = n;
    } else {
      for (int i = 0; i < 1000; ++i) computed += rnd(&s);
    }
    ++turns;
  }
  if (walking && shortest < 25) fail("a walk of the stack stopped early");
  return NULL;
}

static void* watchdog(void* arg) {
  int seconds = (int)(intptr_t)arg;
  block_signals();
  for (int i = 0; i < seconds * 10 && !done; ++i) {
    struct timespec ts = {0, 100 * 1000 * 1000};
    nanosleep(&ts, NULL);
  }
  if (!done) {
    const char* p = phase;
    write(2, "bt_threads: stopped by the watchdog while ", 42);
    write(2, p, strlen(p));
    write(2, "\n", 1);
    _exit(124);
  }
  return NULL;
}

static void check_block(const char* name, void* p, const char* fn, const char* caller) {
  int bt, org;
  char why[400], a[200];
  if (!agent) return;
  if (p == NULL || !btr_block(p, &bt, &org)) {
    fprintf(stderr, "bt_threads: %s: no live record holds the block\n", name);
    ++failures;
    return;
  }
  if (!btr_called_from(bt, NULL, fn, why, sizeof why)) {
    fprintf(stderr, "bt_threads: %s: %s\n", name, why);
    ++failures;
    return;
  }
  void* const* pcs;
  int n = btr_frames(bt, &pcs);
  const char* f = n > 1 ? btr_function(pcs[1]) : NULL;
  if (caller != NULL && (f == NULL || strcmp(f, caller) != 0)) {
    fprintf(stderr, "bt_threads: %s: frame 1 is %s, not in %s\n", name, n > 1 ? btr_where(pcs[1], a, sizeof a) : "-",
            caller);
    ++failures;
  }
}

int main(int argc, char** argv) {
  if (argc > 1) rounds = atoi(argv[1]);
  if (argc > 2) forks_per_thread = atoi(argv[2]);
  if (argc > 3) with_child_threads = atoi(argv[3]);
  int seconds = argc > 4 ? atoi(argv[4]) : 120;
  if (argc > 5) walking = strcmp(argv[5], "walk") == 0;
  if (argc > 6) signals = strcmp(argv[6], "none") != 0;
  setvbuf(stdout, NULL, _IONBF, 0);
  /* Without the agent the program runs as well, without the checks. */
  agent = btr_init();
  /* The first walk loads the unwinder, with the heap: before any signal. */
  walk_down(1);
  pthread_t dog, sig_thread, t[WORKERS];
  pthread_create(&dog, NULL, watchdog, (void*)(intptr_t)seconds);
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = on_signal;
  sa.sa_flags = SA_RESTART;
  /* One signal at a time: the handler is not reentrant. */
  sigemptyset(&sa.sa_mask);
  sigaddset(&sa.sa_mask, SIGALRM);
  sigaddset(&sa.sa_mask, SIGUSR1);
  sigaction(SIGALRM, &sa, NULL);
  sigaction(SIGUSR1, &sa, NULL);
  /* The signal thread starts with the signals open; everyone else blocks
   * them. */
  pthread_create(&sig_thread, NULL, signal_thread, NULL);
  block_signals();
  struct itimerval it = {{0, 500}, {0, 500}};
  if (signals) setitimer(ITIMER_REAL, &it, NULL);

  phase = "running the workers";
  for (int i = 0; i < WORKERS; ++i) pthread_create(&t[i], NULL, worker, (void*)(intptr_t)i);
  for (int i = 0; i < forks_per_thread; ++i) {
    void* busy = malloc(100 + (size_t)i);
    fork_once();
    if (signals) pthread_kill(sig_thread, SIGUSR1);
    free(busy);
  }
  phase = "joining the workers";
  for (int i = 0; i < WORKERS; ++i) pthread_join(t[i], NULL);
  /* Enough signals seen while the others ran; a few more if not. */
  phase = "waiting for signals";
  while (signals && handler_runs < 20) pthread_kill(sig_thread, SIGUSR1), sched_yield();
  struct itimerval off = {{0, 0}, {0, 0}};
  if (signals) setitimer(ITIMER_REAL, &off, NULL);
  stop_walking = 1;
  phase = "joining the signal thread";
  pthread_join(sig_thread, NULL);

  phase = "checking";
  for (int i = 0; i < WORKERS; ++i) check_block(worker_site_names[i], kept[i], worker_site_names[i], "worker");
  if (signals) check_block("handler", handler_block, "handler_site", "on_signal");
  char why[400];
  if (agent && btr_check_table(32, "libqmheap", why, sizeof why) < 0) fail(why);
  done = 1;
  pthread_join(dog, NULL);
  for (int i = 0; i < WORKERS; ++i) free(kept[i]);
  free(handler_block);
  printf("bt_threads: %d forks, %s signals, %s turns of the signal thread, %d failures\n", (int)forks_done,
         handler_runs > 0 ? "some" : "no", turns > 0 ? "some" : "no", (int)failures);
  return failures != 0;
}
