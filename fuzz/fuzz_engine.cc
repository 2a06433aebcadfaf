// Drives the whole engine: each input is what a client sends, in pieces, over a socket pair to a
// context with a small document root; behind two bytes of 0xff stands what every target that a
// request is forwarded to sends, and every program, in pieces as well. Between two bytes of 0xfe at
// the front stands what connections and the authentication library do (scripted_library.h); the
// client is a secure one when its first byte is odd. After every case no connection, channel or
// descriptor may be left, replies are replies, and nobody who is to be spoken to in secret has got
// a byte that went around the channel. Programs are not started; management endpoints are left out:
// what they do reaches beyond the process.
#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "core/child.h"
#include "core/connection.h"
#include "core/context.h"
#include "core/endpoint.h"
#include "core/globals.h"
#include "core/resolver.h"
#include "core/shttpd.h"
#include "fuzz/memory_file.h"
#include "fuzz/scripted_library.h"
#include "handlers/io_file.h"
#include "handlers/target.h"
#include "lib/ini.h"
#include "lib/plat.h"
#include "security/authz.h"

namespace {

constexpr int watched_descriptors = 64;
constexpr int passes_max = 200;

void echo(shttpd_call_arg* arg) {
    const std::string text = get_variable(request_body(arg), "text", 32);
    const char* header = shttpd_get_header(arg, "X-Echo");
    shttpd_printf(arg, "HTTP/1.1 200 OK\r\n\r\n%s %s", text.c_str(),
                  header != nullptr ? header : "-");
}

void long_reply(shttpd_call_arg* arg) {
    std::string reply;
    for (int i = 0; i < 3000; ++i) {
        reply += std::to_string(100000000 + i) + "\n";
    }
    answer_text(arg, reply);
}

constexpr std::array<endpoint, 2> endpoints = {{
    {"/echo", endpoint_method::any, endpoint_body::awaited, echo},
    {"/long*", endpoint_method::any, endpoint_body::ignored, long_reply},
}};

void yes(shttpd_call_arg* arg) {
    shttpd_printf(arg, "yes");
    arg->flags |= ARG_SSI_EVAL_TRUE | ARG_END_OF_OUTPUT;
}

// Keeps what it is sent waiting, and eats it piece by piece.
void eat(shttpd_call_arg* arg) {
    if ((arg->flags & ARG_CONNECTION_ERROR) != 0) {
        return;
    }
    arg->in.used = arg->in.len > 3 ? 3 : arg->in.len;
    if ((arg->flags & ARG_MORE_POST_DATA) == 0 && arg->in.len <= 3) {
        shttpd_printf(arg, "HTTP/1.1 200 OK\r\n\r\ndone");
        arg->flags |= ARG_END_OF_OUTPUT;
    }
}

void write_files(const std::filesystem::path& root) {
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
    std::filesystem::create_directories(root / "dir" / "sub");
    std::ofstream(root / "f.txt") << "0123456789";
    std::ofstream(root / "big.bin") << std::string(50000, 'b');
    std::ofstream(root / "dir" / "x") << "x";
    std::ofstream(root / "p.cgi") << "is not started";
    std::ofstream(root / "s.shtml")
        << "a<!--#exec \"b\" --><!--#include \"f.txt\" --><!--#call yes --><!--#if yes -->c";
}

// The other end of a target or of a program: it says what the script has, whoever asks for what,
// and closes when nothing is left of it if the script says so.
struct scripted_end {
    int fd = -1;
    std::string_view left;
    int near = -1;           // the engine's descriptor of a target; -1: a program
    bool secure = false;     // is spoken to through a channel
    std::size_t junk = 0;    // bytes that are in the way and mean nothing
    std::uint64_t read = 0;  // other ones
};

struct {
    std::string_view script;
    std::vector<scripted_end> ends;
} upstream;

// What came to a secure target came through the channel.
void check_secrecy(const scripted_end& end) {
    const std::uint64_t sent =
        end.near >= 0 && end.near < INT_MAX ? scripted::take_sent(end.near) : 0;
    check(!end.secure || end.read <= sent);
}

// A descriptor of that number is a new one.
void forget_descriptor(int fd) {
    for (scripted_end& end : upstream.ends) {
        if (end.near == fd) {
            check_secrecy(end);
            end.secure = false;
            end.near = INT_MAX;
        }
    }
    (void)scripted::take_sent(fd);
}

void find_secure_ends(shttpd_ctx* ctx) {
    for (const conn& c : ctx->connections) {
        for (scripted_end& end : upstream.ends) {
            end.secure = end.secure || (c.target != nullptr && c.target->secure &&
                                        c.target->fd.get() == end.near);
        }
    }
}

// A connection that is open, on its way, or none.
int connect_to_script(const sockaddr*, socklen_t) {
    const unsigned mood = scripted::next() % 8;
    if (mood == 1 || mood == 2) {
        errno = mood == 1 ? ECONNREFUSED : EMFILE;
        return -1;
    }
    int ends[2];
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0);
    scripted_end target{.fd = ends[1], .left = upstream.script, .near = ends[0]};
    if (mood == 3) {  // can't be written to yet, like one that is not connected
        const int small = 1;
        (void)setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        char junk[512] = {};
        for (ssize_t n = 0; n >= 0; n = send(ends[0], junk, sizeof junk, MSG_NOSIGNAL)) {
            target.junk += static_cast<std::size_t>(n);
        }
    }
    forget_descriptor(ends[0]);
    upstream.ends.push_back(target);
    return ends[0];
}

// One step of every end. Returns whether any has moved a byte.
bool play_ends() {
    bool moved = false;
    for (scripted_end& end : upstream.ends) {
        char request[4096];
        const ssize_t got = read(end.fd, request, sizeof request);
        const auto bytes = static_cast<std::size_t>(std::max<ssize_t>(got, 0));
        const std::size_t junk = std::min(end.junk, bytes);
        end.junk -= junk;
        end.read += bytes - junk;
        const std::size_t step = end.left.empty() ? 0 : 1 + upstream.script.size() / 4;
        std::string piece(end.left.substr(0, step));
        if (end.secure) {
            std::transform(piece.begin(), piece.end(), piece.begin(), scripted::sealed);
        }
        const ssize_t n = write(end.fd, piece.data(), piece.size());
        moved = moved || got > 0 || n > 0;
        end.left.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
        if (end.left.empty() && upstream.script.ends_with('!') && end.fd >= 0) {
            if (end.near >= 0) {
                (void)shutdown(end.fd, SHUT_RDWR);
            } else {
                (void)close(end.fd);
                end.fd = -1;
            }
        }
    }
    return moved;
}

void close_ends() {
    for (const scripted_end& end : upstream.ends) {
        check_secrecy(end);
        (void)close(end.fd);
    }
    upstream.ends.clear();
}

// No name server is asked: what is no number has no address.
name_answer no_addresses(const std::string&) {
    return {.code = EAI_NONAME, .name = "", .addresses = {}};
}

shttpd_ctx* make_context(const std::filesystem::path& root) {
    auto* ctx = new shttpd_ctx;
    refresh_clocks();
    conf_parse_init();
    init_critical_section(&ctx->lock);
    ctx->document_root = root;
    ctx->auth_realm = "fuzz";
    ctx->noauth = 1;
    ctx->list_directories = 1;
    ctx->io_buf_size = 4096;
    ctx->index_files = "index.html";
    init_auth_info(ctx);
    ctx->registered_uris.free_all([](registered_uri* entry) { delete entry; });
    register_endpoints(ctx, endpoints);
    shttpd_register_uri(ctx, "/eat", eat, nullptr);
    shttpd_register_ssi_func(ctx, "yes", yes, nullptr);
    ctx->listen_ports = "9180u";
    ctx->cgi_extensions = ".cgi";
    ctx->ssi_extensions = ".shtml";
    (void)signal(SIGPIPE, SIG_IGN);
    set_target_connector(connect_to_script);
    set_resolver_backend({.addresses = no_addresses,
                          .name = [](const host_address&) { return name_answer(); },
                          .name_servers = [] { return 1; }});
    shttpd_poll(ctx, 0);  // makes what every later case finds in place
    return ctx;
}

int open_descriptors() {
    int count = 0;
    for (int fd = 0; fd < watched_descriptors; ++fd) {
        count += fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    }
    return count;
}

// What a client gets: the beginning is kept, the rest is counted.
struct received {
    std::string beginning;
    std::uint64_t bytes = 0;

    void take(std::string_view piece, bool secure) {
        bytes += piece.size();
        for (const char c : piece.substr(0, 5 - std::min<std::size_t>(5, beginning.size()))) {
            beginning += secure ? scripted::sealed(c) : c;
        }
    }
};

// Sends the input in pieces whose sizes the input itself decides, reading replies in between.
received serve(shttpd_ctx* ctx, int client, std::string_view input, bool secure) {
    received replies;
    std::size_t step = input.empty() ? 1 : 1 + static_cast<unsigned char>(input.back()) * 16U;
    int quiet = scripted::script.empty() ? 1 : 3;
    for (int pass = 0; pass < passes_max && quiet > 0; ++pass) {
        bool moved = false;
        if (!input.empty()) {
            std::string piece(input.substr(0, step));
            if (secure) {
                std::transform(piece.begin(), piece.end(), piece.begin(), scripted::sealed);
            }
            const ssize_t n = send(client, piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            moved = n > 0;
            input.remove_prefix(n > 0 ? static_cast<std::size_t>(n) : 0);
        }
        shttpd_poll(ctx, 0);
        find_secure_ends(ctx);
        moved = play_ends() || moved;
        char buffer[16384];
        const ssize_t got = recv(client, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got == 0) {
            break;
        }
        if (got > 0) {
            replies.take({buffer, static_cast<std::size_t>(got)}, secure);
        }
        quiet -= moved || got > 0 ? 0 : 1;
    }
    return replies;
}

}  // namespace

// Every program is as good as started: what it is connected to plays the script.
child_start start_child(const child_plan& plan) {
    if (scripted::next() % 8 == 1) {
        return {.pid = -1, .failed = child_step::fork, .error = EAGAIN};
    }
    const int fd = fcntl(plan.output, F_DUPFD_CLOEXEC, 0);
    check(fd >= 0 && fcntl(fd, F_SETFL, O_NONBLOCK) == 0);
    upstream.ends.push_back({.fd = fd, .left = upstream.script});
    return {.pid = INT_MAX};
}

void reset_child_signals() {}

void close_descriptors_from(int) {}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const memory_folder folder;
    static const std::filesystem::path root = folder.path;
    static shttpd_ctx* ctx = make_context(root);
    static unsigned cases = 0;
    fuzz_input whole(data, size);
    scripted::script = {};
    if (whole.rest().starts_with('\xfe')) {
        (void)whole.byte();
        scripted::script = whole.until('\xfe');
    }
    const bool secure = scripted::next() % 2 == 1;
    std::string_view input = whole.rest();
    const std::size_t border = std::min(input.find("\xff\xff"), input.size());
    upstream.script = input.substr(std::min(border + 2, input.size()));
    input = input.substr(0, border);
    if (cases++ % 512 == 0) {
        drop_cached_files();
        write_files(root);
    }
    drop_cached_files();
    const int before = open_descriptors();
    int ends[2];
    check(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    (void)scripted::take_sent(ends[1]);
    shttpd_add_socket(ctx, ends[1], false, !secure);
    const received replies = serve(ctx, ends[0], input, secure);
    // A target's own status line goes through as it is.
    check(replies.beginning.size() < 5 || replies.beginning == "HTTP/" || !upstream.ends.empty());
    check(!secure || replies.bytes <= scripted::take_sent(ends[1]));
    (void)close(ends[0]);
    close_ends();
    for (int pass = 0; pass < 10 && shttpd_active(ctx) > 0; ++pass) {
        shttpd_poll(ctx, 0);
    }
    check(shttpd_active(ctx) == 0 && scripted::open_channels() == 0);
    drop_cached_files();
    check(open_descriptors() == before);
    return 0;
}
