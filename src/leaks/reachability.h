// The reachability scan: which live blocks the program can still reach.
//
// Roots are the memory the program owns outside its heap blocks: the
// writable segments of every loaded image, every thread's stack (above its
// stack pointer) and registers, thread-local storage and every other
// private writable mapping (an interpreter's own arenas among them), less
// the agent's pages, the live blocks themselves and the released ranges the
// deallocation table holds. Every aligned word there that points at or into
// a live block marks it; the marked blocks are scanned in turn.
//
// A block is reachable when a chain of pointers to block starts leads to it
// from a root, "interior" when only chains with a pointer into the middle
// of some block do, and otherwise lost: definitely lost when no other lost
// block points to it (in a lost cycle, its first block in address order),
// indirectly lost when it is reached from a definitely lost one.
//
// The scan stops every other thread for its marking, holds the allocation
// table's lock throughout, and uses only memory it maps itself. The last
// result is kept for the snapshot file.
#pragma once
#include <stddef.h>
#include <stdint.h>

extern "C" {

typedef enum QM_HEAP_reach_kind_e {
  reach_reachable = 0,
  reach_interior = 1,
  reach_definitely_lost = 2,
  reach_indirectly_lost = 3,
  reach_num_kinds = 4
} QM_HEAP_reach_kind_e;

// A block that is not plainly reachable; leader: for an indirectly lost
// block the definitely lost block it hangs from, else the block itself.
typedef struct QM_HEAP_reach_block_t {
  void* addr;
  size_t len;
  void* leader;
  int backtrace_id;
  int kind;  // QM_HEAP_reach_kind_e
} QM_HEAP_reach_block_t;

typedef struct QM_HEAP_reach_summary_t {
  unsigned long blocks[reach_num_kinds];
  unsigned long bytes[reach_num_kinds];
  int threads_stopped;
  int threads_not_stopped;
  long microseconds;
  int sequence;  // the scans made so far, this one included
  unsigned long table_changes;  // the allocation table's count of changes at the scan
} QM_HEAP_reach_summary_t;

// The names the console and the snapshot file give the kinds.
const char* QM_HEAP_reach_kind_name(int kind);

int QM_HEAP_reach_get_scan_on_exit();
int QM_HEAP_reach_set_scan_on_exit(int bool_val);
int QM_HEAP_reach_get_scan_signal();
// Claims the signal (0: none) for scans on demand; the previous one, or -1
// for a signal that cannot be used (said on the console).
int QM_HEAP_reach_set_scan_signal(int signo);

// How a scan takes the allocation table's lock.
typedef enum QM_HEAP_reach_lock_e {
  reach_lock_wait = 0,        // waits for it (at exit)
  reach_lock_try_a_while = 1, // tries for a while (a debugger's call, a signal)
  reach_lock_try_once = 2     // tries once (a deferred scan, retried at every exit from the agent)
} QM_HEAP_reach_lock_e;

// Scans now; with report, prints the result on the console (and why there
// is none). 0; -1 when the locks could not be taken as asked; -2 when the
// scan could not run (no memory, no /proc).
int QM_HEAP_reach_scan(int report, int lock, QM_HEAP_reach_summary_t* out);

// The last scan's result; the caller holds the allocation-table lock. Null
// when no scan has been made.
const QM_HEAP_reach_summary_t* QM_HEAP_reach_last_result(const QM_HEAP_reach_block_t** blocks, size_t* count);

void QM_HEAP_reach_atfork_prepare();
void QM_HEAP_reach_atfork_parent();
void QM_HEAP_reach_atfork_child();

// At exit: the scan and its report when the setting asks for them.
void QM_HEAP_reach_at_exit();
}
