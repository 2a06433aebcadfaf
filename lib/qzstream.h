// A growable byte buffer with one cursor for reading and writing.
//
// The stream owns its bytes until qz_get_data_stream hands them over. Sizes and positions are
// bytes; a stream ends the process rather than pass 4 GiB - 1. Not safe for use from two threads.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>

struct qz_stream {
    unsigned char* data;
    std::uint32_t position;  // the cursor
    std::uint32_t capacity;  // bytes allocated, never below length
    std::uint32_t length;    // bytes of content
};

// Returns an empty stream with `initial` bytes of capacity, 256 when 0.
[[nodiscard]] qz_stream* new_qz_stream(std::uint32_t initial) noexcept;

// Frees the bytes and the stream. Null is ignored.
void qz_delete_stream(qz_stream* stream) noexcept;

// Writes `n` bytes at the cursor, advances it and returns n. When room is short the capacity grows
// by the larger of the capacity and n. Requires: the bytes do not lie in the stream itself. Kept:
// the length grows by n even when the write overwrites content after a rewind; the bytes that are
// counted but were never written read as zero.
std::uint32_t qz_write_stream(qz_stream* stream, const void* bytes, std::uint32_t n) noexcept;

// Copies up to `n` bytes from the cursor, advances it and returns the number copied.
std::uint32_t qz_read_stream(qz_stream* stream, void* buffer, std::uint32_t n) noexcept;

// Sets the cursor to 0.
void qz_rewind_stream(qz_stream* stream) noexcept;

// Sets the capacity to exactly `size`, cutting cursor and length down to it; returns size.
std::uint32_t qz_resize_stream(qz_stream* stream, std::uint32_t size) noexcept;

// Hands the bytes to the caller (free with qzfree), stores their number and leaves the stream empty
// with null data; the stream itself must still be freed.
[[nodiscard]] unsigned char* qz_get_data_stream(qz_stream* stream, std::uint32_t* length) noexcept;

// Writes the whole content of `other` at the cursor of `stream`; returns the number of bytes. The
// two may be the same stream.
std::uint32_t qz_concat_stream(qz_stream* stream, const qz_stream* other) noexcept;

// Writes the content to a descriptor; always returns 0. For one complete write only.
// Kept: after a short write the loop starts again at the first byte of the buffer, and it ends when
// the last write equals what then remains, so short writes repeat or lose bytes.
int qz_print_stream(int fd, const qz_stream* stream) noexcept;

// Formats at the cursor and returns the number of characters (negative on a format error, and then
// nothing is written).
// Kept: a text of exactly 1024 characters is written with a zero byte in place of its last
// character.
[[gnu::format(printf, 2, 3)]] int qz_vprintf_stream(qz_stream* stream, const char* format,
                                                    ...) noexcept;
[[gnu::format(printf, 2, 0)]] int qz_vprintf_stream_args(qz_stream* stream, const char* format,
                                                         va_list args) noexcept;

// Returns the length of the formatted text when it is at most `*estimate`; otherwise multiplies the
// estimate by that length and returns 0. An estimate of 0 counts as 1; negative on a format error.
// `args` stays usable.
// Kept: the multiplication overshoots by far (1024 becomes 1,536,000 for 1500 characters).
[[gnu::format(printf, 1, 0)]] int qz_get_vprintf_size(const char* format, std::size_t* estimate,
                                                      va_list args) noexcept;

// Appends two hexadecimal digits per byte with a blank before every eighth.
// Kept: the digits are those of the index, not of the byte; `bytes` is never read and may be null.
void qz_print_stream_binary(qz_stream* stream, const void* bytes, std::uint32_t n) noexcept;

struct qz_stream_deleter {
    void operator()(qz_stream* stream) const noexcept { qz_delete_stream(stream); }
};
using stream_ptr = std::unique_ptr<qz_stream, qz_stream_deleter>;
