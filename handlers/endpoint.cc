#include "core/endpoint.h"

#include <algorithm>
#include <vector>

#include "core/connection.h"
#include "core/request.h"
#include "lib/qzstream.h"

bool endpoint_closing(shttpd_call_arg* arg) {
    if ((arg->flags & ARG_CONNECTION_ERROR) == 0) {
        return false;
    }
    // Null when the endpoint had not begun its reply.
    qz_delete_stream(static_cast<qz_stream*>(arg->state));
    arg->state = nullptr;
    arg->flags |= ARG_END_OF_OUTPUT;
    return true;
}

void hold_reply(shttpd_call_arg* arg) {
    arg->connection->held = true;
}

void show_error(shttpd_call_arg* arg, const char* status, const char* text) {
    shttpd_printf(arg, "HTTP/1.1 %s %s\r\nContent-Type: text/plain\r\n\r\n%s", status, text, text);
    arg->flags |= ARG_END_OF_OUTPUT;
}

void show_success(shttpd_call_arg* arg) {
    shttpd_printf(arg, "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\nSuccess\n");
    arg->flags |= ARG_END_OF_OUTPUT;
}

bool method_is(const shttpd_call_arg* arg, const char* method) {
    return known_http_methods[static_cast<std::size_t>(arg->connection->request.method)] == method;
}

// Waiting for a body that can't fit would last until the connection expires.
bool post_body_pending(shttpd_call_arg* arg) {
    if ((arg->flags & ARG_MORE_POST_DATA) == 0) {
        return false;
    }
    if ((arg->flags & ARG_POST_BUFFER_FULL) != 0) {
        show_error(arg, "400", "Request is too big");
    }
    return true;
}

bool post_only_pending(shttpd_call_arg* arg) {
    if (!method_is(arg, "POST")) {
        show_error(arg, "400", "Inappropriate method");
        return true;
    }
    return post_body_pending(arg);
}

std::string_view request_body(const shttpd_call_arg* arg) {
    return {arg->in.ptr, static_cast<std::size_t>(std::max(arg->in.len, 0))};
}

std::string_view query_text(const shttpd_call_arg* arg) {
    const request_data& request = arg->connection->request;
    return request.has_query ? std::string_view(request.query.c_str()) : std::string_view();
}

// Through a buffer of the size that the caller names, since values are cut where it ends.
std::string get_variable(std::string_view variables, const char* name, int size) {
    std::vector<char> value(static_cast<std::size_t>(std::max(size, 1)), '\0');
    (void)shttpd_get_var(name, variables.data(), static_cast<int>(variables.size()), value.data(),
                         static_cast<int>(value.size()));
    return value.data();
}

void answer_text(shttpd_call_arg* arg, std::string_view text) {
    const auto length = static_cast<std::uint32_t>(text.size());
    stream_ptr reply(new_qz_stream(length));
    (void)qz_write_stream(reply.get(), text.data(), length);
    qz_rewind_stream(reply.get());
    arg->state = reply.release();
    drain_reply(arg);
}

void drain_reply(shttpd_call_arg* arg) {
    auto* reply = static_cast<qz_stream*>(arg->state);
    // Whatever does not fit is asked for again when the client has taken what did.
    const int room = std::max(arg->out.len - arg->out.used, 0);
    arg->out.used += static_cast<int>(
        qz_read_stream(reply, arg->out.ptr + arg->out.used, static_cast<std::uint32_t>(room)));
    if (reply->position >= reply->length) {
        qz_delete_stream(reply);
        arg->state = nullptr;
        arg->flags |= ARG_END_OF_OUTPUT;
    }
}
