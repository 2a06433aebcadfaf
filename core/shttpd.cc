#include "core/shttpd.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "core/background.h"
#include "core/buffer_pool.h"
#include "core/compat_unix.h"
#include "core/config.h"
#include "core/connection.h"
#include "core/context.h"
#include "core/globals.h"
#include "core/log.h"
#include "core/loop_watch.h"
#include "core/mime_type.h"
#include "core/pass_work.h"
#include "core/poll_set.h"
#include "core/resolver.h"
#include "core/state_writer.h"
#include "core/string.h"
#include "core/v6socket.h"
#include "domain/domain.h"
#include "handlers/io_file.h"
#include "lib/plat.h"
#include "lib/qz_vector.h"
#include "sched/sched.h"
#include "security/authz.h"
#include "security/io_molbat.h"
#include "security/library_log.h"

// One listening port. Both flags are handed to every connection that is accepted on it.
struct listener_record : list_link {
    shttpd_ctx* ctx = nullptr;
    bool is_ssl = false;
    bool u_flag = false;
    int handle = -1;
};

std::uint64_t pass_number = 0;

namespace {

constexpr int listen_backlog = 128;
constexpr int port_max = 65535;
// The scheduler looks in the first pass and then in every seventh.
constexpr int passes_between_checks = 6;
// With traffic, passes are short; without, seven of them take this long.
constexpr std::int64_t check_interval_max_s = 35;
constexpr int short_wait_ms = 1000;
// How often a handler is asked again that had nothing to say and has no descriptor to wait for.
constexpr std::int64_t idle_call_ms = 1000;

list_head<listener_record> listeners;

// What the main loop remembers from one pass to the next.
struct loop_state {
    std::vector<conn*> due;       // to be visited in this pass; null: has ended meanwhile
    std::size_t visits = 0;       // how many of them have been
    std::vector<conn*> next_due;  // to be visited in the next one whatever poll() says
    // Who is to be visited when, in monotonic milliseconds. Every connection stands here, at the
    // latest with its expiry; one that has moved bytes since is entered anew when it is visited.
    std::set<std::pair<std::int64_t, conn*>> moments;
    bool wake = false;                  // the next pass must not wait
    bool accept_paused = false;         // out of descriptors or memory: listeners are not polled
    std::int64_t accept_paused_at = 0;  // monotonic seconds, like the next one but one
    int sched_counter = 0;
    std::int64_t last_sched_check = 0;
    std::uint64_t next_serial = 1;
};

loop_state loop;

// --- Listening ---

// Blanks before a comment belong to the option's value and must not hide the suffix.
std::string_view without_blanks(std::string_view text) {
    constexpr const char* blanks = " \t";
    const std::size_t first = std::min(text.find_first_not_of(blanks), text.size());
    return text.substr(first, text.find_last_not_of(blanks) + 1 - first);
}

// "5634", "5634s" or "5634u", and nothing else: a slip must not open another port.
bool listen_on_entry(shttpd_ctx* ctx, std::string_view entry) {
    const bool is_ssl = entry.ends_with('s');
    const bool u_flag = entry.ends_with('u');
    entry.remove_suffix(is_ssl || u_flag ? 1 : 0);
    int port = 0;
    const auto [end, error] = std::from_chars(entry.data(), entry.data() + entry.size(), port);
    return error == std::errc() && end == entry.data() + entry.size() && port > 0 &&
           port <= port_max && shttpd_listen(ctx, port, is_ssl, u_flag) >= 0;
}

void watch_listener(listener_record* listener, int fd) {
    if (fd < 0) {
        return;
    }
    (void)set_non_blocking_mode(fd);
    (void)set_close_on_exec(fd);
    const int index = get_poll_index(fd);
    if (index >= 0) {
        set_lp_poll_position(index, listener);
    }
}

void listener_destructor(listener_record* listener) {
    delete listener;
}

// --- Accepting ---

int listener_socket(const listener_record* listener, std::size_t position) {
    // Positions of one listener follow each other, the IPv6 socket first where there is one.
    const int v6 = v6getsocket(listener->handle, 2);
    const bool second = position > 0 && lp_at(position - 1).listener == listener;
    return v6 >= 0 && !second ? v6 : v6getsocket(listener->handle, 1);
}

template <class Visit>
void for_each_listener(Visit visit) {
    for (std::size_t i = 0; lp_at(i).poll_index >= 0; ++i) {
        visit(i, lp_at(i));
    }
}

// Out of descriptors or memory: a ready listener would turn the loop into a spin.
void pause_accepting() {
    loop.accept_paused = true;
    loop.accept_paused_at = monotonic_seconds;
    for_each_listener([](std::size_t, const listener_position& position) {
        park_poll_index(position.poll_index);
    });
}

void resume_accepting() {
    loop.accept_paused = false;
    for_each_listener([](std::size_t i, const listener_position& position) {
        set_poll_events(position.poll_index, listener_socket(position.listener, i), POLLIN);
    });
}

// In inetd mode there is nothing else to serve, so the message is fatal there.
void refuse_socket(shttpd_ctx* ctx, int fd, const char* what, const char* reason) {
    (void)close(fd);
    elog(ctx->inetd_mode != 0 ? elog_fatal : elog_info, nullptr, "add_socket: %s%s", what, reason);
}

void visit_next(conn* c) {
    if (!c->visit_wanted) {
        c->visit_wanted = true;
        loop.next_due.push_back(c);
    }
}

// Makes a connection of a non-blocking, close-on-exec socket whose peer is known.
void add_connection(shttpd_ctx* ctx, int fd, bool handshake, const sockaddr_storage& peer,
                    socklen_t peer_length) {
    conn* c = new_conn(ctx);
    if (c == nullptr) {
        refuse_socket(ctx, fd, "calloc: ", strerror(errno));
        return;
    }
    if (!poll_stream(&c->remote, fd)) {
        delete_conn(c);
        refuse_socket(ctx, fd, "get_poll_index: maximum connections reached\n", "");
        return;
    }
    // The exit statistics call this number "requests", whatever a connection carries.
    ctx->accepted_connections += ctx->accepted_connections < INT_MAX ? 1 : 0;
    c->serial = loop.next_serial++;
    c->peer_length = std::min(peer_length, static_cast<socklen_t>(sizeof(c->peer)));
    std::memcpy(&c->peer, &peer, c->peer_length);
    c->birth_time = current_time;
    renew_expiry(c);
    c->fresh = !handshake;
    c->remote.io = &io_socket;
    c->remote.channel.fd = fd;
    c->remote.flags = sf_readable | sf_writable;

    {
        const critical_section_guard guard(&ctx->lock);
        ctx->connections.push_front(c);
        ++ctx->active_connections;
    }
    visit_next(c);

    // The connection stands in its list before the handshake runs: a failure is found like any
    // other.
    if (handshake) {
        c->remote.io = &io_molbat;
        c->client.handshake = handshake_state::pending;
        molbat_handshake(&c->remote);
    }
}

void accept_all(listener_record* listener, int listen_fd) {
    for (;;) {
        sockaddr_storage peer{};
        socklen_t length = sizeof(peer);
        const int fd = accept4(listen_fd, reinterpret_cast<sockaddr*>(&peer), &length,
                               SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                drop_cached_files();
                pause_accepting();
            }
            return;
        }
        add_connection(listener->ctx, fd, !listener->is_ssl && !listener->u_flag, peer, length);
    }
}

void accept_connections() {
    for_each_listener([](std::size_t i, const listener_position& position) {
        if (!loop.accept_paused && (poll_revents(position.poll_index) & (POLLIN | POLLOUT)) != 0) {
            accept_all(position.listener, listener_socket(position.listener, i));
        }
    });
}

// --- Visiting ---

void mark_due(conn* c) {
    if (!c->due) {
        c->due = true;
        loop.due.push_back(c);
    }
}

void forget_moment(conn* c) {
    if (c->visit_at_ms != 0) {
        loop.moments.erase({c->visit_at_ms, c});
        c->visit_at_ms = 0;
    }
}

// Due are: who asked for it, whose descriptor has something to say, and whose moment has come.
void collect_due(int ready) {
    loop.due.clear();
    for (conn* c : loop.next_due) {
        c->visit_wanted = false;
        mark_due(c);
    }
    // A wait that failed leaves the events of an earlier one behind.
    loop.next_due.clear();
    if (ready > 0) {
        for (int i = next_ready_slot(0); i >= 0; i = next_ready_slot(i + 1)) {
            if (poll_owner(i) != nullptr) {
                mark_due(poll_owner(i));
            }
        }
    }
    const std::int64_t now = monotonic_ms();
    while (!loop.moments.empty() && loop.moments.begin()->first <= now) {
        conn* c = loop.moments.begin()->second;
        forget_moment(c);
        mark_due(c);
    }
}

void visit(conn* c) {
    watch_step(c->local.io != nullptr ? c->local.io->name : request_step);
    if (!process_connection(c)) {
        return;
    }
    if (c->visit_at_ms == 0) {
        visit_at(c, expiry_ms(c));
    }
    if (has_hidden_input(c)) {
        visit_soon(c);
    } else if (waits_without_descriptor(c)) {
        // Not in every pass: thousands of them would make each of other clients' passes long.
        visit_at(c, monotonic_ms() + idle_call_ms);
    }
}

// Every connection with something to do is visited, the oldest first; behind them, in their order,
// those that wait for a turn, and others join them on the way. The rest would find nothing to do:
// with thousands of idle connections it pays not to touch them.
void visit_connections() {
    std::sort(loop.due.begin(), loop.due.end(), [](const conn* a, const conn* b) {
        return std::tie(a->turn_ticket, a->serial) < std::tie(b->turn_ticket, b->serial);
    });
    for (loop.visits = 0; loop.visits < loop.due.size();) {
        if (conn* c = loop.due[loop.visits++]; c != nullptr) {
            c->due = false;
            visit(c);
        }
    }
    loop.due.clear();
}

// The wish to go on at once is granted once.
int wait_time(int timeout_ms) {
    if (std::exchange(loop.wake, false)) {
        return 0;
    }
    if (loop.moments.empty()) {
        return timeout_ms;
    }
    const std::int64_t left = loop.moments.begin()->first - monotonic_ms();
    const std::int64_t limit = timeout_ms < 0 ? INT_MAX : timeout_ms;
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, limit));
}

void run_scheduler(shttpd_ctx* ctx) {
    const bool overdue = monotonic_seconds - loop.last_sched_check >= check_interval_max_s;
    if (--loop.sched_counter < 0 || overdue || sched_is_behind()) {
        loop.last_sched_check = monotonic_seconds;
        loop.sched_counter = passes_between_checks;
        (void)sched_check_run(ctx);
        loop.wake = loop.wake || sched_is_behind();
    }
}

// Handlers hear their farewell here, while logs, lists and the library are still there.
void close_all_connections(shttpd_ctx* ctx) {
    while (conn* c = ctx->connections.first()) {
        end_connection(c);
    }
    loop = loop_state();
}

void close_log(std::FILE** log) {
    if (*log != nullptr) {
        (void)std::fclose(*log);
        *log = nullptr;
    }
}

}  // namespace

void visit_soon(conn* c) {
    visit_next(c);
    loop.wake = true;
}

void visit_last(conn* c) {
    if (loop.due.empty()) {
        visit_soon(c);
    } else {
        mark_due(c);
    }
}

bool others_are_due() {
    return loop.visits < loop.due.size();
}

void visit_at(conn* c, std::int64_t moment_ms) {
    if (c->visit_at_ms != 0 && c->visit_at_ms <= moment_ms) {
        return;
    }
    forget_moment(c);
    c->visit_at_ms = moment_ms;
    loop.moments.insert({moment_ms, c});
}

void forget_visit(conn* c) {
    leave_turn_queue(c);
    if (c->due) {
        std::replace(loop.due.begin(), loop.due.end(), c, static_cast<conn*>(nullptr));
    }
    forget_moment(c);
    if (c->visit_wanted) {
        c->visit_wanted = false;
        std::erase(loop.next_due, c);
    }
}

int shttpd_listen(shttpd_ctx* ctx, int port, bool is_ssl, bool u_flag) {
    int error = 0;
    const int handle = v6listen(port, listen_backlog, &error);
    if (handle < 0) {
        elog(elog_info, nullptr, "open_listening_port(%d): %s", port, strerror(error));
        fatal("cannot open port %d", port);
    }
    if (is_ssl && ctx->tls_context == nullptr) {
        (void)v6close(handle);
        fatal("cannot add SSL socket, please specify certificate file");
    }
    auto* listener = new listener_record;
    listener->ctx = ctx;
    listener->is_ssl = is_ssl;
    listener->u_flag = u_flag;
    listener->handle = handle;
    // The IPv6 socket first: listener_socket relies on it.
    for (const int family : {2, 1}) {
        watch_listener(listener, v6getsocket(handle, family));
    }
    listeners.push_back(listener);
    return handle;
}

void open_listening_ports(shttpd_ctx* ctx) {
    std::string_view rest = ctx->listen_ports;
    while (!rest.empty()) {
        const std::size_t comma = std::min(rest.find(','), rest.size());
        const std::string_view entry = without_blanks(rest.substr(0, comma));
        rest.remove_prefix(std::min(comma + 1, rest.size()));
        if (!entry.empty() && !listen_on_entry(ctx, entry)) {
            fatal("Cannot open socket on port %.*s", static_cast<int>(entry.size()), entry.data());
        }
    }
    if (listeners.empty()) {
        fatal("listen_ports [%s] names no port", ctx->listen_ports.c_str());
    }
}

void shttpd_add_socket(shttpd_ctx* ctx, int fd, bool is_ssl, bool u_flag) {
    (void)set_non_blocking_mode(fd);
    (void)set_close_on_exec(fd);
    sockaddr_storage peer{};
    socklen_t length = sizeof(peer);
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) {
        refuse_socket(ctx, fd, "", strerror(errno));
        return;
    }
    add_connection(ctx, fd, !is_ssl && !u_flag, peer, length);
}

int shttpd_accept(int listen_handle, int timeout_ms) {
    sockaddr_storage peer{};
    socklen_t length = sizeof(peer);
    int kind = 0;
    return v6accept(listen_handle, reinterpret_cast<sockaddr*>(&peer), &length, &kind, timeout_ms);
}

int shttpd_active(shttpd_ctx* ctx) {
    const critical_section_guard guard(&ctx->lock);
    return ctx->active_connections;
}

void shttpd_add_mime_type(shttpd_ctx* ctx, const char* extension, const char* type) {
    auto* record = new mime_type_record;
    record->extension = extension;
    record->type = type;
    ctx->mime_records.push_back(record);
}

void shttpd_poll(shttpd_ctx* ctx, int timeout_ms) {
    ++pass_number;
    refresh_clocks();
    if (loop.accept_paused && monotonic_seconds > loop.accept_paused_at) {
        resume_accepting();
    }
    tell_left_out_lines(ctx);
    const bool files_open = close_idle_files();
    // Both wait for a moment that no descriptor announces.
    const bool short_wait = loop.accept_paused || files_open;
    const int ready =
        wait_for_events(wait_time(short_wait ? std::min(timeout_ms, short_wait_ms) : timeout_ms));
    refresh_clocks();
    watch_pass("results of threads");
    finish_background_jobs();
    watch_step("new connections");
    if (ready > 0) {
        accept_connections();
    }
    const int active_before = ctx->active_connections;
    collect_due(ready);
    visit_connections();
    // A connection has gone, and with it its descriptor.
    if (loop.accept_paused && ctx->active_connections < active_before) {
        resume_accepting();
    }
    watch_step("the schedule");
    run_scheduler(ctx);
    start_state_writes();
    watch_pass_end(ctx);
}

void shttpd_fini(shttpd_ctx* ctx) {
    ctx->mime_records.free_all(mime_type_destructor);
    if (loop.accept_paused) {
        resume_accepting();  // the poll set closes only listeners whose descriptors it holds
    }
    // What was changed is on the disk, and answered, before anything is taken down.
    finish_state_writes();
    collect_due(0);
    visit_connections();
    finish_state_writes();
    close_all_connections(ctx);
    resolver_fini();
    ctx->registered_uris.free_all([](registered_uri* entry) { delete entry; });
    ctx->uri_auths.free_all([](uri_auth* entry) { delete entry; });
    ctx->error_handlers.free_all([](error_handler* entry) { delete entry; });
    listeners.free_all(listener_destructor);
    ctx->ssi_funcs.free_all([](ssi_func* entry) { delete entry; });
    clean_poll_fd_set();
    drop_cached_files();
    free_idle_buffers();
    tell_left_out_lines(ctx, true);
    close_log(&ctx->access_log);
    close_log(&ctx->error_log);
    free_auth_info(ctx);
    free_broker_credentials(ctx);
    free_security_info(ctx->security);
    ctx->security = nullptr;
    free_domain_info(ctx);
    if (ctx->service_credential != nullptr) {
        (void)molbAtFree(ctx->service_credential);
    }
    offer_log_to_library(nullptr);
    (void)molbAtTerminate(ctx->at_handle);
    destroy_critical_section(&ctx->lock);
    delete ctx;
}
