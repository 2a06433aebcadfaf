#include "provider/accounts.h"

#include <crypt.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <memory>

namespace provider {
namespace {

constexpr std::size_t longest_name = 32;
// name@domain.qualifier has to fit the 127 characters of a grant.
constexpr std::size_t longest_domain_and_qualifier = 93;

bool is_alphanumeric(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool is_name_character(char c) {
    return is_alphanumeric(c) || c == '_' || c == '.' || c == '-';
}

bool equal_ignoring_case(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// Takes the text up to the next separator off `rest`, and the separator with it. Past the last
// field the result is empty, so a missing field and an empty one look the same.
std::string_view next_field(std::string_view* rest, char separator) {
    const std::size_t end = std::min(rest->find(separator), rest->size());
    const std::string_view field = rest->substr(0, end);
    rest->remove_prefix(std::min(end + 1, rest->size()));
    return field;
}

// crypt_data holds intermediate state from which the password could be guessed.
struct wiping_delete {
    void operator()(crypt_data* data) const {
        explicit_bzero(data, sizeof *data);
        delete data;
    }
};

}  // namespace

bool is_user_name(std::string_view name) {
    return !name.empty() && name.size() <= longest_name &&
           (is_alphanumeric(name[0]) || name[0] == '_') &&
           std::all_of(name.begin(), name.end(), is_name_character);
}

bool is_os_user_name(std::string_view name) {
    constexpr std::string_view administrator = "root";
    return is_user_name(name) && (name == administrator ||
                                  !equal_ignoring_case(name, administrator.substr(0, name.size())));
}

// Both refusals guard the daemon's own tests of a full name: equality with "localhost" drops domain
// and qualifier, and a name that ends in ".qz" gets no rights through groups.
bool is_qualifier(std::string_view qualifier) {
    constexpr std::string_view internal = ".qz";
    if (qualifier.empty() || equal_ignoring_case(qualifier, "localhost") ||
        !std::all_of(qualifier.begin(), qualifier.end(), is_name_character)) {
        return false;
    }
    // The user's full name puts a dot before the qualifier, so "qz" alone counts as well.
    const std::string dotted = "." + std::string(qualifier);
    return dotted.size() < internal.size() ||
           !equal_ignoring_case(dotted.substr(dotted.size() - internal.size()), internal);
}

bool is_password_hash(const std::string& hash) {
    // The library looks at method and salt alone, and as far as the first zero byte.
    return (hash.rfind("$y$", 0) == 0 || hash.rfind("$6$", 0) == 0) &&
           std::all_of(hash.begin(), hash.end(), [](char c) { return c > ' ' && c < 0x7f; }) &&
           crypt_checksalt(hash.c_str()) == CRYPT_SALT_OK;
}

std::string make_password_setting(const char* method) {
    char setting[CRYPT_GENSALT_OUTPUT_SIZE];
    // Cost 0 is the library's default, and a null pointer has it draw the salt itself.
    if (crypt_gensalt_rn(method, 0, nullptr, 0, setting, sizeof setting) == nullptr) {
        return {};
    }
    return setting;
}

std::string make_password_hash(const char* password) {
    const std::string setting = make_password_setting("$y$");
    const std::unique_ptr<crypt_data, wiping_delete> data{new crypt_data{}};
    // Not crypt_r: sanitizers put a function of their own in its place, which fails in a library
    // that is loaded late. Failure is null, or a text that begins with '*'.
    const char* hash = crypt_rn(password, setting.c_str(), data.get(), sizeof *data);
    if (hash == nullptr || hash[0] == '*') {
        return {};
    }
    return hash;
}

std::optional<domain_entry> parse_domain(std::string_view line) {
    domain_entry domain;
    domain.name = next_field(&line, ':');
    const std::string_view kind = next_field(&line, ':');
    domain.qualifier = line;
    if (kind == "certificate") {
        domain.kind = domain_kind::certificate;
    } else if (kind != "password") {
        return std::nullopt;
    }
    // The domain obeys the rule for user names: it too ends up in the full name, between '@' and
    // '.'.
    if (!is_user_name(domain.name) || !is_qualifier(domain.qualifier) ||
        domain.name.size() + domain.qualifier.size() > longest_domain_and_qualifier) {
        return std::nullopt;
    }
    return domain;
}

std::optional<user_entry> parse_user(std::string_view line) {
    user_entry user;
    user.name = next_field(&line, ':');
    user.hash = next_field(&line, ':');
    while (!line.empty()) {
        const std::string_view option = next_field(&line, ',');
        if (option == "os") {
            user.os = true;
        } else if (option == "off") {
            user.off = true;
        } else {
            return std::nullopt;  // an option that is not understood may be a restriction
        }
    }
    if (!is_user_name(user.name) || (user.os && !is_os_user_name(user.name)) ||
        !is_password_hash(user.hash)) {
        return std::nullopt;
    }
    return user;
}

// Files edited elsewhere may have CR LF.
std::string_view next_line(std::string_view* text) {
    std::string_view line = next_field(text, '\n');
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    return line;
}

std::vector<domain_entry> parse_domains(std::string_view text, std::vector<std::string>* refused) {
    std::vector<domain_entry> domains;
    while (!text.empty()) {
        const std::string_view line = next_line(&text);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const std::optional<domain_entry> domain = parse_domain(line);
        if (domain) {
            domains.push_back(*domain);
        } else if (refused != nullptr) {
            refused->emplace_back(line);
        }
    }
    return domains;
}

std::optional<user_entry> find_user(std::string_view text, std::string_view name) {
    while (!text.empty()) {
        std::optional<user_entry> user = parse_user(next_line(&text));
        if (user && user->name == name) {
            return user;
        }
    }
    return std::nullopt;
}

// The inverse of parse_user: what it writes, that reads.
std::string format_user(const user_entry& user) {
    std::string line = user.name + ":" + user.hash;
    if (user.os || user.off) {
        line += user.os ? ":os" : ":off";
        line += user.os && user.off ? ",off" : "";
    }
    return line + "\n";
}

}  // namespace provider
