// The relay between a client and a CGI program. The first 17 bytes of the reply buffer are the
// status line, held back until the program's headers say which status it is.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "core/connection.h"
#include "core/io_class.h"
#include "core/loop_watch.h"
#include "core/pass_work.h"
#include "core/request.h"
#include "core/route.h"
#include "core/stream.h"
#include "handlers/cgi.h"
#include "handlers/relay.h"

namespace {

// Kept: the reason is OK whatever the status is; five blanks leave room for its digits.
constexpr std::string_view placeholder = "HTTP/1.1     OK\r\n";

// The program will get no further body byte: it sees the end of its input.
void end_input(stream* s) {
    (void)shutdown(s->channel.fd, SHUT_WR);  // it may be gone already
    s->flags &= ~static_cast<std::uint32_t>(sf_writable);
}

// The block in front is complete: decides status, length and keep-alive, and releases the reply.
// Kept: a Location makes any status 302, and the program's own Status and Location lines stay among
// the headers.
void accept_headers(stream* s) {
    conn* c = s->connection;
    header_values values;
    parse_headers(s->buffer, s->header_length, &values);
    s->content_length = values.content_length;
    s->total -= s->header_length;
    std::uint64_t status = values.status;
    if (!values.location.empty()) {
        status = 302;
    } else if (status == 0) {
        status = 200;
    }
    write_status(s->buffer, status);
    c->reply.status = static_cast<int>(status);
    const std::string_view head(s->buffer, s->header_length);
    // More than was promised already: the client can't tell where the next reply would begin.
    if (s->content_length == 0 || s->total > s->content_length ||
        blurs_next_reply(frame_reply(head.substr(placeholder.size()), c->request.method), status)) {
        c->close_after = true;
    }
    s->tail = 0;
    s->flags |= sf_parsed;
}

constexpr reply_head_rules head_rules = {
    .failure = "Error running CGI", .own_bytes = placeholder.size(), .accept = accept_headers};

void start_now(conn* c, const std::string& prog) {
    const pass_work_timer time(pass_work::starts);
    rename_step("the start of a program");
    if (run_cgi(c, prog.c_str()) == 0) {
        do_cgi(c);
    } else {
        send_server_error(c, 500, "Cannot exec CGI");
    }
}

ssize_t try_to_start(stream* s) {
    conn* c = s->connection;
    if (take_turn(c, pass_work::starts)) {
        c->held = false;
        const std::string prog = std::move(relay_of(s)->program);
        release_relay(s);
        start_now(c, prog);
    }
    errno = EAGAIN;
    return -1;
}

ssize_t read_cgi(stream* s, void* buffer, std::size_t length) {
    if (relay_of(s)->step == relay_step::starting) {
        return try_to_start(s);
    }
    s->flags &= ~static_cast<std::uint32_t>(sf_keep_open);
    const ssize_t n = recv(s->channel.fd, buffer, length, 0);
    if (s->has(sf_parsed)) {
        return n;
    }
    return take_reply_head(s, n, head_rules);
}

// The program may have ended without reading: its answer is read all the same.
ssize_t deliver(stream* s, const void* bytes, std::size_t length) {
    return send(s->channel.fd, bytes, length, MSG_NOSIGNAL);
}

ssize_t write_cgi(stream* s, const void* buffer, std::size_t length) {
    return relay_body(s, buffer, length, {.deliver = deliver, .finish = end_input});
}

void close_cgi(stream* s) {
    if (s->channel.fd >= 0) {
        if (body_is_cut(s)) {
            // A plain end would look to the program like the end of a body without a length.
            const linger reset = {.l_onoff = 1, .l_linger = 0};
            (void)setsockopt(s->channel.fd, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
        }
        (void)close(s->channel.fd);
        s->channel.fd = -1;
    }
    release_relay(s);
}

}  // namespace

constinit const io_class io_cgi{
    .name = "cgi", .read = read_cgi, .write = write_cgi, .close = close_cgi};

void do_cgi(conn* c) {
    stream& local = c->local;
    std::memcpy(local.buffer, placeholder.data(), placeholder.size());
    local.head = local.tail = placeholder.size();
    local.total = placeholder.size();
    const bool post = c->request.method == method_post;
    install_relay(&local, &io_cgi, local.channel.fd, relay_step::relaying);
    // Programs read their input to its end even when they expect none.
    if (!post || c->body_left == 0) {
        relay_of(&local)->scans_request = false;
        end_input(&local);
    }
}

void start_cgi(conn* c, const std::string& prog) {
    if (take_turn(c, pass_work::starts)) {
        start_now(c, prog);
        return;
    }
    install_relay(&c->local, &io_cgi, -1, relay_step::starting);
    relay_of(&c->local)->program = prog;
    c->held = true;
}
