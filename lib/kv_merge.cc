// Merging and comparing property sets.
#include <cassert>
#include <cstring>

#include "lib/alloc.h"
#include "lib/kv.h"
#include "lib/kv_types.h"
#include "lib/qz_result.h"

namespace {

// Walks dst and src together. For each name of src, in order, stands on the first dst entry whose
// name is not smaller.
class merge_walk {
  public:
    explicit merge_walk(propset* dst) : dst_(dst) {}

    // Returns the dst entry of that name, or null when it is absent.
    kv* seek(const char* name) {
        while (kv* entry = ps_at(dst_, place_)) {
            const int order = std::strcmp(entry->name, name);
            if (order == 0) {
                return entry;
            }
            if (order > 0) {
                break;
            }
            ++place_;
        }
        return nullptr;
    }

    // Puts an entry at the place where seek ended.
    void insert(kv* entry) { qz_vector_insert(dst_->entries, entry, place_); }

  private:
    propset* dst_;
    std::int32_t place_ = 0;
};

bool bodies_equal(const kv_value* a, const kv_value* b) {
    const std::size_t size = value_binary_pack_size(a);
    if (size != value_binary_pack_size(b)) {
        return false;
    }
    const qz_owned<unsigned char> left(static_cast<unsigned char*>(qz_need_bytes(size)));
    const qz_owned<unsigned char> right(static_cast<unsigned char*>(qz_need_bytes(size)));
    (void)value_binary_pack(left.get(), a);
    (void)value_binary_pack(right.get(), b);
    return std::memcmp(left.get(), right.get(), size) == 0;
}

bool arrays_equal(const val_array* a, const val_array* b) {
    const std::int32_t count = qz_vector_size(a->values);
    if (a->element_type != b->element_type || count != qz_vector_size(b->values)) {
        return false;
    }
    for (std::int32_t i = 0; i < count; ++i) {
        if (value_compare(static_cast<kv_value*>(qz_vector_at(a->values, i)),
                          static_cast<kv_value*>(qz_vector_at(b->values, i))) == 0) {
            return false;
        }
    }
    return true;
}

bool units_equal(const kv_value* a, const kv_value* b) {
    const std::uint32_t count = kv_unit_count(a);
    return count == kv_unit_count(b) && std::memcmp(a->data, b->data, std::size_t{count} * 2) == 0;
}

// Values of one type with data.
bool contents_equal(const kv_value* a, const kv_value* b) {
    if (kv_is_array(a)) {
        return arrays_equal(kv_elements(a), kv_elements(b));
    }
    switch (kv_type_of(a->datatype).layout) {
        case kv_layout::boolean:
            return (kv_number<std::uint8_t>(a) != 0) == (kv_number<std::uint8_t>(b) != 0);
        case kv_layout::word32:
            return kv_number<std::uint32_t>(a) == kv_number<std::uint32_t>(b);
        case kv_layout::word64:
            return kv_number<std::uint64_t>(a) == kv_number<std::uint64_t>(b);
        case kv_layout::text:
            return kv_text(a) == kv_text(b);
        case kv_layout::wide_text:
            return units_equal(a, b);
        case kv_layout::guid:
            return std::memcmp(a->data, b->data, kv_guid_bytes) == 0;
        case kv_layout::nested:
            return ps_compare(kv_nested(a), kv_nested(b)) == 1;
        case kv_layout::bytes:
        case kv_layout::unknown:
            break;
    }
    return a->length == b->length && std::memcmp(a->data, b->data, a->length) == 0;
}

}  // namespace

int ps_merge(propset* dst, const propset* src) noexcept {
    merge_walk walk(dst);
    for (std::int32_t i = 0; i < ps_getcount(src); ++i) {
        const kv* entry = ps_at(src, i);
        if (kv* old_entry = walk.seek(entry->name)) {
            (void)kv_update(old_entry, entry);  // a different datatype keeps the old value
        } else {
            walk.insert(kv_copy(entry));
        }
    }
    return qz_ok;
}

int ps_merge_fast(propset* dst, propset** src) noexcept {
    assert(dst != *src);
    merge_walk walk(dst);
    for (std::int32_t i = 0; i < ps_getcount(*src); ++i) {
        kv* entry = ps_at(*src, i);
        if (kv* old_entry = walk.seek(entry->name)) {
            if (kv_update_fast(old_entry, &entry) != qz_ok) {
                continue;  // stays in src
            }
        } else {
            walk.insert(entry);
        }
        // Kept: the place still advances, so the entry that moves up into it is passed over and
        // lost.
        (void)qz_vector_remove((*src)->entries, i);
    }
    ps_free(*src);
    *src = nullptr;
    return qz_ok;
}

int ps_merge_internal(propset* dst, const propset* src, std::uint32_t flag_mask) noexcept {
    bool changed = false;
    bool mismatch = false;
    merge_walk walk(dst);
    for (std::int32_t i = 0; i < ps_getcount(src); ++i) {
        const kv* entry = ps_at(src, i);
        kv* old_entry = walk.seek(entry->name);
        if (old_entry == nullptr) {
            walk.insert(kv_copy(entry));
            changed = true;
            continue;
        }
        const int result = kv_check_update(old_entry, entry);
        changed |= result == qz_ok;
        mismatch |= result == qz_type_mismatch;
        if ((old_entry->flags & flag_mask) != 0) {
            old_entry->flags ^= flag_mask;
            changed = true;
        }
    }
    if (mismatch) {
        return qz_invalid;
    }
    return changed ? qz_ok : qz_unchanged;
}

int value_compare(const kv_value* a, const kv_value* b) noexcept {
    if (a == b) {
        return 1;
    }
    if (a == nullptr || b == nullptr || kv_wire_type(a->datatype) != kv_wire_type(b->datatype)) {
        return 0;
    }
    if (kv_is_wire(a) || kv_is_wire(b)) {
        return bodies_equal(a, b);
    }
    if (a->data == nullptr || b->data == nullptr) {
        return a->data == b->data;
    }
    return contents_equal(a, b);
}

int kv_compare(const kv* a, const kv* b) noexcept {
    return a == b || (a != nullptr && b != nullptr && std::strcmp(a->name, b->name) == 0 &&
                      value_compare(a->value, b->value) == 1);
}

int ps_compare(const propset* a, const propset* b) noexcept {
    if (a == b) {
        return 1;
    }
    if (a == nullptr || b == nullptr || ps_getcount(a) != ps_getcount(b)) {
        return 0;
    }
    for (std::int32_t i = 0; i < ps_getcount(a); ++i) {
        if (kv_compare(ps_at(a, i), ps_at(b, i)) == 0) {
            return 0;
        }
    }
    return 1;
}
