// Stopping every other thread of the process for a moment, each where it
// is, for code that must see memory that nobody changes (the reachability
// scan). A signal the agent claims is sent to each thread with tgkill; its
// handler keeps the thread's registers and stack pointer where the caller
// reads them and waits until the caller lets it go. A thread that does not
// answer within the timeout (the signal blocked, or a thread that is not
// the program's, such as an emulator's own) is left running and counted.
//
// No heap, no lock of the program's: the slots live in agent pages that are
// never given back, so that a thread answering late never writes to memory
// that is gone.
#pragma once
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

namespace qm {

// The signal that stops threads: high in the real-time range, where
// programs rarely look (the two highest cannot be sent under qemu-i386).
constexpr int kStopSignal = 62;
constexpr int kMaxSavedRegisters = 32;

struct StoppedThread {
  pid_t tid;
  int epoch;
  volatile int state;  // see StopState
  int num_regs;
  int seen;            // the stopper's own mark: listed in /proc
  uintptr_t sp;        // inside its handler: everything above is live
  uintptr_t regs[kMaxSavedRegisters];
};

enum StopState { kAsked = 0, kStopped = 1, kNotStopped = 2, kGone = 3 };

struct StoppedWorld {
  StoppedThread* threads;
  int count;
  int num_stopped;
  int num_not_stopped;
  int epoch;
  bool listed;  // the threads could be listed
};

// Keeps /proc/self/task and /proc/self/maps open for later scans (a process
// that changes its root later can still be searched).
void keep_proc_open();
// /proc/self/maps, opened (or the kept descriptor again); -1 for neither.
int open_proc_maps();

// Microseconds of the monotonic clock (a raw system call).
long long monotonic_us();

// The threads of the process other than the caller, now (an estimate for
// sizing: threads come and go).
int count_other_threads();

// Makes room for at least n threads; false without memory. Call before
// anything that must not allocate.
bool reserve_stop_slots(int n);

// The slots' memory (registers of threads stopped before: never a root).
void stop_slots_range(uintptr_t* start, uintptr_t* end);

// Stops every other thread it can (within timeout_ms); fills *w. Every
// thread asked is let go again by resume_world, which must follow.
void stop_world(StoppedWorld* w, int timeout_ms);
void resume_world(StoppedWorld* w);

}  // namespace qm
