// The exported signal functions: every way a program sets a signal's action
// comes through here, so that the agent's first-level handler stays in front
// of a signal it has claimed. Kept apart, like the heap functions, so that
// unit tests can link the rest of the agent without them.
#include <errno.h>
#include <signal.h>

#include "base/export.h"
#include "redzone/signals.h"

namespace {

// System V semantics: the action is reset on delivery and the signal is not
// blocked while the handler runs.
QM_HEAP_signal_func_t sysv_signal_body(int sig, QM_HEAP_signal_func_t handler) {
  if (handler == SIG_ERR) {
    errno = EINVAL;
    return SIG_ERR;
  }
  struct sigaction act = {}, old = {};
  act.sa_handler = handler;
  act.sa_flags = SA_RESETHAND | SA_NODEFER;
  if (QM_HEAP_sigaction_interposer(sig, &act, &old) != 0) return SIG_ERR;
  return old.sa_handler;
}

}  // namespace

extern "C" {

QM_EXPORT int sigaction(int sig, const struct sigaction* act, struct sigaction* old_act) noexcept {
  return QM_HEAP_sigaction_interposer(sig, act, old_act);
}

QM_EXPORT QM_HEAP_signal_func_t signal(int sig, QM_HEAP_signal_func_t handler) noexcept {
  return QM_HEAP_signal_interposer(sig, handler);
}

QM_EXPORT QM_HEAP_signal_func_t bsd_signal(int sig, QM_HEAP_signal_func_t handler) noexcept {
  return QM_HEAP_signal_interposer(sig, handler);
}

// What a strictly conforming C program's signal() calls.
QM_EXPORT QM_HEAP_signal_func_t __sysv_signal(int sig, QM_HEAP_signal_func_t handler) noexcept {
  return sysv_signal_body(sig, handler);
}

QM_EXPORT QM_HEAP_signal_func_t sysv_signal(int sig, QM_HEAP_signal_func_t handler) noexcept {
  return sysv_signal_body(sig, handler);
}

QM_EXPORT int sigprocmask(int how, const sigset_t* set, sigset_t* oset) noexcept {
  return QM_HEAP_sigprocmask_interposer(how, set, oset);
}

}  // extern "C"
