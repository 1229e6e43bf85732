/* A thread ends inside a heap operation (under break:agent with
 * QM_BREAK_EXIT, the breakpoint stand-in calls pthread_exit at the failed
 * allocation's event). Threads created afterwards, which often reuse the
 * ended thread's identity, must still have their blocks recorded: the exit
 * dump (display_allocations_on_exit) lists the blocks they keep. */
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

static void* doomed(void* unused) {
  (void)unused;
  volatile size_t huge = SIZE_MAX - 4096;
  void* p = malloc(huge); /* fails: the event ends this thread */
  printf("unwind_exit: still running after the event (%p)\n", p);
  return NULL;
}

static void* keeper(void* arg) {
  return malloc((size_t)(uintptr_t)arg); /* kept, so that the exit dump lists it */
}

int main(void) {
  pthread_t t;
  for (int i = 0; i < 3; ++i) {
    pthread_create(&t, NULL, doomed, NULL);
    pthread_join(t, NULL);
    void* kept = NULL;
    pthread_create(&t, NULL, keeper, (void*)(uintptr_t)(4242 + i));
    pthread_join(t, &kept);
    printf("unwind_exit: kept %s\n", kept != NULL ? "a block" : "nothing");
  }
  return 0;
}
