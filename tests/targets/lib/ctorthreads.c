/* A library of the program itself (linked, not preloaded): its constructor
 * runs before the preloaded agent's load hook and starts threads that use
 * the heap from the moment it returns, so that they race the agent's
 * start-up and each other. Each thread checks every block it gets (its
 * contents survive until the thread changes it, so no two of its blocks
 * overlap) and keeps two blocks of known lengths to the end, for the
 * exit-time allocation list. */
#include <pthread.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#define THREADS 4
#define SLOTS 64

struct block {
  unsigned char* p;
  size_t n;
  unsigned char mark;
};

static pthread_t threads[THREADS];
static int started[THREADS];
static int go; /* set as the constructor returns: all churn at once */
static const unsigned long ops = 200000;

static uint32_t rnd(uint32_t* s) {
  *s = *s * 1103515245u + 12345u;
  return *s >> 4;
}

static int intact(const struct block* b) {
  if (b->p == NULL) return 1;
  size_t check = b->n < 32 ? b->n : 32;
  for (size_t i = 0; i < check; ++i)
    if (b->p[i] != b->mark || b->p[b->n - 1 - i] != b->mark) return 0;
  return 1;
}

static void fill(struct block* b, unsigned char mark) {
  b->mark = mark;
  if (b->p != NULL) memset(b->p, mark, b->n);
}

/* Returns the number of failed checks. */
static uintptr_t churn(int id) {
  struct block slot[SLOTS];
  memset(slot, 0, sizeof slot);
  uint32_t s = 977u * (uint32_t)(id + 1);
  uintptr_t failures = 0;
  for (unsigned long i = 0; i < ops; ++i) {
    struct block* b = &slot[rnd(&s) % SLOTS];
    size_t n = 1 + rnd(&s) % 700;
    unsigned char mark = (unsigned char)(1 + (i + (unsigned long)id * 61) % 250);
    if (!intact(b)) ++failures;
    switch (rnd(&s) % 5) {
      case 0:
        free(b->p);
        b->p = malloc(n);
        b->n = n;
        break;
      case 1: {
        unsigned char* q = realloc(b->p, n);
        if (q == NULL) {
          ++failures;
          break;
        }
        /* What survives the move must still carry the old mark. */
        size_t kept = b->p == NULL ? 0 : (b->n < n ? b->n : n);
        for (size_t j = 0; j < kept && j < 16; ++j)
          if (q[j] != b->mark) ++failures;
        b->p = q;
        b->n = n;
        break;
      }
      case 2:
        free(b->p);
        b->p = calloc(1, n);
        b->n = n;
        if (b->p != NULL && (b->p[0] != 0 || b->p[n - 1] != 0)) ++failures;
        break;
      case 3: {
        void* q = NULL;
        free(b->p);
        b->p = posix_memalign(&q, 64, n) == 0 ? q : NULL;
        b->n = n;
        if (((uintptr_t)b->p & 63) != 0) ++failures;
        break;
      }
      default:
        free(b->p);
        b->p = NULL;
        b->n = 0;
    }
    if (b->n != 0 && b->p == NULL) ++failures;
    fill(b, mark);
  }
  for (int k = 0; k < SLOTS; ++k) {
    if (!intact(&slot[k])) ++failures;
    free(slot[k].p);
  }
  return failures;
}

/* Each thread keeps two blocks to the end: the first it makes (7001 + its
 * index bytes), in the race with the agent's start-up, and the last (7011 +
 * its index), made after it. */
struct result {
  uintptr_t failures;
  unsigned char* kept[2];
};

static size_t kept_length(int id, int which) { return (which == 0 ? 7001 : 7011) + (size_t)id; }

static unsigned char* keep(int id, int which) {
  unsigned char* p = malloc(kept_length(id, which));
  if (p != NULL) memset(p, 'a' + id + 8 * which, kept_length(id, which));
  return p;
}

static void* worker(void* arg) {
  int id = (int)(intptr_t)arg;
  while (!__atomic_load_n(&go, __ATOMIC_ACQUIRE)) {
  }
  unsigned char* first = keep(id, 0);
  uintptr_t failures = churn(id);
  struct result* r = malloc(sizeof *r);
  if (r == NULL) return NULL;
  r->failures = failures;
  r->kept[0] = first;
  r->kept[1] = keep(id, 1);
  return r;
}

__attribute__((constructor)) static void start_threads(void) {
  for (int i = 0; i < THREADS; ++i) started[i] = pthread_create(&threads[i], NULL, worker, (void*)(intptr_t)i) == 0;
  __atomic_store_n(&go, 1, __ATOMIC_RELEASE);
}

/* Joins the threads; stores the blocks each one kept (first and last of
 * thread i at 2i and 2i + 1) with their lengths, and returns the number of
 * failures (a thread not started, a failed check, a block missing or
 * changed). */
int ctor_threads_join(void* kept[2 * THREADS], size_t lengths[2 * THREADS]) {
  int failures = 0;
  for (int i = 0; i < THREADS; ++i) {
    void* v = NULL;
    for (int w = 0; w < 2; ++w) {
      kept[2 * i + w] = NULL;
      lengths[2 * i + w] = kept_length(i, w);
    }
    if (!started[i] || pthread_join(threads[i], &v) != 0 || v == NULL) {
      ++failures;
      continue;
    }
    struct result* r = v;
    failures += (int)r->failures;
    for (int w = 0; w < 2; ++w) {
      unsigned char* p = r->kept[w];
      kept[2 * i + w] = p;
      if (p == NULL) {
        ++failures;
        continue;
      }
      for (size_t j = 0; j < kept_length(i, w); ++j)
        if (p[j] != 'a' + i + 8 * w) {
          ++failures;
          break;
        }
    }
    free(r);
  }
  return failures;
}
