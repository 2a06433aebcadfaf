// Proves the bounded string helpers: decoding against Python's, comparison against the C library's,
// copies and lists against tables.
#include "core/string.h"

#include <strings.h>

#include "tests/support/testing.h"

namespace {

std::string from_hex(const std::string& hex) {
    std::string bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    }
    return bytes;
}

TEST(UrlDecode, AgreesWithPythonAtEveryBufferSizeAndInPlace) {
    std::ifstream table(CORE_TEST_DATA "/url_decode_table.txt");
    int rows = 0;
    for (std::string line; std::getline(table, line); ++rows) {
        const std::size_t blank = line.find(' ');
        const std::string source = from_hex(line.substr(0, blank));
        const std::string expected = from_hex(line.substr(blank + 1));
        for (std::size_t size = 0; size <= expected.size() + 2; ++size) {
            std::string buffer(size + 1, '#');
            const std::size_t n = url_decode(source.data(), source.size(), buffer.data(), size);
            const std::string cut = expected.substr(0, size == 0 ? 0 : size - 1);
            EXPECT_EQ(buffer.substr(0, n), cut) << line << " into " << size;
            EXPECT_EQ(buffer[size == 0 ? 0 : n], size == 0 ? '#' : '\0') << line;
            EXPECT_EQ(buffer[size], '#') << line << " wrote behind " << size;
        }
        std::string in_place = source + '\0';
        const std::size_t n =
            url_decode(in_place.data(), source.size(), in_place.data(), in_place.size());
        EXPECT_EQ(in_place.substr(0, n), expected) << line;
    }
    EXPECT_GT(rows, 200);
}

TEST(Comparison, FollowsTheCLibraryForAscii) {
    std::mt19937 random(7);
    const std::string alphabet("aAbBzZ[@`{09\x00", 13);
    for (int round = 0; round < 20000; ++round) {
        char a[6] = {};
        char b[6] = {};
        for (int i = 0; i < 5; ++i) {
            a[i] = alphabet[random() % alphabet.size()];
            b[i] = random() % 3 == 0 ? alphabet[random() % alphabet.size()] : a[i];
        }
        const std::size_t n = random() % 7;
        EXPECT_EQ(my_strncasecmp(a, b, n), strncasecmp(a, b, n)) << a << " / " << b << " / " << n;
    }
    EXPECT_GT(my_strncasecmp("\xe4", "a", 1), 0);  // bytes compare unsigned
    EXPECT_NE(my_strncasecmp("\xe4", "\xc4", 1), 0);
}

TEST(Extensions, OnlyCommasSeparate) {
    const std::tuple<const char*, const char*, bool> rows[] = {
        {"/a.cgi", ".cgi", true},
        {"/a.CGI", ".x,.cGi", true},
        {"/a.cgi", ".cgi .pl .php", false},
        {".cgi", ".cgi", false},
        {"x.cgi", ".x, ,\t,, .cgi", true},
        {"x.cgi", ",.cgi", false},  // an empty entry ends the list
        {"x9", "5634,8443s, 9000u, 9", true},
    };
    for (const auto& [path, list, matches] : rows) {
        EXPECT_EQ(match_extension(path, list), matches) << path << " | " << list;
    }
}

TEST(Copies, StayInsideTheirBuffers) {
    char buffer[5] = "####";
    EXPECT_EQ(my_strlcpy(buffer, "abc", 0), buffer);
    EXPECT_EQ(my_snprintf(buffer, 0, "%s", "abc"), 0);
    EXPECT_STREQ(buffer, "####");
    EXPECT_EQ(my_strlcpy(buffer, "abcdefg", 4), buffer + 3);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(my_snprintf(buffer, 4, "%d", 12345), 3);
    EXPECT_STREQ(buffer, "123");
    EXPECT_EQ(my_snprintf(buffer, 4, "%d", 12), 2);
    const std::unique_ptr<char, decltype(&std::free)> part(my_strndup("abcdef", 3), std::free);
    EXPECT_STREQ(part.get(), "abc");
    const decltype(part) whole(my_strdup(part.get()), std::free);
    EXPECT_STREQ(whole.get(), "abc");
}

}  // namespace
