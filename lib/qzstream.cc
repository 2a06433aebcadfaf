#include "lib/qzstream.h"

#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>

#include "lib/alloc.h"

namespace {

constexpr std::uint32_t default_capacity = 256;
constexpr std::size_t first_estimate = 1024;

std::uint32_t checked_size(std::uint64_t size) {
    if (size > std::numeric_limits<std::uint32_t>::max()) {
        std::abort();  // lengths are 32-bit: nothing may be cut silently
    }
    return static_cast<std::uint32_t>(size);
}

void set_capacity(qz_stream* stream, std::uint32_t capacity) {
    stream->data = static_cast<unsigned char*>(qz_need_resize(stream->data, capacity));
    stream->capacity = capacity;
}

// Makes room for a write of `n` bytes; the length that the write will leave fits as well.
void reserve(qz_stream* stream, std::uint32_t n) {
    const std::uint64_t needed =
        std::uint64_t{std::max(stream->position, stream->length)} + std::uint64_t{n};
    if (needed > stream->capacity) {
        set_capacity(stream, checked_size(std::uint64_t{stream->capacity} +
                                          std::uint64_t{std::max(stream->capacity, n)}));
    }
}

[[maybe_unused]] bool lies_inside(const qz_stream* stream, const unsigned char* bytes) {
    const std::less<> before;
    return stream->data != nullptr && !before(bytes, stream->data) &&
           before(bytes, stream->data + stream->capacity);
}

// Copies to the cursor; the room is there.
void put_bytes(qz_stream* stream, const unsigned char* bytes, std::uint32_t n) {
    const std::uint32_t end = stream->position + n;
    std::memmove(stream->data + stream->position, bytes, n);
    // Kept: an overwrite after a rewind lengthens the content by n all the same. What is counted
    // but was never written must not show old heap bytes.
    const std::uint32_t written = std::max(end, stream->length);
    std::memset(stream->data + written, 0, stream->length + n - written);
    stream->length += n;
    stream->position = end;
}

}  // namespace

qz_stream* new_qz_stream(std::uint32_t initial) noexcept {
    auto* stream = qz_need_new<qz_stream>();
    set_capacity(stream, initial == 0 ? default_capacity : initial);
    return stream;
}

void qz_delete_stream(qz_stream* stream) noexcept {
    if (stream != nullptr) {
        qzfree(stream->data);
        qzfree(stream);
    }
}

std::uint32_t qz_write_stream(qz_stream* stream, const void* bytes, std::uint32_t n) noexcept {
    if (n == 0) {
        return 0;
    }
    const auto* source = static_cast<const unsigned char*>(bytes);
    assert(!lies_inside(stream, source));
    reserve(stream, n);
    put_bytes(stream, source, n);
    return n;
}

std::uint32_t qz_read_stream(qz_stream* stream, void* buffer, std::uint32_t n) noexcept {
    // The cursor never passes the length: writing advances both.
    const std::uint32_t count = std::min(n, stream->length - stream->position);
    if (count > 0) {
        std::memcpy(buffer, stream->data + stream->position, count);
        stream->position += count;
    }
    return count;
}

void qz_rewind_stream(qz_stream* stream) noexcept {
    stream->position = 0;
}

std::uint32_t qz_resize_stream(qz_stream* stream, std::uint32_t size) noexcept {
    set_capacity(stream, size);
    stream->position = std::min(stream->position, size);
    stream->length = std::min(stream->length, size);
    return size;
}

unsigned char* qz_get_data_stream(qz_stream* stream, std::uint32_t* length) noexcept {
    unsigned char* data = stream->data;
    *length = stream->length;
    *stream = {};
    return data;
}

std::uint32_t qz_concat_stream(qz_stream* stream, const qz_stream* other) noexcept {
    const std::uint32_t n = other->length;
    if (n > 0) {
        reserve(stream, n);  // first: the two may be one stream, whose bytes move here
        put_bytes(stream, other->data, n);
    }
    return n;
}

int qz_print_stream(int fd, const qz_stream* stream) noexcept {
    std::uint32_t remaining = stream->length;
    while (remaining > 0) {
        ssize_t written;
        do {
            written = ::write(fd, stream->data, remaining);
        } while (written < 0 && errno == EINTR);
        if (written <= 0) {
            break;
        }
        // Kept: the next write starts at the first byte again, and a write that equals what then
        // remains ends the loop, so short writes repeat or lose bytes.
        remaining -= static_cast<std::uint32_t>(written);
        if (static_cast<std::uint32_t>(written) == remaining) {
            break;
        }
    }
    return 0;
}

int qz_vprintf_stream(qz_stream* stream, const char* format, ...) noexcept {
    va_list args;
    va_start(args, format);
    const int result = qz_vprintf_stream_args(stream, format, args);
    va_end(args);
    return result;
}

int qz_vprintf_stream_args(qz_stream* stream, const char* format, va_list args) noexcept {
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length <= 0) {
        return length;
    }
    const auto n = static_cast<std::uint32_t>(length);
    qz_owned<char> text(static_cast<char*>(qz_need_bytes(std::size_t{n} + 1)));
    (void)std::vsnprintf(text.get(), std::size_t{n} + 1, format, args);  // measured above
    if (n == first_estimate) {
        // Kept: a text as long as the first estimate loses its last character to a zero byte.
        text.get()[n - 1] = '\0';
    }
    return static_cast<int>(qz_write_stream(stream, text.get(), n));
}

int qz_get_vprintf_size(const char* format, std::size_t* estimate, va_list args) noexcept {
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, again);
    va_end(again);
    if (length < 0) {
        return length;
    }
    *estimate = std::max<std::size_t>(*estimate, 1);
    if (*estimate >= static_cast<std::size_t>(length)) {
        return length;
    }
    // Kept: multiplied, not replaced, so the estimate overshoots by a factor of a thousand.
    *estimate *= static_cast<std::size_t>(length);
    return 0;
}

void qz_print_stream_binary(qz_stream* stream, [[maybe_unused]] const void* bytes,
                            std::uint32_t n) noexcept {
    const std::uint64_t expected = std::uint64_t{stream->length} + n + n / 8 + 1;
    if (stream->capacity <= expected) {
        (void)qz_resize_stream(stream, checked_size(expected));
    }
    for (std::uint32_t i = 0; i < n; ++i) {
        if (i != 0 && i % 8 == 0) {
            (void)qz_write_stream(stream, " ", 1);
        }
        // Kept: prints the index, not the byte.
        (void)qz_vprintf_stream(stream, "%02x", i);
    }
}
