// Every way into the allocator, C and C++, used correctly ("ok"), and each
// way of releasing a block with a function of another family, once.
//   families ok | MISMATCH | leaks | edges | wild | protnone
#include <dlfcn.h>
#include <errno.h>
#include <malloc.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <cstdio>
#include <map>
#include <memory>
#include <new>
#include <string>
#include <vector>

struct alignas(64) Wide {
  char c[100];
};
struct Counted {
  int x = 1;
  ~Counted() { x = 0; }
};

#define KEEP(p) __asm__ volatile("" : : "r"(p) : "memory")

template <typename T>
T* keep(T* p) {
  KEEP(p);
  return p;
}

// Blocks never released, from two places.
__attribute__((noinline)) void* leak_big() { return keep(malloc(5000)); }
__attribute__((noinline)) void* leak_small() { return keep(new char[100]); }

static int ok() {
  // The C functions beyond the seven.
  void* a = aligned_alloc(64, 256);
  void* pv = pvalloc(100);
  void* ra = reallocarray(nullptr, 10, 10);
  ra = reallocarray(ra, 300, 10);
  if (reallocarray(ra, SIZE_MAX / 2, 4) != nullptr) return 1;  // overflow: ENOMEM, ra untouched
  if (((uintptr_t)a % 64) != 0 || ((uintptr_t)pv % 4096) != 0 || malloc_usable_size(pv) < 4096) return 2;
  free(a);
  free(pv);
  free(ra);
  // The C library's own names, as a program that knows them calls them.
  using m_fn = void* (*)(size_t);
  using f_fn = void (*)(void*);
  auto lm = (m_fn)dlsym(RTLD_DEFAULT, "__libc_malloc");
  auto lf = (f_fn)dlsym(RTLD_DEFAULT, "__libc_free");
  auto lma = (void* (*)(size_t, size_t))dlsym(RTLD_DEFAULT, "__libc_memalign");
  void* l1 = lm(40);
  void* l2 = lma(128, 40);
  free(l1);
  lf(l2);
  // C++: every form of new with its own delete.
  Wide* w = keep(new Wide);
  delete w;
  Wide* wa = keep(new Wide[3]);
  delete[] wa;
  Counted* c = keep(new Counted[4]);  // with an array cookie
  delete[] c;
  int* i = keep(new int(3));
  delete i;
  int* n = keep(new (std::nothrow) int[5]);
  delete[] n;
  Wide* wn = keep(new (std::nothrow) Wide);
  delete wn;
  void* raw = ::operator new(24);
  ::operator delete(raw, 24);  // sized
  void* rawa = ::operator new(48, std::align_val_t(128));
  ::operator delete(rawa, 48, std::align_val_t(128));  // sized aligned
  void* rawn = ::operator new[](16, std::align_val_t(32), std::nothrow);
  ::operator delete[](rawn, std::align_val_t(32), std::nothrow);
  // Containers and smart pointers, over-aligned ones among them.
  std::vector<Wide> v(10);
  std::map<std::string, std::vector<int>> m;
  for (int k = 0; k < 200; ++k) m[std::to_string(k)].push_back(k);
  auto up = std::make_unique<Wide[]>(7);
  auto sp = std::make_shared<Wide>();
  KEEP(up.get());
  KEEP(sp.get());
  std::puts("ok");
  return 0;
}

int main(int argc, char** argv) {
  const std::string w = argc > 1 ? argv[1] : "ok";
  if (w == "ok") return ok();
  if (w == "new-free") free(keep(new int));
  else if (w == "new[]-free") free(keep(new int[4]));
  else if (w == "new[]-delete") delete keep(new int[4]);
  else if (w == "malloc-delete") delete keep((int*)malloc(4));
  else if (w == "malloc-delete[]") delete[] keep((int*)malloc(4));
  else if (w == "new-delete[]") delete[] keep(new int);
  else if (w == "new-realloc") free(realloc(keep(new int), 64));
  else if (w == "aligned-delete") ::operator delete(keep(new Wide));
  else if (w == "sized-delete") ::operator delete(keep(::operator new(24)), 16);
  else if (w == "leaks") {
    leak_big();
    for (volatile int k = 0; k < 3; k = k + 1) leak_small();  // one call site
  } else if (w == "edges") {
    // The C contract's failures, each answered as the C library answers.
    void* p = nullptr;
    std::printf("posix_memalign %d\n", posix_memalign(&p, 64, SIZE_MAX - 100));
    errno = 0;
    void* c = calloc(SIZE_MAX / 2, 4);
    std::printf("calloc %s %s\n", c == nullptr ? "null" : "block", errno == ENOMEM ? "ENOMEM" : "?");
    void* r = realloc(keep(malloc(10)), 0);
    std::printf("realloc to 0 %s\n", r == nullptr ? "null" : "block");
  } else if (w == "wild") {
    // A pointer that looks like a block of the allocator's but is none: a
    // chunk header of 32 bytes in use before it, another after.
    alignas(32) static size_t fake[32];
    char* user = reinterpret_cast<char*>(fake) + 16;
    reinterpret_cast<size_t*>(user)[-1] = 0x21;
    reinterpret_cast<size_t*>(user + 32)[-1] = 0x21;
    free(user);
  } else if (w == "protnone") {
    char* page = (char*)mmap(nullptr, 8192, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    std::fflush(stdout);
    free(page + 4096 + 16);
  } else {
    return 2;
  }
  std::puts("done");
  return 0;
}
