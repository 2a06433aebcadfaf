#include "lib/kv.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstring>

#include "lib/alloc.h"
#include "lib/kv_types.h"
#include "lib/qz_result.h"
#include "lib/text_form.h"

namespace {

constexpr std::array<kv_type_row, 18> plain_types = {{
    {nullptr, kv_layout::unknown},
    {"boolean", kv_layout::boolean},
    {"int32", kv_layout::word32},
    {"uint32", kv_layout::word32},
    {"int64", kv_layout::word64},
    {"uint64", kv_layout::word64},
    {"string", kv_layout::text},
    {"wstring", kv_layout::wide_text},
    {"binary", kv_layout::bytes},
    {"guid", kv_layout::guid},
    {"property_set", kv_layout::nested},
    {"objid", kv_layout::guid},
    {"object", kv_layout::nested},
    {"provider", kv_layout::nested},
    {"database", kv_layout::nested},
    {"type_object", kv_layout::nested},
    {"i18n", kv_layout::nested},
    {"i18nfs", kv_layout::nested},
}};
constexpr kv_type_row time_row = {"time", kv_layout::word64};

// Zero bytes behind every copied block, so that texts and units always end.
constexpr std::size_t terminator_bytes = 2;

// A copy of flat data, never shorter than its layout, with a terminator behind it.
void* copy_block(const kv_value* value, kv_layout layout) {
    const std::size_t natural = kv_fixed_size(layout);
    const std::size_t given =
        natural == 0 ? value->length : std::min(natural, std::size_t{value->length});
    const std::size_t room = std::max(natural, std::size_t{value->length}) + terminator_bytes;
    auto* block = static_cast<char*>(qz_need_bytes(room));
    std::memcpy(block, value->data, given);
    std::memset(block + given, 0, room - given);
    return block;
}

void* copy_data(const kv_value* value) {
    if (value->data == nullptr) {
        return nullptr;
    }
    if (kv_is_wire(value)) {
        return copy_block(value, kv_layout::bytes);
    }
    if (kv_is_array(value)) {
        return val_array_copy(kv_elements(value));
    }
    const kv_layout layout = kv_type_of(value->datatype).layout;
    if (layout == kv_layout::nested) {
        return ps_copy(kv_nested(value));
    }
    return copy_block(value, layout);
}

// Wire-form data is one flat block whatever the type says.
void free_data(const kv_value* value) {
    if ((value->datatype & KV_BORROWED) != 0 || value->data == nullptr) {
        return;
    }
    if (kv_is_array(value)) {
        val_array_free(static_cast<val_array*>(value->data));
    } else if (!kv_is_wire(value) && kv_type_of(value->datatype).layout == kv_layout::nested) {
        ps_free(static_cast<propset*>(value->data));
    } else {
        qzfree(value->data);
    }
}

// Storage bits do not make a type.
bool same_type(const kv_value* a, const kv_value* b) {
    return kv_wire_type(a->datatype) == kv_wire_type(b->datatype);
}

// What a set accepts.
bool has_data(const kv* entry) {
    return entry != nullptr && entry->value != nullptr && entry->value->data != nullptr;
}

std::int32_t find_entry(const propset* set, const char* name) {
    return qz_vector_find_sorted(set->entries, ps_key_compare, name);
}

// The place for a name among sorted entries: before the first that is not smaller.
std::int32_t place_for(const propset* set, const char* name) {
    std::int32_t low = 0;
    std::int32_t high = ps_getcount(set);
    // Sets mostly grow in order: one look at the last entry saves the search.
    if (high > 0 && std::strcmp(ps_at(set, high - 1)->name, name) < 0) {
        return high;
    }
    while (low < high) {
        const std::int32_t middle = low + (high - low) / 2;
        if (std::strcmp(ps_at(set, middle)->name, name) < 0) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return low;
}

void insert_sorted(propset* set, kv* entry) {
    qz_vector_insert(set->entries, entry, place_for(set, entry->name));
}

// Updates the entry of that name with `update`, or inserts a copy.
int update_or_insert(propset* set, const kv* entry, int (*update)(kv*, const kv*)) {
    if (!has_data(entry)) {
        return qz_invalid;
    }
    if (kv* old_entry = ps_lookup(set, entry->name)) {
        return update(old_entry, entry);
    }
    insert_sorted(set, kv_copy(entry));
    return qz_ok;
}

}  // namespace

// --- Shared by the sources of the property sets ---

const kv_type_row& kv_type_of(std::uint32_t code) noexcept {
    const std::uint32_t type = kv_base_type(code);
    if (type == KV_TIME) {
        return time_row;
    }
    return plain_types[type < plain_types.size() ? type : 0];
}

std::uint32_t kv_fixed_size(kv_layout layout) noexcept {
    switch (layout) {
        case kv_layout::boolean:
            return 1;
        case kv_layout::word32:
            return 4;
        case kv_layout::word64:
            return 8;
        case kv_layout::guid:
            return kv_guid_bytes;
        case kv_layout::unknown:
        case kv_layout::text:
        case kv_layout::wide_text:
        case kv_layout::bytes:
        case kv_layout::nested:
            break;
    }
    return 0;
}

std::string_view kv_text(const kv_value* value) noexcept {
    if (value->data == nullptr) {
        return {};
    }
    const auto* text = static_cast<const char*>(value->data);
    return {text, ::strnlen(text, value->length)};
}

std::uint32_t kv_unit_count(const kv_value* value) noexcept {
    const std::uint32_t most = value->data == nullptr ? 0 : value->length / 2;
    std::uint32_t count = 0;
    while (count < most && kv_unit(value, count) != 0) {
        ++count;
    }
    return count;
}

// --- Creation ---

propset* new_ps(std::int32_t capacity) noexcept {
    auto* set = qz_need_new<propset>();
    set->entries = new_qz_vector(capacity, nullptr);
    return set;
}

kv* new_kv(const char* name, std::uint32_t flags, std::uint32_t type, std::uint32_t length,
           const void* data) noexcept {
    kv_value* value = new_value(type, length, data);
    if (value == nullptr) {
        return nullptr;
    }
    auto* entry = qz_need_new<kv>();
    *entry = {flags, qzstrdup(name), value};
    return entry;
}

kv* new_kv_assign(char* name, std::uint32_t flags, std::uint32_t type, std::uint32_t length,
                  void* data) noexcept {
    auto* value = qz_need_new<kv_value>();
    *value = {length, type, data};
    auto* entry = qz_need_new<kv>();
    *entry = {flags, name, value};
    return entry;
}

val_array* new_val_array(std::int32_t capacity, std::uint32_t element_type) noexcept {
    auto* array = qz_need_new<val_array>();
    *array = {kv_base_type(element_type), new_qz_vector(capacity, nullptr)};
    return array;
}

kv_value* new_value(std::uint32_t type, std::uint32_t length, const void* data) noexcept {
    if (is_valid_type(type) == 0) {
        return nullptr;
    }
    const kv_value original{length, type, const_cast<void*>(data)};  // only read
    return value_copy(&original);
}

int val_array_add(val_array* array, kv_value* value) noexcept {
    if (value == nullptr || value->data == nullptr) {
        return qz_invalid;
    }
    if (kv_wire_type(value->datatype) != array->element_type) {
        return qz_type_mismatch;
    }
    qz_vector_pushback(array->values, value);
    return qz_ok;
}

// --- Disposal and copies ---

void value_free(kv_value* value) noexcept {
    if (value != nullptr) {
        free_data(value);
        qzfree(value);
    }
}

void kv_free(kv* entry) noexcept {
    if (entry != nullptr) {
        qzfree(entry->name);
        value_free(entry->value);
        qzfree(entry);
    }
}

void ps_free(propset* set) noexcept {
    if (set == nullptr) {
        return;
    }
    for (void* entry : qz_each(set->entries)) {
        kv_free(static_cast<kv*>(entry));
    }
    qz_vector_delete(set->entries);
    qzfree(set);
}

void propset_free(void* set) noexcept {
    ps_free(static_cast<propset*>(set));
}

void val_array_free(val_array* array) noexcept {
    if (array == nullptr) {
        return;
    }
    for (void* value : qz_each(array->values)) {
        value_free(static_cast<kv_value*>(value));
    }
    qz_vector_delete(array->values);
    qzfree(array);
}

// Two holders, one vector: neither may be passed to ps_free while the other is in use.
propset* ps_shallow_copy(const propset* set) noexcept {
    auto* copy = qz_need_new<propset>();
    copy->entries = set->entries;
    return copy;
}

void ps_shallow_free(propset* set) noexcept {
    qzfree(set);
}

kv_value* value_copy(const kv_value* value) noexcept {
    if (value == nullptr) {
        return nullptr;
    }
    auto* copy = qz_need_new<kv_value>();
    *copy = {value->length, value->datatype & ~KV_BORROWED, copy_data(value)};
    return copy;
}

kv* kv_copy(const kv* entry) noexcept {
    auto* copy = qz_need_new<kv>();
    *copy = {entry->flags, qzstrdup(entry->name), value_copy(entry->value)};
    return copy;
}

propset* ps_copy(const propset* set) noexcept {
    propset* copy = new_ps(ps_getcount(set));
    for (void* entry : qz_each(set->entries)) {
        qz_vector_pushback(copy->entries, kv_copy(static_cast<kv*>(entry)));
    }
    return copy;
}

val_array* val_array_copy(const val_array* array) noexcept {
    val_array* copy = new_val_array(qz_vector_size(array->values), array->element_type);
    for (void* value : qz_each(array->values)) {
        qz_vector_pushback(copy->values, value_copy(static_cast<kv_value*>(value)));
    }
    return copy;
}

// --- Entries ---

int ps_add(propset* set, kv* entry) noexcept {
    if (!has_data(entry)) {
        return qz_invalid;
    }
    const std::int32_t place = place_for(set, entry->name);
    const kv* there = ps_at(set, place);
    if (there != nullptr && std::strcmp(there->name, entry->name) == 0) {
        return qz_exists;
    }
    qz_vector_insert(set->entries, entry, place);
    return qz_ok;
}

kv* ps_lookup(const propset* set, const char* name) noexcept {
    return ps_at(set, find_entry(set, name));
}

int ps_key_compare(const void* name, const void* entry) noexcept {
    return std::strcmp(static_cast<const char*>(name), static_cast<const kv*>(entry)->name);
}

int ps_delete(propset* set, const char* name) noexcept {
    kv* entry = ps_remove(set, name);
    if (entry == nullptr) {
        return qz_not_found;
    }
    kv_free(entry);
    return qz_ok;
}

kv* ps_remove(propset* set, const char* name) noexcept {
    return static_cast<kv*>(qz_vector_remove(set->entries, find_entry(set, name)));
}

kv* ps_at(const propset* set, std::int32_t index) noexcept {
    return static_cast<kv*>(qz_vector_at(set->entries, index));
}

std::int32_t ps_getcount(const propset* set) noexcept {
    return qz_vector_size(set->entries);
}

// --- Updates ---

int kv_update(kv* old_entry, const kv* new_entry) noexcept {
    if (!same_type(old_entry->value, new_entry->value)) {
        return qz_type_mismatch;
    }
    kv_value* value = value_copy(new_entry->value);  // first: the two may be one entry
    value_free(old_entry->value);
    old_entry->value = value;
    return qz_ok;
}

int kv_check_update(kv* old_entry, const kv* new_entry) noexcept {
    if (!same_type(old_entry->value, new_entry->value)) {
        return qz_type_mismatch;
    }
    if (value_compare(old_entry->value, new_entry->value) == 1) {
        return qz_unchanged;
    }
    return kv_update(old_entry, new_entry);
}

int kv_update_fast(kv* old_entry, kv** new_entry) noexcept {
    kv* moved = *new_entry;
    assert(moved != old_entry);
    if (!same_type(old_entry->value, moved->value)) {
        return qz_type_mismatch;
    }
    value_free(old_entry->value);
    old_entry->value = moved->value;
    old_entry->flags = moved->flags;
    qzfree(moved->name);
    qzfree(moved);
    *new_entry = nullptr;
    return qz_ok;
}

int ps_update(propset* set, const kv* entry) noexcept {
    return update_or_insert(set, entry, kv_update);
}

int ps_update_fast(propset* set, kv** entry) noexcept {
    if (entry == nullptr || !has_data(*entry)) {
        return qz_invalid;
    }
    if (kv* old_entry = ps_lookup(set, (*entry)->name)) {
        return kv_update_fast(old_entry, entry);
    }
    insert_sorted(set, *entry);
    *entry = nullptr;
    return qz_ok;
}

int ps_check_update(propset* set, const kv* entry) noexcept {
    return update_or_insert(set, entry, kv_check_update);
}
