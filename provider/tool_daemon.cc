#include "provider/tool_daemon.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>

#include "core/paths.h"
#include "core/string.h"
#include "lib/unique_fd.h"
#include "provider/accounts.h"
#include "provider/files.h"
#include "provider/openssl_ptr.h"

using namespace provider;

namespace {

constexpr int patience_s = 30;
constexpr std::size_t longest_answer = 65536;

struct daemon_port {
    unsigned short number = 0;
    bool tls = false;
};

struct daemon_place {
    unique_fd fd;
    openssl_ptr<SSL> ssl;
    std::string place;  // for messages
};

// A port with the suffix "s" is never opened by the daemon. Where the daemon can be recognised, its
// TLS ports are enough: it opens all of its ports or none, so whoever listens on the others alone
// is somebody else.
std::vector<daemon_port> daemon_ports(const daemon_config& config, bool recognisable) {
    std::vector<daemon_port> plain;
    std::vector<daemon_port> secure;
    const std::string list = config.get("listen_ports", "5634");
    std::string_view rest = list;
    for (std::string_view entry = next_list_entry(rest); !entry.empty();
         entry = next_list_entry(rest)) {
        const int number = std::atoi(std::string(entry).c_str());
        if (number > 0 && number <= 65535 && entry.back() != 's') {
            const bool tls = entry.back() != 'u';
            (tls ? secure : plain).push_back({static_cast<unsigned short>(number), tls});
        }
    }
    if (recognisable && !secure.empty()) {
        return secure;
    }
    plain.insert(plain.end(), secure.begin(), secure.end());
    return plain;
}

unique_fd connect_to(const sockaddr* address, socklen_t length) {
    unique_fd fd{socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    const timeval patience{patience_s, 0};
    if (!fd || setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0 ||
        setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience) != 0 ||
        connect(fd.get(), address, length) != 0) {
        return unique_fd{};
    }
    return fd;
}

// The daemon listens on both families unless the host lacks one.
unique_fd connect_to_loopback(unsigned short port) {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(port);
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    unique_fd fd = connect_to(reinterpret_cast<const sockaddr*>(&v4), sizeof v4);
    if (!fd) {
        sockaddr_in6 v6{};
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(port);
        v6.sin6_addr = in6addr_loopback;
        fd = connect_to(reinterpret_cast<const sockaddr*>(&v6), sizeof v6);
    }
    return fd;
}

// The first certificate of a file; null when there is none.
openssl_ptr<X509> first_certificate(const std::string& path) {
    file_content content;
    if (read_file(path, &content) != 0) {
        return nullptr;
    }
    const openssl_ptr<BIO> reader{
        BIO_new_mem_buf(content.text.data(), static_cast<int>(content.text.size()))};
    return openssl_ptr<X509>{PEM_read_bio_X509(reader.get(), nullptr, nullptr, nullptr)};
}

// Whoever else has a certificate of the same authority is not the daemon.
int is_the_daemons(X509_STORE_CTX* peer, void* own) {
    const X509* shown = X509_STORE_CTX_get0_cert(peer);
    const bool same = shown != nullptr && X509_cmp(shown, static_cast<const X509*>(own)) == 0;
    X509_STORE_CTX_set_error(peer, same ? X509_V_OK : X509_V_ERR_CERT_REJECTED);
    return same ? 1 : 0;
}

// The daemon is known by its certificate, not by a name: it is the one of this data directory.
bool start_tls(const std::string& anchor, daemon_place* c) {
    const openssl_ptr<SSL_CTX> context{SSL_CTX_new(TLS_client_method())};
    const openssl_ptr<X509> own = first_certificate(anchor);
    if (!context || !own) {
        (void)fail("%s: holds no certificate, so the daemon on %s cannot be recognised",
                   anchor.c_str(), c->place.c_str());
        return false;
    }
    SSL_CTX_set_cert_verify_callback(context.get(), is_the_daemons, own.get());
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    SSL_CTX_set_options(context.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
    c->ssl.reset(SSL_new(context.get()));
    if (!c->ssl || SSL_set_fd(c->ssl.get(), c->fd.get()) != 1 || SSL_connect(c->ssl.get()) != 1) {
        const char* reason = ERR_reason_error_string(ERR_peek_error());
        const bool stranger =
            c->ssl && SSL_get_verify_result(c->ssl.get()) == X509_V_ERR_CERT_REJECTED;
        (void)fail("%s: TLS: %s%s", c->place.c_str(),
                   stranger            ? "the certificate shown is not the first one of "
                   : reason == nullptr ? strerror(errno)
                                       : reason,
                   stranger ? anchor.c_str() : "");
        return false;
    }
    return true;
}

// False with errno set; the time-out on the socket ends a wait for a daemon that has stopped.
bool send_all(daemon_place* c, std::string_view data) {
    while (!data.empty()) {
        const ssize_t n = c->ssl
                              ? SSL_write(c->ssl.get(), data.data(), static_cast<int>(data.size()))
                              : send(c->fd.get(), data.data(), data.size(), MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        data.remove_prefix(static_cast<std::size_t>(n));
    }
    return true;
}

// Up to the end of the connection: the request has asked for it to be closed.
std::string receive_all(daemon_place* c) {
    std::string answer;
    std::array<char, 4096> piece{};
    while (answer.size() < longest_answer) {
        const ssize_t n = c->ssl ? SSL_read(c->ssl.get(), piece.data(), piece.size())
                                 : recv(c->fd.get(), piece.data(), piece.size(), 0);
        if (n <= 0) {
            break;
        }
        answer.append(piece.data(), static_cast<std::size_t>(n));
    }
    return answer;
}

// Reports everything but success.
daemon_answer judge(const std::string& answer, const std::string& user, const std::string& place) {
    const std::size_t blank = answer.find("\r\n\r\n");
    const int status =
        answer.rfind("HTTP/1.", 0) == 0 && answer.size() > 12 ? std::atoi(answer.c_str() + 9) : 0;
    switch (status) {
        case 200:
            return daemon_answer::success;
        case 0:
            (void)fail("%s: no answer", place.c_str());
            break;
        case 401:
            (void)fail("%s: the daemon does not accept this login of %s", place.c_str(),
                       user.c_str());
            break;
        case 403:
            (void)fail("%s: %s is no administrator", place.c_str(), user.c_str());
            break;
        case 404:
            (void)fail("%s: the daemon has no such namespace", place.c_str());
            break;
        default: {
            const std::string text = blank == std::string::npos ? "" : answer.substr(blank + 4);
            (void)fail("%s: the daemon answers %d: %s", place.c_str(), status,
                       text.substr(0, text.find('\n')).c_str());
            break;
        }
    }
    return daemon_answer::failure;
}

bool open_connection(const daemon_config& config, const std::string& anchor, daemon_place* c,
                     bool* tls) {
    const bool recognisable = access(anchor.c_str(), R_OK) == 0;
    for (const daemon_port& port : daemon_ports(config, recognisable)) {
        c->fd = connect_to_loopback(port.number);
        if (c->fd) {
            c->place = "port " + std::to_string(port.number);
            *tls = port.tls;
            return true;
        }
    }
    return false;
}

}  // namespace

// The characters that are never encoded are also those of which a namespace in a URI may consist.
std::string url_encoded(std::string_view text) {
    constexpr std::string_view digits = "0123456789ABCDEF";
    std::string encoded;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
            c == '-' || c == '_' || c == '.') {
            encoded += c;
        } else {
            encoded += '%';
            encoded += digits[byte >> 4U];
            encoded += digits[byte & 15U];
        }
    }
    return encoded;
}

// A process that may not be signalled (EPERM) is alive all the same.
bool daemon_runs(const daemon_config& config) {
    file_content content;
    if (read_file(config.get("pid_file", paths.pid_file), &content) != 0) {
        return false;
    }
    const long pid = std::strtol(content.text.c_str(), nullptr, 10);
    return pid > 0 && (kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

bool ask_login(const tool_options& options, daemon_login* login) {
    const char* from_environment = std::getenv("DOVMAD_USER");
    login->user = !options.login.empty()        ? options.login
                  : from_environment != nullptr ? from_environment
                                                : "root";
    secret password;
    const char* known = std::getenv("DOVMAD_PASSWORD");
    if (known != nullptr) {
        password.text = known;
    } else if (!read_secret("Password of " + login->user, false, &password)) {
        return false;
    }
    secret both;
    both.text.reserve(login->user.size() + 1 + password.text.size());
    both.text.append(login->user).append(":").append(password.text);
    if (both.text.size() > longest_login_bytes) {
        (void)fail("the daemon never accepts a login of %zu bytes (user:password, %zu at most)",
                   both.text.size(), longest_login_bytes);
        return false;
    }
    std::array<unsigned char, 64> encoded{};
    const int length =
        EVP_EncodeBlock(encoded.data(), reinterpret_cast<const unsigned char*>(both.text.data()),
                        static_cast<int>(both.text.size()));
    login->header.text.assign(reinterpret_cast<const char*>(encoded.data()),
                              static_cast<std::size_t>(length));
    explicit_bzero(encoded.data(), encoded.size());
    return true;
}

struct daemon_session::connection : daemon_place {};

daemon_session::daemon_session() : connection_(std::make_unique<connection>()) {}
daemon_session::~daemon_session() = default;

daemon_answer daemon_session::open(const tool_options& options, const daemon_config& config) {
    bool tls = false;
    const std::string anchor = find_data_dir(options) + "/dovmad-at/server.crt";
    if (!daemon_runs(config) || !open_connection(config, anchor, connection_.get(), &tls)) {
        return daemon_answer::none;
    }
    (void)signal(SIGPIPE, SIG_IGN);  // a daemon that goes away is reported, not died of
    return tls && !start_tls(anchor, connection_.get()) ? daemon_answer::failure
                                                        : daemon_answer::success;
}

daemon_answer daemon_session::post(const daemon_login& login, const std::string& uri,
                                   const std::string& name_space, const std::string& variables) {
    secret request;
    request.text.reserve(1024 + variables.size());
    request.text.append("POST ").append(uri).append(" HTTP/1.1\r\nHost: localhost\r\n");
    request.text.append("Authorization: Basic ").append(login.header.text).append("\r\n");
    request.text.append("X-PLX-Namespace: ").append(name_space).append("\r\n");
    request.text.append("Content-Type: application/x-www-form-urlencoded\r\nContent-Length: ")
        .append(std::to_string(variables.size()))
        .append("\r\nConnection: close\r\n\r\n")
        .append(variables);
    if (!send_all(connection_.get(), request.text)) {
        (void)fail("%s: %s", connection_->place.c_str(), strerror(errno));
        return daemon_answer::failure;
    }
    return judge(receive_all(connection_.get()), login.user, connection_->place);
}

daemon_answer post_to_daemon(const tool_options& options, const daemon_config& config,
                             const std::string& uri, const std::string& name_space,
                             const std::string& variables) {
    daemon_session session;
    const daemon_answer opened = session.open(options, config);
    if (opened != daemon_answer::success) {
        return opened;
    }
    daemon_login login;
    return ask_login(options, &login) ? session.post(login, uri, name_space, variables)
                                      : daemon_answer::failure;
}
