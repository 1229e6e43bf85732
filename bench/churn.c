/* A deterministic allocation-heavy workload: each thread keeps a pool of
 * slots and, in a pseudo-random order fixed by its seed, fills, resizes and
 * empties them with malloc, calloc, realloc, memalign and free, over sizes
 * from 8 bytes to 4 KiB. Prints a checksum so that a run under the agent can
 * be compared with a plain one.
 * Usage: churn [operations] [slots] [threads] [extra frames per operation] */
#include <malloc.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

struct work {
  unsigned long ops;
  unsigned slots;
  uint32_t seed;
  unsigned depth;
  unsigned long checksum;
};

static uint32_t next(uint32_t* s) {
  *s = *s * 1664525u + 1013904223u;
  return *s >> 8;
}

/* 8 B .. 4 KiB, most of them small, as programs allocate. */
static size_t pick_len(uint32_t* s) {
  uint32_t r = next(s);
  switch (r % 8) {
    case 0: return 8 + next(s) % 4089;
    case 1: case 2: return 8 + next(s) % 505;
    default: return 8 + next(s) % 121;
  }
}

// One operation on a random slot; the bytes written keep the compiler from
// dropping the blocks.
static __attribute__((noinline)) unsigned long one_op(struct work* w, void** slot, unsigned long i) {
  uint32_t r = next(&w->seed);
  unsigned k = (r >> 4) % w->slots;
  size_t n = pick_len(&w->seed);
  switch (r % 10) {
    case 0: case 1: case 2:
      free(slot[k]);
      slot[k] = malloc(n);
      break;
    case 3: case 4:
      slot[k] = realloc(slot[k], n);
      break;
    case 5:
      free(slot[k]);
      slot[k] = calloc(1, n);
      break;
    case 6:
      free(slot[k]);
      slot[k] = memalign(64, n);
      break;
    default:
      free(slot[k]);
      slot[k] = NULL;
      n = 0;
      break;
  }
  if (slot[k] == NULL) return 0;
  memset(slot[k], (int)(i & 0xff), n < 16 ? n : 16);
  return n;
}

// The operation made from depth more frames: call stacks as deep as a real
// program's.
static __attribute__((noinline)) unsigned long deeper(struct work* w, void** slot, unsigned long i, unsigned depth) {
  unsigned long r = depth == 0 ? one_op(w, slot, i) : deeper(w, slot, i, depth - 1);
  __asm__ volatile("" ::: "memory");
  return r;
}

static void* churn(void* arg) {
  struct work* w = arg;
  void** slot = calloc(w->slots, sizeof *slot);
  unsigned long sum = 0;
  for (unsigned long i = 0; i < w->ops; ++i) sum += w->depth ? deeper(w, slot, i, w->depth) : one_op(w, slot, i);
  for (unsigned k = 0; k < w->slots; ++k) free(slot[k]);
  free(slot);
  w->checksum = sum;
  return NULL;
}

int main(int argc, char** argv) {
  unsigned long ops = argc > 1 ? strtoul(argv[1], NULL, 10) : 6000000;
  unsigned slots = argc > 2 ? (unsigned)strtoul(argv[2], NULL, 10) : 20000;
  unsigned nthreads = argc > 3 ? (unsigned)strtoul(argv[3], NULL, 10) : 1;
  unsigned depth = argc > 4 ? (unsigned)strtoul(argv[4], NULL, 10) : 0;
  struct work w[64];
  pthread_t t[64];
  if (nthreads < 1 || nthreads > 64) nthreads = 1;
  for (unsigned i = 0; i < nthreads; ++i) {
    w[i].ops = ops / nthreads;
    w[i].slots = slots / nthreads;
    w[i].seed = 12345u + i;
    w[i].depth = depth;
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
