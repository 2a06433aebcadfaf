// Forwarding inside the engine: what the URI names, what the target gets to read, where its answer
// ends, and what becomes of targets that misbehave.

#include "handlers/proxy.h"

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/connection.h"
#include "core/context.h"
#include "core/poll_set.h"
#include "handlers/proxy_head.h"
#include "handlers/proxy_target.h"
#include "lib/base64.h"
#include "lib/qzstream.h"
#include "tests/handlers/relay_fixture.h"

namespace {

// --- What the URI says ---

class target_test : public ::testing::Test {
  protected:
    target_test() { c.ctx = &ctx; }

    shttpd_ctx ctx;
    conn c;
};

TEST_F(target_test, uri_names_scheme_host_port_and_path) {
    const struct {
        const char* uri;
        const char* scheme;
        const char* host;
        int port;
        const char* path;
    } rows[] = {
        {"/http://host/x", "http", "host", 80, "/x"},
        {"http://host:8080", "http", "host", 8080, "/"},
        {"/https://h:4433/a?b=c:d", "https", "h", 4433, "/a?b=c:d"},
        {"/http://h:/x", "http", "h", 80, "/x"},
        {"/http://h:x/y", "http", "h", 80, "/y"},
        {"/http://h:99999999999999999999/", "http", "h", 65536, "/"},
        {"/http://__VS__/", "http", "__VS__", 80, "/"},
        {"/httpu://any:pub/x", "httpu", "any", 80, "httpu://any:pub/x"},
        {"/httpu://any", "httpu", "any", 80, "httpu://any"},
        {"/hob://h/x", "hob", "h", 80, "/x"},
        {"/hob://h:/x", "hob", "h", 0, "/x"},
        {"/http:/h/x", "", "", 80, ""},
        {"/HTTP://h/x", "", "", 80, ""},
        {"https://h/x", "", "", 80, ""},
    };
    for (const auto& row : rows) {
        c.request.uri = row.uri;
        const proxy_target target = parse_target(&c);
        EXPECT_EQ(target.scheme, row.scheme) << row.uri;
        EXPECT_EQ(target.host, row.host) << row.uri;
        EXPECT_EQ(target.port, row.port) << row.uri;
        EXPECT_EQ(target.path, row.path) << row.uri;
        EXPECT_EQ(is_proxy(&c), *row.scheme != '\0') << row.uri;
    }
    ctx.virtual_server = "vs.example";
    c.request.uri = "/http://__VS__";
    EXPECT_EQ(parse_target(&c).host, "vs.example");
    c.request.uri = "/http://__VS__/x";
    EXPECT_EQ(parse_target(&c).host, "__VS__");
}

TEST_F(target_test, own_address_is_served_locally) {
    namespace_record root;
    root.root = "/srv";
    c.request.ns = &root;
    ctx.listen_ports = "9180u, 80, 18080s";
    const struct {
        const char* uri;
        bool own;
        const char* becomes;
    } rows[] = {
        {"/http://localhost:9180/pub/a%20b?q=%31&r", true, "/pub/a b"},
        {"/https://127.0.0.1:9180", true, "/"},
        {"/http://127.0.0.1:80/x", true, "/x"},
        {"/http://127.0.0.1:18089/x", true, "/x"},
        {"/http://127.0.0.1:9180/a/%2e%2e/%2e%2e/etc", true, "/a/etc"},
        {"/http://127.0.0.1:8080/x", false, nullptr},
        {"/http://127.0.0.1:918/x", false, nullptr},
        {"/http://127.0.0.1/9180", false, nullptr},
        {"/http://192.0.2.1:9180/x", false, nullptr},
        {"/http://no.such.host.invalid:9180/x", false, nullptr},
    };
    for (const auto& row : rows) {
        c.request.uri = row.uri;
        std::string path;
        EXPECT_EQ(is_loopback(&c, &path), row.own) << row.uri;
        if (row.own) {
            EXPECT_EQ(c.request.uri, row.becomes);
            EXPECT_EQ(path, std::string("/srv") + row.becomes);
        } else {
            EXPECT_EQ(c.request.uri, row.uri);
        }
    }
    c.request.uri = rows[0].uri;
    std::string path;
    ASSERT_TRUE(is_loopback(&c, &path));
    EXPECT_EQ(c.request.query, "q=%31&r");
    EXPECT_EQ(c.request.role, "pub");
    c.request.ns = nullptr;
}

// --- The forwarded head ---

class head_test : public target_test {
  protected:
    void set_headers(const std::string& lines) {
        c.request.text = "POST / HTTP/1.1\r\n" + lines + "\r\n";
        c.request.headers_start = 17;
    }
    std::optional<std::string> head() {
        proxy_target target;
        target.method = "POST";
        target.path = path;
        const stream_ptr out(new_qz_stream(16));
        if (!create_proxy_headers(&c, target, out.get())) {
            return std::nullopt;
        }
        return std::string(reinterpret_cast<const char*>(out->data), out->length);
    }
    std::string path = "/x";
};

TEST_F(head_test, copies_known_headers_in_table_order) {
    set_headers(
        "Accept: */*\r\nreferer: one\r\nReferer: two\r\nHost: h\r\nsoapaction: \"a\"\r\n"
        "User-Agent:none\r\nCookie: a=b\rContent-Length: 9\r\nRange: bytes=1-2\r\n"
        "Expect: 100-continue\r\nAuthorization: Basic eDp5\r\nConnection: keep-alive\r\n");
    EXPECT_EQ(head(),
              "POST /x HTTP/1.1\r\nConnection: keep-alive\r\nHost: h\r\nReferer: one\r\n"
              "Cookie: a=b\r\nRange: bytes=1-2\r\nSOAPAction: \"a\"\r\n"
              "Authorization: Basic cm9vdDphZG1pbg==\r\nConnection: close\r\n\r\n");
}

TEST_F(head_test, identity_is_whole_or_the_request_fails) {
    set_headers("");
    for (const std::size_t length : {1U, 87U, 88U, 94U, 122U, 123U, 500U}) {
        c.user_name = std::string(length, 'u');
        c.request.recorded_role = "agent";
        const std::optional<std::string> text = head();
        if (length + 6 > 128) {
            EXPECT_FALSE(text) << length;
            continue;
        }
        ASSERT_TRUE(text) << length;
        const std::size_t at = text->find("Basic ") + 6;
        const std::string encoded = text->substr(at, text->find('\r', at) - at);
        char decoded[200];
        const int n = base64_decode(decoded, sizeof decoded, encoded.data(),
                                    static_cast<int>(encoded.size()));
        ASSERT_GT(n, 0);
        EXPECT_EQ(std::string(decoded, static_cast<std::size_t>(n)), c.user_name + ":agent");
    }
}

TEST_F(head_test, long_paths_keep_every_byte) {
    set_headers("");
    for (std::size_t length = 1000; length < 1030; ++length) {
        path = "/" + std::string(length, 'p');
        ASSERT_EQ(head(), "POST " + path +
                              " HTTP/1.1\r\nAuthorization: Basic cm9vdDphZG1pbg==\r\n"
                              "Connection: close\r\n\r\n");
    }
}

TEST_F(head_test, body_must_have_one_end) {
    const std::map<std::string, bool> rows = {
        {"", true},
        {"Content-Length: 5\r\n", true},
        {"content-length: 0\r\n", true},
        {"Transfer-Encoding: Chunked\r\n", true},
        {"Content-Length: 5\r\nContent-Length: 50\r\n", false},
        {"Content-Length: 5\r\nTransfer-Encoding: chunked\r\n", false},
        {"Transfer-Encoding: chunked\r\nTransfer-Encoding: identity\r\n", false},
        {"Content-Length:5\r\n", false},
        {"Content-Length: +5\r\n", false},
        {"Content-Length: 5, 6\r\n", false},
        {"Content-Length: \r\n", false},
        {"Transfer-Encoding: gzip, chunked\r\n", false},
        {"Transfer-Encoding:chunked\r\n", false},
    };
    for (const auto& [lines, clear] : rows) {
        set_headers(lines);
        EXPECT_EQ(has_clear_body(&c), clear) << lines;
    }
}

TEST_F(head_test, insertion_moves_the_pending_body) {
    std::string memory(65, '-');
    stream& remote = c.remote;
    remote.buffer = memory.data();
    remote.size = 32;
    const auto reset = [&] {
        memory.replace(0, 32, "already gone, but this is a body");
        remote.tail = 18;
        remote.head = 32;
        remote.content_length = remote.total = 100;
        c.request.body_left = 100;
    };
    reset();
    EXPECT_EQ(safe_write_bytes(&c, std::string(32, 'h')), 1);
    EXPECT_EQ(memory.substr(0, remote.head), std::string(32, 'h') + "this is a body");
    EXPECT_EQ(remote.content_length, 132U);
    EXPECT_EQ(remote.total, 132U);
    EXPECT_EQ(c.request.body_left, 132U);
    reset();
    EXPECT_EQ(safe_write_bytes(&c, std::string(33, 'h')), -1);
    EXPECT_EQ(c.request.body_left, 100U);
}

// --- Targets ---

// A TCP server on a loopback port that a test drives by hand.
class hand_target {
  public:
    hand_target() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address_;
        EXPECT_EQ(bind(listener_.get(), generic(), length), 0);
        EXPECT_EQ(listen(listener_.get(), 8), 0);
        EXPECT_EQ(getsockname(listener_.get(), generic(), &length), 0);
    }
    [[nodiscard]] std::string uri(const std::string& scheme, const std::string& path) const {
        return "/" + scheme + "://127.0.0.1:" + std::to_string(ntohs(address_.sin_port)) + path;
    }
    // Accepts and reads what is there; true once `received` ends with `mark`.
    bool has_received(std::string_view mark) {
        if (!peer) {
            peer.reset(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
            connections += peer ? 1 : 0;
        }
        char buffer[65536];
        for (ssize_t n = 0; peer && (n = recv(peer.get(), buffer, sizeof buffer, 0)) > 0;) {
            received.append(buffer, static_cast<std::size_t>(n));
        }
        return received.ends_with(mark);
    }
    void answer(std::string_view text) const {
        EXPECT_EQ(send(peer.get(), text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }
    void stop_listening() { listener_.reset(); }

    unique_fd peer;
    std::string received;
    int connections = 0;

  private:
    sockaddr* generic() { return reinterpret_cast<sockaddr*>(&address_); }
    unique_fd listener_;
    sockaddr_in address_{};
};

constexpr const char* no_target =
    "HTTP/1.1 404 Not Found. Could not connect to proxy target\r\n\r\n"
    "404 Not Found. Could not connect to proxy target";

class forward_test : public relay_fixture {
  protected:
    // Sends a request and answers it with `pieces`, one a pass, once its head has arrived.
    std::string forward(const std::string& request, const std::vector<std::string>& pieces,
                        bool then_close = true) {
        std::size_t next = 0;
        return talk(request, [&] {
            if (next == 0 && !target.has_received("\r\n\r\n")) {
                return;
            }
            if (next < pieces.size()) {
                target.answer(pieces[next++]);
            } else if (then_close) {
                target.peer.reset();
            }
        });
    }
    [[nodiscard]] std::string request(const std::string& method = "GET",
                                      const std::string& headers = "") const {
        return method + " " + target.uri("http", "/x") + " HTTP/1.1\r\n" + headers + "\r\n";
    }

    hand_target target;
};

// Every one of these answers is complete although the target keeps its connection open.
TEST_F(forward_test, answers_end_where_they_say) {
    const struct {
        const char* method;
        std::vector<std::string> pieces;
    } rows[] = {
        {"GET", {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nhello"}},
        {"GET", {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", "he", "llo"}},
        {"GET", {"HTTP/1.1 200 OK\r\nContent-Le", "ngth: 5\r\n", "\r\nhello"}},
        {"GET", {"HTTP/1.1 404 Gone\r\nContent-Length: 0\r\n\r\n"}},
        {"GET", {"HTTP/1.1 204 No Content\r\n\r\n"}},
        {"GET", {"HTTP/1.1 304 Not Modified\r\nContent-Length: 99\r\n\r\n"}},
        {"HEAD", {"HTTP/1.1 200 OK\r\nContent-Length: 99\r\n\r\n"}},
        {"HEAD", {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"}},
        {"GET", {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n0\r\n\r\n"}},
        {"GET",
         {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", "5\r", "\nhel", "lo\r\n",
          "0\r\nA: b\r\n", "\r\n"}},
    };
    for (const auto& row : rows) {
        std::string expected;
        for (const std::string& piece : row.pieces) {
            expected += piece;
        }
        EXPECT_EQ(forward(request(row.method, "Connection: keep-alive\r\n"), row.pieces, false),
                  expected);
        target.peer.reset();
        target.received.clear();
    }
}

TEST_F(forward_test, status_follows_status_and_location_lines) {
    EXPECT_EQ(forward(request(), {"HTTP/1.1 301 Moved\r\nLocation: /y\r\n\r\n"}),
              "HTTP/1.1 302 Moved\r\nLocation: /y\r\n\r\n");
    target.received.clear();
    EXPECT_EQ(forward(request(), {"HTTP/1.1 200 OK\r\nStatus: 418 x\r\n\r\nbody"}),
              "HTTP/1.1 418 OK\r\nStatus: 418 x\r\n\r\nbody");
    target.received.clear();
    EXPECT_EQ(forward(request(), {"A: b\nStatus: 404\n\nbody"}), "A: b\nStatus: 404\n\nbody")
        << "a header is no status line";
}

TEST_F(forward_test, targets_that_fail_draw_their_errors_and_leave_nothing) {
    const std::string error = "HTTP/1.1 500 Error in proxy\r\n\r\n500 Error in proxy";
    const std::string bad = "HTTP/1.1 500 Bad headers sent\r\n\r\n500 Bad headers sent";
    EXPECT_EQ(forward(request(), {}), error);
    EXPECT_EQ(forward(request(), {"HTTP/1.1 200 OK\r\nConte"}), error);
    EXPECT_EQ(forward(request(), {std::string("HTTP/1.1 200 OK\r\nA: \1\r\n\r\n")}), bad);
    EXPECT_EQ(forward(request(), {"HTTP/1.1 200 OK\r\nA: " + std::string(20000, 'x')}), bad);
    EXPECT_EQ(forward(request(), {"HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\nshort"}),
              "HTTP/1.1 200 OK\r\nContent-Length: 50\r\n\r\nshort");
    target.stop_listening();
    EXPECT_EQ(talk(request()), no_target);
    EXPECT_EQ(talk("GET /http://127.0.0.1:65536/ HTTP/1.1\r\n\r\n"), no_target);
    EXPECT_EQ(talk("GET /http://" + std::string(300, 'h') + "/ HTTP/1.1\r\n\r\n"), no_target);
    EXPECT_EQ(talk("GET /httpu://any/x HTTP/1.1\r\n\r\n"), no_target) << "no role was recorded";
    EXPECT_EQ(shttpd_active(engine.ctx), 0);
    EXPECT_EQ(poll_revents(poll_high_water() - 1), 0);
}

TEST_F(forward_test, head_larger_than_the_buffer_is_refused) {
    engine.ctx->io_buf_size = 1024;
    const std::string error =
        "HTTP/1.1 500 Internal error while connecting to proxy.\r\n\r\n"
        "500 Internal error while connecting to proxy.";
    const auto with_path = [&](std::size_t length) {
        return "GET " + target.uri("http", "/" + std::string(length, 'p')) + " HTTP/1.1\r\n\r\n";
    };
    EXPECT_EQ(talk(with_path(970)), error);
    target.peer.reset();
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
    target.has_received("");  // takes the refused connection away
    target.peer.reset();
    EXPECT_EQ(forward(with_path(930), {answer}), answer);
}

TEST_F(forward_test, nothing_behind_a_body_reaches_the_target) {
    const std::string smuggled = "GET /admin HTTP/1.1\r\n\r\n";
    const auto body_received = [&](const std::string& headers, const std::string& body) {
        target.received.clear();
        const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
        bool answered = false;
        (void)talk(request("POST", headers) + body + smuggled, [&] {
            if (target.has_received(body) && !answered) {
                passes(3);
                (void)target.has_received(body);
                target.answer(answer);
                answered = true;
            }
        });
        target.peer.reset();
        return target.received.substr(target.received.find("\r\n\r\n") + 4);
    };
    EXPECT_EQ(body_received("Content-Length: 5\r\n", "hello"), "hello");
    const std::string large(100000, 'x');
    EXPECT_EQ(body_received("Content-Length: 100000\r\n", large), large);
    const std::string chunked = "3\r\nabc\r\n0\r\n\r\n";
    EXPECT_EQ(body_received("Transfer-Encoding: chunked\r\n", chunked), chunked);
    EXPECT_EQ(talk(request("POST", "Content-Length: 5\r\nContent-Length: 30\r\n") + smuggled),
              "HTTP/1.1 400 Bad headers\r\n\r\n400 Bad headers");
    EXPECT_EQ(target.connections, 3) << "an unclear request opens no connection";
}

// Only service requests keep the client's connection, and with it the target's.
TEST_F(forward_test, service_connection_is_reused_until_it_says_something) {
    const unique_fd client = engine.connect();
    const std::string line =
        "POST " + target.uri("hob", "/x") + " HTTP/1.1\r\nContent-Length: 4\r\n\r\n";
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
    const auto round = [&](const std::string& body) {
        target.received.clear();
        return talk_on(client.get(), line + body, answer, [&] {
            if (target.has_received(body) && !target.received.empty()) {
                target.answer(answer);
                target.received.clear();
            }
        });
    };
    EXPECT_EQ(round("one1"), answer);
    EXPECT_EQ(round("two2"), answer);
    EXPECT_EQ(target.connections, 1);
    // A target that closes while it is idle costs nothing and is connected anew.
    target.peer.reset();
    passes(5);
    EXPECT_EQ(round("tri3"), answer);
    EXPECT_EQ(target.connections, 2);
    // A stray byte belongs to no answer.
    target.answer("x");
    passes(5);
    target.peer.reset();
    EXPECT_EQ(round("for4"), answer);
    EXPECT_EQ(target.connections, 3);
    // More than the announced length: the next reply would begin nobody knows where.
    const std::string longer = answer + "EXTRA";
    target.received.clear();
    (void)talk_on(client.get(), line + "five", {}, [&] {
        if (target.has_received("five") && !target.received.empty()) {
            target.answer(longer);
            target.received.clear();
        }
    });
    EXPECT_TRUE(closed(client.get()));
}

TEST_F(forward_test, another_target_takes_the_place_of_the_kept_one) {
    hand_target other;
    const unique_fd client = engine.connect();
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
    for (hand_target* next : {&target, &other, &target}) {
        next->received.clear();
        next->peer.reset();
        const std::string line =
            "POST " + next->uri("hob", "/x") + " HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody";
        EXPECT_EQ(talk_on(client.get(), line, answer,
                          [&] {
                              if (next->has_received("body")) {
                                  next->received.clear();
                                  next->answer(answer);
                              }
                          }),
                  answer);
        hand_target* left = next == &target ? &other : &target;
        char byte = 0;
        EXPECT_TRUE(!left->peer || recv(left->peer.get(), &byte, 1, 0) == 0) << "still open";
    }
}

TEST_F(forward_test, service_without_process_is_refused) {
    const std::string error =
        "HTTP/1.1 500 Internal server error. Could not connect to hob server.\r\n\r\n"
        "500 Internal server error. Could not connect to hob server.";
    EXPECT_EQ(talk("GET /hob://h:/x HTTP/1.1\r\n\r\n"), error);
    EXPECT_EQ(talk("POST /hob://h:/x HTTP/1.1\r\nContent-Length: 1\r\n\r\nx"), error);
}

TEST_F(forward_test, large_answer_waits_for_a_slow_client) {
    const std::string body(400000, 'b');
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 400000\r\n\r\n" + body;
    std::string_view left = answer;
    EXPECT_EQ(talk(request(),
                   [&] {
                       if (!target.has_received("\r\n\r\n")) {
                           return;
                       }
                       const ssize_t n =
                           send(target.peer.get(), left.data(), left.size(), MSG_NOSIGNAL);
                       left.remove_prefix(n > 0 ? static_cast<std::size_t>(n) : 0);
                   }),
              answer);
}

}  // namespace
