#include "core/peer_name.h"

#include <netdb.h>
#include <netinet/in.h>
#include <resolv.h>

#include <cstring>
#include <ctime>
#include <unordered_map>

#include "core/connection.h"
#include "core/globals.h"

namespace {

// Failures are asked again sooner, but not at once: each may cost a second of everybody's time.
constexpr std::int64_t success_lifetime_s = 300;
constexpr std::int64_t failure_lifetime_s = 60;
constexpr std::size_t cache_limit = 256;
constexpr std::size_t name_bytes = 256;

struct remembered_name {
    host_name_result result;
    std::int64_t stored_at = 0;

    [[nodiscard]] bool fresh() const {
        const std::int64_t lifetime = result.code == 0 ? success_lifetime_s : failure_lifetime_s;
        return monotonic_seconds - stored_at < lifetime;
    }
};

// Makes the resolver give up on a silent name server after one try of one second.
class short_resolver_patience {
  public:
    short_resolver_patience() {
        if ((_res.options & RES_INIT) == 0) {
            (void)res_init();  // on failure the look-up itself reports
        }
        retrans_ = _res.retrans;
        retry_ = _res.retry;
        _res.retrans = 1;
        _res.retry = 1;
    }
    ~short_resolver_patience() {
        _res.retrans = retrans_;
        _res.retry = retry_;
    }
    short_resolver_patience(const short_resolver_patience&) = delete;
    short_resolver_patience& operator=(const short_resolver_patience&) = delete;
    short_resolver_patience(short_resolver_patience&&) = delete;
    short_resolver_patience& operator=(short_resolver_patience&&) = delete;

  private:
    int retrans_ = 0;
    int retry_ = 0;
};

// An IPv4 address that came in over IPv6 is looked up as what it is: no name server knows the
// mapped form, and the hosts file seldom does.
void unmap_ipv4(sockaddr_storage* address, socklen_t* length) {
    if (address->ss_family != AF_INET6 || *length < sizeof(sockaddr_in6)) {
        return;
    }
    sockaddr_in6 mapped{};
    std::memcpy(&mapped, address, sizeof mapped);
    if (!IN6_IS_ADDR_V4MAPPED(&mapped.sin6_addr)) {
        return;
    }
    sockaddr_in plain{};
    plain.sin_family = AF_INET;
    plain.sin_port = mapped.sin6_port;
    std::memcpy(&plain.sin_addr, &mapped.sin6_addr.s6_addr[12], sizeof plain.sin_addr);
    std::memcpy(address, &plain, sizeof plain);
    *length = sizeof plain;
}

// The address without its port; empty for a family that has none.
std::string cache_key(const sockaddr_storage& address) {
    if (address.ss_family == AF_INET) {
        sockaddr_in in{};
        std::memcpy(&in, &address, sizeof in);
        return {reinterpret_cast<const char*>(&in.sin_addr), sizeof in.sin_addr};
    }
    if (address.ss_family == AF_INET6) {
        sockaddr_in6 in6{};
        std::memcpy(&in6, &address, sizeof in6);
        std::string key(reinterpret_cast<const char*>(&in6.sin6_addr), sizeof in6.sin6_addr);
        key.append(reinterpret_cast<const char*>(&in6.sin6_scope_id), sizeof in6.sin6_scope_id);
        return key;
    }
    return {};
}

host_name_result ask_resolver(const sockaddr_storage& address, socklen_t length) {
    const short_resolver_patience patience;
    char name[name_bytes] = {};
    const int code = getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, name,
                                 sizeof name, nullptr, 0, NI_NAMEREQD);
    return {.code = code, .name = code == 0 ? name : ""};
}

}  // namespace

host_name_result lookup_host_name(const sockaddr* address, socklen_t length) {
    static std::unordered_map<std::string, remembered_name> cache;
    sockaddr_storage copy{};
    length = length < sizeof copy ? length : socklen_t{sizeof copy};
    std::memcpy(&copy, address, length);
    unmap_ipv4(&copy, &length);
    const std::string key = cache_key(copy);
    if (key.empty()) {
        return ask_resolver(copy, length);
    }
    if (const auto known = cache.find(key); known != cache.end() && known->second.fresh()) {
        return known->second.result;
    }
    // Simple, and seldom: a management host has few peers.
    if (cache.size() >= cache_limit) {
        cache.clear();
    }
    host_name_result result = ask_resolver(copy, length);
    cache.insert_or_assign(key, remembered_name{.result = result, .stored_at = monotonic_seconds});
    return result;
}

host_name_result peer_host_name(const conn* c) {
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    auto* address = reinterpret_cast<sockaddr*>(&peer);
    // The socket knows best, but a peer that has gone already leaves only the remembered address.
    if (getpeername(c->remote.channel.fd, address, &length) != 0) {
        peer = c->peer;
        length = c->peer_length;
    }
    return lookup_host_name(address, length);
}
