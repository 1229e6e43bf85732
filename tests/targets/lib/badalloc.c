/* A misbehaving allocator, preloaded after the agent (LD_PRELOAD=agent:this)
 * so that it is the "next" heap the agent binds. Requests of exactly 777
 * bytes misbehave as QM_BAD says: "null" returns NULL, "misalign" returns an
 * address 4 bytes past a real block, "overlap" returns the address of the
 * previous 777-byte block again. With QM_BAD=once, a second free of a block
 * (before it is allocated again) is swallowed, so that a program may free a
 * block twice without the C library stopping it. Everything else is served
 * normally. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

enum { kMagic = 777 };
static void* (*next_malloc)(size_t);
static void* last;
static void forget(void* p);

void* malloc(size_t n) {
  if (next_malloc == NULL) next_malloc = (void* (*)(size_t))dlsym(RTLD_NEXT, "malloc");
  const char* mode = n == kMagic ? getenv("QM_BAD") : NULL;
  if (mode == NULL) {
    void* p = next_malloc(n);
    forget(p);
    return p;
  }
  if (strcmp(mode, "null") == 0) return NULL;
  if (strcmp(mode, "misalign") == 0) return (char*)next_malloc(n + 16) + 4;
  if (strcmp(mode, "overlap") == 0) {
    if (last == NULL) last = next_malloc(n);
    return last;
  }
  return next_malloc(n);
}

static void (*next_free)(void*);
static void* freed[256];
static int freed_lock;

/* Whether p was freed already (and remembers it when not). */
static int seen_before(void* p) {
  while (__atomic_exchange_n(&freed_lock, 1, __ATOMIC_ACQUIRE)) {
  }
  int seen = 0, slot = -1;
  for (int i = 0; i < 256; ++i) {
    if (freed[i] == p) seen = 1;
    if (freed[i] == NULL && slot < 0) slot = i;
  }
  if (!seen && slot >= 0) freed[slot] = p;
  __atomic_store_n(&freed_lock, 0, __ATOMIC_RELEASE);
  return seen;
}

static void forget(void* p) {
  while (__atomic_exchange_n(&freed_lock, 1, __ATOMIC_ACQUIRE)) {
  }
  for (int i = 0; i < 256; ++i)
    if (freed[i] == p) freed[i] = NULL;
  __atomic_store_n(&freed_lock, 0, __ATOMIC_RELEASE);
}

void free(void* p) {
  if (next_free == NULL) next_free = (void (*)(void*))dlsym(RTLD_NEXT, "free");
  const char* mode = getenv("QM_BAD");
  if (p != NULL && mode != NULL && strcmp(mode, "once") == 0 && seen_before(p)) return;
  next_free(p);
}
