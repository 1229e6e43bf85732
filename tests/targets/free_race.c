/* Two threads release the same block at the same moment, many times over.
 * Under agent:badalloc with QM_BAD=once (a second real free is swallowed),
 * the agent must let one release through and report the other as a double
 * deallocation, every time, and nothing else. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>

enum { kRounds = 300 };
static pthread_barrier_t start, done;
static void* volatile block;

static void* releaser(void* unused) {
  (void)unused;
  for (int i = 0; i < kRounds; ++i) {
    pthread_barrier_wait(&start);
    free(block);
    pthread_barrier_wait(&done);
  }
  return NULL;
}

int main(void) {
  pthread_t t[2];
  pthread_barrier_init(&start, NULL, 3);
  pthread_barrier_init(&done, NULL, 3);
  for (int i = 0; i < 2; ++i) pthread_create(&t[i], NULL, releaser, NULL);
  for (int i = 0; i < kRounds; ++i) {
    block = malloc(64 + (size_t)i);
    pthread_barrier_wait(&start);
    pthread_barrier_wait(&done);
  }
  for (int i = 0; i < 2; ++i) pthread_join(t[i], NULL);
  printf("free_race: %d rounds\n", kRounds);
  return 0;
}
