// What the relays to CGI programs and to proxy targets share: the wait for a reply's headers, where
// bodies end, in both directions, and the status that is written into a reply's first line.
//
// `s` is always a connection's local stream with io_cgi or io_proxy installed.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
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
// the buffer or hold a forbidden byte are answered with 500. Interim answers are dropped: they are
// meant for the next hop. Returns what the class's read returns.
ssize_t take_reply_head(stream* s, ssize_t n, const reply_head_rules& rules);

// The status in a status line; 0 when the reply does not begin with one.
std::uint64_t reply_status(std::string_view head);

// Whether the header block is an interim answer: a status of 100 to 199, except 101, behind which
// the answer follows.
bool is_interim(std::string_view head);

// Answers with this status have no body whatever length they announce.
bool is_bodyless(std::uint64_t status);

enum class reply_end : std::uint8_t {
    at_once,     // nothing follows the headers
    counted,     // the announced length says
    chunked,     // the last chunk says
    with_close,  // the sender closes
};

// What a reply's header block says about where it ends.
struct reply_framing {
    reply_end end = reply_end::with_close;
    std::uint64_t length = 0;  // as announced; 0: none, or none that can be read
    bool chunked = false;      // the last coding is
    bool clear = true;         // at most one announcement, and no two readers differ about it
};

// Blanks around values and a missing one behind the colon make no difference; of several codings
// the last counts, of several lengths the last number. Only zeros are a length of 0.
reply_framing frame_reply(std::string_view head, int method);

// Whether what follows the reply can't be told from a part of it: by the client, or by the daemon
// if its sender does not know that the request was a HEAD.
bool blurs_next_reply(const reply_framing& framing, std::uint64_t status);

// --- The state of one relay ---

enum class relay_step : std::uint8_t {
    starting,    // the program's turn to be started has not come
    naming,      // whether the target is this daemon itself is being looked up
    connecting,  // the target is not ready yet
    in_line,     // others use the companion service
    relaying,    // bytes move
};

struct relay_record {
    relay_step step = relay_step::relaying;
    bool scans_request = false;
    bool scans_reply = false;
    bool repeatable = false;  // the whole body stands in the forwarded head, which is kept
    chunk_scanner request;
    chunk_scanner reply;
    std::string program;  // that is to be started
};

// Installs a relay's class on a connection's local stream. One that has to wait for its other end
// is called in every visit until begin_relaying().
void install_relay(stream* s, const io_class* io, int fd, relay_step step);

// The stream has to wait again, for a target this time.
void wait_for_target(stream* s);

// The other end is there: from now on the poll set tells when bytes can move.
void begin_relaying(stream* s);

// The stream's record, from install_relay() to release_relay().
relay_record* relay_of(const stream* s);

// Frees the record. Idempotent.
void release_relay(stream* s);

// --- Request bodies ---

// How one kind of receiver takes bodies.
struct body_receiver {
    ssize_t (*deliver)(stream*, const void* bytes, std::size_t length);  // like a class's write
    void (*finish)(stream*);  // called once, when the whole body has been delivered
};

// Delivers the next bytes of the forwarded head and then of the request's body: a class's write. A
// chunked body that breaks, or whose trailer names a caller, is answered with 400, or cut short
// together with a reply that has begun.
ssize_t relay_body(stream* s, const void* bytes, std::size_t length, const body_receiver& receiver);

// Whether a chunked body is being delivered whose end has not come.
bool body_is_cut(const stream* s);
