// dovmad-user: roles, through the running daemon or in the access files themselves.
#include <grp.h>
#include <pwd.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <optional>

#include "core/string.h"
#include "lib/rbtree.h"
#include "lib/replace_file.h"
#include "provider/tool.h"
#include "provider/tool_accounts.h"
#include "provider/tool_daemon.h"
#include "security/access_file.h"

namespace {

constexpr std::string_view administrator = "root";
constexpr std::string_view default_name_space = "plx";
constexpr std::size_t longest_principal = 127;

// Numbered as the daemon numbers them.
enum role : std::size_t { pub, operator_role, admin, agent, role_count };

constexpr std::array<const char*, role_count> role_names = {"pub", "operator", "admin", "agent"};

// Who holds a role: everybody listed in one of these files.
const std::vector<role>& sufficient_roles(role wanted) {
    static const std::array<std::vector<role>, role_count> table = {{
        {pub, operator_role, admin},
        {operator_role, admin},
        {admin},
        {agent, admin},
    }};
    return table[wanted];
}

// What a new holder of a role no longer needs.
const std::vector<role>& included_roles(role granted) {
    static const std::array<std::vector<role>, role_count> table = {{
        {},
        {pub},
        {agent, operator_role, pub},
        {},
    }};
    return table[granted];
}

// The root is empty when it is not known.
struct name_space {
    std::string name;
    std::string root;
};

std::string access_path(const name_space& where, role r) {
    return where.root + "/" + role_names[r] + "/.dovmaaccess";
}

// One access file in memory, with the principals that the daemon adds by itself.
struct access_row : role_entry {
    access_row(const name_space& where, role r) {
        path = access_path(where, r);
        (void)refresh_row(path, this);
        if (r == admin) {
            add_principal(users, administrator);
            add_principal(groups, administrator);
        } else if (r == pub) {
            add_principal(users, "*");
        }
    }
    ~access_row() { clear_row(this); }
    access_row(const access_row&) = delete;
    access_row& operator=(const access_row&) = delete;
    access_row(access_row&&) = delete;
    access_row& operator=(access_row&&) = delete;

    [[nodiscard]] bool lists(const std::string& principal, principal_kind kind) const {
        return qz_set_exists(principals(this, kind), principal.c_str()) != 0;
    }

    std::string path;
};

// Searches as the daemon does, so that both agree also where names are prefixes of each other.
bool holds(const name_space& where, role wanted, const std::string& principal,
           principal_kind kind) {
    if (wanted == pub && kind == kind_user) {
        return true;  // every user does
    }
    const std::vector<role>& sufficient = sufficient_roles(wanted);
    return std::any_of(sufficient.begin(), sufficient.end(),
                       [&](role r) { return access_row(where, r).lists(principal, kind); });
}

int save_row(const access_row& row) {
    if (row.unreadable) {
        return fail("%s: cannot be read, so it is left alone", row.path.c_str());
    }
    const int error = replace_file(row.path.c_str(), access_file_text(&row));
    return error == 0 ? exit_done : fail("%s: %s", row.path.c_str(), strerror(error));
}

// Takes the exact spelling of a principal off one list. False when it does not stand there.
bool take_off(access_row* row, const std::string& principal, principal_kind kind) {
    for (qz_cursor at(qz_set_open(principals(row, kind))); !at.at_end(); at.next()) {
        if (principal == at.data<const char>()) {
            at.erase();
            return true;
        }
    }
    return false;
}

// That everybody holds pub is built in and can't be taken away.
bool is_everybody(role r, const std::string& principal) {
    return r == pub && principal[0] == '*';
}

int remove_from(const name_space& where, role r, const std::string& principal,
                principal_kind kind) {
    access_row row(where, r);
    if (is_everybody(r, principal)) {
        return exit_done;
    }
    const bool changed = take_off(&row, principal, kind);
    return changed || row.unreadable ? save_row(row) : int{exit_done};
}

// A role that is held already is not written again, also when a higher role brings it.
int grant_in_files(const name_space& where, role r, const std::string& principal,
                   principal_kind kind) {
    if (holds(where, r, principal, kind)) {
        return exit_done;
    }
    for (const role lower : included_roles(r)) {
        const int status = remove_from(where, lower, principal, kind);
        if (status != exit_done) {
            return status;
        }
    }
    access_row row(where, r);
    add_principal(principals(&row, kind), principal);
    return save_row(row);
}

// --- What the command line means ---

// In the order of the option, the default namespace last. An entry without '=' is no namespace, and
// the first entry of a name counts, as for the daemon.
std::vector<name_space> configured_name_spaces(const daemon_config& config) {
    std::vector<name_space> found;
    const auto add = [&](std::string_view name, std::string_view root) {
        const bool known = std::any_of(found.begin(), found.end(),
                                       [&](const name_space& entry) { return entry.name == name; });
        if (!known) {
            found.push_back({std::string(name), std::string(root)});
        }
    };
    const std::string list = config.get("namespaces");
    std::string_view rest = list;
    for (std::string_view entry = next_list_entry(rest); !entry.empty();
         entry = next_list_entry(rest)) {
        const std::size_t equals = entry.find('=');
        if (equals != std::string_view::npos) {
            add(entry.substr(0, equals), entry.substr(equals + 1));
        }
    }
    add(default_name_space, config.get("document_root"));
    return found;
}

// The name that the daemon knows the principal by: a user of the library is given by the short
// name.
std::string full_name(const tool_options& options, const std::string& principal) {
    account_store store;
    if (!options.group && principal.find('@') == std::string::npos &&
        open_store(options, &store, true)) {
        const std::optional<provider::user_entry> user = look_up_user(store, principal);
        if (user) {
            return granted_name(store, *user);
        }
    }
    return principal;
}

struct change {
    name_space where;
    bool configured = false;  // else only the running daemon may know the namespace
    role what = pub;
    std::string who;
    principal_kind kind = kind_user;
    daemon_config config;
};

bool check_principal(const std::string& principal) {
    if (principal.empty() || principal.size() > longest_principal ||
        principal.find_first_of(":\r\n") != std::string::npos) {
        (void)fail("a name has 1 to %zu characters, no ':' and no line break", longest_principal);
        return false;
    }
    return true;
}

int read_change(const tool_options& options, const tool_arguments& arguments, change* result) {
    const auto* name = std::find(role_names.begin(), role_names.end(), arguments[1]);
    if (name == role_names.end()) {
        (void)fail("'%s' is no role: pub, operator, admin or agent", arguments[1].c_str());
        return exit_usage;
    }
    result->what = static_cast<role>(name - role_names.begin());
    result->kind = options.group ? kind_group : kind_user;
    if (!read_config(options, &result->config)) {
        return exit_failed;
    }
    result->who = full_name(options, arguments[0]);
    if (!check_principal(result->who)) {
        return exit_usage;
    }
    result->where.name = arguments.size() > 2 ? arguments[2] : std::string(default_name_space);
    for (const name_space& candidate : configured_name_spaces(result->config)) {
        if (candidate.name == result->where.name) {
            result->where = candidate;
            result->configured = true;
        }
    }
    return exit_done;
}

// The header names a configured namespace. Any other goes into the URI: there a name that the
// daemon does not know is an error, in the header it would quietly become the default namespace.
daemon_answer ask_daemon(const tool_options& options, const change& wanted, const char* action) {
    const std::string& where = wanted.where.name;
    const std::string variables = "role=" + std::string(role_names[wanted.what]) +
                                  "&type=" + (wanted.kind == kind_user ? "user" : "group") +
                                  "&user=" + url_encoded(wanted.who);
    const std::string uri = std::string("/admin/security/") + action;
    if (wanted.configured) {
        return post_to_daemon(options, wanted.config, uri, where, variables);
    }
    if (where.empty() || url_encoded(where) != where) {
        return daemon_answer::none;  // no URI can name it, so no daemon is to be asked
    }
    return post_to_daemon(options, wanted.config, "/" + where + uri, "", variables);
}

// The daemon compares as many characters as "root" has, so "rootx" is built in as well.
bool is_built_in(const std::string& principal) {
    return starts_with_nocase(principal, administrator);
}

// Whether the access file was left as if the daemon had not made the change. Not when it cannot be
// read: then nothing is known.
bool is_unsaved(const change& made, bool give) {
    access_row row(made.where, made.what);
    if (row.unreadable) {
        return false;
    }
    return give ? !holds(made.where, made.what, made.who, made.kind)
                : !is_everybody(made.what, made.who) && take_off(&row, made.who, made.kind);
}

int apply_change(const tool_options& options, const tool_arguments& arguments, bool give) {
    change wanted;
    const int status = read_change(options, arguments, &wanted);
    if (status != exit_done) {
        return status;
    }
    const daemon_answer answer = ask_daemon(options, wanted, give ? "grant" : "deny");
    if (answer == daemon_answer::failure) {
        return exit_failed;
    }
    const char* where = wanted.where.name.c_str();
    const bool in_files = answer == daemon_answer::none;
    if (in_files && !wanted.configured) {
        return fail("namespace %s is not in %s", where, options.config_file.c_str());
    }
    if (is_built_in(wanted.who)) {
        (void)std::printf("%s: names that begin with \"root\" are built in; nothing changed\n",
                          wanted.who.c_str());
        return exit_done;
    }
    const bool root_known = !wanted.where.root.empty();
    if (in_files) {
        if (!root_known) {
            return fail("document_root is not set in %s", options.config_file.c_str());
        }
        const int written = give
                                ? grant_in_files(wanted.where, wanted.what, wanted.who, wanted.kind)
                                : remove_from(wanted.where, wanted.what, wanted.who, wanted.kind);
        if (written != exit_done) {
            return written;
        }
    } else if (root_known && is_unsaved(wanted, give)) {
        return fail("the daemon %s the role but could not write %s: it is %s at a restart",
                    give ? "granted" : "denied", access_path(wanted.where, wanted.what).c_str(),
                    give ? "lost" : "back");
    }
    (void)std::printf("%s: %s %s in namespace %s\n", wanted.who.c_str(),
                      give ? "granted" : "denied", role_names[wanted.what], where);
    return exit_done;
}

// --- Rights ---

// The system's groups of a user, as the daemon finds them.
std::vector<std::string> groups_of(const std::string& user) {
    std::vector<std::string> names;
    const passwd* known = getpwnam(user.c_str());
    std::array<gid_t, 1024> ids{};
    int count = static_cast<int>(ids.size());
    if (known == nullptr || getgrouplist(user.c_str(), known->pw_gid, ids.data(), &count) < 0) {
        return names;
    }
    for (int i = 0; i < count; ++i) {
        const group* entry = getgrgid(ids[static_cast<std::size_t>(i)]);
        if (entry != nullptr && entry->gr_name[0] != '\0') {
            names.emplace_back(entry->gr_name);
        }
    }
    return names;
}

// The group through which a user holds the role; empty when there is none.
std::string helping_group(const name_space& where, role wanted, const std::string& user) {
    const bool internal = user.size() >= 3 && user.substr(user.size() - 3) == ".qz";
    const bool applies = wanted != agent && qz_set_size(access_row(where, wanted).groups) > 0;
    if (internal && !applies) {
        return {};
    }
    for (const std::string& name : groups_of(user)) {
        if (holds(where, wanted, name, kind_group)) {
            return name;
        }
    }
    return {};
}

}  // namespace

int command_grant(const tool_options& options, const tool_arguments& arguments) {
    return apply_change(options, arguments, true);
}

int command_deny(const tool_options& options, const tool_arguments& arguments) {
    return apply_change(options, arguments, false);
}

int command_rights(const tool_options& options, const tool_arguments& arguments) {
    daemon_config config;
    if (!read_config(options, &config)) {
        return exit_failed;
    }
    const std::string who = full_name(options, arguments[0]);
    if (!check_principal(who)) {
        return exit_usage;
    }
    const principal_kind kind = options.group ? kind_group : kind_user;
    for (const name_space& where : configured_name_spaces(config)) {
        if (where.root.empty()) {
            return fail("document_root is not set in %s", options.config_file.c_str());
        }
        for (const role r : {pub, operator_role, admin, agent}) {
            if (access_row(where, r).unreadable) {
                return fail("%s: cannot be read", access_path(where, r).c_str());
            }
            const bool direct = holds(where, r, who, kind);
            const std::string helper =
                direct || options.group ? std::string() : helping_group(where, r, who);
            (void)std::printf("%s\t%s\t%s%s\n", where.name.c_str(), role_names[r],
                              direct || !helper.empty() ? "yes" : "no",
                              helper.empty() ? "" : (" (group " + helper + ")").c_str());
        }
    }
    return exit_done;
}
