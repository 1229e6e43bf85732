/* Linked against libqmctorthreads, whose constructor has four threads using
 * the heap before main, and before the preloaded agent's load hook. main
 * joins them and leaves the blocks each one kept allocated (its first, 7001
 * to 7004 bytes, and its last, 7011 to 7014), printing their addresses and
 * lengths, so that the exit-time allocation list can be checked against
 * them. */
#include <stddef.h>
#include <stdio.h>
#include <unistd.h>

int ctor_threads_join(void* kept[8], size_t lengths[8]);

int main(void) {
  alarm(300);
  void* kept[8];
  size_t lengths[8];
  int failures = ctor_threads_join(kept, lengths);
  for (int i = 0; i < 8; ++i) printf("ctor_threads: kept %p %zu\n", kept[i], lengths[i]);
  printf("ctor_threads: %d failures\n", failures);
  return failures == 0 ? 0 : 1;
}
