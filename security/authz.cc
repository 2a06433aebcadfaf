#include "security/authz.h"

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "core/connection.h"
#include "core/log.h"
#include "core/state_writer.h"
#include "lib/qz_iterator.h"
#include "lib/qz_vector.h"
#include "lib/rbtree.h"
#include "security/authz_uris.h"

namespace {

// --- Namespaces ---

std::string_view as_view(const void* key) {
    return *static_cast<const std::string*>(key);
}

int compare_namesp(const void* probe, const void* stored) {
    return as_view(probe).compare(as_view(stored));
}

void destroy_namespace(namespace_record* record) {
    delete_role_table(record->roles);
    delete record;
}

void free_namespace(void* record) {
    namespace_release(qz_as<namespace_record>(record));
}

// --- The policy's outside: files are written and lines logged on behalf of a connection ---

class connection_rights : public rights_user {
  public:
    explicit connection_rights(conn* c, role_entry* table = nullptr)
        : c_(c),
          files_(c->request.ns->root, table != nullptr ? table : c->request.ns->roles, this) {}

    role_files* operator->() { return &files_; }

    int write(role_entry* row, const std::string& path, const std::string& lost) override;
    bool is_writing(const std::string& path) const override { return state_write_pending(path); }
    void tell(const std::string& line) override { elog(elog_info, c_, "%s", line.c_str()); }

  private:
    conn* c_;
    role_files files_;
};

// The row lives as long as the write: its namespace may be removed meanwhile.
int connection_rights::write(role_entry* row, const std::string& path, const std::string& lost) {
    namespace_record* ns = c_->request.ns.get();
    namespace_retain(ns);
    const std::shared_ptr<namespace_record> held(ns, namespace_release);
    const shttpd_ctx* ctx = c_->ctx;
    write_state({.path = path,
                 .content = [held, row] { return access_file_text(row); },
                 .dropped = lost,
                 .written =
                     [held, row, path, ctx](int error) {
                         // The connection may have gone.
                         finish_write(row, path, error, [ctx](const std::string& line) {
                             log_always(ctx, nullptr, "%s", line.c_str());
                         });
                     }});
    return write_pending;
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

std::vector<std::string> group_names(const conn* c) {
    std::vector<std::string> names;
    if (c->groups != nullptr) {
        for (void* group : qz_each(c->groups)) {
            names.emplace_back(qz_as<const char>(group));
        }
    }
    return names;
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
    ctx->has_namespaces = !ctx->namespaces.empty();
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
        .root = std::string(path), .name = std::string(name), .roles = new_role_table()};
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

int is_authorized(conn* c) {
    if (!c->request.ns) {
        return 0;
    }
    const int role = get_role_number(c->request.role);
    if (was_granted(c, role)) {
        return 1;
    }
    if (!connection_rights(c)->judge_user(role, c->user_name.c_str(), group_names(c)).held()) {
        return 0;
    }
    if (c->granted == nullptr) {
        c->granted = new_qz_vector(0, nullptr);
    }
    qz_vector_pushback(c->granted, granted_word(c, role));
    return 1;
}

int assert_role(conn* c, int role, const char* principal, int kind) {
    return connection_rights(c)->judge(role, principal, kind).held() ? 1 : 0;
}

void validate_access_information(conn* c, int role) {
    (void)connection_rights(c)->fresh(role);
}

void sync_role(conn* c, role_entry* table, int role) {
    (void)connection_rights(c, table)->save(role);
}

void grant_az(conn* c, std::string_view role, std::string_view principal, int kind) {
    const int number = get_role_number(role);
    const rights_change change = connection_rights(c)->grant(number, principal, kind);
    if (change.changed) {
        log_change(c, "granted %s in %s to %s %.*s%s%s", role_name(number),
                   c->request.ns->name.c_str(), principal_kind_name(kind),
                   static_cast<int>(principal.size()), principal.data(),
                   change.replaced.empty() ? "" : ", in place of ", change.replaced.c_str());
    }
}

int deny_az(conn* c, const az_params* params, const char** error) {
    const int role = get_role_number(params->role.data());
    const int kind = get_principal_kind(params->type.data());
    const std::string_view name = params->user.data();
    if (kind < 0) {
        *error = "Unknown Role";  // Kept: the text is that of another mistake.
        return -1;
    }
    if (is_bad_principal(name)) {
        return -1;
    }
    if (connection_rights(c)->deny(role, name, kind).changed) {
        log_change(c, "took %s in %s from %s %s", role_name(role), c->request.ns->name.c_str(),
                   principal_kind_name(kind), name.data());
    }
    return 0;
}
