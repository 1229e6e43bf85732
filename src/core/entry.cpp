#include "core/entry.h"

#include "core/binding.h"
#include "threads/reentrancy.h"
#include "threads/thread_utils.h"

extern "C" {

void setup_reentry_info(op_body_arg_t* op_arg, reentry_info_t* local) {
  if (op_arg->num_times_entered == 1) {
    local->allow_reentry = 0;
    local->want_cleanup_handler = QM_IA_has_ia_initializer_completed() != 0;
  } else {
    *local = *op_arg->rp;
  }
}

void interposer_entry_setup_caller_state(caller_state_info_t* caller) {
  caller->is_multi_threaded = QM_IA_has_ia_initializer_started() && QM_thread_is_multi_threaded();
  if (caller->is_multi_threaded) QM_thread_disable_cancel(&caller->old_cancelstate);
}

void interposer_finish_cleanup_handler(void* arg) {
  auto* caller = static_cast<caller_state_info_t*>(arg);
  if (caller->is_multi_threaded) QM_thread_restore_cancelstate(caller->old_cancelstate);
  QM_leave_ia();
}

}  // extern "C"
