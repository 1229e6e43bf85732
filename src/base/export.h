// Visibility and linkage of the agent's interface.
//
// Everything in src/ is hidden by default (-fvisibility=hidden). A name that a
// debugger, a tool or the dynamic linker must see is marked QM_EXPORT and is
// also listed in src/exports.txt, from which the version script is made.
#pragma once

#define QM_EXPORT __attribute__((visibility("default")))
#define QM_NOINLINE __attribute__((noinline))
#define QM_LIKELY(x) __builtin_expect(!!(x), 1)
#define QM_UNLIKELY(x) __builtin_expect(!!(x), 0)
