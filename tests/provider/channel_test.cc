// The server's side of a secure channel, spoken to by an OpenSSL client over a socket pair.
#include <fcntl.h>
#include <openssl/err.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <filesystem>
#include <random>
#include <vector>

#include "tests/provider/provider_fixture.h"

namespace {

struct tls_client {
    openssl_owned<SSL_CTX> context{SSL_CTX_new(TLS_client_method())};
    openssl_owned<SSL> ssl;

    void present(const certified_key& identity) {
        SSL_CTX_use_certificate(context.get(), identity.certificate.get());
        SSL_CTX_use_PrivateKey(context.get(), identity.key.get());
    }
    void start(int fd, const char* host = nullptr) {
        ssl.reset(SSL_new(context.get()));
        SSL_set_fd(ssl.get(), fd);
        SSL_set_connect_state(ssl.get());
        if (host != nullptr) {
            SSL_ctrl(ssl.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                     const_cast<char*>(host));
        }
    }
    [[nodiscard]] std::string peer_name() const {
        std::array<char, 256> name{};
        X509* peer = SSL_get0_peer_certificate(ssl.get());
        X509_NAME_get_text_by_NID(X509_get_subject_name(peer), NID_commonName, name.data(),
                                  name.size());
        return name.data();
    }
};

}  // namespace

class channel_test : public provider_test {
  protected:
    void SetUp() override {
        provider_test::SetUp();
        set_up();
        write_file(site() / "domains", "local:password:box\ncert:certificate:box\n");
        refresh();
    }

    void TearDown() override {
        if (channel != nullptr) {
            EXPECT_EQ(lib.close(&channel), at_ok);
            EXPECT_EQ(channel, nullptr);
        }
        EXPECT_EQ(lib.release(service), at_ok);
        provider_test::TearDown();
    }

    // Fetches the service credential anew, which takes changed files over.
    void refresh() {
        EXPECT_EQ(lib.release(service), at_ok);
        const molb_identity identity{"localhost", nullptr, nullptr, nullptr};
        ASSERT_EQ(lib.authenticate(handle, &identity, 0, &service), at_ok);
    }

    std::uint32_t accept(void** credential) {
        return lib.accept(handle, sockets.ours(), service, 4, &params, 1, 0, &channel, credential);
    }

    // Runs both sides until the server's is decided. The credential's info goes to `who`.
    std::uint32_t shake_hands() {
        std::uint32_t result = at_again;
        for (int round = 0; round < 20 && result == at_again; ++round) {
            (void)SSL_do_handshake(client.ssl.get());
            void* credential = nullptr;
            result = accept(&credential);
            if (result == at_ok) {
                who = info_of(lib, handle, credential);
            }
            EXPECT_EQ(result == at_ok, credential != nullptr);
            EXPECT_EQ(lib.release(credential), at_ok);
        }
        ERR_clear_error();
        return result;
    }

    void open_channel() {
        client.start(sockets.theirs());
        ASSERT_EQ(shake_hands(), at_no_credential);
        ASSERT_EQ(SSL_do_handshake(client.ssl.get()), 1);
    }

    std::int32_t read(std::size_t length) {
        received.resize(length);
        errno = 0;
        const std::int32_t n =
            lib.read(channel, received.data(), static_cast<std::int32_t>(length));
        received.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
        return n;
    }

    std::int32_t write(std::string_view text) {
        errno = 0;
        return lib.write(channel, text.data(), static_cast<std::int32_t>(text.size()));
    }

    socket_pair sockets;
    tls_client client;
    void* service = nullptr;
    void* channel = nullptr;
    molb_accept_params params{0, 0, nullptr, nullptr};
    std::string who;
    std::string received;
};

TEST_F(channel_test, waits_for_the_client_and_lets_it_in_without_a_certificate) {
    void* credential = &credential;
    EXPECT_EQ(accept(&credential), at_again);
    EXPECT_EQ(credential, nullptr);
    EXPECT_NE(channel, nullptr);
    EXPECT_EQ(read(10), -1);
    EXPECT_EQ(errno, EAGAIN);
    client.start(sockets.theirs());
    const unsigned char protocols[] = "\x02h2\x08http/1.1";
    SSL_set_alpn_protos(client.ssl.get(), protocols, sizeof protocols - 1);
    EXPECT_EQ(shake_hands(), at_no_credential);
    EXPECT_EQ(accept(&credential), at_no_credential);  // the same answer again
    const unsigned char* chosen = nullptr;
    unsigned int length = 0;
    SSL_get0_alpn_selected(client.ssl.get(), &chosen, &length);
    EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(chosen), length), "http/1.1");
}

TEST_F(channel_test, certificates_are_asked_for_only_when_there_are_authorities) {
    client.present(make_certificate({"alice"}));
    client.start(sockets.theirs());
    EXPECT_EQ(shake_hands(), at_no_credential);
}

TEST_F(channel_test, a_trusted_certificate_is_a_login) {
    const certified_key authority = make_certificate({"authority"}, nullptr, true);
    write_file(site() / "client_ca.pem", authority.certificate_pem());
    refresh();
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        socket_pair fresh;
        tls_client caller;
        caller.present(make_certificate({"alice"}, &authority));
        SSL_CTX_set_max_proto_version(caller.context.get(), version);
        caller.start(fresh.theirs());
        void* own = nullptr;
        void* credential = nullptr;
        std::uint32_t result = at_again;
        for (int round = 0; round < 20 && result == at_again; ++round) {
            (void)SSL_do_handshake(caller.ssl.get());
            result = lib.accept(handle, fresh.ours(), service, 4, nullptr, 1, 0, &own, &credential);
        }
        ASSERT_EQ(result, at_ok) << version;
        void* second = nullptr;
        EXPECT_EQ(lib.accept(handle, fresh.ours(), service, 4, nullptr, 1, 0, &own, &second),
                  at_ok);
        EXPECT_EQ(lib.close(&own), at_ok);
        EXPECT_EQ(info_of(lib, handle, credential), "box/cert/alice");
        EXPECT_EQ(lib.release(credential), at_ok);
        EXPECT_EQ(info_of(lib, handle, second), "box/cert/alice");
        EXPECT_EQ(lib.release(second), at_ok);
    }
    client.start(sockets.theirs());  // one without a certificate is let in as before
    EXPECT_EQ(shake_hands(), at_no_credential);
}

TEST_F(channel_test, other_certificates_end_the_handshake) {
    const certified_key authority = make_certificate({"authority"}, nullptr, true);
    const certified_key impostor = make_certificate({"authority"}, nullptr, true);
    write_file(site() / "client_ca.pem", authority.certificate_pem());
    refresh();
    std::vector<certified_key> refused;
    refused.push_back(make_certificate({"alice"}, &impostor));
    refused.push_back(make_certificate({"alice"}));
    refused.push_back(make_certificate({}, &authority));
    refused.push_back(make_certificate({"alice", "root"}, &authority));
    refused.push_back(make_certificate({"al ice"}, &authority));
    refused.push_back(make_certificate({std::string("root\0x", 6)}, &authority));
    refused.push_back(make_certificate({"root@local"}, &authority));
    for (const certified_key& identity : refused) {
        for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
            socket_pair fresh;
            tls_client caller;
            caller.present(identity);
            SSL_CTX_set_max_proto_version(caller.context.get(), version);
            caller.start(fresh.theirs());
            void* own = nullptr;
            void* credential = nullptr;
            std::uint32_t result = at_again;
            for (int round = 0; round < 20 && result == at_again; ++round) {
                (void)SSL_do_handshake(caller.ssl.get());
                result =
                    lib.accept(handle, fresh.ours(), service, 4, nullptr, 1, 0, &own, &credential);
            }
            EXPECT_EQ(result, at_channel_failed);
            EXPECT_EQ(own, nullptr);
            EXPECT_EQ(credential, nullptr);
        }
    }
}

TEST_F(channel_test, what_is_no_tls_ends_the_handshake) {
    constexpr std::string_view request = "GET / HTTP/1.1\r\nHost: x\r\n\r\n";
    ASSERT_EQ(send(sockets.theirs(), request.data(), request.size(), 0),
              static_cast<ssize_t>(request.size()));
    void* credential = nullptr;
    EXPECT_EQ(accept(&credential), at_channel_failed);
    EXPECT_EQ(channel, nullptr);
}

TEST_F(channel_test, a_client_that_leaves_ends_the_handshake) {
    client.start(sockets.theirs());
    (void)SSL_do_handshake(client.ssl.get());
    void* credential = nullptr;
    EXPECT_EQ(accept(&credential), at_again);
    sockets.close_theirs();
    EXPECT_EQ(accept(&credential), at_channel_failed);
    EXPECT_EQ(channel, nullptr);
    EXPECT_EQ(accept(&credential), at_channel_failed);  // before its first byte, too
}

TEST_F(channel_test, reads_say_later_end_or_error) {
    open_channel();
    EXPECT_EQ(read(100), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(SSL_write(client.ssl.get(), "hello", 5), 5);
    EXPECT_EQ(read(100), 5);
    EXPECT_EQ(received, "hello");
    EXPECT_EQ(lib.read(channel, received.data(), 0), 0);
    EXPECT_EQ(lib.read(channel, received.data(), -1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(SSL_write(client.ssl.get(), "bye", 3), 3);
    EXPECT_EQ(SSL_shutdown(client.ssl.get()), 0);
    EXPECT_EQ(read(100), 3);
    EXPECT_EQ(read(100), 0);
    EXPECT_EQ(read(100), 0);
    EXPECT_EQ(write("late answer"), 11);  // the client has only said that it sends no more
    std::array<char, 32> answer{};
    EXPECT_EQ(SSL_read(client.ssl.get(), answer.data(), answer.size()), 11);
}

TEST_F(channel_test, an_end_without_goodbye_is_an_end) {
    open_channel();
    EXPECT_EQ(SSL_write(client.ssl.get(), "x", 1), 1);
    shutdown(sockets.theirs(), SHUT_WR);
    EXPECT_EQ(read(100), 1);
    EXPECT_EQ(read(100), 0);
    EXPECT_EQ(write("answer"), 6);
    std::array<char, 32> answer{};
    EXPECT_EQ(SSL_read(client.ssl.get(), answer.data(), answer.size()), 6);
}

TEST_F(channel_test, garbage_is_an_error) {
    open_channel();
    ASSERT_EQ(send(sockets.theirs(), "\x17\x03\x03\x00\x20 not a record of this channel .", 37, 0),
              37);
    EXPECT_EQ(read(100), -1);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_EQ(write("x"), -1);
}

TEST_F(channel_test, a_short_read_leaves_nothing_behind) {
    open_channel();
    const std::string record(16384, 'r');
    ASSERT_EQ(SSL_write(client.ssl.get(), record.data(), 16384), 16384);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(read(4096), 4096) << i;
    }
    EXPECT_EQ(read(4096), -1);
    EXPECT_EQ(errno, EAGAIN);

    // Records and reads of all sizes. The reader goes on only after a full read or when the socket
    // has something to say, and must not miss a byte.
    std::mt19937 random(7);
    const auto up_to = [&](std::size_t limit) {
        const std::size_t small = 1 + random() % 64;
        return random() % 3 == 0 ? small : 1 + random() % limit;
    };
    const auto readable = [&] {
        pollfd wait{sockets.ours(), POLLIN, 0};
        return poll(&wait, 1, 0) == 1;
    };
    std::size_t sent = 0;
    std::size_t got = 0;
    for (int round = 0; round < 500; ++round) {
        for (std::size_t records = random() % 6; records > 0; --records) {
            std::string piece(up_to(9000), '\0');
            for (char& c : piece) {
                c = static_cast<char>(sent++ % 251);
            }
            ASSERT_EQ(SSL_write(client.ssl.get(), piece.data(), static_cast<int>(piece.size())),
                      static_cast<int>(piece.size()));
        }
        for (bool full = false; full || readable();) {
            const std::size_t length = up_to(16384);
            full = read(length) == static_cast<std::int32_t>(length);
            for (const char c : received) {
                ASSERT_EQ(c, static_cast<char>(got++ % 251));
            }
            EXPECT_TRUE(full || lib.pending(channel) == 0);
        }
        ASSERT_EQ(got, sent) << round;
    }
}

TEST_F(channel_test, writes_go_on_after_the_socket_was_full) {
    open_channel();
    const std::string block(16384, 'w');
    std::string sent;
    std::int32_t n = 0;
    while ((n = write(block)) > 0) {
        sent.append(block, 0, static_cast<std::size_t>(n));
    }
    EXPECT_EQ(errno, EAGAIN);
    // The same bytes come back from another address with more behind them.
    std::string grown = block + std::string(5000, 'g');
    std::string got;
    std::array<char, 16384> piece{};
    for (int round = 0; round < 10'000 && !grown.empty(); ++round) {
        n = write(grown);
        if (n > 0) {
            sent.append(grown, 0, static_cast<std::size_t>(n));
            grown = grown.substr(static_cast<std::size_t>(n));
        }
        const int taken = SSL_read(client.ssl.get(), piece.data(), piece.size());
        if (taken > 0) {
            got.append(piece.data(), static_cast<std::size_t>(taken));
        }
    }
    EXPECT_EQ(lib.close(&channel), at_ok);
    int taken = 0;
    while ((taken = SSL_read(client.ssl.get(), piece.data(), piece.size())) > 0) {
        got.append(piece.data(), static_cast<std::size_t>(taken));
    }
    EXPECT_EQ(SSL_get_error(client.ssl.get(), taken), SSL_ERROR_ZERO_RETURN);  // said goodbye
    EXPECT_TRUE(grown.empty());
    EXPECT_TRUE(got == sent);
    EXPECT_NE(fcntl(sockets.ours(), F_GETFD), -1);  // the descriptor is the caller's
}

TEST_F(channel_test, writing_to_nobody_is_an_error_and_no_signal) {
    open_channel();
    (void)signal(SIGPIPE, SIG_DFL);
    EXPECT_EQ(lib.write(channel, "x", 0), 0);
    EXPECT_EQ(lib.write(channel, "x", -1), -1);
    EXPECT_EQ(errno, EINVAL);
    sockets.close_theirs();
    EXPECT_EQ(write("anybody there?"), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(channel_test, goodbye_to_nobody_is_no_signal) {
    open_channel();
    (void)signal(SIGPIPE, SIG_DFL);
    sockets.close_theirs();
    EXPECT_EQ(lib.close(&channel), at_ok);
    EXPECT_EQ(lib.close(&channel), at_invalid_argument);
}

TEST_F(channel_test, outlives_its_instance) {
    open_channel();
    EXPECT_EQ(lib.terminate(handle), at_ok);
    handle = nullptr;
    EXPECT_EQ(write("still here"), 10);
    EXPECT_EQ(lib.release(service), at_ok);
    service = nullptr;
    EXPECT_EQ(lib.close(&channel), at_ok);
}

TEST_F(channel_test, new_certificates_count_when_the_service_logs_in_again) {
    const certified_key fresh = make_certificate({"fresh"});
    write_file(site() / "server.crt", fresh.certificate_pem());
    write_file(site() / "server.key", "rubbish", 0600);
    refresh();  // does not fit: the former pair stays in use
    open_channel();
    EXPECT_NE(client.peer_name(), "fresh");
    EXPECT_EQ(lib.close(&channel), at_ok);

    write_file(site() / "server.key", fresh.key_pem(), 0600);
    socket_pair again;
    client.start(again.theirs());
    void* former = service;
    service = nullptr;
    refresh();
    void* credential = nullptr;
    std::uint32_t result = at_again;
    for (int round = 0; round < 20 && result == at_again; ++round) {
        (void)SSL_do_handshake(client.ssl.get());
        result = lib.accept(handle, again.ours(), former, 4, nullptr, 1, 0, &channel, &credential);
    }
    EXPECT_EQ(result, at_no_credential);
    EXPECT_EQ(client.peer_name(), "fresh");
    EXPECT_EQ(lib.release(former), at_ok);
}

namespace {

struct other_service {
    std::string wanted;
    void* handle = nullptr;
    void* credential = nullptr;
    int calls = 0;
    bool unnamed = false;
};

std::uint32_t choose(const molb_sni_request* request, void** handle, void** credential) {
    auto* other = static_cast<other_service*>(request->user_data);
    ++other->calls;
    other->unnamed = request->host_name == nullptr;
    if (other->unnamed || other->wanted != request->host_name) {
        return at_not_available;
    }
    *handle = other->handle;
    *credential = other->credential;
    return at_ok;
}

}  // namespace

TEST_F(channel_test, another_service_is_presented_under_its_name) {
    const std::filesystem::path elsewhere = base / "other";
    std::filesystem::create_directories(elsewhere / "dovmad-at" / "users");
    const certified_key broker = make_certificate({"broker"});
    write_file(elsewhere / "dovmad-at" / "domains", "cert:certificate:broker\n");
    const certified_key authority = make_certificate({"authority"}, nullptr, true);
    write_file(elsewhere / "dovmad-at" / "client_ca.pem", authority.certificate_pem());
    client.present(make_certificate({"alice"}, &authority));
    write_file(elsewhere / "dovmad-at" / "server.crt", broker.certificate_pem());
    write_file(elsewhere / "dovmad-at" / "server.key", broker.key_pem(), 0600);
    const std::string directory = elsewhere.string();
    const molb_init init{nullptr, directory.c_str(), nullptr, nullptr};
    other_service other{"broker.example", nullptr, nullptr};
    ASSERT_EQ(lib.init(nullptr, &other.handle, &init, 0, 0, 0), at_ok);
    void** list = nullptr;
    std::int32_t count = 0;
    ASSERT_EQ(lib.get_credentials(other.handle, nullptr, 0, &list, &count), at_ok);
    other.credential = list[0];
    EXPECT_EQ(lib.release(list), at_ok);
    params = {1, 0, choose, &other};
    const std::array<std::pair<const char*, bool>, 3> cases = {
        {{"broker.example", true}, {"elsewhere.example", false}, {nullptr, false}}};
    for (const auto& [name, is_broker] : cases) {
        socket_pair fresh;
        client.start(fresh.theirs(), name);
        void* own = nullptr;
        void* credential = nullptr;
        std::uint32_t result = at_again;
        for (int round = 0; round < 20 && result == at_again; ++round) {
            (void)SSL_do_handshake(client.ssl.get());
            result = lib.accept(handle, fresh.ours(), service, 4, &params, 1, 0, &own, &credential);
        }
        EXPECT_EQ(client.peer_name() == "broker", is_broker);
        // Only the broker has authorities, so only there a certificate is asked for and counts.
        EXPECT_EQ(result, is_broker ? at_ok : at_no_credential);
        EXPECT_EQ(info_of(lib, handle, credential), is_broker ? "broker/cert/alice" : "no info");
        EXPECT_EQ(lib.release(credential), at_ok);
        EXPECT_EQ(other.unnamed, name == nullptr);
        EXPECT_EQ(lib.close(&own), at_ok);
    }
    EXPECT_EQ(other.calls, 3);
    EXPECT_EQ(lib.release(other.credential), at_ok);
    EXPECT_EQ(lib.terminate(other.handle), at_ok);
}
