// The hoard: released blocks held back from the allocator, oldest out
// first, within a count and a size limit. Every call is made under the
// allocation table's write lock, which is the hoard's only lock.
#pragma once
#include <stddef.h>

#include "heap/heap_tables.h"
#include "qmheap/events.h"
#include "qmheap/protection.h"

extern "C" {

extern QM_HEAP_hoard_t QM_HEAP_hoard_table;

typedef int (*QM_HEAP_hoard_filter_func_t)(const void* addr, int* stop, int* remove, void* arg);

int QM_HEAP_hoard_insert(allocation_record_t* rec, const alloc_rec_id_t id);
int QM_HEAP_hoard_trim_to_size_constraints();
int QM_HEAP_hoard_remove_blocks(int num_to_remove, size_t* new_size);
int QM_HEAP_hoard_filter_contents(QM_HEAP_hoard_filter_func_t f, void* arg);
}

namespace qm {

// Events the hoard found under the table lock, handed to the operation that
// made the call, which raises them once the lock is released. Returns how
// many were copied (at most max); the rest are dropped.
int take_hoard_events(QM_HEAP_event_info_t* out, int max);

// Hoarding a block painted with pattern on its release: the paint is
// checked when the block leaves the hoard, and a write into it reported.
void hoard_note_painted(const void* addr, int pattern);

}  // namespace qm
