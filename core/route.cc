#include "core/route.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "core/compat_unix.h"
#include "core/connection.h"
#include "core/context.h"
#include "core/log.h"
#include "core/mime_type.h"
#include "core/request.h"
#include "core/string.h"
#include "handlers/cgi.h"
#include "handlers/io_dir.h"
#include "handlers/io_emb.h"
#include "handlers/io_file.h"
#include "handlers/io_ssi.h"
#include "handlers/proxy.h"
#include "security/auth.h"
#include "security/authz.h"

namespace {

// Longer ones are refused before any file is looked up.
constexpr std::size_t path_bytes_max = 32767;

// The file that a request means.
struct request_target {
    std::string path;
    struct stat st {};
};

// --- Before routing: namespace, proxy test, cleaning, role ---

// The header names the namespace, else the URI's first segment does, which then leaves the URI.
void select_namespace(conn* c) {
    request_data& request = c->request;
    std::string_view name = request.headers.namespace_name;
    // Kept: a header that names an unknown namespace selects the default one, not the URI's.
    const bool from_uri = name.empty() && request.uri.starts_with('/');
    if (from_uri) {
        name = std::string_view(request.uri).substr(1);
        name = name.substr(0, name.find('/'));
    }
    namespace_record* found = name.empty() ? nullptr : find_namespace(c->ctx, name);
    if (found != nullptr && from_uri) {
        request.uri.erase(0, 1 + name.size());
    }
    if (found == nullptr) {
        found = find_namespace(c->ctx, "plx");
    }
    request.ns = found;  // a reference: the record outlives its removal while it is being served
}

void decode_query(conn* c) {
    request_data& request = c->request;
    if (request.has_query) {
        request.query.resize(url_decode(request.query.data(), request.query.size(),
                                        request.query.data(), request.query.size() + 1));
    }
}

// --- The routing steps for local requests, in order. True when the request is served. ---

bool serve_embedded(conn* c, request_target&) {
    const registered_uri* entry = is_registered_uri(c->ctx, c->request.uri.c_str());
    if (entry == nullptr) {
        return false;
    }
    setup_embedded_stream(c, entry->handler, entry->user_data);
    return true;
}

// An alias leads nowhere when the dots behind it would climb out of its target.
bool refuse_climb(conn* c, request_target& target) {
    if (!target.path.empty()) {
        return false;
    }
    send_server_error(c, 404, "Not Found");
    return true;
}

// Access files are neither served nor written nor removed, whatever they are reached by.
bool refuse_access_file(conn* c, request_target& target) {
    if (target.path.find(".dovmaaccess") == std::string::npos) {
        return false;
    }
    send_server_error(c, 403, "Forbidden");
    return true;
}

// Programs are not replaced over the wire.
bool refuse_program_change(conn* c, request_target& target) {
    const int method = c->request.method;
    if ((method != method_put && method != method_delete) ||
        !match_extension(target.path, c->ctx->cgi_extensions)) {
        return false;
    }
    send_server_error(c, 501, "Bad method ");
    return true;
}

// Kept: missing directories are made before the length is asked for, so a refused upload leaves
// them.
bool serve_put(conn* c, request_target& target) {
    if (c->request.method != method_put) {
        return false;
    }
    const int status = my_stat(target.path.c_str(), &target.st) == 0 ? 200 : 201;
    if (!c->request.headers.range.empty()) {
        send_server_error(c, 501, "PUT Range Not Implemented");
        return true;
    }
    const int made = put_dir(target.path.c_str());
    if (made == 0) {
        send_server_error(c, 200, "OK");
    } else if (made < 0) {
        send_server_error(c, 500, "PUT Directory Error", errno);
    } else if (c->request.headers.content_length == 0) {
        send_server_error(c, 411, "Length Required");
    } else if (!receive_file(c, target.path.c_str(), status)) {
        send_server_error(c, 500, "PUT Error", errno);
    }
    return true;
}

bool serve_delete(conn* c, request_target& target) {
    if (c->request.method != method_delete) {
        return false;
    }
    if (my_remove(target.path.c_str()) == 0) {
        send_server_error(c, 200, "OK");
    } else {
        send_server_error(c, 500, "DELETE Error", errno);
    }
    return true;
}

// The status of the path's first `length` bytes.
bool stat_prefix(std::string* path, std::size_t length, struct stat* st) {
    const char cut = std::exchange((*path)[length], '\0');
    const bool found = my_stat(path->c_str(), st) == 0;
    (*path)[length] = cut;
    return found;
}

// A missing path may be a file with further components behind it. Whatever exists has parents that
// exist, and nothing exists below a file: so the file, if there is one, is the longest prefix that
// exists, and halving finds it in a dozen steps whatever a client has put behind it.
bool split_path_info(conn* c, request_target& target) {
    // Kept: a file directly below the root needs a name of two letters to have a path behind it.
    const std::size_t lowest = c->request.ns->root.size() + 3;
    std::vector<std::size_t> ends;  // of the prefixes; the kernel takes no longer ones
    for (std::size_t at = target.path.find('/', std::max<std::size_t>(lowest, 1));
         at < PATH_MAX && at < target.path.size(); at = target.path.find('/', at + 1)) {
        ends.push_back(at);
    }
    struct stat st {};
    std::size_t existing = 0;  // so many of the prefixes
    for (std::size_t missing = ends.size() + 1; missing - existing > 1;) {
        const std::size_t middle = existing + (missing - existing) / 2;
        const bool found = stat_prefix(&target.path, ends[middle - 1], &st);
        (found ? existing : missing) = middle;
        target.st = found ? st : target.st;
    }
    if (existing == 0 || S_ISDIR(target.st.st_mode)) {
        return false;
    }
    const std::size_t end = ends[existing - 1];
    c->request.path_info = target.path.substr(end + 1);
    target.path.resize(end);
    return true;
}

// From here on the steps may rely on the status: whatever is missing has been answered.
bool look_up(conn* c, request_target& target) {
    if (my_stat(target.path.c_str(), &target.st) == 0 || split_path_info(c, target)) {
        return false;
    }
    send_server_error(c, 404, "Not Found");
    return true;
}

// Replaces the directory by its index file, which the steps behind this one then serve.
bool find_index_file(conn* c, request_target& target) {
    std::string_view names = c->ctx->index_files;
    for (std::string_view name = next_list_entry(names); !name.empty();
         name = next_list_entry(names)) {
        std::string candidate = target.path;
        candidate.append("/").append(name);
        struct stat st {};
        if (my_stat(candidate.c_str(), &st) == 0) {
            target.st = st;
            c->request.mime = get_mime_type(
                c->ctx, candidate.c_str() + candidate.size() - name.size(), name.size());
            target.path = std::move(candidate);
            return true;
        }
    }
    return false;
}

bool serve_directory(conn* c, request_target& target) {
    if (!S_ISDIR(target.st.st_mode)) {
        return false;
    }
    if (!target.path.ends_with('/')) {
        // Kept: the redirect's header travels inside the reason.
        constexpr std::size_t around_reason = std::string_view("HTTP/1.1 301 \r\n\r\n").size();
        const std::string reason = "Moved Permanently\r\nLocation: " + c->request.uri + "/";
        // Half an address would lead elsewhere.
        const bool fits = reason.size() + around_reason <= c->local.size;
        send_server_error(c, fits ? 301 : 400, fits ? reason.c_str() : "URI is too long");
        return true;
    }
    if (find_index_file(c, target)) {
        return false;
    }
    if (c->ctx->list_directories == 0) {
        send_server_error(c, 403, "Directory Listing Denied");
        return true;
    }
    get_dir(c, target.path);
    return true;
}

bool serve_cgi(conn* c, request_target& target) {
    if (!match_extension(target.path, c->ctx->cgi_extensions)) {
        return false;
    }
    if (c->request.method != method_get && c->request.method != method_post) {
        send_server_error(c, 501, "Bad method ");
    } else {
        start_cgi(c, target.path);
    }
    return true;
}

bool serve_ssi(conn* c, request_target& target) {
    if (!match_extension(target.path, c->ctx->ssi_extensions)) {
        return false;
    }
    const int fd = open_regular_file(target.path.c_str(), &target.st);
    if (fd < 0) {
        send_server_error(c, 500, "SSI open error", errno);
        return true;
    }
    // The class first: whatever fails from here on, stopping the stream closes the file.
    install_class(&c->local, &io_file, fd, 0);
    do_ssi(c);
    return true;
}

bool serve_file(conn* c, request_target& target) {
    const std::time_t since = c->request.headers.if_modified_since;
    if (since != 0 && target.st.st_mtime <= since) {
        send_server_error(c, 304, "Not Modified");
        return true;
    }
    const int fd = open_shared_file(target.path.c_str(), &target.st);
    if (fd < 0) {
        send_server_error(c, 500, "Internal Error", errno);
        return true;
    }
    install_class(&c->local, &io_file, fd, 0);
    get_file(c, &target.st);
    return true;
}

using routing_step = bool (*)(conn*, request_target&);

// The order matters: endpoints win over files of the same name, and nothing is written before the
// access files and programs are out of reach.
constexpr std::array<routing_step, 11> routing_steps = {
    serve_embedded,
    refuse_climb,
    refuse_access_file,
    refuse_program_change,
    serve_put,
    serve_delete,
    look_up,
    serve_directory,
    serve_cgi,
    serve_ssi,
    serve_file,
};

// True when the caller may go on; else the refusal is in place.
bool may_proceed(conn* c) {
    if (c->ctx->noauth != 0) {
        return true;
    }
    // A caller whom the handshake has authenticated is authorized like any other.
    switch (check_authorization(c)) {
        case 1:
            return true;
        case 0:
            send_authorization_request(c);
            return false;
        default:
            send_server_error(c, 403, "Forbidden");
            return false;
    }
}

// --- Error replies ---

const error_handler* find_error_handler(conn* c, int status) {
    for (const error_handler& handler : c->ctx->error_handlers) {
        if (handler.code == status) {
            return &handler;
        }
    }
    return nullptr;
}

// Takes the local stream away from whatever holds it and logs the refusal. False when part of a
// reply has gone out.
bool clear_reply(conn* c, int status, const char* reason, std::string_view why) {
    if (c->reply.sent > 0) {
        const std::string told(why);  // an empty view may have no text at all
        log_trouble(c->ctx, c, "reply broken off: %s%s%s", reason, told.empty() ? "" : ": ",
                    told.c_str());
    } else {
        log_refusal(c, status, reason, why);
    }
    // First the handler is told, while the request is still whole; then its buffer is taken.
    stop_stream(&c->local);
    c->close_after = true;
    if (c->reply.sent > 0) {
        return false;
    }
    c->local.clear_buffer();
    c->local.total = 0;
    c->local.content_length = 0;
    return borrow_buffer(&c->local);
}

void finish_error_reply(conn* c, int status) {
    c->reply.status = status;
    c->local.end_head();
}

}  // namespace

void route_request(conn* c) {
    request_data& request = c->request;
    // Anything else would be glued to the root's name and could lead beside it.
    if (!request.uri.starts_with('/') && !request.uri.starts_with("http://")) {
        send_server_error(c, 400, "Bad URI");
        return;
    }
    select_namespace(c);
    const bool proxied = is_proxy(c);
    if (!proxied) {
        split_and_decode_uri(c);
    }
    clean_uri(&request.uri);
    get_role_from_uri(c, proxied);
    decode_query(c);
    if (request.uri.size() + request.ns->root.size() > path_bytes_max) {
        send_server_error(c, 400, "URI is too long");
        return;
    }
    request_target target{.path = map_uri_to_path(c)};
    if (!may_proceed(c)) {
        return;
    }
    if (proxied && !is_loopback(c, &target.path)) {
        do_proxy(c);
        return;
    }
    serve_locally(c, std::move(target.path));
}

void serve_locally(conn* c, std::string path) {
    request_target target{.path = std::move(path)};
    for (const routing_step step : routing_steps) {
        if (step(c, target)) {
            return;
        }
    }
}

void send_server_error(conn* c, int status, const char* reason, int error) {
    send_server_error(c, status, reason, std::string_view(error != 0 ? std::strerror(error) : ""));
}

void send_server_error(conn* c, int status, const char* reason, std::string_view why) {
    const error_handler* handler = find_error_handler(c, status);
    if (!clear_reply(c, status, reason, why)) {
        return;
    }
    if (handler != nullptr) {
        setup_embedded_stream(c, handler->handler, handler->user_data);
        return;
    }
    c->local.put("HTTP/1.1 %d %s\r\n\r\n%d %s", status, reason, status, reason);
    finish_error_reply(c, status);
}

void send_server_error_with_header(conn* c, int status, const char* reason, const char* text) {
    const error_handler* handler = find_error_handler(c, status);
    if (!clear_reply(c, status, reason, {})) {
        return;
    }
    if (handler != nullptr) {
        setup_embedded_stream(c, handler->handler, nullptr);
        return;
    }
    c->local.put("HTTP/1.1 %d %s\r\n\r\n %s", status, reason, text);
    finish_error_reply(c, status);
}
