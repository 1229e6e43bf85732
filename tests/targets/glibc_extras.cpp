// Heap functions that glibc serves without passing through the seven
// interposed ones (aligned_alloc, pvalloc), or through them on its own
// (reallocarray, strdup, getline, open_memstream), and C++'s over-aligned new.
// Under the agent none of this may raise an event.
#include <malloc.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <new>
#include <vector>

struct alignas(64) Wide {
  char bytes[200];
};

int main() {
  int ok = 1;
  std::vector<void*> blocks;
  for (int i = 0; i < 50; ++i) {
    // Alternate with ordinary blocks so that addresses get reused across kinds.
    void* plain = malloc(48);
    free(plain);
    void* a = aligned_alloc(64, 64 * (1 + i % 5));
    ok &= a != nullptr && reinterpret_cast<uintptr_t>(a) % 64 == 0;
    blocks.push_back(a);
    void* v = pvalloc(100 + i);
    ok &= v != nullptr;
    blocks.push_back(v);
    int* r = static_cast<int*>(reallocarray(nullptr, 10, sizeof(int)));
    r = static_cast<int*>(reallocarray(r, 20 + i, sizeof(int)));
    ok &= r != nullptr && malloc_usable_size(r) >= (20u + i) * sizeof(int);
    blocks.push_back(r);
    Wide* w = new Wide[3];
    w[2].bytes[0] = 1;
    delete[] w;
  }
  // Foreign blocks resized and released through the interposed functions.
  for (size_t i = 0; i < blocks.size(); ++i) {
    if (i % 3 == 0) blocks[i] = realloc(blocks[i], 5000);
    free(blocks[i]);
  }
  char* d = strdup("duplicated");
  ok &= strcmp(d, "duplicated") == 0;
  free(d);
  char* buf = nullptr;
  size_t size = 0;
  FILE* f = open_memstream(&buf, &size);
  fprintf(f, "%s %d", "memstream", 42);
  fclose(f);
  ok &= strcmp(buf, "memstream 42") == 0;
  free(buf);
  printf("glibc_extras: %s\n", ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}
