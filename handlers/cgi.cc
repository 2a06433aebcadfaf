#include "handlers/cgi.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "core/compat_unix.h"
#include "core/connection.h"
#include "core/context.h"
#include "core/log.h"
#include "core/request.h"
#include "core/string.h"
#include "core/v6socket.h"
#include "lib/qz_vector.h"
#include "lib/unique_fd.h"

namespace {

// --- The connected pair ---

constexpr int pair_wait_ms = 1000;  // the kernel usually connects the two within the call
constexpr int strangers_max = 16;   // connections of others that are closed before giving up

struct socket_address {
    sockaddr_storage storage{};
    socklen_t length = 0;

    // For calls that take or fill an address of any family.
    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
    // The same address and port; what else a family has differs from call to call.
    [[nodiscard]] bool equals(const socket_address& other) const {
        if (storage.ss_family != other.storage.ss_family) {
            return false;
        }
        if (storage.ss_family == AF_INET6) {
            const auto* own = reinterpret_cast<const sockaddr_in6*>(&storage);
            const auto* theirs = reinterpret_cast<const sockaddr_in6*>(&other.storage);
            return own->sin6_port == theirs->sin6_port &&
                   std::memcmp(&own->sin6_addr, &theirs->sin6_addr, sizeof own->sin6_addr) == 0;
        }
        const auto* own = reinterpret_cast<const sockaddr_in*>(&storage);
        const auto* theirs = reinterpret_cast<const sockaddr_in*>(&other.storage);
        return own->sin_port == theirs->sin_port && own->sin_addr.s_addr == theirs->sin_addr.s_addr;
    }
};

// The loopback address of the family that this host can use, with port 0. When it can use neither,
// the address has no family, so that socket() fails and its error is logged.
socket_address loopback_address() {
    socket_address address;
    if (isipv4() == 0 && isipv6() != 0) {
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&address.storage);
        v6->sin6_family = AF_INET6;
        v6->sin6_addr = in6addr_loopback;
        address.length = sizeof(*v6);
    } else {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&address.storage);
        v4->sin_family = static_cast<sa_family_t>(isipv4() != 0 ? AF_INET : AF_UNSPEC);
        v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.length = sizeof(*v4);
    }
    return address;
}

// Logs the failed call with errno as it left it.
int fail_pair(const conn* c, const char* call) {
    elog(elog_info, c, "mysocketpair: %s: %d", call, errno);
    return -1;
}

// False with errno set when nothing happens in time.
bool wait_for(int fd, short events) {
    pollfd entry = {.fd = fd, .events = events, .revents = 0};
    int ready = 0;
    do {
        ready = poll(&entry, 1, pair_wait_ms);
    } while (ready < 0 && errno == EINTR);
    if (ready == 0) {
        errno = ETIMEDOUT;
    }
    return ready > 0;
}

// A socket of the pair: without the delay that would hold a program's second small write back, and
// without claiming its port for the minute in which the ended connection lingers; thousands of
// runs a minute would use the host's ports up.
unique_fd pair_socket(int family) {
    unique_fd fd(socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP));
    const int on = 1;
    if (fd) {
        (void)setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        (void)setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    }
    return fd;
}

bool connect_to(int fd, socket_address* address) {
    if (connect(fd, address->get(), address->length) == 0) {
        return true;
    }
    if (errno != EINPROGRESS || !wait_for(fd, POLLOUT)) {
        return false;
    }
    int error = 0;
    socklen_t length = sizeof(error);
    (void)getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
    errno = error;
    return error == 0;
}

// Accepts the connection that comes from `own`. Another local process may be quicker; it
// would receive the request's body and could forge the answer.
int accept_own(int listener, const socket_address& own) {
    for (int strangers = 0; strangers < strangers_max;) {
        socket_address peer;
        peer.length = sizeof(peer.storage);
        unique_fd accepted(accept4(listener, peer.get(), &peer.length, SOCK_CLOEXEC));
        if (accepted && peer.equals(own)) {
            return accepted.release();
        }
        if (accepted) {
            ++strangers;
        } else if (errno == EINTR || errno == ECONNABORTED) {
            continue;
        } else if (errno != EAGAIN || !wait_for(listener, POLLIN)) {
            return -1;
        }
    }
    errno = ECONNREFUSED;
    return -1;
}

// --- The environment ---

// Kept: headers may take one pointer more than addenv gives out; the last is the terminator's.
constexpr int header_pointers_max = env_block::pointer_count - 1;
// A line grows by five bytes at the most: "HTTP_" and the zero byte, less the blank at the colon.
constexpr int header_text_max = 4089;
constexpr std::size_t address_bytes = 46;

int size_of(std::string_view text) {
    return static_cast<int>(text.size());
}

// The root in force for this request: its namespace's.
std::string_view document_root(const conn* c) {
    return request_root(c);
}

void add_server(const conn* c, env_block* block) {
    addenv(block, "GATEWAY_INTERFACE=CGI/1.1");
    addenv(block, "SERVER_PROTOCOL=HTTP/1.1");
    addenv(block, "REDIRECT_STATUS=200");
    addenv(block, "SERVER_PORT=%d", local_port(c));
    addenv(block, "SERVER_NAME=%s", c->ctx->auth_realm.c_str());
    const std::string_view root = document_root(c);
    addenv(block, "SERVER_ROOT=%.*s", size_of(root), root.data());
    addenv(block, "DOCUMENT_ROOT=%.*s", size_of(root), root.data());
    addenv(block, "REQUEST_METHOD=%s", c->request.method_name());
    addenv(block, "PLX_VAR_DIR=%s", c->ctx->var_dir.c_str());
}

// A peer on a local socket, as inetd may hand one over, has no port and the address "-".
void add_peer(const conn* c, env_block* block) {
    std::array<char, address_bytes> text{};
    const auto* peer = reinterpret_cast<const sockaddr*>(&c->peer);
    const char* address = v6inet_ntop(peer, text.data(), text.size());
    addenv(block, "REMOTE_ADDR=%s", address != nullptr ? address : "-");
    if (peer->sa_family == AF_INET) {
        addenv(block, "REMOTE_PORT=%hu",
               ntohs(reinterpret_cast<const sockaddr_in*>(peer)->sin_port));
    } else if (peer->sa_family == AF_INET6) {
        addenv(block, "REMOTE_PORT=%hu",
               ntohs(reinterpret_cast<const sockaddr_in6*>(peer)->sin6_port));
    }
}

// Kept: SCRIPT_NAME carries the whole path and SCRIPT_FILENAME the bare file name.
void add_script(const conn* c, const char* prog, env_block* block) {
    const char* slash = std::strrchr(prog, '/');
    addenv(block, "REQUEST_URI=%s", c->request.uri.c_str());
    addenv(block, "SCRIPT_NAME=%s", prog);
    addenv(block, "SCRIPT_FILENAME=%s", slash != nullptr ? slash + 1 : prog);
    addenv(block, "PATH_TRANSLATED=%s", prog);
}

// Kept: without a recorded role, which means a server without access control, programs are told
// that an administrator calls; and the list of groups ends in a comma.
void add_caller(const conn* c, env_block* block) {
    const std::string_view role =
        c->request.recorded_role.empty() ? "admin" : std::string_view(c->request.recorded_role);
    addenv(block, "PLXE_ROLE=%.*s", size_of(role), role.data());
    if (c->groups != nullptr) {
        std::string groups;
        for (const void* group : qz_each(c->groups)) {
            groups.append(static_cast<const char*>(group)).append(",");
        }
        addenv(block, "PLX_GROUPS=%.*s", size_of(groups), groups.data());
    }
}

// Kept: the query arrives decoded, so "a=%26" and "a=&" are the same to a program.
void add_request(const conn* c, env_block* block) {
    const request_data& request = c->request;
    const std::string_view type = request.headers.content_type;
    if (!type.empty()) {
        addenv(block, "CONTENT_TYPE=%.*s", size_of(type), type.data());
    }
    if (request.has_query) {
        addenv(block, "QUERY_STRING=%s", request.query.c_str());
    }
    if (!request.path_info.empty()) {
        addenv(block, "PATH_INFO=/%s", request.path_info.c_str());
    }
    if (request.headers.content_length > 0) {
        addenv(block, "CONTENT_LENGTH=%lu", request.headers.content_length);
    }
}

// Of the daemon's own environment only these reach a program.
void add_own_variables(env_block* block) {
    constexpr std::array<const char*, 11> names = {
        "PATH",        "LD_LIBRARY_PATH", "LC_ALL",     "LANG",    "LC_COLLATE", "LC_CTYPE",
        "LC_MESSAGES", "LC_MONETARY",     "LC_NUMERIC", "LC_TIME", "PERLLIB"};
    for (const char* name : names) {
        if (const char* value = std::getenv(name)) {
            addenv(block, "%s=%s", name, value);
        }
    }
}

// Kept: callers known by the handshake are "Basic", too.
void add_user(const conn* c, env_block* block) {
    if (!c->user_name.empty()) {
        addenv(block, "REMOTE_USER=%.*s", size_of(c->user_name), c->user_name.data());
        addenv(block, "AUTH_TYPE=Basic");
    }
}

// The option's items are variables as they stand; an empty item ends the list.
void add_configured(const conn* c, env_block* block) {
    std::string_view items = c->ctx->cgi_envvar;
    for (std::string_view item = next_list_entry(items); !item.empty();
         item = next_list_entry(items)) {
        addenv(block, "%.*s", size_of(item), item.data());
    }
}

char variable_character(char c) {
    if (c == '-') {
        return '_';
    }
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

// One header line, without its line feed, as HTTP_NAME=value. Kept: the value begins two
// characters behind the colon, whatever stands there.
void add_header(std::string_view line, env_block* block) {
    const std::size_t colon = line.find(':');
    if (colon == 0 || colon == std::string_view::npos || colon + 2 >= line.size() ||
        size_of(line) >= header_text_max - block->used || block->count >= header_pointers_max) {
        return;
    }
    std::string_view value = line.substr(colon + 2);
    if (value.ends_with('\r')) {
        value.remove_suffix(1);
    }
    std::string text = "HTTP_";
    for (const char c : line.substr(0, colon)) {
        text += variable_character(c);
    }
    text.append("=").append(value);
    char* start = block->text + block->used;
    std::memcpy(start, text.c_str(), text.size() + 1);
    block->pointers[block->count++] = start;
    block->used += size_of(text) + 1;
}

// Kept: every header becomes a variable, Authorization and Proxy included, and repeated ones twice.
void add_headers(const conn* c, env_block* block) {
    std::string_view rest = c->request.header_block();
    while (!rest.empty()) {
        const std::size_t end = rest.find('\n');
        add_header(rest.substr(0, end), block);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    }
}

// The folder in which the program runs. Kept: a path whose only slash leads is not cut.
std::string directory_of(std::string_view prog) {
    constexpr std::size_t path_max = 2047;
    const std::string_view path = prog.substr(0, path_max);
    const std::size_t slash = path.rfind('/');
    return std::string(slash == std::string_view::npos || slash == 0 ? path
                                                                     : path.substr(0, slash));
}

}  // namespace

int my_socketpair(conn* c, int sp[2]) {
    socket_address address = loopback_address();
    const int family = address.storage.ss_family;
    const unique_fd listener = pair_socket(family);  // the accepted socket inherits its options
    if (!listener) {
        return fail_pair(c, "socket()");
    }
    if (bind(listener.get(), address.get(), address.length) != 0) {
        return fail_pair(c, "bind()");
    }
    if (listen(listener.get(), 1) != 0) {
        return fail_pair(c, "listen()");
    }
    if (getsockname(listener.get(), address.get(), &address.length) != 0) {
        return fail_pair(c, "getsockname()");
    }
    unique_fd ours = pair_socket(family);
    if (!ours) {
        return fail_pair(c, "socket()");
    }
    if (!connect_to(ours.get(), &address)) {
        return fail_pair(c, "connect()");
    }
    socket_address own;
    own.length = sizeof(own.storage);
    if (getsockname(ours.get(), own.get(), &own.length) != 0) {
        return fail_pair(c, "getsockname()");
    }
    const int theirs = accept_own(listener.get(), own);
    if (theirs < 0) {
        return fail_pair(c, "accept()");
    }
    sp[0] = ours.release();
    sp[1] = theirs;
    return 0;
}

// Programs see this order, and what no longer fits is left out: what matters most comes first.
void build_cgi_environment(conn* c, const char* prog, env_block* block) {
    add_server(c, block);
    add_peer(c, block);
    add_script(c, prog, block);
    add_caller(c, block);
    add_request(c, block);
    add_own_variables(block);
    add_user(c, block);
    add_configured(c, block);
    add_headers(c, block);
}

int run_cgi(conn* c, const char* prog) {
    env_block block;
    build_cgi_environment(c, prog, &block);
    const std::string directory = directory_of(prog);
    int sp[2] = {-1, -1};
    if (my_socketpair(c, sp) != 0) {
        return -1;
    }
    unique_fd ours(sp[0]);
    unique_fd theirs(sp[1]);
    if (spawn_process({.ctx = c->ctx,
                       .program = prog,
                       .environment = block.pointers,
                       .fd = theirs.get(),
                       .directory = directory.c_str(),
                       .client = c}) != 0) {
        return -1;
    }
    (void)theirs.release();  // closed by spawn_process
    if (!poll_stream(&c->local, ours.get())) {
        return -1;
    }
    c->local.channel.fd = ours.release();
    return 0;
}
