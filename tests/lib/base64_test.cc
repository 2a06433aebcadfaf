// Proves the base64 routines against published vectors, and with exact heap blocks that let the
// sanitizer see any byte too far.
#include "lib/base64.h"

#include "tests/support/testing.h"

namespace {

// Decodes from a block of exactly the text's size into one of exactly `room` bytes.
std::optional<std::string> decode(const std::string& text, int room) {
    const auto in = std::make_unique<char[]>(text.size());
    std::memcpy(in.get(), text.data(), text.size());
    const auto out = std::make_unique<char[]>(static_cast<std::size_t>(room));
    const int n = base64_decode(out.get(), room, in.get(), static_cast<int>(text.size()));
    return n < 0 ? std::nullopt : std::optional(std::string(out.get(), out.get() + n));
}

// Encodes into the smallest block that is accepted.
std::string encode(const std::string& bytes) {
    const int room = static_cast<int>(4 * ((bytes.size() + 2) / 3) + 1);
    const int size = static_cast<int>(bytes.size());
    const auto out = std::make_unique<char[]>(static_cast<std::size_t>(room));
    EXPECT_EQ(base64_encode(out.get(), room - 1, bytes.data(), size), -1);
    EXPECT_EQ(base64_encode(out.get(), room, bytes.data(), size), room - 1);
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
                {"foobar", "Zm9vYmFy"},
                // The whole alphabet, by another encoder.
                {"\xff\xef\x7c\xef\xae\x78\xdf\x6d\x74\xcf\x2c\x70\xbe\xeb\x6c\xae"
                 "\xaa\x68\x9e\x69\x64\x8e\x28\x60\x7d\xe7\x5c\x6d\xa6\x58\x5d\x65"
                 "\x54\x4d\x24\x50\x3c\xe3\x4c\x2c\xa2\x48\x1c\x61\x44\x0c\x20\x40",
                 "/+9876543210zyxwvutsrqponmlkjihgfedcbaZYXWVUTSRQPONMLKJIHGFEDCBA"}};
    for (const auto& row : rows) {
        EXPECT_EQ(encode(row.bytes), row.text);
        EXPECT_EQ(decode(row.text, 48), row.bytes);
    }
}

TEST(base64, limits) {
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

    char out[5] = "xxxx";
    EXPECT_EQ(base64_encode(out, 4, "abc", 3), -1);
    EXPECT_STREQ(out, "xxxx");
    EXPECT_EQ(base64_encode(out, 1, nullptr, -5), 0);
    EXPECT_STREQ(out, "");
    EXPECT_EQ(base64_encode(out, 0, nullptr, 0), -1);
    EXPECT_EQ(base64_encode(out, 5, "", 2147483647), -1);
}

}  // namespace
