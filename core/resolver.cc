#include "core/resolver.h"

#include <netdb.h>
#include <pwd.h>
#include <resolv.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unordered_map>
#include <utility>

#include "core/background.h"
#include "core/connection.h"
#include "core/globals.h"

namespace {

// Failures are asked again sooner, but not at once: each costs its asker a second.
constexpr std::int64_t success_lifetime_s = 300;
constexpr std::int64_t failure_lifetime_s = 60;
constexpr std::size_t memory_limit = 256;
constexpr std::size_t addresses_max = 256;
constexpr std::size_t name_bytes = 256;
constexpr const char* loopback_name = "localhost";
constexpr std::int64_t wait_per_server_ms = 1000;
constexpr std::int64_t silence_ms = 10000;
// A name server that says that it can't help does so sooner.
constexpr std::int64_t slow_failure_ms = 500;

using answer_ptr = std::shared_ptr<const name_answer>;

enum lookup_kind : std::size_t { addresses_of_name = 0, name_of_address = 1, lookup_kinds = 2 };

struct remembered_answer {
    answer_ptr answer;
    std::int64_t stored_at = 0;  // monotonic seconds

    [[nodiscard]] bool fresh() const {
        const bool found = answer->code == 0;
        return monotonic_seconds - stored_at < (found ? success_lifetime_s : failure_lifetime_s);
    }
};

using memory = std::unordered_map<std::string, remembered_answer>;

// --- On the thread ---

// Makes the C library give up on a silent name server after one try of one second. Its state is the
// calling thread's own; it is read anew, since one that was changed by hand ignores later changes
// of the system's configuration.
void shorten_patience() {
    _res.retrans = 1;
    _res.retry = 1;
    (void)res_init();  // on failure the look-up itself reports
    _res.retrans = 1;
    _res.retry = 1;
}

bool copy_address(const sockaddr* from, socklen_t length, host_address* to) {
    const socklen_t needed = from->sa_family == AF_INET    ? sizeof(sockaddr_in)
                             : from->sa_family == AF_INET6 ? sizeof(sockaddr_in6)
                                                           : 0;
    if (needed == 0 || length < needed) {
        return false;
    }
    std::memcpy(to, from, needed);
    return true;
}

name_answer get_addresses(const std::string& host, int flags) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    addrinfo* found = nullptr;
    name_answer answer;
    answer.code = getaddrinfo(host.c_str(), nullptr, &hints, &found);
    if (answer.code != 0) {
        return answer;
    }
    for (const addrinfo* a = found; a != nullptr && answer.addresses.size() < addresses_max;
         a = a->ai_next) {
        host_address address{};
        if (copy_address(a->ai_addr, a->ai_addrlen, &address)) {
            answer.addresses.push_back(address);
        }
    }
    freeaddrinfo(found);
    return answer;
}

name_answer get_name(const sockaddr* address, socklen_t length) {
    std::array<char, name_bytes> name{};
    const int code =
        getnameinfo(address, length, name.data(), name.size(), nullptr, 0, NI_NAMEREQD);
    return {.code = code, .name = code == 0 ? name.data() : "", .addresses = {}};
}

name_answer ask_addresses(const std::string& host) {
    shorten_patience();
    return get_addresses(host, 0);
}

name_answer ask_name(const host_address& address) {
    shorten_patience();
    return get_name(&address.any, address.length());
}

// --- On the loop ---

int count_name_servers() {
    struct __res_state state {};
    if (res_ninit(&state) != 0) {
        return 1;
    }
    const int count = state.nscount;
    res_nclose(&state);
    return std::clamp(count, 1, MAXNS);
}

constexpr resolver_backend system_backend = {
    .addresses = ask_addresses, .name = ask_name, .name_servers = count_name_servers};

struct resolver_state {
    resolver_backend backend = system_backend;
    std::unique_ptr<background_thread> thread;
    std::array<memory, lookup_kinds> remembered;
    std::vector<name_lookup*> under_way;  // not owned
    std::int64_t silent_until_ms = 0;     // until then nobody is asked
};

resolver_state& resolver() {
    static resolver_state state;
    return state;
}

answer_ptr no_name() {
    static const auto answer = std::make_shared<const name_answer>(
        name_answer{.code = EAI_AGAIN, .name = "", .addresses = {}});
    return answer;
}

// What stands for the answer when nobody can be asked. Somebody else's silent name server must not
// cut the way to this host's own services.
answer_ptr answer_without_asking(lookup_kind kind, std::string_view key) {
    if (kind != addresses_of_name || key != loopback_name) {
        return no_name();
    }
    host_address v6{};
    v6.v6.sin6_family = AF_INET6;
    v6.v6.sin6_addr = in6addr_loopback;
    host_address v4{};
    v4.v4.sin_family = AF_INET;
    v4.v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return std::make_shared<const name_answer>(
        name_answer{.code = 0, .name = "", .addresses = {v6, v4}});
}

void remember(lookup_kind kind, const std::string& key, answer_ptr answer) {
    memory& known = resolver().remembered[kind];
    // Simple, and seldom: a management host has few peers and targets.
    if (known.size() >= memory_limit && known.find(key) == known.end()) {
        known.clear();
    }
    known.insert_or_assign(
        key, remembered_answer{.answer = std::move(answer), .stored_at = monotonic_seconds});
}

void note_silence() {
    resolver().silent_until_ms = monotonic_ms() + silence_ms;
}

}  // namespace

struct name_lookup {
    lookup_kind kind = addresses_of_name;
    std::string key;  // the name in small letters, or the address without its port
    conn* waiter = nullptr;
    std::int64_t deadline_ms = 0;
    answer_ptr answer;                         // null while under way
    std::shared_ptr<std::atomic<int>> askers;  // all who wait for the same job; skipped at 0
};

namespace {

class lookup_job : public background_job {
  public:
    lookup_job(const name_lookup& lookup, const host_address& address)
        : backend_(resolver().backend),
          kind_(lookup.kind),
          key_(lookup.key),
          address_(address),
          askers_(lookup.askers) {}

    void run() override {
        if (*askers_ == 0) {
            return;
        }
        const std::int64_t begin = monotonic_ms();
        answer_ = std::make_shared<const name_answer>(
            kind_ == addresses_of_name ? backend_.addresses(key_) : backend_.name(address_));
        timed_out_ = answer_->code == EAI_AGAIN && monotonic_ms() - begin > slow_failure_ms;
    }

    void finish() override {
        if (answer_ == nullptr) {
            return;
        }
        if (timed_out_) {
            note_silence();
        }
        remember(kind_, key_, answer_);
        std::vector<name_lookup*>& waiting = resolver().under_way;
        for (name_lookup* lookup : std::exchange(waiting, {})) {
            if (lookup->kind == kind_ && lookup->key == key_) {
                answer_lookup(lookup);
            } else {
                waiting.push_back(lookup);
            }
        }
    }

  private:
    void answer_lookup(name_lookup* lookup) const {
        lookup->answer = answer_;
        if (lookup->waiter != nullptr) {
            visit_soon(lookup->waiter);
        }
    }

    resolver_backend backend_;
    lookup_kind kind_;
    std::string key_;
    host_address address_;
    std::shared_ptr<std::atomic<int>> askers_;
    answer_ptr answer_;
    bool timed_out_ = false;
};

name_lookup* answered(answer_ptr answer) {
    auto* lookup = new name_lookup;
    lookup->answer = std::move(answer);
    return lookup;
}

name_lookup* answered(name_answer answer) {
    return answered(std::make_shared<const name_answer>(std::move(answer)));
}

// Whoever asks what somebody else is waiting for waits for the same answer.
bool join_job(name_lookup* lookup) {
    for (const name_lookup* other : resolver().under_way) {
        if (other->kind == lookup->kind && other->key == lookup->key) {
            lookup->askers = other->askers;
            ++*lookup->askers;
            return true;
        }
    }
    return false;
}

bool start_job(name_lookup* lookup, const host_address& address) {
    resolver_state& state = resolver();
    if (state.thread == nullptr) {
        state.thread = std::make_unique<background_thread>();
    }
    lookup->askers = std::make_shared<std::atomic<int>>(1);
    return state.thread->submit(std::make_unique<lookup_job>(*lookup, address));
}

// Hands the question to the thread, unless it is known, or is known to be vain.
name_lookup* ask(lookup_kind kind, std::string key, const host_address& address, conn* waiter) {
    resolver_state& state = resolver();
    const memory& known = state.remembered[kind];
    if (const auto found = known.find(key); found != known.end() && found->second.fresh()) {
        return answered(found->second.answer);
    }
    const std::int64_t now = monotonic_ms();
    if (now < state.silent_until_ms) {
        return answered(answer_without_asking(kind, key));
    }
    auto* lookup = new name_lookup{
        .kind = kind,
        .key = std::move(key),
        .waiter = waiter,
        .deadline_ms = now + state.backend.name_servers() * wait_per_server_ms,
        .answer = nullptr,
        .askers = nullptr,
    };
    if (!join_job(lookup) && !start_job(lookup, address)) {
        lookup->answer = answer_without_asking(kind, lookup->key);
        return lookup;
    }
    state.under_way.push_back(lookup);
    if (waiter != nullptr) {
        visit_at(waiter, lookup->deadline_ms);
    }
    return lookup;
}

void withdraw(name_lookup* lookup) {
    std::erase(resolver().under_way, lookup);
    --*lookup->askers;
}

// No name server knows the mapped form of an IPv4 address, and the hosts file seldom does.
void unmap_ipv4(host_address* address) {
    if (address->any.sa_family != AF_INET6 || !IN6_IS_ADDR_V4MAPPED(&address->v6.sin6_addr)) {
        return;
    }
    host_address plain{};
    plain.v4.sin_family = AF_INET;
    std::memcpy(&plain.v4.sin_addr, &address->v6.sin6_addr.s6_addr[12], sizeof plain.v4.sin_addr);
    *address = plain;
}

std::string key_of(const host_address& address) {
    if (address.any.sa_family == AF_INET) {
        return {reinterpret_cast<const char*>(&address.v4.sin_addr), sizeof address.v4.sin_addr};
    }
    std::string key(reinterpret_cast<const char*>(&address.v6.sin6_addr),
                    sizeof address.v6.sin6_addr);
    return key.append(reinterpret_cast<const char*>(&address.v6.sin6_scope_id),
                      sizeof address.v6.sin6_scope_id);
}

}  // namespace

void host_address::set_port(std::uint16_t port) {
    (any.sa_family == AF_INET6 ? v6.sin6_port : v4.sin_port) = htons(port);
}

name_lookup* look_up_addresses(std::string_view host, conn* waiter) {
    std::string key(host);
    // A zero byte would end the name for the C library, but not for whoever reads it in a log.
    if (key.empty() || key.find('\0') != std::string::npos) {
        return answered(name_answer{.code = EAI_NONAME, .name = "", .addresses = {}});
    }
    for (char& letter : key) {
        letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter | 0x20) : letter;
    }
    if (name_answer numeric = get_addresses(key, AI_NUMERICHOST); numeric.code == 0) {
        return answered(std::move(numeric));
    }
    return ask(addresses_of_name, std::move(key), {}, waiter);
}

name_lookup* look_up_name(const sockaddr* address, socklen_t length, conn* waiter) {
    host_address known{};
    if (!copy_address(address, length, &known)) {
        return answered(get_name(address, length));  // of no family that name servers know
    }
    unmap_ipv4(&known);
    return ask(name_of_address, key_of(known), known, waiter);
}

const name_answer* lookup_answer(name_lookup* lookup) {
    if (lookup->answer != nullptr) {
        return lookup->answer.get();
    }
    if (monotonic_ms() >= lookup->deadline_ms) {
        withdraw(lookup);
        note_silence();
        remember(lookup->kind, lookup->key, no_name());
        lookup->answer = answer_without_asking(lookup->kind, lookup->key);
    } else if (lookup->waiter != nullptr) {
        visit_at(lookup->waiter, lookup->deadline_ms);
    }
    return lookup->answer.get();
}

void end_lookup(name_lookup* lookup) {
    if (lookup == nullptr) {
        return;
    }
    if (lookup->answer == nullptr) {
        withdraw(lookup);
    }
    delete lookup;
}

const name_answer* peer_name(conn* c) {
    lookup_ptr& lookup = c->request.peer_lookup;
    if (lookup == nullptr) {
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        auto* address = reinterpret_cast<sockaddr*>(&peer);
        // The socket knows best, but a peer that has left leaves only the remembered address.
        if (getpeername(c->remote.channel.fd, address, &length) != 0) {
            peer = c->peer;
            length = c->peer_length;
        }
        lookup.reset(look_up_name(address, length, c));
    }
    return lookup_answer(lookup.get());
}

const name_answer* own_name(conn* c) {
    lookup_ptr& lookup = c->request.own_lookup;
    if (lookup == nullptr) {
        sockaddr_storage own{};
        socklen_t length = sizeof own;
        auto* address = reinterpret_cast<sockaddr*>(&own);
        const bool known = getsockname(c->remote.channel.fd, address, &length) == 0;
        lookup.reset(known ? look_up_name(address, length, c) : answered(name_answer()));
    }
    return lookup_answer(lookup.get());
}

// When memory fails it at the very first time, the C library keeps its resolver's lock for good,
// for which every look-up would wait, and reads through a null in its list of name services.
void resolver_init() {
    std::array<char, 1024> text{};
    passwd account{};
    passwd* found = nullptr;
    (void)getpwuid_r(0, &account, text.data(), text.size(), &found);
    struct __res_state state {};
    if (res_ninit(&state) == 0) {
        res_nclose(&state);
    } else if (errno == ENOMEM) {
        std::abort();
    }
}

void resolver_fini() {
    resolver_state& state = resolver();
    state.thread.reset();
    for (memory& known : state.remembered) {
        known.clear();
    }
    state.silent_until_ms = 0;
}

void set_resolver_backend(const resolver_backend& backend) {
    resolver().backend = backend;
}
