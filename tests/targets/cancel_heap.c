/* Threads are cancelled while they use the heap, in rounds: four with
 * asynchronous cancellation looping over malloc, calloc, realloc,
 * posix_memalign and free; one with deferred cancellation that calls
 * pthread_testcancel between operations; one that goes through stdio, whose
 * functions allocate and contain cancellation points. Afterwards the process
 * must use the heap as before: the main thread allocates, new threads
 * allocate, a forked child allocates and frees (in its copy) the blocks the
 * cancelled threads left behind, and then the main thread frees them. None
 * of it may hang (alarm) or raise an event.
 *
 * The C library's allocator is not async-cancel-safe (a thread cancelled
 * inside it may leave an arena locked), so the program runs with
 * libqmcancelsafe preloaded after the agent: its heap functions are, and the
 * agent's must stay so.
 *
 * Every thread owns a row of slots. A block is published in its slot only
 * after the call that made it has returned, and its slot is cleared before
 * the call that releases or resizes it is made, with cancellation disabled
 * around that bookkeeping; so a block whose operation a cancellation
 * interrupts is merely lost, and every block found in a slot is live and
 * freed exactly once. (Each step of the bookkeeping is one store, so this
 * holds even where the C library acts on an asynchronous request whose
 * signal arrives after the thread disabled cancellation, as glibc 2.36
 * does.) The thread of the next round in the same row carries
 * on with the blocks its predecessor left.
 * Usage: cancel_heap [rounds] [alarm seconds] [deferred]
 * ("deferred": the asynchronous threads are deferred ones too; the alarm's
 * message says what the program was doing) */
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

#define ROWS 6
#define SLOTS 32

static void* volatile slots[ROWS][SLOTS];
static atomic_ulong progress[ROWS];

static uint32_t rnd(uint32_t* s) {
  *s = *s * 1103515245u + 12345u;
  return *s >> 4;
}

static void* take(int row, unsigned k) {
  void* p = slots[row][k];
  slots[row][k] = NULL;
  return p;
}

/* One operation on a slot's block; the block is out of its slot while the
 * heap works on it. */
static void one_operation(int row, uint32_t* s) {
  int old;
  unsigned k = rnd(s) % SLOTS;
  size_t n = 1 + rnd(s) % 2000;
  unsigned op = rnd(s) % 5;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
  void* p = take(row, k);
  pthread_setcancelstate(old, &old);
  switch (op) {
    case 0: free(p); p = malloc(n); break;
    case 1: p = realloc(p, n); break;
    case 2: free(p); p = calloc(1, n); break;
    case 3: {
      void* q = NULL;
      free(p);
      p = posix_memalign(&q, 32, n) == 0 ? q : NULL;
      break;
    }
    default: free(p); p = NULL;
  }
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &old);
  if (p != NULL) memset(p, 0x5a, 8 < n ? 8 : n);
  slots[row][k] = p;
  ++progress[row];
  pthread_setcancelstate(old, &old);
}

static void* asynchronous(void* arg) {
  int row = (int)(intptr_t)arg, old;
  uint32_t s = 31u * (uint32_t)row + (uint32_t)progress[row];
  pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &old);
  for (;;) one_operation(row, &s);
  return NULL;
}

static void* deferred(void* arg) {
  int row = (int)(intptr_t)arg;
  uint32_t s = 37u * (uint32_t)row + (uint32_t)progress[row];
  for (;;) {
    pthread_testcancel();
    one_operation(row, &s);
  }
  return NULL;
}

/* fopen allocates and opens, fprintf allocates the buffer, fclose writes,
 * closes and frees: cancellation points inside the C library's own heap use. */
static void* through_stdio(void* arg) {
  int row = (int)(intptr_t)arg;
  uint32_t s = 41u * (uint32_t)row + (uint32_t)progress[row];
  for (;;) {
    FILE* f = fopen("/dev/null", "w");
    if (f != NULL) {
      fprintf(f, "%lu %s\n", (unsigned long)progress[row], "through stdio");
      fclose(f);
    }
    one_operation(row, &s);
  }
  return NULL;
}

static int churn(uint32_t seed, int count) {
  void* p[64] = {0};
  int failures = 0;
  for (int i = 0; i < count; ++i) {
    unsigned k = rnd(&seed) % 64;
    size_t n = 1 + rnd(&seed) % 3000;
    if (i % 3 == 0) {
      void* q = realloc(p[k], n);
      if (q == NULL) ++failures; else p[k] = q;
    } else {
      free(p[k]);
      p[k] = (i & 1) ? malloc(n) : calloc(n, 1);
      if (p[k] == NULL) ++failures;
    }
    if (p[k] != NULL) memset(p[k], 0x33, n < 16 ? n : 16);
  }
  for (int k = 0; k < 64; ++k) free(p[k]);
  return failures;
}

static void* fresh(void* arg) { return (void*)(intptr_t)churn((uint32_t)(intptr_t)arg, 20000); }

/* What the program is doing, for the message when the alarm ends it. */
static char phase[96] = "starting";

static void set_phase(const char* what, int round) {
  snprintf(phase, sizeof phase, round < 0 ? "%s" : "%s (round %d)", what, round);
}

static void no_progress(int sig) {
  (void)sig;
  static const char head[] = "cancel_heap: stopped by alarm while ";
  write(2, head, sizeof head - 1);
  write(2, phase, strlen(phase));
  write(2, "\n", 1);
  _exit(124);
}

int main(int argc, char** argv) {
  int rounds = argc > 1 ? atoi(argv[1]) : 100;
  signal(SIGALRM, no_progress);
  alarm(argc > 2 ? (unsigned)atoi(argv[2]) : 120);
  void* (*kinds[ROWS])(void*) = {asynchronous, asynchronous, asynchronous, asynchronous, deferred, through_stdio};
  if (argc > 3 && strcmp(argv[3], "deferred") == 0)
    for (int i = 0; i < ROWS; ++i)
      if (kinds[i] == asynchronous) kinds[i] = deferred;
  int failures = 0, cancelled = 0;
  uint32_t s = 99u;
  for (int r = 0; r < rounds; ++r) {
    pthread_t t[ROWS];
    unsigned long before[ROWS];
    set_phase("starting threads", r);
    for (int i = 0; i < ROWS; ++i) {
      before[i] = progress[i];
      if (pthread_create(&t[i], NULL, kinds[i], (void*)(intptr_t)i) != 0) return 2;
    }
    /* Let every thread get going, then cancel it at a varying point. */
    set_phase("waiting for the threads to use the heap", r);
    for (int i = 0; i < ROWS; ++i) {
      unsigned long until = before[i] + 20 + rnd(&s) % 200;
      while (progress[i] < until) sched_yield();
    }
    set_phase("cancelling and joining the threads", r);
    for (int i = 0; i < ROWS; ++i) pthread_cancel(t[i]);
    for (int i = 0; i < ROWS; ++i) {
      /* The threads never return: joined, they were cancelled (the result
       * is not always PTHREAD_CANCELED: some C libraries leave it unset when
       * the request acts inside pthread_setcancelstate). */
      if (pthread_join(t[i], NULL) != 0) return 3;
      ++cancelled;
    }
  }
  set_phase("using the heap from the main thread", -1);
  failures += churn(7u, 20000);
  set_phase("using the heap from new threads", -1);
  pthread_t t[4];
  for (int i = 0; i < 4; ++i) pthread_create(&t[i], NULL, fresh, (void*)(intptr_t)(1000 + i));
  for (int i = 0; i < 4; ++i) {
    void* v = NULL;
    pthread_join(t[i], &v);
    failures += (int)(intptr_t)v;
  }
  set_phase("waiting for a forked child", -1);
  fflush(stdout);
  pid_t pid = fork();
  if (pid == 0) {
    set_phase("in the forked child", -1);
    alarm(60);
    int bad = churn(11u, 5000);
    for (int i = 0; i < ROWS; ++i)
      for (int k = 0; k < SLOTS; ++k) free(take(i, k));
    _exit(bad == 0 ? 0 : 1);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) ++failures;
  set_phase("freeing the blocks the cancelled threads left", -1);
  int left = 0;
  for (int i = 0; i < ROWS; ++i)
    for (int k = 0; k < SLOTS; ++k) {
      left += slots[i][k] != NULL;
      free(take(i, k));
    }
  /* Most slots hold a block at the end; a handful would mean the threads
   * hardly ran. */
  printf("cancel_heap: %d threads cancelled, %d failures, %s\n", cancelled, failures,
         left > ROWS ? "left blocks freed" : "too few blocks left");
  return failures == 0 && left > ROWS ? 0 : 1;
}
