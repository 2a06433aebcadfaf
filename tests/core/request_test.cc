// Proves how bytes become a request: block length, headers, dates, cleaning of URIs, roles.
#include "core/request.h"

#include "core/context.h"
#include "core/globals.h"
#include "tests/support/testing.h"

namespace {

// The numbers and dates of one header line.
header_values parsed(const std::string& line) {
    const std::string block = line + "\r\n\r\n";
    header_values values;
    parse_headers(block.data(), block.size(), &values);
    return values;
}

std::string cleaned(std::string uri) {
    clean_uri(&uri);
    return uri;
}

TEST(HeaderBlock, EndsAtABlankLineAndRefusesControlBytes) {
    const std::vector<std::pair<std::string, ssize_t>> rows = {
        {"", 0},
        {"GET / HTTP/1.1\r\n\r", 0},
        {"GET / HTTP/1.1\r\n\r\n", 18},
        {"GET / HTTP/1.1\r\nA: b\r\n\r\nbody\x01", 24},  // what follows the block is not examined
        {"a\tb\r\n\r\n", -1},
        {std::string("a\0b\n\n", 5), -1},
        {"\x80\xff\n\n", 4},
        {"abc\x7f\n\n", -1},
        {"a\n\x01", 0},  // the last byte may still change its meaning
        {"a\n\r", 0},
        {"a\n\rb\n\n", 6},
    };
    for (const auto& [bytes, length] : rows) {
        // A sanitizer notices a look behind the given length.
        const std::vector<char> exact(bytes.begin(), bytes.end());
        EXPECT_EQ(get_headers_len(exact.data(), exact.size()), length) << bytes;
    }
}

TEST(Headers, AreReadByNameIgnoringCase) {
    const std::string block =
        "content-length: 42\r\nCONTENT-TYPE: text/x\r\nUser-Agent: a b \r\nReferer:none\r\n"
        "X-PLX-Namespace: ns\nRange: bytes=1-2\r\nConnection: Close\r\nStatus: 404 Not Found\r\n"
        "X-PLX-OnBehalf-User: bob\r\nX-Content-Length: 7\r\nAuthorization: Basic eA==\r\n\r\n";
    header_values values;
    parse_headers(block.data(), block.size(), &values);
    EXPECT_EQ(values.content_length, 42U);
    EXPECT_EQ(values.content_type, "text/x");
    EXPECT_EQ(values.user_agent, "a b ");
    EXPECT_EQ(values.referer, "");  // the name includes the blank
    EXPECT_EQ(values.namespace_name, "ns");
    EXPECT_EQ(values.range, "bytes=1-2");
    EXPECT_EQ(values.connection, "Close");
    EXPECT_EQ(values.status, 404U);
    EXPECT_EQ(values.on_behalf_user, "bob");
    EXPECT_EQ(values.authorization, "Basic eA==");
}

TEST(Headers, LengthsNeverWrapAndAreNeverOverlooked) {
    EXPECT_EQ(parsed("Content-Length: 99999999999999999999").content_length, INT64_MAX);
    EXPECT_EQ(parsed("Content-Length: 9223372036854775808").content_length, INT64_MAX);
    EXPECT_EQ(parsed("Content-Length: -5").content_length, 0U);
    EXPECT_EQ(parsed("Content-Length:   7 ").content_length, 7U);
}

TEST(Dates, CountAsLocalTime) {
    setenv("TZ", "UTC", 1);
    tzset();
    current_time = 1700000000;
    const std::vector<std::pair<std::string, std::time_t>> rows = {
        // from date -u -d
        {"Sun, 06 Nov 1994 08:49:37 GMT", 784111777},
        {"06/Nov/1994 08:49:37", 784111777},
        {"6 Nov 1994 8:49:37", 784111777},
        {"06-Nov-1994 08:49:37", 784111777},
        {"Sunday, 06-Nov-94 08:49:37 GMT", 946598400},  // no pattern: 31 December 1999
        {"Sun, 06 nov 1994 08:49:37 GMT", 946598400},   // the month's case counts
        {"Sat, 29 Feb 2020 23:59:59 GMT", 1583020799},
        {"1 Jan 69 00:00:00", 3124224000},
    };
    for (const auto& [text, time] : rows) {
        EXPECT_EQ(parsed("If-Modified-Since: " + text).if_modified_since, time) << text;
    }
}

TEST(Uri, CleaningNeverLetsAPathClimb) {
    const std::vector<std::pair<const char*, const char*>> rows = {
        {"/", "/"},
        {"/../a", "/a"},
        {"/.x", "/x"},
        {"/a/../../b", "/a/b"},
        {"//a//b", "//a//b"},
        {"/http://h:1/a/../b", "/http://h:1/a/b"},
        {"/..\\..\\x", "/x"},
        {"/.\\", "/"},
        {"\\..\\a", "\\a"},
        {"/a../b", "/a../b"},
        {"", ""},
    };
    for (const auto& [uri, clean] : rows) {
        EXPECT_EQ(cleaned(uri), clean) << uri;
    }
    // Whatever is put together, no cleaned URI holds a way up.
    const std::vector<std::string> pieces = {"/", "\\", ".", "..", "a", "//", "/."};
    for (std::size_t n = 0; n < 7 * 7 * 7 * 7 * 7; ++n) {
        std::string uri = "/";
        for (std::size_t k = n, i = 0; i < 5; ++i, k /= pieces.size()) {
            uri += pieces[k % pieces.size()];
        }
        const std::string out = cleaned(uri);
        EXPECT_FALSE(contains(out, "/.")) << uri << " -> " << out;
    }
}

TEST(Headers, OfABlockInPiecesEveryByteIsReadOnce) {
    const std::vector<std::string> blocks = {"GET / HTTP/1.1\r\nA: b\r\n\r\nrest",
                                             "GET / HTTP/1.1\nA: b\n\nrest",
                                             "GET /\r\nA:\tb\r\n\r\n",
                                             "\n\n",
                                             "\r\n\r\n",
                                             std::string(300, 'a')};
    for (const std::string& block : blocks) {
        for (std::size_t step = 1; step < 5; ++step) {
            std::size_t scanned = 0;
            for (std::size_t n = 0; n <= block.size(); n += step) {
                const std::size_t before = scanned;
                const ssize_t found = get_headers_len(block.data(), n, &scanned);
                ASSERT_EQ(found, get_headers_len(block.data(), n)) << block << n;
                ASSERT_LE(before, scanned);
                ASSERT_GE(scanned + 3, n);  // all but an ending that may have begun is done with
                if (found != 0) {
                    break;
                }
            }
        }
    }
}

TEST(Uri, RoleIsTheFirstSegmentOrBehindTheAuthority) {
    const std::vector<std::tuple<const char*, bool, const char*>> rows = {
        {"/admin/x", false, "admin"},
        {"/", false, ""},
        {"", false, ""},
        {"/http://h:80/agent/x", true, "agent"},
        {"http://h/world", true, "world"},
        {"/http://h", true, ""},
        {"/httpu://any:pub/x", true, "pub"},
        {"/httpu://any/x", true, ""},
        {"/hob://h:/admin/x", true, "admin"},
    };
    for (const auto& [uri, proxied, role] : rows) {
        conn c;
        c.request.uri = uri;
        get_role_from_uri(&c, proxied);
        EXPECT_EQ(c.request.role, role) << uri;
    }
}

TEST(Uri, IsSplitDecodedAndMappedBelowTheRootOrToTheFirstAlias) {
    shttpd_ctx ctx;
    namespace_record ns;
    ns.root = "/srv/root";
    ctx.aliases = "/img=/var/images, /i=/other,broken";
    conn c;
    c.ctx = &ctx;
    c.request.ns = &ns;
    c.request.uri = "/img/a%2epng%00/d?x=%26&y";
    split_and_decode_uri(&c);
    EXPECT_EQ(c.request.query, "x=%26&y");
    EXPECT_EQ(map_uri_to_path(&c), "/var/images/a.png");
    c.request.uri = "/ix";
    EXPECT_EQ(map_uri_to_path(&c), "/otherx");
    c.request.uri = "/broken";
    EXPECT_EQ(map_uri_to_path(&c), "/srv/root/broken");
    // No rest of a URI leads out of the target that it is joined to.
    ctx.aliases = "/w/img=/x/images/,/w/doc=/x/docs,/w/odd=/x/.,/w/up=/x/../y";
    const std::vector<std::pair<const char*, const char*>> rows = {{"/w/img/a", "/x/images//a"},
                                                                   {"/w/imga..", "/x/images/a.."},
                                                                   {"/w/img", "/x/images/"},
                                                                   {"/w/img../a", ""},
                                                                   {"/w/img..", ""},
                                                                   {"/w/img.../a", ""},
                                                                   {"/w/img.a", ""},
                                                                   {"/w/doc../a", "/x/docs../a"},
                                                                   {"/w/doc.txt", "/x/docs.txt"},
                                                                   {"/w/odd./a", ""},
                                                                   {"/w/odd/a", "/x/./a"},
                                                                   {"/w/up/a", "/x/../y/a"}};
    for (const auto& [uri, path] : rows) {
        c.request.uri = uri;
        EXPECT_EQ(map_uri_to_path(&c), path) << uri;
    }
    c.request.ns = nullptr;
}

}  // namespace
