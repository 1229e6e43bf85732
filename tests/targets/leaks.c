/* Known leaks for the reachability scan, beside every way a correct program
 * keeps a block: a global, thread-local storage, an anonymous mapping,
 * another block, the stack and registers of a thread still running at exit.
 *
 *   leaks exit          the leaks, then exit with the thread running
 *   leaks api           the same, then a scan through the control function,
 *                       whose counts it prints
 *   leaks signal N      the same, then raises signal N (a scan on demand)
 *                       and frees the leaked list, then exits
 *   leaks blocked       as exit, the thread blocking every signal
 *
 * Lost: a list of four nodes (one definitely lost, three indirectly), a
 * cycle of two (one and one) and a block kept only by a pointer into its
 * middle (interior). */
#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

struct node {
  struct node* volatile next;
  char pad[16];
};

/* volatile: the compiler must not drop stores that nothing reads. */
static void* volatile global_kept;
static char* volatile interior_only;
static __thread void* volatile tls_kept;
static void** volatile mapped;
static volatile int thread_ready;
/* The leaked list's address, hidden from the scan, for the signal mode to
 * free the list after its scan on demand. */
static volatile unsigned long hidden_list;
#define HIDE 0x5a5a5a5aUL

static struct node* make_list(int n) {
  struct node* head = NULL;
  for (int i = 0; i < n; ++i) {
    struct node* e = malloc(sizeof *e);
    memset(e, 0, sizeof *e);
    e->next = head;
    head = e;
  }
  return head;
}

/* A thread that keeps its block on its own stack, until the process ends. */
static void* holder(void* arg) {
  if (arg != NULL) {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, NULL);
  }
  void* volatile mine = malloc(40);
  memset(mine, 1, 40);
  tls_kept = malloc(50);
  thread_ready = 1;
  for (;;) pause();
  return mine;
}

/* The leaks, made in a frame of their own and forgotten. */
static __attribute__((noinline)) void leak(void) {
  struct node* volatile list = make_list(4);
  hidden_list = (unsigned long)list ^ HIDE;
  struct node* a = malloc(sizeof *a);
  struct node* b = malloc(sizeof *b);
  memset(a, 0, sizeof *a);
  memset(b, 0, sizeof *b);
  a->next = b;
  b->next = a;
  interior_only = (char*)malloc(32) + 8;
  (void)list;
}

static __attribute__((noinline)) void keep(void) {
  global_kept = make_list(3);
  tls_kept = malloc(70);
  mapped = mmap(NULL, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  mapped[0] = malloc(60);
}

/* Overwrites the dead frames the leaks were made in. */
static __attribute__((noinline)) void scrub(void) {
  volatile char junk[16384];
  for (size_t i = 0; i < sizeof junk; ++i) junk[i] = 0;
}

int main(int argc, char** argv) {
  const char* mode = argc > 1 ? argv[1] : "exit";
  pthread_t t;
  pthread_create(&t, NULL, holder, strcmp(mode, "blocked") == 0 ? (void*)1 : NULL);
  while (!thread_ready) usleep(1000);
  keep();
  leak();
  scrub();
  if (strcmp(mode, "api") == 0) {
    int (*scan)(int, long*) = (int (*)(int, long*))dlsym(RTLD_DEFAULT, "QM_HIA_API_scan_reachability");
    if (scan == NULL) return 2;
    long c[8];
    const int r = scan(0, c);
    printf("scan %d: interior %ld/%ld definitely %ld/%ld indirectly %ld/%ld\n", r, c[2], c[3], c[4], c[5], c[6],
           c[7]);
  } else if (strcmp(mode, "signal") == 0 && argc > 2) {
    raise(atoi(argv[2]));
    /* The list is found again and freed: the next scan (at exit) no longer
     * has it. */
    struct node* e = (struct node*)(hidden_list ^ HIDE);
    while (e != NULL) {
      struct node* next = e->next;
      free(e);
      e = next;
    }
  }
  hidden_list = 0;
  printf("leaks: %s done\n", mode);
  fflush(stdout);
  exit(0);
}
