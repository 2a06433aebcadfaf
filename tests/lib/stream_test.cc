// Proves that the byte stream equals a string with a cursor, and pins its kept oddities.

#include "lib/plat.h"
#include "lib/qzstream.h"
#include "tests/support/testing.h"

namespace {

std::string content(const qz_stream* stream) {
    return {reinterpret_cast<const char*>(stream->data), stream->length};
}

struct model {
    std::string text;
    std::size_t cursor = 0;

    // Replaces what is there and lengthens the text by its own size.
    void write(const std::string& bytes) {
        text.resize(text.size() + bytes.size(), '\0');
        text.replace(cursor, bytes.size(), bytes);
        cursor += bytes.size();
    }
};

void random_step(std::mt19937& random, qz_stream* stream, model& expected) {
    const auto n = static_cast<std::uint32_t>(random() % 400);
    switch (random() % 6) {
        case 0: {
            std::string got(n, '?');
            got.resize(qz_read_stream(stream, got.data(), n));
            EXPECT_EQ(got, expected.text.substr(expected.cursor, n));
            expected.cursor += got.size();
            break;
        }
        case 1:
            qz_rewind_stream(stream);
            expected.cursor = 0;
            break;
        case 2:
            if (expected.text.size() < 4000) {
                EXPECT_EQ(qz_concat_stream(stream, stream), expected.text.size());
                expected.write(std::string(expected.text));
            }
            break;
        case 3:
            EXPECT_EQ(qz_resize_stream(stream, n), n);
            EXPECT_EQ(stream->capacity, n);
            expected.text.resize(std::min<std::size_t>(expected.text.size(), n));
            expected.cursor = std::min<std::size_t>(expected.cursor, n);
            break;
        default: {
            const std::string bytes(n, static_cast<char>('a' + random() % 26));
            EXPECT_EQ(qz_write_stream(stream, bytes.data(), n), n);
            expected.write(bytes);
        }
    }
}

TEST(stream, agrees_with_a_string_on_random_operations) {
    std::mt19937 random(11);
    for (int round = 0; round < 60; ++round) {
        const stream_ptr stream(new_qz_stream(random() % 3 == 0 ? 1 : 0));
        model expected;
        for (int i = 0; i < 120; ++i) {
            random_step(random, stream.get(), expected);
            ASSERT_EQ(content(stream.get()), expected.text);
            ASSERT_EQ(stream->position, expected.cursor);
            ASSERT_GE(stream->capacity, stream->length);
        }
    }
}

TEST(stream, grows_by_the_larger_of_capacity_and_request_and_hands_its_bytes_over) {
    const stream_ptr stream(new_qz_stream(0));
    EXPECT_EQ(stream->capacity, 256U);
    const std::string bytes(300, 'x');
    EXPECT_EQ(qz_write_stream(stream.get(), bytes.data(), 300), 300U);
    EXPECT_EQ(stream->capacity, 556U);
    EXPECT_EQ(qz_write_stream(stream.get(), bytes.data(), 257), 257U);
    EXPECT_EQ(stream->capacity, 1112U);
    std::uint32_t length = 0;
    const qz_owned<unsigned char> data(qz_get_data_stream(stream.get(), &length));
    EXPECT_EQ(length, 557U);
    EXPECT_EQ(stream->data, nullptr);
    EXPECT_EQ(qz_vprintf_stream(stream.get(), "%s-%d", "ab", 7), 4);
    EXPECT_EQ(content(stream.get()), "ab-7");
    qz_delete_stream(nullptr);
}

TEST(stream, formats_any_length_and_only_1024_characters_lose_the_last) {
    for (const std::size_t length : {0U, 1U, 1023U, 1024U, 1025U, 5'000'000U}) {
        const std::string text(length, 'x');
        const stream_ptr stream(new_qz_stream(0));
        EXPECT_EQ(qz_vprintf_stream(stream.get(), "%s", text.c_str()), static_cast<int>(length));
        std::string expected = text;
        if (length == 1024) {
            expected.back() = '\0';
        }
        EXPECT_EQ(content(stream.get()), expected) << length;
    }
}

int estimate_of(std::size_t* estimate, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int result = qz_get_vprintf_size(format, estimate, args);
    va_end(args);
    return result;
}

TEST(stream, estimate_is_multiplied_by_the_length) {
    const std::string text(1500, 'x');
    std::size_t estimate = 1024;
    EXPECT_EQ(estimate_of(&estimate, "%s", text.c_str()), 0);
    EXPECT_EQ(estimate, 1'536'000U);
    EXPECT_EQ(estimate_of(&estimate, "%s", text.c_str()), 1500);
    EXPECT_EQ(estimate, 1'536'000U);
    estimate = 0;
    EXPECT_EQ(estimate_of(&estimate, "%s", "x"), 1);
}

TEST(stream, binary_print_shows_the_index) {
    const stream_ptr stream(new_qz_stream(0));
    qz_print_stream_binary(stream.get(), nullptr, 10);
    EXPECT_EQ(content(stream.get()), "0001020304050607 0809");
    qz_print_stream_binary(stream.get(), nullptr, 258);
    EXPECT_TRUE(content(stream.get()).ends_with(" f8f9fafbfcfdfeff 100101"));
}

TEST(stream, prints_to_a_descriptor_and_ends_on_an_error) {
    const stream_ptr stream(new_qz_stream(0));
    qz_vprintf_stream(stream.get(), "abcdefgh");
    testing::internal::CaptureStdout();
    EXPECT_EQ(qz_print_stream(STDOUT_FILENO, stream.get()), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "abcdefgh");
    EXPECT_EQ(qz_print_stream(-1, stream.get()), 0);
}

}  // namespace
