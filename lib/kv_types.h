// What the sources of the property sets share: the layout of each datatype. Internal to lib/.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "lib/kv.h"

// How a datatype's data is laid out; arrays and wire-form values are told by their flag bits first.
enum class kv_layout { unknown, boolean, word32, word64, text, wide_text, bytes, guid, nested };

struct kv_type_row {
    const char* name;  // in the text forms
    kv_layout layout;
};

// The row of a code without its flag bits; layout `unknown` for codes that do not exist.
const kv_type_row& kv_type_of(std::uint32_t code) noexcept;

// The bytes of a layout in memory and on the wire; 0 when values differ in size.
std::uint32_t kv_fixed_size(kv_layout layout) noexcept;

// The code without its three flag bits: what the layout depends on.
inline std::uint32_t kv_base_type(std::uint32_t code) noexcept {
    return code & ~(KV_ARRAY | KV_WIRE | KV_BORROWED);
}

// The code as it travels and as it is compared: with the array bit, without the two storage bits.
inline std::uint32_t kv_wire_type(std::uint32_t code) noexcept {
    return code & ~(KV_WIRE | KV_BORROWED);
}

// Wire form comes first: a value that has it is a flat block, whatever else its code says.
inline bool kv_is_wire(const kv_value* value) noexcept {
    return (value->datatype & KV_WIRE) != 0;
}
inline bool kv_is_array(const kv_value* value) noexcept {
    return (value->datatype & (KV_ARRAY | KV_WIRE)) == KV_ARRAY;
}

inline constexpr std::uint32_t kv_guid_bytes = 16;
inline constexpr std::uint32_t kv_reference_bytes = 4;  // the stored length of sets and arrays

// The number in a value; 0 when it has no data. Requires: data of the number's size.
template <class T>
T kv_number(const kv_value* value) noexcept {
    T number{};
    if (value->data != nullptr) {
        std::memcpy(&number, value->data, sizeof number);
    }
    return number;
}

// The text of a string value: up to its terminator or the stored length, whichever comes first.
std::string_view kv_text(const kv_value* value) noexcept;

// The number of UTF-16 units of a wstring value before a zero unit or the stored length.
std::uint32_t kv_unit_count(const kv_value* value) noexcept;
// One UTF-16 unit; the data needs no alignment.
inline std::uint16_t kv_unit(const kv_value* value, std::uint32_t index) noexcept {
    std::uint16_t unit;
    std::memcpy(&unit, static_cast<const char*>(value->data) + index * sizeof unit, sizeof unit);
    return unit;
}

// The data of a nested kind and of an array. Requires: that layout, not in wire form.
inline const propset* kv_nested(const kv_value* value) noexcept {
    return static_cast<const propset*>(value->data);
}
inline const val_array* kv_elements(const kv_value* value) noexcept {
    return static_cast<const val_array*>(value->data);
}
