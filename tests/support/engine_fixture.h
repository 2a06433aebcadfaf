// A whole engine inside a test program: a context over a temporary document root, clients over
// socket pairs, and passes of the main loop on demand. No authentication library is involved.
#pragma once

#include "core/connection.h"
#include "core/context.h"
#include "core/globals.h"
#include "core/shttpd.h"
#include "tests/support/testing.h"

// How a connection was when an exchange on it was over.
enum class connection_end : std::uint8_t { open, closed, reset };

class test_engine {
  public:
    // The option `noauth` is set; subsystems are initialised as at start-up unless `bare`.
    explicit test_engine(bool bare = false);
    ~test_engine();
    test_engine(const test_engine&) = delete;
    test_engine& operator=(const test_engine&) = delete;

    shttpd_ctx* ctx = nullptr;
    temporary_folder root;
    connection_end ended = connection_end::open;  // of the last exchange

    // A client whose other end is a connection of the engine (no handshake).
    unique_fd connect();
    // Sends the bytes, and that is all.
    static void say(const unique_fd& client, std::string_view bytes);
    // Passes of the main loop that do not wait.
    void poll(int passes = 1);
    // Sends the bytes on a new connection and returns everything until the engine closes it, or
    // until nothing has moved for `quiet_passes` passes.
    std::string exchange(std::string_view bytes, int quiet_passes = 50);
    // The same on a connection that stays open.
    std::string exchange_on(const unique_fd& client, std::string_view bytes, int quiet_passes = 50);
};

// A test with an engine; what handlers are given has to outlive the test's body.
struct engine_test : testing::Test {
    test_engine engine;
};

// "METHOD uri HTTP/1.1" with an optional body and its length.
std::string make_request(std::string_view method, std::string_view uri, std::string_view body = "");
inline std::string get(std::string_view uri) {
    return make_request("GET", uri);
}
// What stands behind the first blank line.
std::string body_of(std::string_view reply);
inline std::string status_line(const std::string& reply) {
    return reply.substr(0, reply.find("\r\n"));
}
