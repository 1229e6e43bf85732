/* A thread of a multi-threaded process calls the heap with cancellation
 * enabled. Under agent:probe the real allocator must see the caller's own
 * state; under break:agent an event raised inside the operation must find
 * cancellation disabled; afterwards the caller's state is back. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

static const char* name(int state) { return state == PTHREAD_CANCEL_DISABLE ? "disabled" : "enabled"; }

static void* worker(void* unused) {
  (void)unused;
  int old, after = -1, ignored;
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &old);
  int* in_malloc = dlsym(RTLD_DEFAULT, "probe_cancel_state_in_malloc");
  int* at_event = dlsym(RTLD_DEFAULT, "probe_cancel_state_at_event");
  volatile size_t huge = SIZE_MAX - 4096; /* fails: the agent raises an event */
  void* p = malloc(in_malloc != NULL ? 100 : huge);
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &after);
  pthread_setcancelstate(after, &ignored);
  free(p);
  if (in_malloc != NULL) printf("in allocator %s, ", name(*in_malloc));
  if (at_event != NULL) printf("at event %s, ", name(*at_event));
  printf("after %s\n", name(after));
  return NULL;
}

int main(void) {
  pthread_t t;
  pthread_create(&t, NULL, worker, NULL);
  pthread_join(t, NULL);
  return 0;
}
