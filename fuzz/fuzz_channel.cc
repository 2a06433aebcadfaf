// The library's secure channels against a peer of OpenSSL's, in both directions and both versions
// of TLS. The input says who writes and reads how much, how the bytes between the two are cut, and
// what is changed on the way. Whatever happens, each side reads what the other one has written,
// from its beginning and nothing else, and a read that gets less than it asked for leaves nothing
// behind.
//
// A handshake takes a thousand times as long as a record: a connection that has come through a case
// in order serves the next one.
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/memory_file.h"
#include "lib/unique_fd.h"
#include "provider/openssl_ptr.h"
#include "security/at_types.h"

using provider::openssl_ptr;

namespace {

// The library with a data directory of its own.
struct set_up_library {
    set_up_library() {
        check(setenv("ZEL_DATA_DIR", data.path.c_str(), 1) == 0);
        // The first use makes a key pair, which peers share and trust.
        check(molbAtInit(nullptr, &handle) == at_ok && molbAtTerminate(handle) == at_ok);
        check(molbAtInit(nullptr, &handle) == at_ok);
        check(molbAtAuthenticate(handle, &service_identity, 0, &service) == at_ok);
        check(SSL_CTX_use_certificate_file(peers.get(), (own + "/server.crt").c_str(),
                                           SSL_FILETYPE_PEM) == 1);
        check(SSL_CTX_use_PrivateKey_file(peers.get(), (own + "/server.key").c_str(),
                                          SSL_FILETYPE_PEM) == 1);
    }
    static constexpr molb_identity service_identity{"localhost", nullptr, nullptr, nullptr};
    memory_folder data;
    const std::string own = data.path + "/dovmad-at";
    openssl_ptr<SSL_CTX> peers{SSL_CTX_new(TLS_method())};
    void* handle = nullptr;
    void* service = nullptr;
};

const set_up_library& library() {
    static const set_up_library only;
    return only;
}

// What one side says to the other: a sequence that tells which byte is which.
struct saying {
    std::uint64_t said = 0;
    std::uint64_t heard = 0;

    static char at(std::uint64_t place) { return static_cast<char>(place * 31 + (place >> 8)); }

    std::string next(std::size_t length) const {
        std::string text(length, '\0');
        for (std::size_t i = 0; i < length; ++i) {
            text[i] = at(said + i);
        }
        return text;
    }
    void hear(std::string_view text) {
        for (const char c : text) {
            check(heard < said && c == at(heard));
            ++heard;
        }
    }
};

class connection {
  public:
    connection(bool serves, int version) : serves_(serves) {
        int ends[2];
        check(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0);
        ours_.reset(ends[0]);
        theirs_.reset(ends[1]);
        check(SSL_set_max_proto_version(peer_.get(), version) == 1);
        SSL_set_bio(peer_.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
        serves_ ? SSL_set_connect_state(peer_.get()) : SSL_set_accept_state(peer_.get());
    }
    ~connection() {
        check(channel_ == nullptr || molbAtSecConnClose(&channel_) == at_ok);
        check(channel_ == nullptr);
        ERR_clear_error();
    }
    connection(const connection&) = delete;
    connection& operator=(const connection&) = delete;
    connection(connection&&) = delete;
    connection& operator=(connection&&) = delete;

    void act(fuzz_input* input) {
        const unsigned what = input->byte();
        const std::size_t size = 1 + input->byte() * (1 + what / 8);
        switch (what % 8) {
            case 0:
                step();
                break;
            case 1:
                peer_writes(size);
                break;
            case 2:
                (void)reads(size);
                break;
            case 3:
                writes(size);
                break;
            case 4:
                peer_reads();
                break;
            case 5:
                (void)to_channel(size);
                break;
            case 6:
                if (what / 8 % 4 == 0) {
                    change(static_cast<char>(size));
                }
                break;
            default:
                if (what / 8 == 3) {
                    (void)SSL_shutdown(peer_.get());
                    in_order_ = false;
                } else if (what / 8 == 5) {
                    (void)shutdown(theirs_.get(), SHUT_WR);
                    in_order_ = false;
                }
                break;
        }
    }

    // Shakes hands, lets everything arrive, and tells whether all is as it was at the beginning.
    bool settle() {
        for (int round = 0; round < 20 && (round < 3 || !open_); ++round) {
            step();
            while (to_channel(1 << 16)) {
                (void)reads(1 << 15);
            }
            while (reads(1 << 15)) {
            }
            peer_reads();
        }
        if (!in_order_ || !open_) {
            return false;
        }
        check(to_peer_.said == to_peer_.heard && to_channel_.said == to_channel_.heard);
        return true;
    }

  private:
    // The handshakes of both sides, as far as they go; bytes to the peer are never held up.
    void step() {
        if (!SSL_is_init_finished(peer_.get())) {
            (void)SSL_do_handshake(peer_.get());
            ERR_clear_error();
        }
        if (!failed_ && !open_) {
            shake_hands();
        }
        to_peer();
    }
    void shake_hands() {
        void* client = nullptr;
        char* why = nullptr;
        const std::uint32_t result =
            serves_
                ? molbAtSecConnAcceptWithCommExtn(library().handle, ours_.get(), library().service,
                                                  4, &params_, 1, 0, &channel_, &client)
                : molbAtSecConnConnect(ours_.get(), library().handle, 1, &channel_, &why);
        check(client == nullptr);
        check((why != nullptr) == (!serves_ && result == at_channel_failed));
        check(molbAtFree(why) == at_ok);
        failed_ = result == at_channel_failed;
        open_ = result == (serves_ ? at_no_credential : at_ok);
        check((failed_ || open_ || result == at_again) && failed_ == (channel_ == nullptr));
        check(!failed_ || !in_order_);
    }
    void to_peer() {
        std::array<char, 16384> bytes;  // NOLINT(cppcoreguidelines-pro-type-member-init)
        for (;;) {
            const ssize_t n = recv(theirs_.get(), bytes.data(), bytes.size(), MSG_DONTWAIT);
            if (n <= 0) {
                return;
            }
            (void)BIO_write(SSL_get_rbio(peer_.get()), bytes.data(), static_cast<int>(n));
        }
    }
    // Lets some of what the peer has written through. False when there is nothing, or no room.
    bool to_channel(std::size_t most) {
        char* bytes = nullptr;
        const long there = BIO_get_mem_data(SSL_get_wbio(peer_.get()), &bytes);
        const std::size_t length = std::min(most, static_cast<std::size_t>(there));
        const ssize_t n = length == 0 ? 0 : send(theirs_.get(), bytes, length, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        std::string gone(static_cast<std::size_t>(n), '\0');
        (void)BIO_read(SSL_get_wbio(peer_.get()), gone.data(), static_cast<int>(n));
        return true;
    }
    // One byte of what is on its way to the channel, or one more.
    void change(char difference) {
        char* bytes = nullptr;
        if (BIO_get_mem_data(SSL_get_wbio(peer_.get()), &bytes) > 0) {
            bytes[0] = static_cast<char>(bytes[0] ^ difference);
        } else {
            (void)send(theirs_.get(), &difference, 1, MSG_NOSIGNAL);
        }
        in_order_ = false;
    }
    void peer_writes(std::size_t length) {
        if (SSL_is_init_finished(peer_.get())) {
            const std::string text = to_channel_.next(length);
            const int n = SSL_write(peer_.get(), text.data(), static_cast<int>(text.size()));
            to_channel_.said += static_cast<std::uint64_t>(std::max(n, 0));
            ERR_clear_error();
        }
    }
    void peer_reads() {
        to_peer();
        std::array<char, 16384> text;  // NOLINT(cppcoreguidelines-pro-type-member-init)
        for (int n = 1; n > 0;) {
            n = SSL_read(peer_.get(), text.data(), text.size());
            to_peer_.hear({text.data(), static_cast<std::size_t>(std::max(n, 0))});
        }
        ERR_clear_error();
    }
    // Whether anything came.
    bool reads(std::size_t length) {
        if (channel_ == nullptr) {
            return false;
        }
        std::string text(length, '\0');
        errno = 0;
        const std::int32_t n =
            molbAtSecConnRead(channel_, text.data(), static_cast<std::int32_t>(length));
        check(n >= -1 && n <= static_cast<std::int32_t>(length));
        check(n >= 0 || errno == EAGAIN || !in_order_);
        check(n != 0 || !in_order_);
        const std::size_t count = static_cast<std::size_t>(std::max(n, 0));
        to_channel_.hear(std::string_view(text).substr(0, count));
        check(count == length || !in_order_ || molbAtDataPending(channel_) == 0);
        return n > 0;
    }
    void writes(std::size_t length) {
        if (channel_ == nullptr) {
            return;
        }
        const std::string text = to_peer_.next(length);
        errno = 0;
        const std::int32_t n =
            molbAtSecConnWrite(channel_, text.data(), static_cast<std::int32_t>(length));
        check(n >= -1 && n != 0 && n <= static_cast<std::int32_t>(length));
        check(n > 0 || errno == EAGAIN || !in_order_);
        to_peer_.said += static_cast<std::uint64_t>(std::max(n, 0));
        to_peer();
    }

    const bool serves_;
    bool open_ = false;
    bool failed_ = false;
    bool in_order_ = true;  // nothing was changed or ended
    unique_fd ours_;
    unique_fd theirs_;
    openssl_ptr<SSL> peer_{SSL_new(library().peers.get())};
    molb_accept_params params_{0, 0, nullptr, nullptr};
    void* channel_ = nullptr;
    saying to_channel_;
    saying to_peer_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static std::array<std::unique_ptr<connection>, 4> kept;
    fuzz_input input(data, size);
    const unsigned kind = input.byte();
    const bool serves = (kind & 1) != 0;
    const int version = (kind & 2) != 0 ? TLS1_3_VERSION : TLS1_2_VERSION;
    std::unique_ptr<connection>& used = kept[kind % kept.size()];
    if (kind / 4 % 64 == 1) {
        used.reset();  // begins with the handshake
    }
    const bool fresh = used == nullptr;
    if (fresh) {
        used = std::make_unique<connection>(serves, version);
    }
    if (kind / 4 % 64 != 1 && fresh) {
        check(used->settle());
    }
    while (!input.rest().empty()) {
        used->act(&input);
    }
    if (!used->settle()) {
        used.reset();
    }
    return 0;
}
