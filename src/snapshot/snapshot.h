// Pathname specifiers of the two post-mortem files (the memory-debug
// snapshot and the lightweight core) and their writers.
#pragma once

extern "C" {
enum { QM_HEAP_pathname_specifier_max_length = 1024 };
enum { lwmdbg_num_pcs_for_current_backtrace = 128, lwmdbg_constants_linux_maps_buffer_size = 80 };

struct QM_HEAP_event_info_t;
// The memory-debug snapshot file: named by fmt (null: the current
// specifier); -1 when it cannot be created, else the result of closing it.
int QM_HEAP_lwmdbg_generate_file(const char* fmt, const char* session_title, const char* user_notes);
int QM_HEAP_lwmdbg_generate_file_event(const char* fmt, const struct QM_HEAP_event_info_t* event);
int QM_HEAP_lwmdbg_getnextsequence();
// The lightweight core file (an ELF core of the agent's and the heap's
// memory), named by fmt (null: the current specifier).
int QM_HEAP_lwcore_generate_file(const char* fmt);
int QM_HEAP_lwcore_initialize();
int QM_HEAP_lwmdbg_initialize();
void QM_HEAP_lwcore_atfork_prepare();
void QM_HEAP_lwcore_atfork_parent();
void QM_HEAP_lwcore_atfork_child();
void QM_HEAP_lwmdbg_atfork_prepare();
void QM_HEAP_lwmdbg_atfork_parent();
void QM_HEAP_lwmdbg_atfork_child();
extern volatile int QM_HEAP_lwmdbg_write_comments;
extern volatile int QM_HEAP_lwmdbg_check_alloc_guards;

int QM_HEAP_lwmdbg_get_pathname_specifier_default(char* buffer, int len, int* specifier_len);
int QM_HEAP_lwmdbg_get_pathname_specifier(char* buffer, int len, int* specifier_len);
int QM_HEAP_lwmdbg_get_pathname_spaecifier_strlen();
// -1 for a specifier longer than the limit; else stored, 0.
int QM_HEAP_lwmdbg_set_pathname_specifier(const char* specifier);
const int* QM_HEAP_lwmdbg_get_pathname_specifier_max_length();

extern char QM_HEAP_lwmdbg_pathname_specifier[];
extern char QM_HEAP_lwcore_pathname_specifier[];
extern const int QM_HEAP_lwmdbg_pathname_specifier_max_length;
extern const int QM_HEAP_lwcore_pathname_specifier_max_length;

int QM_HEAP_lwcore_get_pathname_specifier_default(char* buffer, int len, int* specifier_len);
int QM_HEAP_lwcore_get_pathname_specifier(char* buffer, int len, int* specifier_len);
int QM_HEAP_lwcore_set_pathname_specifier(const char* specifier);

// The pathname template language: %b the executable's base name, %h the
// host name, %p the process id, %q the next sequence number, %r the MPI
// rank (the last three zero-filled to an optional width, * taking it from
// the arguments; %r writes nothing without a rank callback); %% a percent
// sign. Returns the length written.
typedef struct format_pathname_callbacks_t {
  void* arg;
  int (*get_next_sequence_number)(struct format_pathname_callbacks_t* cb);
  int (*get_mpi_rank)(struct format_pathname_callbacks_t* cb);
} format_pathname_callbacks_t;

int QM_format_pathname(char* buffer, int buffer_len, format_pathname_callbacks_t* callbacks, const char* fmt, ...);
int QM_getexebasename(char* buffer, int len);
int QM_getexepathname(char* buffer, int buffer_len);
int QM_getexepathnamelen();
int QM_getmaxpathlen();
int QM_get_tmp_filename(int priority, const char* filename, char* pathname, int* pathname_len);
// The host name without the C library (its node name); 0 or -1.
int QM_gethostname(char* buffer, int len);
}

#ifdef __cplusplus
#include "threads/thread_utils.h"
namespace qm {
// The lower-case hexadecimal number at p, as the kernel writes them in
// /proc; p is left after its digits.
unsigned long parse_hex(const char*& p);
// The next number of a file sequence (post-incremented under its mutex).
int next_in_sequence(QM_pthread_mutex_t* mutex, volatile int* counter);
// Creates the file the template names (null: the one get_specifier gives),
// relative to the working directory of the moment; its descriptor, or -1
// after one message that names the file and the reason.
int create_named_file(const char* fmt, int (*get_specifier)(char*, int, int*), format_pathname_callbacks_t* cb,
                      const char* who, const char* what);
}  // namespace qm
#endif
