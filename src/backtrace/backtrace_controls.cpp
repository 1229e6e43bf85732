// Backtrace capture settings. The setters check nothing: a depth below 1
// switches capture off, a negative trim counts as 0.
extern "C" {

constinit volatile int QM_HEAP_backtrace_depth = 32;
constinit volatile int QM_HEAP_backtrace_initial_trim = 5;

int QM_HEAP_backtrace_get_depth() { return QM_HEAP_backtrace_depth; }
int QM_HEAP_backtrace_set_depth(int v) {
  int old = QM_HEAP_backtrace_depth;
  QM_HEAP_backtrace_depth = v;
  return old;
}
int QM_HEAP_backtrace_get_trim() { return QM_HEAP_backtrace_initial_trim; }
int QM_HEAP_backtrace_set_trim(int v) {
  int old = QM_HEAP_backtrace_initial_trim;
  QM_HEAP_backtrace_initial_trim = v;
  return old;
}

}  // extern "C"
