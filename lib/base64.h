// Base64 with the standard alphabet and "=" padding, into buffers of the caller. Sizes are bytes.
#pragma once

// Writes the text of `in_len` bytes and a terminator; returns the number of characters without it.
// Returns -1 and writes nothing when `out_size` is below 4 * ((in_len + 2) / 3) + 1. An `in_len` of
// 0 or less gives an empty text and 0.
[[nodiscard]] int base64_encode(char* out, int out_size, const void* in, int in_len) noexcept;

// Decodes `in_len` characters after dropping white space at both ends; returns the number of bytes,
// which are not terminated. Decoding ends at the first padding. Returns -1 when `out_size` is below
// 3 * (remaining length / 4), when the output would not fit, or at a character of 128 or above
// (bytes already written stay). Kept: ASCII characters outside the alphabet are accepted and give
// meaningless bytes, as does a text whose length is not a multiple of four; callers that need
// strict input check it themselves.
[[nodiscard]] int base64_decode(void* out, int out_size, const char* in, int in_len) noexcept;
