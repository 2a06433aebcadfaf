// A key pair for a host that has none yet.
#pragma once

#include <string>

namespace provider {

// Both in PEM form. The key is not encrypted: whoever has used it wipes it.
struct key_pair {
    std::string key_pem;
    std::string certificate_pem;
};

// A P-256 key and a self-signed certificate for `host`, localhost and the loopback addresses, good
// for both sides of a connection for ten years. Requires: `host` holds letters, digits, '.' and
// '-'. False: OpenSSL had no memory or no randomness; *pair is as it was.
[[nodiscard]] bool make_self_signed(const std::string& host, key_pair* pair);

}  // namespace provider
