// A counted reference to a namespace record.
#pragma once

#include <utility>

#include "core/fwd.h"

// Defined in security/authz.cc. Null is ignored. The last release frees the record.
void namespace_retain(namespace_record* record);
void namespace_release(namespace_record* record);

// Holds one reference as long as it names the record; used like a pointer.
class namespace_ref {
  public:
    namespace_ref() = default;
    ~namespace_ref() { namespace_release(record_); }
    namespace_ref(const namespace_ref&) = delete;
    namespace_ref& operator=(const namespace_ref&) = delete;
    namespace_ref(namespace_ref&& other) noexcept
        : record_(std::exchange(other.record_, nullptr)) {}
    namespace_ref& operator=(namespace_ref&& other) noexcept {
        std::swap(record_, other.record_);
        return *this;
    }

    // Takes a reference of its own to the record, which may be null.
    namespace_ref& operator=(namespace_record* record) {
        namespace_retain(record);
        namespace_release(std::exchange(record_, record));
        return *this;
    }

    [[nodiscard]] namespace_record* get() const { return record_; }
    namespace_record* operator->() const { return record_; }
    explicit operator bool() const { return record_ != nullptr; }

  private:
    namespace_record* record_ = nullptr;
};
