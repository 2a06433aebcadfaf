// What CGI programs and proxy targets write: each input is the answer of one of them, read in
// pieces by the relay of a connection. The reply buffer must stay in order after every read, and
// nothing may go out before the header block is complete.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "core/connection.h"
#include "core/context.h"
#include "core/globals.h"
#include "fuzz/check.h"
#include "handlers/cgi.h"
#include "handlers/io_proxy.h"
#include "handlers/relay.h"
#include "lib/unique_fd.h"

namespace {

constexpr int buffer_bytes = 1024;

shttpd_ctx* context() {
    static shttpd_ctx* ctx = [] {
        monotonic_seconds = 1000000;
        auto* made = new shttpd_ctx;
        made->io_buf_size = buffer_bytes;
        made->inetd_mode = 1;  // keeps the log of every refused block off standard error
        return made;
    }();
    return ctx;
}

// How the first byte of an input sets up the request.
struct scene {
    explicit scene(std::uint8_t bits)
        : is_cgi((bits & 1) != 0),
          method((bits & 2) != 0 ? method_head : method_get),
          to_service((bits & 4) != 0),
          step(1 + (bits >> 3) * 37U) {}
    bool is_cgi;
    int method;
    bool to_service;
    std::size_t step;
};

void start_relay(conn* c, const scene& setting, int fd) {
    c->request.method = setting.is_cgi ? int{method_get} : setting.method;
    c->request.major = c->request.minor = 1;
    c->request.uri = setting.to_service ? "/hob://h:/x" : "/http://h/x";
    if (setting.is_cgi) {
        c->local.channel.fd = fd;
        do_cgi(c);
    } else {
        start_proxy_relay(c);
        c->local.channel.fd = fd;
        begin_relaying(&c->local);
    }
}

void check_buffer(const stream& s) {
    check(s.tail <= s.head && s.head <= s.size);
    check(s.buffer[s.size] == '\0');
    const bool withheld = s.io != nullptr && !s.has(sf_parsed);
    check(!withheld || s.tail == s.head);
}

// Takes what may be sent to the client, as the engine does.
void take_output(stream* s, std::string* reply) {
    reply->append(s->buffer + s->tail, s->pending());
    s->clear_buffer();
}

void relay(conn* c, int writer, std::string_view input, std::size_t step, std::string* reply) {
    stream& local = c->local;
    while (local.io != nullptr && !local.has(sf_closed)) {
        const std::size_t piece = std::min(step, input.size());
        if (piece == 0) {
            (void)shutdown(writer, SHUT_WR);
        } else if (send(writer, input.data(), piece, MSG_NOSIGNAL) <= 0) {
            break;
        }
        input.remove_prefix(piece);
        for (int reads = 0; reads < 64 && local.io != nullptr && local.room() > 0; ++reads) {
            const std::size_t before = local.head;
            read_stream(&local);
            check_buffer(local);
            if (local.io == nullptr || local.head == before || local.has(sf_closed)) {
                break;
            }
            if (local.has(sf_parsed)) {
                take_output(&local, reply);
            }
        }
        const bool complete = local.content_length > 0 && local.total >= local.content_length;
        if (complete) {
            break;
        }
    }
    take_output(&local, reply);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const scene setting(data[0]);
    const std::string_view input(reinterpret_cast<const char*>(data + 1), size - 1);
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) {
        return 0;
    }
    const unique_fd writer(ends[1]);
    conn* c = new_conn(context());
    check(borrow_buffer(&c->local));
    start_relay(c, setting, ends[0]);
    std::string reply;
    relay(c, writer.get(), input, setting.step, &reply);
    const bool failed = reply.find("500 ") != std::string::npos;
    check(failed || setting.is_cgi || reply.size() <= input.size());
    stop_stream(&c->local);
    check(fcntl(ends[0], F_GETFD) == -1);
    delete_conn(c);
    return 0;
}
