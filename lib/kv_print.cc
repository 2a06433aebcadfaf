// The XML-like and JSON text forms of property sets, and the debug dumps.
#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdlib>
#include <string>

#include "lib/alloc.h"
#include "lib/base64.h"
#include "lib/kv.h"
#include "lib/kv_types.h"
#include "lib/text_form.h"

namespace {

constexpr std::uint32_t replacement_character = 0xfffd;

constexpr const char* rule = "-----------------------------------------";
constexpr const char* end_rule = "--------------- END ---------------------";

// Two blanks a level, as a write of its own: they do not count for the 1024 characters.
void indent(qz_stream* stream, int level) {
    for (int i = 0; i < level; ++i) {
        (void)qz_write_stream(stream, "  ", 2);
    }
}

std::string text_of_guid(const kv_value* value) {
    char text[qz_guid_text_bytes];
    (void)guidtostr(value->data, text);
    return text;
}

std::string text_of_bytes(const kv_value* value) {
    // Room for the text and its terminator; a value too long for the encoder prints as nothing.
    const std::uint64_t room = 4 * ((std::uint64_t{value->length} + 2) / 3) + 1;
    if (room > INT32_MAX) {
        return {};
    }
    std::string text(room, '\0');
    text.resize(static_cast<std::size_t>(base64_encode(
        text.data(), static_cast<int>(room), value->data, static_cast<int>(value->length))));
    return text;
}

// The text of a string or wstring value; sets are never changed by printing.
qz_owned<char> copy_of_text(const kv_value* value) {
    if (kv_type_of(value->datatype).layout == kv_layout::wide_text) {
        const std::uint32_t count = kv_unit_count(value);
        const std::size_t bytes = std::size_t{count} * 2;
        qz_owned<char> units(static_cast<char*>(qz_need_bytes(bytes + 2)));
        std::memcpy(units.get(), value->data, bytes);
        std::memset(units.get() + bytes, 0, 2);
        return qz_owned<char>(qz_utf16toutf8(units.get()));
    }
    const std::string_view text = kv_text(value);
    qz_owned<char> copy(static_cast<char*>(qz_need_bytes(text.size() + 1)));
    std::memcpy(copy.get(), text.data(), text.size());
    copy.get()[text.size()] = '\0';
    return copy;
}

// Any byte but 0 is true, as in comparisons.
const char* truth(const kv_value* value) {
    return kv_number<std::uint8_t>(value) != 0 ? "True" : "False";
}

// The decimal text of a number of 32 or 64 bits.
std::string text_of_number(const kv_value* value) {
    switch (kv_base_type(value->datatype)) {
        case KV_INT32:
            return std::to_string(kv_number<std::int32_t>(value));
        case KV_UINT32:
            return std::to_string(kv_number<std::uint32_t>(value));
        case KV_INT64:
            return std::to_string(kv_number<std::int64_t>(value));
        default:
            return std::to_string(kv_number<std::uint64_t>(value));
    }
}

// --- XML ---

void print_scalar(qz_stream* stream, int level, const kv_value* value, const char* text) {
    print_string(stream, level, "<data datatype=\"%s\"> %s", kv_type_of(value->datatype).name,
                 text);
    print_string(stream, 0, "</data>\n");
}

void print_array(qz_stream* stream, int level, const val_array* array, const char* name) {
    print_string(stream, level, "<array datatype=\"%s\">\n", name);
    for (void* element : qz_each(array->values)) {
        value_print(stream, level + 1, static_cast<kv_value*>(element));
    }
    print_string(stream, level, "</array>\n");
}

// The one data element of a value. Requires: data, a known code, not in wire form.
void print_data(qz_stream* stream, int level, const kv_value* value) {
    const kv_type_row& type = kv_type_of(value->datatype);
    if (kv_is_array(value)) {
        print_array(stream, level, kv_elements(value), type.name);
        return;
    }
    switch (type.layout) {
        case kv_layout::unknown:
            break;
        case kv_layout::boolean:
            print_scalar(stream, level, value, truth(value));
            break;
        case kv_layout::word32:
        case kv_layout::word64:
            print_scalar(stream, level, value, text_of_number(value).c_str());
            break;
        case kv_layout::text:
        case kv_layout::wide_text: {
            const qz_owned<char> text(format_unsafe_xml_str(copy_of_text(value).get()));
            print_scalar(stream, level, value, text.get());
            break;
        }
        case kv_layout::guid:
            print_scalar(stream, level, value, text_of_guid(value).c_str());
            break;
        case kv_layout::bytes:
            print_string(stream, level, "<data datatype=\"%s\">%s</data>\n", type.name,
                         text_of_bytes(value).c_str());
            break;
        case kv_layout::nested:
            print_string(stream, level, "<data datatype=\"%s\">\n", type.name);
            ps_print(stream, level + 1, kv_nested(value));
            print_string(stream, level, "</data>\n");
            break;
    }
}

// Values that have a data element; the others show as an empty value, or as null in JSON.
bool is_printable(const kv_value* value) {
    return value->data != nullptr && !kv_is_wire(value) &&
           kv_type_of(value->datatype).layout != kv_layout::unknown;
}

// --- Dumps ---

using set_printer = void (*)(qz_stream*, int level, const propset*);

void dump(const propset* set, const char* title, const char* function, set_printer print,
          int level) {
    if (set == nullptr) {
        return;
    }
    const stream_ptr stream(new_qz_stream(0));
    const std::string prefix = std::string("hobintf: ") + function + ": ";
    print_string(stream.get(), 0, "%s%s\n", prefix.c_str(), rule);
    print_string(stream.get(), 0, "%s%s\n", prefix.c_str(), title);
    print_string(stream.get(), 0, "%s%s\n", prefix.c_str(), rule);
    print(stream.get(), level, set);
    print_string(stream.get(), 0, "%s%s\n", prefix.c_str(), end_rule);
    (void)std::fwrite(stream->data, 1, stream->length, stderr);  // a debug aid: loss is no error
}

// --- UTF-16 ---

// One code point below 0x110000.
void append_utf8(std::string* text, std::uint32_t code) {
    const auto tail = [&](int shift) { *text += static_cast<char>(0x80 | (code >> shift & 0x3f)); };
    if (code < 0x80) {
        *text += static_cast<char>(code);
    } else if (code < 0x800) {
        *text += static_cast<char>(0xc0 | code >> 6);
        tail(0);
    } else if (code < 0x10000) {
        *text += static_cast<char>(0xe0 | code >> 12);
        tail(6);
        tail(0);
    } else {
        *text += static_cast<char>(0xf0 | code >> 18);
        tail(12);
        tail(6);
        tail(0);
    }
}

bool is_high_surrogate(std::uint32_t unit) {
    return unit >= 0xd800 && unit < 0xdc00;
}
bool is_low_surrogate(std::uint32_t unit) {
    return unit >= 0xdc00 && unit < 0xe000;
}

}  // namespace

void print_string(qz_stream* stream, int level, const char* format, ...) noexcept {
    indent(stream, level);
    va_list args;
    va_start(args, format);
    (void)qz_vprintf_stream_args(stream, format, args);
    va_end(args);
}

void ps_print(qz_stream* stream, int level, const propset* set) noexcept {
    for (void* entry : qz_each(set->entries)) {
        kv_print(stream, level, static_cast<kv*>(entry));
    }
}

void kv_print(qz_stream* stream, int level, const kv* entry) noexcept {
    const qz_owned<char> name(format_unsafe_xml_str(entry->name));
    print_string(stream, level, "<kv>\n");
    print_string(stream, level + 1, "<name>%s</name>\n", name.get());
    value_print(stream, level + 1, entry->value);
    print_string(stream, level, "</kv>\n");
}

void value_print(qz_stream* stream, int level, const kv_value* value) noexcept {
    print_string(stream, level, "<value>\n");
    if (is_printable(value)) {
        print_data(stream, level + 1, value);
    }
    print_string(stream, level, "</value>\n");
}

void ps_printjson(qz_stream* stream, int level, const propset* set) noexcept {
    // Kept: the opening brace stands one level deeper than the closing one.
    print_string(stream, level + 1, "{\n");
    const std::int32_t count = ps_getcount(set);
    for (std::int32_t i = 0; i < count; ++i) {
        kv_printjson(stream, level + 2, ps_at(set, i));
        print_string(stream, 0, i + 1 < count ? ",\n" : "\n");
    }
    print_string(stream, level, "}");
}

void kv_printjson(qz_stream* stream, int level, const kv* entry) noexcept {
    print_string(stream, level, "\"%s\" : ", entry->name);
    value_printjson(stream, level, entry->value);
}

void value_printjson(qz_stream* stream, int level, const kv_value* value) noexcept {
    if (!is_printable(value)) {
        print_string(stream, level, "null");
        return;
    }
    if (kv_is_array(value)) {
        val_array_printjson(stream, level, kv_elements(value));
        return;
    }
    switch (kv_type_of(value->datatype).layout) {
        case kv_layout::unknown:
            break;
        case kv_layout::boolean:
            print_string(stream, level, "\"%s\"", truth(value));
            break;
        case kv_layout::word32:
        case kv_layout::word64:
            print_string(stream, level, "%s", text_of_number(value).c_str());
            break;
        case kv_layout::text:
        case kv_layout::wide_text: {
            const qz_owned<char> text = copy_of_text(value);
            print_string(stream, level, "\"%s\"", format_unsafe_json_str(text.get()));
            break;
        }
        case kv_layout::guid:
            print_string(stream, level, "\"%s\"", text_of_guid(value).c_str());
            break;
        case kv_layout::bytes:
            print_string(stream, level, "\"%s\"", text_of_bytes(value).c_str());
            break;
        case kv_layout::nested:
            ps_printjson(stream, level, kv_nested(value));
            break;
    }
}

void val_array_printjson(qz_stream* stream, int level, const val_array* array) noexcept {
    print_string(stream, level, "[\n");
    const std::int32_t count = qz_vector_size(array->values);
    for (std::int32_t i = 0; i < count; ++i) {
        value_printjson(stream, level + 1, static_cast<kv_value*>(qz_vector_at(array->values, i)));
        print_string(stream, 0, i + 1 < count ? ",\n" : "\n");
    }
    print_string(stream, level, "]");
}

void display_propset(const propset* set, const char* title) noexcept {
    dump(set, title, "display_propset", ps_print, 4);
}

void display_propset_json(const propset* set, const char* title) noexcept {
    dump(set, title, "display_propset_json", ps_printjson, 0);
}

void ps_print_to_jsonfile(const propset* set, int level, FILE* file) noexcept {
    if (set == nullptr) {
        return;
    }
    const stream_ptr stream(new_qz_stream(0));
    ps_printjson(stream.get(), level, set);
    (void)std::fwrite(stream->data, 1, stream->length,
                      file);  // the caller's stream keeps the error
    (void)std::fflush(file);
}

char* qz_utf16toutf8(const void* units) noexcept {
    std::string text;
    const auto* at = static_cast<const unsigned char*>(units);
    const auto unit_at = [&](std::size_t index) {
        std::uint16_t unit;
        std::memcpy(&unit, at + index * sizeof unit, sizeof unit);
        return std::uint32_t{unit};
    };
    for (std::size_t i = 0; at != nullptr && unit_at(i) != 0; ++i) {
        std::uint32_t code = unit_at(i);
        if (is_high_surrogate(code) && is_low_surrogate(unit_at(i + 1))) {
            ++i;
            code = 0x10000 + ((code - 0xd800) << 10) + (unit_at(i) - 0xdc00);
        } else if (is_high_surrogate(code) || is_low_surrogate(code)) {
            code = replacement_character;
        }
        append_utf8(&text, code);
    }
    return qzstrdup(text.c_str());
}
