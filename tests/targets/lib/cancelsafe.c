/* A heap whose seven functions are async-cancel-safe: each forwards to the
 * C library's with deferred cancellation, disabled, and restores the
 * caller's type and state afterwards, where a cancellation that came
 * meanwhile acts (so it ends the thread after the operation, never inside the
 * C library's allocator, which may not be interrupted: a thread cancelled
 * there can leave an arena locked). Disabling alone is not enough: the
 * signal of a request made while the thread was asynchronous may arrive
 * after it disabled cancellation, and some C libraries then act on the type
 * alone. Preloaded after the agent (LD_PRELOAD=agent:this) it is the "next"
 * heap the agent binds, and a program may then call the heap with
 * asynchronous cancellation enabled, with or without the agent. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <stddef.h>

static void* next(void** cache, const char* name) {
  void* f = __atomic_load_n(cache, __ATOMIC_ACQUIRE);
  if (f == NULL) {
    f = dlsym(RTLD_NEXT, name);
    __atomic_store_n(cache, f, __ATOMIC_RELEASE);
  }
  return f;
}

#define BLOCKED(decl, call)                                \
  int type_, state_, ignored_;                             \
  pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type_);  \
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state_); \
  decl = call;                                             \
  pthread_setcancelstate(state_, &ignored_);               \
  pthread_setcanceltype(type_, &ignored_)

static void* next_malloc;
void* malloc(size_t n) {
  BLOCKED(void* r, ((void* (*)(size_t))next(&next_malloc, "malloc"))(n));
  return r;
}

static void* next_calloc;
void* calloc(size_t n, size_t size) {
  BLOCKED(void* r, ((void* (*)(size_t, size_t))next(&next_calloc, "calloc"))(n, size));
  return r;
}

static void* next_realloc;
void* realloc(void* p, size_t n) {
  BLOCKED(void* r, ((void* (*)(void*, size_t))next(&next_realloc, "realloc"))(p, n));
  return r;
}

static void* next_free;
void free(void* p) {
  BLOCKED(int r, (((void (*)(void*))next(&next_free, "free"))(p), 0));
  (void)r;
}

static void* next_memalign;
void* memalign(size_t alignment, size_t n) {
  BLOCKED(void* r, ((void* (*)(size_t, size_t))next(&next_memalign, "memalign"))(alignment, n));
  return r;
}

static void* next_posix_memalign;
int posix_memalign(void** p, size_t alignment, size_t n) {
  BLOCKED(int r, ((int (*)(void**, size_t, size_t))next(&next_posix_memalign, "posix_memalign"))(p, alignment, n));
  return r;
}

static void* next_valloc;
void* valloc(size_t n) {
  BLOCKED(void* r, ((void* (*)(size_t))next(&next_valloc, "valloc"))(n));
  return r;
}
