// A secure channel, the server's side of it: handshakes, bytes, and who the client is.
#include <poll.h>
#include <signal.h>

#include "tests/provider/channel_fixture.h"

TEST_F(channel_test, waits_for_the_client_and_lets_it_in_without_a_certificate) {
    EXPECT_EQ(accept(), at_again);
    EXPECT_EQ(read(10), -1);
    EXPECT_EQ(errno, EAGAIN);
    present(make_certificate({"alice"}));  // nobody asks for it
    start_client();
    const unsigned char protocols[] = "\x02h2\x08http/1.1";
    SSL_set_alpn_protos(client.get(), protocols, sizeof protocols - 1);
    EXPECT_EQ(shake_hands(), at_no_credential);
    const unsigned char* chosen = nullptr;
    unsigned int length = 0;
    SSL_get0_alpn_selected(client.get(), &chosen, &length);
    EXPECT_EQ(std::string_view(reinterpret_cast<const char*>(chosen), length), "http/1.1");
}

TEST_F(channel_test, only_trusted_certificates_with_a_user_name_are_logins) {
    const certified_key authority = make_authority();
    const certified_key impostor = make_authority();
    write_file(site() / "client_ca.pem", authority.certificate_pem());
    refresh();
    struct {
        certified_key identity;
        std::uint32_t result;
    } const cases[] = {
        {make_certificate({"alice"}, &authority), at_ok},
        {make_certificate({"alice"}, &impostor), at_channel_failed},
        {make_certificate({"alice"}), at_channel_failed},
        {make_certificate({}, &authority), at_channel_failed},
        {make_certificate({"alice", "root"}, &authority), at_channel_failed},
        {make_certificate({"al ice"}, &authority), at_channel_failed},
        {make_certificate({std::string("root\0x", 6)}, &authority), at_channel_failed},
        {make_certificate({"root@local"}, &authority), at_channel_failed},
    };
    for (const auto& [identity, result] : cases) {
        for (const int version : versions) {
            present(identity);
            EXPECT_EQ(meet(version), result);
            EXPECT_EQ(who, result == at_ok ? "box/cert/alice" : "no info");
        }
    }
    context.reset(SSL_CTX_new(TLS_client_method()));
    for (const int version : versions) {
        EXPECT_EQ(meet(version), at_no_credential);  // one without is let in as before
    }
}

TEST_F(channel_test, every_connection_shakes_hands_anew) {
    for (const int version : versions) {
        EXPECT_EQ(meet(version), at_no_credential);
        EXPECT_FALSE(resumes(version));
    }
}

TEST_F(channel_test, reads_say_later_end_or_error) {
    open_channel();
    EXPECT_EQ(read(100), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(SSL_write(client.get(), "hello", 5), 5);
    EXPECT_EQ(read(100), 5);
    EXPECT_EQ(received, "hello");
    EXPECT_EQ(molbAtSecConnRead(channel, received.data(), 0), 0);
    EXPECT_EQ(molbAtSecConnRead(channel, received.data(), -1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(SSL_write(client.get(), "bye", 3), 3);
    EXPECT_EQ(SSL_shutdown(client.get()), 0);
    EXPECT_EQ(read(100), 3);
    EXPECT_EQ(read(100), 0);
    EXPECT_EQ(read(100), 0);
    EXPECT_EQ(write("late answer"), 11);  // the client has only said that it sends no more
    EXPECT_EQ(answer(), "late answer");
}

TEST_F(channel_test, an_end_without_goodbye_is_an_end_and_garbage_an_error) {
    open_channel();
    EXPECT_EQ(SSL_write(client.get(), "x", 1), 1);
    shutdown(sockets.theirs(), SHUT_WR);
    EXPECT_EQ(read(100), 1);
    EXPECT_EQ(read(100), 0);
    EXPECT_EQ(write("answer"), 6);
    EXPECT_EQ(answer(), "answer");
    EXPECT_EQ(molbAtSecConnClose(&channel), at_ok);

    sockets.renew();
    open_channel();
    ASSERT_EQ(send(sockets.theirs(), "\x17\x03\x03\x00\x20 not a record of this channel .", 37, 0),
              37);
    EXPECT_EQ(read(100), -1);
    EXPECT_EQ(errno, EPROTO);
    EXPECT_EQ(write("x"), -1);
}

// Records and reads of all sizes. The reader goes on only after a full read or when the socket has
// something to say, and must not miss a byte.
TEST_F(channel_test, a_short_read_leaves_nothing_behind) {
    open_channel();
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
            std::string piece(up_to(16384), '\0');
            for (char& c : piece) {
                c = static_cast<char>(sent++ % 251);
            }
            ASSERT_EQ(SSL_write(client.get(), piece.data(), static_cast<int>(piece.size())),
                      static_cast<int>(piece.size()));
        }
        for (bool full = false; full || readable();) {
            const std::size_t length = up_to(16384);
            full = read(length) == static_cast<std::int32_t>(length);
            for (const char c : received) {
                ASSERT_EQ(c, static_cast<char>(got++ % 251));
            }
            EXPECT_TRUE(full || molbAtDataPending(channel) == 0);
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
    sent += grown;
    std::string got;
    for (int round = 0; round < 100'000 && !grown.empty(); ++round) {
        n = write(grown);
        grown = grown.substr(n > 0 ? static_cast<std::size_t>(n) : 0);
        got += answer();
    }
    EXPECT_EQ(molbAtSecConnClose(&channel), at_ok);
    for (std::string piece = answer(); !piece.empty(); piece = answer()) {
        got += piece;
    }
    EXPECT_EQ(SSL_get_shutdown(client.get()), SSL_RECEIVED_SHUTDOWN);  // said goodbye
    EXPECT_TRUE(got == sent);
    EXPECT_NE(fcntl(sockets.ours(), F_GETFD), -1);  // the descriptor is the caller's
}

TEST_F(channel_test, speaking_to_nobody_is_an_error_and_no_signal) {
    (void)signal(SIGPIPE, SIG_DFL);
    for (const bool say_something : {true, false}) {
        sockets.renew();
        open_channel();
        EXPECT_EQ(write(""), 0);
        sockets.close_theirs();
        if (say_something) {
            EXPECT_EQ(write("anybody there?"), -1);
            EXPECT_EQ(errno, EPIPE);
        }
        EXPECT_EQ(molbAtSecConnClose(&channel), at_ok);
        EXPECT_EQ(molbAtSecConnClose(&channel), at_invalid_argument);
    }
}

TEST_F(channel_test, outlives_its_instance) {
    open_channel();
    EXPECT_EQ(molbAtTerminate(handle), at_ok);
    handle = nullptr;
    EXPECT_EQ(write("still here"), 10);
    EXPECT_EQ(molbAtFree(service), at_ok);
    service = nullptr;
    EXPECT_EQ(molbAtSecConnClose(&channel), at_ok);
}

TEST_F(channel_test, new_certificates_count_when_the_service_logs_in_again) {
    const certified_key authority = make_authority();
    const certified_key fresh = make_certificate({"fresh"}, &authority);
    write_file(site() / "server.crt", fresh.certificate_pem() + authority.certificate_pem());
    write_file(site() / "server.key", "rubbish", 0600);
    refresh();  // does not fit: the former pair stays in use
    EXPECT_EQ(meet(TLS1_3_VERSION), at_no_credential);
    EXPECT_NE(peer_name(), "fresh");

    write_file(site() / "server.key", fresh.key_pem(), 0600);
    void* former = std::exchange(service, nullptr);
    refresh();
    std::swap(former, service);
    EXPECT_EQ(meet(TLS1_3_VERSION), at_no_credential);  // with the former credential
    EXPECT_EQ(peer_name(), "fresh");
    EXPECT_EQ(sk_X509_num(SSL_get_peer_cert_chain(client.get())), 2);
    EXPECT_EQ(molbAtFree(former), at_ok);
}

namespace {

struct other_service {
    std::string wanted;
    void* handle = nullptr;
    void* credential = nullptr;
    int calls = 0;
};

std::uint32_t choose(const molb_sni_request* request, void** handle, void** credential) {
    auto* other = static_cast<other_service*>(request->user_data);
    ++other->calls;
    if (request->host_name == nullptr || other->wanted != request->host_name) {
        return at_not_available;
    }
    *handle = other->handle;
    *credential = other->credential;
    return at_ok;
}

}  // namespace

TEST_F(channel_test, another_service_is_presented_under_its_name) {
    const std::filesystem::path elsewhere = base / "other" / "dovmad-at";
    std::filesystem::create_directories(elsewhere / "users");
    const certified_key broker = make_certificate({"broker"});
    const certified_key authority = make_authority();
    write_file(elsewhere / "domains", "cert:certificate:broker\n");
    write_file(elsewhere / "client_ca.pem", authority.certificate_pem());
    write_file(elsewhere / "server.crt", broker.certificate_pem());
    write_file(elsewhere / "server.key", broker.key_pem(), 0600);
    other_service other{.wanted = "broker.example"};
    ASSERT_EQ(start_in(base / "other", &other.handle), at_ok);
    ASSERT_EQ(molbAtAuthenticate(other.handle, &service_identity, 0, &other.credential), at_ok);
    params = {1, 0, choose, &other};
    present(make_certificate({"alice"}, &authority));
    for (const int version : versions) {
        for (const char* name : {static_cast<const char*>(nullptr), "elsewhere.example"}) {
            EXPECT_EQ(meet(version, name), at_no_credential);
            EXPECT_NE(peer_name(), "broker");
        }
        // Only the broker has authorities, so only there a certificate is asked for and counts; and
        // the session of that login is good for nothing, here or there.
        EXPECT_EQ(meet(version, "broker.example"), at_ok);
        EXPECT_EQ(peer_name(), "broker");
        EXPECT_EQ(who, "broker/cert/alice");
        EXPECT_FALSE(resumes(version, "broker.example"));
        EXPECT_EQ(who, "broker/cert/alice");
        EXPECT_FALSE(resumes(version));
        EXPECT_EQ(who, "no info");
    }
    EXPECT_EQ(other.calls, 10);
    EXPECT_EQ(molbAtFree(other.credential), at_ok);
    EXPECT_EQ(molbAtTerminate(other.handle), at_ok);
}
