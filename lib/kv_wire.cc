// The wire form of property sets: writer, and one reader for trusted and for foreign blocks.
#include <endian.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "lib/alloc.h"
#include "lib/kv.h"
#include "lib/kv_types.h"
#include "lib/text_form.h"

namespace {

// --- Writer ---

// Writes a number that is in wire order already.
template <class T>
unsigned char* put_number(unsigned char* at, T number) {
    std::memcpy(at, &number, sizeof number);
    return at + sizeof number;
}

unsigned char* put_u16(unsigned char* at, std::uint16_t number) {
    return put_number(at, htobe16(number));
}

unsigned char* put_u32(unsigned char* at, std::uint32_t number) {
    return put_number(at, htobe32(number));
}

unsigned char* put_u64(unsigned char* at, std::uint64_t number) {
    return put_number(at, htobe64(number));
}

unsigned char* put_bytes(unsigned char* at, const void* bytes, std::size_t n) {
    if (n > 0) {
        std::memcpy(at, bytes, n);
    }
    return at + n;
}

// Three numbers in wire order, then eight bytes as they are stored.
unsigned char* put_guid(unsigned char* at, const kv_value* value) {
    const auto guid = kv_number<qz_guid>(value);
    at = put_u32(at, guid.a);
    at = put_u16(at, guid.b);
    at = put_u16(at, guid.c);
    return put_bytes(at, guid.d, sizeof guid.d);
}

unsigned char* put_units(unsigned char* at, const kv_value* value) {
    const std::uint32_t count = kv_unit_count(value);
    at = put_u32(at, count);
    for (std::uint32_t i = 0; i < count; ++i) {
        at = put_u16(at, kv_unit(value, i));
    }
    return at;
}

// Without the terminator, which reading gives back.
unsigned char* put_text(unsigned char* at, const kv_value* value) {
    const std::string_view text = kv_text(value);
    at = put_u32(at, static_cast<std::uint32_t>(text.size()));
    return put_bytes(at, text.data(), text.size());
}

// Data that is absent packs as nothing, whatever length is stored beside it.
std::uint32_t byte_count(const kv_value* value) {
    return value->data == nullptr ? 0 : value->length;
}

unsigned char* put_elements(unsigned char* at, const kv_value* value) {
    if (value->data == nullptr) {
        return put_u32(at, 0);
    }
    const qz_vector* values = kv_elements(value)->values;
    at = put_u32(at, static_cast<std::uint32_t>(qz_vector_size(values)));
    for (void* element : qz_each(values)) {
        at = value_binary_pack(at, static_cast<kv_value*>(element));
    }
    return at;
}

std::size_t elements_size(const kv_value* value) {
    std::size_t size = 4;
    if (value->data != nullptr) {
        for (void* element : qz_each(kv_elements(value)->values)) {
            size += value_binary_pack_size(static_cast<kv_value*>(element));
        }
    }
    return size;
}

// --- Reader ---

constexpr int most_levels = 64;
constexpr std::uint32_t most_u32 = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t least_entry_bytes = 12;  // type, name length, flags

// The fewest bytes that a body of a layout takes; 0 for unknown codes.
std::uint32_t least_body_bytes(kv_layout layout) {
    if (layout == kv_layout::unknown) {
        return 0;
    }
    const std::uint32_t fixed = kv_fixed_size(layout);
    return fixed != 0 ? fixed : 4;  // a count stands before everything else
}

// Reads items from a block. Without an end the caller vouches for the block and nothing is checked;
// with one, every read that returns null or false has refused the block and left nothing allocated.
class wire_reader {
  public:
    wire_reader(const unsigned char* at, const unsigned char* end) : at_(at), end_(end) {}

    const unsigned char* at() const { return at_; }
    propset* read_set();
    kv* read_entry();
    kv_value* read_value(std::uint32_t type);
    val_array* read_array(std::uint32_t element_type);

  private:
    bool has(std::uint64_t n) const {
        return end_ == nullptr || n <= static_cast<std::uint64_t>(end_ - at_);
    }
    // Counts the nesting; a block with an end may not nest deeper than the stack allows.
    bool enter_level() { return ++level_ <= most_levels || end_ == nullptr; }
    bool take_u32(std::uint32_t* number);
    bool take_count(std::uint32_t least_item_bytes, std::uint32_t* count);
    char* take_text(std::uint32_t* length);
    void* take_data(std::uint32_t type, std::uint32_t* length);
    void* take_scalar(kv_layout layout, std::uint32_t* length);
    void* take_bytes(std::uint32_t* length);
    void* take_units(std::uint32_t* length);
    void* take_guid();

    const unsigned char* at_;
    const unsigned char* end_;
    int level_ = 0;
};

template <class T>
T raw_number(const unsigned char* at) {
    T number;
    std::memcpy(&number, at, sizeof number);
    return number;
}

std::uint16_t get_u16(const unsigned char* at) {
    return be16toh(raw_number<std::uint16_t>(at));
}
std::uint32_t get_u32(const unsigned char* at) {
    return be32toh(raw_number<std::uint32_t>(at));
}
std::uint64_t get_u64(const unsigned char* at) {
    return be64toh(raw_number<std::uint64_t>(at));
}

bool wire_reader::take_u32(std::uint32_t* number) {
    if (!has(4)) {
        return false;
    }
    *number = get_u32(at_);
    at_ += 4;
    return true;
}

// A count that cannot be true for the bytes that are left is refused before anything is built.
bool wire_reader::take_count(std::uint32_t least_item_bytes, std::uint32_t* count) {
    return take_u32(count) && has(std::uint64_t{*count} * least_item_bytes);
}

// A text with its terminator, which the length includes.
char* wire_reader::take_text(std::uint32_t* length) {
    std::uint32_t count;
    if (!take_count(1, &count) || count == most_u32) {
        return nullptr;
    }
    auto* text = static_cast<char*>(qz_need_bytes(std::size_t{count} + 1));
    std::memcpy(text, at_, count);
    text[count] = '\0';
    at_ += count;
    *length = count + 1;
    return text;
}

void* wire_reader::take_bytes(std::uint32_t* length) {
    if (!take_count(1, length)) {
        return nullptr;
    }
    void* bytes = qz_need_bytes(*length);
    std::memcpy(bytes, at_, *length);
    at_ += *length;
    return bytes;
}

void* wire_reader::take_units(std::uint32_t* length) {
    std::uint32_t count;
    if (!take_count(2, &count)) {
        return nullptr;
    }
    const std::uint64_t room = (std::uint64_t{count} + 1) * 2;
    if (room > most_u32) {
        return nullptr;
    }
    auto* units = static_cast<std::uint16_t*>(qz_need_bytes(room));
    for (std::uint32_t i = 0; i < count; ++i, at_ += 2) {
        units[i] = get_u16(at_);
    }
    units[count] = 0;
    *length = static_cast<std::uint32_t>(room);
    return units;
}

void* wire_reader::take_guid() {
    qz_guid guid = {};
    guid.a = get_u32(at_);
    guid.b = get_u16(at_ + 4);
    guid.c = get_u16(at_ + 6);
    std::memcpy(guid.d, at_ + 8, sizeof guid.d);
    at_ += kv_guid_bytes;
    return std::memcpy(qz_need_bytes(sizeof guid), &guid, sizeof guid);
}

void* wire_reader::take_scalar(kv_layout layout, std::uint32_t* length) {
    const std::uint32_t size = least_body_bytes(layout);
    if (!has(size)) {
        return nullptr;
    }
    *length = size;
    if (layout == kv_layout::guid) {
        return take_guid();
    }
    void* data = qz_need_bytes(size);
    if (layout == kv_layout::boolean) {
        std::memcpy(data, at_, 1);
    } else if (layout == kv_layout::word32) {
        const std::uint32_t number = get_u32(at_);
        std::memcpy(data, &number, sizeof number);
    } else {
        const std::uint64_t number = get_u64(at_);
        std::memcpy(data, &number, sizeof number);
    }
    at_ += size;
    return data;
}

// The data of a value; null when refused, and for an unknown code, which has none.
void* wire_reader::take_data(std::uint32_t type, std::uint32_t* length) {
    *length = kv_reference_bytes;
    if ((type & KV_ARRAY) != 0) {
        return read_array(kv_base_type(type));
    }
    const kv_layout layout = kv_type_of(type).layout;
    switch (layout) {
        case kv_layout::boolean:
        case kv_layout::word32:
        case kv_layout::word64:
        case kv_layout::guid:
            return take_scalar(layout, length);
        case kv_layout::text:
            return take_text(length);
        case kv_layout::wide_text:
            return take_units(length);
        case kv_layout::bytes:
            return take_bytes(length);
        case kv_layout::nested:
            return read_set();
        case kv_layout::unknown:
            break;
    }
    *length = 0;
    return nullptr;
}

kv_value* wire_reader::read_value(std::uint32_t type) {
    type = kv_wire_type(type);  // the storage bits describe memory; foreign ones must not
    const bool known = is_valid_type(type) != 0;
    if (!known && end_ != nullptr) {
        return nullptr;
    }
    std::uint32_t length;
    void* data = take_data(type, &length);
    if (data == nullptr && known) {
        return nullptr;
    }
    auto* value = qz_need_new<kv_value>();
    *value = {length, type, data};
    return value;
}

kv* wire_reader::read_entry() {
    std::uint32_t type;
    std::uint32_t flags;
    std::uint32_t name_bytes;
    if (!take_u32(&type)) {
        return nullptr;
    }
    qz_owned<char> name(take_text(&name_bytes));
    if (name == nullptr || !take_u32(&flags)) {
        return nullptr;
    }
    kv_value* value = read_value(type);
    if (value == nullptr) {
        return nullptr;
    }
    auto* entry = qz_need_new<kv>();
    *entry = {flags, name.release(), value};
    return entry;
}

// Gives entries in the order of the wire the order that they would have if each had been inserted
// before the first whose name is not smaller: by name, of equal names the later one first. Sorted
// at once, because foreign blocks choose the order and inserting one by one can be quadratic.
void sort_as_if_inserted(qz_vector* entries) {
    const auto before = [](const void* a, const void* b) {
        return ps_key_compare(static_cast<const kv*>(a)->name, b) < 0;
    };
    void** const begin = entries->data;
    void** const end = begin + entries->count;
    const auto out_of_order = [&](const void* a, const void* b) { return !before(a, b); };
    if (std::adjacent_find(begin, end, out_of_order) != end) {
        std::reverse(begin, end);
        std::stable_sort(begin, end, before);
    }
}

propset* wire_reader::read_set() {
    std::uint32_t count;
    if (!take_count(least_entry_bytes, &count) || !enter_level()) {
        return nullptr;
    }
    propset_ptr set(new_ps(0));
    for (std::uint32_t i = 0; i < count; ++i) {
        kv* entry = read_entry();
        if (entry == nullptr) {
            return nullptr;
        }
        qz_vector_pushback(set->entries, entry);
    }
    sort_as_if_inserted(set->entries);
    --level_;
    return set.release();
}

val_array* wire_reader::read_array(std::uint32_t element_type) {
    std::uint32_t count;
    if (!take_count(least_body_bytes(kv_type_of(element_type).layout), &count) || !enter_level()) {
        return nullptr;
    }
    val_array* array = new_val_array(0, element_type);
    for (std::uint32_t i = 0; i < count; ++i) {
        kv_value* value = read_value(array->element_type);
        if (value == nullptr) {
            val_array_free(array);
            return nullptr;
        }
        qz_vector_pushback(array->values, value);
    }
    --level_;
    return array;
}

}  // namespace

std::size_t ps_binary_pack_size(const propset* set) noexcept {
    std::size_t size = 4;
    for (void* word : qz_each(set->entries)) {
        const auto* entry = static_cast<const kv*>(word);
        size += least_entry_bytes + std::strlen(entry->name) + value_binary_pack_size(entry->value);
    }
    return size;
}

std::size_t value_binary_pack_size(const kv_value* value) noexcept {
    if (kv_is_wire(value)) {
        return byte_count(value);
    }
    if (kv_is_array(value)) {
        return elements_size(value);
    }
    const kv_layout layout = kv_type_of(value->datatype).layout;
    switch (layout) {
        case kv_layout::text:
            return 4 + kv_text(value).size();
        case kv_layout::wide_text:
            return 4 + std::size_t{kv_unit_count(value)} * 2;
        case kv_layout::bytes:
            return 4 + std::size_t{byte_count(value)};
        case kv_layout::nested:
            return value->data == nullptr ? 4 : ps_binary_pack_size(kv_nested(value));
        case kv_layout::unknown:
        case kv_layout::boolean:
        case kv_layout::word32:
        case kv_layout::word64:
        case kv_layout::guid:
            break;
    }
    return least_body_bytes(layout);
}

unsigned char* ps_binary_pack(unsigned char* buffer, const propset* set) noexcept {
    unsigned char* at = put_u32(buffer, static_cast<std::uint32_t>(ps_getcount(set)));
    for (void* word : qz_each(set->entries)) {
        const auto* entry = static_cast<const kv*>(word);
        const std::size_t name_bytes = std::strlen(entry->name);
        at = put_u32(at, kv_wire_type(entry->value->datatype));
        at = put_u32(at, static_cast<std::uint32_t>(name_bytes));
        at = put_bytes(at, entry->name, name_bytes);
        at = put_u32(at, entry->flags);
        at = value_binary_pack(at, entry->value);
    }
    return at;
}

unsigned char* value_binary_pack(unsigned char* buffer, const kv_value* value) noexcept {
    if (kv_is_wire(value)) {
        return put_bytes(buffer, value->data, byte_count(value));
    }
    if (kv_is_array(value)) {
        return put_elements(buffer, value);
    }
    switch (kv_type_of(value->datatype).layout) {
        case kv_layout::boolean:
            *buffer = kv_number<std::uint8_t>(value);
            return buffer + 1;
        case kv_layout::word32:
            return put_u32(buffer, kv_number<std::uint32_t>(value));
        case kv_layout::word64:
            return put_u64(buffer, kv_number<std::uint64_t>(value));
        case kv_layout::text:
            return put_text(buffer, value);
        case kv_layout::wide_text:
            return put_units(buffer, value);
        case kv_layout::bytes:
            return put_bytes(put_u32(buffer, byte_count(value)), value->data, byte_count(value));
        case kv_layout::guid:
            return put_guid(buffer, value);
        case kv_layout::nested:
            return value->data == nullptr ? put_u32(buffer, 0)
                                          : ps_binary_pack(buffer, kv_nested(value));
        case kv_layout::unknown:
            break;
    }
    return buffer;
}

unsigned char* ps_marshal(const propset* set, std::uint32_t* size) noexcept {
    const std::size_t bytes = ps_binary_pack_size(set);
    if (bytes > most_u32) {
        std::abort();  // the size could not be told
    }
    auto* buffer = static_cast<unsigned char*>(qz_need_bytes(bytes));
    (void)ps_binary_pack(buffer, set);
    *size = static_cast<std::uint32_t>(bytes);
    return buffer;
}

const unsigned char* ps_unmarshal(const unsigned char* buffer, propset** set) noexcept {
    wire_reader reader(buffer, nullptr);
    *set = reader.read_set();
    return reader.at();
}

const unsigned char* kv_binary_unpack(const unsigned char* position, kv** entry) noexcept {
    wire_reader reader(position, nullptr);
    *entry = reader.read_entry();
    return reader.at();
}

const unsigned char* value_binary_unpack(const unsigned char* position, kv_value** value,
                                         std::uint32_t type) noexcept {
    wire_reader reader(position, nullptr);
    *value = reader.read_value(type);
    return reader.at();
}

const unsigned char* val_array_binary_unpack(const unsigned char* position, val_array** array,
                                             std::uint32_t element_type) noexcept {
    wire_reader reader(position, nullptr);
    *array = reader.read_array(element_type);
    return reader.at();
}

const unsigned char* ps_unmarshal_bounded(const unsigned char* buffer, const unsigned char* end,
                                          propset** set) noexcept {
    if (buffer == nullptr || end == nullptr || end < buffer) {
        return nullptr;
    }
    wire_reader reader(buffer, end);
    propset* result = reader.read_set();
    if (result == nullptr) {
        return nullptr;
    }
    *set = result;
    return reader.at();
}
