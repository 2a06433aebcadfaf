#include "domain/domain_uris.h"

#include <stdint.h>
#include <stdlib.h>

#include <algorithm>

#include "core/endpoint.h"

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

bool has_unsafe(std::string_view text) {
    return std::any_of(text.begin(), text.end(), is_unsafe);
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

bool is_storable_id(std::string_view id) {
    return !has_unsafe(id) && id.find(':') == std::string_view::npos;
}

// A ":" is fine, the file puts such names in brackets. Brackets of its own would not be read back.
bool is_storable_hostname(std::string_view name) {
    return !has_unsafe(name) && name.find_first_of("[]") == std::string_view::npos;
}

bool is_storable_namespace(std::string_view name) {
    return std::none_of(name.begin(), name.end(), is_control);
}

std::string storable_field(std::string_view text) {
    std::string field(text);
    std::replace_if(
        field.begin(), field.end(), [](char c) { return is_unsafe(c) || c == ':'; }, '_');
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
