// Everything the library hands out, recognisable by its first bytes.
//
// Handles, credentials and channels begin with an object_head. Records, lists and texts are blocks:
// one allocation with the head 16 bytes in front of what the caller sees, so that releasing the
// outer pointer releases all of it. The kinds have their top bit set, which no user-space address
// has in that place, so the start of a record is never taken for a head.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace provider {

enum class object_kind : std::uint32_t {
    handle = 0x80000001U,
    credential = 0x80000002U,
    channel = 0x80000003U,
    block = 0x80000004U,
};

inline constexpr std::uint32_t object_magic = 0xd0f3a71dU;

struct object_head {
    std::uint32_t magic = object_magic;
    object_kind kind;
};

// Whether `object`, null or at least eight readable bytes, begins with the head of this kind. What
// has been released must not be asked about.
inline bool is_object(const void* object, object_kind kind) {
    object_head head{};
    if (object == nullptr) {
        return false;
    }
    std::memcpy(&head, object, sizeof head);
    return head.magic == object_magic && head.kind == kind;
}

// Returns `object` as a T, or null when it is null or something else.
template <class T>
T* object_cast(void* object) {
    return is_object(object, T::kind) ? static_cast<T*>(object) : nullptr;
}

inline constexpr std::size_t block_head_bytes = 16;

// Returns a zeroed block of `bytes` bytes, or null. At least 16 are reserved: is_object looks at
// the first eight of a block, too.
inline void* new_block(std::size_t bytes) {
    void* memory = std::calloc(1, block_head_bytes + (bytes < 16 ? 16 : bytes));
    if (memory == nullptr) {
        return nullptr;
    }
    const object_head head{object_magic, object_kind::block};
    std::memcpy(memory, &head, sizeof head);
    return static_cast<char*>(memory) + block_head_bytes;
}

// Requires: `record` is not the start of a handle, credential or channel, in front of which there
// is nothing to look at.
inline bool is_block(const void* record) {
    return is_object(static_cast<const char*>(record) - block_head_bytes, object_kind::block);
}

// Releases a block; whatever pointers its records hold lead into it or belong to somebody else.
inline void free_block(void* record) {
    std::free(static_cast<char*>(record) - block_head_bytes);
}

// Appends the texts behind a block's records.
class text_appender {
  public:
    explicit text_appender(void* start) : cursor_(static_cast<char*>(start)) {}

    // Copies `text` with a terminator; the block has room for it.
    char* append(std::string_view text) {
        char* start = cursor_;
        std::memcpy(start, text.data(), text.size());
        start[text.size()] = '\0';
        cursor_ += text.size() + 1;
        return start;
    }

  private:
    char* cursor_;
};

}  // namespace provider
