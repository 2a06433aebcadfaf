// How often logins from one address may be refused before it is no longer listened to.
//
// An address may be refused ten times in a minute; then its logins are refused unasked for 2 s, and
// after each further refusal for twice as long, up to a minute, until it has been quiet for one.
// This host itself, 127.0.0.1 and ::1 together, may be refused sixty times. A user who has logged
// in from an address within the last hour has a budget of his own there: one program with a wrong
// password shuts out nobody else. Memory is bounded: whoever has been silent longest is forgotten.
// One thread; the caller brings the time.
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

class login_guard {
  public:
    static constexpr std::size_t addresses_max = 1024;
    static constexpr std::size_t users_max = 1024;

    // Whether the authentication library may be asked about this user, as "DOMAIN\NAME". A no is a
    // refusal, too: it keeps the address from counting as quiet.
    [[nodiscard]] bool may_ask(const sockaddr_storage& peer, std::string_view user,
                               std::int64_t now_ms);

    // What the library has answered.
    void note_accepted(const sockaddr_storage& peer, std::string_view user, std::int64_t now_ms);
    void note_refused(const sockaddr_storage& peer, std::string_view user, std::int64_t now_ms);

    // How many addresses and users are remembered.
    [[nodiscard]] std::size_t addresses() const { return addresses_.size(); }
    [[nodiscard]] std::size_t users() const { return users_.size(); }

  private:
    class budget {
      public:
        [[nodiscard]] bool open(std::int64_t now_ms) const;
        void note_attempt(std::int64_t now_ms) { last_ms_ = now_ms; }
        void note_refused(std::int64_t now_ms, std::size_t refusals_a_minute);

      private:
        [[nodiscard]] bool quiet(std::int64_t now_ms) const;
        std::deque<std::int64_t> refusals_;  // of the last minute, at most as many as are allowed
        std::int64_t last_ms_ = 0;           // of any attempt that was refused
        std::int64_t closed_until_ms_ = 0;
        std::int64_t pause_ms_ = 0;  // of the last time that it was closed
    };
    struct user_entry {
        std::int64_t accepted_ms = 0;
        budget wrong;
    };

    // A map of a bounded size, from which the entry goes that nobody has asked for for longest.
    template <class Value, std::size_t Most>
    class bounded_map {
      public:
        Value* find(const std::string& key) {
            const auto at = index_.find(key);
            if (at == index_.end()) {
                return nullptr;
            }
            entries_.splice(entries_.begin(), entries_, at->second);
            return &at->second->second;
        }
        Value* obtain(const std::string& key) {
            if (Value* found = find(key); found != nullptr) {
                return found;
            }
            if (index_.size() >= Most) {
                index_.erase(entries_.back().first);
                entries_.pop_back();
            }
            entries_.emplace_front(key, Value());
            index_.emplace(key, entries_.begin());
            return &entries_.front().second;
        }
        [[nodiscard]] std::size_t size() const { return index_.size(); }

      private:
        using entry_list = std::list<std::pair<std::string, Value>>;  // the latest first
        entry_list entries_;
        std::unordered_map<std::string, typename entry_list::iterator> index_;
    };

    user_entry* known_user(const std::string& address, std::string_view user, std::int64_t now_ms);

    budget this_host_;
    bounded_map<budget, addresses_max> addresses_;
    bounded_map<user_entry, users_max> users_;  // by address and name
};
