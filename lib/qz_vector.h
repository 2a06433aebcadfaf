// A growable array of words.
//
// The vector owns its slots and, when it has an element_free, its elements at qz_vector_destroy.
// Indexes are 0-based. Not safe for use from two threads.
#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "lib/qz_iterator.h"

struct qz_vector {
    std::int32_t count;
    std::uint32_t capacity;   // slots allocated
    qz_free_fn element_free;  // used by qz_vector_destroy and the iterator's erase; may be null
    void** data;
};

// Returns an empty vector with room for `initial` elements, at least 8.
[[nodiscard]] qz_vector* new_qz_vector(std::int32_t initial, qz_free_fn element_free) noexcept;

// Add an element at the end, at the start, or before position `index` (0 to count). A full vector
// doubles its capacity; the capacity never shrinks.
void qz_vector_pushback(qz_vector* vector, void* value) noexcept;
void qz_vector_pushfront(qz_vector* vector, void* value) noexcept;
void qz_vector_insert(qz_vector* vector, void* value, std::int32_t index) noexcept;

// Take an element out and return it; null when there is none at that place.
void* qz_vector_remove(qz_vector* vector, std::int32_t index) noexcept;
void* qz_vector_popback(qz_vector* vector) noexcept;
void* qz_vector_popfront(qz_vector* vector) noexcept;

// The element at `index`, null out of range.
void* qz_vector_at(const qz_vector* vector, std::int32_t index) noexcept;
std::int32_t qz_vector_size(const qz_vector* vector) noexcept;

// Calls fn(element, arg) for every element in order.
void qz_vector_foreach(const qz_vector* vector, qz_visit_fn fn, void* arg) noexcept;

// Empties the vector, calling `fn` (when not null) on every element in order; keeps the capacity.
void qz_vector_clear(qz_vector* vector, qz_free_fn fn) noexcept;

// Frees the slots and the vector; elements are not touched. Null is ignored.
void qz_vector_delete(qz_vector* vector) noexcept;

// Frees the elements through element_free (when set), then the vector. Null is ignored.
void qz_vector_destroy(qz_vector* vector) noexcept;

// Returns a vector that shares the same elements. Free the copy with qz_vector_delete only: with
// qz_vector_destroy on both, elements would be freed twice.
[[nodiscard]] qz_vector* qz_vector_copy(const qz_vector* vector) noexcept;

// Binary search; returns the index of an element that compares 0 with `key`, or -1. Requires:
// elements in ascending order of `compare`.
std::int32_t qz_vector_find_sorted(const qz_vector* vector, qz_compare_fn compare,
                                   const void* key) noexcept;

// Opens an iterator of kind QZ_VECTOR. After remove or erase it stands on the element that
// followed. Kept: stepping past the last element leaves the begin flag as it was, so a vector of
// one element ends with both flags set.
[[nodiscard]] qz_iterator* qz_vector_open(qz_vector* vector) noexcept;

struct qz_vector_deleter {
    void operator()(qz_vector* vector) const noexcept { qz_vector_destroy(vector); }
};
using vector_ptr = std::unique_ptr<qz_vector, qz_vector_deleter>;

// The elements as a range: for (void* word : qz_each(vector)). Ends its validity with any change.
inline std::span<void* const> qz_each(const qz_vector* vector) noexcept {
    return {vector->data, static_cast<std::size_t>(vector->count)};
}
