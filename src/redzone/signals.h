// Signal interposition. The agent claims a signal (today only SIGSEGV, for
// the red-zone fault classifier) by installing its own first-level handler
// with the kernel; the program's sigaction and signal calls for a claimed
// signal only change the action the agent keeps for the program, which the
// first-level handler carries out by hand whenever the agent's catcher
// leaves the signal alone. Unclaimed signals pass straight through.
#pragma once
#include <signal.h>

extern "C" {

// Sets *handled when the catcher dealt with the signal.
typedef void (*hia_sigcatcher_t)(int signo, siginfo_t* info, void* context, int* handled);

enum { sm_option_set = 1 };

typedef struct hia_sigaction_t {
  hia_sigcatcher_t catcher;
  int options;  // sm_option_set: set this catcher; without it, release the signal
  sigset_t sa_mask;
} hia_sigaction_t;

typedef struct sm_signal_table_entry_t {
  int signo;  // 0: a free entry
  hia_sigaction_t hia_sigaction;
  struct sigaction sigaction;  // the program's action for the signal
} sm_signal_table_entry_t;

enum { signal_table_num_entries = 32 };

typedef struct sm_signal_table_t {
  int initialized;
  volatile int lock;
  int num_entries;
  sm_signal_table_entry_t* table;
  sm_signal_table_entry_t static_table[signal_table_num_entries];
} sm_signal_table_t;

extern sm_signal_table_t QM_HEAP_sm_signal_table;

typedef void (*QM_HEAP_signal_func_t)(int);

int QM_HEAP_signal_init_interposition();
int QM_HEAP_sm_sigaction(int signo, const hia_sigaction_t* hia_sigaction, hia_sigaction_t* old_hia_sigaction);
int QM_HEAP_sigaction_interposer(int sig, const struct sigaction* act, struct sigaction* old_act);
QM_HEAP_signal_func_t QM_HEAP_signal_interposer(int sig, QM_HEAP_signal_func_t handler);
int QM_HEAP_sigprocmask_interposer(int how, const sigset_t* set, sigset_t* oset);
int QM_sigunionset(sigset_t* dest, const sigset_t* a, const sigset_t* b);

// The red-zone classifier: given the faulting address, sets *handled when
// the fault was in a red zone.
typedef void (*rz_fault_handler_t)(void* addr, int* handled);
int QM_HEAP_rz_install_handler(rz_fault_handler_t handler);
}
