/* Preloaded before the agent, this library's QM_HEAP_notify_breakpoint_here
 * stands in for a debugger's breakpoint: the agent calls the function through
 * its dynamic symbol, so this definition is the one reached. It records the
 * event and the thread's cancellation state at that moment. With
 * QM_BREAK_EXIT set, a thread stopped at a failed allocation (event 6) ends
 * there with pthread_exit, unwinding through the agent as a cancellation would. */
#include <pthread.h>
#include <stdlib.h>

int probe_cancel_state_at_event = -1;
int probe_last_event = -1;
int probe_events_seen;

void QM_HEAP_notify_breakpoint_here(const int* event_record) {
  int state = -1, ignored;
  if (pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state) == 0) pthread_setcancelstate(state, &ignored);
  probe_cancel_state_at_event = state;
  probe_last_event = event_record[0];
  ++probe_events_seen;
  if (event_record[0] == 6 && getenv("QM_BREAK_EXIT") != NULL) pthread_exit(NULL);
}
