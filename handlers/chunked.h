// Finds the end of a body in chunked transfer coding without changing a byte of it.
//
// Strict on purpose: a body that two readers could end at different places counts as broken. Sizes
// are hexadecimal and count bytes; lines end in carriage return and line feed. Extensions are
// passed over, trailers told apart. Plain data, a few words, freely copied: a copy can look ahead.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

class chunk_scanner {
  public:
    // Takes the next bytes and returns how many of them belong to the body: all of them unless the
    // body ended or broke within them. Call it no more after that.
    std::size_t consume(std::string_view bytes);

    struct run {
        std::size_t length;
        bool trailer;  // lines behind the last chunk, without the empty one that ends the body
    };
    // Takes as consume() does, but no further than to where a trailer begins or ends.
    run next_run(std::string_view bytes);

    // The last chunk and its trailer have gone by.
    [[nodiscard]] bool complete() const { return state_ == state::done; }
    // The bytes are no such body, or one that readers may take differently.
    [[nodiscard]] bool failed() const { return state_ == state::broken; }
    // A trailer line has a name that tells who the caller is: "Authorization" or "PLX-...",
    // "X-PLX-" included. A reader that merges trailers into the headers would believe it.
    [[nodiscard]] bool claims_identity() const { return claims_identity_; }

  private:
    enum class state : std::uint8_t {
        first_digit,  // a chunk's size must have one
        digits,
        extension,  // between the size and the end of its line
        size_end,   // the line feed behind a chunk's size
        data,
        data_return,  // the two bytes behind a chunk's data
        data_end,
        trailer_start,  // the first byte of a trailer line or of the last, empty one
        trailer_line,
        trailer_end,
        last_end,  // the line feed of the empty line
        done,
        broken,
    };

    state after_size() const { return left_ == 0 ? state::trailer_start : state::data; }
    state step(char c);
    state add_digit(char c);
    void note_trailer_byte(char c);
    std::size_t take(std::string_view bytes);

    state state_ = state::first_digit;
    bool claims_identity_ = false;
    std::uint8_t name_length_ = 0;
    std::array<char, 14> name_{};  // how a trailer line begins, in small letters
    std::uint64_t left_ = 0;       // the size being read, then the bytes of the chunk still to come
};
