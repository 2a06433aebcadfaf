// Circular doubly linked lists whose links live inside the listed structures.
//
// A head is a link that points to itself when the list is empty. The list owns nothing: a structure
// must be unlinked before it is freed. Walk a list like this; the body may unlink or free the
// current entry (but no other):
//
//     for (conn& c : list_each(&ctx->connections, &conn::link)) { ... }
#pragma once

#include <cstddef>

struct list_link {
    list_link* next;
    list_link* prev;
};
using list_head = list_link;

// Makes `head` an empty list, or `link` a link that is in no list.
inline void list_init(list_link* head) noexcept {
    head->next = head->prev = head;
}

[[nodiscard]] inline bool list_empty(const list_head* head) noexcept {
    return head->next == head;
}

// Puts `link` at the front. Requires: it is in no list.
inline void list_insert_front(list_head* head, list_link* link) noexcept {
    link->next = head->next;
    link->prev = head;
    head->next->prev = link;
    head->next = link;
}

// Puts `link` at the back. Requires: it is in no list.
inline void list_append(list_head* head, list_link* link) noexcept {
    list_insert_front(head->prev, link);
}

// Takes `link` out of its list and points it to itself, so unlinking twice is harmless.
inline void list_unlink(list_link* link) noexcept {
    link->prev->next = link->next;
    link->next->prev = link->prev;
    list_init(link);
}

// The structure whose member `member` is `link`.
template <class T>
T* list_owner(list_link* link, list_link T::*member) noexcept {
    alignas(T) static constinit unsigned char measure[sizeof(T)] = {};  // only addresses are taken
    T* at_zero = reinterpret_cast<T*>(measure);
    const std::ptrdiff_t offset = reinterpret_cast<unsigned char*>(&(at_zero->*member)) - measure;
    return reinterpret_cast<T*>(reinterpret_cast<unsigned char*>(link) - offset);
}

// A walk from front to back that holds the next link before the current entry is handed out.
template <class T>
class list_range {
  public:
    struct stop {};
    class cursor {
      public:
        cursor(list_head* head, list_link T::*member) noexcept
            : head_(head), link_(head->next), next_(head->next->next), member_(member) {}
        T& operator*() const noexcept { return *list_owner(link_, member_); }
        cursor& operator++() noexcept {
            link_ = next_;
            next_ = link_->next;
            return *this;
        }
        bool operator!=(stop) const noexcept { return link_ != head_; }

      private:
        list_head* head_;
        list_link* link_;
        list_link* next_;
        list_link T::*member_;
    };

    list_range(list_head* head, list_link T::*member) noexcept : head_(head), member_(member) {}
    cursor begin() const noexcept { return {head_, member_}; }
    stop end() const noexcept { return {}; }

  private:
    list_head* head_;
    list_link T::*member_;
};

template <class T>
list_range<T> list_each(list_head* head, list_link T::*member) noexcept {
    return {head, member};
}
