/* Makes one heap mistake, named by the argument, and says what the C library
 * gave back. The mistakes that glibc itself detects end the program as they
 * would without the agent.
 *   free-unknown realloc-unknown free-middle realloc-middle double-free
 *   double-realloc bad-alignment bad-allocator leak notify
 * ("notify" stops in checkpoint(), where a debugger may mark the block.) */
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static char not_heap[64] __attribute__((aligned(16)));

__attribute__((noinline)) void checkpoint(void* block) { __asm__ volatile("" ::"r"(block) : "memory"); }

int main(int argc, char** argv) {
  const char* what = argc > 1 ? argv[1] : "";
  setvbuf(stdout, NULL, _IONBF, 0);
  char* p = malloc(40);
  if (strcmp(what, "free-unknown") == 0) {
    free(not_heap + 16);
  } else if (strcmp(what, "realloc-unknown") == 0) {
    p = realloc(not_heap + 16, 10);
  } else if (strcmp(what, "free-middle") == 0) {
    free(p + 8);
  } else if (strcmp(what, "realloc-middle") == 0) {
    p = realloc(p + 8, 100);
  } else if (strcmp(what, "double-free") == 0) {
    free(p);
    free(p);
  } else if (strcmp(what, "double-realloc") == 0) {
    free(p);
    p = realloc(p, 100);
  } else if (strcmp(what, "bad-alignment") == 0) {
    void* q = memalign(24, 64);
    void* r = NULL;
    int e = posix_memalign(&r, 12, 64);
    printf("memalign %s, posix_memalign %d\n", q != NULL ? "block" : "null", e);
    free(q);
  } else if (strcmp(what, "bad-allocator") == 0) {
    void* a = malloc(777);
    void* b = malloc(777);
    printf("bad allocator: %s %s\n", a != NULL ? "block" : "null", b != NULL ? "block" : "null");
    return 0;
  } else if (strcmp(what, "notify") == 0) {
    checkpoint(p);
    p = realloc(p, 20); /* shrinks in place */
    free(p);
    puts("heap_errors: notified");
    return 0;
  } else if (strcmp(what, "leak") == 0) {
    void* q = calloc(3, 100);
    void* r = realloc(NULL, 24);
    printf("leaking %p %p\n", q, r);
    return 0;
  }
  free(p);
  puts("heap_errors: survived");
  return 0;
}
