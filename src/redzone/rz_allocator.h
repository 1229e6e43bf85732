// The red-zone allocator: every block in a mapping of its own, against
// inaccessible fences, and the classifier that turns a fault in a fence or
// in a released block into an event.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "base/export.h"
#include "core/owners.h"
#include "redzone/rz_controls.h"
#include "qmheap/protection.h"
#include "threads/thread_utils.h"

extern "C" {

// The geometry of a new block, from the controls at the time.
typedef struct rz_settings_t {
  size_t alignment;  // the raw setting: 0 for the default or requested one
  size_t fence_size;
  int want_pre_fence;
  int want_post_fence;
  int want_use_after_free;
  int is_end_aligned;
} rz_settings_t;

typedef enum rz_lookup_method_e { rz_lookup_exact = 0, rz_lookup_region = 1 } rz_lookup_method_e;

typedef struct rz_allocate_arg_t {
  rz_table_t* t;
  QM_HEAP_heap_op_e op;
  int n;
  int zalloc;
  size_t alignment;
  size_t length;
  int need_to_lock;
} rz_allocate_arg_t;

typedef struct rz_deallocate_arg_t {
  rz_table_t* t;
  QM_HEAP_heap_op_e op;
  int n;
  int need_to_lock;
} rz_deallocate_arg_t;

typedef rz_deallocate_arg_t rz_reallocate_arg_t;

extern rz_table_t QM_HEAP_rz_table;
extern QM_pthread_mutex_t QM_HEAP_rz_table_mutex;

allocator_t* QM_HEAP_rz_allocator_get_instance();
void QM_HEAP_rz_atfork_prepare();
void QM_HEAP_rz_atfork_parent();
void QM_HEAP_rz_atfork_child();
}

namespace qm {

// Where a block goes in its mapping. A request is placed by rz_place; the
// mapping is map_len bytes (fences included), the payload starts
// payload_offset bytes into it. An alignment above the page size needs
// map_slack more bytes mapped, from which the aligned start is chosen.
struct RzPlacement {
  size_t alignment;
  size_t aligned_len;
  size_t map_len;
  size_t pre_fence;   // 0 or the fence size
  size_t post_fence;  // 0 or the fence size
  size_t payload_offset;
  size_t map_slack;
  int flags;  // rz_flags_e
};

// The settings for a new block from the controls.
rz_settings_t rz_current_settings();
// alignment: the request's (the default for malloc). False when the sizes
// overflow.
bool rz_place(size_t length, size_t alignment, const rz_settings_t& s, size_t page, RzPlacement* out);
// The payload's offset in a mapping of map_len bytes with the record's
// fences and end alignment, for aligned_len bytes.
size_t rz_payload_offset(size_t map_len, size_t aligned_len, size_t pre_fence, size_t post_fence, bool end_aligned);

// What a fault at addr in the record's mapping means.
QM_HEAP_event_e rz_classify(const rz_record_t& r, uintptr_t addr);

// Whether a request of len bytes goes to the red-zone allocator: one read
// of the switch while red zones are off (every heap call asks).
bool use_rz_allocator_for(size_t len);
inline bool use_rz_allocator(size_t len) {
  return QM_UNLIKELY(QM_HEAP_rz_enabled != 0) && use_rz_allocator_for(len);
}
// p lies in a red-zone mapping, or starts a released red-zone block: never
// an address for the C allocator.
bool rz_owns_address(const void* p);
// The alignment a red-zone block of this request gets: the forced one when
// set, else the request's.
size_t rz_effective_alignment(size_t requested);

// The fault classifier (installed as the SIGSEGV catcher).
void rz_signal_handler(void* addr, int* handled);

}  // namespace qm
