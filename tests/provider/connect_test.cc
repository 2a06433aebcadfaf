// The client's side of a secure channel: who is trusted, what is presented, and no endless wait.
#include <fcntl.h>
#include <openssl/err.h>

#include <array>
#include <thread>

#include "tests/provider/provider_fixture.h"

class connect_test : public provider_test {
  protected:
    connect_test() : provider_test(clock_kind::settable) {}

    void SetUp() override {
        provider_test::SetUp();
        set_up();
    }

    // Serves one handshake with `identity` on the other end, then says "hello".
    void serve(const certified_key& identity) {
        fcntl(sockets.theirs(), F_SETFL, 0);
        server = std::thread([&] {
            const openssl_owned<SSL_CTX> context(SSL_CTX_new(TLS_server_method()));
            SSL_CTX_use_certificate(context.get(), identity.certificate.get());
            SSL_CTX_use_PrivateKey(context.get(), identity.key.get());
            const auto accept_any = [](int, X509_STORE_CTX*) { return 1; };
            SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, accept_any);
            const openssl_owned<SSL> ssl(SSL_new(context.get()));
            SSL_set_fd(ssl.get(), sockets.theirs());
            if (SSL_accept(ssl.get()) == 1) {
                SSL_write(ssl.get(), "hello", 5);
                client_presented = SSL_get0_peer_certificate(ssl.get()) != nullptr;
                std::array<char, 16> answer{};
                const int n = SSL_read(ssl.get(), answer.data(), answer.size());
                client_said = n > 0 ? std::string(answer.data(), static_cast<std::size_t>(n)) : "";
            }
            ERR_clear_error();
        });
    }

    std::uint32_t connect(std::string* why) {
        char* error = nullptr;
        const std::uint32_t result = lib.connect(sockets.ours(), handle, 1, &channel, &error);
        EXPECT_EQ(result == at_ok, channel != nullptr);
        *why = error == nullptr ? "" : error;
        EXPECT_EQ(lib.release(error), at_ok);
        return result;
    }

    // Only after the server has ended is the socket pair free to be used again.
    void end_server() {
        if (channel != nullptr) {
            EXPECT_EQ(lib.close(&channel), at_ok);
        }
        server.join();
    }

    socket_pair sockets;
    std::thread server;
    void* channel = nullptr;
    bool client_presented = false;
    std::string client_said;
};

TEST_F(connect_test, trusts_the_anchors_and_presents_the_service) {
    const certified_key authority = make_certificate({"authority"}, nullptr, true);
    const certified_key peer = make_certificate({"peer"}, &authority);
    write_file(site() / "peer_ca.pem", authority.certificate_pem());
    EXPECT_EQ(log_in(nullptr, nullptr, nullptr), at_ok);
    serve(peer);
    std::string why;
    ASSERT_EQ(connect(&why), at_ok) << why;
    std::string text(16, '\0');
    std::int32_t n = -1;
    while ((n = lib.read(channel, text.data(), 16)) < 0 && errno == EAGAIN) {
        std::this_thread::yield();
    }
    EXPECT_EQ(text.substr(0, 5), "hello");
    EXPECT_EQ(n, 5);
    EXPECT_EQ(lib.write(channel, "thanks", 6), 6);
    end_server();
    EXPECT_TRUE(client_presented);
    EXPECT_EQ(client_said, "thanks");
}

TEST_F(connect_test, refuses_a_stranger) {
    const certified_key authority = make_certificate({"authority"}, nullptr, true);
    const certified_key stranger = make_certificate({"peer"}, &authority);
    serve(stranger);
    std::string why;
    EXPECT_EQ(connect(&why), at_channel_failed);
    EXPECT_NE(why.find("certificate"), std::string::npos) << why;
    EXPECT_EQ(channel, nullptr);
    end_server();
}

TEST_F(connect_test, gives_a_silent_or_closing_peer_up) {
    std::string why;
    lib.step_ms(3000);  // the second look at the clock is 3 s later, the third 6 s
    EXPECT_EQ(connect(&why), at_channel_failed);
    lib.step_ms(0);
    EXPECT_NE(why.find("in time"), std::string::npos) << why;
    sockets.close_theirs();
    EXPECT_EQ(connect(&why), at_channel_failed);
    EXPECT_NE(why, "");
    EXPECT_EQ(lib.connect(sockets.ours(), nullptr, 1, &channel, nullptr), at_invalid_argument);
}
