/* The root block and type descriptors: constant, self-describing data by
 * which a debugger finds and decodes the agent's variables and tables in a
 * process's memory or a core file, without debugging information and
 * without calling into the process.
 *
 * QM_HEAP_QM (exported) is the agent's root block; the backtrace module has
 * a second one of the same layout, found through the agent's data table.
 * Every field is an int or a pointer, and the header says how large each is
 * and in which byte order, so a reader of another word size can decode it.
 * A reader may also find a root block without symbols: its "me" field holds
 * its own address.
 *
 * Type names in field descriptors name entries of the type tables (basic,
 * alias, enumeration or record); "T*" is a pointer to T and "T[N]" an array
 * of N T, so that every name a field uses resolves. Valid C and C++. */
#ifndef QMHEAP_ROOT_BLOCK_H
#define QMHEAP_ROOT_BLOCK_H

#ifdef __cplusplus
extern "C" {
#endif

enum { QM_ia_root_endian_marker = 0x1234, QM_ia_root_num_reserved = 27 };

typedef struct QM_ia_root_header_t {
  int endian_marker; /* 0x1234 */
  int major;         /* 1 */
  int minor;         /* 0 */
  int sizeof_int;
  int sizeof_pointer;
  int reserved[QM_ia_root_num_reserved];
} QM_ia_root_header_t;

/* --- descriptors ---------------------------------------------------------------- */

typedef struct QM_td_alias_type_descriptor_t {
  const char* alias_name;
  const char* name_of_aliased_type;
} QM_td_alias_type_descriptor_t;

typedef struct QM_td_basic_type_descriptor_t {
  const char* basic_type_name;
  int sizeof_basic_type;
} QM_td_basic_type_descriptor_t;

typedef struct QM_td_enum_member_descriptor_t {
  const char* tag_name;
  int value;
} QM_td_enum_member_descriptor_t;

typedef struct QM_td_enum_descriptor_t {
  const char* enum_name;
  const QM_td_enum_member_descriptor_t* enum_members;
  int nmembers;
  int sizeof_val;
} QM_td_enum_descriptor_t;

typedef struct QM_td_record_field_descriptor_t {
  const char* field_name;
  const char* field_type; /* a type table name */
  int field_offset;       /* bytes from the record's start */
} QM_td_record_field_descriptor_t;

typedef struct QM_td_record_descriptor_t {
  const char* record_name;
  const QM_td_record_field_descriptor_t* record_fields;
  int nfields;
  int sizeof_record;
} QM_td_record_descriptor_t;

/* --- type tables ------------------------------------------------------------------ */

typedef enum td_tt_entry_type_e {
  td_tt_entry_none = 0,
  td_tt_entry_alias = 1,
  td_tt_entry_basic = 2,
  td_tt_entry_enum = 3,
  td_tt_entry_record = 4,
  td_tt_entry_table = 5 /* a nested td_tt_type_table_t */
} td_tt_entry_type_e;

typedef struct td_tt_type_table_entry_t {
  const void* descriptor;
  td_tt_entry_type_e entry_type;
} td_tt_type_table_entry_t;

typedef struct td_tt_type_table_t {
  const td_tt_type_table_entry_t* entries;
  int nentries;
} td_tt_type_table_t;

/* --- the meta type table: the layout of the descriptors themselves ---------------- */

typedef struct QM_td_alias_type_meta_t {
  int sizeof_descriptor, offsetof_alias_name, offsetof_name_of_aliased_type;
} QM_td_alias_type_meta_t;
typedef struct QM_td_basic_type_meta_t {
  int sizeof_descriptor, offsetof_basic_type_name, offsetof_sizeof_basic_type;
} QM_td_basic_type_meta_t;
typedef struct QM_td_enum_member_meta_t {
  int sizeof_descriptor, offsetof_tag_name, offsetof_value;
} QM_td_enum_member_meta_t;
typedef struct QM_td_enum_meta_t {
  int sizeof_descriptor, offsetof_enum_name, offsetof_enum_members, offsetof_nmembers, offsetof_sizeof_val;
} QM_td_enum_meta_t;
typedef struct QM_td_record_field_meta_t {
  int sizeof_descriptor, offsetof_field_name, offsetof_field_type, offsetof_field_offset;
} QM_td_record_field_meta_t;
typedef struct QM_td_record_meta_t {
  int sizeof_descriptor, offsetof_record_name, offsetof_record_fields, offsetof_nfields, offsetof_sizeof_record;
} QM_td_record_meta_t;

typedef struct QM_td_meta_type_table_t {
  int major; /* 1 */
  int minor; /* 0 */
  /* byte offsets of the members below within this table */
  int offsetof_alias_type;
  int offsetof_basic_type;
  int offsetof_enum_member;
  int offsetof_enum_type;
  int offsetof_record_field;
  int offsetof_record_type;
  int offsetof_type_entry_type_descriptor;
  int offsetof_type_entry_descriptor;
  int offsetof_type_table_descriptor;
  QM_td_alias_type_meta_t alias_type;
  QM_td_basic_type_meta_t basic_type;
  QM_td_enum_member_meta_t enum_member;
  QM_td_enum_meta_t enum_type;
  QM_td_record_field_meta_t record_field;
  QM_td_record_meta_t record_type;
  const QM_td_enum_descriptor_t* type_entry_type_descriptor; /* td_tt_entry_type_e */
  const QM_td_record_descriptor_t* type_entry_descriptor;    /* td_tt_type_table_entry_t */
  const QM_td_record_descriptor_t* type_table_descriptor;    /* td_tt_type_table_t */
} QM_td_meta_type_table_t;

/* --- data tables: named variables --------------------------------------------------- */

typedef enum cd_data_table_entry_type_e {
  cd_dte_none = 0,
  cd_dte_data = 1,       /* a variable: entry is a cd_data_t */
  cd_dte_data_const = 2, /* a constant: entry is a cd_data_t */
  cd_dte_table = 3       /* a nested cd_data_table_t */
} cd_data_table_entry_type_e;

typedef struct cd_data_t {
  const char* name; /* the variable's name */
  const volatile void* data;  /* its address */
} cd_data_t;

typedef struct cd_data_table_entry_t {
  const void* entry;
  cd_data_table_entry_type_e entry_type;
} cd_data_table_entry_t;

typedef struct cd_data_table_t {
  const cd_data_table_entry_t* entries;
  int nentries;
} cd_data_table_t;

/* --- the root block ---------------------------------------------------------------- */

typedef struct QM_ia_root_block_t {
  QM_ia_root_header_t header;
  /* byte offsets of the pointers below within this block */
  int offsetof_me;
  int offsetof_td_meta_block;
  int offsetof_data_table_type_descriptor_table;
  int offsetof_type_table;
  int offsetof_data_table;
  const struct QM_ia_root_block_t* me; /* the block's own address, set at load */
  const QM_td_meta_type_table_t* td_meta_type_table;
  const td_tt_type_table_t* data_table_type_table; /* describes the data-table records */
  const td_tt_type_table_t* type_table;
  const cd_data_table_t* data_table;
} QM_ia_root_block_t;

#ifdef __cplusplus
}
#endif
#endif
