// Proves the engine's contract in one process: embedded handlers, keep-alive, pipelining, bodies,
// early errors, error handlers, files, PUT and DELETE, and that nothing is left behind.
#include <sys/syscall.h>

#include <atomic>

#include "core/endpoint.h"
#include "core/loop_watch.h"
#include "core/pass_work.h"
#include "handlers/io_emb.h"
#include "handlers/io_file.h"
#include "tests/support/engine_fixture.h"

namespace {

std::atomic<std::time_t> wall_clock_step = 0;
std::atomic<std::int64_t> frozen_us = 0;  // what the monotonic clock says; 0: its own time

}  // namespace

// Stands in front of the C library's, so that a test can move the system's time.
extern "C" std::time_t time(std::time_t* result) {
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now);
    now.tv_sec += wall_clock_step;
    if (result != nullptr) {
        *result = now.tv_sec;
    }
    return now.tv_sec;
}

extern "C" int clock_gettime(clockid_t clock, timespec* result) noexcept {
    if (clock == CLOCK_MONOTONIC && frozen_us != 0) {
        *result = {.tv_sec = frozen_us / 1000000, .tv_nsec = frozen_us % 1000000 * 1000};
        return 0;
    }
    return static_cast<int>(syscall(SYS_clock_gettime, clock, result));
}

namespace {

void say_hello(shttpd_call_arg* arg) {
    if ((arg->flags & ARG_CONNECTION_ERROR) != 0) {
        return;
    }
    shttpd_printf(arg, "HTTP/1.1 203 Hi\r\n\r\n%s", static_cast<const char*>(arg->user_data));
    arg->flags |= ARG_END_OF_OUTPUT;
}

int farewells = 0;

// Writes for ever until the connection goes away.
void never_ends(shttpd_call_arg* arg) {
    if ((arg->flags & ARG_CONNECTION_ERROR) != 0) {
        ++farewells;
        EXPECT_STREQ(shttpd_get_env(arg, "REQUEST_URI"), "/endless");  // still readable
        EXPECT_EQ(arg->out.len, 0);
        return;
    }
    std::memset(arg->out.ptr, 'x', static_cast<std::size_t>(arg->out.len));
    arg->out.used = arg->out.len;
}

using Embedded = engine_test;
using Engine = engine_test;
using Files = engine_test;
using Listings = engine_test;

TEST(Patterns, GreedyFirstAndWithoutBacktracking) {
    const test_engine engine(true);
    const std::vector<std::pair<std::string, std::vector<const char*>>> rows = {
        {"/world/ping", {"/world/ping"}},
        {"/adm/*", {"/adm/", "/adm/x/y"}},
        {"/a*b", {"/axb"}},
        {"/x**y*", {"/xaay"}},
        {"", {"/world/ping/", "/world/pingx", "/World/ping", "/adm", "/axbyb", "/a", "/xaa"}}};
    for (const auto& [pattern, uris] : rows) {
        shttpd_register_uri(engine.ctx, pattern.c_str(), say_hello, nullptr);
    }
    for (const auto& [pattern, uris] : rows) {
        for (const char* uri : uris) {
            const registered_uri* found = is_registered_uri(engine.ctx, uri);
            EXPECT_EQ(found != nullptr ? found->uri : "", pattern) << uri;
        }
    }
}

TEST(Variables, AreFoundByWholeNameIgnoringCase) {
    const std::string text = "ba=1&A=2%20x+y&empty=&last=end&nov";
    const auto value = [&](const char* name, int size) { return get_variable(text, name, size); };
    EXPECT_EQ(value("a", 32) + "|" + value("a", 3) + "|" + value("empty", 32), "2 x y|2 |");
    EXPECT_EQ(value("LAST", 32) + "|" + value("nov", 32), "end|");
    const int length = static_cast<int>(text.size());
    char buffer[8];
    EXPECT_EQ(shttpd_get_var("nov", text.data(), length, buffer, 8), -1);
    EXPECT_EQ(shttpd_get_var("a", nullptr, 0, buffer, 8), -1);
    EXPECT_EQ(shttpd_get_var("a", text.data(), length, buffer, 0), 0);
    const char* raw = nullptr;
    EXPECT_EQ(shttpd_get_var_nodecode_nocopy("a", text.data(), length, &raw), 7);
    EXPECT_EQ(std::string(raw, 7), "2%20x+y");
}

TEST(Printf, CutsAtTheRoomAndCountsTheZeroByte) {
    char room[8];
    shttpd_call_arg arg{};
    arg.out = {.ptr = room, .len = 8, .used = 0};
    EXPECT_EQ(shttpd_printf(&arg, "%s", "abc"), 3);
    EXPECT_EQ(shttpd_printf(&arg, "%s", "defgh"), 5);
    EXPECT_EQ(std::string(room, 8), std::string("abcdefg\0", 8));
    EXPECT_EQ(shttpd_printf(&arg, "x"), 0);
}

TEST(Headers, CanBeLookedUpAnyNumberOfTimes) {
    for (const char* end : {"\r\n", "\n"}) {
        conn c;
        std::string& text = c.request.text;
        text = "GET / HTTP/1.1";
        c.request.headers_start = text.size() + std::strlen(end);
        for (const char* line : {"", "Aa: 1", "Bb:", "Cc-Long: 3", ""}) {
            text.append(line).append(end);
        }
        shttpd_call_arg arg{};
        arg.connection = &c;
        for (int round = 0; round < 4; ++round) {
            EXPECT_STREQ(shttpd_get_header(&arg, "Cc-Long"), "3");
            EXPECT_STREQ(shttpd_get_header(&arg, "aA"), "1");
            EXPECT_STREQ(shttpd_get_header(&arg, "Bb"), "");
            EXPECT_EQ(shttpd_get_header(&arg, "Dd"), nullptr);
        }
    }
}

TEST_F(Engine, ARequestSplitAtEveryByteIsTheSameRequest) {
    engine.root.write("f", "content");
    const unique_fd client = engine.connect();
    const std::string three = get("/f") + "HEAD /f HTTP/1.1\r\n\r\n" + get("/f");
    std::string reply;
    for (const char byte : three) {
        reply += engine.exchange_on(client, {&byte, 1}, 1);
    }
    reply += engine.exchange_on(client, "");
    const std::size_t half = reply.find("\r\n\r\ncontentHTTP/1.1 200 OK\r\n");
    EXPECT_NE(half, std::string::npos);
    // HEAD sends headers only.
    EXPECT_EQ(reply,
              reply.substr(0, half + 11) + reply.substr(0, half + 4) + reply.substr(0, half + 11));
}

TEST_F(Engine, EarlyErrorsAreAnsweredBySilence) {
    engine.root.write("f", "content");
    const std::vector<std::string> silent = {
        "FOO / HTTP/1.1\r\n\r\n", "GET /\r\n\r\n", "GET / HTTP/1.1\r\nA:\tb\r\n\r\n",
        "GET /" + std::string(20000, 'a') + " HTTP/1.1\r\n\r\n"};
    for (const std::string& bytes : silent) {
        const unique_fd client = engine.connect();
        EXPECT_EQ(engine.exchange_on(client, bytes), "") << bytes.substr(0, 40);
        // Nor is anything behind the error taken for a request.
        EXPECT_EQ(engine.exchange_on(client, get("/f")), "");
        EXPECT_EQ(shttpd_active(engine.ctx), 1);
    }
    engine.poll();
    EXPECT_EQ(shttpd_active(engine.ctx), 0);
}

TEST_F(Engine, DeliveredErrorsHaveTheirExactText) {
    std::filesystem::create_directory(engine.root.path() / "dir");
    engine.root.write("f", "0123456789");
    engine.root.write("pub/.dovmaaccess", "x:user\n");
    const std::vector<std::pair<const char*, std::string>> rows = {
        {"GET / HTTP/2.0\r\n\r\n", "505 HTTP version not supported"},
        {"GET / HTTP/1.1x\r\n\r\n", "400 Bad HTTP version"},
        {"GET x/y HTTP/1.1\r\n\r\n", "400 Bad URI"},
        {"GET /none HTTP/1.1\r\n\r\n", "404 Not Found"},
        {"GET /dir HTTP/1.1\r\n\r\n", "301 Moved Permanently\r\nLocation: /dir/"},
        {"GET /pub/.dovmaaccess HTTP/1.1\r\n\r\n", "404 Not Found"},  // the dot goes
        {"GET /x.dovmaaccess HTTP/1.1\r\n\r\n", "403 Forbidden"},
        {"GET /pipe HTTP/1.1\r\n\r\n", "500 Internal Error"},
        {"PUT /n HTTP/1.1\r\n\r\n", "411 Length Required"},
        {"PUT /n HTTP/1.1\r\nRange: x\r\n\r\n", "501 PUT Range Not Implemented"},
        {"PUT /new/dirs/ HTTP/1.1\r\n\r\n", "200 OK"},
        {"PUT /dir HTTP/1.1\r\nContent-Length: 1\r\n\r\na", "500 PUT Error"},
        {"PUT /x.cgi HTTP/1.1\r\nContent-Length: 1\r\n\r\na", "501 Bad method "},
        {"DELETE /none HTTP/1.1\r\n\r\n", "500 DELETE Error"},
        {"GET /f HTTP/1.1\r\nRange: bytes=11-\r\n\r\n", "416 Requested Range Not Satisfiable"},
        {"GET /f HTTP/1.1\r\nRange: bytes=5-3\r\n\r\n", "416 Requested Range Not Satisfiable"},
        {"GET /f HTTP/1.1\r\nIf-Modified-Since: 01 Jan 2060 00:00:00\r\n\r\n", "304 Not Modified"},
    };
    ASSERT_EQ(mkfifo((engine.root.path() / "pipe").c_str(), 0600), 0);  // must not block the loop
    engine.poll();
    const auto before = descriptors_in_use();
    for (const auto& [request, text] : rows) {
        std::string expected = "HTTP/1.1 ";
        expected.append(text).append("\r\n\r\n").append(text);
        EXPECT_EQ(engine.exchange(request), expected) << request;
    }
    EXPECT_TRUE(std::filesystem::is_directory(engine.root.path() / "new/dirs"));
    drop_cached_files();
    EXPECT_EQ(descriptors_in_use(), before);
}

TEST_F(Files, RangesEndOneByteEarly) {
    std::string content;
    for (int i = 0; i < 1000; ++i) {
        content += static_cast<char>('a' + i % 26);
    }
    engine.root.write("f", content);
    const struct {
        const char* range;
        std::string content_range;  // empty: the header counts as absent
        std::size_t from;
        std::size_t length;
    } rows[] = {
        {"bytes=10-", "10-999", 10, 990},   {"bytes=0-99", "0-98", 0, 99},
        {"bytes=0-5000", "0-999", 0, 1000}, {"bytes=1000-", "1000-999", 0, 0},
        {"bytes=5-5", "5-4", 0, 0},         {"bytes=0-0", "0-18446744073709551615", 0, 0},
        {"items=1-2", "", 0, 1000},         {"bytes=", "", 0, 1000},
    };
    const unique_fd client = engine.connect();
    for (const auto& r : rows) {
        const std::string reply = engine.exchange_on(
            client, std::string("GET /f HTTP/1.1\r\nRange: ") + r.range + "\r\n\r\n");
        const bool partial = !r.content_range.empty();
        EXPECT_TRUE(reply.starts_with(partial ? "HTTP/1.1 206 Partial Content\r\n"
                                              : "HTTP/1.1 200 OK\r\n"));
        EXPECT_EQ(body_of(reply), content.substr(r.from, r.length)) << r.range;
        const std::string line =
            "bytes\r\n" + (partial ? "Content-Range: bytes " + r.content_range + "/1000\r\n" : "") +
            "\r\n";
        EXPECT_TRUE(contains(reply, "Accept-Ranges: " + line));
        EXPECT_TRUE(contains(reply, "Content-Length: " + std::to_string(r.length) + "\r\n"));
    }
}

TEST_F(Files, PutStoresExactlyTheBodyAndCloses) {
    const std::string body(70000, 'p');
    const std::string request =
        make_request("PUT", "/a/b/new.bin", body) + get("/a/b/new.bin");  // pipelined: dropped
    EXPECT_EQ(engine.exchange(request),
              "HTTP/1.1 201 OK\r\nContent-Length: 70000\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(read_whole_file(engine.root.path() / "a/b/new.bin"), body);
    EXPECT_EQ(engine.exchange(make_request("PUT", "/a/b/new.bin", "tiny")),
              "HTTP/1.1 200 OK\r\nContent-Length: 4\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(read_whole_file(engine.root.path() / "a/b/new.bin"), "tiny");
    // Beside a coding the length counts.
    EXPECT_EQ(engine.exchange("PUT /a/c HTTP/1.1\r\nContent-Length: 2\r\nTransfer-Encoding: "
                              "chunked\r\n\r\n0\r\n\r\n" +
                              get("/a/c")),
              "HTTP/1.1 201 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(engine.exchange(make_request("DELETE", "/a/b/new.bin")),
              "HTTP/1.1 200 OK\r\n\r\n200 OK");
    EXPECT_FALSE(std::filesystem::exists(engine.root.path() / "a/b/new.bin"));
    // A prefix that no buffer holds fails the request, not the daemon.
    EXPECT_EQ(engine.exchange(make_request("PUT", "/" + std::string(2100, 'd') + "/x", "y")),
              "HTTP/1.1 500 PUT Directory Error\r\n\r\n500 PUT Directory Error");
}

TEST_F(Engine, NothingBehindABodyOfDoubtfulLengthIsARequest) {
    engine.root.write("f", "content");
    const std::vector<std::pair<const char*, bool>> rows = {
        {"Content-Length: 0\r\n", true},
        {"Content-Length:40\r\n", false},
        {"Content-Length: 0000000000000000000\r\n", false},
        {"Content-Length: 40\r\nContent-Length: 0\r\n", false},
    };
    for (const auto& [lines, goes_on] : rows) {
        const std::string replies =
            engine.exchange(std::string("GET /f HTTP/1.1\r\n") + lines + "\r\n" + get("/f"));
        EXPECT_TRUE(body_of(replies).starts_with("content")) << lines;
        EXPECT_EQ(replies.find("HTTP/1.1", 1) != std::string::npos, goes_on) << lines;
    }
}

TEST_F(Embedded, AHandlerHearsOfALostConnectionOnce) {
    shttpd_register_uri(engine.ctx, "/endless", never_ends, nullptr);
    farewells = 0;
    {
        const unique_fd client = engine.connect();
        EXPECT_NE(engine.exchange_on(client, get("/endless"), 1), "");
    }
    engine.poll(5);
    EXPECT_EQ(farewells, 1);
    EXPECT_EQ(shttpd_active(engine.ctx), 0);
}

void tells_versions(shttpd_call_arg* arg) {
    unsigned long major = 0;
    unsigned long minor = 0;
    shttpd_get_http_version(arg, &major, &minor);
    shttpd_printf(arg, "HTTP/1.1 200 OK\r\n\r\n%s, %lu.%lu", shttpd_version(), major, minor);
    for (const char* name :
         {"REQUEST_METHOD", "REQUEST_URI", "QUERY_STRING", "REMOTE_USER", "PATH"}) {
        const char* value = shttpd_get_env(arg, name);
        shttpd_printf(arg, " %s", value != nullptr ? value : "-");
    }
    arg->flags |= ARG_END_OF_OUTPUT;
}

TEST_F(Embedded, HandlersKnowTheRequestAndTheVersions) {
    shttpd_protect_uri(engine.ctx, "/versions", "/none");  // nothing consults it
    shttpd_register_uri(engine.ctx, "/versions", tells_versions, nullptr);
    EXPECT_EQ(body_of(engine.exchange("GET /versions HTTP/1.0\r\n\r\n")),
              "1.0, 1.0 GET /versions - - -");
    EXPECT_EQ(body_of(engine.exchange(get("/versions?a=b"))), "1.0, 1.1 GET /versions a=b - -");
}

TEST_F(Embedded, ErrorHandlersReplaceTheReply) {
    static char data[] = "mine";
    shttpd_handle_error(engine.ctx, 404, say_hello, data);
    EXPECT_EQ(engine.exchange(get("/none")), "HTTP/1.1 203 Hi\r\n\r\nmine");
    EXPECT_EQ(engine.exchange(get("/x") + get("/y")), "HTTP/1.1 203 Hi\r\n\r\nmine");
}

TEST_F(Engine, ConnectionsExpireOnlyWithoutProgress) {
    engine.root.write("f", "content");
    const unique_fd idle = engine.connect();
    const unique_fd half = engine.connect();
    EXPECT_EQ(engine.exchange_on(half, "GET /f HT"), "");
    EXPECT_EQ(shttpd_active(engine.ctx), 2);
    // Expiry times are moved instead of the clock, which every pass reads afresh.
    for (conn& c : engine.ctx->connections) {
        EXPECT_NEAR(static_cast<double>(c.expire_time - monotonic_seconds), 300, 1);
        c.expire_time = monotonic_seconds - 1;
        visit_at(&c, 1);
    }
    sleep(1);
    engine.poll();
    EXPECT_EQ(shttpd_active(engine.ctx), 0);
}

void think_long(shttpd_call_arg* arg) {
    usleep(300000);
    show_success(arg);
}

TEST_F(Engine, LongPassesAreToldWithTheirCause) {
    static constexpr endpoint row = {"/think", endpoint_method::any, endpoint_body::ignored,
                                     think_long};
    register_endpoints(engine.ctx, {&row, 1});
    log_longest_pass(engine.ctx);  // of earlier tests
    const std::filesystem::path log = engine.root.path() / "log";
    engine.ctx->error_log = std::fopen(log.c_str(), "a");
    const std::int64_t begin = monotonic_ms();
    EXPECT_NE(engine.exchange(get("/think")), "");
    EXPECT_NE(engine.exchange(get("/think")), "");
    const bool within_a_second = monotonic_ms() - begin < 1000;
    log_longest_pass(engine.ctx);
    log_longest_pass(engine.ctx);
    const std::string text = read_whole_file(log);
    std::istringstream lines(text);
    int told = 0;
    for (std::string line; std::getline(lines, line);) {
        int pass_ms = 0;
        int part_ms = 0;
        const std::size_t at = std::min(line.find("slow pass: "), line.find("longest pass: "));
        ASSERT_NE(at, std::string::npos) << text;
        ASSERT_EQ(std::sscanf(line.c_str() + at, "%*s pass: %d ms, %d ms of it in /think", &pass_ms,
                              &part_ms),
                  2)
            << text;
        EXPECT_TRUE(pass_ms >= part_ms && part_ms > 0) << text;
        ++told;
    }
    EXPECT_EQ(told, within_a_second ? 2 : 3) << text;
}

int other_client = -1;

void spend_login_time(shttpd_call_arg* arg) {
    char byte = 0;
    EXPECT_EQ(recv(other_client, &byte, 1, MSG_DONTWAIT | MSG_PEEK), 1) << "answered before";
    const pass_work_timer time(pass_work::logins);
    usleep(11000);
    show_success(arg);
}

TEST_F(Engine, LoginsBeyondTheirShareOfAPassWaitInTheirOrder) {
    static constexpr endpoint row = {"/spend", endpoint_method::any, endpoint_body::ignored,
                                     spend_login_time};
    register_endpoints(engine.ctx, {&row, 1});
    const std::string login = "GET /spend HTTP/1.1\r\nAuthorization: Basic eDp5\r\n\r\n";
    std::vector<unique_fd> clients;
    for (const std::string& request : {login, login, login, get("/world/ping")}) {
        clients.push_back(engine.connect());
        engine.say(clients.back(), request);
    }
    other_client = clients.back().get();
    const auto answered = [&] {
        std::string who;
        for (std::size_t i = 0; i < clients.size(); ++i) {
            char byte = 0;
            const bool has_reply = recv(clients[i].get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) > 0;
            who += has_reply ? std::to_string(i) : "";
        }
        return who;
    };
    for (const char* who : {"03", "013", "0123"}) {
        engine.poll();
        EXPECT_EQ(answered(), who);
    }
}

TEST(PassWork, KindsOfWorkThatCanWaitShareAPassAndNoneKeepsAnotherOut) {
    frozen_us = 1000;
    const auto spend = [](pass_work kind, std::int64_t us) {
        const pass_work_timer time(kind);
        frozen_us += us;
    };
    ++pass_number;
    spend(pass_work::logins, 9999);
    EXPECT_TRUE(pass_has_time_for(pass_work::logins));
    EXPECT_EQ(pass_time_left_us(), 5001);
    spend(pass_work::logins, 1);
    EXPECT_FALSE(pass_has_time_for(pass_work::logins));
    spend(pass_work::logins, 5000);
    EXPECT_TRUE(pass_has_time_for(pass_work::starts)) << "the first of its kind";
    spend(pass_work::starts, 1000);
    EXPECT_FALSE(pass_has_time_for(pass_work::starts)) << "the others have used the time up";
    EXPECT_EQ(pass_time_left_us(), 3000);
    ++pass_number;
    EXPECT_TRUE(pass_has_time_for(pass_work::starts) && pass_has_time_for(pass_work::logins));
    EXPECT_EQ(pass_time_left_us(), 10000);
    frozen_us = 0;
}

// A cut address would lead elsewhere.
TEST_F(Engine, RedirectsAreWholeOrRefused) {
    engine.ctx->io_buf_size = 1024;
    std::string path;
    for (int i = 0; i < 4; ++i) {
        path.append("/").append(std::string(238, 'd'));
    }
    for (const auto& [uri, status] : {std::pair(path + "/" + std::string(20, 'x'), "301"),
                                      std::pair(path + "/" + std::string(21, 'x'), "400")}) {
        std::filesystem::create_directories(engine.root.path() / uri.substr(1));
        const std::string reply = engine.exchange(get(uri));
        EXPECT_TRUE(reply.starts_with(std::string("HTTP/1.1 ") + status)) << reply;
        EXPECT_EQ(reply.find("Location: " + uri + "/\r\n\r\n") != reply.npos, status[0] == '3');
    }
}

TEST_F(Listings, CanNotBeOpenedWithoutDescriptors) {
    std::filesystem::create_directory(engine.root.path() / "d");
    const unique_fd client = engine.connect();
    engine.poll();
    const lowered_limit no_more(RLIMIT_NOFILE, next_descriptor());
    EXPECT_EQ(engine.exchange_on(client, get("/d/")),
              "HTTP/1.1 500 Cannot open directory\r\n\r\n500 Cannot open directory");
}

TEST_F(Listings, AreNoneForHead) {
    std::filesystem::create_directory(engine.root.path() / "d");
    const std::string whole = engine.exchange(get("/d/"));
    const std::string head = engine.exchange(make_request("HEAD", "/d/"));
    EXPECT_EQ(head, whole.substr(0, whole.find("\r\n\r\n") + 4));
    EXPECT_TRUE(head.starts_with("HTTP/1.1 200 OK\r\n"));
}

TEST_F(Engine, TheCountOfConnectionsStopsAtItsLargestValue) {
    engine.ctx->accepted_connections = std::numeric_limits<int>::max() - 1;
    for (int i = 0; i < 2; ++i) {
        EXPECT_NE(engine.exchange(get("/none")), "");
        EXPECT_EQ(engine.ctx->accepted_connections, std::numeric_limits<int>::max());
    }
}

// Even one that comes while the loop waits.
TEST_F(Engine, AStepOfTheSystemsTimeEndsNoConnectionAndReachesTheNextReply) {
    engine.root.write("f", "content");
    const unique_fd client = engine.connect();
    for (const std::time_t step : {86400, -86400}) {
        std::thread sender([&] {
            usleep(20000);
            wall_clock_step = step;
            engine.say(client, get("/f"));
        });
        char byte = 0;
        while (recv(client.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) <= 0) {
            shttpd_poll(engine.ctx, 1000);
        }
        EXPECT_NEAR(static_cast<double>(current_time - std::time(nullptr)), 0, 60);
        sender.join();
        EXPECT_EQ(body_of(engine.exchange_on(client, "")), "content");
        EXPECT_EQ(shttpd_active(engine.ctx), 1);
    }
    wall_clock_step = 0;
}

}  // namespace
