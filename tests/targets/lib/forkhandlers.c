/* A library of fork_threads itself: its constructor registers fork handlers
 * before the preloaded agent's load hook runs, so that (handlers of one
 * registration running prepare last-first, parent and child first-first)
 * its prepare handler runs after the agent's and its child and parent
 * handlers before the agent's. Each handler allocates and frees; the block
 * made in prepare is freed in parent and in child. */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static __thread char* prepared;

static void prepare(void) {
  prepared = malloc(200);
  if (prepared != NULL) memset(prepared, 'e', 200);
  free(malloc(20));
}

static void parent(void) {
  free(prepared);
  prepared = NULL;
}

static void child(void) {
  void* q = calloc(3, 40);
  if (prepared == NULL || prepared[199] != 'e' || q == NULL) _exit(20);
  prepared = realloc(prepared, 400);
  free(prepared);
  prepared = NULL;
  free(q);
}

__attribute__((constructor)) static void register_early(void) { pthread_atfork(prepare, parent, child); }

/* Referenced by the program so that the library is linked in. */
int fork_handlers_registered_early(void) { return 1; }
