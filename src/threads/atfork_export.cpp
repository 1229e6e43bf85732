// The exported __register_atfork: every registration that passes through the
// dynamic symbol (pthread_atfork included) reaches the C library only after
// the agent's own handlers, so that the agent locks last before fork and
// unlocks first after it.
#include "base/export.h"
#include "threads/thread_utils.h"

extern "C" QM_EXPORT int __register_atfork(void (*prepare)(void), void (*parent)(void),
                                           void (*child)(void), void* dso_handle) {
  return QM_thread_register_atfork_forward(prepare, parent, child, dso_handle);
}
