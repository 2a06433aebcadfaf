// A secure channel between the library and an OpenSSL peer, over a socket pair.
#pragma once

#include <openssl/err.h>

#include "tests/provider/provider_fixture.h"

using provider::openssl_ptr;

inline constexpr std::array versions = {TLS1_2_VERSION, TLS1_3_VERSION};

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
            EXPECT_EQ(molbAtSecConnClose(&channel), at_ok);
            EXPECT_EQ(channel, nullptr);
        }
        EXPECT_EQ(molbAtFree(service), at_ok);
        provider_test::TearDown();
    }

    // Fetches the service credential anew, which takes changed files over.
    void refresh() {
        EXPECT_EQ(molbAtFree(service), at_ok);
        ASSERT_EQ(molbAtAuthenticate(handle, &service_identity, 0, &service), at_ok);
    }

    // The client of the next handshake: who it is, and the connection that it begins.
    void present(const certified_key& identity) const {
        SSL_CTX_use_certificate(context.get(), identity.certificate.get());
        SSL_CTX_use_PrivateKey(context.get(), identity.key.get());
    }
    void start_client(const char* host = nullptr, SSL_SESSION* former = nullptr) {
        client.reset(SSL_new(context.get()));
        SSL_set_fd(client.get(), sockets.theirs());
        SSL_set_connect_state(client.get());
        SSL_ctrl(client.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
                 const_cast<char*>(host));
        SSL_set_session(client.get(), former);
    }

    std::uint32_t accept() {
        void* credential = &credential;
        const std::uint32_t result = molbAtSecConnAcceptWithCommExtn(
            handle, sockets.ours(), service, 4, &params, 1, 0, &channel, &credential);
        EXPECT_EQ(result == at_ok, credential != nullptr);
        EXPECT_EQ(result == at_channel_failed, channel == nullptr);
        who = info_of(handle, credential);
        EXPECT_EQ(molbAtFree(credential), at_ok);
        return result;
    }

    // Runs both sides until the server's is decided, and once more: it gives the same answer.
    std::uint32_t shake_hands() {
        std::uint32_t result = at_again;
        for (int round = 0; round < 20 && result == at_again; ++round) {
            (void)SSL_do_handshake(client.get());
            result = accept();
        }
        ERR_clear_error();
        if (result != at_channel_failed) {
            EXPECT_EQ(accept(), result);
            char none = 0;
            EXPECT_EQ(SSL_read(client.get(), &none, 1), -1);  // takes the session over
        }
        return result;
    }

    // A connection from the first byte to the client's last.
    std::uint32_t meet(int version, const char* host = nullptr, SSL_SESSION* former = nullptr) {
        const std::uint32_t closing = channel != nullptr ? at_ok : at_invalid_argument;
        EXPECT_EQ(molbAtSecConnClose(&channel), closing);
        sockets.renew();
        SSL_CTX_set_max_proto_version(context.get(), version);
        start_client(host, former);
        const std::uint32_t result = shake_hands();
        (void)SSL_shutdown(client.get());  // a session without a goodbye is not used again
        return result;
    }

    // Whether the server goes on with the session of the client's last connection.
    bool resumes(int version, const char* host = nullptr) {
        SSL_SESSION* former = SSL_get1_session(client.get());
        (void)meet(version, host, former);
        SSL_SESSION_free(former);
        return SSL_session_reused(client.get()) == 1;
    }

    [[nodiscard]] std::string peer_name() const {
        std::string name(64, '\0');
        X509* peer = SSL_get0_peer_certificate(client.get());
        X509_NAME_get_text_by_NID(X509_get_subject_name(peer), NID_commonName, name.data(), 64);
        return name.c_str();
    }

    void open_channel() {
        start_client();
        ASSERT_EQ(shake_hands(), at_no_credential);
    }

    std::int32_t read(std::size_t length) {
        received.resize(length);
        errno = 0;
        const std::int32_t n =
            molbAtSecConnRead(channel, received.data(), static_cast<std::int32_t>(length));
        received.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
        return n;
    }

    std::int32_t write(std::string_view text) {
        errno = 0;
        return molbAtSecConnWrite(channel, text.data(), static_cast<std::int32_t>(text.size()));
    }

    // What the client gets, at most 32 bytes.
    std::string answer() {
        std::string text(32, '\0');
        const int n = SSL_read(client.get(), text.data(), 32);
        text.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
        return text;
    }

    socket_pair sockets;
    openssl_ptr<SSL_CTX> context{SSL_CTX_new(TLS_client_method())};
    openssl_ptr<SSL> client;
    void* service = nullptr;
    void* channel = nullptr;
    molb_accept_params params{0, 0, nullptr, nullptr};
    std::string who;
    std::string received;
};
