// The lexical layer of the agent's configuration.
//
// Settings have the form name = value and come from a configuration file or
// from a string (an environment variable's value). A source is cut into
// settings by its operation table; each setting is then split into its name
// and value, and the value is tokenised and converted by the functions below.
// Which names exist and what they do is the runtime configuration's business.
//
// A second, smaller reader takes numbers from any character source (the
// generic parser at the end).
//
// No heap and no shared state: handles and buffers belong to the caller, and
// every message goes to QM_stderr through the heap-free formatter, without
// the agent's console prefix. Parsing happens at start-up on one thread.
#pragma once

extern "C" {

// ---------------------------------------------------------------------------
// Sources and cutters

enum {
  QM_settings_file_sizeof_buffer = 4096,
  QM_settings_file_sizeof_push_back = 16,
};

// Every operation returns 0 on success and -1 on failure or at the end of the
// source, except eof, which returns true or false. get_setting cuts the next
// setting into buffer, NUL-terminated; it may deliver an empty setting (at
// the end of the source, for example), which the caller skips.
typedef struct QM_settings_parse_ops_t QM_settings_parse_ops_t;
struct QM_settings_parse_ops_t {
  int (*eof)(const QM_settings_parse_ops_t* ops, void* handle);
  int (*get_char)(const QM_settings_parse_ops_t* ops, void* handle, char* c);
  int (*unget_char)(const QM_settings_parse_ops_t* ops, void* handle, char c);
  int (*get_setting)(const QM_settings_parse_ops_t* ops, void* handle, char* buffer,
                     int sizeof_buffer);
};

// A file read through its own buffer, with a 16-character push-back stack.
// In a file a setting ends at the end of its line or at a "#" (the rest of the
// line is a comment); a backslash before the newline continues it on the next
// line and a doubled backslash stands for one.
typedef struct QM_settings_parse_handle_file_t {
  int fd;
  char buffer[QM_settings_file_sizeof_buffer];
  int sizeof_buffer;
  int pos;
  int len;
  int seen_eof;
  char push_back_buffer[QM_settings_file_sizeof_push_back];
  int sizeof_push_back;
  int push_back_pos;
} QM_settings_parse_handle_file_t;

// A NUL-terminated string. It must be writable: pushing a character back
// stores it into the string. In a string, settings are separated by white
// space; white space before the "=" belongs to the setting, and the value
// ends at the first white space (a backslash may only double itself).
typedef struct QM_settings_parse_handle_string_t {
  char* string;  // the start
  char* pos;     // the next character
} QM_settings_parse_handle_string_t;

// -1 for a null handle, else 0.
int QM_settings_parse_handle_file_init(QM_settings_parse_handle_file_t* handle, int fd);
int QM_settings_parse_handle_string_init(QM_settings_parse_handle_string_t* handle, char* string);

extern const QM_settings_parse_ops_t* const QM_settings_parse_ops_file;
extern const QM_settings_parse_ops_t* const QM_settings_parse_ops_string;

// ---------------------------------------------------------------------------
// Settings, tokens and values. The texts are NUL-terminated; a token is a
// start and a length inside them.

// The first character that is not white space (a null s is returned as is).
const char* QM_settings_skip_whitespace(const char* s);

// Splits "name = ..." : 0 with the name and its length and *cont just past the
// "="; -1 for an empty setting (silently) or a bad name or a missing "=" (with
// a message). Names begin with a letter and go on over letters, digits and "_".
int QM_settings_get_setting_name_and_consume_equals(const char* s, const char** name, int* len,
                                                    const char** cont);

// Skips white space and returns the position after the next token, a maximal
// run of non-space characters; the token has length 0 at the end of the text.
const char* QM_settings_get_next_token(const char* s, const char** token, int* token_len);
// As above, but a token also ends at ",", and a "," right after it is consumed.
const char* QM_settings_get_next_token_from_list(const char* s, const char** token,
                                                 int* token_len);

// True when the token is exactly stringz.
int QM_settings_matches_string(const char* stringz, const char* token, int token_len);
// "true" gives 1 and "false" 0 (case matters): 1 when recognised, else 0.
int QM_settings_token_to_boolean(const char* token, int token_len, int* bool_val);
// As QM_string_to_integer.
int QM_settings_token_to_long(const char* token, int token_len, long* val);

// The matchers take the setting's name token, a key's name and the position
// of the value, which they advance past the value. Each returns 1 when the name
// is the key (whether or not the value was good; *err tells, and a bad value
// has been reported) and 0 otherwise.
//
// *err = 0 on a name match, then -1 unless the value is "true" or "false".
int QM_settings_matches_true_false_setting(const char* key, const char* name_token, int name_len,
                                           const char** rhs, int* err, int* val);
// *err = -1 first, 0 once the value converts.
int QM_settings_matches_int_setting(const char* key, const char* name_token, int name_len,
                                    const char** rhs, int* err, long* val);
// As the int matcher; a negative value is refused (and still stored).
int QM_settings_matches_non_negative_int_setting(const char* key, const char* name_token,
                                                 int name_len, const char** rhs, int* err,
                                                 long* val);
// *err = -1 first, 0 when a value token is there; the value points into the text.
int QM_settings_matches_string_val_setting(const char* key, const char* name_token, int name_len,
                                           const char** rhs, int* err, const char** val,
                                           int* val_len);

// Converts exactly arg_len characters: an optional sign, then "0x" or "0X" and
// hexadecimal digits, or "0" and octal digits, or decimal digits. 1 and the
// value on success, 0 (nothing stored) otherwise. Values wrap; no size suffix.
int QM_string_to_integer(const char* arg, int arg_len, long* val);

// ---------------------------------------------------------------------------
// Generic parser

// read_char returns 1 and a character, 0 at the end, negative on error;
// unread_char pushes one character back (0, or negative on failure).
typedef struct parser_source_t parser_source_t;
struct parser_source_t {
  void* arg;
  int (*is_at_end)(parser_source_t* src);
  int (*read_char)(parser_source_t* src, int* ch);
  int (*unread_char)(parser_source_t* src, int ch);
};

// A source over a NUL-terminated string, which is never written.
typedef struct string_source_t {
  parser_source_t source;
  const char* string;
  const char* pos;
} string_source_t;

// Sets p up to read str; the source to read from, or null when either is null.
parser_source_t* QM_init_string_parser(const char* str, string_source_t* p);

// 0, or -1 on a read or push-back error. The first non-space is pushed back.
int QM_parser_skip_whitespace(parser_source_t* src);
// base is 0 (the prefix decides: 0x hexadecimal, 0 octal, else decimal) or
// 2..36 (16 also accepts 0x); anything else gives -1. Skips white space; at
// the end of the source returns 0 and stores nothing. Otherwise reads at least
// one digit (else -1) up to the first character that is not a digit of the
// base, which is pushed back; 0 with the value. Values wrap.
int QM_parser_read_unsigned_int(parser_source_t* src, int base, unsigned long* ul);
// As above with one "+" or "-" allowed after the white space.
int QM_parser_read_signed_int(parser_source_t* src, int base, long* val);
int QM_parser_read_decimal(parser_source_t* src, long* l);
int QM_parser_read_hex(parser_source_t* src, unsigned long* ul);
}
