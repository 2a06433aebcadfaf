#include "core/log.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <string_view>

#include "core/connection.h"
#include "core/context.h"
#include "core/globals.h"
#include "core/request.h"
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

// The control characters of ASCII, and those behind it: terminals take U+009B for an escape
// sequence's beginning. Bytes inside the other characters of UTF-8 are none.
bool is_control(std::string_view text, std::size_t at) {
    const auto byte = static_cast<unsigned char>(text[at]);
    if (byte < 0x80 || byte > 0x9f) {
        return byte < 0x20 || byte == 0x7f;
    }
    const auto before = at > 0 ? static_cast<unsigned char>(text[at - 1]) : 0U;
    return before < 0x80 || before == 0xc2;
}

// The text with every control byte as \xNN. `quoted`: every quote as well, so that the text can't
// be taken for the end of a request line and what follows one.
std::string printable(std::string_view text, bool quoted = false) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string out;
    out.reserve(text.size());
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (is_control(text, at) || (quoted && text[at] == '"')) {
            const auto byte = static_cast<unsigned char>(text[at]);
            out.append("\\x").append(1, digits[byte >> 4]).append(1, digits[byte & 15]);
        } else {
            out += text[at];
        }
    }
    return out;
}

// A full disk must not stop the daemon.
void write_line(std::FILE* file, std::string_view line) {
    std::string text = printable(line);
    text += '\n';
    (void)std::fwrite(text.data(), 1, text.size(), file);
    (void)std::fflush(file);
}

void write_error_line(std::FILE* file, const conn* c, const char* format, va_list arguments) {
    char line[line_bytes];
    const std::size_t start = put_prefix(line, c);
    if (std::vsnprintf(line + start, sizeof line - start, format, arguments) < 0) {
        line[start] = '\0';
    }
    write_line(file, line);
}

[[gnu::format(printf, 3, 4)]] void put_error_line(std::FILE* file, const conn* c,
                                                  const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write_error_line(file, c, format, arguments);
    va_end(arguments);
}

std::FILE* error_log_of(const conn* c) {
    return c != nullptr && c->ctx != nullptr ? c->ctx->error_log : nullptr;
}

// --- The lines that clients cause, so many that they can't fill a disk ---

constexpr int lines_a_second = 50;

struct {
    std::time_t second = 0;  // that `written` counts in
    int written = 0;
    unsigned long left_out = 0;
} flood;

void tell_left_out(std::FILE* file) {
    if (flood.left_out > 0) {
        put_error_line(file, nullptr, "%lu more lines of this second were left out",
                       flood.left_out);
        flood.left_out = 0;
    }
}

// Whether there is a log and room in it for one more line of this second.
bool may_write(std::FILE* file) {
    if (file == nullptr) {
        return false;
    }
    if (flood.second != current_time) {
        tell_left_out(file);
        flood.second = current_time;
        flood.written = 0;
    }
    if (flood.written >= lines_a_second) {
        ++flood.left_out;
        return false;
    }
    ++flood.written;
    return true;
}

// The user that a refusal is about, empty when none is known.
std::string refused_user(const conn* c, int status) {
    constexpr std::size_t longest_name = 255;
    std::string name;
    if (status == 401) {
        name = c->request.typed_user;
        if (name.empty()) {
            name = typed_user(c->request.headers.authorization);
        }
    } else if (status == 403) {
        name = c->user_name;
    }
    name.resize(std::min(name.size(), longest_name));
    return printable(name, true);
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
    if (error_log_of(c) != nullptr && (flags & (elog_fatal | elog_info)) != 0) {
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

void fatal(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    (void)std::vfprintf(stderr, format, arguments);
    va_end(arguments);
    (void)std::fputc('\n', stderr);
    std::exit(EXIT_FAILURE);
}

void log_change(const conn* c, const char* format, ...) {
    constexpr std::size_t message_bytes = 4096;
    std::FILE* file = error_log_of(c);
    if (file == nullptr) {
        return;
    }
    const int saved_errno = errno;
    char message[message_bytes];
    va_list arguments;
    va_start(arguments, format);
    (void)std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    const header_values& headers = c->request.headers;
    std::string text(c->user_name.empty() ? "somebody" : c->user_name);
    text.append(" ").append(message);
    if (!headers.on_behalf_user.empty() || !headers.on_behalf_ip.empty()) {
        text.append(", on behalf of ").append(or_default(headers.on_behalf_user, "-"));
        text.append(" from ").append(or_default(headers.on_behalf_ip, "-"));
    }
    put_error_line(file, c, "%s", printable(text, true).c_str());
    errno = saved_errno;
}

void log_always(const shttpd_ctx* ctx, const conn* c, const char* format, ...) {
    const int saved_errno = errno;
    if (ctx != nullptr && ctx->error_log != nullptr) {
        va_list arguments;
        va_start(arguments, format);
        write_error_line(ctx->error_log, c, format, arguments);
        va_end(arguments);
    }
    errno = saved_errno;
}

void log_refusal(conn* c, int status, std::string_view reason, std::string_view why) {
    if (status < 400 || c->request.refusal_logged) {
        return;
    }
    c->request.refusal_logged = true;
    const int saved_errno = errno;
    if (std::FILE* file = error_log_of(c); may_write(file)) {
        std::string text = printable(reason.substr(0, reason.find_first_of("\r\n")), true);
        if (!why.empty()) {
            text.append(": ").append(printable(why, true));
        }
        if (const std::string user = refused_user(c, status); !user.empty()) {
            text.append(", user ").append(user);
        }
        put_error_line(file, c, "%d %s", status, text.c_str());
    }
    errno = saved_errno;
}

void log_refusal(conn* c, int status, std::string_view reason, int error) {
    log_refusal(c, status, reason, error != 0 ? std::strerror(error) : "");
}

void log_muted(const conn* c, const char* reason) {
    log_trouble(c->ctx, c, "muted: %s", reason);
}

void log_trouble(const shttpd_ctx* ctx, const conn* c, const char* format, ...) {
    const int saved_errno = errno;
    if (std::FILE* file = ctx != nullptr ? ctx->error_log : nullptr; may_write(file)) {
        va_list arguments;
        va_start(arguments, format);
        write_error_line(file, c, format, arguments);
        va_end(arguments);
    }
    errno = saved_errno;
}

void tell_left_out_lines(const shttpd_ctx* ctx, bool now) {
    if (flood.left_out > 0 && (now || flood.second != current_time) && ctx->error_log != nullptr) {
        tell_left_out(ctx->error_log);
    }
}

void log_access(std::FILE* file, const conn* c) {
    const request_data& request = c->request;
    const std::string_view role = request.role;
    // Kept: a role that is a beginning of "agent" counts as it, the empty one included.
    const bool agent_role = std::string_view("agent").substr(0, role.size()) == role;
    if (file == nullptr || request.method == method_get || (c->reply.status == 200 && agent_role)) {
        return;
    }
    static time_text clock("%d/%b/%Y:%H:%M:%S");
    const header_values& headers = request.headers;
    // Kept: the caller's name is shown only for requests on behalf of somebody.
    const std::string_view user =
        headers.on_behalf_user.empty() ? "-" : or_default(c->user_name, "-");
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
        ns.data(), c->reply.status, static_cast<unsigned long>(c->local.total), referer_quote,
        width(referer), referer.data(), referer_quote, agent_quote, width(agent), agent.data(),
        agent_quote);
    write_line(file, line);
}
