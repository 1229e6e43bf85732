// The red-zone allocator's object. Until it serves blocks of its own it is a
// base allocator: registered as allocator 2, never chosen to serve a request.
#include "base/export.h"
#include "core/owners.h"

namespace {
constinit allocator_t rz_allocator = {nullptr, 0};
constinit allocator_t* rz_allocator_instance = nullptr;
}  // namespace

extern "C" allocator_t* QM_HEAP_rz_allocator_get_instance() {
  if (QM_LIKELY(rz_allocator_instance != nullptr)) return rz_allocator_instance;
  QM_HEAP_allocator_constructor(&rz_allocator);
  rz_allocator_instance = &rz_allocator;
  return rz_allocator_instance;
}
