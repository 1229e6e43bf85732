// Runtime configuration: at most one configuration file, then QMHEAP_ARGS,
// every setting delivered to the setter of the subsystem that owns it. A bad
// setting is reported and skipped; nothing here stops the agent.
#pragma once

extern "C" {
extern const char* QMHEAP_config_file_used;

int QM_HEAP_runtime_config_initialize();
// True once the load hook has started, or while the C library's own start-up
// is not in progress.
int QM_HEAP_may_read_runtime_config();
int QM_HEAP_read_runtime_config();
// Closes the configuration descriptors kept open during initialisation.
int QM_HEAP_runtime_config_init_section_initializer();

// Parses a settings string (writable: the parser may push characters back into it).
int QM_HEAP_parse_config_string(char* settings);
// Parses settings from an open descriptor.
int QM_HEAP_parse_config_fd(int fd);

int QM_HEAP_mpi_initialize();
int QM_HEAP_mpi_get_rank();

// The value of an environment variable, read from the environment block
// itself (no lock, no heap), or null.
const char* QM_getenv(const char* name);
}
