/* Under agent:probe, a thread of a multi-threaded process calls malloc with
 * cancellation enabled: inside the real allocator the state must be
 * disabled, and afterwards enabled again. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

static void* worker(void* unused) {
  (void)unused;
  int* seen = dlsym(RTLD_DEFAULT, "probe_cancel_state_in_malloc");
  if (seen == NULL) return (void*)1;
  int old;
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &old);
  void* p = malloc(100);
  int inside = *seen, after = -1, ignored;
  pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &after);
  pthread_setcancelstate(after, &ignored);
  free(p);
  printf("inside %s, after %s\n", inside == PTHREAD_CANCEL_DISABLE ? "disabled" : "enabled",
         after == PTHREAD_CANCEL_ENABLE ? "enabled" : "disabled");
  return NULL;
}

int main(void) {
  pthread_t t;
  void* r = NULL;
  pthread_create(&t, NULL, worker, NULL);
  pthread_join(t, &r);
  return r == NULL ? 0 : 1;
}
