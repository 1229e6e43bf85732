#include "base/assert.h"

#include <stdarg.h>

#include "base/export.h"
#include "base/format.h"

extern "C" {

constinit int QM_stderr = 2;

namespace {
// Read through volatiles so that the division is really made.
constinit volatile int halt_numerator = 1;
constinit volatile int halt_denominator = 0;
}  // namespace

[[noreturn]] void QM_halt() {
  for (;;) halt_numerator = halt_numerator / halt_denominator;
}

void QM_assert(int cond, const char* fmt, ...) {
  if (QM_LIKELY(cond)) return;
  QM_s_printf(QM_stderr, "QM: Assertion failure: ");
  va_list ap;
  va_start(ap, fmt);
  QM_s_vprintf(QM_stderr, fmt, ap);
  va_end(ap);
  QM_halt();
}

}  // extern "C"
