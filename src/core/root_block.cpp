// The root blocks, their type descriptors and data tables: what a debugger
// reads to find and decode the agent's variables and tables without
// debugging information. All of it is constant data; nothing here runs.
//
// Descriptors are generated from the real definitions: a field's offset is
// its offsetof, its type name is spelled from its declared type, and each
// record's field list is checked at compile time to cover the record
// exactly (every field in order, no gap but alignment padding, nothing after
// the last but the record's own padding), so a field added to a record and
// forgotten here does not compile.
#include "qmheap/root_block.h"

#include <stddef.h>

#include "backtrace/backtrace_heap.h"
#include "backtrace/backtrace_table.h"
#include "base/export.h"
#include "core/bodies.h"
#include "core/owners.h"
#include "events/events.h"
#include "events/output.h"
#include "heap/controls.h"
#include "heap/guards.h"
#include "heap/heap_tables.h"
#include "heap/hoard.h"
#include "qmheap/backtrace.h"
#include "qmheap/protection.h"
#include "redzone/rz_allocator.h"
#include "redzone/rz_controls.h"
#include "snapshot/snapshot.h"

extern "C" {
// The two functions the data table names, as addresses: objects declared
// under the functions' own symbols, since a function's address cannot be
// converted to a data pointer in a constant initialiser.
extern const char QM_HEAP_notify_breakpoint_here_code[] __asm__("QM_HEAP_notify_breakpoint_here");
extern const char QM_HEAP_backtrace_get_trim_code[] __asm__("QM_HEAP_backtrace_get_trim");
extern const char QM_qm_distribution[];
extern int QM_HEAP_startup_config_done;
extern volatile int QM_HEAP_lwmdbg_sequence_number;
extern volatile int QM_HEAP_lwcore_sequence_number;
extern const int QM_HEAP_version_major;
extern const int QM_HEAP_version_minor;
extern const int QM_HEAP_version_point;
extern const int QM_HEAP_version_service;
}

namespace {

// --- type names, spelled from the declared type ---------------------------------

struct Name {
  char s[64];
  int n;
};

constexpr Name name_of(const char* s) {
  Name r{};
  while (s[r.n] != '\0') {
    r.s[r.n] = s[r.n];
    ++r.n;
  }
  return r;
}

constexpr Name append(Name a, const char* s) {
  for (int i = 0; s[i] != '\0'; ++i) a.s[a.n++] = s[i];
  a.s[a.n] = '\0';
  return a;
}

constexpr Name append_number(Name a, size_t v) {
  char digits[24] = {};
  int k = 0;
  do {
    digits[k++] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  while (k > 0) a.s[a.n++] = digits[--k];
  a.s[a.n] = '\0';
  return a;
}

// A type without a name here does not compile: every type a described field
// uses must be named, and named as the type tables name it.
template <class T>
struct TypeName;
template <class T>
struct TypeName<const T> : TypeName<T> {};
template <class T>
struct TypeName<volatile T> : TypeName<T> {};
template <class T>
struct TypeName<const volatile T> : TypeName<T> {};
template <class T>
struct TypeName<T*> {
  static constexpr Name value = append(TypeName<T>::value, "*");
};
template <class T, size_t N>
struct TypeName<T[N]> {
  static constexpr Name value = append(append_number(append(TypeName<T>::value, "["), N), "]");
};
template <class T, size_t N>
struct TypeName<const T[N]> : TypeName<T[N]> {};
template <class T, size_t N>
struct TypeName<volatile T[N]> : TypeName<T[N]> {};
template <class T, size_t N>
struct TypeName<const volatile T[N]> : TypeName<T[N]> {};
#define QM_TD_NAME(T, text)                          \
  template <>                                        \
  struct TypeName<T> {                               \
    static constexpr Name value = name_of(text);     \
  };
QM_TD_NAME(void, "void")
QM_TD_NAME(char, "char")
QM_TD_NAME(unsigned char, "unsigned char")
QM_TD_NAME(short, "short")
QM_TD_NAME(unsigned short, "unsigned short")
QM_TD_NAME(int, "int")
QM_TD_NAME(unsigned int, "unsigned int")
QM_TD_NAME(long, "long")
QM_TD_NAME(unsigned long, "unsigned long")
QM_TD_NAME(double, "double")
QM_TD_NAME(pthread_mutex_t, "pthread_mutex_t")
#define QM_TD_NAME_SELF(T) QM_TD_NAME(T, #T)
QM_TD_NAME_SELF(allocation_record_t)
QM_TD_NAME_SELF(heap_avl_node_t)
QM_TD_NAME_SELF(heap_avl_info_t)
QM_TD_NAME_SELF(avl_balance_t)
QM_TD_NAME_SELF(QM_HEAP_event_e)
QM_TD_NAME_SELF(QM_HEAP_heap_op_e)
QM_TD_NAME_SELF(QM_HEAP_event_info_t)
QM_TD_NAME_SELF(event_config_name_mapping_t)
QM_TD_NAME_SELF(rz_record_t)
QM_TD_NAME_SELF(rz_state_e)
QM_TD_NAME_SELF(rz_avl_node_t)
QM_TD_NAME_SELF(rz_stats_t)
QM_TD_NAME_SELF(rz_table_t)
QM_TD_NAME_SELF(QM_HEAP_rz_size_range_t)
QM_TD_NAME_SELF(guard_settings_t)
QM_TD_NAME_SELF(guard_hash_node_t)
QM_TD_NAME_SELF(guard_hash_chain_t)
QM_TD_NAME_SELF(guard_table_t)
QM_TD_NAME_SELF(QM_HEAP_hoard_block_t)
QM_TD_NAME_SELF(QM_HEAP_hoard_t)
QM_TD_NAME_SELF(stack_backtrace_info_t)
QM_TD_NAME_SELF(stack_backtrace_chunk_table_t)
QM_TD_NAME_SELF(stack_backtrace_hash_chain_t)
QM_TD_NAME_SELF(stack_backtrace_table_t)
QM_TD_NAME_SELF(QM_ia_root_header_t)
QM_TD_NAME_SELF(QM_ia_root_block_t)
QM_TD_NAME_SELF(QM_td_alias_type_descriptor_t)
QM_TD_NAME_SELF(QM_td_basic_type_descriptor_t)
QM_TD_NAME_SELF(QM_td_enum_member_descriptor_t)
QM_TD_NAME_SELF(QM_td_enum_descriptor_t)
QM_TD_NAME_SELF(QM_td_record_field_descriptor_t)
QM_TD_NAME_SELF(QM_td_record_descriptor_t)
QM_TD_NAME_SELF(QM_td_alias_type_meta_t)
QM_TD_NAME_SELF(QM_td_basic_type_meta_t)
QM_TD_NAME_SELF(QM_td_enum_member_meta_t)
QM_TD_NAME_SELF(QM_td_enum_meta_t)
QM_TD_NAME_SELF(QM_td_record_field_meta_t)
QM_TD_NAME_SELF(QM_td_record_meta_t)
QM_TD_NAME_SELF(QM_td_meta_type_table_t)
QM_TD_NAME_SELF(td_tt_entry_type_e)
QM_TD_NAME_SELF(td_tt_type_table_entry_t)
QM_TD_NAME_SELF(td_tt_type_table_t)
QM_TD_NAME_SELF(cd_data_table_entry_type_e)
QM_TD_NAME_SELF(cd_data_t)
QM_TD_NAME_SELF(cd_data_table_entry_t)
QM_TD_NAME_SELF(cd_data_table_t)

// --- records -----------------------------------------------------------------------

struct FieldExtent {
  size_t offset, size, align;
};

// True when the fields, in order, cover the record exactly.
template <size_t N>
constexpr bool covers(const FieldExtent (&f)[N], size_t record_size, size_t record_align) {
  size_t end = 0;
  for (size_t i = 0; i < N; ++i) {
    const size_t expected = (end + f[i].align - 1) / f[i].align * f[i].align;
    if (f[i].offset != expected) return false;
    end = f[i].offset + f[i].size;
  }
  return (end + record_align - 1) / record_align * record_align == record_size;
}

#define QM_TD_FIELD(f) {#f, TypeName<decltype(Rec::f)>::value.s, static_cast<int>(offsetof(Rec, f))},
#define QM_TD_EXTENT(f) {offsetof(Rec, f), sizeof(Rec::f), alignof(decltype(Rec::f))},
// A record's descriptor from the list of its fields: td_<T>.
#define QM_TD_RECORD(T, FIELDS)                                                              \
  namespace td_##T##_ns {                                                                   \
  using Rec = T;                                                                            \
  constinit const QM_td_record_field_descriptor_t fields[] = {FIELDS(QM_TD_FIELD)};         \
  constexpr FieldExtent extents[] = {FIELDS(QM_TD_EXTENT)};                                 \
  static_assert(covers(extents, sizeof(T), alignof(T)), #T ": a field is missing or out of order"); \
  }                                                                                         \
  constinit const QM_td_record_descriptor_t td_##T = {                                      \
      #T, td_##T##_ns::fields, static_cast<int>(sizeof td_##T##_ns::fields / sizeof td_##T##_ns::fields[0]), \
      static_cast<int>(sizeof(T))};

#define ALLOCATION_RECORD(F) \
  F(addr) F(len) F(backtrace_id) F(thread_id) F(flags) F(org_addr) F(org_len) F(org_backtrace_id) \
  F(control_info) F(guard_id) F(generation) F(allocator_id) F(owner_id)
QM_TD_RECORD(allocation_record_t, ALLOCATION_RECORD)

#if defined(__x86_64__)
#define HEAP_AVL_NODE(F) F(allocation_record) F(balance) F(left) F(right) F(key_addr) F(pad)
#else
#define HEAP_AVL_NODE(F) F(allocation_record) F(balance) F(left) F(right)
#endif
QM_TD_RECORD(heap_avl_node_t, HEAP_AVL_NODE)
#define HEAP_AVL_INFO(F) F(root) F(free) F(fresh_nodes) F(fresh_nodes_next) F(fresh_nodes_bound) F(num_records)
QM_TD_RECORD(heap_avl_info_t, HEAP_AVL_INFO)

#define EVENT_INFO(F) \
  F(event) F(op) F(allocation_record) F(allocation_record_2) F(addr) F(len) F(alignment) F(timestamp) \
  F(backtrace_id) F(owner_id) F(allocator_id) F(rz_record)
QM_TD_RECORD(QM_HEAP_event_info_t, EVENT_INFO)
#define EVENT_CONFIG_NAME(F) F(config_name) F(event)
QM_TD_RECORD(event_config_name_mapping_t, EVENT_CONFIG_NAME)

#define RZ_RECORD(F) \
  F(payload) F(alloc_addr) F(payload_len) F(alloc_len) F(fence_size) F(flags) F(alignment) F(state)
QM_TD_RECORD(rz_record_t, RZ_RECORD)
#define RZ_AVL_NODE(F) F(rz_record) F(balance) F(left) F(right)
QM_TD_RECORD(rz_avl_node_t, RZ_AVL_NODE)
#define RZ_STATS(F) F(payload) F(fence) F(alloc) F(num)
QM_TD_RECORD(rz_stats_t, RZ_STATS)
#define RZ_TABLE(F) F(root) F(free) F(fresh) F(fresh_bound) F(mutex) F(alloc_stats) F(dealloc_stats)
QM_TD_RECORD(rz_table_t, RZ_TABLE)
#define RZ_SIZE_RANGE(F) F(flags) F(start) F(end)
QM_TD_RECORD(QM_HEAP_rz_size_range_t, RZ_SIZE_RANGE)

#define GUARD_SETTINGS(F) F(pre_size) F(pre_pattern) F(post_size) F(post_pattern)
QM_TD_RECORD(guard_settings_t, GUARD_SETTINGS)
#define GUARD_HASH_NODE(F) F(next) F(hash_val) F(id)
QM_TD_RECORD(guard_hash_node_t, GUARD_HASH_NODE)
#define GUARD_HASH_CHAIN(F) F(chain) F(chain_length)
QM_TD_RECORD(guard_hash_chain_t, GUARD_HASH_CHAIN)
#define GUARD_TABLE(F) \
  F(mutex) F(hash_table) F(num_entries) F(mru_id) F(num_insertions) F(num_insertions_satisfied_by_mru) \
  F(num_insertions_satisfied_by_table_lookup) F(nodes_base) F(nodes_next) F(nodes_bound) F(settings) \
  F(settings_next) F(settings_bound) F(settings_size)
QM_TD_RECORD(guard_table_t, GUARD_TABLE)

#define HOARD_BLOCK(F) F(addr) F(alloc_addr) F(len) F(next) F(prev)
QM_TD_RECORD(QM_HEAP_hoard_block_t, HOARD_BLOCK)
#define HOARD(F) F(region) F(region_size) F(blocks) F(blocks_capacity) F(front) F(back) F(free)
QM_TD_RECORD(QM_HEAP_hoard_t, HOARD)

#define BT_INFO(F) F(checksum) F(next) F(info_chunk_no) F(pcs_chunk_no) F(pcs_chunk_offset) F(num_pcs)
QM_TD_RECORD(stack_backtrace_info_t, BT_INFO)
#define BT_CHUNK_TABLE(F) \
  F(table) F(table_bound) F(table_next) F(table_current_size) F(table_inc_size) F(table_mm_tag) \
  F(chunk_size) F(unit_size) F(units_per_chunk) F(chunk_mm_tag) F(chunk_current) F(chunk_next)
QM_TD_RECORD(stack_backtrace_chunk_table_t, BT_CHUNK_TABLE)
#define BT_HASH_CHAIN(F) F(chain)
QM_TD_RECORD(stack_backtrace_hash_chain_t, BT_HASH_CHAIN)
#define BT_TABLE(F) \
  F(next_backtrace_id) F(hash_table) F(hash_table_bound) F(info_table) F(pcs_table) F(num_insertions) F(mru) \
  F(mru_hit_count)
QM_TD_RECORD(stack_backtrace_table_t, BT_TABLE)

#define ROOT_HEADER(F) F(endian_marker) F(major) F(minor) F(sizeof_int) F(sizeof_pointer) F(reserved)
QM_TD_RECORD(QM_ia_root_header_t, ROOT_HEADER)
#define ROOT_BLOCK(F) \
  F(header) F(offsetof_me) F(offsetof_td_meta_block) F(offsetof_data_table_type_descriptor_table) \
  F(offsetof_type_table) F(offsetof_data_table) F(me) F(td_meta_type_table) F(data_table_type_table) \
  F(type_table) F(data_table)
QM_TD_RECORD(QM_ia_root_block_t, ROOT_BLOCK)
#define TD_ALIAS(F) F(alias_name) F(name_of_aliased_type)
QM_TD_RECORD(QM_td_alias_type_descriptor_t, TD_ALIAS)
#define TD_BASIC(F) F(basic_type_name) F(sizeof_basic_type)
QM_TD_RECORD(QM_td_basic_type_descriptor_t, TD_BASIC)
#define TD_ENUM_MEMBER(F) F(tag_name) F(value)
QM_TD_RECORD(QM_td_enum_member_descriptor_t, TD_ENUM_MEMBER)
#define TD_ENUM(F) F(enum_name) F(enum_members) F(nmembers) F(sizeof_val)
QM_TD_RECORD(QM_td_enum_descriptor_t, TD_ENUM)
#define TD_FIELD(F) F(field_name) F(field_type) F(field_offset)
QM_TD_RECORD(QM_td_record_field_descriptor_t, TD_FIELD)
#define TD_RECORD(F) F(record_name) F(record_fields) F(nfields) F(sizeof_record)
QM_TD_RECORD(QM_td_record_descriptor_t, TD_RECORD)
#define META_ALIAS(F) F(sizeof_descriptor) F(offsetof_alias_name) F(offsetof_name_of_aliased_type)
QM_TD_RECORD(QM_td_alias_type_meta_t, META_ALIAS)
#define META_BASIC(F) F(sizeof_descriptor) F(offsetof_basic_type_name) F(offsetof_sizeof_basic_type)
QM_TD_RECORD(QM_td_basic_type_meta_t, META_BASIC)
#define META_ENUM_MEMBER(F) F(sizeof_descriptor) F(offsetof_tag_name) F(offsetof_value)
QM_TD_RECORD(QM_td_enum_member_meta_t, META_ENUM_MEMBER)
#define META_ENUM(F) \
  F(sizeof_descriptor) F(offsetof_enum_name) F(offsetof_enum_members) F(offsetof_nmembers) F(offsetof_sizeof_val)
QM_TD_RECORD(QM_td_enum_meta_t, META_ENUM)
#define META_FIELD(F) F(sizeof_descriptor) F(offsetof_field_name) F(offsetof_field_type) F(offsetof_field_offset)
QM_TD_RECORD(QM_td_record_field_meta_t, META_FIELD)
#define META_RECORD(F) \
  F(sizeof_descriptor) F(offsetof_record_name) F(offsetof_record_fields) F(offsetof_nfields) F(offsetof_sizeof_record)
QM_TD_RECORD(QM_td_record_meta_t, META_RECORD)
#define META_TABLE(F) \
  F(major) F(minor) F(offsetof_alias_type) F(offsetof_basic_type) F(offsetof_enum_member) F(offsetof_enum_type) \
  F(offsetof_record_field) F(offsetof_record_type) F(offsetof_type_entry_type_descriptor) \
  F(offsetof_type_entry_descriptor) F(offsetof_type_table_descriptor) F(alias_type) F(basic_type) F(enum_member) \
  F(enum_type) F(record_field) F(record_type) F(type_entry_type_descriptor) F(type_entry_descriptor) \
  F(type_table_descriptor)
QM_TD_RECORD(QM_td_meta_type_table_t, META_TABLE)
#define TT_ENTRY(F) F(descriptor) F(entry_type)
QM_TD_RECORD(td_tt_type_table_entry_t, TT_ENTRY)
#define TT_TABLE(F) F(entries) F(nentries)
QM_TD_RECORD(td_tt_type_table_t, TT_TABLE)
#define CD_DATA(F) F(name) F(data)
QM_TD_RECORD(cd_data_t, CD_DATA)
#define CD_ENTRY(F) F(entry) F(entry_type)
QM_TD_RECORD(cd_data_table_entry_t, CD_ENTRY)
#define CD_TABLE(F) F(entries) F(nentries)
QM_TD_RECORD(cd_data_table_t, CD_TABLE)

// --- enumerations ------------------------------------------------------------------

// An enumeration's descriptor from its members: td_<T>. Dense enumerations
// (values 0, 1, 2, ... in order) are checked to be complete up to their
// last member.
#define QM_TD_MEMBER(m) {#m, static_cast<int>(m)},
#define QM_TD_ENUM(T, MEMBERS)                                                                     \
  namespace td_##T##_ns {                                                                         \
  constexpr QM_td_enum_member_descriptor_t members[] = {MEMBERS(QM_TD_MEMBER)};             \
  }                                                                                               \
  constinit const QM_td_enum_descriptor_t td_##T = {                                              \
      #T, td_##T##_ns::members,                                                                   \
      static_cast<int>(sizeof td_##T##_ns::members / sizeof td_##T##_ns::members[0]), static_cast<int>(sizeof(T))};

template <size_t N>
constexpr bool dense(const QM_td_enum_member_descriptor_t (&m)[N]) {
  for (size_t i = 0; i < N; ++i)
    if (m[i].value != static_cast<int>(i)) return false;
  return true;
}
#define QM_TD_DENSE_ENUM(T, MEMBERS, last)                                                      \
  QM_TD_ENUM(T, MEMBERS)                                                                        \
  static_assert(dense(td_##T##_ns::members) &&                                                  \
                    sizeof td_##T##_ns::members / sizeof td_##T##_ns::members[0] == (last) + 1u, \
                #T ": a member is missing or out of order");

#define ALLOC_FLAGS(M) \
  M(af_op_in_progress) M(af_notify_dealloc) M(af_notify_realloc) M(af_paint_on_dealloc) \
  M(af_dont_free_on_dealloc) M(af_hoarded)
QM_TD_ENUM(QM_HEAP_alloc_flags_e, ALLOC_FLAGS)
#define ALLOC_KINDS(M) M(af_kind_new) M(af_kind_new_array) M(af_kind_aligned) M(af_kind_mask)
QM_TD_ENUM(QM_HEAP_alloc_kind_e, ALLOC_KINDS)
#define AVL_BALANCE(M) M(avl_left_high_e) M(avl_equal_high_e) M(avl_right_high_e)
QM_TD_DENSE_ENUM(avl_balance_t, AVL_BALANCE, avl_right_high_e)

#define HEAP_OPS(M) \
  M(qm_heap_op_nop) M(qm_heap_op_calloc) M(qm_heap_op_free) M(qm_heap_op_malloc) M(qm_heap_op_realloc) \
  M(qm_heap_op_memalign) M(qm_heap_op_posix_memalign) M(qm_heap_op_valloc) M(qm_heap_op_private_hoard_insert) \
  M(qm_heap_op_private_hoard_remove) M(qm_heap_op_init) M(qm_heap_op_fini) M(qm_heap_op_exit) \
  M(qm_heap_op__exit) M(qm_heap_op_malloc_create_zone) M(qm_heap_op_malloc_destroy_zone) \
  M(qm_heap_op_malloc_zone_calloc) M(qm_heap_op_malloc_zone_free) M(qm_heap_op_malloc_zone_malloc) \
  M(qm_heap_op_malloc_zone_realloc) M(qm_heap_op_malloc_zone_valloc) M(qm_heap_op_malloc_zone_memalign) \
  M(qm_heap_op_malloc_zone_batch_free) M(qm_heap_op_malloc_zone_batch_malloc) \
  M(qm_heap_op_malloc_zone_from_ptr) M(qm_heap_op_malloc_size) M(qm_heap_op_rz_signal) M(qm_heap_op_new) \
  M(qm_heap_op_new_array) M(qm_heap_op_delete) M(qm_heap_op_delete_array)
QM_TD_DENSE_ENUM(QM_HEAP_heap_op_e, HEAP_OPS, qm_heap_op_delete_array)

#define EVENTS(M) \
  M(qm_heap_event_none) M(qm_heap_event_free_not_allocated) M(qm_heap_event_realloc_not_allocated) \
  M(qm_heap_event_addr_not_at_start) M(qm_heap_event_double_alloc) M(qm_heap_event_alloc_not_in_heap) \
  M(qm_heap_event_alloc_null) M(qm_heap_event_alloc_returned_bad_alignment) \
  M(qm_heap_event_bad_alignment_argument) M(qm_heap_event_op_in_progress) \
  M(qm_heap_event_alloc_added_during_op) M(qm_heap_event_alloc_deleted_during_op) \
  M(qm_heap_event_alloc_changed_during_op) M(qm_heap_event_dealloc_notification) \
  M(qm_heap_event_realloc_notification) M(qm_heap_event_deletion_error) M(qm_heap_event_insertion_error) \
  M(qm_heap_event_modification_error) M(qm_heap_event_record_not_found) \
  M(qm_heap_event_startup_config_done) M(qm_heap_event_double_dealloc) M(qm_heap_event_guard_corruption) \
  M(qm_heap_event_termination_notification) M(qm_heap_event_unknown_error) \
  M(qm_heap_event_addr_not_in_heap) M(qm_heap_event_dmz_unknown_zone) \
  M(qm_heap_event_dmz_destruction_in_progress) M(qm_heap_event_dmz_pending_zone) \
  M(qm_heap_event_dmz_unknown_state) M(qm_heap_event_dmz_zone_creation_error) \
  M(qm_heap_event_dmz_duplicate_zone_created) M(qm_heap_event_dmz_deleting_default_zone) \
  M(qm_heap_event_api_error) M(qm_heap_event_rz_unknown) M(qm_heap_event_rz_underrun) \
  M(qm_heap_event_rz_overrun) M(qm_heap_event_rz_use_after_free) \
  M(qm_heap_event_rz_use_after_free_underrun) M(qm_heap_event_rz_use_after_free_overrun) \
  M(qm_heap_event_autoshrink_threshold) M(qm_heap_event_dealloc_mismatch) M(qm_heap_event_avoid_trailing_comma_misery)
QM_TD_DENSE_ENUM(QM_HEAP_event_e, EVENTS, qm_heap_event_avoid_trailing_comma_misery)
#define EVENT_FIELDS(M) \
  M(ef_event) M(ef_op) M(ef_allocation_record) M(ef_allocation_record_2) M(ef_addr) M(ef_len) M(ef_alignment) \
  M(ef_timestamp) M(ef_backtrace_id) M(ef_owner_id) M(ef_allocator_id) M(ef_rz_record) \
  M(ef_avoid_trailing_comma_misery)
QM_TD_DENSE_ENUM(QM_HEAP_event_fields_e, EVENT_FIELDS, ef_avoid_trailing_comma_misery)

#define RZ_FLAGS(M) M(rzf_none) M(rzf_has_pre_fence) M(rzf_has_post_fence) M(rzf_detect_use_after_free) M(rzf_end_aligned)
QM_TD_ENUM(rz_flags_e, RZ_FLAGS)
#define RZ_STATES(M) M(rzs_none) M(rzs_allocated) M(rzs_deallocated) M(rzs_avoid_trailing_comma_misery)
QM_TD_DENSE_ENUM(rz_state_e, RZ_STATES, rzs_avoid_trailing_comma_misery)

#define GUARD_STATUS(M) M(guards_ok) M(guards_pre_bad) M(guards_post_bad) M(guards_both_bad)
QM_TD_DENSE_ENUM(guard_status_e, GUARD_STATUS, guards_both_bad)

#define OWNER_IDS(M) M(om_id_invalid) M(om_id_c_owner) M(om_id_darwin_default_zone) M(om_id_first_non_special)
QM_TD_DENSE_ENUM(om_ids_e, OWNER_IDS, om_id_first_non_special)
#define OWNER_RIGHTS(M) M(or_free) M(or_realloc) M(or_avoid_trailing_comma_misery)
QM_TD_DENSE_ENUM(owner_rights_e, OWNER_RIGHTS, or_avoid_trailing_comma_misery)
#define ALLOCATOR_IDS(M) \
  M(am_id_invalid) M(am_id_c_allocator) M(am_id_rz_allocator) M(am_id_dmz_allocator) M(am_id_first_non_special)
QM_TD_DENSE_ENUM(am_ids_e, ALLOCATOR_IDS, am_id_first_non_special)

#define TT_ENTRY_TYPES(M) \
  M(td_tt_entry_none) M(td_tt_entry_alias) M(td_tt_entry_basic) M(td_tt_entry_enum) M(td_tt_entry_record) \
  M(td_tt_entry_table)
QM_TD_DENSE_ENUM(td_tt_entry_type_e, TT_ENTRY_TYPES, td_tt_entry_table)
#define CD_ENTRY_TYPES(M) M(cd_dte_none) M(cd_dte_data) M(cd_dte_data_const) M(cd_dte_table)
QM_TD_DENSE_ENUM(cd_data_table_entry_type_e, CD_ENTRY_TYPES, cd_dte_table)

// --- basic types and aliases -------------------------------------------------------

#define QM_TD_BASIC(T) {TypeName<T>::value.s, static_cast<int>(sizeof(T))},
constinit const QM_td_basic_type_descriptor_t td_basic[] = {
    QM_TD_BASIC(char) QM_TD_BASIC(unsigned char) QM_TD_BASIC(short) QM_TD_BASIC(unsigned short) QM_TD_BASIC(int)
        QM_TD_BASIC(unsigned int) QM_TD_BASIC(long) QM_TD_BASIC(unsigned long) QM_TD_BASIC(double)
            QM_TD_BASIC(pthread_mutex_t) {"void", 1}};

// The typedefs the records' declarations use, for a reader that knows the
// declarations by these names.
#define QM_TD_ALIAS(T) {#T, TypeName<T>::value.s},
constinit const QM_td_alias_type_descriptor_t td_aliases[] = {
    QM_TD_ALIAS(size_t) QM_TD_ALIAS(pthread_t) QM_TD_ALIAS(time_t) QM_TD_ALIAS(backtrace_id_t)
        QM_TD_ALIAS(backtrace_checksum_t) QM_TD_ALIAS(guard_id_t) QM_TD_ALIAS(guard_size_t)
            QM_TD_ALIAS(guard_pattern_t) QM_TD_ALIAS(hash_sigma_t) QM_TD_ALIAS(allocator_id_t)
                QM_TD_ALIAS(owner_id_t) QM_TD_ALIAS(alloc_rec_id_t) QM_TD_ALIAS(event_filters_t)};
constinit const QM_td_alias_type_descriptor_t td_generation_alias[] = {QM_TD_ALIAS(generation_t)};

// --- type tables -------------------------------------------------------------------

constexpr td_tt_type_table_entry_t rec(const QM_td_record_descriptor_t& d) { return {&d, td_tt_entry_record}; }
constexpr td_tt_type_table_entry_t enm(const QM_td_enum_descriptor_t& d) { return {&d, td_tt_entry_enum}; }
constexpr td_tt_type_table_entry_t nested(const td_tt_type_table_t& t) { return {&t, td_tt_entry_table}; }

template <size_t N>
constexpr td_tt_type_table_t table_of(const td_tt_type_table_entry_t (&e)[N]) {
  return {e, static_cast<int>(N)};
}

// One entry per element of an array of descriptors.
template <size_t N>
struct Entries {
  td_tt_type_table_entry_t e[N];
};
template <class D, size_t N>
constexpr Entries<N> entries_of(const D (&arr)[N], td_tt_entry_type_e kind) {
  Entries<N> r{};
  for (size_t i = 0; i < N; ++i) r.e[i] = {&arr[i], kind};
  return r;
}
constinit const auto basic_entries = entries_of(td_basic, td_tt_entry_basic);
constinit const auto alias_entries = entries_of(td_aliases, td_tt_entry_alias);
constinit const auto generation_entries = entries_of(td_generation_alias, td_tt_entry_alias);

constinit const td_tt_type_table_entry_t records_entries[] = {rec(td_allocation_record_t), enm(td_QM_HEAP_alloc_flags_e),
                                                               enm(td_QM_HEAP_alloc_kind_e)};
constinit const td_tt_type_table_entry_t tables_entries[] = {rec(td_heap_avl_node_t), rec(td_heap_avl_info_t),
                                                              enm(td_avl_balance_t)};
constinit const td_tt_type_table_entry_t events_entries[] = {enm(td_QM_HEAP_event_e), rec(td_QM_HEAP_event_info_t)};
constinit const td_tt_type_table_entry_t event_names_entries[] = {rec(td_event_config_name_mapping_t),
                                                                   enm(td_QM_HEAP_event_fields_e)};
constinit const td_tt_type_table_entry_t ops_entries[] = {enm(td_QM_HEAP_heap_op_e)};
constinit const td_tt_type_table_entry_t guards_entries[] = {rec(td_guard_settings_t), enm(td_guard_status_e),
                                                              rec(td_guard_hash_node_t), rec(td_guard_hash_chain_t),
                                                              rec(td_guard_table_t)};
constinit const td_tt_type_table_entry_t hoard_entries[] = {rec(td_QM_HEAP_hoard_block_t), rec(td_QM_HEAP_hoard_t)};
constinit const td_tt_type_table_entry_t owners_entries[] = {enm(td_om_ids_e), enm(td_owner_rights_e)};
constinit const td_tt_type_table_entry_t allocators_entries[] = {enm(td_am_ids_e)};
constinit const td_tt_type_table_entry_t rz_allocator_entries[] = {rec(td_rz_avl_node_t), rec(td_rz_stats_t),
                                                                    rec(td_rz_table_t), rec(td_QM_HEAP_rz_size_range_t)};
constinit const td_tt_type_table_entry_t backtrace_entries[] = {
    rec(td_stack_backtrace_info_t), rec(td_stack_backtrace_chunk_table_t), rec(td_stack_backtrace_hash_chain_t),
    rec(td_stack_backtrace_table_t)};
constinit const td_tt_type_table_entry_t root_entries[] = {rec(td_QM_ia_root_header_t), rec(td_QM_ia_root_block_t)};
constinit const td_tt_type_table_entry_t descriptor_entries[] = {
    rec(td_QM_td_alias_type_descriptor_t), rec(td_QM_td_basic_type_descriptor_t),
    rec(td_QM_td_enum_member_descriptor_t), rec(td_QM_td_enum_descriptor_t),
    rec(td_QM_td_record_field_descriptor_t), rec(td_QM_td_record_descriptor_t),
    enm(td_td_tt_entry_type_e), rec(td_td_tt_type_table_entry_t), rec(td_td_tt_type_table_t),
    rec(td_QM_td_alias_type_meta_t), rec(td_QM_td_basic_type_meta_t), rec(td_QM_td_enum_member_meta_t),
    rec(td_QM_td_enum_meta_t), rec(td_QM_td_record_field_meta_t), rec(td_QM_td_record_meta_t),
    rec(td_QM_td_meta_type_table_t)};
constinit const td_tt_type_table_entry_t data_table_entries[] = {
    enm(td_cd_data_table_entry_type_e), rec(td_cd_data_t), rec(td_cd_data_table_entry_t), rec(td_cd_data_table_t)};

constinit const td_tt_type_table_t basic_table = table_of(basic_entries.e);
constinit const td_tt_type_table_t alias_table = table_of(alias_entries.e);
constinit const td_tt_type_table_t records_table = table_of(records_entries);
constinit const td_tt_type_table_t tables_table = table_of(tables_entries);
constinit const td_tt_type_table_t events_table = table_of(events_entries);
constinit const td_tt_type_table_t event_names_table = table_of(event_names_entries);
constinit const td_tt_type_table_t ops_table = table_of(ops_entries);
constinit const td_tt_type_table_t guards_table = table_of(guards_entries);
constinit const td_tt_type_table_t hoard_table = table_of(hoard_entries);
constinit const td_tt_type_table_t owners_table = table_of(owners_entries);
constinit const td_tt_type_table_t allocators_table = table_of(allocators_entries);
constinit const td_tt_type_table_t rz_allocator_table = table_of(rz_allocator_entries);
constinit const td_tt_type_table_t generation_table = table_of(generation_entries.e);
constinit const td_tt_type_table_t backtrace_table = table_of(backtrace_entries);
constinit const td_tt_type_table_t root_table = table_of(root_entries);
constinit const td_tt_type_table_t descriptor_table = table_of(descriptor_entries);

}  // namespace

extern "C" {

// The red-zone types, and one nested table per module.
constinit const td_tt_type_table_entry_t QM_HEAP_tt_rz_entries[] = {rec(td_rz_record_t), enm(td_rz_flags_e),
                                                                     enm(td_rz_state_e)};
constinit const td_tt_type_table_t QM_HEAP_tt_rz_type_table = table_of(QM_HEAP_tt_rz_entries);
constinit const td_tt_type_table_entry_t QM_HEAP_tt_general_entries[] = {
    nested(basic_table),     nested(alias_table),      nested(records_table),     nested(tables_table),
    nested(events_table),    nested(event_names_table), nested(ops_table),        nested(guards_table),
    nested(hoard_table),     nested(owners_table),     nested(allocators_table),  nested(rz_allocator_table),
    nested(generation_table), nested(backtrace_table), nested(root_table),        nested(descriptor_table)};
static_assert(sizeof QM_HEAP_tt_general_entries / sizeof QM_HEAP_tt_general_entries[0] == 16);
constinit const td_tt_type_table_t QM_HEAP_tt_general_type_table = table_of(QM_HEAP_tt_general_entries);

}  // extern "C"

namespace {

constinit const td_tt_type_table_entry_t agent_type_entries[] = {nested(QM_HEAP_tt_rz_type_table),
                                                                  nested(QM_HEAP_tt_general_type_table)};
constinit const td_tt_type_table_t agent_type_table = table_of(agent_type_entries);
constinit const td_tt_type_table_t data_table_type_table = table_of(data_table_entries);
constinit const td_tt_type_table_entry_t backtrace_type_entries[] = {nested(basic_table), nested(backtrace_table)};
constinit const td_tt_type_table_t backtrace_type_table = table_of(backtrace_type_entries);

// --- the meta type table -----------------------------------------------------------

#define QM_TD_OFF(T, f) static_cast<int>(offsetof(T, f))
#define QM_TD_SIZE(T) static_cast<int>(sizeof(T))
using Meta = QM_td_meta_type_table_t;

}  // namespace

extern "C" {

constinit const QM_td_meta_type_table_t QM_td_meta_type_table_singleton = {
    1,
    0,
    QM_TD_OFF(Meta, alias_type),
    QM_TD_OFF(Meta, basic_type),
    QM_TD_OFF(Meta, enum_member),
    QM_TD_OFF(Meta, enum_type),
    QM_TD_OFF(Meta, record_field),
    QM_TD_OFF(Meta, record_type),
    QM_TD_OFF(Meta, type_entry_type_descriptor),
    QM_TD_OFF(Meta, type_entry_descriptor),
    QM_TD_OFF(Meta, type_table_descriptor),
    {QM_TD_SIZE(QM_td_alias_type_descriptor_t), QM_TD_OFF(QM_td_alias_type_descriptor_t, alias_name),
     QM_TD_OFF(QM_td_alias_type_descriptor_t, name_of_aliased_type)},
    {QM_TD_SIZE(QM_td_basic_type_descriptor_t), QM_TD_OFF(QM_td_basic_type_descriptor_t, basic_type_name),
     QM_TD_OFF(QM_td_basic_type_descriptor_t, sizeof_basic_type)},
    {QM_TD_SIZE(QM_td_enum_member_descriptor_t), QM_TD_OFF(QM_td_enum_member_descriptor_t, tag_name),
     QM_TD_OFF(QM_td_enum_member_descriptor_t, value)},
    {QM_TD_SIZE(QM_td_enum_descriptor_t), QM_TD_OFF(QM_td_enum_descriptor_t, enum_name),
     QM_TD_OFF(QM_td_enum_descriptor_t, enum_members), QM_TD_OFF(QM_td_enum_descriptor_t, nmembers),
     QM_TD_OFF(QM_td_enum_descriptor_t, sizeof_val)},
    {QM_TD_SIZE(QM_td_record_field_descriptor_t), QM_TD_OFF(QM_td_record_field_descriptor_t, field_name),
     QM_TD_OFF(QM_td_record_field_descriptor_t, field_type), QM_TD_OFF(QM_td_record_field_descriptor_t, field_offset)},
    {QM_TD_SIZE(QM_td_record_descriptor_t), QM_TD_OFF(QM_td_record_descriptor_t, record_name),
     QM_TD_OFF(QM_td_record_descriptor_t, record_fields), QM_TD_OFF(QM_td_record_descriptor_t, nfields),
     QM_TD_OFF(QM_td_record_descriptor_t, sizeof_record)},
    &td_td_tt_entry_type_e,
    &td_td_tt_type_table_entry_t,
    &td_td_tt_type_table_t,
};

}  // extern "C"

namespace {

// --- data tables -------------------------------------------------------------------

// A data table from the list of its items, each named once: V(var) a
// variable, C(var) a constant. Every item is a cd_data_t holding the
// variable's own name and address.
#define QM_CD_ITEM(var) constinit const cd_data_t cd_##var = {#var, &var};
#define QM_CD_VAR(var) {&cd_##var, cd_dte_data},
#define QM_CD_CONSTANT(var) {&cd_##var, cd_dte_data_const},
#define QM_CD_TABLE(t) {&t, cd_dte_table}
#define QM_CD_DEFINE(name, LIST)                                                                  \
  LIST(QM_CD_ITEM, QM_CD_ITEM)                                                                    \
  constinit const cd_data_table_entry_t name##_entries[] = {LIST(QM_CD_VAR, QM_CD_CONSTANT)};     \
  constinit const cd_data_table_t name = data_table_of(name##_entries);

template <size_t N>
constexpr cd_data_table_t data_table_of(const cd_data_table_entry_t (&e)[N]) {
  return {e, static_cast<int>(N)};
}

#define UTILITIES(V, C) C(QM_qm_distribution)
QM_CD_DEFINE(utilities_table, UTILITIES)
#define STACK_VERSION(V, C) \
  C(QM_STACK_version_major) C(QM_STACK_version_minor) C(QM_STACK_version_point) C(QM_STACK_version_service)
QM_CD_DEFINE(stack_version_table, STACK_VERSION)
constinit const cd_data_table_entry_t stack_entries[] = {QM_CD_TABLE(utilities_table),
                                                         QM_CD_TABLE(stack_version_table)};
constinit const cd_data_table_t stack_data_table = data_table_of(stack_entries);

}  // namespace

// A root block of this build over its own type and data tables; me is the
// block itself, relocated by the dynamic linker as the library loads.
constexpr QM_ia_root_block_t root_block(const QM_ia_root_block_t* me, const td_tt_type_table_t* types,
                                        const cd_data_table_t* data) {
  return {{QM_ia_root_endian_marker, 1, 0, static_cast<int>(sizeof(int)), static_cast<int>(sizeof(void*)), {}},
          QM_TD_OFF(QM_ia_root_block_t, me),
          QM_TD_OFF(QM_ia_root_block_t, td_meta_type_table),
          QM_TD_OFF(QM_ia_root_block_t, data_table_type_table),
          QM_TD_OFF(QM_ia_root_block_t, type_table),
          QM_TD_OFF(QM_ia_root_block_t, data_table),
          me,
          &QM_td_meta_type_table_singleton,
          &data_table_type_table,
          types,
          data};
}

extern "C" {
constinit QM_ia_root_block_t stack_backtrace_root_block =
    root_block(&stack_backtrace_root_block, &backtrace_type_table, &stack_data_table);
}  // extern "C"

namespace {

QM_CD_ITEM(stack_backtrace_root_block)
constinit const cd_data_t cd_QM_HEAP_notify_breakpoint_here = {"QM_HEAP_notify_breakpoint_here",
                                                               QM_HEAP_notify_breakpoint_here_code};
constinit const cd_data_t cd_QM_HEAP_backtrace_get_trim = {"QM_HEAP_backtrace_get_trim",
                                                           QM_HEAP_backtrace_get_trim_code};

#define BACKTRACE_DATA(V, C) V(QM_HEAP_backtrace_depth) V(QM_HEAP_backtrace_initial_trim) V(QM_HEAP_backtrace_table)
QM_CD_DEFINE(backtrace_cd_table, BACKTRACE_DATA)
#define EVENT_CONTROLS(V, C)                                                                                 \
  V(QM_HEAP_event_console_filter_master_switch) V(QM_HEAP_event_console_filters)                            \
  V(QM_HEAP_event_filter_master_switch) V(QM_HEAP_event_filters) V(QM_HEAP_generate_core_master_switch)     \
  V(QM_HEAP_generate_core_filters) V(QM_HEAP_lwmdbg_generate_master_switch) V(QM_HEAP_lwmdbg_generate_filters) \
  V(QM_HEAP_lwcore_generate_master_switch) V(QM_HEAP_lwcore_generate_filters)                               \
  V(QM_HEAP_exit_on_event_master_switch) V(QM_HEAP_exit_on_event_filters)
QM_CD_DEFINE(event_controls_table, EVENT_CONTROLS)
#define HOARD_DATA(V, C)                                                                                      \
  V(QM_HEAP_hoarding_enabled) V(QM_HEAP_hoarding_all_blocks) V(QM_HEAP_hoard_max_num_blocks) V(QM_HEAP_hoard_max_kb) \
  V(QM_HEAP_hoard_autoshrink_enabled) V(QM_HEAP_hoard_autoshrink_threshold_kb)                                \
  V(QM_HEAP_hoard_autoshrink_threshold_trigger_count) V(QM_HEAP_hoard_num_blocks) V(QM_HEAP_hoard_kb)        \
  V(QM_HEAP_hoard_bytes) V(QM_HEAP_hoard_table)
QM_CD_DEFINE(hoard_cd_table, HOARD_DATA)
#define EVENT_CORE(V, C) V(QM_HEAP_event_core_is_valid) V(QM_HEAP_event_core)
QM_CD_DEFINE(event_core_table, EVENT_CORE)
#define GUARD_CONTROLS(V, C)                                                                                  \
  V(QM_HEAP_guard_enabled) V(QM_HEAP_guard_max_size) V(QM_HEAP_guard_pre_size) V(QM_HEAP_guard_post_size)     \
  V(QM_HEAP_guard_pre_pattern) V(QM_HEAP_guard_post_pattern) C(QM_HEAP_guard_pattern_alignment)               \
  V(QM_HEAP_guard_payload_alignment) C(QM_HEAP_guard_pattern_width)
QM_CD_DEFINE(guard_controls_table, GUARD_CONTROLS)
#define GENERATION(V, C) V(QM_HEAP_generation)
QM_CD_DEFINE(generation_cd_table, GENERATION)
#define GUARD_TABLE_DATA(V, C) V(QM_HEAP_guard_table)
QM_CD_DEFINE(guard_table_cd_table, GUARD_TABLE_DATA)
#define HEAP_DATA(V, C) V(QM_HEAP_allocation_table) V(QM_HEAP_deallocation_table)
QM_CD_DEFINE(heap_cd_table, HEAP_DATA)
#define AGENT_CONTROLS(V, C) V(QM_HEAP_startup_config_done) V(QM_HEAP_verbosity) V(QM_HEAP_owner_purge_hoard)
QM_CD_DEFINE(agent_controls_table, AGENT_CONTROLS)
#define LWCORE_CONTROLS(V, C) \
  V(QM_HEAP_lwcore_sequence_number) V(QM_HEAP_lwcore_pathname_specifier) C(QM_HEAP_lwcore_pathname_specifier_max_length)
QM_CD_DEFINE(lwcore_cd_table, LWCORE_CONTROLS)
#define LWMDBG_CONTROLS(V, C) \
  V(QM_HEAP_lwmdbg_sequence_number) V(QM_HEAP_lwmdbg_pathname_specifier) C(QM_HEAP_lwmdbg_pathname_specifier_max_length)
QM_CD_DEFINE(lwmdbg_cd_table, LWMDBG_CONTROLS)
#define PAINT_CONTROLS(V, C)                                                                                  \
  V(QM_HEAP_paint_paint_on_allocation) V(QM_HEAP_paint_paint_on_deallocation) V(QM_HEAP_paint_paint_over_zero) \
  V(QM_HEAP_paint_pattern_allocation) V(QM_HEAP_paint_pattern_deallocation) C(QM_HEAP_paint_pattern_width)
QM_CD_DEFINE(paint_cd_table, PAINT_CONTROLS)
#define VERSION(V, C) \
  C(QM_HEAP_version_major) C(QM_HEAP_version_minor) C(QM_HEAP_version_point) C(QM_HEAP_version_service)
QM_CD_DEFINE(version_cd_table, VERSION)
#define RZ_ALLOCATOR(V, C) V(QM_HEAP_rz_table)
QM_CD_DEFINE(rz_allocator_cd_table, RZ_ALLOCATOR)
#define RZ_CONTROLS(V, C)                                                                                     \
  V(QM_HEAP_rz_enabled) V(QM_HEAP_rz_alloc_mode) V(QM_HEAP_rz_alignment) V(QM_HEAP_rz_fence_size)             \
  V(QM_HEAP_rz_exit_val) V(QM_HEAP_rz_want_end_aligned) V(QM_HEAP_rz_want_pre_fence) V(QM_HEAP_rz_want_post_fence) \
  V(QM_HEAP_rz_want_use_after_free) V(QM_HEAP_rz_size_ranges_enabled) V(QM_HEAP_rz_size_ranges)               \
  V(QM_HEAP_rz_size_ranges_num_ranges)
QM_CD_DEFINE(rz_controls_cd_table, RZ_CONTROLS)
constinit const cd_data_table_entry_t rz_cd[] = {QM_CD_TABLE(rz_allocator_cd_table), QM_CD_TABLE(rz_controls_cd_table)};
constinit const cd_data_table_t rz_cd_table = data_table_of(rz_cd);

constinit const cd_data_table_entry_t agent_data_entries[] = {
    QM_CD_TABLE(utilities_table),
    QM_CD_VAR(stack_backtrace_root_block)
    QM_CD_VAR(QM_HEAP_notify_breakpoint_here)
    QM_CD_VAR(QM_HEAP_backtrace_get_trim)
    QM_CD_TABLE(backtrace_cd_table),
    QM_CD_TABLE(event_controls_table),
    QM_CD_TABLE(hoard_cd_table),
    QM_CD_TABLE(event_core_table),
    QM_CD_TABLE(guard_controls_table),
    QM_CD_TABLE(generation_cd_table),
    QM_CD_TABLE(guard_table_cd_table),
    QM_CD_TABLE(heap_cd_table),
    QM_CD_TABLE(agent_controls_table),
    QM_CD_TABLE(lwcore_cd_table),
    QM_CD_TABLE(lwmdbg_cd_table),
    QM_CD_TABLE(paint_cd_table),
    QM_CD_TABLE(version_cd_table),
    QM_CD_TABLE(rz_cd_table)};
static_assert(sizeof agent_data_entries / sizeof agent_data_entries[0] == 18);
constinit const cd_data_table_t agent_data_table = data_table_of(agent_data_entries);

}  // namespace

extern "C" {

QM_EXPORT constinit QM_ia_root_block_t QM_HEAP_QM = root_block(&QM_HEAP_QM, &agent_type_table, &agent_data_table);

}  // extern "C"

// The layouts a debugger of the 32-bit agent reads by fixed offsets.
#if defined(__i386__)
static_assert(sizeof(QM_ia_root_header_t) == 128);
static_assert(sizeof(QM_ia_root_block_t) == 168);
static_assert(offsetof(QM_ia_root_block_t, me) == 148 && offsetof(QM_ia_root_block_t, td_meta_type_table) == 152 &&
              offsetof(QM_ia_root_block_t, data_table_type_table) == 156 &&
              offsetof(QM_ia_root_block_t, type_table) == 160 && offsetof(QM_ia_root_block_t, data_table) == 164);
static_assert(offsetof(Meta, alias_type) == 44 && offsetof(Meta, basic_type) == 56 &&
              offsetof(Meta, enum_member) == 68 && offsetof(Meta, enum_type) == 80 &&
              offsetof(Meta, record_field) == 100 && offsetof(Meta, record_type) == 116 &&
              offsetof(Meta, type_entry_type_descriptor) == 136 && offsetof(Meta, type_entry_descriptor) == 140 &&
              offsetof(Meta, type_table_descriptor) == 144);
static_assert(sizeof(QM_td_alias_type_descriptor_t) == 8 && sizeof(QM_td_basic_type_descriptor_t) == 8 &&
              sizeof(QM_td_enum_member_descriptor_t) == 8 && sizeof(QM_td_enum_descriptor_t) == 16 &&
              sizeof(QM_td_record_field_descriptor_t) == 12 && sizeof(QM_td_record_descriptor_t) == 16);
#endif
static_assert(sizeof(QM_ia_root_header_t) == 128, "the header is 32 ints on every build");
