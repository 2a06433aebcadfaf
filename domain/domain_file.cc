#include "domain/domain_file.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>

#include "core/connection.h"
#include "core/context.h"
#include "core/log.h"
#include "core/state_writer.h"
#include "domain/registry.h"
#include "lib/file.h"
#include "lib/plat.h"
#include "lib/utf8.h"

namespace {

constexpr std::size_t piece_bytes = 1023;  // of a line; what follows is taken as another line
constexpr std::string_view default_namespace_name = "plx";
constexpr std::string_view white_space = " \t\n\v\f\r";

// What is known of the domain file that was loaded last.
struct file_state {
    std::uint64_t load = 0;   // grows with every load: a write that ends later is of another file
    bool unreadable = false;  // it exists and its hosts are unknown: never rewrite it
    bool unreadable_told = false;
    bool write_failed = false;
    std::shared_ptr<known_file> known;  // with what was read and written
    std::string dropped;                // its lines that are no hosts, which a rewrite leaves out
    std::uint64_t written = 0;          // the generation of the content that was made last
    std::size_t expected_bytes = 0;     // of the next content
};

// Which file a write was of.
struct written_file {
    std::uint64_t load;
    std::string path;
    std::shared_ptr<known_file> known;
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
    auto* known = static_cast<agent_host*>(qz_map_find(hosts, id.get()));
    if (known != nullptr) {
        (void)join_namespace(known, line.namespace_name);
        return;
    }
    agent_host* host =
        make_host(copy_text(line.hostname), copy_text(line.revhostname), copy_text(line.hostid),
                  copy_text(line.osname), copy_text(line.osrelease), copy_text(line.cputype),
                  copy_text(line.namespace_name));
    (void)qz_map_insert(hosts, host->hostid, host);  // looked up above: the id is new
}

// Takes the hosts of one line; false when the whole line, or a piece of it, is no host.
bool add_line(qz_map* hosts, std::string_view line) {
    bool understood = true;
    do {
        const std::string_view piece = line.substr(0, piece_bytes);
        line.remove_prefix(piece.size());
        const std::size_t zero = piece.find('\0');
        host_line host;
        if (parse_line(piece.substr(0, zero), &host)) {
            add_host(hosts, host);
            understood = understood && zero == std::string_view::npos;
        } else {
            understood = false;
        }
    } while (!line.empty());
    return understood;
}

// --- Telling ---

// A line about the file, on standard error as well. Its path may have come with a request: a line
// break in it would let the caller write lines of his own.
void tell(const shttpd_ctx* ctx, const conn* c, const std::string& path, const std::string& what) {
    std::string text = "domain file " + path + what;
    std::replace_if(
        text.begin(), text.end(), [](unsigned char ch) { return ch < 0x20 || ch == 0x7f; }, '?');
    elog(elog_info, c, "%s", text.c_str());
    if (c == nullptr) {
        log_always(ctx, nullptr, "%s", text.c_str());
    }
}

void tell(const shttpd_ctx* ctx, const conn* c, const std::string& what) {
    tell(ctx, c, ctx->domain_file, what);
}

void tell_report(const shttpd_ctx* ctx, const conn* c, const domain_text_report& report) {
    const auto tell_lines = [&](const line_numbers& lines, const char* what) {
        if (lines.count() > 0) {
            tell(ctx, c, ", " + lines.text() + ": " + what);
        }
    };
    tell_lines(report.no_hosts, "no host, skipped");
    tell_lines(report.returns, "the carriage return at the end belongs to the namespace");
    tell_lines(report.no_utf8, "not in UTF-8");
}

// A write of a file that the daemon has left meanwhile is told by itself.
void write_ended(const shttpd_ctx* ctx, const written_file& which, int error) {
    file_state& file = state();
    const bool present = which.load == file.load && in_domain_mode(ctx);
    const bool failed_before = present && file.write_failed;
    if (const std::size_t lines = std::exchange(which.known->rescued, 0); lines > 0) {
        tell(ctx, nullptr, which.path,
             " was edited meanwhile: " + std::to_string(lines) +
                 " lines that are no registered hosts are saved in its .bak");
    }
    if (error != 0 && !failed_before) {
        tell(ctx, nullptr, which.path, std::string(" is not written: ") + strerror(error));
    } else if (error == 0 && failed_before) {
        tell(ctx, nullptr, which.path, " is written again");
    }
    file.write_failed = present ? error != 0 : file.write_failed;
}

}  // namespace

domain_text_report parse_domain_text(std::string_view text, qz_map* hosts) {
    domain_text_report report;
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        if (add_line(hosts, line)) {
            ++report.host_lines;
            if (line.ends_with('\r')) {
                report.returns.add(number);
            }
            if (!is_utf8(line)) {
                report.no_utf8.add(number);
            }
        } else if (!is_idle_line(line)) {
            report.no_hosts.add(number);
            report.dropped.append(line).append("\n");
        }
    }
    return report;
}

std::string format_domain_text(const qz_map* hosts, std::size_t expected) {
    std::string out;
    out.reserve(expected);
    for (const qz_pair& pair : qz_each(hosts)) {
        out.append(static_cast<const agent_host*>(pair.value)->lines.file());
    }
    return out;
}

loaded_domain read_domain_file(const char* path) {
    loaded_domain domain;
    domain.hosts.reset(new_qz_map(compare_string, nullptr, free_agent_host));
    std::string content;
    const unique_fd file = open_regular(path);
    domain.error = file ? read_all(file.get(), &content) : errno;
    if (domain.error == 0) {
        domain.stamp = stamp_of(file.get());
        domain.report = parse_domain_text(content, domain.hosts.get());
    } else if (domain.error == ENOENT) {
        domain.error = 0;  // an empty domain
    }
    return domain;
}

void take_over_domain(shttpd_ctx* ctx, const conn* c, loaded_domain domain) {
    file_state& file = state();
    const std::uint64_t load = file.load + 1;
    file = file_state();
    file.load = load;
    file.known = std::make_shared<known_file>(known_file{.stamp = domain.stamp});
    ctx->registry = domain.hosts.release();
    note_domain_change();
    const domain_text_report& report = domain.report;
    if (domain.error != 0) {
        const bool odd = domain.error == EISDIR || domain.error == EINVAL;
        file.unreadable = true;
        tell(ctx, c,
             std::string(" cannot be read: ") +
                 (odd ? "not a regular file" : strerror(domain.error)));
    } else if (report.host_lines == 0 && report.no_hosts.count() > 0) {
        file.unreadable = true;
        tell(ctx, c, " cannot be read: none of its lines is a host: " + report.no_hosts.text());
    } else {
        tell_report(ctx, c, report);
        file.dropped = std::move(domain.report.dropped);
    }
}

void sync_allow(const conn* c) {
    const shttpd_ctx* ctx = c->ctx;
    file_state& file = state();
    if (file.unreadable) {
        if (!file.unreadable_told) {
            tell(ctx, c, " is not written: its old hosts could not be read");
        }
        file.unreadable_told = true;
        return;
    }
    const std::string& path = ctx->domain_file;
    if (file.written == domain_file_generation() &&
        (state_write_pending(path) || state_file_is_ours(path))) {
        return;
    }
    const auto content = [ctx] {
        file_state& now = state();
        now.written = domain_file_generation();
        std::string text = format_domain_text(registry_hosts(ctx), now.expected_bytes);
        now.expected_bytes = text.size() + text.size() / 16;
        return text;
    };
    const auto written = [ctx, which = written_file{file.load, path, file.known}](int error) {
        write_ended(ctx, which, error);
    };
    write_state({.path = path,
                 .content = content,
                 .dropped = std::exchange(file.dropped, {}),
                 .known = file.known,
                 .written = written});
}
