// The signal table and the first-level handler.
//
// Every access to the table happens with all signals blocked and under a
// spin lock, so that a handler never waits for a lock held by the thread it
// interrupted. The kernel's action for a claimed signal blocks every signal
// on entry; the mask at the interruption is the context's, and the kernel
// puts it back when the handler returns, so the handler only ever sets masks.
//
// For a claimed signal the program sees what it would see without the
// agent: sigaction and signal report and replace the program's own action;
// a signal the agent's catcher leaves alone gets that action, carried out by
// hand with the program's mask, SA_SIGINFO, SA_RESETHAND and SA_NODEFER; a
// fault that the program ignores or leaves to the default action ends the
// process at the faulting instruction, as the kernel would.
#include "redzone/signals.h"

#include <errno.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include "base/assert.h"
#include "base/export.h"
#include "core/binding.h"

extern "C" {
constinit sm_signal_table_t QM_HEAP_sm_signal_table = {};
}

namespace {

constexpr const char kFile[] = "../signal_manager.c";

using sigaction_fn = int (*)(int, const struct sigaction*, struct sigaction*);
using signal_fn = QM_HEAP_signal_func_t (*)(int, QM_HEAP_signal_func_t);
using sigprocmask_fn = int (*)(int, const sigset_t*, sigset_t*);

constinit void* real_sigaction = nullptr;
constinit void* real_signal = nullptr;
constinit void* real_sigprocmask = nullptr;
constinit function_mapping_t signal_mappings[] = {
    {"sigaction", &real_sigaction}, {"signal", &real_signal}, {"sigprocmask", &real_sigprocmask}, {nullptr, nullptr}};
constinit int bound = 0;

// One bit per claimed signal, read without the lock by the program's calls
// for signals the agent never claimed.
constinit unsigned long long claimed_bits = 0;

constinit rz_fault_handler_t rz_handler = nullptr;

// --- signal sets, without the C library --------------------------------------

constexpr int kBitsPerWord = 8 * sizeof(unsigned long);
constexpr int kMaxSignal = 64;

unsigned long* words(sigset_t* s) { return reinterpret_cast<unsigned long*>(s); }
const unsigned long* words(const sigset_t* s) { return reinterpret_cast<const unsigned long*>(s); }

void set_empty(sigset_t* s) { __builtin_memset(s, 0, sizeof *s); }
void set_full(sigset_t* s) { __builtin_memset(s, 0xff, sizeof *s); }
void set_add(sigset_t* s, int sig) { words(s)[(sig - 1) / kBitsPerWord] |= 1UL << ((sig - 1) % kBitsPerWord); }
void set_del(sigset_t* s, int sig) { words(s)[(sig - 1) / kBitsPerWord] &= ~(1UL << ((sig - 1) % kBitsPerWord)); }

bool valid_signal(int sig) { return sig >= 1 && sig <= kMaxSignal; }

bool is_claimed(int sig) {
  return valid_signal(sig) && (__atomic_load_n(&claimed_bits, __ATOMIC_ACQUIRE) >> (sig - 1) & 1) != 0;
}

// The kernel's mask of the calling thread (the kernel reads the first 64 bits).
int set_mask(int how, const sigset_t* set, sigset_t* old) {
  return static_cast<int>(syscall(SYS_rt_sigprocmask, how, set, old, kMaxSignal / 8));
}

// Blocks every signal; the destructor puts the mask back.
struct AllBlocked {
  sigset_t saved;
  AllBlocked() {
    sigset_t all;
    set_full(&all);
    if (set_mask(SIG_SETMASK, &all, &saved) != 0) QM_assert(0, "%s.%d: error disabling signals\n", kFile, __LINE__);
  }
  ~AllBlocked() {
    if (set_mask(SIG_SETMASK, &saved, nullptr) != 0) QM_assert(0, "%s.%d: error restoring signals\n", kFile, __LINE__);
  }
};

// --- the table -----------------------------------------------------------------

sm_signal_table_t& T = QM_HEAP_sm_signal_table;

void table_lock() {
  while (__atomic_exchange_n(&T.lock, 1, __ATOMIC_ACQUIRE) != 0) syscall(SYS_sched_yield);
}
void table_unlock() { __atomic_store_n(&T.lock, 0, __ATOMIC_RELEASE); }

struct TableLock {
  AllBlocked blocked;
  TableLock() { table_lock(); }
  ~TableLock() { table_unlock(); }
};

void init_table() {
  if (T.initialized) return;
  T.num_entries = signal_table_num_entries;
  T.table = T.static_table;
  T.initialized = 1;
}

sm_signal_table_entry_t* find_entry(int signo) {
  if (!T.initialized) return nullptr;
  for (int i = 0; i < T.num_entries; ++i)
    if (T.table[i].signo == signo) return &T.table[i];
  return nullptr;
}

int call_real_sigaction(int sig, const struct sigaction* act, struct sigaction* old) {
  return reinterpret_cast<sigaction_fn>(real_sigaction)(sig, act, old);
}

void first_level_handler(int sig, siginfo_t* info, void* context);

// The kernel's action for a claimed signal: the first-level handler, every
// signal blocked on entry, and the program's choice of stack.
struct sigaction agent_action(const struct sigaction& program) {
  struct sigaction a = {};
  a.sa_sigaction = first_level_handler;
  set_full(&a.sa_mask);
  a.sa_flags = SA_SIGINFO | SA_RESTART | (program.sa_flags & SA_ONSTACK);
  return a;
}

// --- the first-level handler ----------------------------------------------------

// A fault the kernel raised at an instruction (not a signal sent by kill or
// raise): returning from the handler runs the instruction again.
bool is_fault(int sig, const siginfo_t* info) {
  return info != nullptr && info->si_code > 0 &&
         (sig == SIGSEGV || sig == SIGBUS || sig == SIGILL || sig == SIGFPE || sig == SIGTRAP);
}

// The default action by hand. A fault is left to the kernel: with the default
// action in place the instruction faults again and the process ends as it
// would have without the agent (the core file shows the faulting
// instruction). A sent signal is raised again with the default action, every
// other signal blocked.
void take_default_action(int sig, const siginfo_t* info) {
  struct sigaction dfl = {}, agent = {};
  dfl.sa_handler = SIG_DFL;
  if (is_fault(sig, info)) {
    call_real_sigaction(sig, &dfl, nullptr);
    return;
  }
  bool ok = call_real_sigaction(sig, &dfl, &agent) == 0;
  sigset_t all_but, saved;
  set_full(&all_but);
  set_del(&all_but, sig);
  set_mask(SIG_SETMASK, &all_but, &saved);
  syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), sig);
  set_mask(SIG_SETMASK, &saved, nullptr);
  ok = ok && call_real_sigaction(sig, &agent, nullptr) == 0;
  if (!ok) QM_assert(0, "%s.%d: error restoring default handler\n", kFile, __LINE__);
}

void run_program_action(int sig, siginfo_t* info, void* context, const struct sigaction& act, int saved_errno) {
  if (act.sa_handler == SIG_IGN) {
    // The kernel does not let a program ignore a fault.
    if (is_fault(sig, info)) take_default_action(sig, info);
    return;
  }
  if (act.sa_handler == SIG_DFL) {
    take_default_action(sig, info);
    return;
  }
  if (act.sa_handler == SIG_ERR) return;
  if (act.sa_flags & SA_RESETHAND) {
    TableLock l;
    sm_signal_table_entry_t* e = find_entry(sig);
    if (e != nullptr && e->sigaction.sa_handler == act.sa_handler) {
      e->sigaction.sa_handler = SIG_DFL;
      e->sigaction.sa_flags &= ~(SA_SIGINFO | SA_RESETHAND);
    }
  }
  // The mask the kernel would have set for the program's handler.
  const ucontext_t* uc = static_cast<const ucontext_t*>(context);
  sigset_t m;
  QM_sigunionset(&m, &uc->uc_sigmask, &act.sa_mask);
  if (!(act.sa_flags & SA_NODEFER)) set_add(&m, sig);
  set_mask(SIG_SETMASK, &m, nullptr);
  errno = saved_errno;
  if (act.sa_flags & SA_SIGINFO)
    act.sa_sigaction(sig, info, context);
  else
    act.sa_handler(sig);
}

void first_level_handler(int sig, siginfo_t* info, void* context) {
  const int saved_errno = errno;
  sm_signal_table_entry_t e;
  {
    table_lock();
    sm_signal_table_entry_t* found = find_entry(sig);
    if (found != nullptr) e = *found;
    table_unlock();
    if (found == nullptr) QM_assert(0, "%s.%d: table entry not found for signal %d\n", kFile, __LINE__, sig);
  }
  const ucontext_t* uc = static_cast<const ucontext_t*>(context);
  int handled = 0;
  if (e.hia_sigaction.catcher != nullptr) {
    sigset_t m;
    QM_sigunionset(&m, &uc->uc_sigmask, &e.hia_sigaction.sa_mask);
    set_add(&m, sig);
    set_mask(SIG_SETMASK, &m, nullptr);
    e.hia_sigaction.catcher(sig, info, context, &handled);
    sigset_t all;
    set_full(&all);
    set_mask(SIG_SETMASK, &all, nullptr);
  }
  if (handled) {
    errno = saved_errno;
    return;
  }
  run_program_action(sig, info, context, e.sigaction, saved_errno);
}

// The agent's catcher for SIGSEGV: the red-zone classifier.
void catcher(int sig, siginfo_t* info, void*, int* handled) {
  if (sig == SIGSEGV && rz_handler != nullptr && info != nullptr) rz_handler(info->si_addr, handled);
}

}  // namespace

extern "C" {

int QM_sigunionset(sigset_t* dest, const sigset_t* a, const sigset_t* b) {
  if (dest == nullptr || a == nullptr || b == nullptr) return -1;
  constexpr int n = sizeof(sigset_t) / sizeof(unsigned long);
  for (int i = 0; i < n; ++i) words(dest)[i] = words(a)[i] | words(b)[i];
  return 0;
}

int QM_HEAP_signal_init_interposition() {
  if (__atomic_load_n(&bound, __ATOMIC_ACQUIRE)) return 1;
  int n = QM_IA_get_num_function_mappings(signal_mappings);
  if (n <= 0) QM_assert(0, "%s.%d: error getting number of signal mappings (%d)\n", "../signal_wrappers_dlopen.c", __LINE__, n);
  const int expected = n;
  if (QM_IA_find_interposees(&n, signal_mappings) != 0)
    QM_assert(0, "%s.%d: error finding signal targets\n", "../signal_wrappers_dlopen.c", __LINE__);
  if (n != expected)
    QM_assert(0, "%s.%d: failed to find all signal targets (expected %d, found %d)\n", "../signal_wrappers_dlopen.c",
              __LINE__, expected, n);
  __atomic_store_n(&bound, 1, __ATOMIC_RELEASE);
  return 1;
}

int QM_HEAP_sm_sigaction(int signo, const hia_sigaction_t* new_act, hia_sigaction_t* old_act) {
  if (QM_HEAP_signal_init_interposition() != 1)
    QM_assert(0, "%s.%d: error initializing signal interposition\n", kFile, __LINE__);
  if (!valid_signal(signo)) return -1;
  int result = 0;
  TableLock l;
  init_table();
  sm_signal_table_entry_t* e = find_entry(signo);
  if (new_act != nullptr && (new_act->options & sm_option_set)) {
    if (e != nullptr) {
      e->hia_sigaction = *new_act;
    } else {
      struct sigaction previous = {};
      struct sigaction mine = agent_action(previous);
      result = call_real_sigaction(signo, &mine, &previous);
      if (result == 0) {
        // The program's stack choice, made before the claim, still holds.
        if (previous.sa_flags & SA_ONSTACK) {
          mine = agent_action(previous);
          call_real_sigaction(signo, &mine, nullptr);
        }
        e = find_entry(0);
        QM_assert(e != nullptr, "%s.%d: unable to allocate new signal table entry\n", kFile, __LINE__);
        e->signo = signo;
        e->hia_sigaction = *new_act;
        e->sigaction = previous;
        __atomic_fetch_or(&claimed_bits, 1ULL << (signo - 1), __ATOMIC_RELEASE);
      }
    }
  } else if (new_act != nullptr) {
    if (e != nullptr) {
      result = call_real_sigaction(signo, &e->sigaction, nullptr);
      if (result == 0) {
        __atomic_fetch_and(&claimed_bits, ~(1ULL << (signo - 1)), __ATOMIC_RELEASE);
        e->signo = 0;
      }
    }
  } else if (old_act != nullptr) {
    if (e != nullptr)
      *old_act = e->hia_sigaction;
    else
      old_act->catcher = nullptr;
  }
  return result;
}

int QM_HEAP_sigaction_interposer(int sig, const struct sigaction* act, struct sigaction* old_act) {
  QM_HEAP_signal_init_interposition();
  if (!is_claimed(sig)) return call_real_sigaction(sig, act, old_act);
  {
    TableLock l;
    sm_signal_table_entry_t* e = find_entry(sig);
    if (e != nullptr) {
      const struct sigaction before = e->sigaction;
      if (old_act != nullptr) *old_act = before;
      if (act != nullptr) {
        e->sigaction = *act;
        if ((before.sa_flags ^ act->sa_flags) & SA_ONSTACK) {
          struct sigaction mine = agent_action(*act);
          call_real_sigaction(sig, &mine, nullptr);
        }
      }
      return 0;
    }
  }
  return call_real_sigaction(sig, act, old_act);  // released meanwhile
}

QM_HEAP_signal_func_t QM_HEAP_signal_interposer(int sig, QM_HEAP_signal_func_t handler) {
  QM_HEAP_signal_init_interposition();
  if (!is_claimed(sig)) return reinterpret_cast<signal_fn>(real_signal)(sig, handler);
  struct sigaction act = {}, old = {};
  act.sa_handler = handler;
  act.sa_flags = SA_RESTART;
  if (QM_HEAP_sigaction_interposer(sig, &act, &old) != 0) return SIG_ERR;
  return old.sa_handler;
}

int QM_HEAP_sigprocmask_interposer(int how, const sigset_t* set, sigset_t* oset) {
  QM_HEAP_signal_init_interposition();
  return reinterpret_cast<sigprocmask_fn>(real_sigprocmask)(how, set, oset);
}

int QM_HEAP_rz_install_handler(rz_fault_handler_t handler) {
  rz_handler = handler;
  hia_sigaction_t a = {};
  a.catcher = catcher;
  a.options = sm_option_set;
  set_empty(&a.sa_mask);
  return QM_HEAP_sm_sigaction(SIGSEGV, &a, nullptr) == 0 ? 1 : 0;
}

}  // extern "C"
