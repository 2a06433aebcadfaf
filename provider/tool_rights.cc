// dovmad-user: roles, through the running daemon or in the access files themselves.
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <optional>

#include "core/string.h"
#include "provider/tool.h"
#include "provider/tool_accounts.h"
#include "provider/tool_daemon.h"
#include "provider/tool_files.h"
#include "provider/tool_namespaces.h"

namespace {

constexpr std::string_view administrator = "root";  // built in

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
    role_number what = role_pub;
    std::string who;
    principal_kind kind = kind_user;
    daemon_config config;
};

bool check_principal(const std::string& principal) {
    if (principal.empty() || principal.size() > longest_principal || is_bad_principal(principal)) {
        (void)fail("a name has 1 to %zu characters, no ':' and no line break", longest_principal);
        return false;
    }
    return true;
}

int read_change(const tool_options& options, const tool_arguments& arguments, change* result) {
    // Whole names only: the daemon would take "op", or a typing error, for a role as well.
    const auto* role = std::find_if(all_roles.begin(), all_roles.end(), [&](role_number candidate) {
        return arguments[1] == role_name(candidate);
    });
    if (role == all_roles.end()) {
        (void)fail("'%s' is no role: pub, operator, admin or agent", arguments[1].c_str());
        return exit_usage;
    }
    result->what = *role;
    result->kind = options.group ? kind_group : kind_user;
    result->who = full_name(options, arguments[0]);
    if (!check_principal(result->who)) {
        return exit_usage;
    }
    if (!read_config(options, &result->config, true)) {
        return exit_failed;
    }
    result->where.name = arguments.size() > 2 ? arguments[2] : std::string(default_namespace);
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
    const std::string variables = std::string("role=") + role_name(wanted.what) +
                                  "&type=" + principal_kind_name(wanted.kind) +
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

// An entry of an access file.
struct listed_name {
    role_number role;
    std::string text;
};

// The entry by which the principal holds the role: its own, else one that the daemon takes for it,
// which is a longer name, one in other letters or "*".
std::optional<listed_name> held_by(const change& made, name_space_rights* rights) {
    std::optional<listed_name> other;
    for (const role_number role : sufficient_roles(made.what)) {
        if (role == role_admin && starts_with_nocase(administrator, made.who)) {
            other = {role, std::string(administrator)};
        }
        for (const std::string& name : rights->listed(role, made.kind)) {
            if (name == made.who) {
                return listed_name{role, name};
            }
            if (!other && (name == "*" || starts_with_nocase(name, made.who))) {
                other = {role, name};
            }
        }
    }
    return other;
}

int tell_unsaved(const change& made, bool give) {
    return fail("the daemon %s the role but could not write %s: it is %s at a restart",
                give ? "granted" : "denied", access_path(made.where.root, made.what).c_str(),
                give ? "lost" : "back");
}

int tell_done(const change& made, bool give) {
    (void)std::printf("%s: %s %s in namespace %s\n", made.who.c_str(), give ? "granted" : "denied",
                      role_name(made.what), made.where.name.c_str());
    return exit_done;
}

// Looks whether the grant stands in the files, which the daemon's answer does not tell.
int tell_grant(const change& made) {
    name_space_rights rights(made.where, true);
    const char* who = made.who.c_str();
    if (made.what == role_pub && made.kind == kind_user) {
        (void)std::printf("%s: every user holds pub; nothing changed\n", who);
        return exit_done;
    }
    if (rights.row(made.what).unreadable) {
        return tell_done(made, true);  // nothing is known
    }
    const std::optional<listed_name> entry = held_by(made, &rights);
    if (!entry) {
        return tell_unsaved(made, true);
    }
    const char* role = role_name(entry->role);
    if (entry->text != made.who) {
        return fail(
            "%s is not listed: the daemon takes it for %s, which is listed as %s; it holds the "
            "role only as long as that does",
            who, entry->text.c_str(), role);
    }
    if (entry->role != made.what) {
        (void)std::printf("%s: holds %s as %s already; nothing changed\n", who,
                          role_name(made.what), role);
        return exit_done;
    }
    return tell_done(made, true);
}

int tell_denial(const change& made) {
    name_space_rights rights(made.where, true);
    if (!rights.row(made.what).unreadable) {
        const std::vector<std::string> names = rights.listed(made.what, made.kind);
        if (std::find(names.begin(), names.end(), made.who) != names.end()) {
            return tell_unsaved(made, false);
        }
        if (const std::optional<listed_name> entry = held_by(made, &rights); entry) {
            warn("%s still holds the role: %s is listed as %s", made.who.c_str(),
                 entry->text.c_str(), role_name(entry->role));
        }
    }
    return tell_done(made, false);
}

std::vector<std::string> access_paths(const name_space& where) {
    std::vector<std::string> paths;
    paths.reserve(all_roles.size());
    for (const role_number role : all_roles) {
        paths.push_back(access_path(where.root, role));
    }
    return paths;
}

// Without a daemon. The folder of the role is made where it is missing: there is nowhere else to
// keep who holds it.
int change_files(const change& wanted, bool give) {
    const borrowed_ids ids(access_paths(wanted.where));
    const folder_lock lock(wanted.where.root);
    if (give) {
        const std::string folder = wanted.where.root + "/" + role_name(wanted.what);
        if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
            return fail("%s: %s", folder.c_str(), strerror(errno));
        }
    }
    name_space_rights rights(wanted.where);
    role_files& files = rights.files();
    const rights_change made = give ? files.grant(wanted.what, wanted.who, wanted.kind)
                                    : files.deny(wanted.what, wanted.who, wanted.kind);
    const bool done = made.error == 0 && !rights.row(wanted.what).unreadable;
    return done ? exit_done : exit_failed;  // has been told
}

// --- Warnings: what is allowed, and seldom meant ---

// A name that nobody can log in by is probably mistyped. Certificates bear names that no file here
// knows, and so may users that the operating system alone knows.
void warn_of_nobody(const tool_options& options, const std::string& who) {
    account_store store;
    if (!open_store(options, &store, true)) {
        return;
    }
    const std::string suffix = "@" + store.password_domain + "." + store.qualifier;
    const bool full = who.size() > suffix.size() && who.ends_with(suffix);
    const std::string name = full ? who.substr(0, who.size() - suffix.size()) : who;
    if ((full || who.find('@') == std::string::npos) && !look_up_user(store, name)) {
        warn("nobody has the name %s yet", who.c_str());
    }
}

// The daemon finds a plain name in every entry that begins with it.
void warn_of_short_names(const tool_options& options, const std::string& who) {
    account_store store;
    if (!open_store(options, &store, true)) {
        return;
    }
    for (const std::string& name : user_names(store)) {
        const std::optional<provider::user_entry> user = look_up_user(store, name);
        if (user && user->os && name.size() < who.size() && starts_with_nocase(who, name)) {
            warn("user %s holds this role as well: the daemon finds the name in every longer one",
                 name.c_str());
        }
    }
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
    if (is_built_in_principal(wanted.who)) {
        (void)std::printf("%s: names that begin with \"root\" are built in; nothing changed\n",
                          wanted.who.c_str());
        return exit_done;
    }
    const bool root_known = !wanted.where.root.empty();
    if (in_files) {
        if (!root_known) {
            return fail("document_root is not set in %s", options.config_file.c_str());
        }
        const int written = change_files(wanted, give);
        if (written != exit_done) {
            return written;
        }
    }
    const int told = !root_known ? tell_done(wanted, give)
                     : give      ? tell_grant(wanted)
                                 : tell_denial(wanted);
    if (told != exit_done) {
        return told;
    }
    if (give && wanted.kind == kind_user) {
        warn_of_nobody(options, wanted.who);
        warn_of_short_names(options, wanted.who);
    }
    return exit_done;
}

// --- Rights ---

std::string json_list(const std::vector<std::string>& names) {
    std::string list;
    for (const std::string& name : names) {
        list.append(list.empty() ? "" : ", ").append(json_text(name));
    }
    return "[" + list + "]";
}

// One row of the listing for everybody.
void print_role(const name_space& where, name_space_rights* rights, role_number role) {
    const bool has_built_ins = role == role_admin;
    (void)std::printf(
        "      {\"role\": \"%s\", \"file\": %s, \"readable\": %s, \"everybody\": %s,\n"
        "       \"built_in\": %s,\n       \"users\": %s,\n       \"groups\": %s}",
        role_name(role), json_text(access_path(where.root, role)).c_str(),
        rights->row(role).unreadable ? "false" : "true", role == role_pub ? "true" : "false",
        has_built_ins ? "{\"users\": [\"root\"], \"groups\": [\"root\"]}"
                      : "{\"users\": [], \"groups\": []}",
        json_list(rights->listed(role, kind_user)).c_str(),
        json_list(rights->listed(role, kind_group)).c_str());
}

int print_everybody(const daemon_config& config) {
    (void)std::printf("{\"version\": 1,\n  \"namespaces\": [");
    const char* separator = "\n";
    for (const name_space& where : configured_name_spaces(config)) {
        name_space_rights rights(where, true);
        (void)std::printf("%s    {\"namespace\": %s, \"root\": %s, \"roles\": [\n", separator,
                          json_text(where.name).c_str(), json_text(where.root).c_str());
        for (const role_number role : all_roles) {
            print_role(where, &rights, role);
            (void)std::printf(role == all_roles.back() ? "]}" : ",\n");
        }
        separator = ",\n";
    }
    (void)std::printf("]}\n");
    return exit_done;
}

struct held_role {
    std::string name_space;
    role_number role = role_pub;
    standing why;
};

void print_held(const std::vector<held_role>& roles, const std::string& who, bool group,
                bool json) {
    if (!json) {
        for (const held_role& entry : roles) {
            const bool helped = entry.why.by == standing::source::group;
            (void)std::printf("%s\t%s\t%s%s\n", entry.name_space.c_str(), role_name(entry.role),
                              entry.why.held() ? "yes" : "no",
                              helped ? (" (group " + entry.why.group + ")").c_str() : "");
        }
        return;
    }
    (void)std::printf("{\"version\": 1, \"%s\": %s,\n  \"rights\": [", group ? "group" : "user",
                      json_text(who).c_str());
    const char* separator = "\n";
    for (const held_role& entry : roles) {
        (void)std::printf(
            "%s    {\"namespace\": %s, \"role\": \"%s\", \"held\": %s, \"because\": %s}", separator,
            json_text(entry.name_space).c_str(), role_name(entry.role),
            entry.why.held() ? "true" : "false", json_text(in_words(entry.why)).c_str());
        separator = ",\n";
    }
    (void)std::printf("]}\n");
}

}  // namespace

int command_grant(const tool_options& options, const tool_arguments& arguments) {
    return apply_change(options, arguments, true);
}

int command_deny(const tool_options& options, const tool_arguments& arguments) {
    return apply_change(options, arguments, false);
}

int command_rights(const tool_options& options, const tool_arguments& arguments) {
    if (arguments.empty() && !options.json) {
        (void)fail("rights: no name; all holders of all roles are printed with --json");
        return exit_usage;
    }
    const std::string who = arguments.empty() ? "" : full_name(options, arguments[0]);
    if (!arguments.empty() && !check_principal(who)) {
        return exit_usage;
    }
    daemon_config config;
    if (!read_config(options, &config, true)) {
        return exit_failed;
    }
    const std::vector<name_space> name_spaces = configured_name_spaces(config);
    if (name_spaces.back().root.empty()) {
        return fail("document_root is not set in %s", options.config_file.c_str());
    }
    if (arguments.empty()) {
        return print_everybody(config);
    }
    std::vector<std::string> groups;
    if (!options.group) {
        (void)system_groups(who.c_str(), &groups);  // unknown to the system: none
    }
    std::vector<held_role> held;
    for (const name_space& where : name_spaces) {
        name_space_rights rights(where, true);
        for (const role_number role : all_roles) {
            if (rights.row(role).unreadable) {
                return fail("%s: cannot be read", access_path(where.root, role).c_str());
            }
            held.push_back({where.name, role,
                            options.group ? rights.files().judge(role, who.c_str(), kind_group)
                                          : rights.files().judge_user(role, who.c_str(), groups)});
        }
    }
    print_held(held, who, options.group, options.json);
    return exit_done;
}
