#include "core/peer_name.h"

#include <arpa/inet.h>
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
        thread_ = std::thread([this] { serve(); });
    }
    ~name_server() {
        stop_ = true;
        thread_.join();
    }
    name_server(const name_server&) = delete;
    name_server& operator=(const name_server&) = delete;

    std::atomic<bool> silent = true;
    std::atomic<int> queries = 0;

  private:
    void serve() {
        while (!stop_) {
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
    std::atomic<bool> stop_ = false;
    std::thread thread_;
};

host_name_result look_up(const char* text) {
    sockaddr_storage address{};
    if (inet_pton(AF_INET, text, &reinterpret_cast<sockaddr_in*>(&address)->sin_addr) == 1) {
        address.ss_family = AF_INET;
        return lookup_host_name(reinterpret_cast<sockaddr*>(&address), sizeof(sockaddr_in));
    }
    inet_pton(AF_INET6, text, &reinterpret_cast<sockaddr_in6*>(&address)->sin6_addr);
    address.ss_family = AF_INET6;
    return lookup_host_name(reinterpret_cast<sockaddr*>(&address), sizeof(sockaddr_in6));
}

// Addresses of the documentation ranges: no hosts file knows them.
TEST(peer_name, a_silent_server_is_asked_once_and_then_left_alone) {
    name_server server;
    current_time = 1000;
    const int retrans = _res.retrans;
    const int retry = _res.retry;
    EXPECT_NE(look_up("192.0.2.1").code, 0);
    if (server.queries == 0) {
        GTEST_SKIP() << "this host looks names up without a name server";
    }
    EXPECT_EQ(server.queries, 1) << "one try, not the system's number of tries";
    EXPECT_EQ(_res.retrans, retrans);
    EXPECT_EQ(_res.retry, retry);
    EXPECT_EQ(look_up("192.0.2.1").name, "");
    EXPECT_EQ(look_up("::ffff:192.0.2.1").name, "") << "the same address";
    current_time += 59;
    EXPECT_NE(look_up("192.0.2.1").code, 0);
    EXPECT_EQ(server.queries, 1);

    server.silent = false;
    current_time += 1;
    EXPECT_EQ(look_up("192.0.2.1").name, "peer.test") << "a failure is forgotten after a minute";
    EXPECT_EQ(server.queries, 2);
    current_time += 299;
    EXPECT_EQ(look_up("::ffff:192.0.2.1").name, "peer.test");
    EXPECT_EQ(server.queries, 2);
    current_time += 1;
    EXPECT_EQ(look_up("192.0.2.1").code, 0);
    EXPECT_EQ(server.queries, 3);
    current_time -= 100;
    EXPECT_EQ(look_up("192.0.2.1").code, 0) << "a clock that was set back keeps nothing alive";
    EXPECT_EQ(server.queries, 4);
    EXPECT_EQ(look_up("2001:db8::1").name, "peer.test");
    EXPECT_EQ(server.queries, 5);
}

TEST(peer_name, remembers_a_bounded_number_of_addresses) {
    name_server server;
    server.silent = false;
    current_time = 5000;
    for (int i = 0; i < 257; i++) {
        const std::string address =
            "198.51." + std::to_string(100 + i / 250) + "." + std::to_string(i % 250);
        EXPECT_EQ(look_up(address.c_str()).code, 0);
        if (server.queries == 0) {
            GTEST_SKIP() << "this host looks names up without a name server";
        }
    }
    const int asked = server.queries;
    EXPECT_EQ(look_up("198.51.101.6").code, 0);
    EXPECT_EQ(server.queries, asked) << "the last one is known";
    EXPECT_EQ(look_up("198.51.100.0").code, 0);
    EXPECT_EQ(server.queries, asked + 1) << "the first one was dropped";
}

}  // namespace
