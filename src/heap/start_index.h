// A side index of a heap table: block start -> record node, by open
// addressing in agent pages. It answers the exact lookups of the operation
// bodies (is there a record that starts here?) without a descent of the
// tree; the tree stays the table a debugger reads, and the index is rebuilt
// from nothing but the tree's own changes. Callers hold the table's lock.
#pragma once
#include <stddef.h>
#include <stdint.h>

namespace qm {

struct StartIndex {
  struct Slot {
    uintptr_t key;  // 0: empty (no record starts at address 0)
    void* node;
  };
  Slot* slots = nullptr;
  size_t mask = 0;  // capacity - 1; capacity is a power of two
  size_t count = 0;
  bool failed = false;  // a growth failed: the index was dropped, ask the tree

  // The node of the record that starts at key, or null.
  void* find(uintptr_t key) const {
    if (slots == nullptr) return nullptr;
    for (size_t i = hash(key) & mask;; i = (i + 1) & mask) {
      if (slots[i].key == key) return slots[i].node;
      if (slots[i].key == 0) return nullptr;
    }
  }
  // Adds or replaces. When no page can be had for growth the index gives up
  // for good (failed), and the caller asks the tree instead.
  void put(uintptr_t key, void* node);
  void erase(uintptr_t key);
  void clear();

  static size_t hash(uintptr_t key) {
    // Blocks start at 8- or 16-byte boundaries: mix the bits above those.
    uint64_t h = static_cast<uint64_t>(key >> 3) * 0x9E3779B97F4A7C15ull;
    return static_cast<size_t>(h >> 20);
  }

 private:
  bool grow();
};

}  // namespace qm
