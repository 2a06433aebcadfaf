#include "core/peer_name.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <resolv.h>
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "core/globals.h"
#include "lib/unique_fd.h"

namespace {

// A name server on the loopback: it stays silent, or calls every address "peer.test".
class name_server {
  public:
    name_server() : socket_(socket(AF_INET, SOCK_DGRAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(socket_.get(), generic, length), 0);
        EXPECT_EQ(getsockname(socket_.get(), generic, &length), 0);
        EXPECT_EQ(res_init(), 0);
        _res.nscount = 1;
        _res.nsaddr_list[0] = address;
        thread_ = std::jthread([this](const std::stop_token& stop) { serve(stop); });
    }

    std::atomic<bool> silent = true;
    std::atomic<int> queries = 0;

  private:
    void serve(const std::stop_token& stop) {
        while (!stop.stop_requested()) {
            pollfd entry{.fd = socket_.get(), .events = POLLIN, .revents = 0};
            if (poll(&entry, 1, 20) <= 0) {
                continue;
            }
            std::array<char, 512> packet{};
            sockaddr_in client{};
            socklen_t length = sizeof(client);
            auto* generic = reinterpret_cast<sockaddr*>(&client);
            const ssize_t size =
                recvfrom(socket_.get(), packet.data(), packet.size(), 0, generic, &length);
            queries++;
            if (size > 12 && !silent) {
                const std::string reply = answer({packet.data(), static_cast<std::size_t>(size)});
                (void)sendto(socket_.get(), reply.data(), reply.size(), 0, generic, length);
            }
        }
    }

    // The question with one record behind it: PTR, 60 s, "peer.test".
    static std::string answer(std::string query) {
        const std::size_t question_end = query.find('\0', 12) + 5;
        query.resize(question_end);
        query[2] = static_cast<char>(0x85);
        query[3] = static_cast<char>(0x80);
        query.replace(6, 6, std::string("\0\1\0\0\0\0", 6));
        return query + std::string("\xc0\x0c\0\x0c\0\1\0\0\0\x3c\0\x0b\4peer\4test\0", 23);
    }

    unique_fd socket_;
    std::jthread thread_;  // ends before the rest does
};

host_name_result look_up(const char* text) {
    addrinfo numeric{};
    numeric.ai_flags = AI_NUMERICHOST;
    addrinfo* address = nullptr;
    EXPECT_EQ(getaddrinfo(text, nullptr, &numeric, &address), 0);
    const host_name_result result = lookup_host_name(address->ai_addr, address->ai_addrlen);
    freeaddrinfo(address);
    return result;
}

// Addresses of the documentation ranges: no hosts file knows them.
TEST(peer_name, is_asked_once_and_remembered_for_a_while) {
    name_server server;
    monotonic_seconds = 1000;
    const int retrans = _res.retrans;
    const int retry = _res.retry;
    EXPECT_NE(look_up("192.0.2.1").code, 0);
    if (server.queries == 0) {
        GTEST_SKIP() << "this host looks names up without a name server";
    }
    EXPECT_EQ(_res.retrans, retrans);
    EXPECT_EQ(_res.retry, retry);

    struct step {
        int seconds;  // since the step before
        const char* address;
        const char* name;
        int queries;  // so far
    };
    const std::vector<step> steps = {
        // A silent server is tried once, not the system's number of tries, and then left alone.
        {0, "192.0.2.1", "", 1},
        {0, "::ffff:192.0.2.1", "", 1},
        {59, "192.0.2.1", "", 1},
        {1, "192.0.2.1", "peer.test", 2},
        {299, "::ffff:192.0.2.1", "peer.test", 2},
        {1, "192.0.2.1", "peer.test", 3},
        {0, "2001:db8::1", "peer.test", 4},
    };
    for (const step& s : steps) {
        monotonic_seconds += s.seconds;
        server.silent = *s.name == '\0';
        EXPECT_EQ(look_up(s.address).name, s.name) << s.address << " " << s.queries;
        EXPECT_EQ(server.queries, s.queries) << s.address;
    }

    // A bounded number of addresses is remembered: the 257th displaces the first.
    for (int i = 0; i < 257; i++) {
        const std::string subnet = i < 250 ? "198.51.100." : "198.51.101.";
        EXPECT_EQ(look_up((subnet + std::to_string(i % 250)).c_str()).code, 0);
    }
    const int asked = server.queries;
    EXPECT_EQ(look_up("198.51.101.6").code, 0);
    EXPECT_EQ(server.queries, asked) << "the last one is known";
    EXPECT_EQ(look_up("198.51.100.0").code, 0);
    EXPECT_EQ(server.queries, asked + 1) << "the first one was dropped";
}

}  // namespace
