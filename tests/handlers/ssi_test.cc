// Server-side includes: what counts as a directive, and whole pages through the engine.

#include <dirent.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "core/shttpd.h"
#include "handlers/io_ssi.h"
#include "handlers/ssi_scanner.h"
#include "tests/support/engine_fixture.h"

namespace {

// A page's text as the scanner hands it on, directives in braces.
std::string scan(std::string_view page) {
    ssi_scanner scanner;
    std::string out;
    for (const char c : page) {
        switch (scanner.feed(c)) {
            case ssi_scanner::event::held:
                continue;
            case ssi_scanner::event::character:
                out += c;
                continue;
            case ssi_scanner::event::text:
                out += scanner.pending();
                break;
            case ssi_scanner::event::directive:
                out += "{" + std::string(scanner.pending()) + "}";
                break;
        }
        scanner.clear();
    }
    return out += scanner.pending();
}

TEST(Scanner, FindsDirectives) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"a<b", "a<b"},
        {"<!-- c -->", "<!-- c -->"},
        {"<!--#x-->", "{<!--#x-->}"},
        {"1<!--#a-->2<!--#b -> -- > -->3", "1{<!--#a-->}2{<!--#b -> -- > -->}3"},
        {"<<!--#x-->", "<<!--#x-->"},
        {"<!<!--#x-->", "<!<!--#x-->"},
        {"<!--#-->", "{<!--#-->}"},
        {"<!--#->", "<!--#->"},
        {"end<!--#open", "end<!--#open"},
    };
    for (const auto& [page, expected] : rows) {
        EXPECT_EQ(scan(page), expected);
    }
    const std::string longest = "<!--#" + std::string(502, 'x') + "-->";
    ASSERT_EQ(longest.size(), 510U);
    EXPECT_EQ(scan(longest + "y"), "{" + longest + "}y");
    const std::string longer = "<!--#" + std::string(503, 'x') + "-->y";
    EXPECT_EQ(scan(longer), longer);
}

TEST(Scanner, Arguments) {
    EXPECT_EQ(parse_ssi_directive("<!--#if  a b -->").argument, " a b ");
    EXPECT_EQ(parse_ssi_directive("<!--#elsewhere-->").command, ssi_command::condition_else);
    EXPECT_EQ(parse_ssi_directive("<!--#IF a-->").command, ssi_command::unknown);
    EXPECT_EQ(parse_ssi_directive("<!--#if-->").command, ssi_command::unknown);
    EXPECT_EQ(parse_ssi_include("virtual=\"a%20b\" x\"")->name, "a%20b");
    EXPECT_FALSE(parse_ssi_include("name=\"a\""));
    EXPECT_FALSE(parse_ssi_include("file=\"a"));
    EXPECT_EQ(*parse_ssi_exec("  \"echo \"a\"\"\t"), "echo \"a\"");
    EXPECT_FALSE(parse_ssi_exec("\""));
    EXPECT_FALSE(parse_ssi_exec("cmd=\"ls\""));
}

void say_yes(shttpd_call_arg* arg) {
    arg->flags |= ARG_SSI_EVAL_TRUE;
}

void say_no(shttpd_call_arg* /*arg*/) {}

// Writes its user data once for each of three calls.
void write_thrice(shttpd_call_arg* arg) {
    const auto call = reinterpret_cast<std::uintptr_t>(arg->state) + 1;
    arg->state = reinterpret_cast<void*>(call);
    shttpd_printf(arg, "%s%d ", static_cast<const char*>(arg->user_data), static_cast<int>(call));
    if (call == 3) {
        arg->flags |= ARG_END_OF_OUTPUT;
    }
}

struct farewell_record {
    int calls = 0;
    int farewells = 0;
};

void never_end(shttpd_call_arg* arg) {
    auto* record = static_cast<farewell_record*>(arg->user_data);
    ++record->calls;
    record->farewells += (arg->flags & ARG_CONNECTION_ERROR) != 0 ? 1 : 0;
}

class ssi_page : public testing::Test {
  protected:
    ssi_page() {
        shttpd_register_ssi_func(engine_.ctx, "yes", say_yes, nullptr);
        shttpd_register_ssi_func(engine_.ctx, "no", say_no, nullptr);
        shttpd_register_ssi_func(engine_.ctx, "thrice", write_thrice, const_cast<char*>("call"));
    }

    // The body of a page with this text.
    std::string page(std::string_view text) {
        engine_.root.write("dir/page.shtml", text);
        return fetch("GET");
    }
    std::string fetch(std::string_view method) {
        return body_of(engine_.exchange(make_request(method, "/dir/page.shtml")));
    }

    test_engine engine_;
};

TEST_F(ssi_page, HeadAndPlainText) {
    const std::string text = "<p>a < b, <!-- c --> <!--#bogus x--> <";
    EXPECT_EQ(page(text), text);
    const std::string reply = engine_.exchange(make_request("GET", "/dir/page.shtml"));
    EXPECT_TRUE(reply.starts_with("HTTP/1.1 200 OK\r\nDate: ")) << reply;
    EXPECT_NE(reply.find(" GMT\r\nContent-Type: text/html\r\nConnection: close\r\n\r\n<p>a"),
              std::string::npos);
    const std::string head = engine_.exchange(make_request("HEAD", "/dir/page.shtml"));
    EXPECT_EQ(head.size(), reply.size() - text.size());
    EXPECT_EQ(page(""), "");
    EXPECT_EQ(page("<!-"), "<!-");
}

TEST_F(ssi_page, Conditions) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"1<!--#if yes-->2<!--#endif-->3", "123"},
        {"1<!--#if  no  -->2<!--#endif-->3", "13"},
        {"1<!--#if unknown-->2<!--#else-->3<!--#endif-->4", "134"},
        {"<!--#if yes-->1<!--#else-->2<!--#endif-->3", "13"},
        {"<!--#if no-->1<!--#elif yes-->2<!--#else-->3<!--#endif-->", "2"},
        {"<!--#if no-->1<!--#elif no-->2<!--#else-->3<!--#endif-->", "3"},
        {"<!--#if yes-->1<!--#elif yes-->2<!--#endif-->3", "13"},
        // Once a branch has been sent, the first "elif" skips and the second is judged again.
        {"<!--#if yes-->1<!--#elif yes-->2<!--#elif yes-->3<!--#endif-->4", "134"},
        // Conditions don't nest: the inner one decides, and its end ends both.
        {"<!--#if no-->1<!--#if yes-->2<!--#endif-->3<!--#endif-->4", "234"},
        {"<!--#if no--><!--#bogus--><!--#include \"/x\"--><!--#call thrice-->"
         "<!--#exec \"echo x\"--><b><!--#endif-->end",
         "end"},
        {"<!--#if no-->held<!-", ""},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(page(text), expected) << text;
    }
}

TEST_F(ssi_page, Includes) {
    const auto absolute = engine_.root.write("top.txt", "TOP");
    engine_.root.write("dir/a b.txt", "BESIDE<!--#include virtual=\"top.txt\"-->");
    EXPECT_EQ(page("(<!--#include \"" + absolute.string() + "\"-->)"), "(TOP)");
    EXPECT_EQ(page("(<!--#include file=\"a%20b.txt\" -->)"), "(BESIDETOP)");
    EXPECT_EQ(page("(<!--#include virtual=\"dir/a+b.txt\"-->)"), "(BESIDETOP)");
    // A section that the included page leaves open does not reach the page around it.
    engine_.root.write("open.txt", "1<!--#if no-->2<!");
    EXPECT_EQ(page("(<!--#include virtual=\"open.txt\"-->)"), "(1)");
    // Nothing to include, and nothing that would stop the daemon: the page goes on.
    ASSERT_EQ(mkfifo((engine_.root.path() / "fifo").c_str(), 0600), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(page("(<!--#include virtual=\"none\"--><!--#include virtual=\"fifo\"-->"
                   "<!--#include virtual=\"dir\"--><!--#include top.txt-->)"),
              "()");
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("ssi: fopen(" + (engine_.root.path() / "none").string()), std::string::npos)
        << log;
    EXPECT_NE(log.find("ssi: bad #include: [top.txt]"), std::string::npos) << log;
}

TEST_F(ssi_page, FiveNestedIncludes) {
    for (int level = 1; level <= 6; ++level) {
        const std::string next = std::to_string(level + 1) + ".txt";
        engine_.root.write(std::to_string(level) + ".txt", std::to_string(level) +
                                                               "<!--#include virtual=\"" + next +
                                                               "\"-->" + std::to_string(level));
    }
    testing::internal::CaptureStderr();
    EXPECT_EQ(page("0<!--#include virtual=\"1.txt\"-->0"), "012345543210");
    EXPECT_NE(
        testing::internal::GetCapturedStderr().find("ssi: #include: maximum nested level reached"),
        std::string::npos);
}

TEST_F(ssi_page, Calls) {
    EXPECT_EQ(page("(<!--#call thrice -->)"), "(call1 call2 call3 )");
    EXPECT_EQ(page("(<!--#call nobody-->)"), "()");
    farewell_record record;
    shttpd_register_ssi_func(engine_.ctx, "endless", never_end, &record);
    EXPECT_EQ(page("(<!--#call endless-->)"), "(");
    engine_.poll();  // the client has gone
    EXPECT_GT(record.calls, 1);
    EXPECT_EQ(record.farewells, 1);
}

// Everything up to the end of the connection; commands take their time.
std::string fetch_slowly(test_engine* engine, const unique_fd& client, std::string_view request) {
    std::string reply;
    EXPECT_EQ(send(client.get(), request.data(), request.size(), 0),
              static_cast<ssize_t>(request.size()));
    for (int i = 0; i < 20000; ++i) {
        shttpd_poll(engine->ctx, 100);
        char buffer[65536];
        const ssize_t got = recv(client.get(), buffer, sizeof buffer, MSG_DONTWAIT);
        if (got == 0) {
            return reply;
        }
        if (got > 0) {
            reply.append(buffer, static_cast<std::size_t>(got));
        }
    }
    ADD_FAILURE() << "no end";
    return reply;
}

std::string run_page(test_engine* engine, std::string_view text) {
    engine->root.write("page.shtml", text);
    const unique_fd client = engine->connect();
    return body_of(fetch_slowly(engine, client, make_request("GET", "/page.shtml")));
}

int open_descriptors() {
    int count = 0;
    DIR* directory = opendir("/proc/self/fd");
    while (readdir(directory) != nullptr) {
        ++count;
    }
    closedir(directory);
    return count;
}

TEST_F(ssi_page, Commands) {
    engine_.poll();  // opens what the engine keeps
    const int before = open_descriptors();
    EXPECT_EQ(run_page(&engine_, "(<!--#exec \"echo a; sleep 0.1; echo b\"-->)"), "(a\nb\n)");
    EXPECT_EQ(run_page(&engine_, "<!--#exec \"printf x\"-->|<!--#exec \"cat\"-->|"), "x||");
    EXPECT_EQ(run_page(&engine_, "<!--#exec \"seq 1 100000 | tail -1\"-->"), "100000\n");
    // More than any buffer, in the middle of a page and from an included one.
    engine_.root.write("inner", "[<!--#exec \"head -c 200000 /dev/zero | tr '%5C0' x\"-->]");
    EXPECT_EQ(run_page(&engine_, "(<!--#include virtual=\"inner\"-->)"),
              "([" + std::string(200000, 'x') + "])");
    EXPECT_EQ(run_page(&engine_, "<!--#exec \"ls /proc/self/fd | wc -l\"-->"), "4\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ(run_page(&engine_, "(<!--#exec cmd=\"ls\"--><!--#exec \"-->)"), "()");
    EXPECT_NE(testing::internal::GetCapturedStderr().find("ssi: bad exec(cmd=\"ls\")"),
              std::string::npos);
    EXPECT_EQ(open_descriptors(), before);
    while (waitpid(-1, nullptr, WNOHANG) > 0) {
    }
}

TEST_F(ssi_page, ClientLeavesDuringACommand) {
    engine_.poll();  // opens what the engine keeps
    const int before = open_descriptors();
    engine_.root.write("page.shtml", "<!--#exec \"yes\"-->");
    unique_fd client = engine_.connect();
    (void)engine_.exchange_on(client.get(), make_request("GET", "/page.shtml"), 1);
    char some[4096];
    for (int i = 0; i < 100 && recv(client.get(), some, sizeof some, MSG_DONTWAIT) <= 0; ++i) {
        shttpd_poll(engine_.ctx, 100);
    }
    client.reset();
    for (int i = 0; i < 100 && shttpd_active(engine_.ctx) > 0; ++i) {
        shttpd_poll(engine_.ctx, 100);
    }
    EXPECT_EQ(shttpd_active(engine_.ctx), 0);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_GT(waitpid(-1, nullptr, 0), 0);  // "yes" has lost its reader
}

// Pages made of random pieces, through buffers of every small size, against a straight expansion.
TEST_F(ssi_page, RandomPagesThroughSmallBuffers) {
    engine_.root.write("inc", "<INC<");
    const std::vector<std::pair<std::string, std::string>> pieces = {
        {"text", "text"},
        {"<", "<"},
        {"<!--", "<!--"},
        {"<!--#no-->", "<!--#no-->"},
        {"-->", "-->"},
        {"\n", "\n"},
        {"x<!--#include virtual=\"inc\"-->y", "x<INC<y"},
        {"x<!--#call thrice-->y", "xcall1 call2 call3 y"},
        {"x<!--#if no-->" + std::string(700, 'h') + "<!--#endif-->y", "xy"},
        {std::string(400, 'w'), std::string(400, 'w')},
    };
    std::mt19937 random(3);
    for (int run = 0; run < 60; ++run) {
        engine_.ctx->io_buf_size = 1024 + static_cast<int>(random() % 700);
        std::string text;
        std::string expected;
        for (int i = 0; i < 60; ++i) {
            const auto& [source, result] = pieces[random() % pieces.size()];
            // A piece that ends in an open "<!--" or "<" must not swallow the directive behind it.
            text += source + " ";
            expected += result + " ";
        }
        ASSERT_EQ(run_page(&engine_, text), expected) << run;
    }
}

}  // namespace
