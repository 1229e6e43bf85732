// The C++ heap: blocks made and released by new, new[], nothrow new, delete,
// delete[] and a thrown exception's object, each from a site of its own
// (site_* functions). The recorded stack of each starts in the site itself
// for new and delete (the agent's own), and in the C++ library for a thrown
// exception's object (__cxa_allocate_exception: one to three frames). Prints one line per check, as bt_sites does, and
// "bt_sites_cxx: N checks, M failed".
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>

extern "C" {
int btr_init(void);
int btr_block(void* p, int* bt, int* org);
int btr_release(void* p, int* bt, void** start);
int btr_frames(int id, void* const** pcs);
const char* btr_object(const void* pc);
const char* btr_function(const void* pc);
const char* btr_where(const void* pc, char* buf, size_t len);
int btr_check_table(int max_pcs, const char* agent, char* why, size_t len);
}

#define SITE __attribute__((noinline, noclone))
#define KEEP(p) __asm__ volatile("" : : "r"(p) : "memory")

struct Thing {
  long a[12];
};

struct Oops : std::runtime_error {
  explicit Oops(const char* w) : std::runtime_error(w) {}
  long payload[8] = {};
};

extern "C" {
SITE Thing* site_new() { Thing* p = new Thing(); KEEP(p); return p; }
SITE int* site_new_array() { int* p = new int[100](); KEEP(p); return p; }
SITE Thing* site_new_nothrow() { Thing* p = new (std::nothrow) Thing(); KEEP(p); return p; }
SITE void site_delete(Thing* p) { delete p; KEEP(p); }
SITE void site_delete_array(int* p) { delete[] p; KEEP(p); }
SITE void site_throw(int n) {
  KEEP(n);
  throw Oops("thrown from site_throw");
}
}

static int checks, failures;

static void result(const char* name, bool ok, const char* why) {
  ++checks;
  if (ok) {
    std::printf("check %s ok\n", name);
  } else {
    ++failures;
    std::printf("check %s FAIL: %s\n", name, why);
  }
}

// The stack id: between min and 3 frames of the C++ library, then fn.
static void expect_stack(const char* name, int id, int min, const char* fn) {
  char why[600], a[200];
  void* const* pcs;
  int n = btr_frames(id, &pcs);
  if (n <= 0) {
    std::snprintf(why, sizeof why, "id %d holds no frames", id);
    result(name, false, why);
    return;
  }
  int k = 0;
  while (k < n && k < 3 && btr_object(pcs[k]) != nullptr && std::strstr(btr_object(pcs[k]), "libstdc++")) ++k;
  const char* f = k < n ? btr_function(pcs[k]) : nullptr;
  if (k < min || f == nullptr || std::strcmp(f, fn) != 0) {
    std::snprintf(why, sizeof why, "id %d: frame 0 %s, frame %d %s", id, btr_where(pcs[0], a, sizeof a), k,
                  k < n ? btr_where(pcs[k], a + 100, 100) : "(none)");
    result(name, false, why);
    return;
  }
  result(name, true, nullptr);
}

static void expect_block(const char* name, void* p, const char* fn, int min_library_frames = 0) {
  int bt, org;
  if (p == nullptr || !btr_block(p, &bt, &org)) {
    result(name, false, "no live record holds the block");
    return;
  }
  expect_stack(name, bt, min_library_frames, fn);
}

static void expect_release(const char* name, void* p, const char* fn) {
  int bt;
  void* start = nullptr;
  if (!btr_release(p, &bt, &start) || start != p) {
    result(name, false, "no released range starts at the block");
    return;
  }
  expect_stack(name, bt, 0, fn);
}

int main() {
  if (!btr_init()) {
    std::puts("bt_sites_cxx: the agent is not loaded");
    return 2;
  }
  Thing* t = site_new();
  expect_block("new", t, "site_new");
  int* v = site_new_array();
  expect_block("new[]", v, "site_new_array");
  Thing* u = site_new_nothrow();
  expect_block("new-nothrow", u, "site_new_nothrow");
  site_delete(t);
  expect_release("delete", t, "site_delete");
  site_delete_array(v);
  expect_release("delete[]", v, "site_delete_array");
  delete u;
  try {
    site_throw(1);
  } catch (Oops& e) {
    // The object lives inside the block the C++ library made for it.
    expect_block("exception", &e, "site_throw", 1);
  }
  char why[600];
  result("table", btr_check_table(32, "libqmheap", why, sizeof why) > 0, why);
  std::printf("bt_sites_cxx: %d checks, %d failed\n", checks, failures);
  return failures != 0;
}
