#include "handlers/service_exchange.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <deque>
#include <string>

#include "core/connection.h"
#include "core/globals.h"
#include "core/request.h"
#include "core/route.h"
#include "handlers/cgi_service.h"
#include "handlers/proxy_head.h"
#include "handlers/proxy_target.h"
#include "handlers/relay.h"
#include "lib/unique_fd.h"

namespace {

constexpr const char* unreachable = "Internal server error. Could not connect to hob server.";
constexpr const char* no_slot = "Internal server error. Maximum connections reached.";
// How long an answer that nobody reads holds others up.
constexpr std::int64_t stale_limit_ms = 300'000;
// Without a byte for so long, an answer without an end is over.
constexpr std::int64_t quiet_ms = 2'000;

// Follows an answer to its end. The service never learns the method: its answer has a body even
// when the client asked for none.
class answer_tracker {
  public:
    [[nodiscard]] bool complete() const { return state_ == state::complete; }
    // Nobody can say where it ends: it has no length, can't be read, or is longer than announced.
    [[nodiscard]] bool endless() const { return state_ == state::endless; }

    void feed(std::string_view bytes) {
        if (state_ == state::head) {
            head_.append(bytes);
            feed_head();
        } else {
            feed_body(bytes);
        }
    }

  private:
    // What is kept of a head that nobody reads any more; a relayed one ends with the buffer.
    static constexpr std::size_t head_max = std::size_t{1} << 20;

    enum class state : std::uint8_t { head, body, complete, endless };

    void feed_head() {
        for (;;) {
            const ssize_t block = get_headers_len(head_.data(), head_.size());
            if (block == 0 && head_.size() < head_max) {
                return;
            }
            if (block <= 0) {
                state_ = state::endless;
                return;
            }
            const std::string_view head(head_.data(), static_cast<std::size_t>(block));
            if (!is_interim(head)) {
                begin_body(frame_reply(head, method_get));
                feed_body(std::string_view(head_).substr(head.size()));
                head_.clear();
                return;
            }
            head_.erase(0, head.size());
        }
    }

    void begin_body(const reply_framing& framing) {
        state_ = framing.clear ? state::body : state::endless;
        end_ = framing.end;
        left_ = framing.end == reply_end::counted ? framing.length : 0;
        if (end_ == reply_end::with_close) {
            state_ = state::endless;
        } else if (end_ == reply_end::at_once && state_ == state::body) {
            state_ = state::complete;
        }
    }

    void feed_body(std::string_view bytes) {
        if (state_ == state::body && end_ == reply_end::counted) {
            const auto own = std::min<std::uint64_t>(left_, bytes.size());
            left_ -= own;
            bytes.remove_prefix(static_cast<std::size_t>(own));
            state_ = left_ == 0 ? state::complete : state::body;
        } else if (state_ == state::body) {
            bytes.remove_prefix(chunks_.consume(bytes));
            state_ = chunks_.complete() ? state::complete : state::body;
        }
        // Behind a whole body comes nothing; what is left in it broke it.
        if (!bytes.empty()) {
            state_ = state::endless;
        }
    }

    std::string head_;
    state state_ = state::head;
    reply_end end_ = reply_end::with_close;
    std::uint64_t left_ = 0;
    chunk_scanner chunks_;
};

struct service_state {
    std::deque<conn*> line;       // who waits, the first come first
    const conn* owner = nullptr;  // holds the service; null: nobody does
    bool started = false;         // the owner's request is on its way
    bool stale = false;           // `answer` belongs to a client that has gone
    std::int64_t stale_until = 0;
    std::int64_t last_byte = 0;  // when the last one of `answer` came
    answer_tracker answer;
};

service_state service;

// Takes the service for the connection. False when an error reply is in place.
bool take_service(conn* c) {
    const int stdio = gethobstdio();
    unique_fd fd(stdio < 0 ? -1 : fcntl(stdio, F_DUPFD_CLOEXEC, 3));
    if (!fd) {
        send_server_error(c, 500, unreachable);
        return false;
    }
    if (!poll_stream(&c->local, fd.get())) {
        send_server_error(c, 500, no_slot);
        return false;
    }
    c->local.channel.fd = fd.release();  // non-blocking like the descriptor it copies
    std::erase(service.line, c);
    service.owner = c;
    service.started = false;
    return true;
}

void note_answer(std::string_view bytes) {
    service.last_byte = monotonic_ms();
    service.answer.feed(bytes);
}

// An answer whose end nobody can tell is over when nothing has come for a while: a byte of it that
// came later still would be taken for the next answer.
std::int64_t end_of_answer() {
    return service.answer.endless() ? service.last_byte + quiet_ms : service.stale_until;
}

bool is_over(std::int64_t moment) {
    return monotonic_ms() >= moment;
}

// Drops what lies unread: whatever it is, it is no answer to the next request. False while there is
// more of it than one visit may read, or an answer that nobody waits for is still to come.
bool drop_old_answer(conn* c) {
    constexpr int reads_max = 64;
    std::array<char, 4096> buffer;  // NOLINT(*-member-init): filled by recv
    for (int i = 0; i < reads_max; ++i) {
        const ssize_t n = recv(c->local.channel.fd, buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            const bool ended = n == 0 || errno != EAGAIN;
            service.stale =
                service.stale && !ended && !service.answer.complete() && !is_over(end_of_answer());
            if (service.stale) {
                visit_at(c, end_of_answer());
            }
            return !service.stale;
        }
        if (service.stale) {
            note_answer({buffer.data(), static_cast<std::size_t>(n)});
        }
    }
    visit_soon(c);
    return false;
}

// The bare path is all that the service reads: no method, no headers, no line end.
void start_exchange(conn* c) {
    const proxy_target target = parse_target(c);
    if (safe_write_bytes(c, target.path) < 0) {
        send_server_error(c, 500, unreachable);
        return;
    }
    service.stale = false;
    service.started = true;
    service.answer = answer_tracker();
    begin_relaying(&c->local);
}

}  // namespace

void join_service_exchange(conn* c) {
    relay_of(&c->local)->step = relay_step::in_line;
    service.line.push_back(c);
    advance_service_exchange(c);
}

void advance_service_exchange(conn* c) {
    c->held = true;
    if (service.owner == nullptr && service.line.front() == c && !take_service(c)) {
        return;
    }
    if (service.owner == c && drop_old_answer(c)) {
        c->held = false;
        start_exchange(c);
    }
}

void note_service_answer(conn* c, std::string_view bytes) {
    if (service.owner != c) {
        return;
    }
    note_answer(bytes);
    if (service.answer.complete()) {
        leave_service_exchange(c);  // the next one need not wait until the client has taken it all
    }
}

bool answer_has_no_end(const conn* c) {
    return service.owner == c && service.started && service.answer.endless();
}

bool answer_is_over(conn* c) {
    if (is_over(end_of_answer())) {
        return true;
    }
    visit_at(c, end_of_answer());
    return false;
}

void leave_service_exchange(const conn* c) {
    std::erase(service.line, c);
    if (service.owner == c) {
        if (service.started) {
            // Not a byte of the path has left: then there is no answer to come.
            const bool sent = c->head_sent > 0;
            service.stale = sent && !service.answer.complete();
            service.stale_until = monotonic_ms() + stale_limit_ms;
        }
        service.owner = nullptr;
    }
    if (service.owner == nullptr && !service.line.empty()) {
        visit_soon(service.line.front());
    }
}

void reset_service_exchange() {
    service.stale = false;
}
