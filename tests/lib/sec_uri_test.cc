// Proves security URIs against a table from an independent parser, and the text routines beside it.
#include "security/sec_uri.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "lib/plat.h"

namespace {

std::string text_of(char* owned) {
    const qz_owned<char> text(owned);
    return text == nullptr ? "(null)" : text.get();
}

// A slice as a text, with "(none)" for a part that does not appear.
std::string part(const qz_text& slice) {
    return slice.text == nullptr ? "(none)" : std::string(slice.text, slice.length);
}

std::string part(const char* expected) {
    return expected == nullptr ? "(none)" : expected;
}

TEST(sec_uri, parses_like_an_independent_parser) {
    const struct {
        const char* uri;
        int kind;
        const char* host;
        int port;
        const char *segment1, *segment2, *segment3;
    } rows[] = {
        {"alice", 0, nullptr, 0, "alice", nullptr, nullptr},
        {"os://alice", 0, nullptr, 0, "alice", nullptr, nullptr},
        {"os://", 0, nullptr, 0, "", nullptr, nullptr},
        {"", 0, nullptr, 0, "", nullptr, nullptr},
        {"kpr://", 1, nullptr, 0, nullptr, nullptr, nullptr},
        {"kpr:///", 1, nullptr, 0, "", nullptr, nullptr},
        {"kpr://h", 1, "h", 0, nullptr, nullptr, nullptr},
        {"kpr://h/", 1, "h", 0, "", nullptr, nullptr},
        {"kpr://h:1/a/b/c", 1, "h", 1, "a", "b", "c"},
        {"kpr://localhost:1234/a/b/c", 1, "localhost", 0, "a", "b", "c"},
        {"kpr:///a/b/c", 1, nullptr, 0, "a", "b", "c"},
        {"kpr://h/a//c", 1, "h", 0, "a", "", "c"},
        {"kpr://h/a/b/c/d", 1, "h", 0, "a", "b", "c"},
        {"https://www:443/x", 2, "www", 443, "x", nullptr, nullptr},
        {"plx://node:70000/x/y", 3, "node", 4464, "x", "y", nullptr},
        {"kpr://h:12ab/x", 1, "h", 12, "x", nullptr, nullptr},
        {"kpr://h:/x", 1, "h", 0, "x", nullptr, nullptr},
        {"kpr://:5/x", 1, "", 5, "x", nullptr, nullptr},
        {"KPR://h/x", 0, nullptr, 0, "KPR://h/x", nullptr, nullptr},
        {"kpr://localhosts:9", 1, "localhosts", 0, nullptr, nullptr, nullptr},
        {"kpr://h:65535", 1, "h", 65535, nullptr, nullptr, nullptr},
        {"http://h/x", 0, nullptr, 0, "http://h/x", nullptr, nullptr},
        {"kpr://h:1:2/x", 1, "h", 1, "x", nullptr, nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.uri);
        qz_security record;
        std::memset(&record, 0xee, sizeof record);
        ASSERT_EQ(qz_uri_to_security(row.uri, &record), &record);
        EXPECT_EQ(record.uri, row.uri);
        EXPECT_EQ(record.kind, row.kind);
        EXPECT_EQ(record.port, row.port);
        EXPECT_EQ(part(record.host), part(row.host));
        EXPECT_EQ(part(record.segment1), part(row.segment1));
        EXPECT_EQ(part(record.segment2), part(row.segment2));
        EXPECT_EQ(part(record.segment3), part(row.segment3));
    }
    qz_security untouched;
    EXPECT_EQ(qz_uri_to_security(nullptr, &untouched), nullptr);
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
        {"kpr://h/x", "kpr://g/x", 1, 0},
        {"kpr:///x", "kpr://anything:9/x", 1, 1},
        {"os://alice", "alice", 1, 1},
        {"alice", "bob", 1, 0},
        {"os://alice", "kpr://alice", 1, 0},
        {"kpr://a:1/x/y", "kpr://b/x/y", 0, 1},
        {"kpr://a/x", "kpr://a/y", 0, 0},
        {"administrator", "operator", 0, 1},
        {"ab", "ab", 0, 1},
        {"ab", "abc", 0, 0},
        {"ab", "administrator", 0, 0},
        {"https://h/x", "https://g/x", 0, 0},
        {"", "", 0, 1},
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

TEST(sec_uri, primary_broker_of_the_domain_list) {
    const std::string path = testing::TempDir() + "resolver.conf";
    const auto broker_of = [&](const char* content) {
        std::ofstream(path) << content;
        return text_of(get_default_user(path.c_str()));
    };
    const char* const sections =
        "[a]\nprimary = true;\nprimary_broker = first;\n"
        "[b]\nprimary = \"true indeed\";\nprimary_broker = second;\n"
        "[c]\nprimary = true;\n"
        "[d]\nprimary = false;\nprimary_broker = third;\n";
    EXPECT_EQ(broker_of(sections), "second");
    EXPECT_EQ(broker_of((std::string("[domains]\na = \"\";\nz = \"\";\n") + sections).c_str()),
              "first");
    EXPECT_EQ(broker_of("[d]\nprimary = false;\n"), "(null)");
    EXPECT_EQ(broker_of("nonsense"), "(null)");
    std::ofstream(path) << sections;
    ASSERT_EQ(setenv("PLX_RESOLV", path.c_str(), 1), 0);
    EXPECT_EQ(text_of(get_default_user(nullptr)), "second");
    ASSERT_EQ(unsetenv("PLX_RESOLV"), 0);
    std::remove(path.c_str());
    EXPECT_EQ(get_default_user(path.c_str()), nullptr);
}

TEST(text_form, keys_and_types) {
    for (const char* good : {"a", "_", "Z9 _b"}) {
        EXPECT_EQ(is_valid_key(good), 1) << good;
    }
    for (const char* bad : {"", "9a", " a", "a.b", "a-", "\xe9", "a\xe9"}) {
        EXPECT_EQ(is_valid_key(bad), 0) << bad;
    }
    EXPECT_EQ(is_valid_key(nullptr), 0);
    for (const std::uint32_t good : {1U, 17U, 0x10005U, 0x80000001U, 0xe0010005U}) {
        EXPECT_EQ(is_valid_type(good), 1) << good;
    }
    for (const std::uint32_t bad : {0U, 18U, 0x10004U, 0x10006U, 0x80000000U, 0x10000001U}) {
        EXPECT_EQ(is_valid_type(bad), 0) << bad;
    }
}

TEST(text_form, escapes) {
    char text[] = "say \"hi\\\"";
    EXPECT_EQ(format_unsafe_json_str(text), text);
    EXPECT_STREQ(text, "say 'hi\\'");
    EXPECT_EQ(format_unsafe_json_str(nullptr), nullptr);
    EXPECT_EQ(text_of(format_unsafe_xml_str("<a href=\"x\">&amp;'")),
              "&lt;a href=\"x\"&gt;&amp;amp;'");
    EXPECT_EQ(text_of(format_unsafe_xml_str("")), "");
    EXPECT_EQ(format_unsafe_xml_str(nullptr), nullptr);
    const std::string ampersands(1000, '&');
    EXPECT_EQ(text_of(format_unsafe_xml_str(ampersands.c_str())).size(), 5000U);
}

TEST(text_form, guid) {
    struct {
        char padding;
        unsigned char bytes[16];
    } odd{};
    const qz_guid guid{0x01234567, 0x89ab, 0xcdef, {1, 2, 3, 4, 5, 6, 7, 0xff}};
    std::memcpy(odd.bytes, &guid, sizeof guid);
    char out[39];
    EXPECT_EQ(guidtostr(odd.bytes, out), 38);
    EXPECT_STREQ(out, "{01234567-89ab-cdef-0102-0304050607ff}");
}

}  // namespace
