#include "lib/qz_vector.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "lib/alloc.h"

namespace {

// A vector starts with this many slots, and one without slots grows to it.
constexpr std::int32_t least_capacity = 8;

std::size_t slot_bytes(std::size_t count) {
    return count * sizeof(void*);
}

// Makes room for one more element.
void grow_if_full(qz_vector* vector) {
    if (static_cast<std::uint32_t>(vector->count) < vector->capacity) {
        return;
    }
    const std::uint64_t capacity =
        vector->capacity == 0 ? least_capacity : std::uint64_t{vector->capacity} * 2;
    if (capacity > static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max())) {
        std::abort();  // the count could not follow
    }
    vector->data = static_cast<void**>(qz_need_resize(vector->data, slot_bytes(capacity)));
    vector->capacity = static_cast<std::uint32_t>(capacity);
}

bool in_range(const qz_vector* vector, std::int32_t index) {
    return index >= 0 && index < vector->count;
}

// --- Iterator slots ---

qz_vector* vector_of(const qz_iterator* iterator) {
    return static_cast<qz_vector*>(iterator->container);
}

std::int32_t index_of(const qz_iterator* iterator) {
    return static_cast<std::int32_t>(iterator->position->index);
}

// Null at the end, and past the last element when the vector has shrunk since the last step.
void* iterator_data(qz_iterator* iterator) {
    if ((iterator->flags & qz_at_end) != 0) {
        return nullptr;
    }
    return qz_vector_at(vector_of(iterator), index_of(iterator));
}

qz_iterator* iterator_next(qz_iterator* iterator) {
    if ((iterator->flags & qz_at_end) != 0) {
        return iterator;
    }
    if (index_of(iterator) >= vector_of(iterator)->count - 1) {
        // Kept: the begin flag stays, so a walk over one element ends with both flags set.
        iterator->flags |= qz_at_end;
    } else {
        iterator->flags &= ~qz_at_begin;
    }
    ++iterator->position->index;
    return iterator;
}

void iterator_close(qz_iterator* iterator) {
    qzfree(iterator->position);
    qzfree(iterator);
}

int iterator_isend(const qz_iterator* iterator) {
    return (iterator->flags & qz_at_end) != 0;
}

int iterator_isbegin(const qz_iterator* iterator) {
    return (iterator->flags & qz_at_begin) != 0;
}

void* iterator_remove(qz_iterator* iterator) {
    if ((iterator->flags & qz_at_end) != 0) {
        return nullptr;
    }
    void* element = qz_vector_remove(vector_of(iterator), index_of(iterator));
    if (index_of(iterator) >= vector_of(iterator)->count) {
        iterator->flags |= qz_at_end;
    }
    return element;
}

void iterator_erase(qz_iterator* iterator) {
    if ((iterator->flags & qz_at_end) != 0) {
        return;
    }
    const qz_vector* vector = vector_of(iterator);
    const bool there = in_range(vector, index_of(iterator));  // not when it has shrunk elsewhere
    void* element = iterator_remove(iterator);
    if (there && vector->element_free != nullptr) {
        vector->element_free(element);
    }
}

void iterator_rewind(qz_iterator* iterator) {
    iterator->position->index = 0;
    iterator->flags = vector_of(iterator)->count == 0 ? qz_at_begin | qz_at_end : qz_at_begin;
}

constexpr qz_iterator_ops vector_ops = {
    .data = iterator_data,
    .next = iterator_next,
    .close = iterator_close,
    .isend = iterator_isend,
    .isbegin = iterator_isbegin,
    .erase = iterator_erase,
    .remove = iterator_remove,
    .rewind = iterator_rewind,
};

}  // namespace

qz_vector* new_qz_vector(std::int32_t initial, qz_free_fn element_free) noexcept {
    auto* vector = qz_need_new<qz_vector>();
    vector->capacity = static_cast<std::uint32_t>(std::max(initial, least_capacity));
    vector->element_free = element_free;
    vector->data = static_cast<void**>(qz_need_bytes(slot_bytes(vector->capacity)));
    return vector;
}

void qz_vector_pushback(qz_vector* vector, void* value) noexcept {
    grow_if_full(vector);
    vector->data[vector->count++] = value;
}

void qz_vector_pushfront(qz_vector* vector, void* value) noexcept {
    qz_vector_insert(vector, value, 0);
}

void qz_vector_insert(qz_vector* vector, void* value, std::int32_t index) noexcept {
    assert(index >= 0 && index <= vector->count);
    index = std::clamp(index, 0, vector->count);
    grow_if_full(vector);
    void** place = vector->data + index;
    std::memmove(place + 1, place, slot_bytes(static_cast<std::size_t>(vector->count - index)));
    *place = value;
    ++vector->count;
}

void* qz_vector_remove(qz_vector* vector, std::int32_t index) noexcept {
    if (!in_range(vector, index)) {
        return nullptr;
    }
    void** place = vector->data + index;
    void* element = *place;
    --vector->count;
    std::memmove(place, place + 1, slot_bytes(static_cast<std::size_t>(vector->count - index)));
    vector->data[vector->count] = nullptr;
    return element;
}

void* qz_vector_popback(qz_vector* vector) noexcept {
    return qz_vector_remove(vector, vector->count - 1);
}

void* qz_vector_popfront(qz_vector* vector) noexcept {
    return qz_vector_remove(vector, 0);
}

void* qz_vector_at(const qz_vector* vector, std::int32_t index) noexcept {
    return in_range(vector, index) ? vector->data[index] : nullptr;
}

std::int32_t qz_vector_size(const qz_vector* vector) noexcept {
    return vector->count;
}

void qz_vector_foreach(const qz_vector* vector, qz_visit_fn fn, void* arg) noexcept {
    for (std::int32_t i = 0; i < vector->count; ++i) {
        (void)fn(vector->data[i], arg);  // a visitor cannot stop the walk
    }
}

void qz_vector_clear(qz_vector* vector, qz_free_fn fn) noexcept {
    if (fn != nullptr) {
        for (void* element : qz_each(vector)) {
            fn(element);
        }
    }
    // Slots in use are zeroed: nothing stale can be read through the public fields.
    std::fill_n(vector->data, vector->count, nullptr);
    vector->count = 0;
}

void qz_vector_delete(qz_vector* vector) noexcept {
    if (vector != nullptr) {
        qzfree(vector->data);
        qzfree(vector);
    }
}

void qz_vector_destroy(qz_vector* vector) noexcept {
    if (vector == nullptr) {
        return;
    }
    if (vector->element_free != nullptr) {
        qz_vector_clear(vector, vector->element_free);
    }
    qz_vector_delete(vector);
}

qz_vector* qz_vector_copy(const qz_vector* vector) noexcept {
    qz_vector* copy = new_qz_vector(vector->count, vector->element_free);
    std::copy_n(vector->data, vector->count, copy->data);
    copy->count = vector->count;
    return copy;
}

std::int32_t qz_vector_find_sorted(const qz_vector* vector, qz_compare_fn compare,
                                   const void* key) noexcept {
    std::int32_t low = 0;
    std::int32_t high = vector->count - 1;
    while (low <= high) {
        const std::int32_t middle = low + (high - low) / 2;  // the sum could overflow
        const int order = compare(key, vector->data[middle]);
        if (order == 0) {
            return middle;
        }
        if (order < 0) {
            high = middle - 1;
        } else {
            low = middle + 1;
        }
    }
    return -1;
}

qz_iterator* qz_vector_open(qz_vector* vector) noexcept {
    auto* iterator = qz_need_new<qz_iterator>();
    iterator->kind = QZ_VECTOR;
    iterator->container = vector;
    iterator->position = qz_need_new<qz_position>();
    iterator->ops = &vector_ops;
    iterator_rewind(iterator);
    return iterator;
}
