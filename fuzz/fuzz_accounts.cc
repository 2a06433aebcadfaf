// The library's files: domains, users, what TLS may do, who is locked. Every line is either taken
// or told; what is taken obeys the rules of names, and written out it is read back the same.
#include <strings.h>

#include <algorithm>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/check.h"
#include "provider/accounts.h"
#include "provider/tls_files.h"

using namespace provider;

namespace {

constexpr std::size_t longest_grant = 127;

bool is_plain(std::string_view text) {
    return !text.empty() && text.find_first_not_of(
                                "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                "_.-") == std::string_view::npos;
}

std::vector<std::string> lines_of(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        lines.emplace_back(line.substr(0, line.size() - (line.ends_with('\r') ? 1 : 0)));
    }
    return lines;
}

std::string line_of(const domain_entry& domain) {
    const bool password = domain.kind == domain_kind::password;
    return domain.name + (password ? ":password:" : ":certificate:") + domain.qualifier;
}

void check_domain(const domain_entry& domain) {
    const std::string full = std::string(32, 'u') + "@" + domain.name + "." + domain.qualifier;
    check(full.size() <= longest_grant && is_plain(domain.name) && is_plain(domain.qualifier));
    check(domain.name.size() <= 32 && domain.name[0] != '.' && domain.name[0] != '-');
    check(strcasecmp(full.c_str() + full.size() - 3, ".qz") != 0);
    check(strcasecmp(domain.qualifier.c_str(), "localhost") != 0);
}

// Good and refused lines, in order, are the lines.
void check_domains(std::string_view text) {
    std::vector<std::string> refused;
    const std::vector<domain_entry> domains = parse_domains(text, &refused);
    auto good = domains.begin();
    auto bad = refused.begin();
    for (const std::string& line : lines_of(text)) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        if (good != domains.end() && line_of(*good) == line) {
            check_domain(*good++);
        } else {
            check(bad != refused.end() && *bad++ == line);
        }
    }
    check(good == domains.end() && bad == refused.end());
}

void check_user(const user_entry& user) {
    check(is_plain(user.name) && user.name.size() <= 32 && user.name[0] != '.' &&
          user.name[0] != '-');
    check(user.hash.starts_with("$y$") || user.hash.starts_with("$6$"));
    check(user.hash.find_first_of(":\r\n") == std::string::npos);
    check(!user.os || user.name == "root" || user.name.size() > 4 ||
          strncasecmp(user.name.c_str(), "root", user.name.size()) != 0);
    const std::string line = format_user(user);
    check(line.ends_with('\n'));
    const auto again = parse_user(line.substr(0, line.size() - 1));
    check(again && again->name == user.name && again->hash == user.hash && again->os == user.os &&
          again->off == user.off);
}

void check_users(std::string_view text) {
    std::set<std::string> seen;
    for (const std::string& line : lines_of(text)) {
        const auto user = parse_user(line);
        if (!user) {
            continue;
        }
        check_user(*user);
        check(line.starts_with(user->name + ":" + user->hash));
        if (seen.insert(user->name).second) {  // the first line of a name is the one that counts
            const auto found = find_user(text, user->name);
            check(found && found->hash == user->hash && found->os == user->os &&
                  found->off == user->off);
        }
    }
    check(seen.count("nobody") == (find_user(text, "nobody") ? 1U : 0U));
}

void check_tls(std::string_view text) {
    tls_limits limits;
    if (parse_tls_limits(text, &limits).empty()) {
        check(limits.minimum == TLS1_2_VERSION || limits.minimum == TLS1_3_VERSION);
        tls_limits again;
        // Of several carriage returns the last one goes with its line; OpenSSL knows no such group.
        check(limits.groups.ends_with('\r') ||
              parse_tls_limits(std::string("minimum = ") +
                                   (limits.minimum == TLS1_2_VERSION ? "1.2" : "1.3") +
                                   "\ngroups=" + limits.groups + "\n",
                               &again)
                  .empty());
        check(limits.groups.ends_with('\r') ||
              (again.minimum == limits.minimum && again.groups == limits.groups));
    }
    std::set<std::string, std::less<>> locked;
    const std::string problem = parse_locked(text, &locked);
    std::string own;
    for (const std::string& entry : locked) {
        const bool print =
            entry.size() == 64 && entry.find_first_not_of("0123456789abcdef") == std::string::npos;
        check(print || (is_plain(entry) && entry.size() <= 32));
        own += entry + "\n";
    }
    std::set<std::string, std::less<>> again;
    check(parse_locked(own, &again).empty() && again == locked);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text = fuzz_input(data, size).rest();
    check_domains(text);
    check_users(text);
    check_tls(text);
    return 0;
}
