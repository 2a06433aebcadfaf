// Proves security URIs against a table from an independent parser, and the text routines beside it.
#include "security/sec_uri.h"

#include "lib/plat.h"
#include "tests/lib/file_fixture.h"

namespace {

std::string text_of(char* owned) {
    const qz_owned<char> text(owned);
    return text == nullptr ? "(null)" : text.get();
}

std::string part(const char* name, const qz_text& slice) {
    return slice.text == nullptr ? ""
                                 : " " + std::string(name) + std::string(slice.text, slice.length);
}

// The parts of a URI that appear: "kind h<host> :<port> 1<segment> 2<segment> 3<segment>".
std::string parts_of(const char* uri) {
    qz_security record;
    std::memset(&record, 0xee, sizeof record);
    EXPECT_EQ(qz_uri_to_security(uri, &record), &record);
    EXPECT_EQ(record.uri, uri);
    return std::to_string(record.kind) + part("h", record.host) +
           (record.port != 0 ? " :" + std::to_string(record.port) : "") +
           part("1", record.segment1) + part("2", record.segment2) + part("3", record.segment3);
}

TEST(sec_uri, parses_like_an_independent_parser) {
    const struct {
        const char* uri;
        const char* parts;
    } rows[] = {
        {"", "0 1"},
        {"alice", "0 1alice"},
        {"os://alice", "0 1alice"},
        {"KPR://h/x", "0 1KPR://h/x"},
        {"kpr://", "1"},
        {"kpr://h/", "1 hh 1"},
        {"kpr://h:1/a/b/c", "1 hh :1 1a 2b 3c"},
        {"kpr://localhost:1234/a/b/c", "1 hlocalhost 1a 2b 3c"},
        {"kpr://localhosts:9", "1 hlocalhosts"},
        {"kpr:///a/b/c", "1 1a 2b 3c"},
        {"kpr://h/a//c", "1 hh 1a 2 3c"},
        {"kpr://h/a/b/c/d", "1 hh 1a 2b 3c"},
        {"kpr://h:12ab/x", "1 hh :12 1x"},
        {"kpr://h:/x", "1 hh 1x"},
        {"kpr://:5/x", "1 h :5 1x"},
        {"kpr://h:1:2/x", "1 hh :1 1x"},
        {"https://www:443/x", "2 hwww :443 1x"},
        {"plx://node:70000/x/y", "3 hnode :4464 1x 2y"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(parts_of(row.uri), row.parts) << row.uri;
    }
    EXPECT_EQ(qz_uri_to_security(nullptr, nullptr), nullptr);
}

TEST(sec_uri, domain_record) {
    qz_domain record;
    const char* uri = "https://www.example:8443/path";
    ASSERT_EQ(qz_uri_to_domain(uri, &record), &record);
    EXPECT_EQ(std::string(record.host, record.host_length), "www.example");
    EXPECT_EQ(std::string(record.scheme, record.scheme_length), "https");
    EXPECT_EQ(record.scheme, uri);
    EXPECT_EQ(record.port, 8443);
    ASSERT_NE(qz_uri_to_domain("x://", &record), nullptr);
    EXPECT_EQ(record.host_length, 0U);
    EXPECT_EQ(record.port, 0);
    for (const char* bad : {"", "alice", "mail:to", "a:/b", "a:b://c"}) {
        EXPECT_EQ(qz_uri_to_domain(bad, &record), nullptr) << bad;
    }
    EXPECT_EQ(qz_uri_to_domain(nullptr, &record), nullptr);
}

TEST(sec_uri, prints) {
    const auto print = [](int kind, const char* host, int port, const char* s1, const char* s2,
                          const char* s3) {
        return text_of(
            qz_security_to_uri(kind, host, static_cast<std::uint16_t>(port), s1, s2, s3));
    };
    EXPECT_EQ(print(1, "h", 7, "a", "b", "c"), "kpr://h:7/a/b/c");
    EXPECT_EQ(print(1, "h", 0, "a", nullptr, "c"), "kpr://h/a/c");
    EXPECT_EQ(print(1, "localhost.localdomain", 7, "a", "b", nullptr), "kpr:///a/b");
    EXPECT_EQ(print(1, nullptr, 7, nullptr, nullptr, nullptr), "kpr://");
    EXPECT_EQ(print(0, "h", 7, "alice", "b", "c"), "alice");
    EXPECT_EQ(print(2, "h", 7, nullptr, "b", "c"), "");
}

TEST(sec_uri, compares) {
    const struct {
        const char *a, *b;
        unsigned flags;
        int equal;
    } rows[] = {
        {"kpr://hosta:1/x/y", "kpr://host/x/y", 1, 1},
        {"kpr://h/x/y", "kpr://h/x/z", 1, 0},
        {"kpr:///x", "kpr://anything:9/x", 1, 1},
        {"os://alice", "alice", 1, 1},
        {"os://alice", "kpr://alice", 1, 0},
        {"kpr://a:1/x/y", "kpr://b/x/y", 0, 1},
        {"kpr://a/x", "kpr://a/y", 0, 0},
        {"administrator", "operator", 0, 1},
        {"ab", "ab", 0, 1},
        {"ab", "abc", 0, 0},
        {"alice", "bob", 1, 0},
        {"ab", "administrator", 0, 0},
        {"https://h/x", "https://g/x", 0, 0},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(qz_isequal_sec_uri(row.a, row.b, row.flags), row.equal) << row.a << " " << row.b;
        EXPECT_EQ(qz_isequal_sec_uri(row.b, row.a, row.flags), row.equal) << row.b << " " << row.a;
    }
    EXPECT_EQ(qz_isequal_sec_uri(nullptr, nullptr, 1), 1);
    EXPECT_EQ(qz_isequal_sec_uri(nullptr, "x", 1), 0);
    EXPECT_EQ(qz_isequal_sec_uri("x", nullptr, 0), 0);
}

TEST(sec_uri, overlays) {
    const struct {
        const char *a, *b, *expected;
    } rows[] = {
        {"kpr://h:1/a/b/c", "kpr:///x", "kpr://h:1/x/b/c"},
        {"kpr:///a/b/c", "kpr:///x", "kpr:///x//"},
        {"kpr://h:1/a/b/c", "kpr://loc:5/x", "kpr://loc/x//"},
        {"kpr://h:1/a/b/c", "kpr://g:2/x/y/z", "kpr://g:2/x/y/z"},
        {"kpr://h:1/a/b/c", "kpr://g", "kpr://g:1/a/b/c"},
        {"kpr://h/a", "kpr://localhosts/x", "kpr://localhosts/x//"},
        {"kpr://h/a", "bob", "bob"},
        {"kpr://h/a/b", "os://", "a"},
        {nullptr, nullptr, ""},
        {nullptr, "kpr://h/x", "kpr://h/x//"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(text_of(qz_sec_overlay(row.a, row.b)), row.expected);
    }
}

using resolver = file_test;

TEST_F(resolver, names_the_primary_broker) {
    const std::string file = path("resolver.conf");
    const auto broker_of = [&](const std::string& content) {
        write(file, content);
        return text_of(get_default_user(file.c_str()));
    };
    const std::string sections =
        "[a]\nprimary = true;\nprimary_broker = first;\n"
        "[b]\nprimary = \"true indeed\";\nprimary_broker = second;\n"
        "[c]\nprimary = true;\n"
        "[d]\nprimary = false;\nprimary_broker = third;\n";
    EXPECT_EQ(broker_of("[domains]\na = \"\";\nz = \"\";\n" + sections), "first");
    EXPECT_EQ(broker_of("[d]\nprimary = false;\n"), "(null)");
    EXPECT_EQ(broker_of("nonsense"), "(null)");
    EXPECT_EQ(broker_of(sections), "second");
    ASSERT_EQ(setenv("PLX_RESOLV", file.c_str(), 1), 0);
    EXPECT_EQ(text_of(get_default_user(nullptr)), "second");
    ASSERT_EQ(unsetenv("PLX_RESOLV"), 0);
    EXPECT_EQ(get_default_user(path("missing").c_str()), nullptr);
}

TEST(text_form, keys_and_types) {
    for (const char* good : {"a", "_", "Z9 _b"}) {
        EXPECT_EQ(is_valid_key(good), 1) << good;
    }
    for (const char* bad : {"", "9a", " a", "a.b", "a-", "\xe9", "a\xe9", "a{", "a["}) {
        EXPECT_EQ(is_valid_key(bad), 0) << bad;
    }
    EXPECT_EQ(is_valid_key(nullptr), 0);
    for (std::uint32_t type = 0; type < 40; ++type) {
        for (const std::uint32_t flags : {0U, 0x20000000U, 0xe0000000U}) {
            EXPECT_EQ(is_valid_type(type | flags), type >= 1 && type <= 17) << type;
        }
        EXPECT_EQ(is_valid_type(0x10000 + type), type == 5) << type;
    }
    EXPECT_EQ(is_valid_type(0x10000001), 0);
}

TEST(text_form, escapes_of_little) {
    EXPECT_EQ(format_unsafe_json_str(nullptr), nullptr);
    EXPECT_EQ(format_unsafe_xml_str(nullptr), nullptr);
    EXPECT_EQ(text_of(format_unsafe_xml_str("")), "");
    EXPECT_EQ(text_of(format_unsafe_xml_str("'\"&amp;")), "'\"&amp;amp;");
}

}  // namespace
