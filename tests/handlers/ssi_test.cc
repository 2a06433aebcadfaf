// Server-side includes: what counts as a directive, and whole pages through the engine.

#include "handlers/ssi_scanner.h"
#include "tests/handlers/relay_fixture.h"

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

class ssi_page : public relay_fixture {
  protected:
    ssi_page() {
        shttpd_register_ssi_func(engine.ctx, "yes", say_yes, nullptr);
        shttpd_register_ssi_func(engine.ctx, "no", say_no, nullptr);
        shttpd_register_ssi_func(engine.ctx, "thrice", write_thrice, const_cast<char*>("call"));
    }

    // The body of a page with this text.
    std::string page(std::string_view text) {
        engine.root.write("dir/page.shtml", text);
        return body_of(talk(get("/dir/page.shtml")));
    }
    // The same with what is logged meanwhile.
    std::string page(std::string_view text, std::string* log) {
        std::string body;
        *log = stderr_of([&] { body = page(text); });
        return body;
    }
};

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
        {"<!-", "<!-"},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(page(text), expected) << text;
    }
}

TEST_F(ssi_page, Includes) {
    const auto absolute = engine.root.write("top.txt", "TOP");
    engine.root.write("dir/a b.txt", "BESIDE<!--#include virtual=\"top.txt\"-->");
    EXPECT_EQ(page("(<!--#include \"" + absolute.string() + "\"-->)"), "(TOP)");
    EXPECT_EQ(page("(<!--#include file=\"a%20b.txt\" -->)"), "(BESIDETOP)");
    EXPECT_EQ(page("(<!--#include virtual=\"dir/a+b.txt\"-->)"), "(BESIDETOP)");
    // A section that the included page leaves open does not reach the page around it.
    engine.root.write("open.txt", "1<!--#if no-->2<!");
    EXPECT_EQ(page("(<!--#include virtual=\"open.txt\"-->)"), "(1)");
    // Nothing to include, and nothing that would stop the daemon: the page goes on.
    ASSERT_EQ(mkfifo((engine.root.path() / "fifo").c_str(), 0600), 0);
    std::string log;
    EXPECT_EQ(page("(<!--#include virtual=\"none\"--><!--#include virtual=\"fifo\"-->"
                   "<!--#include virtual=\"dir\"--><!--#include top.txt-->)",
                   &log),
              "()");
    EXPECT_TRUE(contains(log, "ssi: fopen(" + (engine.root.path() / "none").string()));
    EXPECT_TRUE(contains(log, "ssi: bad #include: [top.txt]"));
}

TEST_F(ssi_page, FiveNestedIncludes) {
    for (int level = 1; level <= 6; ++level) {
        const std::string next = std::to_string(level + 1) + ".txt";
        engine.root.write(std::to_string(level) + ".txt", std::to_string(level) +
                                                              "<!--#include virtual=\"" + next +
                                                              "\"-->" + std::to_string(level));
    }
    std::string log;
    EXPECT_EQ(page("0<!--#include virtual=\"1.txt\"-->0", &log), "012345543210");
    EXPECT_TRUE(contains(log, "ssi: #include: maximum nested level reached"));
}

TEST_F(ssi_page, Calls) {
    EXPECT_EQ(page("(<!--#call thrice -->)"), "(call1 call2 call3 )");
    EXPECT_EQ(page("(<!--#call nobody-->)"), "()");
    farewell_record record;
    shttpd_register_ssi_func(engine.ctx, "endless", never_end, &record);
    engine.root.write("page.shtml", "(<!--#call endless-->)");
    EXPECT_EQ(body_of(engine.exchange(get("/page.shtml"))), "(");
    engine.poll();  // the client has gone
    EXPECT_GT(record.calls, 1);
    EXPECT_EQ(record.farewells, 1);
}

TEST_F(ssi_page, Commands) {
    EXPECT_EQ(page("(<!--#exec \"echo a; sleep 0.1; echo log >&2; echo b\"-->)"), "(a\nb\n)");
    EXPECT_EQ(page("<!--#exec \"printf x\"-->|<!--#exec \"cat\"-->|"), "x||");
    // More than any buffer, in the middle of a page and from an included one.
    engine.root.write("inner", "[<!--#exec \"head -c 200000 /dev/zero | tr '%5C0' x\"-->]");
    EXPECT_EQ(page("(<!--#include virtual=\"inner\"-->)"), "([" + std::string(200000, 'x') + "])");
    EXPECT_EQ(page("<!--#exec \"ls /proc/self/fd | wc -l\"-->"), "4\n");
    std::string log;
    EXPECT_EQ(page("(<!--#exec cmd=\"ls\"--><!--#exec \"-->)", &log), "()");
    EXPECT_TRUE(contains(log, "ssi: bad exec(cmd=\"ls\")"));
    engine.root.write("page.shtml", "<!--#exec \"echo later\"-->");
    const unique_fd oldest = engine.connect();
    const unique_fd client = engine.connect();
    engine.say(client, get("/page.shtml"));
    EXPECT_EQ(pass_without_starts(oldest), 1);
    EXPECT_EQ(body_of(talk_on(client, "")), "later\n");
}

// Pages made of random pieces, through buffers of every small size, against a straight expansion.
TEST_F(ssi_page, RandomPagesThroughSmallBuffers) {
    engine.root.write("inc", "<INC<");
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
        engine.ctx->io_buf_size = 1024 + static_cast<int>(random() % 700);
        std::string text;
        std::string expected;
        for (int i = 0; i < 60; ++i) {
            const auto& [source, result] = pieces[random() % pieces.size()];
            // A piece that ends in an open "<!--" or "<" must not swallow the directive behind it.
            text += source + " ";
            expected += result + " ";
        }
        ASSERT_EQ(page(text), expected) << run;
    }
}

}  // namespace
