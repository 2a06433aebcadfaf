// The client's side of a secure channel: who is trusted, what is presented, and no endless wait.
#include <fcntl.h>
#include <openssl/err.h>

#include <thread>

#include "tests/provider/provider_fixture.h"

using provider::openssl_ptr;

class connect_test : public provider_test {
  protected:
    void SetUp() override {
        provider_test::SetUp();
        set_up();
    }

    // Connects to whoever is at the other end and ends the channel; says why when there is none.
    std::string connect() {
        void* channel = nullptr;
        char* error = nullptr;
        const std::uint32_t result =
            molbAtSecConnConnect(sockets.ours(), handle, 1, &channel, &error);
        EXPECT_EQ(result, channel != nullptr ? at_ok : at_channel_failed);
        EXPECT_EQ(molbAtSecConnClose(&channel), result == at_ok ? at_ok : at_invalid_argument);
        std::string why = error == nullptr ? "" : error;
        EXPECT_EQ(molbAtFree(error), at_ok);
        return why;
    }

    // The same, with a server that has this certificate and takes any.
    std::string connect_to(const certified_key& identity, bool* presented) {
        sockets.renew();
        fcntl(sockets.theirs(), F_SETFL, 0);
        std::thread server([&] {
            const openssl_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()));
            SSL_CTX_use_certificate(context.get(), identity.certificate.get());
            SSL_CTX_use_PrivateKey(context.get(), identity.key.get());
            const auto accept_any = [](int, X509_STORE_CTX*) { return 1; };
            SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, accept_any);
            const openssl_ptr<SSL> ssl(SSL_new(context.get()));
            SSL_set_fd(ssl.get(), sockets.theirs());
            *presented =
                SSL_accept(ssl.get()) == 1 && SSL_get0_peer_certificate(ssl.get()) != nullptr;
            ERR_clear_error();
        });
        std::string why = connect();
        server.join();
        return why;
    }

    socket_pair sockets;
};

TEST_F(connect_test, trusts_the_anchors_and_presents_the_service) {
    const certified_key authority = make_authority();
    const certified_key peer = make_certificate({"peer"}, &authority);
    bool presented = false;
    const std::string why = connect_to(peer, &presented);
    EXPECT_NE(why.find("certificate"), std::string::npos) << why;
    EXPECT_FALSE(presented);
    write_file(site() / "peer_ca.pem", authority.certificate_pem());
    EXPECT_EQ(log_in(nullptr, nullptr, nullptr), at_ok);
    EXPECT_EQ(connect_to(peer, &presented), "");
    EXPECT_TRUE(presented);
}

TEST_F(connect_test, gives_a_silent_or_closing_peer_up) {
    clock_step_ms = 3000;  // the second look at the clock is 3 s later, the third 6 s
    const std::string why = connect();
    EXPECT_NE(why.find("in time"), std::string::npos) << why;
    clock_step_ms = 0;
    sockets.close_theirs();
    EXPECT_NE(connect(), "");
}
