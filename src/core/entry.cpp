#include "core/entry.h"

extern "C" {

void setup_reentry_info(op_body_arg_t* op_arg, reentry_info_t* local) {
  qm::setup_reentry_info(op_arg, local);
}

void interposer_entry_setup_caller_state(caller_state_info_t* caller) {
  qm::setup_caller_state(caller);
}

void interposer_finish_cleanup_handler(void* arg) {
  qm::finish_outermost(static_cast<op_body_arg_t*>(arg));
}

}  // extern "C"
