// Base64: decoding never leaves an output block of the smallest accepted size, and what is encoded
// decodes to itself.
#include <cstdint>
#include <cstring>
#include <vector>

#include "fuzz/check.h"
#include "lib/base64.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const int length = static_cast<int>(size);
    std::vector<char> decoded(size / 4 * 3);
    const int room = static_cast<int>(decoded.size());
    const int n = base64_decode(decoded.data(), room, reinterpret_cast<const char*>(data), length);
    check(n >= -1 && n <= room);

    std::vector<char> text(4 * ((size + 2) / 3) + 1);
    const int written = base64_encode(text.data(), static_cast<int>(text.size()), data, length);
    check(written == static_cast<int>(text.size()) - 1);
    std::vector<char> back(text.size() / 4 * 3);
    check(base64_decode(back.data(), static_cast<int>(back.size()), text.data(), written) ==
          length);
    check(size == 0 || std::memcmp(back.data(), data, size) == 0);
    return 0;
}
