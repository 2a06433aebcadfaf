#include "security/rights.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "core/compat_unix.h"
#include "core/string.h"
#include "lib/plat.h"
#include "lib/qz_iterator.h"
#include "lib/rbtree.h"

namespace {

constexpr std::size_t path_bytes = 2048;
constexpr int most_groups = 1024;
constexpr std::string_view administrator = "root";
constexpr std::array<const char*, 4> role_names = {"pub", "operator", "admin", "agent"};

// In the order in which a shortened name is tried: "a" is admin, "ag" agent.
constexpr std::array<role_number, 4> role_preference = {role_admin, role_operator, role_pub,
                                                        role_agent};

// That every user holds pub is built in.
bool is_everybody(int role, std::string_view principal) {
    return role == role_pub && principal.starts_with('*');
}

// Built-in members are added to rows that were rebuilt only: nothing ever takes them out again.
void add_built_ins(int role, role_entry* row) {
    if (role == role_admin) {
        const qz_owned<char> user(get_admin_user("root"));
        const qz_owned<char> group(get_admin_group("root"));
        add_principal(row->users, user.get());
        add_principal(row->groups, group.get());
    } else if (role == role_pub) {
        add_principal(row->users, "*");
    }
}

// Each version of a file is told about once, however often it is read.
void tell_strays(role_entry* row, const std::string& path, rights_user* user) {
    if (row->stray_numbers.count() > 0 && row->strays_told != row->loaded_ns) {
        row->strays_told = row->loaded_ns;
        user->tell(path + ": no entry in " + row->stray_numbers.text());
    }
}

void tell_unreadable(role_entry* row, const std::string& path, rights_user* user) {
    if (row->unreadable && !std::exchange(row->reported, true)) {
        user->tell(path + " could not be read and will not be replaced");
    }
}

}  // namespace

const char* role_name(int role) {
    return role_names[static_cast<std::size_t>(role)];
}

int get_role_number(std::string_view name) {
    for (const role_number role : role_preference) {
        if (std::string_view(role_name(role)).substr(0, name.size()) == name) {
            return role;
        }
    }
    return role_admin;
}

int get_principal_kind(std::string_view type) {
    if (starts_with_nocase(type, "group")) {
        return kind_group;
    }
    return starts_with_nocase(type, "user") ? kind_user : -1;
}

const char* principal_kind_name(int kind) {
    return kind == kind_user ? "user" : "group";
}

bool is_bad_principal(std::string_view name) {
    return name.find_first_of("\r\n:") != std::string_view::npos;
}

bool is_built_in_principal(std::string_view name) {
    return starts_with_nocase(name, administrator);
}

int is_qz_domain(const char* name) {
    const std::string_view text(name);
    return text.size() >= 3 && text.substr(text.size() - 3) == ".qz" ? 1 : 0;
}

std::string access_path(std::string_view root, int role) {
    std::string path(root);
    path.append("/").append(role_name(role)).append("/.dovmaaccess");
    return path.size() < path_bytes ? path : std::string();
}

bool system_groups(const char* user, std::vector<std::string>* names) {
    const passwd* entry = getpwnam(user);
    std::array<gid_t, most_groups> ids{};
    int count = most_groups;
    if (entry == nullptr || getgrouplist(user, entry->pw_gid, ids.data(), &count) < 0) {
        return false;
    }
    for (const gid_t id : std::span(ids).first(static_cast<std::size_t>(count))) {
        const group* found = getgrgid(id);
        if (found != nullptr && found->gr_name != nullptr && found->gr_name[0] != '\0') {
            names->emplace_back(found->gr_name);
        }
    }
    return true;
}

bool next_namespace_entry(std::string_view* rest, namespace_entry* entry) {
    const std::string_view text = next_list_entry(*rest);
    const std::size_t equals = text.find('=');
    *entry = {.text = text, .name = text.substr(0, equals)};
    if (equals != std::string_view::npos) {
        entry->path = text.substr(equals + 1);
        entry->has_path = true;
    }
    return !text.empty();
}

std::span<const role_number> sufficient_roles(int role) {
    static constexpr std::array<role_number, 3> upwards = {role_pub, role_operator, role_admin};
    static constexpr std::array<role_number, 2> agents = {role_agent, role_admin};
    switch (role) {
        case role_pub:
            return upwards;
        case role_operator:
            return std::span(upwards).last(2);
        case role_admin:
            return std::span(upwards).last(1);
        case role_agent:
            return agents;
        default:
            return {};
    }
}

std::span<const role_number> included_roles(int role) {
    static constexpr std::array<role_number, 3> below_admin = {role_agent, role_operator, role_pub};
    switch (role) {
        case role_admin:
            return below_admin;
        case role_operator:
            return std::span(below_admin).last(1);
        default:
            return {};
    }
}

role_entry* new_role_table() {
    auto* table = new role_entry[role_rows];
    for (const role_number role : all_roles) {
        table[role].directory = role_name(role);
    }
    return table;
}

void delete_role_table(role_entry* table) {
    for (role_entry* row = table; row->directory != nullptr; row++) {
        clear_row(row);
    }
    delete[] table;
}

std::string in_words(const standing& found) {
    switch (found.by) {
        case standing::source::everybody:
            return "every user holds pub";
        case standing::source::list:
            return std::string("listed as ") + role_name(found.listed_as);
        case standing::source::group:
            return "group " + found.group + " is listed as " + role_name(found.listed_as);
        default:
            return "not listed";
    }
}

role_entry* role_files::fresh(int role) {
    role_entry* row = &table_[role];
    const std::string path = access_path(root_, role);
    if (row->owed && !user_->is_writing(path)) {
        (void)save(role);
    }
    if (!row->owed && !user_->is_writing(path) && refresh_row(path, row)) {
        add_built_ins(role, row);
        tell_strays(row, path, user_);
        tell_unreadable(row, path, user_);
    }
    return row;
}

// Kept: the search follows the set's tree with a comparison that is no order, so a "*" among other
// names is found by some probes only; which ones depends on the order of the lines in the file.
bool role_files::lists(int role, const char* principal, int kind) {
    return qz_set_exists(principals(fresh(role), kind), principal) != 0;
}

standing role_files::judge(int role, const char* principal, int kind) {
    // Also when names in pub's file hide the "*".
    if (role == role_pub && kind == kind_user) {
        return {.by = standing::source::everybody, .listed_as = role_pub, .group = {}};
    }
    for (const role_number listed_as : sufficient_roles(role)) {
        if (lists(listed_as, principal, kind)) {
            return {.by = standing::source::list, .listed_as = listed_as, .group = {}};
        }
    }
    return {};
}

standing role_files::judge_user(int role, const char* user, std::span<const std::string> groups) {
    standing found = judge(role, user, kind_user);
    if (found.held()) {
        return found;
    }
    // Names of the internal domain type never pass through groups of agent, nor where the role
    // itself names no group. The row is fresh: the user was just looked up in it.
    const bool groups_apply = role != role_agent && qz_set_size(table_[role].groups) > 0;
    if (!groups_apply && is_qz_domain(user) != 0) {
        return {};
    }
    for (const std::string& name : groups) {
        found = judge(role, name.c_str(), kind_group);
        if (found.held()) {
            return {.by = standing::source::group, .listed_as = found.listed_as, .group = name};
        }
    }
    return {};
}

rights_change role_files::take_off(int role, std::string_view principal, int kind) {
    rights_change change{.role = role};
    role_entry* row = fresh(role);
    if (is_everybody(role, principal)) {
        return change;
    }
    // By the exact text: a search would take the first name that begins with this one.
    for (qz_cursor at(qz_set_open(principals(row, kind))); !at.at_end(); at.next()) {
        if (principal == at.data<const char>()) {
            at.erase();
            change.changed = true;
            break;
        }
    }
    if (change.changed || row->unreadable) {
        change.error = save(role);
    }
    return change;
}

void role_files::settle_owed() {
    for (const role_number role : all_roles) {
        if (table_[role].owed) {
            (void)fresh(role);
        }
    }
}

rights_change role_files::grant(int role, std::string_view principal, int kind) {
    rights_change change{.role = role};
    settle_owed();
    const std::string name(principal);
    if (is_built_in_principal(principal) || judge(role, name.c_str(), kind).held()) {
        return change;
    }
    for (const role_number lower : included_roles(role)) {
        const rights_change taken = take_off(lower, principal, kind);
        if (taken.error > 0) {
            change.error = taken.error;
            change.role = lower;
        }
        if (taken.changed) {
            change.replaced.append(change.replaced.empty() ? "" : ", ").append(role_name(lower));
        }
    }
    change.changed = add_principal(principals(&table_[role], kind), principal);
    if (const int error = save(role); error > 0) {
        change.error = error;
        change.role = role;
    }
    return change;
}

rights_change role_files::deny(int role, std::string_view principal, int kind) {
    settle_owed();
    if (is_built_in_principal(principal)) {
        return {.role = role};
    }
    return take_off(role, principal, kind);
}

int role_files::save(int role) {
    role_entry* row = &table_[role];
    const std::string path = access_path(root_, role);
    if (path.empty()) {
        return ENAMETOOLONG;
    }
    if (row->unreadable) {
        tell_unreadable(row, path, user_);
        return EUCLEAN;
    }
    const int error = user_->write(row, path, row->strays);
    if (error <= 0) {
        row->strays.clear();
    }
    if (error != rights_user::write_pending) {
        finish_write(row, path, error, [this](const std::string& line) { user_->tell(line); });
    }
    return error;
}

void finish_write(role_entry* row, const std::string& path, int error,
                  const std::function<void(const std::string&)>& tell) {
    row->owed = error != 0;
    if (error == 0) {
        row->current = false;
        if (row->told_error != 0) {
            tell(path + " is written again");
        }
    } else if (error != row->told_error) {
        tell("Cannot replace " + path + ": " + std::strerror(error));
    }
    row->told_error = error;
}
