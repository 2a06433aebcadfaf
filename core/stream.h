// One side of a connection: a buffer and the class of operations behind it.
//
// Bytes enter the buffer at `head` through the class's read and leave at `tail`; the invariant
// 0 <= tail <= head <= size holds after every call of a class. What a class needs beyond the
// descriptor hangs in the channel, one field per kind; `state` alone serves three of them, each in
// a way of its own.
//
// The buffer itself is borrowed: during a visit both sides have one, and between visits only a side
// whose head is not 0 keeps its own. So between two calls a class may rely on the bytes that it has
// counted, and on nothing else of the buffer.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>

#include "core/io_class.h"
#include "core/shttpd.h"

enum stream_flag : std::uint32_t {
    sf_parsed = 0x1,    // remote: the request's headers; local: a CGI or proxy reply's
    sf_readable = 0x4,  // the engine may read from the class
    sf_writable = 0x8,  // the class accepts the request's body
    sf_closed = 0x10,
    sf_keep_open = 0x20,     // a read of 0 bytes or an error does not stop the stream
    sf_always_ready = 0x40,  // read without waiting for the poll set
    sf_more_follows = 0x80,  // more bytes or the close follow at once: bytes may wait for those
};

struct stream_channel {
    int fd = -1;
    off_t offset = 0;               // io_file: where the next read begins
    int put_status = 0;             // io_file: what a complete upload is answered with
    void* state = nullptr;          // io_embedded: the handler's word
    relay_record* relay = nullptr;  // io_cgi, io_proxy: owned by it
    bool holds_bytes = false;       // io_proxy: bytes that no descriptor announces may be there
    bool pins_input = false;  // io_proxy: an unfinished write is repeated from the same address
    shttpd_handler handler = nullptr;  // the handler
    void* user_data = nullptr;         // and what it was registered with
    dir_listing* dir = nullptr;        // io_dir, owned by it
    ssi_descriptor* ssi = nullptr;     // io_ssi, owned by it
};

struct stream {
    conn* connection = nullptr;
    stream_channel channel = {};
    int poll_index = -1;     // the slot in the poll set; -1: not polled
    char* buffer = nullptr;  // `size` bytes plus a spare zero byte; null: none is borrowed
    std::size_t size = 0;
    std::size_t head = 0;
    std::size_t tail = 0;
    std::uint64_t total = 0;  // bytes read through this stream; remote: of the body only
    const io_class* io = nullptr;
    std::size_t header_length = 0;     // remote: of the request; local: of the reply
    std::uint64_t content_length = 0;  // 0: unknown
    std::uint32_t flags = 0;

    [[nodiscard]] std::size_t pending() const { return head - tail; }
    [[nodiscard]] std::size_t room() const { return head < size ? size - head : 0; }
    // Whether the stream has one of the flags.
    [[nodiscard]] bool has(std::uint32_t flag) const { return (flags & flag) != 0; }
    void set(std::uint32_t flag) { flags |= flag; }
    void clear(std::uint32_t flag) { flags &= ~flag; }

    // Whether what is announced has been read; without an announcement it never has.
    [[nodiscard]] bool complete() const { return content_length > 0 && total >= content_length; }

    // Takes `n` bytes out of the buffer, which is empty again when they were all.
    void consume(std::size_t n) {
        tail += n;
        if (tail >= head) {
            clear_buffer();
        }
    }
    void clear_buffer() { head = tail = 0; }
    // Moves what is left to the buffer's beginning.
    void compact();

    // Appends text to the buffer, cut where its room ends.
    [[gnu::format(printf, 2, 3)]] void put(const char* format, ...);
    // Several pieces, cut likewise, for heads that are made in every request.
    void put_pieces(std::initializer_list<std::string_view> pieces);
    // What stands in the buffer now is the reply's head.
    void end_head() { header_length = head; }

    // Forgets everything but its connection and its buffer.
    void reset() { *this = {.connection = connection, .buffer = buffer, .size = size}; }
};

// Has the stream borrow a buffer if it has none. False when there is no memory.
[[nodiscard]] bool borrow_buffer(stream* s);

// Drops what the buffer holds, and overwrites it: a login may be in it.
void wipe_pending(stream* s);

// Gives the buffer back; what it holds is gone.
void give_back_buffer(stream* s);

// Reads once through the class into the buffer's room, never beyond the content length, counts the
// bytes and renews the connection's expiry when any moved. A read of 0 or an error stops the stream
// unless sf_keep_open is set; nothing happens to a stream whose class changed during the call.
void read_stream(stream* s);

// Writes up to `limit` bytes of from's buffer through to's class, consumes what was written and
// returns the count. An error stops `to` when it is the client's side; a handler's side only loses
// sf_writable, so that the answer it has already given is still read.
std::size_t write_stream(stream* from, stream* to, std::size_t limit);

// Closes the class, gives the poll slot back and marks the stream closed. May be repeated.
void stop_stream(stream* s);

// Installs a class on a stream: buffer and counters stay as they are, the flags are assigned.
// `fd` is stored in the channel; the stream takes part in poll only after poll_stream.
void install_class(stream* s, const io_class* io, int fd, std::uint32_t flags);

// Takes a poll slot for the stream's descriptor. False when none is left.
[[nodiscard]] bool poll_stream(stream* s, int fd);
