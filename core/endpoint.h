// The built-in management endpoints: each is a row of a table, and one driver does for all of them
// what a request needs around its answer.
//
// The driver judges `admit`, the method and the body, in this order and anew on every call, until
// the request is complete. Then it calls `answer`, which decides and replies with one of the
// functions below or with shttpd_printf, whatever its outcome; the driver ends the reply. A reply
// that is longer than the reply buffer goes out over as many calls as it takes.
//
// An answer that depends on something outside the loop, or that takes too long for one pass, says
// not_yet() and is called again.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "core/shttpd.h"

enum class endpoint_method {
    any,
    post,  // others are refused with 400 "Inappropriate method"
    get,   // others are refused with 405 "Method not allowed"
};

// Which requests are answered only when their body has arrived. One that can't fit the buffer is
// refused with 400 "Request is too big".
enum class endpoint_body { ignored, awaited, awaited_with_post, awaited_with_get };

struct endpoint {
    const char* uri = nullptr;
    endpoint_method method = endpoint_method::any;
    endpoint_body body = endpoint_body::ignored;
    void (*answer)(shttpd_call_arg* arg) = nullptr;
    // Null, or what is judged before the method: false when it has refused the request itself.
    bool (*admit)(shttpd_call_arg* arg) = nullptr;
};

// Registers every row. Requires: the rows outlive the context.
void register_endpoints(shttpd_ctx* ctx, std::span<const endpoint> rows);

// --- Answers; the first two are of use to handlers that are no rows as well ---

// Answers "HTTP/1.1 STATUS TEXT", text/plain, with the text as the body.
void show_error(shttpd_call_arg* arg, const char* status, const char* text);

// Answers 200, text/plain, "Success\n".
void show_success(shttpd_call_arg* arg);

// Replies with a whole text, head included, however long and however slow the client.
void answer_text(shttpd_call_arg* arg, std::string text);

// The same for bytes that `owner` keeps alive and unchanged: many replies can share them.
void answer_shared(shttpd_call_arg* arg, std::string_view bytes, std::shared_ptr<const void> owner);

// A reply that is made while the client reads it.
struct endpoint_pieces {
    endpoint_pieces() = default;
    endpoint_pieces(const endpoint_pieces&) = delete;
    endpoint_pieces& operator=(const endpoint_pieces&) = delete;
    endpoint_pieces(endpoint_pieces&&) = delete;
    endpoint_pieces& operator=(endpoint_pieces&&) = delete;
    virtual ~endpoint_pieces() = default;

    // The bytes that follow, valid until the next call; none: that was all.
    virtual std::string_view next() = 0;
};

// Replies with all pieces, head included. They are freed behind the last one, and also when the
// client has gone.
void answer_pieces(shttpd_call_arg* arg, std::unique_ptr<endpoint_pieces> pieces);

// --- Answers that wait ---

// What an endpoint keeps between its calls. The driver frees it after the reply, and also when the
// client has gone: the destructor withdraws it from whatever would have called visit_soon().
struct endpoint_wait {
    virtual ~endpoint_wait() = default;
};

// Keeps `wait` and puts the reply off: `answer` is called again after visit_soon(), and perhaps
// too early, on an event of the client's socket; then it says not_yet() again. With a null `wait`
// what was kept before stays.
void not_yet(shttpd_call_arg* arg, std::unique_ptr<endpoint_wait> wait);

// What not_yet() has kept, null at the first call of a request. An endpoint keeps one type only.
endpoint_wait* kept_wait(const shttpd_call_arg* arg);

template <class Wait>
Wait* waiting_for(const shttpd_call_arg* arg) {
    return static_cast<Wait*>(kept_wait(arg));
}

// For handlers that are no rows: puts the reply off as not_yet() does, which ends in this. The
// handler leaves `out` alone and returns; on its farewell call it must withdraw by itself.
void hold_reply(shttpd_call_arg* arg);

// --- The request ---

// The request's method is exactly `method`.
bool method_is(const shttpd_call_arg* arg, const char* method);

// The request's body as far as it has arrived, never a byte of the request behind it.
std::string_view request_body(const shttpd_call_arg* arg);

// The decoded text after the URI's first "?"; empty when there is none.
std::string_view query_text(const shttpd_call_arg* arg);

// The decoded value of a variable as a buffer of `size` bytes (terminator included) would hold
// it: cut to size - 1 bytes and at a zero byte; empty when absent.
std::string get_variable(std::string_view variables, const char* name, int size);
