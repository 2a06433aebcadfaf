#include "core/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include "core/connection.h"
#include "core/context.h"
#include "core/globals.h"
#include "core/v6socket.h"

int tz_offset = 0;

namespace {

constexpr std::size_t line_bytes = 32768;
constexpr std::size_t address_bytes = 46;
constexpr std::size_t time_bytes = 64;

// Local time as text, computed once per second and format.
class time_text {
  public:
    explicit constexpr time_text(const char* format) : format_(format) {}

    const char* at(std::time_t when) {
        if (when != when_ || text_[0] == '\0') {
            std::tm parts{};
            if (localtime_r(&when, &parts) == nullptr ||
                std::strftime(text_, sizeof text_, format_, &parts) == 0) {
                text_[0] = '\0';
            }
            when_ = when;
        }
        return text_;
    }

  private:
    const char* format_;
    std::time_t when_ = -1;
    char text_[time_bytes] = {};
};

// The peer's address in text form; "-" when there is none, as for a local socket.
const char* client_text(const conn* c, char (&buffer)[address_bytes]) {
    if (c == nullptr || c->peer_length == 0) {
        return "-";
    }
    // The storage holds the address family that its beginning names.
    const auto* address = reinterpret_cast<const sockaddr*>(&c->peer);
    const char* text = v6inet_ntop(address, buffer, sizeof buffer);
    return text != nullptr ? text : "-";
}

// Safe to print: a request line holds neither line feeds nor other control bytes but returns.
const char* request_line(const conn* c) {
    return c == nullptr || c->request.line()[0] == '\0' ? "-" : c->request.line();
}

std::string_view or_default(std::string_view text, std::string_view otherwise) {
    return text.empty() ? otherwise : text;
}

int width(std::string_view text) {
    return static_cast<int>(text.size());
}

// Where in `line` the message behind the prefix begins; room for one byte is always left.
std::size_t put_prefix(char (&line)[line_bytes], const conn* c) {
    static time_text clock("%a %b %d %H:%M:%S %Y");
    char address[address_bytes];
    const int n = std::snprintf(line, sizeof line, "[%s] [error] [client %s] \"%s\" ",
                                clock.at(current_time), client_text(c, address), request_line(c));
    if (n < 0) {
        return 0;
    }
    const auto length = static_cast<std::size_t>(n);
    return length < sizeof line ? length : sizeof line - 1;
}

void write_error_line(std::FILE* file, const conn* c, const char* format, va_list arguments) {
    char line[line_bytes];
    const std::size_t start = put_prefix(line, c);
    if (std::vsnprintf(line + start, sizeof line - start, format, arguments) < 0) {
        line[start] = '\0';
    }
    (void)std::fprintf(file, "%s\n", line);  // a full disk must not stop the daemon
    (void)std::fflush(file);
}

}  // namespace

void elog(int flags, const conn* c, const char* format, ...) {
    const int saved_errno = errno;
    const shttpd_ctx* ctx = c == nullptr ? nullptr : c->ctx;
    va_list arguments;
    // In inetd mode standard error may be the client's connection.
    if (ctx == nullptr || ctx->inetd_mode == 0) {
        va_start(arguments, format);
        (void)std::vfprintf(stderr, format, arguments);
        va_end(arguments);
        (void)std::fputc('\n', stderr);
    }
    if (ctx != nullptr && ctx->error_log != nullptr && (flags & (elog_fatal | elog_info)) != 0) {
        errno = saved_errno;  // for a format with %m
        va_start(arguments, format);
        write_error_line(ctx->error_log, c, format, arguments);
        va_end(arguments);
    }
    if ((flags & elog_fatal) != 0) {
        std::exit(EXIT_FAILURE);
    }
    errno = saved_errno;
}

void log_access(std::FILE* file, const conn* c) {
    const request_data& request = c->request;
    const std::string_view role = request.role;
    // Kept: a role that is a beginning of "agent" counts as it, the empty one included.
    const bool agent_role = std::string_view("agent").substr(0, role.size()) == role;
    if (file == nullptr || request.method == method_get || (request.status == 200 && agent_role)) {
        return;
    }
    static time_text clock("%d/%b/%Y:%H:%M:%S");
    const header_values& headers = request.headers;
    // Kept: the caller's name is shown only for requests on behalf of somebody.
    const std::string_view user =
        or_default(headers.on_behalf_user.empty() ? headers.on_behalf_user : c->user_name, "-");
    const std::string_view operation = or_default(headers.operation, "unknown");
    const std::string_view from = or_default(headers.on_behalf_ip, "-");
    const std::string_view ns = or_default(headers.namespace_name, "plx");
    const std::string_view referer = or_default(headers.referer, "-");
    const std::string_view agent = or_default(headers.user_agent, "-");
    const char* referer_quote = headers.referer.empty() ? "" : "\"";
    const char* agent_quote = headers.user_agent.empty() ? "" : "\"";
    char address[address_bytes];
    char line[line_bytes];
    (void)std::snprintf(
        line, sizeof line,
        "%s - %.*s [%s %+05d] \"%s op=%.*s from=%.*s namespace=%.*s\" %d %lu %s%.*s%s %s%.*s%s",
        client_text(c, address), width(user), user.data(), clock.at(c->birth_time), tz_offset,
        request_line(c), width(operation), operation.data(), width(from), from.data(), width(ns),
        ns.data(), request.status, static_cast<unsigned long>(c->local.total), referer_quote,
        width(referer), referer.data(), referer_quote, agent_quote, width(agent), agent.data(),
        agent_quote);
    (void)std::fprintf(file, "%s\n", line);
    (void)std::fflush(file);
}
