// The agent's assertion: internal impossibilities write a message to the
// agent's error descriptor and halt the process with an integer division by
// zero (SIGFPE). Program errors never come here; they become heap events.
#pragma once

extern "C" {
// The agent's output descriptor (standard error unless configured otherwise).
extern int QM_stderr;

// When cond is false: "QM: Assertion failure: " and the formatted message on
// QM_stderr, then halt. An empty message is allowed.
void QM_assert(int cond, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// Halts the process the way an assertion does.
[[noreturn]] void QM_halt();
}

// Messages of the form "%s.%d: ..." take the source path and line.
#define QM_ASSERT_FMT_PREFIX "%s.%d: "
