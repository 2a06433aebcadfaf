#include "security/login_guard.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr std::int64_t minute_ms = 60'000;
constexpr std::int64_t hour_ms = 60 * minute_ms;
constexpr std::int64_t first_pause_ms = 2'000;
constexpr std::int64_t longest_pause_ms = minute_ms;
constexpr std::size_t address_refusals = 10;
constexpr std::size_t this_host_refusals = 60;

// The address as bytes, the same for an IPv4 peer of either kind of listener. Empty for this host,
// which is also whoever has no address, such as the peer of a local socket.
std::string address_key(const sockaddr_storage& peer) {
    constexpr std::size_t v4_offset = 12;
    in6_addr address{};
    in_addr v4{};
    if (peer.ss_family == AF_INET) {
        v4 = reinterpret_cast<const sockaddr_in&>(peer).sin_addr;
    } else if (peer.ss_family == AF_INET6) {
        address = reinterpret_cast<const sockaddr_in6&>(peer).sin6_addr;
        if (IN6_IS_ADDR_V4MAPPED(&address)) {
            std::memcpy(&v4, &address.s6_addr[v4_offset], sizeof v4);
        }
    }
    if (v4.s_addr != 0) {
        const std::string_view bytes(reinterpret_cast<const char*>(&v4), sizeof v4);
        return ntohl(v4.s_addr) == INADDR_LOOPBACK ? std::string() : std::string(bytes);
    }
    if (peer.ss_family != AF_INET6 || IN6_IS_ADDR_LOOPBACK(&address)) {
        return {};
    }
    return {reinterpret_cast<const char*>(&address), sizeof address};
}

// Addresses are of two lengths: the mark keeps two pairs from running together.
std::string key_of(const std::string& address, std::string_view user) {
    return std::to_string(address.size()).append(address).append(user);
}

}  // namespace

bool login_guard::budget::quiet(std::int64_t now_ms) const {
    return now_ms - last_ms_ >= minute_ms;
}

bool login_guard::budget::open(std::int64_t now_ms) const {
    return now_ms >= closed_until_ms_ || quiet(now_ms);
}

void login_guard::budget::note_refused(std::int64_t now_ms, std::size_t refusals_a_minute) {
    if (quiet(now_ms)) {
        refusals_.clear();
        pause_ms_ = 0;
    }
    last_ms_ = now_ms;
    refusals_.push_back(now_ms);
    while (refusals_.size() > refusals_a_minute || now_ms - refusals_.front() >= minute_ms) {
        refusals_.pop_front();
    }
    if (pause_ms_ > 0 || refusals_.size() == refusals_a_minute) {
        pause_ms_ = pause_ms_ == 0 ? first_pause_ms : std::min(2 * pause_ms_, longest_pause_ms);
        closed_until_ms_ = now_ms + pause_ms_;
    }
}

// The user's entry when the last hour has seen him log in from there, else null.
login_guard::user_entry* login_guard::known_user(const std::string& address, std::string_view user,
                                                 std::int64_t now_ms) {
    user_entry* entry = users_.find(key_of(address, user));
    return entry != nullptr && now_ms - entry->accepted_ms < hour_ms ? entry : nullptr;
}

bool login_guard::may_ask(const sockaddr_storage& peer, std::string_view user,
                          std::int64_t now_ms) {
    const std::string address = address_key(peer);
    budget* found = nullptr;
    if (user_entry* entry = known_user(address, user, now_ms); entry != nullptr) {
        found = &entry->wrong;
    } else if (address.empty()) {
        found = &this_host_;
    } else {
        found = addresses_.find(address);
    }
    if (found == nullptr || found->open(now_ms)) {
        return true;
    }
    found->note_attempt(now_ms);
    return false;
}

void login_guard::note_accepted(const sockaddr_storage& peer, std::string_view user,
                                std::int64_t now_ms) {
    users_.obtain(key_of(address_key(peer), user))->accepted_ms = now_ms;
}

void login_guard::note_refused(const sockaddr_storage& peer, std::string_view user,
                               std::int64_t now_ms) {
    const std::string address = address_key(peer);
    if (user_entry* entry = known_user(address, user, now_ms); entry != nullptr) {
        entry->wrong.note_refused(now_ms, address_refusals);
    } else if (address.empty()) {
        this_host_.note_refused(now_ms, this_host_refusals);
    } else {
        addresses_.obtain(address)->note_refused(now_ms, address_refusals);
    }
}
