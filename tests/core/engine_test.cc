// Proves the engine's contract in one process: embedded handlers, keep-alive, pipelining, bodies,
// early errors, error handlers, files, PUT and DELETE, and that nothing is left behind.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/connection.h"
#include "core/endpoint.h"
#include "core/globals.h"
#include "core/shttpd.h"
#include "handlers/io_emb.h"
#include "handlers/io_file.h"
#include "lib/qzstream.h"
#include "tests/support/engine_fixture.h"

namespace {

int descriptors_in_use() {
    int count = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        struct stat st {};
        count += fstat(fd, &st) == 0 ? 1 : 0;
    }
    return count;
}

std::string get(std::string_view uri) {
    return make_request("GET", uri);
}

std::size_t count_of(std::string_view text, std::string_view part) {
    std::size_t n = 0;
    for (std::size_t at = text.find(part); at != std::string_view::npos;
         at = text.find(part, at + part.size())) {
        ++n;
    }
    return n;
}

void say_hello(shttpd_call_arg* arg) {
    if (endpoint_closing(arg)) {
        return;
    }
    shttpd_printf(arg, "HTTP/1.1 203 Hi\r\n\r\n%s", static_cast<const char*>(arg->user_data));
    arg->flags |= ARG_END_OF_OUTPUT;
}

void echo_body(shttpd_call_arg* arg) {
    if (endpoint_closing(arg) || post_only_pending(arg)) {
        return;
    }
    const std::string text = get_variable(request_body(arg), "text", 64);
    shttpd_printf(arg, "HTTP/1.1 200 OK\r\n\r\n<%s>", text.c_str());
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

void long_reply(shttpd_call_arg* arg) {
    if (endpoint_closing(arg)) {
        return;
    }
    if (arg->state == nullptr) {
        qz_stream* reply = new_qz_stream(0);
        for (int i = 0; i < 100000; ++i) {
            qz_vprintf_stream(reply, "%09d\n", i);
        }
        qz_rewind_stream(reply);
        arg->state = reply;
    }
    drain_reply(arg);
}

TEST(Patterns, GreedyFirstAndWithoutBacktracking) {
    const test_engine engine(true);
    for (const char* pattern : {"/world/ping", "/adm/*", "/a*b", "/x**y*"}) {
        shttpd_register_uri(engine.ctx, pattern, say_hello, nullptr);
    }
    struct row {
        const char* uri;
        const char* pattern;  // null: none matches
    };
    for (const row& r : std::vector<row>{{"/world/ping", "/world/ping"},
                                         {"/world/ping/", nullptr},
                                         {"/world/pingx", nullptr},
                                         {"/World/ping", nullptr},
                                         {"/adm/", "/adm/*"},
                                         {"/adm/x/y", "/adm/*"},
                                         {"/adm", nullptr},
                                         {"/axb", "/a*b"},
                                         {"/axbyb", nullptr},
                                         {"/a", nullptr},
                                         {"/xaay", "/x**y*"},
                                         {"/xaa", nullptr}}) {
        const registered_uri* found = is_registered_uri(engine.ctx, r.uri);
        EXPECT_EQ(found != nullptr, r.pattern != nullptr) << r.uri;
        if (found != nullptr && r.pattern != nullptr) {
            EXPECT_EQ(found->uri, r.pattern);
        }
    }
}

TEST(Variables, AreFoundByWholeNameIgnoringCase) {
    const std::string text = "ba=1&A=2%20x+y&empty=&last=end&nov";
    const auto value = [&](const char* name, int size) { return get_variable(text, name, size); };
    EXPECT_EQ(value("a", 32), "2 x y");
    EXPECT_EQ(value("a", 3), "2 ");
    EXPECT_EQ(value("empty", 32), "");
    EXPECT_EQ(value("LAST", 32), "end");
    EXPECT_EQ(value("nov", 32), "");
    char buffer[8];
    EXPECT_EQ(shttpd_get_var("nov", text.data(), static_cast<int>(text.size()), buffer, 8), -1);
    EXPECT_EQ(shttpd_get_var("a", nullptr, 0, buffer, 8), -1);
    const char* raw = nullptr;
    EXPECT_EQ(shttpd_get_var_nodecode_nocopy("a", text.data(), static_cast<int>(text.size()), &raw),
              7);
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
        for (const char* line : {"", "Aa: 1", "Bb: 2", "Cc-Long: 3", ""}) {
            text.append(line).append(end);
        }
        shttpd_call_arg arg{};
        arg.connection = &c;
        for (int round = 0; round < 4; ++round) {
            EXPECT_STREQ(shttpd_get_header(&arg, "Cc-Long"), "3");
            EXPECT_STREQ(shttpd_get_header(&arg, "aA"), "1");
            EXPECT_STREQ(shttpd_get_header(&arg, "Bb"), "2");
            EXPECT_EQ(shttpd_get_header(&arg, "Dd"), nullptr);
        }
    }
}

TEST(Engine, KeepsOneConnectionAcrossFilesAndPipelinedBatches) {
    test_engine engine;
    const std::string big(300000, 'b');
    engine.root.write("small.txt", "hello");
    engine.root.write("big.bin", big);
    const unique_fd client = engine.connect();
    for (int round = 0; round < 3; ++round) {
        EXPECT_EQ(body_of(engine.exchange_on(client.get(), get("/big.bin"))), big);
        const std::string small = engine.exchange_on(client.get(), get("/small.txt"));
        EXPECT_EQ(body_of(small), "hello");
        EXPECT_NE(small.find("Content-Type: text/plain\r\n"), std::string::npos);
    }
    std::string batch;
    for (int i = 0; i < 900; ++i) {
        batch += "GET /small.txt HTTP/1.1\r\n\r\n";
    }
    const std::string replies = engine.exchange_on(client.get(), batch);
    EXPECT_EQ(count_of(replies, "HTTP/1.1 200 OK\r\n"), 900U);
    EXPECT_EQ(count_of(replies, "\r\n\r\nhello"), 900U);
    EXPECT_EQ(shttpd_active(engine.ctx), 1);
}

TEST(Engine, ARequestSplitAtEveryByteIsTheSameRequest) {
    test_engine engine;
    engine.root.write("f", "content");
    const unique_fd client = engine.connect();
    const std::string two = "GET /f HTTP/1.1\r\nX: y\r\n\r\nHEAD /f HTTP/1.1\r\n\r\n";
    std::string reply;
    for (const char byte : two) {
        reply += engine.exchange_on(client.get(), {&byte, 1}, 1);
    }
    reply += engine.exchange_on(client.get(), "");
    EXPECT_EQ(count_of(reply, "HTTP/1.1 200 OK"), 2U);
    EXPECT_TRUE(reply.ends_with("\r\n\r\n"));  // HEAD sends headers only
    EXPECT_EQ(count_of(reply, "content"), 1U);
}

TEST(Engine, EarlyErrorsAreAnsweredBySilence) {
    test_engine engine;
    engine.root.write("f", "content");
    const std::vector<std::string> silent = {
        "FOO / HTTP/1.1\r\n\r\n", "GET /\r\n\r\n", "GET / HTTP/1.1\r\nA:\tb\r\n\r\n",
        "GET /" + std::string(20000, 'a') + " HTTP/1.1\r\n\r\n"};
    for (const std::string& bytes : silent) {
        const unique_fd client = engine.connect();
        EXPECT_EQ(engine.exchange_on(client.get(), bytes), "") << bytes.substr(0, 40);
        // Nor is anything behind the error taken for a request.
        EXPECT_EQ(engine.exchange_on(client.get(), get("/f")), "");
        EXPECT_EQ(shttpd_active(engine.ctx), 1);
    }
    engine.poll();
    EXPECT_EQ(shttpd_active(engine.ctx), 0);
}

TEST(Engine, DeliveredErrorsHaveTheirExactText) {
    test_engine engine;
    std::filesystem::create_directory(engine.root.path() / "dir");
    engine.root.write("f", "0123456789");
    engine.root.write("pub/.dovmaaccess", "x:user\n");
    struct row {
        const char* request;
        const char* reply;
    };
    const std::vector<row> rows = {
        {"GET / HTTP/2.0\r\n\r\n",
         "HTTP/1.1 505 HTTP version not supported\r\n\r\n505 HTTP version not supported"},
        {"GET / HTTP/1.1x\r\n\r\n", "HTTP/1.1 400 Bad HTTP version\r\n\r\n400 Bad HTTP version"},
        {"GET x/y HTTP/1.1\r\n\r\n", "HTTP/1.1 400 Bad URI\r\n\r\n400 Bad URI"},
        {"GET /none HTTP/1.1\r\n\r\n", "HTTP/1.1 404 Not Found\r\n\r\n404 Not Found"},
        {"GET /dir HTTP/1.1\r\n\r\n",
         "HTTP/1.1 301 Moved Permanently\r\nLocation: /dir/\r\n\r\n301 Moved "
         "Permanently\r\nLocation: /dir/"},
        {"GET /pub/.dovmaaccess HTTP/1.1\r\n\r\n", "HTTP/1.1 404 Not Found\r\n\r\n404 Not Found"},
        {"PUT /n HTTP/1.1\r\n\r\n", "HTTP/1.1 411 Length Required\r\n\r\n411 Length Required"},
        {"PUT /n HTTP/1.1\r\nRange: x\r\n\r\n",
         "HTTP/1.1 501 PUT Range Not Implemented\r\n\r\n501 PUT Range Not Implemented"},
        {"PUT /new/dirs/ HTTP/1.1\r\n\r\n", "HTTP/1.1 200 OK\r\n\r\n200 OK"},
        {"PUT /x.cgi HTTP/1.1\r\nContent-Length: 1\r\n\r\na",
         "HTTP/1.1 501 Bad method \r\n\r\n501 Bad method "},
        {"DELETE /none HTTP/1.1\r\n\r\n", "HTTP/1.1 500 DELETE Error\r\n\r\n500 DELETE Error"},
        {"GET /f HTTP/1.1\r\nRange: bytes=11-\r\n\r\n",
         "HTTP/1.1 416 Requested Range Not Satisfiable\r\n\r\n416 Requested Range Not "
         "Satisfiable"},
        {"GET /f HTTP/1.1\r\nRange: bytes=5-3\r\n\r\n",
         "HTTP/1.1 416 Requested Range Not Satisfiable\r\n\r\n416 Requested Range Not "
         "Satisfiable"},
        {"GET /f HTTP/1.1\r\nIf-Modified-Since: 01 Jan 2060 00:00:00\r\n\r\n",
         "HTTP/1.1 304 Not Modified\r\n\r\n304 Not Modified"},
    };
    engine.poll();
    const int before = descriptors_in_use();
    for (const row& r : rows) {
        EXPECT_EQ(engine.exchange(r.request), r.reply) << r.request;
    }
    EXPECT_TRUE(std::filesystem::is_directory(engine.root.path() / "new/dirs"));
    drop_cached_files();
    EXPECT_EQ(descriptors_in_use(), before);
}

TEST(Files, RangesEndOneByteEarly) {
    test_engine engine;
    std::string content;
    for (int i = 0; i < 1000; ++i) {
        content += static_cast<char>('a' + i % 26);
    }
    engine.root.write("f", content);
    struct row {
        const char* range;
        const char* status;
        const char* content_range;  // null: none
        std::size_t from;
        std::size_t length;
    };
    const std::vector<row> rows = {
        {"bytes=10-", "206 Partial Content", "bytes 10-999/1000", 10, 990},
        {"bytes=0-99", "206 Partial Content", "bytes 0-98/1000", 0, 99},
        {"bytes=0-5000", "206 Partial Content", "bytes 0-999/1000", 0, 1000},
        {"bytes=1000-", "206 Partial Content", "bytes 1000-999/1000", 0, 0},
        {"bytes=5-5", "206 Partial Content", "bytes 5-4/1000", 0, 0},
        {"bytes=0-0", "206 Partial Content", "bytes 0-18446744073709551615/1000", 0, 0},
        {"items=1-2", "200 OK", nullptr, 0, 1000},
        {"bytes=", "200 OK", nullptr, 0, 1000},
    };
    const unique_fd client = engine.connect();
    for (const row& r : rows) {
        const std::string reply = engine.exchange_on(
            client.get(), std::string("GET /f HTTP/1.1\r\nRange: ") + r.range + "\r\n\r\n");
        EXPECT_TRUE(reply.starts_with(std::string("HTTP/1.1 ") + r.status)) << reply;
        EXPECT_EQ(body_of(reply), content.substr(r.from, r.length)) << r.range;
        const std::string line = r.content_range != nullptr
                                     ? std::string("Content-Range: ") + r.content_range + "\r\n"
                                     : "";
        EXPECT_EQ(count_of(reply, "Content-Range"), line.empty() ? 0U : 1U);
        EXPECT_NE(reply.find(line), std::string::npos) << reply;
        EXPECT_NE(reply.find("Content-Length: " + std::to_string(r.length) + "\r\n"),
                  std::string::npos);
    }
}

TEST(Files, PutStoresExactlyTheBodyAndCloses) {
    test_engine engine;
    const std::string body(70000, 'p');
    const std::string request =
        make_request("PUT", "/a/b/new.bin", body) + get("/a/b/new.bin");  // pipelined: dropped
    EXPECT_EQ(engine.exchange(request),
              "HTTP/1.1 201 OK\r\nContent-Length: 70000\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(read_whole_file(engine.root.path() / "a/b/new.bin"), body);
    EXPECT_EQ(engine.exchange(make_request("PUT", "/a/b/new.bin", "tiny")),
              "HTTP/1.1 200 OK\r\nContent-Length: 4\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(read_whole_file(engine.root.path() / "a/b/new.bin"), "tiny");
    EXPECT_EQ(engine.exchange(make_request("DELETE", "/a/b/new.bin")),
              "HTTP/1.1 200 OK\r\n\r\n200 OK");
    EXPECT_FALSE(std::filesystem::exists(engine.root.path() / "a/b/new.bin"));
    // A prefix that no buffer holds fails the request, not the daemon.
    EXPECT_EQ(engine.exchange(make_request("PUT", "/" + std::string(2100, 'd') + "/x", "y")),
              "HTTP/1.1 500 PUT Directory Error\r\n\r\n500 PUT Directory Error");
}

TEST(Files, AFifoNeverBlocksTheLoop) {
    test_engine engine;
    ASSERT_EQ(mkfifo((engine.root.path() / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(engine.exchange(get("/pipe")),
              "HTTP/1.1 500 Internal Error\r\n\r\n500 Internal Error");
}

TEST(Embedded, RepliesOfAnyLengthArriveWhole) {
    test_engine engine;
    shttpd_register_uri(engine.ctx, "/long", long_reply, nullptr);
    const std::string reply = engine.exchange(get("/long"));
    EXPECT_EQ(reply.size(), 1000000U);
    EXPECT_EQ(reply.substr(999990), "000099999\n");
    EXPECT_EQ(shttpd_active(engine.ctx), 0);
}

TEST(Embedded, AHandlerHearsOfALostConnectionOnce) {
    test_engine engine;
    shttpd_register_uri(engine.ctx, "/endless", never_ends, nullptr);
    farewells = 0;
    {
        const unique_fd client = engine.connect();
        EXPECT_NE(engine.exchange_on(client.get(), get("/endless"), 1), "");
    }
    for (int i = 0; i < 5; ++i) {
        engine.poll();
    }
    EXPECT_EQ(farewells, 1);
    EXPECT_EQ(shttpd_active(engine.ctx), 0);
}

TEST(Embedded, BodiesArriveWholeOrAreRefused) {
    test_engine engine;
    shttpd_register_uri(engine.ctx, "/echo", echo_body, nullptr);
    const std::string ok = "HTTP/1.1 200 OK\r\n\r\n";
    EXPECT_EQ(engine.exchange(make_request("POST", "/echo", "text=a%20b")), ok + "<a b>");
    // A pipelined request behind the body is no part of the last variable.
    EXPECT_EQ(engine.exchange(make_request("POST", "/echo", "x=1&text=z") + get("/")), ok + "<z>");
    const unique_fd client = engine.connect();
    EXPECT_EQ(
        engine.exchange_on(client.get(), "POST /echo HTTP/1.1\r\nContent-Length: 9\r\n\r\nte"), "");
    EXPECT_EQ(engine.exchange_on(client.get(), "xt="), "");
    EXPECT_EQ(engine.exchange_on(client.get(), "abcd"), ok + "<abcd>");
    const std::string too_big =
        engine.exchange(make_request("POST", "/echo", std::string(40000, 'x')));
    EXPECT_EQ(body_of(too_big), "Request is too big");
    EXPECT_EQ(body_of(engine.exchange(get("/echo"))), "Inappropriate method");
    EXPECT_EQ(shttpd_active(engine.ctx), 1);
}

TEST(Embedded, ErrorHandlersReplaceTheReply) {
    test_engine engine;
    char data[] = "mine";
    shttpd_handle_error(engine.ctx, 404, say_hello, data);
    EXPECT_EQ(engine.exchange(get("/none")), "HTTP/1.1 203 Hi\r\n\r\nmine");
    EXPECT_EQ(engine.exchange(get("/x") + get("/y")), "HTTP/1.1 203 Hi\r\n\r\nmine");
}

TEST(Engine, ConnectionsExpireOnlyWithoutProgress) {
    test_engine engine;
    engine.root.write("f", "content");
    const unique_fd idle = engine.connect();
    const unique_fd half = engine.connect();
    EXPECT_EQ(engine.exchange_on(half.get(), "GET /f HT"), "");
    EXPECT_EQ(shttpd_active(engine.ctx), 2);
    // Expiry times are moved instead of the clock, which every pass reads afresh.
    for (conn& c : engine.ctx->connections) {
        EXPECT_GE(c.expire_time, current_time + 299);
        c.expire_time = current_time - 1;
    }
    sleep(1);
    engine.poll();
    EXPECT_EQ(shttpd_active(engine.ctx), 0);
}

TEST(Engine, UnreadInputIsDrainedBeforeTheClose) {
    test_engine engine;
    const unique_fd client = engine.connect();
    const std::string head = "POST /none HTTP/1.1\r\nContent-Length: 200000\r\n\r\n";
    std::string reply = engine.exchange_on(client.get(), head + std::string(100000, 'x'));
    EXPECT_TRUE(reply.starts_with("HTTP/1.1 404 Not Found"));
    EXPECT_EQ(shttpd_active(engine.ctx), 1);  // the rest is still awaited
    for (conn& c : engine.ctx->connections) {
        EXPECT_EQ(c.state, conn_state::draining);
    }
}

}  // namespace
