// A secure channel, nearly always its server's side: an OpenSSL client speaks to it over a socket
// pair.
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <random>

#include "tests/provider/provider_fixture.h"

using provider::openssl_ptr;

namespace {

constexpr std::array versions = {TLS1_2_VERSION, TLS1_3_VERSION};

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

// How often the heap holds a text. Allocates nothing, so that what was freed stays as it was left.
static int copies_on_heap(std::string_view wanted) {
    static std::array<char, 65536> maps;
    static std::array<char, 65536> piece;
    const int names = open("/proc/self/maps", O_RDONLY);
    const int memory = open("/proc/self/mem", O_RDONLY);
    const ssize_t length = read(names, maps.data(), maps.size() - 1);
    maps[static_cast<std::size_t>(std::max<ssize_t>(length, 0))] = '\0';
    const char* heap = strstr(maps.data(), "[heap]");
    while (heap != nullptr && heap > maps.data() && heap[-1] != '\n') {
        --heap;
    }
    unsigned long first = 0;
    unsigned long last = 0;
    (void)(heap == nullptr ? 0 : std::sscanf(heap, "%lx-%lx", &first, &last));
    int found = 0;
    // Pieces overlap: a text on the border of two is found once, in the first that has it whole.
    for (unsigned long at = first; at < last; at += piece.size() - wanted.size() + 1) {
        const ssize_t n =
            pread(memory, piece.data(), std::min<std::size_t>(piece.size(), last - at),
                  static_cast<off_t>(at));
        const std::string_view content(piece.data(), n > 0 ? static_cast<std::size_t>(n) : 0);
        for (std::size_t i = 0; (i = content.find(wanted, i)) != content.npos; ++i) {
            ++found;
        }
    }
    close(names);
    close(memory);
    return found;
}

// What a peer has said is nobody's business once it was read: it may have been a login.
TEST_F(channel_test, nothing_that_was_decrypted_stays_in_memory) {
    open_channel();
    // The secret is behind other text: whoever frees a buffer writes over its first bytes.
    std::array<char, 540> message{};
    for (std::size_t i = 0; i < message.size(); ++i) {
        message[i] = static_cast<char>('A' + (i * 7 + i * i) % 26);
    }
    const std::string_view wanted(message.data() + 500, 40);
    const std::string kept(wanted);
    if (copies_on_heap(wanted) == 0) {
        GTEST_SKIP() << "a sanitizer's memory is elsewhere";
    }
    ASSERT_EQ(SSL_write(client.get(), message.data(), message.size()), 540);
    std::array<char, 1000> buffer{};
    ASSERT_EQ(molbAtSecConnRead(channel, buffer.data(), 1000), 540);
    EXPECT_EQ(copies_on_heap(wanted), 1);
    EXPECT_EQ(kept, std::string_view(buffer.data() + 500, 40));
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

TEST_F(channel_test, connecting_never_waits_for_the_target) {
    const certified_key target = make_certificate({"target"});
    write_file(site() / "peer_ca.pem", target.certificate_pem());
    refresh();
    const openssl_ptr<SSL_CTX> server{SSL_CTX_new(TLS_server_method())};
    SSL_CTX_use_certificate(server.get(), target.certificate.get());
    SSL_CTX_use_PrivateKey(server.get(), target.key.get());
    const auto connect = [&](char** error) {
        return molbAtSecConnConnect(sockets.ours(), handle, 1, &channel, error);
    };
    for (const int version : versions) {
        SSL_CTX_set_max_proto_version(server.get(), version);
        sockets.renew();
        client.reset(SSL_new(server.get()));
        SSL_set_fd(client.get(), sockets.theirs());
        SSL_set_accept_state(client.get());
        char* error = nullptr;
        std::uint32_t result = at_again;
        int answers = 0;
        for (; result == at_again && answers < 10; ++answers) {
            result = connect(&error);
            EXPECT_EQ(error, nullptr);
            EXPECT_NE(channel, nullptr);
            EXPECT_EQ(read(10), -1);  // nothing yet, whatever the state
            EXPECT_EQ(errno, EAGAIN);
            (void)SSL_do_handshake(client.get());
        }
        EXPECT_EQ(result, at_ok);
        EXPECT_GT(answers, 1);
        EXPECT_EQ(connect(nullptr), at_ok);  // and stays so
        EXPECT_EQ(write("question"), 8);
        EXPECT_EQ(answer(), "question");
        EXPECT_EQ(molbAtSecConnClose(&channel), at_ok);
    }
    char* error = nullptr;
    sockets.renew();
    EXPECT_EQ(connect(&error), at_again);
    char hello[4096];
    EXPECT_GT(recv(sockets.theirs(), hello, sizeof hello, 0), 0);
    sockets.close_theirs();
    EXPECT_EQ(connect(&error), at_channel_failed);
    EXPECT_EQ(channel, nullptr);
    EXPECT_STREQ(error, "TLS handshake failed: the peer closed the connection");
    EXPECT_EQ(molbAtFree(error), at_ok);

    // A socket that blocks has time-outs of its own.
    sockets.renew();
    fcntl(sockets.ours(), F_SETFL, fcntl(sockets.ours(), F_GETFL) & ~O_NONBLOCK);
    const timeval patience{0, 10'000};
    setsockopt(sockets.ours(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    EXPECT_EQ(connect(&error), at_channel_failed);
    EXPECT_STREQ(error, "TLS handshake failed: the peer did not answer in time");
    EXPECT_EQ(molbAtFree(error), at_ok);
}

TEST_F(channel_test, tells_the_log_why_a_handshake_failed) {
    static std::vector<std::string> lines;
    lines.clear();
    const molb_log_function take = [](int level, const char* text) {
        lines.push_back(std::to_string(level) + " " + text);
    };
    const auto offer = [](molb_log_function function) {
        return molbatLibraryControl("Log", reinterpret_cast<void*>(function));
    };
    ASSERT_EQ(offer(take), at_ok);
    lines.clear();  // of tests before this one
    write_file(site() / "client_ca.pem", make_authority().certificate_pem());
    refresh();
    present(make_certificate({"alice"}));
    EXPECT_EQ(meet(TLS1_3_VERSION), at_channel_failed);
    sockets.renew();
    ASSERT_GT(send(sockets.theirs(), "GET / HTTP/1.1\r\n\r\n", 18, 0), 0);
    EXPECT_EQ(accept(), at_channel_failed);
    write_file(site() / "users" / "mallory", "bro\x1bken\n", 0600);
    EXPECT_EQ(log_in("local", "mallory", "password"), refused);
    const std::vector<std::string> expected = {
        "2 TLS handshake failed: self-signed certificate",
        "2 TLS handshake failed: http request",
        "1 " + (site() / "users" / "mallory").string() + ": no good line for this user",
    };
    EXPECT_EQ(lines, expected);
    EXPECT_EQ(offer(nullptr), at_ok);
    EXPECT_EQ(log_in("local", "mallory", "password"), refused);
    EXPECT_EQ(lines.size(), 3U);
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

// A revocation list of `issuer` with these certificates, that expires after `seconds`.
static std::string revocation_list(const certified_key& issuer,
                                   const std::vector<const certified_key*>& revoked, long seconds) {
    const openssl_ptr<X509_CRL> list(X509_CRL_new());
    X509_CRL_set_version(list.get(), 1);
    X509_CRL_set_issuer_name(list.get(), X509_get_subject_name(issuer.certificate.get()));
    ASN1_TIME* date = X509_gmtime_adj(nullptr, -3600);
    X509_CRL_set1_lastUpdate(list.get(), date);
    for (const certified_key* identity : revoked) {
        X509_REVOKED* entry = X509_REVOKED_new();
        X509_REVOKED_set_serialNumber(entry, X509_get_serialNumber(identity->certificate.get()));
        X509_REVOKED_set_revocationDate(entry, date);
        X509_CRL_add0_revoked(list.get(), entry);
    }
    X509_CRL_set1_nextUpdate(list.get(), X509_gmtime_adj(date, seconds));
    ASN1_TIME_free(date);
    X509_CRL_sort(list.get());
    X509_CRL_sign(list.get(), issuer.key.get(), EVP_sha256());
    const openssl_ptr<BIO> writer(BIO_new(BIO_s_mem()));
    PEM_write_bio_X509_CRL(writer.get(), list.get());
    char* text = nullptr;
    const long length = BIO_get_mem_data(writer.get(), &text);
    return {text, static_cast<std::size_t>(length)};
}

TEST_F(channel_test, revoked_and_locked_certificates_are_no_logins) {
    const certified_key authority = make_authority("first");
    const certified_key other = make_authority("second");
    const certified_key alice = make_certificate({"alice"}, &authority);
    const certified_key bob = make_certificate({"bob"}, &authority);
    const certified_key carol = make_certificate({"carol"}, &other);
    write_file(site() / "client_ca.pem", authority.certificate_pem() + other.certificate_pem());
    // Who gets in, in the order above; certificates of TLS 1.2 and 1.3 are judged alike.
    const auto admitted = [&] {
        refresh();
        std::string names;
        for (const certified_key* identity : {&alice, &bob, &carol}) {
            present(*identity);
            const std::uint32_t result = meet(TLS1_2_VERSION);
            EXPECT_EQ(meet(TLS1_3_VERSION), result);
            names += result == at_ok ? who + " " : "";
        }
        return names;
    };
    const std::string all = "box/cert/alice box/cert/bob box/cert/carol ";
    EXPECT_EQ(admitted(), all);
    // The other authority has no list here, and so has revoked nobody.
    write_file(site() / "client_crl.pem", revocation_list(authority, {&bob}, 3600));
    EXPECT_EQ(admitted(), "box/cert/alice box/cert/carol ");
    for (const char* rubbish : {"rubbish", "", "-----BEGIN X509 CRL-----\n"}) {
        write_file(site() / "client_crl.pem", rubbish);
        EXPECT_EQ(admitted(), "box/cert/alice box/cert/carol ") << "the former list stays";
    }
    write_file(site() / "client_crl.pem", revocation_list(authority, {}, -60));
    EXPECT_EQ(admitted(), "box/cert/carol ") << "nobody knows who was revoked since";
    write_file(site() / "client_crl.pem",
               revocation_list(authority, {}, 3600) + revocation_list(other, {&carol}, 3600));
    EXPECT_EQ(admitted(), "box/cert/alice box/cert/bob ");
    std::filesystem::remove(site() / "client_crl.pem");
    EXPECT_EQ(admitted(), all);

    std::array<unsigned char, 32> digest{};
    X509_digest(alice.certificate.get(), EVP_sha256(), digest.data(), nullptr);
    std::string fingerprint;
    for (const unsigned char byte : digest) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02X:", byte);
        fingerprint += digits;
    }
    fingerprint.pop_back();
    write_file(site() / "locked_certificates",
               "# gone\r\n\n  carol  # left us\n" + fingerprint + "\n");
    EXPECT_EQ(admitted(), "box/cert/bob ");
    for (const std::string& rubbish : {std::string("a b\n"), fingerprint + "0\n"}) {
        write_file(site() / "locked_certificates", "bob\n" + rubbish);
        EXPECT_EQ(admitted(), "box/cert/bob ") << rubbish;
    }
    write_file(site() / "locked_certificates", "alic\nBob\n");
    EXPECT_EQ(admitted(), all);
}

TEST_F(channel_test, speaks_what_the_file_tls_asks_for) {
    // The version and the group that a client that knows both versions and three groups ends with.
    const auto agreed = [&](const char* groups) {
        refresh();
        SSL_CTX_set1_groups_list(context.get(), groups);
        SSL_CTX_set_min_proto_version(context.get(), 0);
        if (meet(0) != at_no_credential) {
            return std::string("none");
        }
        return std::string(SSL_get_version(client.get())) + " " +
               OBJ_nid2sn(static_cast<int>(SSL_get_negotiated_group(client.get())));
    };
    const auto speaks_1_2 = [&] {
        SSL_CTX_set1_groups_list(context.get(), "P-384:P-256");
        return meet(TLS1_2_VERSION) == at_no_credential;
    };
    EXPECT_EQ(agreed("P-521:X25519"), "TLSv1.3 X25519");
    EXPECT_EQ(agreed("P-384:P-521"), "TLSv1.3 secp384r1");
    EXPECT_EQ(agreed("P-521"), "none");
    EXPECT_TRUE(speaks_1_2());
    write_file(site() / "tls", "# today\r\n minimum=1.3 # only\n\ngroups = P-521:P-384\n");
    EXPECT_EQ(agreed("X25519:P-384:P-521"), "TLSv1.3 secp521r1");
    EXPECT_FALSE(speaks_1_2());
    for (const char* bad : {"minimum = 1.1\n", "minimum\n", "maximum = 1.3\n", "groups =\n",
                            "groups = X25519:no-such-group\n", "=\n", "\xff\n"}) {
        write_file(site() / "tls", bad);
        EXPECT_EQ(agreed("X25519:P-521"), "TLSv1.3 secp521r1") << bad;
        void* none = nullptr;
        std::string log;
        EXPECT_EQ(start(&none, &log), at_file_error) << bad;
        EXPECT_NE(log.find("/tls: "), std::string::npos) << log;
    }
    write_file(site() / "tls", "");
    EXPECT_EQ(agreed("P-256"), "TLSv1.3 prime256v1");
    EXPECT_TRUE(speaks_1_2());
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
