// The buffers that streams borrow while bytes are under way.
//
// Thousands of connections idle and a few dozen move bytes, so a buffer belongs to nobody for long:
// a visit borrows, and gives back what it leaves empty. The buffers that came back last are lent
// first, while they are still in the processor's cache. Main thread only.
#pragma once

#include <cstddef>

// A buffer of `size` bytes and one more, which is zero. Never null: without memory the process
// ends. What an earlier holder left in it is still there.
char* lend_buffer(std::size_t size);

// Takes back a buffer that was lent with this size. Null is ignored.
void take_back_buffer(char* buffer, std::size_t size);

// Frees the buffers that nobody holds.
void free_idle_buffers();

// How many buffers are lent at the moment.
std::size_t lent_buffers();
