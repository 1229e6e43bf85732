// Base allocator, the C allocator and the allocator manager.
#include <stdlib.h>

#include "base/export.h"

#include "base/assert.h"
#include "core/binding.h"
#include "core/owners.h"

namespace {

constexpr const char kPlaceholder[] =
    "%s called: this is an error since this\nfunction is a placeholder for a `virtual method' "
    "that\nshould be defined by a `subclass class' of allocator.\nPlease contact Quillmark "
    "Technologies\n";

void* c_calloc(allocator_t*, owner_t*, size_t n, size_t s) { return QM_HEAP_org_calloc(n, s); }
void c_free(allocator_t*, owner_t*, void* p) { QM_HEAP_org_free(p); }
void* c_malloc(allocator_t*, owner_t*, size_t len) { return QM_HEAP_org_malloc(len); }
void* c_memalign(allocator_t*, owner_t*, size_t b, size_t len) { return QM_HEAP_org_memalign(b, len); }
int c_posix_memalign(allocator_t*, owner_t*, void** p, size_t a, size_t len) {
  return QM_HEAP_org_posix_memalign(p, a, len);
}
void* c_realloc(allocator_t*, owner_t*, void* p, size_t len) { return QM_HEAP_org_realloc(p, len); }
void* c_valloc(allocator_t*, owner_t*, size_t len) { return QM_HEAP_org_valloc(len); }

constinit allocator_t c_allocator = {nullptr, 0};
constinit allocator_t* c_allocator_instance = nullptr;

constinit allocator_manager_t am = {};
constinit int am_initialized = 0;

int register_special_allocator(allocator_manager_t* m, allocator_t* a, allocator_id_t id) {
  if (m->num_special_allocators < 1) return -1;
  am_special_allocator_t* empty = nullptr;
  for (int i = 0; i < m->num_special_allocators; ++i) {
    am_special_allocator_t* s = &m->special_allocators[i];
    if (s->id == id) {
      empty = s;
      break;
    }
    if (s->id == 0 && empty == nullptr) empty = s;
  }
  if (empty == nullptr) return -1;
  empty->id = id;
  empty->allocator = a;
  a->id = id;
  return 0;
}

int register_allocator(allocator_manager_t* m, allocator_t* a) {
  if (a == QM_HEAP_c_allocator_get_instance()) return register_special_allocator(m, a, am_id_c_allocator);
  if (a == QM_HEAP_rz_allocator_get_instance()) return register_special_allocator(m, a, am_id_rz_allocator);
  QM_assert(0, "%s.%d: attempt to register unrecognized allocator\n", "../src/generic/allocator_manager.c", 175);
  return -1;
}

}  // namespace

extern "C" {

void* QM_HEAP_allocator_calloc(allocator_t*, owner_t*, size_t, size_t) {
  QM_assert(0, kPlaceholder, "QM_HEAP_allocator_calloc called");
  return nullptr;
}
void QM_HEAP_allocator_free(allocator_t*, owner_t*, void*) {
  QM_assert(0, kPlaceholder, "QM_HEAP_allocator_free called");
}
void* QM_HEAP_allocator_malloc(allocator_t*, owner_t*, size_t) {
  QM_assert(0, kPlaceholder, "QM_HEAP_allocator_malloc called");
  return nullptr;
}
void* QM_HEAP_allocator_memalign(allocator_t*, owner_t*, size_t, size_t) {
  QM_assert(0, kPlaceholder, "QM_HEAP_allocator_memalign called");
  return nullptr;
}
int QM_HEAP_allocator_posix_memalign(allocator_t*, owner_t*, void**, size_t, size_t) {
  QM_assert(0, kPlaceholder, "QM_HEAP_allocator_posix_memalign called");
  return -1;
}
void* QM_HEAP_allocator_realloc(allocator_t*, owner_t*, void*, size_t) {
  QM_assert(0, kPlaceholder, "QM_HEAP_allocator_realloc called");
  return nullptr;
}
void* QM_HEAP_allocator_valloc(allocator_t*, owner_t*, size_t) {
  QM_assert(0, kPlaceholder, "QM_HEAP_allocator_valloc called");
  return nullptr;
}
unsigned QM_HEAP_allocator_batch_malloc(allocator_t*, owner_t*, size_t, void**, unsigned) {
  QM_assert(0, kPlaceholder, "QM_HEAP_allocator_batch_malloc called");
  return 0;
}
void QM_HEAP_allocator_batch_free(allocator_t*, owner_t*, void**, unsigned) {
  QM_assert(0, kPlaceholder, "QM_HEAP_allocator_batch_free called");
}

allocator_id_t QM_HEAP_allocator_get_id(allocator_t* self) {
  QM_assert(self != nullptr, "%s.%d: self is null\n", "../src/generic/allocator.c", 47);
  return self->id;
}

constinit const allocator_ftable_t allocator_ftable = {
    QM_HEAP_allocator_get_id,  QM_HEAP_allocator_calloc,         QM_HEAP_allocator_free,
    QM_HEAP_allocator_malloc,  QM_HEAP_allocator_memalign,       QM_HEAP_allocator_posix_memalign,
    QM_HEAP_allocator_realloc, QM_HEAP_allocator_valloc,         QM_HEAP_allocator_batch_malloc,
    QM_HEAP_allocator_batch_free};

constinit const c_allocator_ftable_t c_allocator_ftable = {
    QM_HEAP_allocator_get_id, c_calloc,  c_free,   c_malloc, c_memalign, c_posix_memalign,
    c_realloc,                c_valloc,  QM_HEAP_allocator_batch_malloc, QM_HEAP_allocator_batch_free};

int QM_HEAP_allocator_constructor(allocator_t* self) {
  self->funcs = &allocator_ftable;
  return 0;
}

allocator_t* QM_HEAP_c_allocator_get_instance() {
  if (QM_LIKELY(c_allocator_instance != nullptr)) return c_allocator_instance;
  QM_HEAP_allocator_constructor(&c_allocator);
  c_allocator.funcs = &c_allocator_ftable;
  QM_assert(1, "%s.%d: error construting c_allocator\n", "../src/generic/c_allocator.c", 170);
  c_allocator_instance = &c_allocator;
  return c_allocator_instance;
}

int QM_HEAP_am_initialize() {
  if (am_initialized) return 0;
  am_initialized = 1;
  am.num_special_allocators = 2;
  am.special_allocators[0] = {0, nullptr};
  am.special_allocators[1] = {0, nullptr};
  register_allocator(&am, QM_HEAP_c_allocator_get_instance());
  register_allocator(&am, QM_HEAP_rz_allocator_get_instance());
  am.next_id = am_id_first_non_special;
  return 0;
}

int QM_HEAP_am_register(allocator_t* a) { return register_allocator(&am, a); }

int QM_HEAP_am_deregister(allocator_id_t) { return -1; }

int QM_HEAP_am_is_valid_id(allocator_id_t id) { return id != 0; }

allocator_t* QM_HEAP_am_get_allocator(allocator_id_t id) {
  if (id == 0 || id > am_id_dmz_allocator) return nullptr;
  for (int i = 0; i < 2; ++i)
    if (am.special_allocators[i].id == id) return am.special_allocators[i].allocator;
  return nullptr;
}

}  // extern "C"
