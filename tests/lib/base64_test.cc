// Proves the base64 routines against published vectors, a text made by another encoder, and exact
// heap blocks that let the sanitizer see any byte too far.
#include "lib/base64.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <string>

namespace {

// Decodes from a block of exactly the text's size into one of exactly `room` bytes.
std::optional<std::string> decode(const std::string& text, int room) {
    const auto in = std::make_unique<char[]>(text.size());
    std::memcpy(in.get(), text.data(), text.size());
    const auto out = std::make_unique<char[]>(static_cast<std::size_t>(room));
    const int n = base64_decode(out.get(), room, in.get(), static_cast<int>(text.size()));
    if (n < 0) {
        return std::nullopt;
    }
    return std::string(out.get(), static_cast<std::size_t>(n));
}

std::string encode(const std::string& bytes) {
    const std::size_t room = 4 * ((bytes.size() + 2) / 3) + 1;
    const auto out = std::make_unique<char[]>(room);
    EXPECT_EQ(base64_encode(out.get(), static_cast<int>(room) - 1, bytes.data(),
                            static_cast<int>(bytes.size())),
              -1);
    const int n = base64_encode(out.get(), static_cast<int>(room), bytes.data(),
                                static_cast<int>(bytes.size()));
    EXPECT_EQ(n, static_cast<int>(room) - 1);
    return out.get();
}

TEST(base64, published_vectors) {
    const struct {
        const char* bytes;
        const char* text;
    } rows[] = {{"", ""},
                {"f", "Zg=="},
                {"fo", "Zm8="},
                {"foo", "Zm9v"},
                {"foob", "Zm9vYg=="},
                {"fooba", "Zm9vYmE="},
                {"foobar", "Zm9vYmFy"}};
    for (const auto& row : rows) {
        EXPECT_EQ(encode(row.bytes), row.text);
        EXPECT_EQ(decode(row.text, 6), row.bytes);
    }
}

TEST(base64, text_of_another_encoder) {
    const std::string text =
        "DbRbAqlQ955F7JM64Ygv1n0ky3IZwGcOtVwDqlH4n0btlDviiTDXfiXMcxrBaA+2XQSrUvmgR+6VPOOKMdh/Js10"
        "G8JpELdeBaxT+qFI75Y95Isy2YAnznUcw2oRuF8GrVT7oknwlz7ljDPagSjPdh3EaxK5YAeuVfyjSvGYP+aNNNuC"
        "KdB3HsVsE7phCK9W/aRL8plA54413IMq0Xgfxm0Uu2IJsFf+pUzzmkHojzbdhCvSeSDHbhW8YwqxWP+mTfSbQumQ"
        "N96FLNN6IchvFr1kC7JZAKdO9ZxD6pE434Yt1HsiyXAXvmUMs1oBqE/2nUTrkjnghy7VfCPKcRi/Zg==";
    std::string bytes;
    for (unsigned i = 0; i < 256; ++i) {
        bytes += static_cast<char>((i * 167 + 13) % 256);
    }
    EXPECT_EQ(encode(bytes), text);
    EXPECT_EQ(decode(text, 258), bytes);
}

TEST(base64, round_trip_of_random_bytes) {
    std::mt19937 random(3);
    for (std::size_t length = 0; length <= 200; ++length) {
        std::string bytes(length, '\0');
        for (char& c : bytes) {
            c = static_cast<char>(random());
        }
        const std::string text = encode(bytes);
        EXPECT_EQ(decode(text, static_cast<int>(text.size() / 4 * 3)), bytes);
    }
}

TEST(base64, decoder_limits) {
    const auto size_of = [](const std::string& text, int room) {
        const auto bytes = decode(text, room);
        return bytes ? static_cast<int>(bytes->size()) : -1;
    };
    EXPECT_EQ(decode("  YWJj\r\n", 3), "abc");
    EXPECT_EQ(size_of(" \t\v\f\r\n", 0), 0);
    EXPECT_EQ(size_of("YQ==", 2), -1);  // padding counts for the room
    EXPECT_EQ(decode("YQ==YWJj", 6), "a");
    EXPECT_EQ(size_of("YWJj", 2), -1);
    EXPECT_EQ(size_of("YWJ\x80", 3), -1);
    EXPECT_EQ(size_of("\xff\xff\xff\xff", 3), -1);
    EXPECT_EQ(size_of("!!!!", 3), 3);  // meaningless, but accepted
    for (const char* text : {"Y", "YW", "YWJ"}) {
        EXPECT_EQ(size_of(text, 3), 3) << text;
        EXPECT_EQ(size_of(text, 0), -1) << text;
    }
    EXPECT_EQ(size_of("YWJjY", 6), 6);
    EXPECT_EQ(size_of("YWJjY", 3), -1);
    EXPECT_EQ(base64_decode(nullptr, 0, nullptr, 0), 0);
}

TEST(base64, encoder_limits) {
    char out[5] = "xxxx";
    EXPECT_EQ(base64_encode(out, 4, "abc", 3), -1);
    EXPECT_STREQ(out, "xxxx");
    EXPECT_EQ(base64_encode(out, 5, "abc", 3), 4);
    EXPECT_EQ(base64_encode(out, 1, nullptr, -5), 0);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(base64_encode(out, 0, nullptr, 0), -1);
    EXPECT_EQ(base64_encode(out, 5, "", 2147483647), -1);
}

}  // namespace
