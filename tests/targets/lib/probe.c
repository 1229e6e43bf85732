/* Preloaded after the agent (LD_PRELOAD=agent:probe), this library is the
 * "next" heap that the agent binds: it forwards to the C library and
 * records what it sees, for targets that check what the agent does around
 * the real allocator. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <stddef.h>

static void* (*next_malloc)(size_t);

/* The thread's cancellation state inside the last malloc that reached us. */
int probe_cancel_state_in_malloc = -1;
int probe_malloc_calls;

void* malloc(size_t n) {
  if (next_malloc == NULL) next_malloc = (void* (*)(size_t))dlsym(RTLD_NEXT, "malloc");
  int state = -1, ignored;
  if (pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state) == 0) pthread_setcancelstate(state, &ignored);
  probe_cancel_state_in_malloc = state;
  ++probe_malloc_calls;
  return next_malloc(n);
}
