// Circular doubly linked lists whose links live in the elements.
//
// An element type derives from list_link; a list_head<T> points to itself when it is empty. The
// list owns nothing: elements are unlinked and freed by whoever allocated them. Not thread-safe.
#pragma once

struct list_link {
    list_link* next = this;
    list_link* prev = this;

    list_link() = default;
    list_link(const list_link&) = delete;
    list_link& operator=(const list_link&) = delete;
    list_link(list_link&&) = delete;
    list_link& operator=(list_link&&) = delete;
    ~list_link() = default;

    // True when the element stands in no list.
    [[nodiscard]] bool alone() const { return next == this; }

    // Takes the element out of its list; it is then a list of its own.
    void unlink() {
        prev->next = next;
        next->prev = prev;
        next = prev = this;
    }

    // Inserts this element behind `place`. Requires: alone().
    void insert_after(list_link* place) {
        next = place->next;
        prev = place;
        place->next->prev = this;
        place->next = this;
    }
};

// The head of a list of T, which derives from list_link. Not copyable: its elements point to it.
template <class T>
class list_head {
  public:
    // Forward iteration; the element that the iterator stands on must not be unlinked.
    class iterator {
      public:
        explicit iterator(list_link* at) : at_(at) {}
        T& operator*() const { return *static_cast<T*>(at_); }
        iterator& operator++() {
            at_ = at_->next;
            return *this;
        }
        bool operator==(const iterator&) const = default;

      private:
        list_link* at_;
    };

    [[nodiscard]] bool empty() const { return head_.alone(); }
    // Null when the list is empty.
    [[nodiscard]] T* first() { return empty() ? nullptr : static_cast<T*>(head_.next); }
    // Require: the element is alone. The list does not own it.
    void push_front(T* element) { element->insert_after(&head_); }
    void push_back(T* element) { element->insert_after(head_.prev); }
    iterator begin() { return iterator(head_.next); }
    iterator end() { return iterator(&head_); }

    // Unlinks each element, first to last, and hands it to `destroy`.
    template <class Destroy>
    void free_all(Destroy destroy) {
        while (T* element = first()) {
            element->unlink();
            destroy(element);
        }
    }

  private:
    list_link head_;
};
