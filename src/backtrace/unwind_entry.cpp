// The unwinder's FDE lookup and the C library's dlclose, exported so that
// the unwinder in libgcc_s (which reaches _Unwind_Find_FDE through its PLT)
// and every library unload pass through the agent's cache.
#include "backtrace/fde_cache.h"
#include "base/export.h"

extern "C" {

QM_EXPORT const void* _Unwind_Find_FDE(void* pc, qm_anb_dwarf_eh_bases_t* bases) {
  return QM_STACK_fde_cache_find(pc, bases);
}

QM_EXPORT int dlclose(void* handle) noexcept { return QM_STACK_fde_cache_dlclose(handle); }

}  // extern "C"
