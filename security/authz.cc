#include "security/authz.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>

#include "core/compat_unix.h"
#include "core/connection.h"
#include "core/log.h"
#include "core/string.h"
#include "lib/plat.h"
#include "lib/qz_iterator.h"
#include "lib/qz_vector.h"
#include "lib/rbtree.h"
#include "lib/replace_file.h"
#include "security/authz_uris.h"

namespace {

constexpr std::size_t path_bytes = 2048;
constexpr std::array<const char*, 4> role_directories = {"pub", "operator", "admin", "agent"};

// In the order in which a shortened name is tried: "a" is admin, "ag" agent.
constexpr std::array<role_number, 4> role_preference = {role_admin, role_operator, role_pub,
                                                        role_agent};

// --- Namespaces ---

std::string_view as_view(const void* key) {
    return *static_cast<const std::string*>(key);
}

int compare_namesp(const void* probe, const void* stored) {
    return as_view(probe).compare(as_view(stored));
}

// A table whose rows are loaded when they are first asked for. The row behind the last role keeps
// its null name, which ends walks over the table.
role_entry* init_new_authz() {
    auto* table = new role_entry[role_rows];
    for (std::size_t i = 0; i < role_directories.size(); i++) {
        table[i].directory = role_directories[i];
    }
    return table;
}

void destroy_namespace(namespace_record* record) {
    for (role_entry* row = record->roles; row->directory != nullptr; row++) {
        clear_row(row);
    }
    delete[] record->roles;
    delete record;
}

void free_namespace(void* record) {
    namespace_release(qz_as<namespace_record>(record));
}

// --- Rows ---

// Empty when there is no namespace or the path is too long, which counts as a missing file.
std::string access_path(const conn* c, const role_entry* row) {
    std::string path = c->request.ns->root;
    path.append("/").append(row->directory).append("/.dovmaaccess");
    return path.size() < path_bytes ? path : std::string();
}

// Kept: the search follows the set's tree with a comparison that is no order, so a "*" among other
// names is found by some probes only; which ones depends on the order of the lines in the file.
bool listed(conn* c, int role, const char* principal, int kind) {
    validate_access_information(c, role);
    return qz_set_exists(principals(&c->request.ns->roles[role], kind), principal) != 0;
}

// The answers that a full or failing disk gives; a file that may not be written gives others.
bool is_disk_trouble(int error) {
    return error == ENOSPC || error == EDQUOT || error == EIO || error == EFBIG;
}

// --- Granted roles of a connection ---

// The role in the low 16 bits, the namespace above: a role granted in one is not held in another.
void* granted_word(const conn* c, int role) {
    const std::uintptr_t serial = c->request.ns->serial;
    return qz_word_of(serial << 16 | static_cast<std::uintptr_t>(role));
}

// Kept: a change of the access files does not end what a connection was granted before.
bool was_granted(const conn* c, int role) {
    if (c->granted == nullptr) {
        return false;
    }
    const auto words = qz_each(c->granted);
    return std::find(words.begin(), words.end(), granted_word(c, role)) != words.end();
}

bool holds_through_group(conn* c, int role) {
    // Names of the internal domain type never pass through groups of agent, nor where the role
    // itself names no group. The row is fresh: the user's own membership was just looked up in it.
    const bool groups_apply =
        role != role_agent && qz_set_size(c->request.ns->roles[role].groups) > 0;
    if (c->groups == nullptr || (!groups_apply && is_qz_domain(c->user_name.c_str()) != 0)) {
        return false;
    }
    const auto groups = qz_each(c->groups);
    return std::any_of(groups.begin(), groups.end(), [&](void* group) {
        return assert_role(c, role, qz_as<const char>(group), kind_group) != 0;
    });
}

}  // namespace

void namespace_retain(namespace_record* record) {
    if (record != nullptr) {
        record->references++;
    }
}

void namespace_release(namespace_record* record) {
    if (record != nullptr && --record->references == 0) {
        destroy_namespace(record);
    }
}

void init_auth_info(shttpd_ctx* ctx) {
    ctx->namespace_map = new_qz_map(compare_namesp, nullptr, free_namespace);
    std::string_view rest = ctx->namespaces;
    for (namespace_entry entry; next_namespace_entry(&rest, &entry);) {
        if (entry.has_path) {
            add_namespace_to_map(ctx, entry.name, entry.path);
        } else {
            elog(elog_info, nullptr, "Namespace entry without a path ignored: %.*s",
                 static_cast<int>(entry.text.size()), entry.text.data());
        }
    }
    add_namespace_to_map(ctx, default_namespace, ctx->document_root);
    register_auth_uris(ctx);
}

void free_auth_info(shttpd_ctx* ctx) {
    qz_map_destroy(ctx->namespace_map);
    ctx->namespace_map = nullptr;
}

void add_namespace_to_map(shttpd_ctx* ctx, std::string_view name, std::string_view path) {
    // Never used twice: what was granted in a removed namespace is not held in its successor.
    static std::uint32_t last_serial = 0;
    auto* record = new namespace_record{
        .root = std::string(path), .name = std::string(name), .roles = init_new_authz()};
    record->serial = ++last_serial;
    if (qz_map_insert(ctx->namespace_map, &record->name, record) != 0) {
        namespace_release(record);  // the first of a name stays, even as the default namespace
    }
}

void remove_namespace_from_map(shttpd_ctx* ctx, std::string_view name) {
    const std::string key(name);
    (void)qz_map_delete(ctx->namespace_map, &key);  // a name that the map lacks is gone already
}

namespace_record* find_namespace(shttpd_ctx* ctx, std::string_view name) {
    const std::string key(name);
    return ctx->namespace_map != nullptr
               ? qz_as<namespace_record>(qz_map_find(ctx->namespace_map, &key))
               : nullptr;
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

int get_role_number(std::string_view name) {
    for (const role_number role : role_preference) {
        const std::string_view full = role_directories[static_cast<std::size_t>(role)];
        if (full.substr(0, name.size()) == name) {
            return role;
        }
    }
    return role_admin;
}

int is_authorized(conn* c) {
    if (c->request.ns == nullptr) {
        return 0;
    }
    const int role = get_role_number(c->request.role);
    if (was_granted(c, role)) {
        return 1;
    }
    if (assert_role(c, role, c->user_name.c_str(), kind_user) == 0 &&
        !holds_through_group(c, role)) {
        return 0;
    }
    if (c->granted == nullptr) {
        c->granted = new_qz_vector(0, nullptr);
    }
    qz_vector_pushback(c->granted, granted_word(c, role));
    return 1;
}

int assert_role(conn* c, int role, const char* principal, int kind) {
    const auto held = [&](std::initializer_list<int> roles) {
        return std::any_of(roles.begin(), roles.end(),
                           [&](int r) { return listed(c, r, principal, kind); });
    };
    switch (role) {
        case role_pub:  // every user holds pub, also when names in its file hide the "*"
            return kind == kind_user || held({role_pub, role_operator, role_admin}) ? 1 : 0;
        case role_operator:
            return held({role_operator, role_admin}) ? 1 : 0;
        case role_admin:
            return held({role_admin}) ? 1 : 0;
        case role_agent:
            return held({role_agent, role_admin}) ? 1 : 0;
        default:
            return 0;
    }
}

// Built-in members are added to rows that were rebuilt only: nothing ever takes them out again.
void validate_access_information(conn* c, int role) {
    role_entry* row = &c->request.ns->roles[role];
    if (!refresh_row(access_path(c, row), row)) {
        return;
    }
    if (role == role_admin) {
        const qz_owned<char> user(get_admin_user("root"));
        const qz_owned<char> group(get_admin_group("root"));
        add_principal(row->users, user.get());
        add_principal(row->groups, group.get());
    } else if (role == role_pub) {
        add_principal(row->users, "*");
    }
}

void sync_role(conn* c, role_entry* table, int role) {
    role_entry* row = &table[role];
    const std::string path = access_path(c, row);
    if (path.empty()) {
        return;
    }
    if (row->unreadable) {
        if (!row->reported) {
            elog(elog_info, c, "%s could not be read and will not be replaced", path.c_str());
            row->reported = true;
        }
        return;
    }
    // Kept: a file that may not be written is left alone and a grant still answers Success; it then
    // holds until the file is read again.
    const int error = replace_file(path.c_str(), access_file_text(row));
    if (is_disk_trouble(error)) {
        elog(elog_info, c, "Cannot replace %s: %s", path.c_str(), std::strerror(error));
    }
}

int is_qz_domain(const char* name) {
    const std::string_view text(name);
    return text.size() >= 3 && text.substr(text.size() - 3) == ".qz" ? 1 : 0;
}
