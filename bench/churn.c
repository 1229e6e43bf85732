/* A deterministic malloc-heavy workload: a pool of slots is filled, resized
 * and emptied in a pseudo-random order fixed by the seed. Prints a checksum so
 * that a run under the agent can be compared with a plain one.
 * Usage: churn [operations] [slots] [threads] */
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

struct work {
  unsigned long ops;
  unsigned slots;
  uint32_t seed;
  unsigned long checksum;
};

static uint32_t next(uint32_t* s) {
  *s = *s * 1664525u + 1013904223u;
  return *s >> 8;
}

static void* churn(void* arg) {
  struct work* w = arg;
  void** slot = calloc(w->slots, sizeof *slot);
  size_t* len = calloc(w->slots, sizeof *len);
  unsigned long sum = 0;
  for (unsigned long i = 0; i < w->ops; ++i) {
    uint32_t r = next(&w->seed);
    unsigned k = r % w->slots;
    size_t n = 1 + (next(&w->seed) % 512);
    if (next(&w->seed) % 64 == 0) n *= 64;
    switch (r % 7) {
      case 0: case 1: case 2:
        free(slot[k]);
        slot[k] = malloc(n);
        len[k] = n;
        break;
      case 3:
        slot[k] = realloc(slot[k], n);
        len[k] = n;
        break;
      case 4:
        free(slot[k]);
        slot[k] = calloc(1, n);
        len[k] = n;
        break;
      default:
        free(slot[k]);
        slot[k] = NULL;
        len[k] = 0;
        break;
    }
    if (slot[k] != NULL) {
      memset(slot[k], (int)(i & 0xff), len[k] < 16 ? len[k] : 16);
      sum += len[k];
    }
  }
  for (unsigned k = 0; k < w->slots; ++k) free(slot[k]);
  free(slot);
  free(len);
  w->checksum = sum;
  return NULL;
}

int main(int argc, char** argv) {
  unsigned long ops = argc > 1 ? strtoul(argv[1], NULL, 10) : 2000000;
  unsigned slots = argc > 2 ? (unsigned)strtoul(argv[2], NULL, 10) : 4096;
  unsigned nthreads = argc > 3 ? (unsigned)strtoul(argv[3], NULL, 10) : 1;
  struct work w[64];
  pthread_t t[64];
  if (nthreads < 1 || nthreads > 64) nthreads = 1;
  for (unsigned i = 0; i < nthreads; ++i) {
    w[i].ops = ops / nthreads;
    w[i].slots = slots;
    w[i].seed = 12345u + i;
    if (nthreads == 1)
      churn(&w[i]);
    else
      pthread_create(&t[i], NULL, churn, &w[i]);
  }
  unsigned long total = 0;
  for (unsigned i = 0; i < nthreads; ++i) {
    if (nthreads > 1) pthread_join(t[i], NULL);
    total += w[i].checksum;
  }
  printf("churn: %lu operations, checksum %lu\n", ops, total);
  return 0;
}
