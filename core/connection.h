// One accepted connection: what lives as long as its socket, and the exchange that it carries.
//
// Handlers reach everything about a request through it. Each pass of the main loop visits a
// connection at most once. It is made by new_conn and freed by the engine alone.
//
// Rules for handler classes (installed on `local`):
// - `local` is fully reset before a request is routed; a class assigns its flags with
//   install_class. Replies begin at local.buffer with tail 0.
// - A class without a poll slot sets sf_always_ready. A read that can't produce anything yet
//   returns 0 with sf_keep_open set, or -1 with EAGAIN; it is then called again on a later pass, at
//   the latest after a second, at once after visit_soon().
// - The engine hands a forwarded head and then the request's body, at most body_left bytes of it,
//   to a class that has sf_writable, a write operation and a poll slot (or takes_body_unpolled),
//   and reads from it while sf_readable.
// - Poll events are decided by the engine alone, after every visit.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include "core/fwd.h"
#include "core/list.h"
#include "core/namespace_ref.h"
#include "core/pass_work.h"
#include "core/resolver.h"
#include "core/stream.h"

enum http_method : int {
    method_get = 0,
    method_post = 1,
    method_put = 2,
    method_delete = 3,
    method_head = 4,
};

// The values of the known headers; texts point into the block that was parsed.
struct header_values {
    std::uint64_t content_length = 0;
    std::string_view content_type;
    std::string_view connection;
    std::time_t if_modified_since = 0;
    std::string_view authorization;
    std::string_view user_agent;
    std::string_view referer;
    std::string_view cookie;
    std::string_view location;
    std::string_view range;
    std::uint64_t status = 0;
    std::string_view transfer_encoding;
    std::string_view accept_language;
    std::string_view on_behalf_user;
    std::string_view on_behalf_ip;
    std::string_view operation;
    std::string_view namespace_name;
};

// What the client has asked for.
struct request_data {
    int method = method_get;
    unsigned long major = 0;
    unsigned long minor = 0;
    std::string text;                 // the header block; the request line is terminated in place
    std::size_t headers_start = 0;    // where the header lines begin in `text`
    std::size_t headers_scanned = 0;  // how much of an incomplete header block was looked at
    std::string uri;                  // decoded and cleaned; a proxied one as received, cleaned
    std::string query;                // decoded; meaningful when has_query
    bool has_query = false;
    bool is_last = false;        // the client has announced that nothing follows
    std::string path_info;       // without its leading slash; empty: none
    const char* mime = nullptr;  // chosen for an index file; null: by the URI's extension
    namespace_ref ns;
    std::string role;           // the URI's role segment
    std::string recorded_role;  // the role that authorization granted; empty: none
    header_values headers;
    bool login_judged = false;    // by its Authorization value, which is wiped then
    std::string typed_user;       // of that value
    bool refusal_logged = false;  // the error log has the line of this request's refusal
    lookup_ptr peer_lookup;       // see peer_name()
    lookup_ptr own_lookup;
    lookup_ptr target_lookup;             // under way: whether the URI names this very daemon
    std::int64_t target_deadline_ms = 0;  // when a proxy target must be ready; 0: not begun

    // The request line, terminated; "" before one was read.
    [[nodiscard]] const char* line() const { return text.c_str(); }
    // The header lines, "\r\n"-separated, without the request line.
    [[nodiscard]] std::string_view header_block() const {
        return std::string_view(text).substr(headers_start < text.size() ? headers_start
                                                                         : text.size());
    }
    // The method's name, terminated.
    [[nodiscard]] const char* method_name() const;
};

// What it is answered with.
struct reply_data {
    int status = 0;
    std::uint64_t sent = 0;  // bytes that have gone out
};

// What one request needs, from its first byte until its reply is out. The next one on the same
// connection begins with a new one.
struct exchange {
    request_data request;
    reply_data reply;
    std::uint64_t body_left = 0;  // body bytes not yet handed to the handler
    std::string forward_head;     // what the handler's side gets in front of the body
    std::size_t head_sent = 0;    // how much of that it has got

    [[nodiscard]] std::string_view head_left() const {
        return std::string_view(forward_head).substr(head_sent);
    }
};

// body_left of a request whose body has no announced length.
inline constexpr std::uint64_t unlimited_body = UINT64_MAX;

// The end of a proxy target. Defined in handlers/target.cc.
struct target_ending {
    void operator()(target* ended) const;
};

enum class conn_state : std::uint8_t {
    serving,   // requests are read and answered
    muted,     // input is discarded after an early protocol error
    draining,  // the reply is out, unread input is discarded for a moment before the close
};

enum class handshake_state : std::uint8_t { pending, done, failed };

// A client's socket behind the authentication library.
struct secure_client {
    void* channel = nullptr;            // the library's; null: none
    void* server_credential = nullptr;  // for the handshake; null: the service's; not owned
    handshake_state handshake = handshake_state::done;
    bool may_hold_bytes = false;  // decrypted ones, which no descriptor announces
};

struct conn : list_link, exchange {
    shttpd_ctx* ctx = nullptr;
    std::uint64_t serial = 0;  // grows with every accepted connection
    sockaddr_storage peer{};
    socklen_t peer_length = 0;
    std::time_t birth_time = 0;
    std::int64_t expire_time = 0;   // in monotonic seconds
    std::int64_t visit_at_ms = 0;   // see visit_at(); 0: no such moment
    std::uint64_t turn_ticket = 0;  // the place in the queue of take_turn(); 0: none
    pass_work turn_kind = {};       // and what it waits for there
    conn_state state = conn_state::serving;
    bool close_after = false;
    bool due = false;           // is to be visited in this pass
    bool fresh = false;         // just accepted: the first bytes may be there already
    bool idle_call = false;     // the local class was read and nothing moved
    bool held = false;          // the handler waits for visit_soon()
    bool visit_wanted = false;  // visit_soon() was called and the visit has not come

    stream local;
    stream remote;
    secure_client client;

    qz_vector* groups = nullptr;        // owned texts: the caller's groups; null: none known
    qz_vector* granted = nullptr;       // words: roles granted on this connection, per namespace
    void* client_credential = nullptr;  // owned
    std::string user_name;              // empty until the caller is authenticated

    // Where requests are forwarded to; kept between two of them. Null: nowhere. The field's name
    // would hide the type's.
    std::unique_ptr<struct target, target_ending> target;
};

// A connection whose streams borrow buffers of the context's size, or null.
conn* new_conn(shttpd_ctx* ctx);
void delete_conn(conn* c);

// A byte has moved: the connection may idle for the whole limit again, 300 seconds.
void renew_expiry(conn* c);

// The moment from which on a visit finds the connection expired, as monotonic_ms() counts.
std::int64_t expiry_ms(const conn* c);

// One visit of a connection: read, parse, route, move bytes, finish. May free the connection.
// Returns false when it did.
bool process_connection(conn* c);

// Ends the current request: writes the access line, then closes the connection or makes it ready
// for the next request. Returns false when the connection was freed.
bool disconnect(conn* c);

// Ends a connection whose client has gone, or that has expired. Returns false: it was freed.
bool close_dead(conn* c);

// Reads and drops input of a muted or draining connection. Returns false when it was freed.
bool discard_input(conn* c);

// Whether a handler had nothing to say that no descriptor speaks for, so that it must be asked
// again. One whose bytes wait for the client is not asked: stalled readers cost nothing.
bool waits_without_descriptor(const conn* c);

// Whether a secure channel may hold decrypted bytes that poll() can't see and there is room for.
bool has_hidden_input(const conn* c);

// Ends a connection whatever it is doing; the process stays, also in inetd mode.
void end_connection(conn* c);

// How many connections wait out their drain deadline.
int draining_connections();

// Frees user name, groups and credential. Idempotent.
void release_identity(conn* c);

// Ends a kept target that something has happened on: it has closed its side, or says what nobody
// asked for. Defined in handlers/target.cc.
void drop_idle_target(conn* c);

// The local port of the connection in host byte order, 0 unless it is IPv4 or IPv6.
int local_port(const conn* c);

// Has the connection visited in this pass or in the next one, which then does not wait. What it
// waited for has come; it may die before.
void visit_soon(conn* c);

// Has the connection visited once more in this pass, behind all others; in the next one where no
// pass is under way.
void visit_last(conn* c);

// Whether this pass has visits to make behind the one that is under way.
bool others_are_due();

// Has the connection visited once monotonic_ms() has reached the moment. There is one moment for
// each connection, of which the earliest wins: who still waits when it is visited asks again.
void visit_at(conn* c, std::int64_t moment_ms);

// Takes back what these have asked for; the end of a connection does.
void forget_visit(conn* c);
