// Drives the whole engine: each input is what a client sends, in pieces, over a socket pair to a
// context with a small document root; behind two bytes of 0xff stands what every target that a
// request is forwarded to sends, in pieces as well. After every case no connection, descriptor or
// poll slot may be left. Programs and management endpoints are left out: what they do reaches
// beyond the process.
#include <fcntl.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "core/context.h"
#include "core/endpoint.h"
#include "core/globals.h"
#include "core/resolver.h"
#include "core/shttpd.h"
#include "fuzz/check.h"
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
}

// A target at the other end of a socket pair: it answers from its script, whoever asks for what,
// and closes when nothing is left of it if the script says so.
struct scripted_target {
    int fd = -1;
    std::string_view left;
};

struct {
    std::string_view script;
    std::vector<scripted_target> targets;
} upstream;

int connect_to_script(const sockaddr*, socklen_t) {
    int ends[2];
    check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0);
    upstream.targets.push_back({.fd = ends[1], .left = upstream.script});
    return ends[0];
}

// One step of every target. Returns whether any has moved a byte.
bool play_targets() {
    bool moved = false;
    for (scripted_target& target : upstream.targets) {
        char request[4096];
        moved = recv(target.fd, request, sizeof request, 0) > 0 || moved;
        const std::size_t step = target.left.empty() ? 0 : 1 + upstream.script.size() / 4;
        const std::string_view piece = target.left.substr(0, step);
        const ssize_t n = send(target.fd, piece.data(), piece.size(), MSG_NOSIGNAL);
        if (n > 0) {
            moved = true;
            target.left.remove_prefix(static_cast<std::size_t>(n));
        }
        if (target.left.empty() && upstream.script.ends_with('!')) {
            (void)shutdown(target.fd, SHUT_RDWR);
        }
    }
    return moved;
}

void end_targets() {
    for (const scripted_target& target : upstream.targets) {
        (void)close(target.fd);
    }
    upstream.targets.clear();
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
    ctx->listen_ports = "9180u";
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

// Sends the input in pieces whose sizes the input itself decides, reading replies in between.
void exchange(shttpd_ctx* ctx, int client, std::string_view input) {
    std::size_t step = input.empty() ? 1 : 1 + static_cast<unsigned char>(input.back()) * 16U;
    for (int pass = 0; pass < passes_max; ++pass) {
        bool moved = false;
        if (!input.empty()) {
            const std::string_view piece = input.substr(0, step);
            const ssize_t n = send(client, piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            moved = n > 0;
            input.remove_prefix(n > 0 ? static_cast<std::size_t>(n) : 0);
        }
        shttpd_poll(ctx, 0);
        moved = play_targets() || moved;
        char buffer[16384];
        const ssize_t got = recv(client, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got == 0 || (!moved && got < 0)) {
            return;
        }
    }
}

// The document root, gone again when the run ends.
struct temporary_root {
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("fuzz_engine." + std::to_string(getpid()));
    ~temporary_root() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const temporary_root holder;
    const std::filesystem::path& root = holder.path;
    static shttpd_ctx* ctx = make_context(root);
    static unsigned cases = 0;
    std::string_view input(reinterpret_cast<const char*>(data), size);
    const std::size_t border = std::min(input.find("\xff\xff"), size);
    upstream.script = input.substr(std::min(border + 2, size));
    input = input.substr(0, border);
    if (cases++ % 512 == 0) {
        drop_cached_files();
        write_files(root);
    }
    drop_cached_files();
    const int before = open_descriptors();
    int ends[2];
    check(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0);
    shttpd_add_socket(ctx, ends[1], true, false);
    exchange(ctx, ends[0], input);
    (void)close(ends[0]);
    end_targets();
    for (int pass = 0; pass < 10 && shttpd_active(ctx) > 0; ++pass) {
        shttpd_poll(ctx, 0);
    }
    check(shttpd_active(ctx) == 0);
    drop_cached_files();
    check(open_descriptors() == before);
    return 0;
}
