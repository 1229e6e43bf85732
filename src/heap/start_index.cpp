#include "heap/start_index.h"

#include "base/memory_manager.h"

namespace qm {

namespace {
constexpr size_t kFirstCapacity = 4096;
}

bool StartIndex::grow() {
  const size_t cap = slots == nullptr ? kFirstCapacity : (mask + 1) * 2;
  auto* fresh = static_cast<Slot*>(QM_page_alloc(cap * sizeof(Slot), mmt_hia_heap_avl_nodes));
  if (fresh == nullptr) return false;
  Slot* old = slots;
  const size_t old_cap = old != nullptr ? mask + 1 : 0;
  slots = fresh;  // pages come zeroed: every slot empty
  mask = cap - 1;
  count = 0;
  for (size_t i = 0; i < old_cap; ++i) {
    if (old[i].key == 0) continue;
    size_t j = hash(old[i].key) & mask;
    while (slots[j].key != 0) j = (j + 1) & mask;
    slots[j] = old[i];
    ++count;
  }
  if (old != nullptr) QM_page_dealloc(old);
  return true;
}

void StartIndex::put(uintptr_t key, void* node) {
  if (failed) return;
  // At most 70% full: probe runs stay within a line or two, and the index
  // costs 23 to 46 bytes a record on x86-64 (half that on i386).
  if ((count + 1) * 10 > (slots != nullptr ? mask + 1 : 0) * 7 && !grow()) {
    clear();
    failed = true;
    return;
  }
  for (size_t i = hash(key) & mask;; i = (i + 1) & mask) {
    if (slots[i].key == key) {
      slots[i].node = node;
      return;
    }
    if (slots[i].key == 0) {
      slots[i] = {key, node};
      ++count;
      return;
    }
  }
}

// Linear probing without tombstones: the entries after the hole that would
// no longer be found move back into it.
void StartIndex::erase(uintptr_t key) {
  if (slots == nullptr) return;
  size_t i = hash(key) & mask;
  while (slots[i].key != key) {
    if (slots[i].key == 0) return;
    i = (i + 1) & mask;
  }
  for (size_t j = (i + 1) & mask; slots[j].key != 0; j = (j + 1) & mask) {
    const size_t home = hash(slots[j].key) & mask;
    // Move j into the hole at i unless its home lies cyclically in (i, j].
    const bool stays = i <= j ? (i < home && home <= j) : (i < home || home <= j);
    if (!stays) {
      slots[i] = slots[j];
      i = j;
    }
  }
  slots[i] = {0, nullptr};
  --count;
}

void StartIndex::clear() {
  if (slots != nullptr) QM_page_dealloc(slots);
  slots = nullptr;
  mask = 0;
  count = 0;
}

}  // namespace qm
