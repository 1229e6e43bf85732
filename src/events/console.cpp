// The long console report of each event. Op names are left-aligned in a
// column of 13; every call of QM_HEAP_printf bears the prefix, so only the
// first line of a multi-line format does.
#include <stdint.h>

// The agent's formatter gives "#" and "0" a meaning for %p that printf lacks.
#pragma GCC diagnostic ignored "-Wformat"

#include "base/assert.h"
#include "events/events.h"
#include "events/output.h"

extern "C" void QM_HEAP_rz_dump_rz_record(const rz_record_t* rec);

namespace {

constexpr int kOpWidth = 13;
constexpr int kPtrWidth = 10;
constexpr const char kNote[] =
    "(this may indicate that the application is not synchronizing its heap operations correctly)";

void block_line(const void* start, size_t len) {
  QM_HEAP_printf("%0#*p--%0#*p  %*ld [%0#lx]\n", kPtrWidth, start, kPtrWidth,
                 static_cast<const char*>(start) + len, 11, static_cast<long>(len),
                 static_cast<unsigned long>(len));
}

void record_line(const allocation_record_t& r) { block_line(r.addr, r.len); }
void original_line(const allocation_record_t& r) { block_line(r.org_addr, r.org_len); }

}  // namespace

extern "C" void QM_HEAP_console_notify(const QM_HEAP_event_info_t* e) {
  const char* op = QM_HEAP_get_op_name(e->op);
  const int w = kOpWidth;
  const int pw = kPtrWidth;
  const unsigned long len = e->len;
  const unsigned long al = e->alignment;
  const allocation_record_t& r = e->allocation_record;
  switch (static_cast<int>(e->event)) {
    case qm_heap_event_none:
    case qm_heap_event_alloc_not_in_heap:
      break;
    case qm_heap_event_free_not_allocated:
    case qm_heap_event_realloc_not_allocated:
      QM_HEAP_printf("%-*s: address does not match any allocated block:  %#*p\n", w, op, pw, e->addr);
      break;
    case qm_heap_event_addr_not_at_start:
      QM_HEAP_printf("%-*s: address is not the start of an allocated block:\n", w, op);
      record_line(r);
      QM_HEAP_printf("%-*s:   address:  %#*p\n", w, op, pw, e->addr);
      if (e->op == qm_heap_op_realloc || e->op == qm_heap_op_malloc_zone_realloc)
        QM_HEAP_printf("%-*s:   requested length: %lu (%#lx)\n", w, op, len, len);
      break;
    case qm_heap_event_double_alloc:
      QM_HEAP_printf("%-*s: memory manager returned the address of an already allocated block:\n%-*s:   existing block:",
                     w, op, w, op);
      record_line(r);
      QM_HEAP_printf("%-*s:   returned address:  %#*p\n%-*s:   requested length: %lu (%#lx)\n", w, op, pw, e->addr,
                     w, op, len, len);
      break;
    case qm_heap_event_alloc_null:
      QM_HEAP_printf("%-*s: null returned for allocation request: %lu (%#lx)\n", w, op, len, len);
      break;
    case qm_heap_event_alloc_returned_bad_alignment:
      QM_HEAP_printf(
          "%-*s: returned block does not have expected alignment\n%-*s: returned address:   %#*p\n%-*s: requested "
          "length:   %lu (%#lx)\n%-*s: expected alignment: %lu (%#lx)\n",
          w, op, w, op, pw, e->addr, w, op, len, len, w, op, al, al);
      break;
    case qm_heap_event_bad_alignment_argument:
      QM_HEAP_printf("%-*s: bad alignment argument received (%d)\n", w, op, static_cast<int>(e->alignment));
      break;
    case qm_heap_event_op_in_progress:
      QM_HEAP_printf(
          "%-*s: attempting an operation on a block whilst another operation on the same block is in progress %s\n",
          w, op, kNote);
      record_line(r);
      break;
    case qm_heap_event_alloc_added_during_op:
      QM_HEAP_printf("%-*s: an allocation record was added whilst this operation was in progress %s\n", w, op, kNote);
      record_line(r);
      break;
    case qm_heap_event_alloc_deleted_during_op:
      QM_HEAP_printf(
          "%-*s: an allocation record for a block was deleted whilst an operation on it was in progress %s\n", w, op,
          kNote);
      record_line(r);
      break;
    case qm_heap_event_alloc_changed_during_op:
      QM_HEAP_printf(
          "%-*s: an allocation record for a block was changed whilst an operation on it was in progress %s\n", w, op,
          kNote);
      QM_HEAP_printf("%-*s: original record for the operation\n", w, op);
      record_line(r);
      QM_HEAP_printf("%-*s: record found\n", w, op);
      record_line(e->allocation_record_2);
      break;
    case qm_heap_event_dealloc_notification:
      QM_HEAP_printf("%-*s: deallocation notification\n", w, op);
      record_line(r);
      break;
    case qm_heap_event_realloc_notification:
      QM_HEAP_printf("%-*s: reallocation notification\n", w, op);
      record_line(r);
      QM_HEAP_printf("%-*s: requested length:   %lu (%#lx)\n", w, op, len, len);
      break;
    case qm_heap_event_deletion_error:
      QM_HEAP_printf("%-*s: allocation record deletion error\n", w, op);
      record_line(r);
      break;
    case qm_heap_event_insertion_error:
      QM_HEAP_printf("%-*s: allocation record insertion error\n", w, op);
      record_line(r);
      break;
    case qm_heap_event_modification_error:
      QM_HEAP_printf("%-*s: allocation record modification error\n", w, op);
      record_line(r);
      break;
    case qm_heap_event_record_not_found:
      QM_HEAP_printf("%-*s: allocation record not found when expected\n", w, op);
      QM_HEAP_printf("%-*s:   address:  %#*p\n", w, op, pw, e->addr);
      break;
    case qm_heap_event_startup_config_done:
      QM_HEAP_printf("%-*s: finished processing startup configuration\n", w, op);
      break;
    case qm_heap_event_double_dealloc:
      QM_HEAP_printf("%-*s: double deallocation\n", w, op);
      QM_HEAP_printf("%-*s: original allocation\n", w, op);
      original_line(r);
      QM_HEAP_printf("%-*s: entry in deallocation table\n", w, op);
      record_line(r);
      QM_HEAP_printf("%-*s:   address:  %#*p\n", w, op, pw, e->addr);
      break;
    case qm_heap_event_dealloc_mismatch: {
      const int kind = QM_HEAP_release_kind(e->op, e->alignment);
      if ((r.flags & af_kind_mask) != kind)
        QM_HEAP_printf("%-*s: mismatched deallocation: block made by %s released by %s%s\n", w, op,
                       QM_HEAP_alloc_kind_name(r.flags), (kind & af_kind_aligned) ? "aligned " : "", op);
      else
        QM_HEAP_printf("%-*s: mismatched deallocation: size %lu given for a block of length %lu\n", w, op, len,
                       static_cast<unsigned long>(r.len));
      record_line(r);
      QM_HEAP_printf("%-*s:   address:  %#*p\n", w, op, pw, e->addr);
      break;
    }
    case qm_heap_event_guard_corruption:
      QM_HEAP_printf("%-*s: guard corruption\n", w, op);
      QM_HEAP_printf("%-*s: original allocation\n", w, op);
      original_line(r);
      break;
    case qm_heap_event_termination_notification:
      QM_HEAP_printf("%-*s: process termination\n", w, op);
      break;
    case qm_heap_event_unknown_error:
      QM_HEAP_printf("%-*s: unknown error\n", w, op);
      break;
    case qm_heap_event_addr_not_in_heap:
      QM_HEAP_printf("%-*s: address %#*p supplied by application is  not in the heap\n", w, op, pw, e->addr);
      break;
    case qm_heap_event_dmz_unknown_zone:
      QM_HEAP_printf("%-*s: unknown zone (%#*p)\n", w, op, pw, e->addr);
      break;
    case qm_heap_event_dmz_destruction_in_progress:
      QM_HEAP_printf("%-*s: operation attempted on zone %#*p whilst it is in the process of being destroyed\n", w, op,
                     pw, e->addr);
      break;
    case qm_heap_event_dmz_pending_zone:
      QM_HEAP_printf("%-*s: operation attempted on zone %#*p whilst its destruction is pending\n", w, op, pw, e->addr);
      break;
    case qm_heap_event_dmz_unknown_state:
      QM_HEAP_printf("%-*s: zone %#*p is in unknown state %d\n", w, op, pw, e->addr, static_cast<int>(e->len));
      break;
    case qm_heap_event_dmz_zone_creation_error:
      QM_HEAP_printf("%-*s: error creating zone\n%-*s  size: %lu\n%-*s  alignment: %lu\n", w, op, w, "", len, w, "", al);
      break;
    case qm_heap_event_dmz_duplicate_zone_created:
      QM_HEAP_printf("%-*s: duplicate zone created\n%-*s  size: %lu\n%-*s  alignment: %lu\n", w, op, w, "", len, w, "",
                     al);
      break;
    case qm_heap_event_dmz_deleting_default_zone:
      QM_HEAP_printf("%-*s: attempting to delete default zone %#*p\n", w, op, pw, e->addr);
      break;
    case qm_heap_event_api_error:
      QM_HEAP_printf("%-*s: incorrect api or api instance used for operation\n", w, op);
      record_line(r);
      QM_HEAP_printf("original owner: %d\noperation owner: %d\n", r.owner_id, e->owner_id);
      break;
    case qm_heap_event_rz_unknown:
      QM_HEAP_printf("%-*s: unknown red zone error\n", w, op);
      break;
    case qm_heap_event_rz_underrun:
    case qm_heap_event_rz_overrun:
    case qm_heap_event_rz_use_after_free:
    case qm_heap_event_rz_use_after_free_underrun:
    case qm_heap_event_rz_use_after_free_overrun: {
      static constexpr const char* kHeads[] = {
          "%-*s: underrun bounds error\n", "%-*s: overrun bounds error\n",
          "%-*s: access to block after it has been freed\n", "%-*s: underrun bounds error on freed block\n",
          "%-*s: overrun bounds error on freed block\n"};
      QM_HEAP_printf(kHeads[e->event - qm_heap_event_rz_underrun], w, op);
      QM_HEAP_printf("illegal address: %p\n", e->addr);
      QM_HEAP_printf("red zone allocation information\n");
      QM_HEAP_rz_dump_rz_record(&e->rz_record);
      if (r.addr != nullptr) {
        if (e->event == qm_heap_event_rz_underrun || e->event == qm_heap_event_rz_overrun)
          QM_HEAP_printf("allocation record\n");
        else if (e->event >= qm_heap_event_rz_use_after_free && e->event <= qm_heap_event_rz_use_after_free_overrun)
          QM_HEAP_printf("deallocation record\n");
        else
          QM_assert(0, "%s.%d: unexpected event (%d)\n", "../qm_heap_target", 1624, static_cast<int>(e->event));
        record_line(r);
      }
      break;
    }
    case qm_heap_event_autoshrink_threshold:
      QM_HEAP_printf("%-*s: hoard autoshrink threshold crossed\n", w, op);
      QM_HEAP_printf("%-*s: hoard size is %ld bytes (%ldkb) (%ldmb)\n", w, op, static_cast<long>(len),
                     static_cast<long>(len >> 10), static_cast<long>(len >> 20));
      break;
    default:
      QM_HEAP_printf("%-*s: ** unrecognized QM_HEAP_event_e (%d) **\n", w, op, static_cast<int>(e->event));
      break;
  }
}
