#include "handlers/cgi_service.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "core/background.h"
#include "core/compat_unix.h"
#include "core/connection.h"
#include "core/context.h"
#include "core/globals.h"
#include "core/log.h"
#include "handlers/cgi.h"
#include "handlers/service_exchange.h"
#include "lib/unique_fd.h"

namespace {

struct service_record {
    int port = 0;
    int stdio = -1;
    process_record process;
};

service_record hobintf;  // the only one; its fields are of use only together

constexpr std::size_t value_max = 2047;         // longer paths and items are cut
constexpr std::size_t announcement_max = 4096;  // how far the port may stand in the output
constexpr std::string_view announcement_mark = "PORT : ";
constexpr int slice_ms = 1000;  // how long a signal to end may go unnoticed
// How long the rest of an announcement may take: one that has begun to speak means to say it.
constexpr std::int64_t announcement_limit_ms = 10000;
constexpr int port_max = 65535;

// The item of a comma-separated list that contains `name`, from the name on. Kept: the name is
// searched as a piece of text, so "MY_NAME=x" is found as well.
std::string find_item(std::string_view items, std::string_view name) {
    const std::size_t at = items.find(name);
    if (at == std::string_view::npos) {
        return {};
    }
    const std::string_view item = items.substr(at);
    return std::string(item.substr(0, item.find(',')).substr(0, value_max));
}

void add_option(env_block* block, const char* name, const std::string& value) {
    if (!value.empty()) {
        addenv(block, "%s=%s", name, value.c_str());
    }
}

void add_own_variable(env_block* block, const char* name) {
    if (const char* value = std::getenv(name)) {
        addenv(block, "%s=%s", name, value);
    }
}

// What the service needs to find its files; nothing of a request, which it has none of.
void build_environment(const shttpd_ctx* ctx, const std::string& root_item, env_block* block) {
    addenv(block, "%s", find_item(ctx->cgi_envvar, "PERL5LIB").c_str());
    addenv(block, "%s", root_item.c_str());
    add_option(block, "PLX_VAR_DIR", ctx->var_dir);
    add_option(block, "CGI_INTERPRETER", ctx->cgi_interpreter);
    add_option(block, "DOCUMENT_ROOT", ctx->document_root);
    for (const char* name : {"PATH", "LD_LIBRARY_PATH", "PERLLIB", "ZEL_HOME_DIR"}) {
        add_own_variable(block, name);
    }
}

// The number behind the mark: -1 while more text may change it, 0 when it is no usable port.
int announced_port(std::string_view text, bool at_end) {
    const std::size_t mark = text.find(announcement_mark);
    if (mark == std::string_view::npos) {
        return at_end ? 0 : -1;
    }
    const std::string_view digits = text.substr(mark + announcement_mark.size());
    int port = 0;
    std::size_t length = 0;
    for (; length < digits.size() && digits[length] >= '0' && digits[length] <= '9'; ++length) {
        port = port > port_max ? port : port * 10 + (digits[length] - '0');
    }
    if (length == digits.size() && !at_end) {
        return -1;
    }
    return port > port_max ? 0 : port;
}

// Waits for the announcement, which may come in pieces. A pause behind a digit ends the number: a
// service may say nothing more, not even a line feed. Returns 0 when there will be no port, or when
// it has not come ten seconds after the first byte. The ports are open meanwhile and nobody is
// served, so a service should announce itself first.
int read_port(int fd) {
    std::string text;
    std::int64_t deadline = INT64_MAX;
    for (std::int64_t now = monotonic_ms(); exit_flag == 0 && now < deadline;
         now = monotonic_ms()) {
        pollfd entry = {.fd = fd, .events = POLLIN, .revents = 0};
        const std::int64_t wait_ms = std::min<std::int64_t>(slice_ms, deadline - now);
        const int ready = poll(&entry, 1, static_cast<int>(wait_ms));
        if (ready == 0 && announced_port(text, true) > 0) {
            return announced_port(text, true);
        }
        if (ready <= 0) {
            continue;
        }
        std::array<char, announcement_max> buffer;  // NOLINT(*-member-init): filled by recv
        const ssize_t n = recv(fd, buffer.data(), announcement_max - text.size(), 0);
        if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            continue;
        }
        if (n > 0) {
            deadline = text.empty() ? monotonic_ms() + announcement_limit_ms : deadline;
            text.append(buffer.data(), static_cast<std::size_t>(n));
        }
        const bool at_end = n <= 0 || text.size() >= announcement_max;
        const int port = announced_port(text, at_end);
        if (port >= 0) {
            return port;
        }
    }
    return 0;
}

// A service that does not end by itself is waited for and then killed, by a thread of its own.
struct ending_service : background_job {
    explicit ending_service(const process_record& ending) : process(ending) {}
    void run() override { (void)stop_process(&process); }
    void finish() override {}

    process_record process;
};

std::unique_ptr<background_thread> endings;  // made at first need

void end_in_background(const process_record& process) {
    if (process.pid <= 0) {
        return;
    }
    if (endings == nullptr) {
        endings = std::make_unique<background_thread>();
    }
    if (!endings->submit(std::make_unique<ending_service>(process))) {
        (void)kill(process.pid, SIGKILL);
    }
}

}  // namespace

int run_cgi_as_service(shttpd_ctx* ctx, const char* upper_name, const char* lower_name) {
    env_block block;
    const std::string root_item = find_item(ctx->cgi_envvar, "PLX_INSTALL_ROOT");
    build_environment(ctx, root_item, &block);
    // Kept: without the item the program is /bin/NAME.
    const std::size_t equals = root_item.find('=');
    const std::string root = equals == std::string::npos ? "" : root_item.substr(equals + 1);
    const std::string directory = (root + "/bin").substr(0, value_max);
    const std::string program = (root + "/bin/" + lower_name).substr(0, value_max);

    if (root_item.empty() && access(program.c_str(), F_OK) != 0) {
        return -1;  // nobody has asked for one
    }
    conn service;  // what starting a program and logging need of a connection: the context
    service.ctx = ctx;
    int sp[2] = {-1, -1};
    if (my_socketpair(&service, sp) != 0) {
        return -1;
    }
    unique_fd ours(sp[0]);
    unique_fd theirs(sp[1]);
    process_record process;
    if (spawn_process({.ctx = ctx,
                       .program = program.c_str(),
                       .environment = block.pointers,
                       .fd = theirs.get(),
                       .directory = directory.c_str(),
                       .record = &process}) != 0) {
        return -1;
    }
    (void)theirs.release();  // closed by spawn_process
    const int port = read_port(ours.get());
    if (port == 0) {
        // On a host without the program its start has failed already, and has said so.
        if (access(program.c_str(), F_OK) == 0) {
            elog(elog_info, &service, "%s: no port announced by %s", upper_name, program.c_str());
        }
        ours.reset();
        end_in_background(process);
        return -1;
    }
    hobintf = {.port = port, .stdio = ours.release(), .process = process};
    return 0;
}

void end_cgi_services() {
    if (hobintf.stdio >= 0) {
        (void)close(hobintf.stdio);  // the end of its input asks it to end by itself
    }
    end_in_background(hobintf.process);
    hobintf = service_record();
    reset_service_exchange();
}

int stop_cgi_services() {
    end_cgi_services();
    if (endings != nullptr) {
        endings->drain();
        endings.reset();
    }
    return 0;
}

int gethobport() {
    return hobintf.port;
}

int gethobstdio() {
    return hobintf.stdio;
}
