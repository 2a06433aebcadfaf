// The variables of a form: a search finds what splitting the form finds, values lie inside the form
// and decode as a plain decoder says, whatever the room, and what is encoded comes back.
#include <cctype>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/endpoint.h"
#include "core/shttpd.h"
#include "fuzz/check.h"

namespace {

// Up to the first variable of the name; nothing when there is none.
std::optional<std::string> find_plainly(const std::string& name, std::string_view form) {
    for (bool more = true; more;) {
        const std::string_view part = form.substr(0, form.find('&'));
        if (part.size() > name.size() && part[name.size()] == '=' &&
            strncasecmp(part.data(), name.data(), name.size()) == 0) {
            return std::string(part.substr(name.size() + 1));
        }
        more = part.size() < form.size();
        form.remove_prefix(std::min(part.size() + 1, form.size()));
    }
    return std::nullopt;
}

std::string decode_plainly(const std::string& text) {
    std::string decoded;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto digit = [&](std::size_t i) {
            return i < text.size() && std::isxdigit(static_cast<unsigned char>(text[i])) != 0;
        };
        if (text[at] == '%' && digit(at + 1) && digit(at + 2)) {
            decoded += static_cast<char>(std::stoi(text.substr(at + 1, 2), nullptr, 16));
            at += 2;
        } else {
            decoded += text[at] == '+' ? ' ' : text[at];
        }
    }
    return decoded;
}

void check_search(const std::string& name, const std::string& form, std::size_t room) {
    const auto length = static_cast<int>(form.size());
    const char* raw = nullptr;
    const int found = shttpd_get_var_nodecode_nocopy(name.c_str(), form.data(), length, &raw);
    check(found >= -1 && found <= length);
    check(found < 0 || (raw >= form.data() && raw + found <= form.data() + length));
    if (name.find('&') == std::string::npos) {
        const std::optional<std::string> expected = find_plainly(name, form);
        check(expected.has_value() == (found >= 0));
        check(!expected || *expected == std::string_view(raw, static_cast<std::size_t>(found)));
    }
    std::vector<char> value(room);
    const int used =
        shttpd_get_var(name.c_str(), form.data(), length, value.data(), static_cast<int>(room));
    check((used < 0) == (found < 0));
    if (found >= 0 && room > 0) {
        const std::string whole = decode_plainly({raw, static_cast<std::size_t>(found)});
        check(used == static_cast<int>(std::min(whole.size(), room - 1)) &&
              value[static_cast<std::size_t>(used)] == '\0');
        check(whole.starts_with(std::string_view(value.data(), static_cast<std::size_t>(used))));
    }
}

// Every byte escaped that a form gives a meaning, and some others.
std::string encode(std::string_view text, unsigned every) {
    std::string encoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c == '&' || c == '%' || c == '+' || (every != 0 && i % every == 0)) {
            char escape[4];
            (void)std::snprintf(escape, sizeof escape, i % 2 == 0 ? "%%%02x" : "%%%02X", c);
            encoded += escape;
        } else {
            encoded += text[i] == ' ' ? '+' : text[i];
        }
    }
    return encoded;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    fuzz_input input(data, size);
    const std::size_t room = input.byte() % 64;
    const std::string name = visible(input.until('\n'));
    const std::string form(input.rest());
    check_search(name, form, room);
    if (name.find('&') == std::string::npos) {
        const std::string own =
            "other=1&" + name + "=" + encode(form, static_cast<unsigned>(room)) + "&" + form;
        check_search(name, own, 8 + 3 * form.size());
        std::string text(form.size() + 1, '\0');
        const int used = shttpd_get_var(name.c_str(), own.data(), static_cast<int>(own.size()),
                                        text.data(), static_cast<int>(text.size()));
        text.resize(static_cast<std::size_t>(std::max(used, 0)));
        check(strcasecmp(name.c_str(), "other") == 0 || text == form);
    }
    return 0;
}
