// What the built-in management endpoints share: their standard answers, their view of the
// request's variables, and the draining of replies that are longer than the reply buffer.
//
// Every endpoint begins with `if (endpoint_closing(arg)) return;`.
#pragma once

#include <string>
#include <string_view>

#include "core/shttpd.h"

// True on the farewell call of a connection that goes away: a reply stream in `state` has been
// freed and the endpoint must return without side effects.
bool endpoint_closing(shttpd_call_arg* arg);

// For an endpoint that waits for something outside the loop, such as a file that another thread
// writes: it calls this, leaves `out` alone and returns. It is not called again before
// visit_soon(), an event of the client's socket or the farewell call, on which it must withdraw
// itself from whatever would have called visit_soon(). Since it may be called too early, it looks
// whether the thing has come, and else holds its reply again.
void hold_reply(shttpd_call_arg* arg);

// Answers "HTTP/1.1 STATUS TEXT", text/plain, with the text as the body, and ends the reply.
void show_error(shttpd_call_arg* arg, const char* status, const char* text);

// Answers 200, text/plain, "Success\n", and ends the reply.
void show_success(shttpd_call_arg* arg);

// The request's method is exactly `method`.
bool method_is(const shttpd_call_arg* arg, const char* method);

// True when the caller must return: the body is still arriving, or it can never fit the buffer and
// has been refused with 400 "Request is too big".
bool post_body_pending(shttpd_call_arg* arg);

// For endpoints that change state: refuses every method but POST with 400 "Inappropriate method",
// then does what post_body_pending does. True when the caller must return.
bool post_only_pending(shttpd_call_arg* arg);

// The request's body as far as it has arrived, never a byte of the request behind it.
std::string_view request_body(const shttpd_call_arg* arg);

// The decoded text after the URI's first "?"; empty when there is none.
std::string_view query_text(const shttpd_call_arg* arg);

// The decoded value of a variable as a buffer of `size` bytes (terminator included) would hold
// it: cut to size - 1 bytes and at a zero byte; empty when absent.
std::string get_variable(std::string_view variables, const char* name, int size);

// Replies with a text, which is copied, however long and however slow the client: puts it into a
// qz_stream in `state` and drains that. Called again, the endpoint calls drain_reply.
void answer_text(shttpd_call_arg* arg, std::string_view text);

// Copies from the qz_stream in `state` into the reply as much as fits. When everything has been
// copied the stream is freed, `state` is null and the reply is ended.
void drain_reply(shttpd_call_arg* arg);
