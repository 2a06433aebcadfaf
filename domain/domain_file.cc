#include "domain/domain_file.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <array>

#include "core/connection.h"
#include "core/context.h"
#include "core/log.h"
#include "domain/registry.h"
#include "lib/file.h"
#include "lib/plat.h"
#include "lib/replace_file.h"

namespace {

constexpr std::size_t piece_bytes = 1023;  // of a line; what follows is taken as another line
constexpr std::string_view default_namespace_name = "plx";
constexpr std::string_view white_space = " \t\n\v\f\r";

// What the last load and the last write of the domain file have told.
struct file_state {
    bool unreadable = false;  // it exists and its hosts are unknown: never rewrite it
    bool unreadable_told = false;
    bool write_failed = false;
};

file_state& state() {
    static file_state only;
    return only;
}

// --- Reading ---

// One line of the file, as views into it.
struct host_line {
    std::string_view hostname{};
    std::string_view revhostname{};
    std::string_view hostid{};
    std::string_view osname{};
    std::string_view osrelease{};
    std::string_view cputype{};
    std::string_view namespace_name{};
};

// Fields are cut by hand: scanning functions of the C library skip an empty one, and the reverse
// name may be empty.

// Cuts the field up to the next ":" off the front of `rest`; false when there is no ":".
bool take_field(std::string_view* rest, std::string_view* field) {
    const std::size_t colon = rest->find(':');
    if (colon == std::string_view::npos) {
        return false;
    }
    *field = rest->substr(0, colon);
    rest->remove_prefix(colon + 1);
    return true;
}

// A name in brackets may contain ":". A "[" that is never closed is part of an ordinary name.
bool take_hostname(std::string_view* rest, std::string_view* name) {
    const std::size_t closing = rest->front() == '[' ? rest->find(']') : std::string_view::npos;
    if (closing == std::string_view::npos) {
        return take_field(rest, name);
    }
    *name = rest->substr(1, closing - 1);
    rest->remove_prefix(closing + 1);
    std::string_view nothing;
    return take_field(rest, &nothing) && nothing.empty();
}

// Splits a line without its line break; false when it names no host.
bool parse_line(std::string_view line, host_line* host) {
    if (line.empty() || !take_hostname(&line, &host->hostname)) {
        return false;
    }
    for (std::string_view* field :
         {&host->revhostname, &host->hostid, &host->osname, &host->osrelease}) {
        if (!take_field(&line, field)) {
            return false;
        }
    }
    // Kept: a namespace may contain ":" and ends with the line, so a carriage return belongs to it.
    const std::size_t cpu_end = std::min(line.find(':'), line.find_first_of(white_space));
    host->cputype = line.substr(0, cpu_end);
    const std::size_t colon = line.find(':');
    host->namespace_name =
        colon == std::string_view::npos ? std::string_view{} : line.substr(colon + 1);
    if (host->namespace_name.empty()) {
        host->namespace_name = default_namespace_name;
    }
    for (const std::string_view field :
         {host->hostname, host->hostid, host->osname, host->osrelease, host->cputype}) {
        if (field.empty()) {
            return false;
        }
    }
    return true;
}

void add_host(qz_map* hosts, const host_line& line) {
    const qz_owned<char> id(copy_text(line.hostid));
    qz_owned<char> name(copy_text(line.namespace_name));
    auto* known = static_cast<agent_host*>(qz_map_find(hosts, id.get()));
    if (known != nullptr) {
        if (ns_exists(known->namespaces, name.get()) == 0) {
            qz_vector_pushback(known->namespaces, name.release());
        }
        return;
    }
    agent_host* host = make_host(
        copy_text(line.hostname), copy_text(line.revhostname), copy_text(line.hostid),
        copy_text(line.osname), copy_text(line.osrelease), copy_text(line.cputype), name.release());
    (void)qz_map_insert(hosts, host->hostid, host);  // looked up above: the id is new
}

// Reads a whole file; 0 or an errno value: only regular files can later be replaced.
int read_file(const char* path, std::string* content) {
    const unique_fd file = open_regular(path);
    return file ? read_all(file.get(), content) : errno;
}

// --- Writing ---

void append_line(std::string* out, const agent_host* host, const char* namespace_name) {
    const bool in_brackets = strchr(host->hostname, ':') != nullptr;
    out->append(in_brackets ? "[" : "").append(host->hostname).append(in_brackets ? "]" : "");
    const std::array<const char*, 6> fields = {host->revhostname, host->hostid,  host->osname,
                                               host->osrelease,   host->cputype, namespace_name};
    for (const char* field : fields) {
        out->append(":").append(field);
    }
    out->append("\n");
}

// The file's path as it is logged. It may have come with a request, and a line break in it would
// let the caller write lines of the log.
std::string loggable_path(const shttpd_ctx* ctx) {
    std::string path = ctx->domain_file;
    std::replace_if(
        path.begin(), path.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    return path;
}

}  // namespace

void parse_domain_text(std::string_view text, qz_map* hosts) {
    while (!text.empty()) {
        std::string_view line = text.substr(0, piece_bytes);
        line = line.substr(0, line.find('\n'));
        text.remove_prefix(
            std::min(text.size(), line.size() == piece_bytes ? piece_bytes : line.size() + 1));
        host_line host;
        if (parse_line(line.substr(0, line.find('\0')), &host)) {
            add_host(hosts, host);
        }
    }
}

// No field can break a line: they were read from one, or the registration refused or replaced the
// characters that would.
std::string format_domain_text(const qz_map* hosts) {
    std::string out;
    for (const qz_pair& pair : qz_each(hosts)) {
        const auto* host = static_cast<const agent_host*>(pair.value);
        for (const void* name : qz_each(host->namespaces)) {
            append_line(&out, host, static_cast<const char*>(name));
        }
    }
    return out;
}

void load_domain_file(const shttpd_ctx* ctx, const conn* c) {
    state() = file_state{};
    std::string content;
    const int error = read_file(ctx->domain_file.c_str(), &content);
    if (error == 0) {
        parse_domain_text(content, registry_hosts(ctx));
    } else if (error != ENOENT) {
        state().unreadable = true;
        elog(elog_info, c, "domain file %s cannot be read: %s", loggable_path(ctx).c_str(),
             error == EISDIR || error == EINVAL ? "not a regular file" : strerror(error));
    }
}

void sync_allow(const conn* c) {
    const std::string path = loggable_path(c->ctx);
    if (state().unreadable) {
        if (!state().unreadable_told) {
            elog(elog_info, c, "domain file %s is not written: its old hosts could not be read",
                 path.c_str());
        }
        state().unreadable_told = true;
        return;
    }
    const int error =
        replace_file(c->ctx->domain_file.c_str(), format_domain_text(registry_hosts(c->ctx)));
    if (error != 0 && !state().write_failed) {
        elog(elog_info, c, "domain file %s is not written: %s", path.c_str(), strerror(error));
    }
    if (error == 0 && state().write_failed) {
        elog(elog_info, c, "domain file %s is written again", path.c_str());
    }
    state().write_failed = error != 0;
}
