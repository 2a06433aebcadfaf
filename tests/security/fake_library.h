// An authentication library under the test's control: it replaces the entry points of the shim.
#pragma once

#include <deque>

#include "security/at_types.h"
#include "tests/support/testing.h"

struct fake_library {
    // What the entry points answer.
    std::deque<std::uint32_t> handshakes;  // results of the next accept calls
    std::deque<std::uint32_t> connects;    // results of the next connect calls
    void* accept_credential = nullptr;
    void* channel = &handshakes;
    std::deque<std::int32_t> counts;       // results of the next read and write calls; then EAGAIN
    std::set<std::string> lacking;         // entry points that do not resolve
    const molb_info* extracted = nullptr;  // null: molbAtExtractInfo fails

    // What they were asked.
    std::vector<std::string> asked;  // identities: "host|domain|name|password"
    std::vector<const void*> freed;
    void* server_credential = nullptr;
    void* accept_params = nullptr;
    std::string peer;
    molb_log_function log = nullptr;  // what was offered
    std::uint32_t accept_mode = 0;
    std::uint32_t accept_flags = 0;
};

extern fake_library fake;
