// CGI programs inside the engine: the environment they get and the relay of what they write. What
// clients see of bad ones and what is left behind is asked of a real daemon.

#include "handlers/cgi.h"

#include <arpa/inet.h>
#include <sys/syscall.h>

#include "core/poll_set.h"
#include "handlers/chunked.h"
#include "lib/plat.h"
#include "lib/qz_vector.h"
#include "tests/handlers/relay_fixture.h"

namespace {

// Connects to a listener right before the daemon does; from another loopback address with the very
// port that the daemon gets.
struct {
    const char* address = nullptr;
    unique_fd socket;
} stranger;

int bound_socket(const char* address, in_port_t port, int fd) {
    const sockaddr_storage own = address_of(address, ntohs(port));
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&own), sizeof(sockaddr_in)), 0);
    return fd;
}

void send_stranger_ahead(int fd, const sockaddr* to, socklen_t length) {
    sockaddr_in own{};
    socklen_t size = sizeof own;
    bound_socket("127.0.0.1", 0, fd);
    getsockname(fd, reinterpret_cast<sockaddr*>(&own), &size);
    const bool same = std::string_view(stranger.address) == "127.0.0.1";
    stranger.socket.reset(bound_socket(stranger.address, same ? in_port_t{0} : own.sin_port,
                                       socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)));
    stranger.address = nullptr;
    EXPECT_EQ(connect(stranger.socket.get(), to, length), 0);
}

}  // namespace

extern "C" int connect(int fd, const sockaddr* to, socklen_t length) {
    if (stranger.address != nullptr) {
        send_stranger_ahead(fd, to, length);
    }
    return static_cast<int>(syscall(SYS_connect, fd, to, length));
}

namespace {

// --- The environment ---

class environment_test : public ::testing::Test {
  protected:
    environment_test() {
        clearenv();
        ctx.auth_realm = "realm";
        ctx.var_dir = "/var/x";
        ctx.document_root = "/srv";
        c.ctx = &ctx;
        c.peer = address_of("192.0.2.7", 4660);
        c.peer_length = sizeof(sockaddr_in);
        c.request.uri = "/x/run.cgi";
    }
    ~environment_test() override { setenv("PATH", "/usr/bin:/bin", 1); }

    void set_headers(const std::string& lines) {
        c.request.text = "GET / HTTP/1.1\r\n" + lines + "\r\n";
        c.request.headers_start = 16;
    }
    std::vector<std::string> build() {
        auto block = std::make_unique<env_block>();
        build_cgi_environment(&c, "/srv/x/run.cgi", block.get());
        std::vector<std::string> all;
        for (char** p = block->pointers; *p != nullptr; ++p) {
            all.emplace_back(*p);
        }
        return all;
    }

    shttpd_ctx ctx;
    conn c;
};

TEST_F(environment_test, names_everything_in_order) {
    setenv("PATH", "/p", 1);
    setenv("LC_TIME", "C", 1);
    c.request.method = method_post;
    c.request.recorded_role = "pub";
    c.request.has_query = true;
    c.request.query = "a=&b c";
    c.request.path_info = "more/of it";
    c.request.headers.content_type = "text/x";
    c.request.headers.content_length = 12;
    c.user_name = "ann@host";
    ctx.cgi_envvar = "ONE=1, TWO=2 , THREE=a b";
    c.groups = new_qz_vector(2, qzfree);
    qz_vector_pushback(c.groups, qzstrdup("a"));
    qz_vector_pushback(c.groups, qzstrdup("b"));
    set_headers("X-Foo-Bar: v\r\nEmpty: \r\nA:b\r\nNone:\r\n: x\r\nno colon\r\nproxy:  two\r\n");
    std::string all;
    for (const std::string& item : build()) {
        all += item + "|";
    }
    EXPECT_EQ(all,
              "GATEWAY_INTERFACE=CGI/1.1|SERVER_PROTOCOL=HTTP/1.1|REDIRECT_STATUS=200|"
              "SERVER_PORT=0|SERVER_NAME=realm|SERVER_ROOT=/srv|DOCUMENT_ROOT=/srv|"
              "REQUEST_METHOD=POST|PLX_VAR_DIR=/var/x|REMOTE_ADDR=192.0.2.7|REMOTE_PORT=4660|"
              "REQUEST_URI=/x/run.cgi|SCRIPT_NAME=/srv/x/run.cgi|SCRIPT_FILENAME=run.cgi|"
              "PATH_TRANSLATED=/srv/x/run.cgi|PLXE_ROLE=pub|PLX_GROUPS=a,b,|CONTENT_TYPE=text/x|"
              "QUERY_STRING=a=&b c|PATH_INFO=/more/of it|CONTENT_LENGTH=12|PATH=/p|LC_TIME=C|"
              "REMOTE_USER=ann@host|AUTH_TYPE=Basic|ONE=1|TWO=2 |THREE=a b|HTTP_X_FOO_BAR=v|"
              "HTTP_EMPTY=|HTTP_A=|HTTP_PROXY= two|");
    qz_vector_destroy(c.groups);
    c.groups = nullptr;
}

TEST_F(environment_test, stays_within_its_block) {
    c.peer.ss_family = AF_UNIX;
    set_headers("");
    const std::vector<std::string> base = build();
    EXPECT_EQ(base.at(9), "REMOTE_ADDR=-");
    EXPECT_EQ(base.at(10), "REQUEST_URI=/x/run.cgi") << "no port for a local peer";
    EXPECT_EQ(base.at(14), "PLXE_ROLE=admin") << "no role was recorded";

    const std::string large(3000, 'x');
    set_headers("Large: " + large + "\r\nAlso-Large: " + large + "\r\nSmall: s\r\n");
    const std::vector<std::string> full = build();
    EXPECT_EQ(full.at(full.size() - 2), "HTTP_LARGE=" + large);
    EXPECT_EQ(full.back(), "HTTP_SMALL=s") << "what does not fit is left out, the rest stays";
}

// --- Programs ---

// What a script wrote behind its headers, which end in bare line feeds.
std::string output_of(const std::string& reply) {
    const std::size_t blank = reply.find("\n\n");
    return blank == std::string::npos ? "no headers: " + reply : reply.substr(blank + 2);
}

class cgi_relay_test : public relay_fixture {
  protected:
    std::string script(const std::string& name, const std::string& text) const {
        const std::filesystem::path file = engine.root.write(name, "#!/bin/sh\n" + text);
        chmod(file.c_str(), 0755);
        return "/" + name;
    }
    // The reply to a request for a script with this text.
    std::string run(const std::string& text, const std::string& method = "GET",
                    const std::string& body = "") {
        return talk(make_request(method, script("run.cgi", text), body));
    }
};

TEST_F(cgi_relay_test, status_line_comes_from_the_headers) {
    const std::pair<std::string, std::string> rows[] = {
        {"Content-Type: text/plain", "HTTP/1.1 200 OK"},
        {"Status: 404 Not Found", "HTTP/1.1 404 OK"},
        {"Location: /elsewhere", "HTTP/1.1 302 OK"},
        {"Status: 201 Created\r\nLocation: /x", "HTTP/1.1 302 OK"},
        {"Status: 7 seven", "HTTP/1.1   7 OK"},
        {"Status: 12345", "HTTP/1.1 123 OK"},
        {"Status: none", "HTTP/1.1 200 OK"},
    };
    for (const auto& [headers, line] : rows) {
        engine.root.write("out", headers + "\r\n\r\nbody");
        EXPECT_EQ(run("cat out"), line + "\r\n" + headers + "\r\n\r\nbody");
    }
}

TEST_F(cgi_relay_test, bodies_reach_the_program_and_nothing_else_does) {
    const std::string count = "n=$(wc -c); printf 'A: b\\n\\n%d' $n";
    EXPECT_EQ(output_of(run(count)), "0") << "a GET has an end of input at once";
    EXPECT_EQ(output_of(run(count, "POST")), "0") << "and so has a POST without a body";
    const std::string path = script("cat.cgi", "printf 'A: b\\n\\n'; cat");
    const std::string behind = "GET /cat.cgi HTTP/1.1\r\n\r\n";
    EXPECT_EQ(output_of(talk(make_request("POST", path, "hello") + behind)), "hello");
    // A body without length goes up to its last chunk, without its trailer.
    const std::string chunked = "5\r\nhello\r\n0\r\n\r\n";
    const std::string post = "POST " + path + " HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n";
    EXPECT_EQ(output_of(talk(post + "5\r\nhello\r\n0\r\nA: b\r\n\r\n" + behind)), chunked);
    // Programs that wait for the end of a broken one are told by a reset that it did not come.
    const std::string mark = (engine.root.path() / "mark").string();
    script("cat.cgi", "cat >/dev/null && echo whole >" + mark + " || echo cut >" + mark);
    for (const char* broken : {"5\r\nhelloX", "5\r\nhello\r\n0\r\nAuthorization: x\r\n\r\n"}) {
        EXPECT_EQ(talk(post + broken), "HTTP/1.1 400 Bad headers\r\n\r\n400 Bad headers");
        std::string seen;
        while (seen.empty()) {
            seen = read_whole_file(mark);
        }
        EXPECT_EQ(seen, "cut\n");
        std::filesystem::remove(mark);
    }
}

TEST_F(cgi_relay_test, connection_stays_only_when_the_length_was_kept) {
    const std::string right = script("right.cgi", "printf 'Content-Length: 5\\n\\nright'");
    const std::string longer = script("longer.cgi", "printf 'Content-Length: 5\\n\\nlonger'");
    const unique_fd client = engine.connect();
    const std::string line = "HTTP/1.1 200 OK\r\nContent-Length: 5\n\n";
    EXPECT_EQ(talk_on(client, make_request("POST", right, std::string(3000, 'x')), line + "right"),
              line + "right");
    EXPECT_EQ(talk_on(client, make_request("POST", right, "0123456789"), line + "right"),
              line + "right");
    EXPECT_EQ(talk_on(client, get(longer)), line + "longer") << "and closed";
    // Nor where two readers find different ends.
    for (const std::string headers :
         {"Status: 304\r\nContent-Length: 5\r\n\r\n", "Status: 204\r\nContent-Length: 5\r\n\r\n",
          "Content-Length: 5, 9\r\n\r\n", "Content-Length: 9\r\nContent-Length: 5\r\n\r\n",
          "Transfer-Encoding: chunked\r\nContent-Length: 5\r\n\r\n"}) {
        engine.root.write("out", headers + "right");
        const std::string reply = run("cat out");  // which fails unless the engine closes
        EXPECT_TRUE(reply.ends_with(headers + "right")) << reply;
    }
}

TEST(chunks, end_or_break_at_the_byte_that_decides) {
    const struct {
        const char* bytes;
        bool complete;
        int beyond;  // bytes that are not taken, the one that breaks it included
    } rows[] = {
        {"5\r\nhello\r\n0\r\n\r\nGET", true, 3},
        {"A ;x=\"y\"\r\n0123456789\r\n0\t\r\n\r\n", true, 0},
        {"0\r\nA: b\r\nC: d\r\n\r\n", true, 0},
        {"5\rXhello", false, 6},
        {"5\nhello", false, 6},
        {"\r\n", false, 2},
        {"-1\r\n", false, 4},
        {"0x5\r\n", false, 4},
        {"0\r\n\n", false, 1},
        {"5;x\nhello", false, 6},
        {"G\r\n", false, 3},
        {"5x\r\n", false, 3},
        {"1\r\nab", false, 1},
        {"1\r\na\rb", false, 1},
        {"0\r\n\rX", false, 1},
        {"0\r\nA: b\nX", false, 2},
        {"0\r\nA: b\rX", false, 1},
        {"11111111111111111\r\n", false, 4},
    };
    for (const auto& row : rows) {
        for (const bool by_bytes : {false, true}) {
            const std::string_view bytes = row.bytes;
            chunk_scanner scanner;
            std::size_t at = by_bytes ? 0 : scanner.consume(bytes);
            while (by_bytes && at < bytes.size() && scanner.consume(bytes.substr(at, 1)) == 1) {
                ++at;
            }
            EXPECT_EQ(scanner.complete(), row.complete) << row.bytes;
            EXPECT_EQ(scanner.failed(), !row.complete) << row.bytes;
            EXPECT_EQ(bytes.size() - at, static_cast<std::size_t>(row.beyond)) << row.bytes;
        }
    }
}

TEST_F(cgi_relay_test, interim_answers_are_dropped) {
    EXPECT_EQ(run("printf 'Status: 103 Early Hints\\nLink: x\\n\\nHTTP/1.1 100 Continue\\n\\nA: "
                  "b\\n\\n'"),
              "HTTP/1.1 200 OK\r\nA: b\n\n");
}

// More than a pass may start.
TEST_F(cgi_relay_test, all_of_a_flood_are_answered) {
    const std::string request = get(script("run.cgi", "printf 'A: b\\n\\nrun'"));
    const unique_fd oldest = engine.connect();
    std::vector<unique_fd> clients(100);
    for (unique_fd& client : clients) {
        client = engine.connect();
        engine.say(client, request);
    }
    EXPECT_EQ(pass_without_starts(oldest), 100);
    for (const unique_fd& client : clients) {
        EXPECT_EQ(output_of(talk_on(client, "")), "run");
    }
}

// Its hang-up would be reported in every pass for as long as the client takes nothing.
TEST_F(cgi_relay_test, program_that_has_ended_is_not_listened_to_behind_a_full_buffer) {
    const std::string mark = (engine.root.path() / "mark").string();
    const std::string uri =
        script("run.cgi", "printf 'A: b\\n\\n'; head -c 60000 /dev/zero; echo >" + mark);
    const unique_fd client = engine.connect();
    conn* c = begin_stalled(client, get(uri));
    while (!std::filesystem::exists(mark)) {
        passes(1);
    }
    passes(20);
    EXPECT_EQ(c->local.room(), 0U);
    EXPECT_EQ(poll_revents(c->local.poll_index), 0);
    EXPECT_EQ(output_of(talk_on(client, "")).size(), 60000U);
}

// --- The connected pair ---

TEST_F(cgi_relay_test, pair_belongs_to_nobody_else) {
    for (const char* address : {"127.0.0.2", "127.0.0.1"}) {
        stranger.address = address;
        int sp[2] = {-1, -1};
        conn c;
        c.ctx = engine.ctx;
        ASSERT_EQ(my_socketpair(&c, sp), 0);
        EXPECT_TRUE(stranger.socket) << "the stranger came first";
        const unique_fd ours(sp[0]);
        const unique_fd theirs(sp[1]);
        char byte = 0;
        EXPECT_EQ(send(ours.get(), "x", 1, 0), 1);
        EXPECT_EQ(recv(theirs.get(), &byte, 1, MSG_DONTWAIT), 1);
        EXPECT_EQ(byte, 'x');
        stranger.socket.reset();
    }
}

TEST_F(cgi_relay_test, pair_without_descriptors_is_told_and_leaves_none) {
    const auto log = engine.root.path() / "log";
    engine.ctx->error_log = std::fopen(log.c_str(), "a");
    conn c;
    c.ctx = engine.ctx;
    const rlim_t first = next_descriptor();
    int sp[2] = {-1, -1};
    int result = -1;
    for (rlim_t few = first; result != 0; ++few) {
        {
            const lowered_limit limit(RLIMIT_NOFILE, few);
            result = my_socketpair(&c, sp);
        }
        EXPECT_TRUE(result == 0 || next_descriptor() == first);
    }
    close(sp[0]);
    close(sp[1]);
    const std::string text = read_whole_file(log);
    for (const char* call : {"socket", "accept"}) {
        EXPECT_TRUE(contains(text, std::string("mysocketpair: ") + call + "(): 24\n"));
    }
}

}  // namespace
