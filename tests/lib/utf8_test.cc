// UTF-8 against the C library's converter.
#include "lib/utf8.h"

#include <iconv.h>

#include "tests/support/testing.h"

namespace {

bool converts(iconv_t converter, std::string text) {
    char out[256];
    char* to = out;
    char* from = text.data();
    std::size_t room = sizeof out;
    std::size_t left = text.size();
    (void)iconv(converter, nullptr, nullptr, nullptr, nullptr);
    return iconv(converter, &from, &left, &to, &room) != static_cast<std::size_t>(-1);
}

TEST(Utf8, AgreesWithTheCLibrary) {
    const iconv_t converter = iconv_open("UTF-32LE", "UTF-8");
    ASSERT_NE(converter, reinterpret_cast<iconv_t>(-1));
    // Every pair behind every first byte that announces more, and mixtures.
    constexpr std::string_view edges = "\x7f\x80\x8f\x90\x9f\xa0\xbf\xc0";
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; ++second) {
            for (const char third : edges) {
                const std::string head{static_cast<char>(first), static_cast<char>(second)};
                for (const std::string& text : {head, head + third, head + third + '\x80'}) {
                    ASSERT_EQ(is_utf8(text), converts(converter, text)) << first << " " << second;
                }
            }
        }
    }
    iconv_close(converter);
}

TEST(Utf8, CutTextsEndWithACharacter) {
    const std::string whole = "a\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80";
    const std::size_t ends[] = {0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10};
    for (std::size_t n = 0; n <= whole.size(); ++n) {
        EXPECT_EQ(without_cut_character(whole.substr(0, n)), whole.substr(0, ends[n])) << n;
    }
    EXPECT_EQ(without_cut_character("a\x80\x80\x80\x80"), "a\x80\x80\x80\x80");
}

TEST(Utf8, JsonTexts) {
    std::string out = "x";
    append_json_text(&out, std::string_view("a\"\\\n\0\x7f\xc3\xa9\xff\xe2\x82", 11));
    EXPECT_EQ(out, "xa\\\"\\\\\\u000a\\u0000\x7f\xc3\xa9\\ufffd\\ufffd\\ufffd");
}

}  // namespace
