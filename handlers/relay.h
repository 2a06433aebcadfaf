// What the relays to CGI programs and to proxy targets share: the wait for a reply's headers, where
// bodies end, in both directions, and the status that is written into a reply's first line.
//
// `s` is always a connection's local stream with io_cgi or io_proxy installed. The scanners hang in
// its channel while one of the bodies is chunked.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "core/connection.h"
#include "core/stream.h"
#include "handlers/chunked.h"

// Puts the first three characters of the number, at least three wide, in place of the status code
// of the status line. Requires: 12 bytes.
void write_status(char* status_line, std::uint64_t status);

// --- Replies ---

// How one kind of sender begins its replies.
struct reply_head_rules {
    const char* failure;      // the reason of the 500 when it ends inside its headers
    std::size_t own_bytes;    // the daemon's own in front of them, left out of the log
    void (*accept)(stream*);  // called once, with header_length set, when they are complete
};

// Takes the result of a read, and errno with it, while the headers are incomplete: `n` bytes stand
// behind the buffer's head. Nothing can be sent before the blank line has come; headers that fill
// the buffer or hold a forbidden byte are answered with 500. Returns what the class's read returns.
ssize_t take_reply_head(stream* s, ssize_t n, const reply_head_rules& rules);

enum class reply_end : std::uint8_t {
    at_once,     // nothing follows the headers
    counted,     // Content-Length says
    chunked,     // the last chunk says
    with_close,  // the sender closes
};

// How the end of the reply with this header block (and these values) to a request of `method` is
// recognised.
reply_end find_reply_end(std::string_view head, const header_values& values, int method);

// --- The scanners of one stream ---

struct relay_scanners {
    chunk_scanner request;
    chunk_scanner reply;
    bool scans_request = false;
    std::size_t request_skip = 0;  // bytes that go out in front of the request's body
    bool scans_reply = false;
};

// The stream's scanners, made when there are none.
relay_scanners* obtain_scanners(stream* s);

// The stream's scanners or null.
relay_scanners* scanners_of(const stream* s);

// Frees the scanners. Idempotent.
void release_scanners(stream* s);

// --- Request bodies ---

// A request body without announced length is delivered up to its last chunk and no further. Call
// it once, after the class was installed.
void watch_request_body(stream* s);

struct body_allowance {
    std::size_t bytes;  // how many of the offered bytes may be sent
    bool last;          // nothing may be sent after them
};

// Judges the next `length` bytes of the body; nothing counts as sent yet.
body_allowance allowed_body(const stream* s, const void* bytes, std::size_t length);

// Counts the first `sent` of the judged bytes as delivered.
void note_body_sent(stream* s, const void* bytes, std::size_t sent);
