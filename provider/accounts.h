// The text forms of users and domains, and the rules about their names.
//
// Shared by the library, which reads the files, and by dovmad-user, which writes them.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace provider {

enum class domain_kind { password, certificate };

// One line NAME:KIND:QUALIFIER of the file "domains". A caller of the domain is known to the daemon
// as user@NAME.QUALIFIER.
struct domain_entry {
    std::string name;
    domain_kind kind = domain_kind::password;
    std::string qualifier;
};

// The one line NAME:HASH[:OPTION,...] of a file users/NAME.
struct user_entry {
    std::string name;
    std::string hash;
    bool os = false;   // known to the daemon by the plain name, like a user of the system
    bool off = false;  // locked
};

// [A-Za-z0-9_][A-Za-z0-9._-]{0,31}: no separator of any file or header that the name appears in.
bool is_user_name(std::string_view name);

// Whether a user of the system may have this name. Names that the daemon's prefix comparison takes
// for "root" may not: r, ro, roo and any other spelling of root itself.
bool is_os_user_name(std::string_view name);

// Whether a domain may have this qualifier. Refused are "localhost", which would turn every caller
// into a user of the system, and whatever makes names end in ".qz".
bool is_qualifier(std::string_view qualifier);

// Whether a password hash is of a kind that this system accepts: yescrypt or SHA-512.
// crypt_r would take almost any text for an old DES salt, hence the explicit list.
bool is_password_hash(const std::string& hash);

// A fresh yescrypt hash with the system's default cost; empty on failure.
std::string make_password_hash(const char* password);

// Only the method and a salt, with the default cost of the method: something to hash against.
std::string make_password_setting(const char* method);

// Null for a line that does not obey the rules.
std::optional<domain_entry> parse_domain(std::string_view line);
std::optional<user_entry> parse_user(std::string_view line);

// The good lines of the file "domains" in their order; `refused` (may be null) receives the others.
// Empty lines and lines that begin with '#' are neither.
std::vector<domain_entry> parse_domains(std::string_view text, std::vector<std::string>* refused);

// The user `name` from the text of its file: the first good line that bears the name.
std::optional<user_entry> find_user(std::string_view text, std::string_view name);

std::string format_user(const user_entry& user);

// Takes the first line off `text`, without its line end.
std::string_view next_line(std::string_view* text);

// The longest "DOMAIN\name:password" that fits the header value of a Basic login: 56 base64
// characters.
inline constexpr std::size_t longest_login_bytes = 42;

}  // namespace provider
