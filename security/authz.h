// Authorization: who may act in which role, per namespace. The policy itself is in rights.h.
//
// A namespace is a document root; below it, ROLE/.dovmaaccess lists who holds the role. The role
// that a request needs is the first segment of its URI. Namespaces live in a map of the context and
// change at run time; their records are counted, see core/context.h. Runs on the main loop's
// thread.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "core/context.h"
#include "core/fwd.h"
#include "security/rights.h"

// Builds the namespace map from the "namespaces" option and the document root, and registers the
// administrative endpoints. Once, after the options were read.
void init_auth_info(shttpd_ctx* ctx);

// Destroys the namespace map; records that a connection still holds outlive it. Idempotent.
void free_auth_info(shttpd_ctx* ctx);

// Inserts a namespace; a name that the map already holds keeps its old root.
void add_namespace_to_map(shttpd_ctx* ctx, std::string_view name, std::string_view path);

// Takes a namespace out of the map. Requests that run in it keep the record until they end.
void remove_namespace_from_map(shttpd_ctx* ctx, std::string_view name);

// The namespace with exactly this name, or null. The caller does not own a reference.
namespace_record* find_namespace(shttpd_ctx* ctx, std::string_view name);

// Whether the user of the connection's request may act in the request's role: 1 or 0. A role once
// granted in a namespace is remembered with the connection and not tested again on it.
int is_authorized(conn* c);

// Non-zero when the principal holds `role`, or a role above it, in the request's namespace.
// Re-reads the access files concerned when they have changed. `kind` is a principal_kind. Unlike
// is_authorized it remembers nothing. Requires, as all below: the request has a namespace.
int assert_role(conn* c, int role, const char* principal, int kind);

// Brings a role's row of the request's namespace up to date with its file, built-in principals
// included: every user for pub, the administrator's user and group for admin.
void validate_access_information(conn* c, int role);

// Has a role's file replaced by the content of its row (core/state_writer.h). What can't be written
// now is logged and written by a later grant, deny or check; a file that could not be read is never
// replaced, so that nothing in it is lost.
void sync_role(conn* c, role_entry* table, int role);

// Gives a user or group a role in the request's namespace, unless it holds the role already.
// Requires: a principal_kind, and a name that is_bad_principal accepts.
void grant_az(conn* c, std::string_view role, std::string_view principal, int kind);

// The parameters of grant and deny. Longer values are cut to fit.
struct az_params {
    std::array<char, 128> user{};
    std::array<char, 16> role{};
    std::array<char, 8> type{};
};

// Reads the parameters from the query text, for POST from the body. 0, or -1 when there is nothing
// more to do in this call: the body is still arriving, or an error has been answered.
int get_az_params(shttpd_call_arg* arg, az_params* params);

// Takes a principal off a role's list and rewrites its file. 0, also when it was not listed; -1
// with *error set to a text for the caller, or left alone when the parameters are just not
// acceptable.
int deny_az(conn* c, const az_params* params, const char** error);
