// Version, distribution string and the banner.
#include "events/output.h"

#ifndef QMHEAP_DISTRIBUTION
#define QMHEAP_DISTRIBUTION "unknown"
#endif

#if defined(__x86_64__)
#define QM_ARCH_SIZE 64
#else
#define QM_ARCH_SIZE 32
#endif

extern "C" {

extern constinit const int QM_HEAP_version_major = 1;
extern constinit const int QM_HEAP_version_minor = 2;
extern constinit const int QM_HEAP_version_point = 0;
extern constinit const int QM_HEAP_version_service = 0;

// The distribution string, as the banner prints it and a debugger reads it.
extern constinit const char QM_qm_distribution[] = QMHEAP_DISTRIBUTION;

const char* QM_get_qm_distribution() { return QM_qm_distribution; }

int QM_HEAP_main(int, char**) {
  QM_HEAP_printf("Quillmark Heap Interposition Agent\n");
  QM_HEAP_printf("  hia version: %d.%d\n", QM_HEAP_version_major, QM_HEAP_version_minor);
  QM_HEAP_printf("  Quillmark distribution: %s\n", QM_get_qm_distribution());
  QM_HEAP_printf("  ARCH_SIZE: %d\n", QM_ARCH_SIZE);
  QM_HEAP_printf("  is 32-bit?: %s\n", QM_ARCH_SIZE == 32 ? "yes" : "no");
  QM_HEAP_printf("  is 64-bit?: %s\n", QM_ARCH_SIZE == 64 ? "yes" : "no");
  return 0;
}

}  // extern "C"
