/* A misbehaving allocator, preloaded after the agent (LD_PRELOAD=agent:this)
 * so that it is the "next" heap the agent binds. Requests of exactly 777
 * bytes misbehave as QM_BAD says: "null" returns NULL, "misalign" returns an
 * address 4 bytes past a real block, "overlap" returns the address of the
 * previous 777-byte block again. Everything else is served normally. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdlib.h>
#include <string.h>

enum { kMagic = 777 };
static void* (*next_malloc)(size_t);
static void* last;

void* malloc(size_t n) {
  if (next_malloc == NULL) next_malloc = (void* (*)(size_t))dlsym(RTLD_NEXT, "malloc");
  const char* mode = n == kMagic ? getenv("QM_BAD") : NULL;
  if (mode == NULL) return next_malloc(n);
  if (strcmp(mode, "null") == 0) return NULL;
  if (strcmp(mode, "misalign") == 0) return (char*)next_malloc(n + 16) + 4;
  if (strcmp(mode, "overlap") == 0) {
    if (last == NULL) last = next_malloc(n);
    return last;
  }
  return next_malloc(n);
}
