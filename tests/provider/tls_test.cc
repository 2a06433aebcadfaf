// What the optional files of TLS change, connecting to targets, and what a channel leaves behind.
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <string.h>

#include "tests/provider/channel_fixture.h"

class tls_test : public channel_test {};

TEST_F(tls_test, connecting_never_waits_for_the_target) {
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

TEST_F(tls_test, tells_the_log_why_a_handshake_failed) {
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
TEST_F(tls_test, nothing_that_was_decrypted_stays_in_memory) {
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

TEST_F(tls_test, revoked_and_locked_certificates_are_no_logins) {
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

TEST_F(tls_test, speaks_what_the_file_tls_asks_for) {
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
        EXPECT_EQ(start(&none), at_file_error) << bad;
        EXPECT_TRUE(contains(log, "/tls: "));
    }
    write_file(site() / "tls", "");
    EXPECT_EQ(agreed("P-256"), "TLSv1.3 prime256v1");
    EXPECT_TRUE(speaks_1_2());
}
