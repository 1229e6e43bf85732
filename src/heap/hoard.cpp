// The hoard: an index-linked queue of released blocks in agent pages, with
// a free list of entries, grown geometrically and never shrunk.
#include "heap/hoard.h"

#include <stdint.h>

#include "base/assert.h"
#include "base/export.h"
#include "base/memory_manager.h"
#include "base/page.h"
#include "core/binding.h"
#include "core/owners.h"
#include "heap/controls.h"
#include "heap/guards.h"

extern "C" {
QM_EXPORT constinit QM_HEAP_hoard_t QM_HEAP_hoard_table = {};
}

namespace {

constexpr const char kFile[] = "../src/generic/hoard";
constexpr size_t kDoublingLimit = 0x40000;  // grow by doubling up to 256 KiB, then by 256 KiB

QM_HEAP_hoard_t& h = QM_HEAP_hoard_table;

// Per entry, beside the defined array: the deallocation pattern a block
// was painted with on release (bit 32 set), so that its leaving can tell
// whether the program wrote into it meanwhile.
constinit uint64_t* paint_marks = nullptr;
constinit size_t paint_marks_size = 0;
constexpr uint64_t kPainted = uint64_t{1} << 32;

// Events found under the table lock; the operation raises them after it.
constexpr int kMaxPending = 8;
constinit QM_HEAP_event_info_t pending[kMaxPending] = {};
constinit int num_pending = 0;

QM_HEAP_event_info_t* new_event(QM_HEAP_event_e e, QM_HEAP_heap_op_e op) {
  if (num_pending == kMaxPending) return nullptr;
  QM_HEAP_event_info_t* x = &pending[num_pending++];
  *x = QM_HEAP_event_info_t{};
  x->event = e;
  x->op = op;
  return x;
}

long size_bytes() { return static_cast<long>(QM_HEAP_hoard_kb) * 1024 + QM_HEAP_hoard_bytes; }
void set_size_bytes(long bytes) {
  QM_HEAP_hoard_kb = static_cast<int>(bytes / 1024);
  QM_HEAP_hoard_bytes = static_cast<int>(bytes % 1024);
}

int grow_hoard_table(int wanted) {
  const size_t entry = sizeof(QM_HEAP_hoard_block_t);
  size_t size;
  if (wanted > 0) size = (static_cast<size_t>(wanted) + 1) * entry;
  else if (h.region == nullptr) size = QM_getpagesize();
  else if (h.region_size <= kDoublingLimit) size = h.region_size * 2;
  else size = h.region_size + kDoublingLimit;
  if (h.region != nullptr && size <= h.region_size) size = h.region_size + QM_getpagesize();
  size = QM_pagesize_ceil(size);
  auto* fresh = static_cast<QM_HEAP_hoard_block_t*>(QM_page_alloc(size, mmt_hia_hoard_blocks));
  if (fresh == nullptr) return -1;
  int capacity = static_cast<int>(size / entry);
  size_t marks_size = QM_pagesize_ceil(static_cast<size_t>(capacity) * sizeof(uint64_t));
  auto* marks = static_cast<uint64_t*>(QM_page_alloc(marks_size, mmt_hia_hoard_blocks));
  if (marks == nullptr) {
    QM_page_dealloc(fresh);
    return -1;
  }
  const int old = h.blocks_capacity;
  const int first = old > 0 ? old : 1;
  for (int i = first; i < capacity; ++i) {
    fresh[i] = QM_HEAP_hoard_block_t{nullptr, nullptr, SIZE_MAX, i + 1 < capacity ? i + 1 : h.free, 0};
    marks[i] = 0;
  }
  if (h.region != nullptr) {
    QM_assert(h.blocks == h.region, "grow_hoard_table: region and blocks do not agree (../src/generic/hoard)\n");
    __builtin_memcpy(fresh, h.blocks, static_cast<size_t>(old) * entry);
    __builtin_memcpy(marks, paint_marks, static_cast<size_t>(old) * sizeof(uint64_t));
    QM_assert(QM_page_dealloc(h.region) == 0, "problem releasing memory for hoard blocks\n(%s.%d)\n", kFile, __LINE__);
    QM_page_dealloc(paint_marks);
  }
  fresh[0] = QM_HEAP_hoard_block_t{nullptr, nullptr, SIZE_MAX, 0, 0};
  marks[0] = 0;
  h.free = first < capacity ? first : h.free;
  h.region = fresh;
  h.blocks = fresh;
  h.region_size = size;
  h.blocks_capacity = capacity;
  paint_marks = marks;
  paint_marks_size = marks_size;
  return 0;
}

// Hands one entry's block back to its allocator. The deallocation record
// stays: the block is still known as released.
int remove_block(int pos) {
  QM_HEAP_hoard_block_t& b = h.blocks[pos];
  int result = 0;
  allocation_record_t rec = {};
  owner_t* owner = nullptr;
  allocator_t* al = nullptr;
  alloc_rec_id_t id = QM_HEAP_lookup_deallocation_record(b.addr, &rec, exact);
  if (id != nullptr) {
    if (QM_HEAP_clear_dealloc_flags_by_id(id, af_hoarded) != 0)
      if (auto* e = new_event(qm_heap_event_modification_error, qm_heap_op_private_hoard_remove))
        e->allocation_record = rec;
    owner = QM_HEAP_om_get_owner(rec.owner_id);
    al = QM_HEAP_am_get_allocator(rec.allocator_id);
    // A block painted on release must still hold the paint: anything else
    // was written through a pointer the program kept to it.
    uint64_t mark = paint_marks[pos];
    if ((mark & kPainted) != 0 && rec.addr == b.addr && rec.len >= b.len &&
        !qm::intact_anchored(b.addr, b.len, static_cast<uint32_t>(mark), 4)) {
      if (auto* e = new_event(qm_heap_event_guard_corruption, qm_heap_op_private_hoard_remove)) {
        e->allocation_record = rec;
        e->allocation_record.flags = rec.flags & ~af_hoarded;
        e->len = b.len;
      }
    }
  } else {
    if (auto* e = new_event(qm_heap_event_record_not_found, qm_heap_op_private_hoard_remove)) e->addr = b.addr;
    result = -1;
  }
  void* base = const_cast<void*>(b.alloc_addr);
  if (al != nullptr && owner != nullptr) al->funcs->free(al, owner, base);
  else QM_HEAP_org_free(base);
  if (owner != nullptr) owner->funcs->inc_num_in_hoard(owner, -1);

  set_size_bytes(size_bytes() - static_cast<long>(b.len));
  QM_HEAP_hoard_num_blocks = QM_HEAP_hoard_num_blocks - 1;
  if (b.prev != 0) h.blocks[b.prev].next = b.next;
  else {
    QM_assert(h.front == pos, "%s.%d: hoard entry is not at front as expected\n", kFile, __LINE__);
    h.front = b.next;
  }
  if (b.next != 0) h.blocks[b.next].prev = b.prev;
  else {
    QM_assert(h.back == pos, "%s.%d: hoard entry is not at back as expected\n", kFile, __LINE__);
    h.back = b.prev;
  }
  b = QM_HEAP_hoard_block_t{nullptr, nullptr, SIZE_MAX, h.free, 0};
  paint_marks[pos] = 0;
  h.free = pos;
  return result;
}

bool over_limits() {
  const int max_blocks = QM_HEAP_hoard_max_num_blocks;
  const long max_bytes = static_cast<long>(QM_HEAP_hoard_max_kb) * 1024;
  return (max_blocks > 0 && max_blocks < QM_HEAP_hoard_num_blocks) || (max_bytes > 0 && max_bytes < size_bytes());
}

int trim_to_size_constraints() {
  int result = 0;
  while (QM_HEAP_hoard_num_blocks > 0 && result == 0 && over_limits()) result = remove_block(h.front);
  return result;
}

int insert_block(const allocation_record_t* rec, alloc_rec_id_t id) {
  owner_t* owner = QM_HEAP_om_get_owner(rec->owner_id);
  QM_assert(owner != nullptr, "%s.%d: error getting owner for record in insert_block\n", kFile, __LINE__);
  if (h.free == 0) {
    if (grow_hoard_table(QM_HEAP_hoard_max_num_blocks) != 0) return -1;
    QM_assert(h.free != 0, "insert_block: hoard->free is 0 after grow_hoard_table (../src/generic/hoard)\n");
  }
  int pos = h.free;
  QM_HEAP_hoard_block_t& b = h.blocks[pos];
  h.free = b.next;
  b.addr = rec->addr;
  b.alloc_addr = QM_HEAP_ht_get_alloc_base_addr(rec);
  b.len = rec->len;
  b.next = 0;
  b.prev = h.back;
  paint_marks[pos] = 0;
  if (h.back != 0) h.blocks[h.back].next = pos;
  else h.front = pos;
  h.back = pos;
  QM_HEAP_hoard_num_blocks = QM_HEAP_hoard_num_blocks + 1;
  set_size_bytes(size_bytes() + static_cast<long>(rec->len));
  if (QM_HEAP_set_dealloc_flags_by_id(id, af_hoarded) != 0)
    if (auto* e = new_event(qm_heap_event_modification_error, qm_heap_op_private_hoard_insert))
      e->allocation_record = *rec;
  owner->funcs->inc_num_in_hoard(owner, 1);
  return 0;
}

}  // namespace

extern "C" {

int QM_HEAP_hoard_insert(allocation_record_t* rec, const alloc_rec_id_t id) {
  if (!QM_HEAP_hoard_supported) return 0;
  // A removal that finds no deallocation record raises its event and still
  // releases the block: only the agent's own lists can fail here.
  if (h.region != nullptr && QM_HEAP_hoard_max_num_blocks > 0 && QM_HEAP_hoard_num_blocks >= QM_HEAP_hoard_max_num_blocks)
    remove_block(h.front);
  QM_assert(insert_block(rec, id) == 0, "insert_into_hoard_table: error inserting new entry (../src/generic/hoard)\n");
  trim_to_size_constraints();
  return 0;
}

int QM_HEAP_hoard_trim_to_size_constraints() {
  if (QM_HEAP_hoard_num_blocks == 0) return 0;
  trim_to_size_constraints();
  return 0;
}

int QM_HEAP_hoard_remove_blocks(int num_to_remove, size_t* new_size) {
  if (!QM_HEAP_hoard_supported) return -1;
  int removed = 0;
  while (removed < num_to_remove && QM_HEAP_hoard_num_blocks > 0) {
    remove_block(h.front);
    ++removed;
  }
  if (new_size != nullptr) *new_size = static_cast<size_t>(size_bytes());
  return removed;
}

int QM_HEAP_hoard_filter_contents(QM_HEAP_hoard_filter_func_t f, void* arg) {
  int stop = 0, remove = 0, r = 0;
  for (int pos = h.front; pos != 0 && !stop;) {
    int next = h.blocks[pos].next;
    r = f(h.blocks[pos].addr, &stop, &remove, arg);
    if (r != 0) break;
    if (remove) remove_block(pos);
    pos = next;
  }
  return r;
}

}  // extern "C"

namespace qm {

int take_hoard_events(QM_HEAP_event_info_t* out, int max) {
  int n = num_pending < max ? num_pending : max;
  for (int i = 0; i < n; ++i) out[i] = pending[i];
  num_pending = 0;
  return n;
}

void hoard_note_painted(const void* addr, int pattern) {
  if (h.back != 0 && h.blocks[h.back].addr == addr)
    paint_marks[h.back] = kPainted | static_cast<uint32_t>(pattern);
}

}  // namespace qm
