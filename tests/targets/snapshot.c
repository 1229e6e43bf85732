/* Snapshot files written from events.
 *
 *   one       100 blocks, 50 of them freed, then one freed twice: the double
 *             release writes a file (with lwmdbg on for that event); with
 *             "nocomments", the agent's comment lines switched off first
 *   threads   two threads each free a block twice at the same moment
 *   fork      the child frees a block twice; prints the child's pid
 *   request   asks for a file itself, through the agent's function
 *   guards    one byte written past a 10-byte block, then a file requested;
 *             prints the block's address
 *   lwmem     (a thread started and ended first) a block holding a known text;
 *             asks for a lightweight core file
 *             (named core-%p.lwmem, or by the template given, "-" for the
 *             setting's) and prints the block's address and a local's
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

static pthread_barrier_t barrier;

static void double_free(void) {
  char* p = malloc(8);
  free(p);
  free(p);
}

static void* racer(void* arg) {
  (void)arg;
  pthread_barrier_wait(&barrier);
  double_free();
  return NULL;
}

static void* racer_quiet(void* arg) { return arg; }

int main(int argc, char** argv) {
  const char* mode = argc > 1 ? argv[1] : "";
  void* keep[100];
  for (int i = 0; i < 100; ++i) keep[i] = malloc(10 + i);
  for (int i = 0; i < 50; ++i) free(keep[i]);
  if (strcmp(mode, "one") == 0) {
    if (argc > 2 && strcmp(argv[2], "nocomments") == 0) {
      volatile int* comments = (volatile int*)dlsym(RTLD_DEFAULT, "QM_HEAP_lwmdbg_write_comments");
      if (comments != NULL) *comments = 0;
    }
    double_free();
  } else if (strcmp(mode, "threads") == 0) {
    pthread_t t[2];
    pthread_barrier_init(&barrier, NULL, 2);
    for (int i = 0; i < 2; ++i) pthread_create(&t[i], NULL, racer, NULL);
    for (int i = 0; i < 2; ++i) pthread_join(t[i], NULL);
  } else if (strcmp(mode, "fork") == 0) {
    pid_t c = fork();
    if (c == 0) {
      double_free();
      _exit(0);
    }
    waitpid(c, NULL, 0);
    printf("child %d\n", (int)c);
  } else if (strcmp(mode, "request") == 0) {
    int (*gen)(const char*, const char*, const char*) =
        (int (*)(const char*, const char*, const char*))dlsym(RTLD_DEFAULT, "QM_HEAP_lwmdbg_generate_file");
    printf("request: %d\n", gen != NULL ? gen(argc > 2 ? argv[2] : NULL, "a title", "some notes") : -2);
  } else if (strcmp(mode, "guards") == 0) {
    char* b = malloc(10);
    b[10] = 1;
    int (*gen)(const char*, const char*, const char*) =
        (int (*)(const char*, const char*, const char*))dlsym(RTLD_DEFAULT, "QM_HEAP_lwmdbg_generate_file");
    printf("%p %d\n", (void*)b, gen != NULL ? gen("guards.lwmdbg", NULL, NULL) : -2);
  } else if (strcmp(mode, "lwmem") == 0) {
    /* With a second thread once started, the agent's locks are real locks. */
    pthread_t t;
    pthread_create(&t, NULL, racer_quiet, NULL);
    pthread_join(t, NULL);
    char* block = malloc(64);
    strcpy(block, "a recorded block");
    int (*gen)(const char*) = (int (*)(const char*))dlsym(RTLD_DEFAULT, "QM_HEAP_lwcore_generate_file");
    int on_stack = 7;
    const char* tmpl = argc > 2 ? (strcmp(argv[2], "-") == 0 ? NULL : argv[2]) : "core-%p.lwmem";
    printf("%p %p %d\n", (void*)block, (void*)&on_stack, gen != NULL ? gen(tmpl) : -2);
    free(block);
  } else {
    fprintf(stderr, "snapshot: unknown mode %s\n", mode);
    return 2;
  }
  return 0;
}
