/* Loads and unloads a library (libqmbtlib) over and over from several
 * threads while they capture stacks through it: each round loads it, makes,
 * resizes and frees a block from its functions, walks the stack from inside
 * it with backtrace(), keeps one block it made past the unload and frees it
 * after. Every unload empties the agent's caches while the other threads
 * capture and unwind. Then, with one thread, every load must give stacks
 * that name the library's function and the program's caller, wherever the
 * library lands. Ends itself with an alarm if it hangs.
 * Usage: bt_dlopen LIBRARY [rounds per thread] [threads] [alarm seconds] */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int btr_init(void);
int btr_block(void* p, int* bt, int* org);
int btr_frames(int id, void* const** pcs);
const char* btr_function(const void* pc);
const char* btr_where(const void* pc, char* buf, size_t len);
int btr_check_table(int max_pcs, const char* agent, char* why, size_t len);

#define SITE __attribute__((noinline, noclone))
#define KEEP(p) __asm__ volatile("" : : "r"(p) : "memory")

static const char* library;
static int rounds = 300;
static atomic_int failures;
static const char* volatile phase = "starting";

static void no_progress(int sig) {
  (void)sig;
  const char* p = phase;
  write(2, "bt_dlopen: stopped by alarm while ", 34);
  write(2, p, strlen(p));
  write(2, "\n", 1);
  _exit(124);
}

static void fail(const char* what) {
  ++failures;
  fprintf(stderr, "bt_dlopen: %s\n", what);
}

typedef struct {
  void* handle;
  void* (*alloc)(size_t);
  void* (*resize)(void*, size_t);
  void (*release)(void*);
  int (*unwind)(int);
} lib_t;

static int load(lib_t* l) {
  l->handle = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  if (l->handle == NULL) {
    fail(dlerror());
    return 0;
  }
  l->alloc = (void* (*)(size_t))dlsym(l->handle, "btlib_alloc");
  l->resize = (void* (*)(void*, size_t))dlsym(l->handle, "btlib_resize");
  l->release = (void (*)(void*))dlsym(l->handle, "btlib_free");
  l->unwind = (int (*)(int))dlsym(l->handle, "btlib_unwind");
  if (!l->alloc || !l->resize || !l->release || !l->unwind) {
    fail("a function of the library is missing");
    return 0;
  }
  return 1;
}

static void* thread_main(void* arg) {
  (void)arg;
  for (int i = 0; i < rounds && failures == 0; ++i) {
    lib_t l;
    if (!load(&l)) break;
    void* p = l.alloc(64 + (size_t)i % 100);
    p = l.resize(p, 3000 + (size_t)i);
    int n = l.unwind(6);
    if (n < 7) fail("a walk of the stack through the library stopped early");
    l.release(p);
    void* left = l.alloc(32);
    if (dlclose(l.handle) != 0) fail("dlclose failed");
    free(left);
  }
  return NULL;
}

/* The program's caller of the library. */
SITE void* call_library(lib_t* l, size_t n) {
  void* p = l->alloc(n);
  KEEP(p);
  return p;
}

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: bt_dlopen LIBRARY [rounds] [threads] [alarm seconds]\n");
    return 2;
  }
  library = argv[1];
  if (argc > 2) rounds = atoi(argv[2]);
  int threads = argc > 3 ? atoi(argv[3]) : 3;
  signal(SIGALRM, no_progress);
  alarm(argc > 4 ? (unsigned)atoi(argv[4]) : 120);
  setvbuf(stdout, NULL, _IONBF, 0);
  /* Without the agent the program runs as well, without the checks. */
  int agent = btr_init();
  phase = "loading and unloading in threads";
  pthread_t t[16];
  if (threads > 16) threads = 16;
  for (int i = 0; i < threads; ++i) pthread_create(&t[i], NULL, thread_main, NULL);
  for (int i = 0; i < threads; ++i) pthread_join(t[i], NULL);

  /* One thread: the stacks of blocks made through every fresh load, while
   * every other round another library takes the place the last one left. */
  phase = "checking loads";
  void* spacer = NULL;
  for (int i = 0; i < 20; ++i) {
    lib_t l;
    if (!load(&l)) break;
    void* p = call_library(&l, 48 + (size_t)i);
    if (!agent) {
      l.release(p);
      dlclose(l.handle);
      continue;
    }
    int bt, org;
    char why[400], a[200], b[200];
    void* const* pcs;
    int n = btr_block(p, &bt, &org) ? btr_frames(bt, &pcs) : -1;
    const char* f0 = n > 0 ? btr_function(pcs[0]) : NULL;
    const char* f1 = n > 1 ? btr_function(pcs[1]) : NULL;
    if (f0 == NULL || f1 == NULL || strcmp(f0, "btlib_alloc") != 0 || strcmp(f1, "call_library") != 0) {
      snprintf(why, sizeof why, "load %d: the stack starts with %s, %s", i,
               n > 0 ? btr_where(pcs[0], a, sizeof a) : "-", n > 1 ? btr_where(pcs[1], b, sizeof b) : "-");
      fail(why);
    }
    l.release(p);
    dlclose(l.handle);
    if (spacer == NULL) {
      spacer = dlopen("libm.so.6", RTLD_NOW);
    } else {
      dlclose(spacer);
      spacer = NULL;
    }
  }
  if (spacer != NULL) dlclose(spacer);
  char why[400];
  if (agent && btr_check_table(32, "libqmheap", why, sizeof why) < 0) fail(why);
  printf("bt_dlopen: %d threads, %d rounds each, %d failures\n", threads, rounds, (int)failures);
  return failures != 0;
}
