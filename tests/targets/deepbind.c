/* Opens a library with RTLD_DEEPBIND and moves blocks across it in both
 * directions: made on one side, resized and released on the other.
 *   deepbind LIB      the blocks, then "ok"
 *   deepbind null     a deep-bound dlopen of the program itself */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

int main(int argc, char** argv) {
  if (argc > 1 && strcmp(argv[1], "null") == 0) {
    void* self = dlopen(NULL, RTLD_NOW | RTLD_DEEPBIND);
    printf("%s\n", self != NULL ? "ok null" : dlerror());
    return self == NULL;
  }
  void* h = dlopen(argc > 1 ? argv[1] : "libqmdeep.so", RTLD_NOW | RTLD_DEEPBIND);
  if (h == NULL) {
    printf("dlopen: %s\n", dlerror());
    return 1;
  }
  void* (*deep_malloc)(size_t) = (void* (*)(size_t))dlsym(h, "deep_malloc");
  void (*deep_free)(void*) = (void (*)(void*))dlsym(h, "deep_free");
  void* (*deep_realloc)(void*, size_t) = (void* (*)(void*, size_t))dlsym(h, "deep_realloc");
  char* (*deep_strdup)(const char*) = (char* (*)(const char*))dlsym(h, "deep_strdup");
  for (int i = 0; i < 2000; ++i) {
    char* a = deep_malloc(16 + i % 200); /* made inside, released outside */
    a[0] = 1;
    free(a);
    char* b = malloc(24 + i % 100); /* made outside, resized and released inside */
    b = deep_realloc(b, 300);
    deep_free(b);
    char* c = deep_strdup("across the boundary");
    c = realloc(c, 64);
    deep_free(c);
  }
  printf("ok\n");
  return 0;
}
