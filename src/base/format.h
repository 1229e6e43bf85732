// Heap-free formatted output and a buffered file reader.
//
// One format interpreter writes through a single-operation sink: a file
// descriptor (one write(2) per piece, no buffering) or a caller's buffer. No
// heap, no stdio, no shared state: safe inside the allocator, in signal
// handlers and in a child after fork.
//
// Conversions: d i o u x X p c s and %%. Without a length modifier an integer
// argument is an int; "l", "ll" and "L" read a long (the machine word), "h"
// and "hh" read an int without narrowing it. "X" prints lower-case digits and
// "#" gives the prefix 0x in every base, on purpose.
#pragma once
#include <stdarg.h>
#include <stddef.h>
#include <sys/types.h>

extern "C" {
// Format to a descriptor; the result is the sum of what the writes returned.
int QM_s_vprintf(int fd, const char* fmt, va_list ap);
int QM_s_printf(int fd, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
// Format into buffer: at most buffer_len - 1 characters and a NUL; the result
// is the number of characters stored (never the length the whole output
// would have had). buffer must not be NULL and buffer_len must be >= 1.
int QM_s_vsnprintf(char* buffer, int buffer_len, const char* fmt, va_list ap);
int QM_s_snprintf(char* buffer, int buffer_len, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

enum { bfr_constants_sizeof_buffer = 4096 };

// Reads a file a character at a time through one buffer, with one character
// of push-back inside the current buffer.
typedef struct buffered_file_reader_t {
  int fd;
  int next;
  int length;
  int sizeof_buffer;
  int eof;
  char buffer[bfr_constants_sizeof_buffer];
} buffered_file_reader_t;

int QM_bfr_open(buffered_file_reader_t* bfr, const char* fname);
int QM_bfr_close(buffered_file_reader_t* bfr);
int QM_bfr_is_eof(buffered_file_reader_t* bfr);
// 1 and the character (sign-extended from a signed char), 0 at end of file, -1 on error.
int QM_bfr_read_char(buffered_file_reader_t* bfr, int* ch);
// Pushes ch back; -1 when nothing of the current buffer has been read.
int QM_bfr_unread_char(buffered_file_reader_t* bfr, int ch);
}

namespace qm {
// All of len bytes to fd, through short writes and interruptions; false on
// an error (errno says which) or a write of nothing.
bool write_all(int fd, const void* p, size_t len);
}  // namespace qm
