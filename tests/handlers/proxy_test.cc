// Forwarding inside the engine: what the URI names, what the target gets to read, where its answer
// ends, and what becomes of targets that misbehave.

#include "handlers/proxy.h"

#include <netinet/tcp.h>
#include <sys/syscall.h>

#include "core/background.h"
#include "core/poll_set.h"
#include "core/request.h"
#include "handlers/cgi_service.h"
#include "handlers/proxy_head.h"
#include "handlers/proxy_target.h"
#include "handlers/target.h"
#include "lib/base64.h"
#include "lib/qzstream.h"
#include "tests/handlers/relay_fixture.h"

namespace {

std::time_t clock_step = 0;

}  // namespace

// Stands in front of the C library's, so that a test need not wait for minutes.
extern "C" int clock_gettime(clockid_t id, timespec* result) noexcept {
    const auto status = static_cast<int>(syscall(SYS_clock_gettime, id, result));
    result->tv_sec += clock_step;
    return status;
}

namespace {

// --- What the URI says ---

class target_test : public ::testing::Test {
  protected:
    target_test() { c.ctx = &ctx; }
    ~target_test() override { forget_visit(&c); }

    shttpd_ctx ctx;
    conn c;
};

TEST_F(target_test, uri_names_scheme_host_port_and_path) {
    const std::tuple<const char*, const char*, const char*, int, const char*> rows[] = {
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
    for (const auto& [uri, scheme, host, port, path] : rows) {
        c.request.uri = uri;
        const proxy_target target = parse_target(&c);
        EXPECT_EQ(target.scheme, scheme) << uri;
        EXPECT_EQ(target.host, host) << uri;
        EXPECT_EQ(target.port, port) << uri;
        EXPECT_EQ(target.path, path) << uri;
        EXPECT_EQ(is_proxy(&c), *scheme != '\0') << uri;
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
        {"/https://127.0.0.1:00009180/x", true, "/x"},
        {"/http://127.0.0.1:18089/x", true, "/x"},
        {"/http://127.0.0.1:8080/x", false, nullptr},
        {"/http://127.0.0.1:918/x", false, nullptr},
        {"/http://127.0.0.1/9180", false, nullptr},
        {"/http://192.0.2.1:9180/x", false, nullptr},
        {"/http://no.such.host.invalid:9180/x", false, nullptr},
    };
    for (const auto& row : rows) {
        c.request.uri = row.uri;
        std::string path;
        bool own = is_loopback(&c, &path);
        while (c.request.target_lookup != nullptr) {  // "localhost" is asked for
            finish_background_jobs();
            own = is_loopback(&c, &path);
        }
        EXPECT_EQ(own, row.own) << row.uri;
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
        target.path = "/x";
        const stream_ptr out(new_qz_stream(16));
        if (!create_proxy_headers(&c, target, out.get())) {
            return std::nullopt;
        }
        return std::string(reinterpret_cast<const char*>(out->data), out->length);
    }
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
        {"Content-Length: 999999999999999999\r\n", true},
        {"Content-Length: 0000000000000000005\r\n", false},
        {"Content-Length: \r\n", false},
        {"Transfer-Encoding: gzip, chunked\r\n", false},
        {"Transfer-Encoding:chunked\r\n", false},
        {"Content-Length : 5\r\n", false},
    };
    for (const auto& [lines, clear] : rows) {
        set_headers(lines);
        EXPECT_EQ(has_clear_body(&c), clear) << lines;
    }
}

// --- Targets ---

// A TCP server on a loopback port that a test drives by hand.
class hand_target {
  public:
    [[nodiscard]] std::string uri(const std::string& scheme, const std::string& path) const {
        return "/" + scheme + "://127.0.0.1:" + std::to_string(listener_.port()) + path;
    }
    // Accepts and reads what is there; true once `received` ends with `mark`.
    bool has_received(std::string_view mark) {
        if (!peer) {
            peer.reset(accept4(listener_.fd.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
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
    // Whether the daemon has closed its side.
    bool has_ended() {
        char buffer[65536];
        ssize_t n = 1;
        while (n > 0) {
            n = recv(peer.get(), buffer, sizeof buffer, 0);
        }
        return n == 0 || errno == ECONNRESET;
    }
    void forget() {
        peer.reset();
        received.clear();
    }

    unique_fd peer;
    std::string received;
    int connections = 0;

  private:
    loopback_listener listener_{8, SOCK_NONBLOCK};
};

class forward_test : public relay_fixture {
  protected:
    // Sends a request and answers it with `pieces`, one a pass, once its head has arrived.
    std::string forward(const std::string& request, const std::vector<std::string>& pieces,
                        bool then_close = true) {
        target.forget();
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
    [[nodiscard]] std::string request(const std::string& headers = "") const {
        return "GET " + target.uri("http", "/x") + " HTTP/1.1\r\n" + headers + "\r\n";
    }

    hand_target target;
};

// Every one of these answers is complete although the target keeps its connection open.
TEST_F(forward_test, answers_end_where_they_say_however_they_are_cut) {
    const std::string chunks = "\r\n\r\n5\r\nhello\r\n0\r\n\r\n";
    const std::vector<std::string> rows[] = {
        {"HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\n", "he", "llo"},
        {"HTTP/1.1 200 OK\r\nContent-Le", "ngth: 5\r\n", "\r\nhello"},
        {"HTTP/1.1 200 OK\r\ncontent-length:5 \r\n\r\nhello"},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: identity\r\nContent-Length: 5\r\n\r\nhello"},
        {"HTTP/1.1 200 OK\r\nContent-Length: 00\r\n\r\n"},
        {"HTTP/1.1 304 Not Modified\r\nContent-Length: 99\r\n\r\n"},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", "5\r", "\nhel", "lo\r\n",
         "0\r\nA: b\r\n", "\r\n"},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding:chunked" + chunks},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: Chunked " + chunks},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked" + chunks},
        {"HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip\r\nTransfer-Encoding: chunked" + chunks},
    };
    for (const std::vector<std::string>& pieces : rows) {
        EXPECT_EQ(forward(request("Connection: keep-alive\r\n"), pieces, false),
                  std::accumulate(pieces.begin(), pieces.end(), std::string()));
    }
}

TEST_F(forward_test, answers_without_a_length_that_can_be_read_end_with_the_target) {
    for (const char* value : {": undefined", ": +5", ": -5", ":", ": 5\r\nContent-Length: 0"}) {
        const std::string answer =
            "HTTP/1.1 200 OK\r\nContent-Length" + std::string(value) + "\r\n\r\nhello";
        EXPECT_EQ(forward(request(), {answer}), answer);
    }
}

TEST_F(forward_test, interim_answers_are_dropped) {
    const std::string last = "HTTP/1.1 404 No\r\nContent-Length: 0\r\n\r\n";
    const std::vector<std::string> pieces = {
        "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 1", "02 Processing\r\n\r",
        "\nHTTP/1.1 103 Early Hints\r\nLocation: /x\r\n\r\n" + last};
    for (const char* method : {"GET", "HEAD"}) {
        EXPECT_EQ(forward(method + request().substr(3), pieces, false), last);
    }
    const std::string upgrade = "HTTP/1.1 101 Switching Protocols\r\n\r\nbytes";
    EXPECT_EQ(forward(request(), {upgrade}), upgrade);
    EXPECT_EQ(forward(request(), {"HTTP/1.1 100 Continue\r\n\r\n"}),
              "HTTP/1.1 500 Error in proxy\r\n\r\n500 Error in proxy");
}

TEST_F(forward_test, broken_chunks_of_an_answer_end_both_sides) {
    const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
    EXPECT_EQ(forward(request(), {head, "5\r\nhello\r\n", "zz\r\nmore"}, false),
              head + "5\r\nhello\r\n");
    EXPECT_TRUE(target.has_ended());
}

// What the target has received behind the head of an upload with these bytes for a body.
class upload_test : public forward_test {
  protected:
    std::string upload(const std::string& body) {
        target.forget();
        bool answered = false;
        reply = talk("POST " + target.uri("http", "/x") +
                         " HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n" + body,
                     [&] {
                         if (target.has_received("0\r\n\r\n") && !answered) {
                             answered = true;
                             target.answer("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n");
                         }
                     });
        (void)target.has_received("");
        return target.received.substr(target.received.find("\r\n\r\n") + 4);
    }
    const std::string bad = "HTTP/1.1 400 Bad headers\r\n\r\n400 Bad headers";
    std::string reply;
};

TEST_F(upload_test, trailers_stay_here) {
    EXPECT_EQ(upload("5;a=b\r\nhello\r\n0\r\nA: b\r\nPlx: c\r\n\r\nGET / HTTP/1.1\r\n\r\n"),
              "5;a=b\r\nhello\r\n0\r\n\r\n");
    EXPECT_TRUE(reply.starts_with("HTTP/1.1 200 OK")) << reply;
    for (const char* name : {"Authorization", "aUTHORIZATION ", "PLX-Role", "plx-", "X-PLX-User"}) {
        const std::string received =
            upload("5\r\nhello\r\n0\r\nA: b\r\n" + std::string(name) + ": x\r\n\r\n");
        EXPECT_EQ(reply, bad) << name;
        EXPECT_FALSE(received.ends_with("\r\n\r\n")) << received;
        EXPECT_TRUE(target.has_ended());
    }
}

TEST_F(upload_test, broken_chunks_are_refused) {
    for (const char* body : {"x", "5\r\nhelloX", "5\nhello\r\n0\r\n\r\n", "0\r\nA: b\nc\r\n\r\n"}) {
        (void)upload(body);
        EXPECT_EQ(reply, bad) << body;
        EXPECT_TRUE(target.has_ended()) << body;
    }
    // Once the answer has begun nothing can be said any more: both sides end.
    target.forget();
    const unique_fd client = engine.connect();
    const std::string begun = "HTTP/1.1 200 OK\r\n\r\nbegun";
    const std::string request = "POST " + target.uri("http", "/x") +
                                " HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n";
    EXPECT_EQ(talk_on(client, request, begun,
                      [&] {
                          if (target.has_received("hello\r\n")) {
                              target.received.clear();
                              target.answer(begun);
                          }
                      }),
              begun);
    EXPECT_EQ(talk_on(client, "broken"), "");
    EXPECT_TRUE(target.has_ended());
}

TEST_F(forward_test, status_follows_status_and_location_lines) {
    EXPECT_EQ(forward(request(), {"HTTP/1.1 301 Moved\r\nLocation: /y\r\n\r\n"}),
              "HTTP/1.1 302 Moved\r\nLocation: /y\r\n\r\n");
    EXPECT_EQ(forward(request(), {"HTTP/1.1 200 OK\r\nStatus: 418 x\r\n\r\nbody"}),
              "HTTP/1.1 418 OK\r\nStatus: 418 x\r\n\r\nbody");
    EXPECT_EQ(forward(request(), {"A: b\nStatus: 404\n\nbody"}), "A: b\nStatus: 404\n\nbody")
        << "a header is no status line";
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
    target.has_received("");  // takes the refused connection away
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";
    EXPECT_EQ(forward(with_path(930), {answer}), answer);
}

// What it says would be reported in every pass for as long as the client takes nothing.
TEST_F(forward_test, target_is_not_listened_to_behind_a_whole_answer) {
    const unique_fd client = engine.connect();
    const conn* c = begin_stalled(client, request());
    while (!target.has_received("\r\n\r\n")) {
        passes(1);
    }
    target.answer("HTTP/1.1 200 OK\r\nContent-Length: 12000\r\n\r\n" + std::string(12000, 'x'));
    while (c->local.total < 12000) {
        passes(1);
    }
    target.answer("surplus");
    passes(3);
    EXPECT_GT(c->local.pending(), 0U);
    EXPECT_EQ(poll_revents(c->local.poll_index), 0);
    EXPECT_EQ(body_of(talk_on(client, "")).size(), 12000U);
}

// The companion takes the request of a client that leaves, and never answers it.
TEST_F(forward_test, answer_that_nobody_waits_for_holds_others_up_for_five_minutes) {
    const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
    const std::string take = "dd bs=100 count=1 >/dev/null 2>&1\n";
    const auto taken = engine.root.path() / "taken";
    const auto program = engine.root.write("bin/hobintf", "#!/bin/sh\necho 'PORT : 1'\n" + take +
                                                              ": >'" + taken.string() + "'\n" +
                                                              take + "printf '" + answer + "'\n");
    ASSERT_EQ(chmod(program.c_str(), 0755), 0);
    engine.ctx->cgi_envvar = "PLX_INSTALL_ROOT=" + engine.root.path().string();
    ASSERT_EQ(run_cgi_as_service(engine.ctx, "HOBINTF", "hobintf"), 0);
    const std::string request = "GET /hob://h:/x HTTP/1.1\r\n\r\n";
    unique_fd leaver = engine.connect();
    engine.say(leaver, request);
    passes(3);
    leaver.reset();
    passes(1);
    while (!std::filesystem::exists(taken)) {  // else one look of the companion takes both requests
        passes(1);
    }
    clock_step = 200;
    const unique_fd client = engine.connect();
    engine.say(client, request);
    passes(3);
    EXPECT_TRUE(engine.ctx->connections.first()->held);
    clock_step = 301;
    EXPECT_EQ(talk_on(client, "", answer), answer);
    clock_step = 0;
    (void)stop_cgi_services();
}

// Only service requests keep the client's connection, and with it the target's.
class kept_target_test : public forward_test {
  protected:
    // One request with a body to `to`, which answers with `reply`. Returns what the client gets.
    std::string ask(hand_target* to, const std::string& reply, const std::string& method = "POST") {
        const std::string request =
            method + " " + to->uri("hob", "/x") + " HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody";
        to->received.clear();
        const std::string enough =
            reply.substr(0, method == "HEAD" ? reply.find("\r\n\r\n") + 4 : reply.size());
        return talk_on(client, request, enough, [&] {
            if (to->has_received("body")) {
                to->received.clear();
                to->answer(reply);
            }
        });
    }

    const std::string ok = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
    unique_fd client = engine.connect();
};

TEST_F(kept_target_test, serves_until_it_says_something) {
    EXPECT_EQ(ask(&target, ok), ok);
    EXPECT_EQ(ask(&target, ok), ok);
    EXPECT_EQ(target.connections, 1);
    int no_delay = 0;
    socklen_t size = sizeof no_delay;
    const int fd = engine.ctx->connections.first()->target->fd.get();
    EXPECT_EQ(getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &no_delay, &size), 0);
    EXPECT_NE(no_delay, 0) << "the second would wait for the first one's acknowledgement";
    // A target that closes while it is idle costs nothing and is connected anew.
    target.peer.reset();
    passes(5);
    EXPECT_EQ(ask(&target, ok), ok);
    EXPECT_EQ(target.connections, 2);
    // A stray byte belongs to no answer.
    target.answer("x");
    passes(5);
    target.peer.reset();
    EXPECT_EQ(ask(&target, ok), ok);
    EXPECT_EQ(target.connections, 3);
    // More than the announced length: the next reply would begin nobody knows where.
    EXPECT_TRUE(ask(&target, ok + "EXTRA").starts_with(ok));
    (void)talk_on(client, "");  // which fails unless the engine closes
}

// It may close in the moment in which the next request goes out.
TEST_F(kept_target_test, request_is_repeated_once_when_the_target_ends_before_its_answer) {
    EXPECT_EQ(ask(&target, ok), ok);
    const std::string request =
        "POST " + target.uri("hob", "/x") + " HTTP/1.1\r\nContent-Length: 4\r\n\r\nbody";
    const std::string error = "HTTP/1.1 500 Error in proxy\r\n\r\n500 Error in proxy";
    target.received.clear();
    for (int ends : {1, 2}) {
        const std::string& enough = ends == 1 ? ok : error;
        EXPECT_EQ(talk_on(client, request, enough,
                          [&] {
                              if (!target.has_received("body")) {
                                  return;
                              }
                              EXPECT_EQ(target.received, "body");
                              target.received.clear();
                              if (ends-- > 0) {
                                  target.peer.reset();
                              } else {
                                  target.answer(ok);
                              }
                          }),
                  enough);
    }
    EXPECT_EQ(target.connections, 3);
}

// Where the client can't tell the end of an answer, it is told by the end of the connection.
TEST_F(kept_target_test, doubtful_answers_end_the_client) {
    for (const char* reply :
         {"HTTP/1.1 304 No\r\nContent-Length: 2\r\n\r\n",
          "HTTP/1.1 204 OK\r\nContent-Length: 2\r\n\r\n",
          "HTTP/1.1 200 OK\r\nContent-Length: 2, 50\r\n\r\nok",
          "HTTP/1.1 200 OK\r\nContent-Length: 0000000000000000002\r\n\r\nok",
          "HTTP/1.1 200 OK\r\nContent-Length: 9\r\nContent-Length: 2\r\n\r\nok",
          "HTTP/1.1 200 OK\r\nConnection: Close\r\nContent-Length: 2\r\n\r\nok"}) {
        client = engine.connect();
        EXPECT_EQ(ask(&target, reply), reply);
        EXPECT_EQ(talk_on(client, ""), "") << reply;
        target.forget();
    }
    client = engine.connect();
    const std::string endless = "HTTP/1.1 200 OK\r\n\r\nok";
    EXPECT_EQ(ask(&target, endless), endless);
    target.peer.reset();
    EXPECT_EQ(talk_on(client, ""), "") << "only the close ends it";
    target.forget();
    // The service can't know that the request was a HEAD; the body may come later.
    const std::string head = ok.substr(0, ok.size() - 2);
    for (const std::string& reply : {ok, head}) {
        client = engine.connect();
        EXPECT_EQ(ask(&target, reply, "HEAD"), head);
        EXPECT_EQ(talk_on(client, ""), "");
        target.forget();
    }
}

TEST_F(kept_target_test, gives_way_to_another_one) {
    hand_target other;
    for (hand_target* next : {&target, &other, &target}) {
        next->peer.reset();
        EXPECT_EQ(ask(next, ok), ok);
        hand_target* left = next == &target ? &other : &target;
        char byte = 0;
        EXPECT_TRUE(!left->peer || recv(left->peer.get(), &byte, 1, 0) == 0) << "still open";
    }
}

}  // namespace
