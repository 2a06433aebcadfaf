#include "domain/domain_uris.h"

#include <stdint.h>
#include <stdlib.h>

#include <algorithm>

#include "core/endpoint.h"
#include "lib/utf8.h"

namespace {

constexpr std::size_t longest_number = 31;  // characters, more than any number that is accepted has

bool is_control(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

// Characters that would break a line of the domain file, or a JSON text.
bool is_unsafe(char c) {
    return is_control(c) || c == '"' || c == '\\';
}

bool is_clean(std::string_view text) {
    return std::none_of(text.begin(), text.end(), is_unsafe) && is_utf8(text);
}

}  // namespace

std::string_view raw_variable(std::string_view variables, const char* name) {
    const char* value = nullptr;
    const int length = shttpd_get_var_nodecode_nocopy(name, variables.data(),
                                                      static_cast<int>(variables.size()), &value);
    return length > 0 ? std::string_view(value, static_cast<std::size_t>(length))
                      : std::string_view{};
}

std::optional<std::uint32_t> number_variable(std::string_view variables, const char* name) {
    // A copy, because the value is not terminated: digits of whatever stands behind it would count.
    const std::string text(raw_variable(variables, name).substr(0, longest_number));
    if (text.empty()) {
        return std::nullopt;
    }
    const long number = strtol(text.c_str(), nullptr, 10);
    if (number < 0 || number > INT32_MAX) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(number);
}

std::string text_variable(std::string_view variables, const char* name, int size) {
    std::string value = get_variable(variables, name, size);
    if (value.size() + 1 == static_cast<std::size_t>(size)) {
        value.resize(without_cut_character(value).size());
    }
    return value;
}

bool is_storable_id(std::string_view id) {
    return is_clean(id) && id.find(':') == std::string_view::npos;
}

// A ":" is fine, the file puts such names in brackets. Brackets of its own would not be read back.
bool is_storable_hostname(std::string_view name) {
    return is_clean(name) && name.find_first_of("[]") == std::string_view::npos;
}

bool is_storable_namespace(std::string_view name) {
    return std::none_of(name.begin(), name.end(), is_control);
}

std::string storable_field(std::string_view text) {
    std::string field;
    while (!text.empty()) {
        const std::size_t length = utf8_length(text);
        const bool kept = length > 1 || (length == 1 && !is_unsafe(text[0]) && text[0] != ':');
        field.append(kept ? text.substr(0, length) : "_");
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return field;
}

void answer_empty(shttpd_call_arg* arg) {
    (void)shttpd_printf(arg, "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\n");
}

// Not show_error, whose body has no line break at its end.
void answer_unknown_host(shttpd_call_arg* arg) {
    (void)shttpd_printf(arg,
                        "HTTP/1.1 404 Host not found\r\nContent-Type: text/plain\r\n\r\n"
                        "Host not found\n");
}
