#include "leaks/stop_world.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include "base/page.h"
#include "redzone/signals.h"

namespace qm {
namespace {

// Agent pages for the slots, grown by replacement; the old pages are kept
// (a thread that answers very late may still write to them).
constinit StoppedThread* slots = nullptr;
constinit int capacity = 0;
constinit size_t slots_len = 0;
constinit volatile int num_slots = 0;  // published before each signal is sent
constinit volatile int stop_epoch = 0;
constinit volatile int release_epoch = 0;  // the futex word the stopped wait on
constinit bool claimed = false;

pid_t gettid_raw() { return static_cast<pid_t>(syscall(SYS_gettid)); }

void nap_us(long us) {
  struct timespec ts = {0, us * 1000};
  syscall(SYS_nanosleep, &ts, nullptr);
}

// The handler: only signals this process sent itself with tgkill are ours;
// a late one (the world already let go) is swallowed.
void catcher(int sig, siginfo_t* info, void* context, int* handled) {
  if (sig != kStopSignal || info == nullptr || info->si_code != SI_TKILL || info->si_pid != getpid()) return;
  *handled = 1;
  const int epoch = __atomic_load_n(&stop_epoch, __ATOMIC_ACQUIRE);
  if (__atomic_load_n(&release_epoch, __ATOMIC_ACQUIRE) >= epoch) return;
  const pid_t tid = gettid_raw();
  const int n = __atomic_load_n(&num_slots, __ATOMIC_ACQUIRE);
  StoppedThread* t = nullptr;
  for (int i = 0; i < n; ++i)
    if (slots[i].tid == tid && slots[i].epoch == epoch) t = &slots[i];
  if (t == nullptr) return;
  const ucontext_t* uc = static_cast<const ucontext_t*>(context);
  constexpr int kRegs = NGREG < kMaxSavedRegisters ? NGREG : kMaxSavedRegisters;
  for (int i = 0; i < kRegs; ++i) t->regs[i] = static_cast<uintptr_t>(uc->uc_mcontext.gregs[i]);
  t->num_regs = kRegs;
  t->sp = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  __atomic_store_n(&t->state, static_cast<int>(kStopped), __ATOMIC_RELEASE);
  for (;;) {
    const int r = __atomic_load_n(&release_epoch, __ATOMIC_ACQUIRE);
    if (r >= epoch) break;
    syscall(SYS_futex, &release_epoch, FUTEX_WAIT_PRIVATE, r, nullptr, nullptr, 0);
  }
}

// The kernel's directory entry (getdents64).
struct Dirent {
  unsigned long long ino;
  long long off;
  unsigned short reclen;
  unsigned char type;
  char name[1];
};

// A /proc file or directory of this process, opened now or (after a chroot,
// say) from the descriptor kept when scans were asked for; -1 for none.
constinit int kept_fds[2] = {-1, -1};
constinit unsigned long long kept_inodes[2] = {0, 0};
constinit pid_t kept_pid = 0;

// The inode a descriptor names now (0 for none): a kept descriptor the
// program has closed, or whose number now names another file, is not used.
unsigned long long inode_of(int fd) {
  struct statx st;
  return syscall(SYS_statx, fd, "", AT_EMPTY_PATH, STATX_INO, &st) == 0 ? st.stx_ino : 0;
}
constexpr const char* kKept[2] = {"/proc/self/task", "/proc/self/maps"};

int open_proc(int which) {
  const int flags = O_RDONLY | O_CLOEXEC | (which == 0 ? O_DIRECTORY : 0);
  int fd = static_cast<int>(syscall(SYS_open, kKept[which], flags));
  if (fd >= 0 || kept_fds[which] < 0 || kept_pid != getpid()) return fd;
  if (inode_of(kept_fds[which]) != kept_inodes[which]) return -1;
  fd = static_cast<int>(syscall(SYS_dup, kept_fds[which]));
  if (fd >= 0) syscall(SYS_lseek, fd, 0L, SEEK_SET);
  return fd;
}

// Calls f(tid) for every thread of the process, as /proc lists them now;
// false when they cannot be listed.
template <typename F>
bool for_each_task(F f) {
  const int fd = open_proc(0);
  if (fd < 0) return false;
  alignas(8) char buf[4096];
  for (;;) {
    const long n = syscall(SYS_getdents64, fd, buf, sizeof buf);
    if (n <= 0) break;
    for (long off = 0; off < n;) {
      const auto* d = reinterpret_cast<const Dirent*>(buf + off);
      pid_t tid = 0;
      const char* c = d->name;
      for (; *c >= '0' && *c <= '9'; ++c) tid = tid * 10 + (*c - '0');
      if (*c == '\0' && tid > 0) f(tid);
      off += d->reclen;
    }
  }
  syscall(SYS_close, fd);
  return true;
}

// Whether the thread blocks the stop signal (or, as an emulator's own
// threads do, every signal): it would never answer.
bool blocks_stop_signal(pid_t tid) {
  char path[64] = "/proc/self/task/";
  char* p = path + 16;
  char digits[16];
  int nd = 0;
  for (pid_t t = tid; t > 0; t /= 10) digits[nd++] = static_cast<char>('0' + t % 10);
  while (nd > 0) *p++ = digits[--nd];
  const char tail[] = "/status";
  for (const char* s = tail; *s != '\0'; ++s) *p++ = *s;
  *p = '\0';
  const int fd = static_cast<int>(syscall(SYS_open, path, O_RDONLY | O_CLOEXEC));
  if (fd < 0) return false;
  char buf[2048];
  const long n = syscall(SYS_read, fd, buf, sizeof buf - 1);
  syscall(SYS_close, fd);
  if (n <= 0) return false;
  buf[n] = '\0';
  for (const char* line = buf; *line != '\0';) {
    if (line[0] == 'S' && line[1] == 'i' && line[2] == 'g' && line[3] == 'B' && line[4] == 'l' && line[5] == 'k' &&
        line[6] == ':') {
      const char* h = line + 7;
      while (*h == ' ' || *h == '\t') ++h;
      unsigned long long mask = 0;
      for (; (*h >= '0' && *h <= '9') || (*h >= 'a' && *h <= 'f'); ++h)
        mask = mask << 4 | static_cast<unsigned>(*h <= '9' ? *h - '0' : *h - 'a' + 10);
      const unsigned long long classic = 0x7fffffffULL & ~((1ULL << (SIGKILL - 1)) | (1ULL << (SIGSTOP - 1)));
      return (mask >> (kStopSignal - 1) & 1) != 0 || (mask & classic) == classic;
    }
    while (*line != '\0' && *line != '\n') ++line;
    if (*line == '\n') ++line;
  }
  return false;
}

bool claim_signal() {
  if (claimed) return true;
  hia_sigaction_t act = {};
  act.catcher = catcher;
  act.options = sm_option_set;
  // Nothing else runs in a stopped thread, not a handler of the program's.
  __builtin_memset(&act.sa_mask, 0xff, sizeof act.sa_mask);
  claimed = QM_HEAP_sm_sigaction(kStopSignal, &act, nullptr) == 0;
  return claimed;
}

}  // namespace

void keep_proc_open() {
  const pid_t pid = getpid();
  if (kept_pid == pid) return;
  for (int i = 0; i < 2; ++i) {
    if (kept_fds[i] >= 0) syscall(SYS_close, kept_fds[i]);
    kept_fds[i] = static_cast<int>(syscall(SYS_open, kKept[i], O_RDONLY | O_CLOEXEC | (i == 0 ? O_DIRECTORY : 0)));
    kept_inodes[i] = kept_fds[i] >= 0 ? inode_of(kept_fds[i]) : 0;
  }
  kept_pid = pid;
}

int open_proc_maps() { return open_proc(1); }

long long monotonic_us() {
  struct timespec ts = {};
  syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int count_other_threads() {
  int n = 0;
  for_each_task([&](pid_t) { ++n; });
  return n > 0 ? n - 1 : 0;
}

bool reserve_stop_slots(int n) {
  if (n <= capacity) return true;
  const int want = n + n / 2 + 16;
  const size_t len = QM_pagesize_ceil(static_cast<size_t>(want) * sizeof(StoppedThread));
  void* p = QM_mmap_anon(len);
  if (p == nullptr) return false;
  // The old slots stay mapped (a late thread may write there), emptied.
  if (slots != nullptr) __builtin_memset(slots, 0, slots_len);
  slots = static_cast<StoppedThread*>(p);
  slots_len = len;
  capacity = want;
  return true;
}

void stop_slots_range(uintptr_t* start, uintptr_t* end) {
  *start = reinterpret_cast<uintptr_t>(slots);
  *end = *start + slots_len;
}

void stop_world(StoppedWorld* w, int timeout_ms) {
  *w = StoppedWorld{slots, 0, 0, 0, 0, true};
  if (slots == nullptr || !claim_signal()) return;
  const int epoch = __atomic_add_fetch(&stop_epoch, 1, __ATOMIC_ACQ_REL);
  w->epoch = epoch;
  __atomic_store_n(&num_slots, 0, __ATOMIC_RELEASE);
  const pid_t self = gettid_raw();
  const pid_t pid = getpid();
  const long long deadline = monotonic_us() / 1000 + timeout_ms;
  int overflow = 0;
  // New threads may be made by threads not yet stopped: list again until a
  // listing finds none that is not asked already.
  for (int round = 0; round < 64; ++round) {
    int added = 0;
    w->listed = for_each_task([&](pid_t tid) {
      if (tid == self) return;
      for (int i = 0; i < w->count; ++i)
        if (slots[i].tid == tid) return;
      if (w->count >= capacity) {
        ++overflow;
        return;
      }
      StoppedThread& t = slots[w->count];
      t.tid = tid;
      t.epoch = epoch;
      t.num_regs = 0;
      t.sp = 0;
      t.state = kAsked;
      ++w->count;
      __atomic_store_n(&num_slots, w->count, __ATOMIC_RELEASE);
      ++added;
      if (syscall(SYS_tgkill, pid, tid, kStopSignal) != 0) t.state = kGone;
    }) && w->listed;
    if (added == 0 || overflow > 0) break;
    for (int spins = 0;; ++spins) {
      bool waiting = false;
      for (int i = 0; i < w->count; ++i)
        if (__atomic_load_n(&slots[i].state, __ATOMIC_ACQUIRE) == kAsked) waiting = true;
      if (!waiting || monotonic_us() / 1000 >= deadline) break;
      if (spins < 100) {
        syscall(SYS_sched_yield);
        continue;
      }
      nap_us(500);
      // A thread that still blocks the signal after a while (glibc blocks
      // every signal for a moment while it makes a thread) will not answer;
      // an emulator's own threads never do.
      if (spins == 200)
        for (int i = 0; i < w->count; ++i) {
          int asked = kAsked;
          if (slots[i].state == kAsked && blocks_stop_signal(slots[i].tid))
            __atomic_compare_exchange_n(&slots[i].state, &asked, static_cast<int>(kNotStopped), false,
                                        __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
        }
      // A thread asked may have ended before its handler ran.
      if (spins % 20 == 0) {
        for (int i = 0; i < w->count; ++i) slots[i].seen = 0;
        for_each_task([&](pid_t tid) {
          for (int i = 0; i < w->count; ++i)
            if (slots[i].tid == tid) slots[i].seen = 1;
        });
        for (int i = 0; i < w->count; ++i) {
          int asked = kAsked;
          if (!slots[i].seen)
            __atomic_compare_exchange_n(&slots[i].state, &asked, static_cast<int>(kGone), false, __ATOMIC_ACQ_REL,
                                        __ATOMIC_ACQUIRE);
        }
      }
    }
    if (monotonic_us() / 1000 >= deadline) break;
  }
  for (int i = 0; i < w->count; ++i) {
    const int s = __atomic_load_n(&slots[i].state, __ATOMIC_ACQUIRE);
    if (s == kStopped)
      ++w->num_stopped;
    else if (s != kGone)
      ++w->num_not_stopped;
  }
  w->num_not_stopped += overflow;
}

void resume_world(StoppedWorld* w) {
  if (w->epoch == 0) return;
  __atomic_store_n(&release_epoch, w->epoch, __ATOMIC_RELEASE);
  syscall(SYS_futex, &release_epoch, FUTEX_WAKE_PRIVATE, 0x7fffffff, nullptr, nullptr, 0);
}

}  // namespace qm
