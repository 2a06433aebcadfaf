// Property sets: ordered collections of named, typed values, with a wire form and text forms.
//
// A propset owns its entries, sorted by name in byte order; an entry owns its name and value; a
// value owns its data unless KV_BORROWED is set. Everything is C heap. Lengths are bytes. Functions
// ending in _fast move what they are given instead of copying it. Free, copy, compare, pack and
// print recurse on nesting. Not safe for use from two threads.
//
// Results: 0, 1 the name exists, 2 not found, 3 datatypes differ, 4 nothing changed, 5 invalid.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "lib/qz_vector.h"
#include "lib/qzstream.h"

enum kv_type : std::uint32_t {
    KV_BOOLEAN = 1,  // one byte
    KV_INT32,
    KV_UINT32,
    KV_INT64,
    KV_UINT64,
    KV_STRING,        // terminated text; the length includes the terminator
    KV_WSTRING,       // UTF-16 units with a zero unit, which the length includes
    KV_BINARY,        // length bytes
    KV_GUID,          // 16 bytes
    KV_PROPERTY_SET,  // propset*
    KV_OBJID,         // 16 bytes
    KV_OBJECT,        // propset*, also the next five
    KV_PROVIDER,
    KV_DATABASE,
    KV_TYPE_OBJECT,
    KV_I18N,
    KV_I18NFS,
    KV_TIME = 0x10005u,  // unsigned 64-bit

    // Flags on a code: type | KV_ARRAY.
    KV_ARRAY = 0x80000000u,     // data is a val_array* of the lower type
    KV_WIRE = 0x40000000u,      // data is `length` bytes of wire form
    KV_BORROWED = 0x20000000u,  // data belongs to somebody else
};

struct kv_value {
    std::uint32_t length;
    std::uint32_t datatype;
    void* data;
};

struct kv {
    std::uint32_t flags;  // carried along, never interpreted
    char* name;
    kv_value* value;
};

struct propset {
    qz_vector* entries;
};

struct val_array {
    std::uint32_t element_type;
    qz_vector* values;  // of kv_value*
};

// --- Creation ---

[[nodiscard]] propset* new_ps(std::int32_t capacity) noexcept;

// An entry with copies of name and data; null for an invalid type. `data` is what the type says
// (for nested kinds a propset*, for arrays a val_array*, which are copied deeply) and may be null.
// Data shorter than its type is filled up with zeros, so a short length never makes a reader run
// over.
[[nodiscard]] kv* new_kv(const char* name, std::uint32_t flags, std::uint32_t type,
                         std::uint32_t length, const void* data) noexcept;

// An entry that takes name and data as they are. Requires: heap memory, right for the type.
[[nodiscard]] kv* new_kv_assign(char* name, std::uint32_t flags, std::uint32_t type,
                                std::uint32_t length, void* data) noexcept;

[[nodiscard]] val_array* new_val_array(std::int32_t capacity, std::uint32_t element_type) noexcept;

// A value with a copy of the data, null for an invalid type.
[[nodiscard]] kv_value* new_value(std::uint32_t type, std::uint32_t length,
                                  const void* data) noexcept;

// Appends a value, which the array then owns; 3 when its type is not the array's, 5 when it or its
// data is null (the caller keeps it).
int val_array_add(val_array* array, kv_value* value) noexcept;

// --- Disposal (null is ignored) and deep copies ---

void value_free(kv_value* value) noexcept;
void kv_free(kv* entry) noexcept;
void ps_free(propset* set) noexcept;
void propset_free(void* set) noexcept;  // ps_free in the shape that containers take
void val_array_free(val_array* array) noexcept;

// A holder that shares the entries of `set`; free it with ps_shallow_free, which frees only the
// holder.
[[nodiscard]] propset* ps_shallow_copy(const propset* set) noexcept;
void ps_shallow_free(propset* set) noexcept;

// A copy owns its data: KV_BORROWED is cleared in it.
[[nodiscard]] kv_value* value_copy(const kv_value* value) noexcept;
[[nodiscard]] kv* kv_copy(const kv* entry) noexcept;
[[nodiscard]] propset* ps_copy(const propset* set) noexcept;
[[nodiscard]] val_array* val_array_copy(const val_array* array) noexcept;

// --- Entries of a set ---

// Takes the entry; 5 when it, its value or its data is null, 1 when the name exists (the caller
// keeps it in both cases).
int ps_add(propset* set, kv* entry) noexcept;
// The entry of that name, or null.
[[nodiscard]] kv* ps_lookup(const propset* set, const char* name) noexcept;
// strcmp of a name and an entry's name, in the shape that qz_vector_find_sorted takes.
int ps_key_compare(const void* name, const void* entry) noexcept;
// Frees the entry of that name; 0 or 2.
int ps_delete(propset* set, const char* name) noexcept;
// Takes the entry of that name out and returns it; null when absent.
[[nodiscard]] kv* ps_remove(propset* set, const char* name) noexcept;
// The entry at an index, null out of range.
[[nodiscard]] kv* ps_at(const propset* set, std::int32_t index) noexcept;
std::int32_t ps_getcount(const propset* set) noexcept;

// --- Updates: datatypes are compared without KV_WIRE and KV_BORROWED ---

// Replace the value by a copy of the new one; 3 when the datatypes differ. kv_check_update gives 4
// and changes nothing when the values are equal. Kept: the old entry's flags stay.
int kv_update(kv* old_entry, const kv* new_entry) noexcept;
int kv_check_update(kv* old_entry, const kv* new_entry) noexcept;
// Moves the new entry's value and flags, frees its shell and clears `*new_entry`; on 3 nothing
// changes. Requires: two different entries.
int kv_update_fast(kv* old_entry, kv** new_entry) noexcept;

// The same on the entry of that name, or an insert (of a copy; of the entry itself for _fast) when
// there is none; 5 for a null entry or data.
int ps_update(propset* set, const kv* entry) noexcept;
int ps_update_fast(propset* set, kv** entry) noexcept;
int ps_check_update(propset* set, const kv* entry) noexcept;

// Updates `dst` with every entry of `src` and adds those that it lacks; 0. Entries whose datatypes
// differ keep their old value. Requires: both sets sorted.
int ps_merge(propset* dst, const propset* src) noexcept;

// As ps_merge, but moves entries, then frees `*src` and clears it. Requires: two different sets.
// Kept: the entry that follows a moved one in `*src` is lost, so {a,b,c,d} into an empty set gives
// {a,c}.
int ps_merge_fast(propset* dst, propset** src) noexcept;

// As ps_merge with kv_check_update; for an equal name whose dst flags share a bit with `flag_mask`
// those flags are toggled with the mask. 5 when any datatypes differed, else 4 when nothing changed
// or src is empty, else 0.
int ps_merge_internal(propset* dst, const propset* src, std::uint32_t flag_mask) noexcept;

// --- Comparison: 1 equal, 0 not ---

// By datatype and content; an entry's flags do not count.
int value_compare(const kv_value* a, const kv_value* b) noexcept;
int kv_compare(const kv* a, const kv* b) noexcept;
int ps_compare(const propset* a, const propset* b) noexcept;

// --- Wire form: big-endian, count-prefixed, no padding ---

// The exact number of bytes that packing writes.
std::size_t ps_binary_pack_size(const propset* set) noexcept;
std::size_t value_binary_pack_size(const kv_value* value) noexcept;
// Write at `buffer` and return the position after the last byte. Requires: room for the pack size.
unsigned char* ps_binary_pack(unsigned char* buffer, const propset* set) noexcept;
unsigned char* value_binary_pack(unsigned char* buffer, const kv_value* value) noexcept;
// Returns a new block (free with qzfree) and stores its size.
[[nodiscard]] unsigned char* ps_marshal(const propset* set, std::uint32_t* size) noexcept;

// Read one item, store it (the caller owns it) and return the position after it. Nothing is
// checked. Requires: a complete, well-formed block, which only the writer of the block can promise;
// anything that comes from outside the process goes through ps_unmarshal_bounded.
const unsigned char* ps_unmarshal(const unsigned char* buffer, propset** set) noexcept;
const unsigned char* kv_binary_unpack(const unsigned char* position, kv** entry) noexcept;
const unsigned char* value_binary_unpack(const unsigned char* position, kv_value** value,
                                         std::uint32_t type) noexcept;
const unsigned char* val_array_binary_unpack(const unsigned char* position, val_array** array,
                                             std::uint32_t element_type) noexcept;
inline const unsigned char* ps_binary_unpack(const unsigned char* buffer, propset** set) noexcept {
    return ps_unmarshal(buffer, set);
}

// The checked reader: reads a set from [buffer, end) and returns the position after it, or null for
// a truncated, over-counted, unknown or too deeply nested (64 levels) block, with `*set` untouched.
// Memory stays proportional to the block. Entries come out sorted; of equal names the later is
// first.
const unsigned char* ps_unmarshal_bounded(const unsigned char* buffer, const unsigned char* end,
                                          propset** set) noexcept;

// --- Text forms: appended to the stream, one level is two blanks ---

// Indents, then formats. Escapes nothing: in the XML-like form names and texts go through
// format_unsafe_xml_str first, in JSON texts through format_unsafe_json_str and names through none.
[[gnu::format(printf, 3, 4)]] void print_string(qz_stream* stream, int level, const char* format,
                                                ...) noexcept;
void ps_print(qz_stream* stream, int level, const propset* set) noexcept;
void kv_print(qz_stream* stream, int level, const kv* entry) noexcept;
void value_print(qz_stream* stream, int level, const kv_value* value) noexcept;

// Kept: the opening brace stands one level deeper than the closing one, and double quotes in texts
// become single ones.
void ps_printjson(qz_stream* stream, int level, const propset* set) noexcept;
void kv_printjson(qz_stream* stream, int level, const kv* entry) noexcept;
void value_printjson(qz_stream* stream, int level, const kv_value* value) noexcept;
void val_array_printjson(qz_stream* stream, int level, const val_array* array) noexcept;

// Dump a set with a title to standard error. A null set prints nothing.
void display_propset(const propset* set, const char* title) noexcept;
void display_propset_json(const propset* set, const char* title) noexcept;
// Flushes `file` and writes the JSON form to its descriptor.
void ps_print_to_jsonfile(const propset* set, int level, FILE* file) noexcept;

// Converts UTF-16 units up to a zero unit into a new UTF-8 text (free with qzfree). A lone
// surrogate becomes U+FFFD. `units` needs no alignment; null gives an empty text.
[[nodiscard]] char* qz_utf16toutf8(const void* units) noexcept;

struct propset_deleter {
    void operator()(propset* set) const noexcept { ps_free(set); }
};
using propset_ptr = std::unique_ptr<propset, propset_deleter>;
struct kv_deleter {
    void operator()(kv* entry) const noexcept { kv_free(entry); }
};
using kv_ptr = std::unique_ptr<kv, kv_deleter>;
