#include "security/auth.h"

#include <array>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "core/connection.h"
#include "core/context.h"
#include "core/globals.h"
#include "core/loop_watch.h"
#include "core/pass_work.h"
#include "core/route.h"
#include "core/string.h"
#include "lib/alloc.h"
#include "lib/base64.h"
#include "lib/on_exit.h"
#include "lib/plat.h"
#include "lib/qz_vector.h"
#include "security/at_types.h"
#include "security/authz.h"
#include "security/library_log.h"
#include "security/login_guard.h"

namespace {

constexpr std::string_view world_role = "world";
constexpr std::string_view basic_scheme = "Basic ";
// Of the whole header value. What is left for "DOMAIN\name:password" is 42 bytes.
constexpr std::size_t longest_authorization = 64;
constexpr std::size_t shortest_authorization = 10;

constexpr const char* login_page =
    "<html><head> <title>401 Authorization Required</title> </head><body> "
    "<h1>Authorization Required</h1> <p>This server could not verify that you are authorized to "
    "access the document requested.  Either you supplied the wrong credentials (e.g., bad "
    "password), or your browser doesn't understand how to supply the credentials required.</p> "
    "</body></html>\r\n";

login_guard& guard() {
    static login_guard only;
    return only;
}

// Asks the library about "DOMAIN\NAME:PASSWORD" or "NAME:PASSWORD". The password may hold colons,
// the name backslashes; an empty domain in front of one is not the default domain.
bool log_in(conn* c, std::string_view login) {
    const std::size_t colon = login.find(':');
    if (colon == std::string_view::npos || login.find('\0') != std::string_view::npos) {
        return false;
    }
    std::string_view user = login.substr(0, colon);
    const char* default_domain =
        c->ctx->security != nullptr ? c->ctx->security->default_domain : nullptr;
    std::string domain = default_domain != nullptr ? default_domain : "";
    if (const std::size_t backslash = user.find('\\'); backslash != std::string_view::npos) {
        domain = user.substr(0, backslash);
        user.remove_prefix(backslash + 1);
    }
    if (user.empty()) {  // without a name the library might take the caller for the service itself
        return false;
    }
    const std::string name(user);
    std::string password(login.substr(colon + 1));
    const exit_guard wipe([&] { explicit_bzero(password.data(), password.size()); });
    const molb_identity who{"localhost", domain.c_str(), name.c_str(), password.c_str()};
    const std::string user_key = domain + "\\" + name;
    const std::int64_t now_ms = login_clock();
    if (!guard().may_ask(c->peer, user_key, now_ms)) {
        return false;
    }
    const library_subject subject(c);
    const pass_work_timer time(pass_work::logins);
    rename_step("a login");
    tell_peer_to_library(c);
    if (molbAtAuthenticate(c->ctx->at_handle, &who, 0, &c->client_credential) != at_ok) {
        c->client_credential = nullptr;  // whatever the library left there is nobody's
        guard().note_refused(c->peer, user_key, now_ms);
        return false;
    }
    guard().note_accepted(c->peer, user_key, now_ms);
    return true;
}

// Kept: blanks behind the value count towards its length although base64 ignores them, so a login
// of 64 characters is refused as soon as a client pads it.
bool log_in_by_header(conn* c) {
    std::string_view value = c->request.headers.authorization;
    if (value.size() > longest_authorization || value.size() < shortest_authorization ||
        !starts_with_nocase(value, basic_scheme)) {
        return false;
    }
    c->request.login_judged = true;
    value.remove_prefix(basic_scheme.size());
    std::array<char, longest_authorization> login{};
    const int length = base64_decode(login.data(), static_cast<int>(login.size()), value.data(),
                                     static_cast<int>(value.size()));
    const bool known = length > 0 && log_in(c, {login.data(), static_cast<std::size_t>(length)});
    explicit_bzero(login.data(), login.size());
    return known;
}

const char* or_empty(const char* text) {
    return text != nullptr ? text : "";
}

// "name@domain.qualifier", or the bare name for users of this system: only they can be called
// "root" and have groups here. Empty when the library knows no name.
std::string user_name_of(const molb_info* info) {
    std::string name = or_empty(info->name);
    const std::string_view qualifier = or_empty(info->qualifier);
    if (!name.empty() && qualifier != "localhost") {
        name.append("@").append(or_empty(info->domain)).append(".").append(qualifier);
    }
    return name;
}

// The names of a system user's groups, null when the system knows none. The process itself joins
// none of them, so this works without privileges and what one caller may do never reaches another.
qz_vector* groups_of(const std::string& user_name) {
    std::vector<std::string> names;
    if (!system_groups(user_name.c_str(), &names)) {
        return nullptr;
    }
    qz_vector* groups = new_qz_vector(static_cast<int>(names.size()), qzfree);
    for (const std::string& name : names) {
        qz_vector_pushback(groups, qz_need(qzstrdup(name.c_str())));
    }
    return groups;
}

// Fills the connection's user name and groups. False when the credential says nothing useful; the
// caller is refused then, because an empty name would be the beginning of every listed one.
bool identify(conn* c) {
    molb_info* info = nullptr;
    if (molbAtExtractInfo(c->ctx->at_handle, c->client_credential, &info) != at_ok ||
        info == nullptr) {
        return false;
    }
    c->user_name = user_name_of(info);
    (void)molbAtFree(info);
    if (c->user_name.empty()) {
        return false;
    }
    qz_vector_destroy(c->groups);
    c->groups = groups_of(c->user_name);
    return true;
}

}  // namespace

std::int64_t (*login_clock)() = monotonic_ms;

int check_authorization(conn* c) {
    const std::string& role = c->request.role;
    // Kept: a beginning of "world", such as "w", needs no login either.
    if (!role.empty() && world_role.substr(0, role.size()) == role) {
        c->request.recorded_role = role;
        return 1;
    }
    // Kept: a caller who is known stays so for the connection's life; another login in a later
    // request is not looked at.
    if (c->client_credential == nullptr && !log_in_by_header(c)) {
        return 0;
    }
    return is_authorized_at(c);
}

int is_authorized_at(conn* c) {
    if (c->user_name.empty() && !identify(c)) {
        return 2;
    }
    if (is_authorized(c) == 0) {
        return 2;
    }
    c->request.recorded_role = c->request.role;
    return 1;
}

void send_authorization_request(conn* c) {
    std::array<char, 512> reason{};
    my_snprintf(reason.data(), reason.size(),
                "Unauthorized\r\nWWW-Authenticate: Basic realm=\"%s\"", c->ctx->auth_realm.c_str());
    send_server_error_with_header(c, 401, reason.data(), login_page);
}
