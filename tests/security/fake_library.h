// An authentication library under the test's control: it replaces the entry points of the shim.
#pragma once

#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "security/at_types.h"

struct fake_identity {
    std::string host, domain, name, password;
    auto operator<=>(const fake_identity&) const = default;
};

struct fake_library {
    // What the entry points answer.
    std::map<fake_identity, void*> logins;
    std::deque<std::uint32_t> handshakes;  // results of the next accept calls; then at_again
    void* accept_credential = nullptr;
    std::deque<std::int32_t> counts;  // results of the next read and write calls; then -1/EAGAIN
    std::set<std::string> lacking;    // entry points that do not resolve
    std::uint32_t extract_result = at_ok;
    molb_info info{};
    molb_info* handed_out = nullptr;  // what molbAtExtractInfo stores: &info, or null

    // What they were asked.
    std::vector<fake_identity> asked;
    std::vector<void*> freed;
    int extracts = 0;
    int closes = 0;
    void* server_credential = nullptr;
    void* accept_params = nullptr;
    std::uint32_t accept_mode = 0;
    std::uint32_t accept_flags = 0;

    [[nodiscard]] long times_freed(const void* p) const;
};

extern fake_library fake;
