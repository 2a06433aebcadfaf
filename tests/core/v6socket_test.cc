// Proves the dual-stack layer: address texts against the C library's, and listening handles under
// real clients of both families.
#include "core/v6socket.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>

#include "core/shttpd.h"
#include "tests/support/testing.h"

namespace {

template <class Address>
const sockaddr* generic(const Address& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

int port_of(int fd) {
    sockaddr_in6 address{};
    socklen_t length = sizeof address;
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return ntohs(address.sin6_port);  // the same place for both families
}

// A client of the listening descriptor, over the loopback address of its family.
unique_fd connect_to(int listener) {
    sockaddr_in6 to{};
    socklen_t length = sizeof to;
    EXPECT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&to), &length), 0);
    to.sin6_addr = in6addr_loopback;
    if (to.sin6_family == AF_INET) {
        reinterpret_cast<sockaddr_in*>(&to)->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    unique_fd fd(socket(to.sin6_family, SOCK_STREAM, 0));
    EXPECT_EQ(connect(fd.get(), generic(to), length), 0);
    return fd;
}

TEST(AddressText, IsTheCLibrarysButForMappedAddresses) {
    std::mt19937 random(3);
    for (int round = 0; round < 2000; ++round) {
        sockaddr_in6 in6{};
        in6.sin6_family = AF_INET6;
        for (auto& byte : in6.sin6_addr.s6_addr) {
            byte = static_cast<std::uint8_t>(random() % 3 == 0 ? random() : 0);
        }
        sockaddr_in in{};
        in.sin_family = AF_INET;
        in.sin_addr.s_addr = static_cast<in_addr_t>(random());
        sockaddr_in6 mapped{};
        mapped.sin6_family = AF_INET6;
        std::memset(&mapped.sin6_addr.s6_addr[10], 0xff, 2);
        std::memcpy(&mapped.sin6_addr.s6_addr[12], &in.sin_addr, 4);
        char text6[46];
        char text4[46];
        char buffer[46];
        (void)inet_ntop(AF_INET6, &in6.sin6_addr, text6, sizeof text6);
        (void)inet_ntop(AF_INET, &in.sin_addr, text4, sizeof text4);
        EXPECT_STREQ(v6inet_ntop(generic(in6), buffer, sizeof buffer), text6);
        EXPECT_STREQ(v6inet_ntop(generic(in), buffer, sizeof buffer), text4);
        EXPECT_STREQ(v6inet_ntop(generic(mapped), buffer, sizeof buffer), text4);
        EXPECT_EQ(v6inet_ntop(generic(in), buffer, 7), nullptr);
    }
    const sockaddr other = {.sa_family = AF_UNIX, .sa_data = {}};
    EXPECT_EQ(v6inet_ntop(&other, nullptr, 0), nullptr);
}

TEST(Listening, ManyHandlesAcceptTheirOwnClients) {
    ASSERT_EQ(isipv4(), 1);
    std::set<int> descriptors;
    for (int i = 0; i < 20; ++i) {
        int error = -1;
        const int handle = v6listen(0, 5, &error);
        ASSERT_EQ(handle, i);
        EXPECT_EQ(error, 0);
        const int fd = v6getsocket(handle, 1);
        EXPECT_TRUE(descriptors.insert(fd).second);
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    }
    for (int handle = 0; handle < 20; ++handle) {
        const unique_fd client = connect_to(v6getsocket(handle, 1));
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        int kind = -1;
        const unique_fd accepted(
            v6accept(handle, reinterpret_cast<sockaddr*>(&peer), &length, &kind, 0));
        ASSERT_TRUE(accepted);
        EXPECT_EQ(kind, 1);
        EXPECT_EQ(ntohs(peer.sin_port), port_of(client.get()));
        int no_delay = 0;
        socklen_t size = sizeof no_delay;
        EXPECT_EQ(getsockopt(accepted.get(), IPPROTO_TCP, TCP_NODELAY, &no_delay, &size), 0);
        EXPECT_NE(no_delay, 0);
        EXPECT_EQ(v6close(handle), 0);
        EXPECT_NE(fcntl(v6getsocket(handle, 1), F_GETFD), -1);  // stays open
    }
    EXPECT_EQ(isipv6() != 0, static_cast<bool>(unique_fd(socket(AF_INET6, SOCK_STREAM, 0))));
    EXPECT_EQ(shttpd_accept(0, 1), -1);
    const unique_fd client = connect_to(v6getsocket(0, 1));
    const unique_fd accepted(shttpd_accept(0, 60000));
    EXPECT_EQ(send(client.get(), "x", 1, 0), 1);
    char byte = 0;
    EXPECT_EQ(recv(accepted.get(), &byte, 1, 0), 1);
    EXPECT_EQ(v6getsocket(-1, 1) + v6getsocket(4000, 1) + v6getsocket(0, 3), -3);
    int error = 0;
    EXPECT_EQ(v6listen(port_of(v6getsocket(0, 1)), 5, &error), -1);
    EXPECT_EQ(error, EADDRINUSE);
    int kind = 0;
    EXPECT_EQ(v6accept(9999, nullptr, nullptr, &kind, 0), -1);
    EXPECT_EQ(kind, EBADF);
}

// Containers often have the family, but no address of it.
bool has_ipv6_loopback() {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    const unique_fd fd(socket(AF_INET6, SOCK_STREAM, 0));
    return fd && bind(fd.get(), generic(address), sizeof address) == 0;
}

TEST(Listening, BothFamiliesAreServedAndIpv4ComesFirst) {
    if (!has_ipv6_loopback()) {
        GTEST_SKIP() << "this host has no IPv6";
    }
    int error = 0;
    const int handle = v6listen(0, 5, &error);
    ASSERT_GE(handle, 0);
    int v6_only = 0;
    socklen_t size = sizeof v6_only;
    EXPECT_EQ(getsockopt(v6getsocket(handle, 2), IPPROTO_IPV6, IPV6_V6ONLY, &v6_only, &size), 0);
    EXPECT_NE(v6_only, 0);
    const unique_fd six = connect_to(v6getsocket(handle, 2));
    const unique_fd four = connect_to(v6getsocket(handle, 1));
    for (const int expected : {1, 2}) {
        int kind = 0;
        const unique_fd accepted(v6accept(handle, nullptr, nullptr, &kind, 60000));
        EXPECT_TRUE(accepted);
        EXPECT_EQ(kind, expected);
    }
    int kind = 77;
    EXPECT_EQ(v6accept(handle, nullptr, nullptr, &kind, 1), -1);
    EXPECT_EQ(kind, 77);
}

TEST(Users, RootIsKnownByNameAndNumber) {
    EXPECT_EQ(isRoot(nullptr, "root"), 1);
    EXPECT_EQ(isRoot(nullptr, "rootless-nobody-has-this-name"), 0);
    EXPECT_EQ(isRoot(nullptr, "nobody"), 0);
}

}  // namespace
