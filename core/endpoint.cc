#include "core/endpoint.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "core/connection.h"
#include "core/loop_watch.h"
#include "core/request.h"

namespace {

// What a request's `state` points to while it is not finished: what the endpoint waits for, then
// the rest of its reply.
struct endpoint_progress {
    std::unique_ptr<endpoint_wait> wait;
    std::unique_ptr<endpoint_pieces> pieces;  // null: there is no reply yet
    std::string_view rest;                    // of the present piece
};

// A reply of one piece.
struct whole_reply : endpoint_pieces {
    std::string_view bytes;
    std::shared_ptr<const void> owner;
    std::string_view next() override { return std::exchange(bytes, {}); }
};

endpoint_progress* progress_of(const shttpd_call_arg* arg) {
    return static_cast<endpoint_progress*>(arg->state);
}

endpoint_progress* begin_progress(shttpd_call_arg* arg) {
    if (arg->state == nullptr) {
        arg->state = new endpoint_progress;
    }
    return progress_of(arg);
}

void end_reply(shttpd_call_arg* arg) {
    delete progress_of(arg);
    arg->state = nullptr;
    arg->flags |= ARG_END_OF_OUTPUT;
}

// Whatever does not fit is asked for again when the client has taken what did.
void drain_reply(shttpd_call_arg* arg) {
    endpoint_progress* progress = progress_of(arg);
    std::string_view& rest = progress->rest;
    for (;;) {
        if (rest.empty()) {
            rest = progress->pieces->next();
        }
        if (rest.empty()) {
            end_reply(arg);
            return;
        }
        const auto room = static_cast<std::size_t>(std::max(arg->out.len - arg->out.used, 0));
        if (room == 0) {
            return;
        }
        const std::size_t n = std::min(room, rest.size());
        std::copy_n(rest.data(), n, arg->out.ptr + arg->out.used);
        arg->out.used += static_cast<int>(n);
        rest.remove_prefix(n);
    }
}

bool awaits_body(const shttpd_call_arg* arg, endpoint_body body) {
    switch (body) {
        case endpoint_body::ignored:
            return false;
        case endpoint_body::awaited:
            return true;
        case endpoint_body::awaited_with_post:
            return method_is(arg, "POST");
        case endpoint_body::awaited_with_get:
            return method_is(arg, "GET");
    }
    return false;
}

enum class admission { complete, pending, refused };

admission admit(shttpd_call_arg* arg, const endpoint& row) {
    if (row.admit != nullptr && !row.admit(arg)) {
        return admission::refused;
    }
    if (row.method == endpoint_method::post && !method_is(arg, "POST")) {
        show_error(arg, "400", "Inappropriate method");
        return admission::refused;
    }
    if (row.method == endpoint_method::get && !method_is(arg, "GET")) {
        show_error(arg, "405", "Method not allowed");
        return admission::refused;
    }
    if (!awaits_body(arg, row.body) || (arg->flags & ARG_MORE_POST_DATA) == 0) {
        return admission::complete;
    }
    // Waiting for a body that can't fit would last until the connection expires.
    if ((arg->flags & ARG_POST_BUFFER_FULL) != 0) {
        show_error(arg, "400", "Request is too big");
        return admission::refused;
    }
    return admission::pending;
}

// The handler of every row.
void run_endpoint(shttpd_call_arg* arg) {
    if ((arg->flags & ARG_CONNECTION_ERROR) != 0) {
        end_reply(arg);
        return;
    }
    const auto& row = *static_cast<const endpoint*>(arg->user_data);
    if (arg->state == nullptr) {
        const admission admitted = admit(arg, row);
        if (admitted != admission::complete) {
            if (admitted == admission::refused) {
                end_reply(arg);
            }
            return;
        }
    }
    if (arg->state == nullptr || progress_of(arg)->pieces == nullptr) {
        rename_step(row.uri);
        row.answer(arg);
        if (arg->connection->held) {
            return;
        }
    }
    if (arg->state != nullptr && progress_of(arg)->pieces != nullptr) {
        drain_reply(arg);
    } else {
        end_reply(arg);
    }
}

}  // namespace

void register_endpoints(shttpd_ctx* ctx, std::span<const endpoint> rows) {
    for (const endpoint& row : rows) {
        shttpd_register_uri(ctx, row.uri, run_endpoint, const_cast<endpoint*>(&row));
    }
}

void show_error(shttpd_call_arg* arg, const char* status, const char* text) {
    shttpd_printf(arg, "HTTP/1.1 %s %s\r\nContent-Type: text/plain\r\n\r\n%s", status, text, text);
    arg->flags |= ARG_END_OF_OUTPUT;
}

void show_success(shttpd_call_arg* arg) {
    shttpd_printf(arg, "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n\r\nSuccess\n");
    arg->flags |= ARG_END_OF_OUTPUT;
}

void answer_text(shttpd_call_arg* arg, std::string text) {
    const auto owner = std::make_shared<const std::string>(std::move(text));
    answer_shared(arg, *owner, owner);
}

void answer_shared(shttpd_call_arg* arg, std::string_view bytes,
                   std::shared_ptr<const void> owner) {
    auto reply = std::make_unique<whole_reply>();
    reply->bytes = bytes;
    reply->owner = std::move(owner);
    answer_pieces(arg, std::move(reply));
}

void answer_pieces(shttpd_call_arg* arg, std::unique_ptr<endpoint_pieces> pieces) {
    begin_progress(arg)->pieces = std::move(pieces);
}

void hold_reply(shttpd_call_arg* arg) {
    arg->connection->held = true;
}

void not_yet(shttpd_call_arg* arg, std::unique_ptr<endpoint_wait> wait) {
    if (wait != nullptr) {
        begin_progress(arg)->wait = std::move(wait);
    }
    hold_reply(arg);
}

endpoint_wait* kept_wait(const shttpd_call_arg* arg) {
    return arg->state != nullptr ? progress_of(arg)->wait.get() : nullptr;
}

bool method_is(const shttpd_call_arg* arg, const char* method) {
    return std::string_view(arg->connection->request.method_name()) == method;
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
