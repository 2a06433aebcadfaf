// Callback types and the iterator that every container of the library shares.
//
// Containers hold machine words (void*): they never copy what a word points to, and they dispose of
// it only through callbacks. An iterator is used through its operation table, so one loop serves
// every container:
//
//     for (qz_cursor at(qz_map_open(map)); !at.at_end(); at.next()) {
//         auto* pair = at.data<qz_pair>();
//     }
//
// Removing an entry from a tree or hash container ends the validity of every pair pointer and of
// every iterator of that container, except the iterator that was used for removing; inserting ends
// neither. None of this is safe for use from two threads.
#pragma once

#include <cstdint>

// Orders a probe against a stored key: negative, 0 or positive. The probe is always the first
// argument, so a comparator may treat the two sides differently.
using qz_compare_fn = int (*)(const void* probe, const void* stored);

// Disposes of one key, value or element. Must not touch the container it is called from.
using qz_free_fn = void (*)(void* word);

// Visits one entry; the result is ignored. Must not change the container that is being walked.
using qz_visit_fn = int (*)(void* item, void* arg);

using qz_hash_fn = std::uint32_t (*)(const void* key);

enum qz_kind : std::int32_t { QZ_MULTIMAP = 1, QZ_MAP = 2, QZ_SET = 3, QZ_VECTOR = 4 };

// The key/value view of an entry. Iterators and qz_map_at give a pointer into the container (do not
// free, do not change the key); remove operations give a new pair that the caller frees.
struct qz_pair {
    void* key;
    void* value;
};

struct qz_iterator;

struct qz_iterator_ops {
    // The current entry: qz_pair* for maps, the key for sets, the element for vectors; null at the
    // end.
    void* (*data)(qz_iterator*);
    // Steps forward and returns the iterator.
    qz_iterator* (*next)(qz_iterator*);
    // Frees the iterator.
    void (*close)(qz_iterator*);
    // 0 or 1.
    int (*isend)(const qz_iterator*);
    // 1 while the iterator has not moved since it was opened or rewound.
    int (*isbegin)(const qz_iterator*);
    // Removes the current entry and disposes of it through the container's callbacks; the iterator
    // then stands on the following entry. Nothing at the end.
    void (*erase)(qz_iterator*);
    // Removes the current entry and hands it to the caller: a new qz_pair for maps, the key for
    // sets, the element for vectors; null at the end.
    void* (*remove)(qz_iterator*);
    // Back to the first entry.
    void (*rewind)(qz_iterator*);
};

// Where an iterator stands. Trees use node, vectors index, hash containers the bucket's index and
// the bucket's own iterator.
struct qz_position {
    std::uintptr_t index;
    void* node;
};

inline constexpr std::uint32_t qz_at_begin = 0x1;
inline constexpr std::uint32_t qz_at_end = 0x2;

struct qz_iterator {
    std::uint8_t kind;
    std::uint32_t flags;
    void* container;
    qz_position* position;
    const qz_iterator_ops* ops;
};

// Closes an iterator at the end of its scope.
class qz_cursor {
  public:
    explicit qz_cursor(qz_iterator* iterator) noexcept : iterator_(iterator) {}
    ~qz_cursor() { iterator_->ops->close(iterator_); }
    qz_cursor(const qz_cursor&) = delete;
    qz_cursor& operator=(const qz_cursor&) = delete;
    qz_cursor(qz_cursor&&) = delete;
    qz_cursor& operator=(qz_cursor&&) = delete;

    [[nodiscard]] bool at_end() const noexcept { return iterator_->ops->isend(iterator_) != 0; }
    [[nodiscard]] bool at_begin() const noexcept { return iterator_->ops->isbegin(iterator_) != 0; }
    void next() noexcept { iterator_->ops->next(iterator_); }
    void rewind() noexcept { iterator_->ops->rewind(iterator_); }
    void erase() noexcept { iterator_->ops->erase(iterator_); }
    template <class T>
    [[nodiscard]] T* data() const noexcept {
        return static_cast<T*>(iterator_->ops->data(iterator_));
    }
    template <class T>
    [[nodiscard]] T* remove() noexcept {
        return static_cast<T*>(iterator_->ops->remove(iterator_));
    }
    [[nodiscard]] qz_iterator* get() const noexcept { return iterator_; }

  private:
    qz_iterator* iterator_;
};

// A stored word as the pointer it is: qz_as<namespace_record>(pair->value).
template <class T>
T* qz_as(void* word) noexcept {
    return static_cast<T*>(word);
}

// Small integers stored as words.
inline void* qz_word_of(std::uintptr_t number) noexcept {
    return reinterpret_cast<void*>(number);  // never dereferenced
}
inline std::uintptr_t qz_number_of(const void* word) noexcept {
    return reinterpret_cast<std::uintptr_t>(word);
}
