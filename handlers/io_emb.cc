#include "handlers/io_emb.h"

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "core/connection.h"
#include "core/globals.h"
#include "core/log.h"
#include "core/request.h"
#include "core/string.h"
#include "core/v6socket.h"

namespace {

constexpr std::size_t address_bytes = 46;

// --- The class ---

// Always 0 bytes read: the handler writes into the buffer itself, and sf_keep_open tells the engine
// whether the 0 is an end.
ssize_t do_embedded(stream* s, void*, std::size_t) {
    shttpd_call_arg arg{};
    arg.user_data = s->channel.user_data;
    call_user(s->connection, &arg, s->channel.handler);
    return 0;
}

// Tells a handler that has not finished that its connection goes away.
void close_embedded(stream* s) {
    if (!s->has(sf_keep_open)) {
        return;
    }
    shttpd_call_arg arg{};
    arg.user_data = s->channel.user_data;
    arg.flags = ARG_CONNECTION_ERROR;
    call_user(s->connection, &arg, s->channel.handler);
}

// --- Calling ---

void fill_views(conn* c, shttpd_call_arg* arg) {
    stream& local = c->local;
    stream& remote = c->remote;
    // What lies behind the body is the next request.
    const std::uint64_t body = std::min<std::uint64_t>(remote.pending(), c->body_left);
    // A handler that says goodbye must not write behind an error reply that is already in place.
    const bool farewell = (arg->flags & ARG_CONNECTION_ERROR) != 0;
    arg->connection = c;
    arg->state = local.channel.state;
    arg->out = {.ptr = local.buffer + local.head,
                .len = farewell ? 0 : static_cast<std::int32_t>(local.room()),
                .used = 0};
    arg->in = {
        .ptr = remote.buffer + remote.tail, .len = static_cast<std::int32_t>(body), .used = 0};
    if (remote.pending() >= remote.size) {
        arg->flags |= ARG_POST_BUFFER_FULL;
    }
    if (remote.content_length > 0 && remote.total < remote.content_length) {
        arg->flags |= ARG_MORE_POST_DATA;
    }
}

// The status of a reply is read from its first bytes: "HTTP/1.x NNN REASON".
void note_status(conn* c, std::string_view reply) {
    if (c->local.total > 0 || !reply.starts_with("HTTP/1.")) {
        return;
    }
    constexpr std::size_t status_digits = 3;
    const std::size_t blank = reply.find(' ');
    int status = 0;
    for (std::size_t i = blank; i != std::string_view::npos && i < blank + status_digits; ++i) {
        const char digit = i + 1 < reply.size() ? reply[i + 1] : '\0';
        if (digit < '0' || digit > '9') {
            return;
        }
        status = status * 10 + (digit - '0');
    }
    c->reply.status = status;
    log_refusal(c, status, reply.substr(std::min(blank + status_digits + 2, reply.size())), 0);
}

void account_for(conn* c, const shttpd_call_arg& arg) {
    stream& local = c->local;
    stream& remote = c->remote;
    // Handlers count by themselves; a wrong count must not move the buffers' ends out of them.
    const auto used = static_cast<std::size_t>(std::clamp(arg.out.used, 0, arg.out.len));
    const auto eaten = static_cast<std::size_t>(std::clamp(arg.in.used, 0, arg.in.len));
    note_status(c, {local.buffer + local.head, used});
    local.head += used;
    local.total += used;
    remote.consume(eaten);
    if (c->body_left != unlimited_body) {
        c->body_left -= eaten;
    }
    if (used > 0 || eaten > 0) {
        renew_expiry(c);
    }
}

bool pattern_matches(const char* pattern, const char* uri) {
    while (*pattern != '\0') {
        if (*pattern != '*') {
            if (*pattern != *uri) {
                return false;
            }
            ++pattern;
            ++uri;
            continue;
        }
        pattern += std::strspn(pattern, "*");
        if (*pattern == '\0') {
            return true;
        }
        // The first occurrence is final: what matches is decided without going back.
        uri = std::strchr(uri, *pattern);
        if (uri == nullptr) {
            return false;
        }
        ++pattern;
        ++uri;
    }
    return *uri == '\0';
}

// A header block in which earlier look-ups have already terminated lines: a zero byte ends a line
// as a line feed does, and one directly before a line feed belongs to it.
std::size_t line_length(std::string_view block) {
    std::size_t n = 0;
    while (n < block.size() && block[n] != '\n' && block[n] != '\0') {
        ++n;
    }
    return n;
}

}  // namespace

constinit const io_class io_embedded{
    .name = "embedded", .read = do_embedded, .close = close_embedded};

const registered_uri* is_registered_uri(shttpd_ctx* ctx, const char* uri) {
    for (const registered_uri& entry : ctx->registered_uris) {
        if (pattern_matches(entry.uri.c_str(), uri)) {
            return &entry;
        }
    }
    return nullptr;
}

void setup_embedded_stream(conn* c, shttpd_handler handler, void* user_data) {
    stream& local = c->local;
    install_class(&local, &io_embedded, -1, sf_readable | sf_writable | sf_always_ready);
    local.poll_index = -1;
    local.channel.state = nullptr;
    local.channel.handler = handler;
    local.channel.user_data = user_data;
    // Kept: embedded replies seldom announce a length, so the close is what ends them, and always
    // does.
    c->close_after = true;
}

void call_user(conn* c, shttpd_call_arg* arg, shttpd_handler handler) {
    fill_views(c, arg);
    c->held = false;
    handler(arg);
    account_for(c, *arg);
    c->local.channel.state = arg->state;
    const bool ended = (arg->flags & ARG_END_OF_OUTPUT) != 0;
    ended ? c->local.clear(sf_keep_open) : c->local.set(sf_keep_open);
}

void shttpd_register_uri(shttpd_ctx* ctx, const char* pattern, shttpd_handler handler,
                         void* user_data) {
    auto* entry = new registered_uri;
    entry->uri = pattern;
    entry->handler = handler;
    entry->user_data = user_data;
    ctx->registered_uris.push_back(entry);
}

void shttpd_handle_error(shttpd_ctx* ctx, int status, shttpd_handler handler, void* user_data) {
    auto* entry = new error_handler;
    entry->code = status;
    entry->handler = handler;
    entry->user_data = user_data;
    ctx->error_handlers.push_back(entry);
}

void shttpd_protect_uri(shttpd_ctx* ctx, const char* uri, const char* file) {
    auto* entry = new uri_auth;
    entry->uri = uri;
    entry->file_name = file;
    ctx->uri_auths.push_front(entry);
}

void shttpd_register_ssi_func(shttpd_ctx* ctx, const char* name, shttpd_handler handler,
                              void* user_data) {
    auto* entry = new ssi_func;
    entry->name = name;
    entry->handler = handler;
    entry->user_data = user_data;
    ctx->ssi_funcs.push_back(entry);
}

int shttpd_printf(shttpd_call_arg* arg, const char* format, ...) {
    const int room = arg->out.len - arg->out.used;
    if (room <= 0) {
        return 0;
    }
    va_list args;
    va_start(args, format);
    int n =
        std::vsnprintf(arg->out.ptr + arg->out.used, static_cast<std::size_t>(room), format, args);
    va_end(args);
    // A text that was cut counts with its terminator, as does, by itself, one that fits exactly.
    if (n < 0 || n > room) {
        n = room;
    }
    arg->out.used += n;
    return n;
}

int shttpd_get_var_nodecode_nocopy(const char* name, const char* buf, int buf_len,
                                   const char** value) {
    const auto n = static_cast<int>(std::strlen(name));
    for (int at = 0; buf != nullptr && at + n < buf_len; ++at) {
        const char* p = buf + at;
        // A name in the middle of another one does not count.
        const bool begins = at == 0 || p[-1] == '&';
        if (!begins || p[n] != '=' || my_strncasecmp(name, p, static_cast<std::size_t>(n)) != 0) {
            continue;
        }
        const std::string_view rest(p + n + 1, static_cast<std::size_t>(buf_len - at - n - 1));
        *value = rest.data();
        return static_cast<int>(std::min(rest.find('&'), rest.size()));
    }
    return -1;
}

int shttpd_get_var(const char* name, const char* buf, int buf_len, char* value, int value_len) {
    const char* raw = nullptr;
    const int length = shttpd_get_var_nodecode_nocopy(name, buf, buf_len, &raw);
    if (length < 0 || value_len < 1) {
        return length < 0 ? -1 : 0;
    }
    return static_cast<int>(url_decode(raw, static_cast<std::size_t>(length), value,
                                       static_cast<std::size_t>(value_len)));
}

const char* shttpd_get_header(shttpd_call_arg* arg, const char* name) {
    request_data& request = arg->connection->request;
    const std::string_view wanted(name);
    std::size_t at = std::min(request.headers_start, request.text.size());
    while (at < request.text.size()) {
        char* line = request.text.data() + at;
        const std::size_t length = line_length({line, request.text.size() - at});
        const bool has_return = length > 0 && line[length - 1] == '\r';
        const std::size_t end = has_return ? length - 1 : length;
        line[end] = '\0';
        if (starts_with_nocase({line, length}, wanted)) {
            return line + std::min(wanted.size() + 2, end);
        }
        at += length + 1;
        if (!has_return && at < request.text.size() && request.text[at] == '\n' &&
            at + 1 < request.text.size()) {
            ++at;  // the line feed behind a return that an earlier look-up has overwritten
        }
    }
    return nullptr;
}

const char* shttpd_get_env(shttpd_call_arg* arg, const char* name) {
    static std::array<char, address_bytes> address;
    const conn* c = arg->connection;
    const request_data& request = c->request;
    const std::string_view wanted = name;
    if (wanted == "REQUEST_METHOD") {
        return request.method_name();
    }
    if (wanted == "REQUEST_URI") {
        return request.uri.c_str();
    }
    if (wanted == "QUERY_STRING") {
        return request.has_query ? request.query.c_str() : nullptr;
    }
    if (wanted == "REMOTE_USER") {
        return c->user_name.empty() ? nullptr : c->user_name.c_str();
    }
    if (wanted == "REMOTE_ADDR") {
        return v6inet_ntop(reinterpret_cast<const sockaddr*>(&c->peer), address.data(),
                           address.size());
    }
    return nullptr;
}

void shttpd_get_http_version(shttpd_call_arg* arg, unsigned long* major, unsigned long* minor) {
    *major = arg->connection->request.major;
    *minor = arg->connection->request.minor;
}

const char* shttpd_version() {
    return "1.0";
}
