// What the fuzz targets share: the one check, and inputs as text.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

// Stops at once, in every build type.
inline void check(bool holds) {
    if (!holds) {
        std::abort();
    }
}

// An input that is taken from its front, bit by bit.
class fuzz_input {
  public:
    fuzz_input(const std::uint8_t* data, std::size_t size)
        : left_(reinterpret_cast<const char*>(data), size) {}

    // 0 when nothing is left.
    unsigned byte() {
        const auto value = left_.empty() ? 0U : static_cast<unsigned char>(left_.front());
        left_.remove_prefix(std::min<std::size_t>(1, left_.size()));
        return value;
    }
    std::uint64_t number(int bytes) {
        std::uint64_t value = 0;
        for (; bytes > 0; --bytes) {
            value = value << 8 | byte();
        }
        return value;
    }
    // Up to the next separator, which is dropped.
    std::string_view until(char separator) {
        const std::string_view part = left_.substr(0, left_.find(separator));
        left_.remove_prefix(std::min(part.size() + 1, left_.size()));
        return part;
    }
    [[nodiscard]] std::string_view rest() const { return left_; }

  private:
    std::string_view left_;
};

// Such a part as a C string would show it.
inline std::string visible(std::string_view text) {
    return std::string(text.substr(0, text.find('\0')));
}
