// Property sets for the tests of their wire form and their text forms.
#pragma once

#include "lib/kv.h"
#include "lib/plat.h"
#include "lib/text_form.h"
#include "tests/support/testing.h"

template <class T>
void add(propset* set, const char* name, std::uint32_t type, const T& data,
         std::uint32_t flags = 0) {
    ASSERT_EQ(ps_add(set, new_kv(name, flags, type, sizeof data, &data)), 0);
}

inline void add_set(propset* set, const char* name, std::uint32_t type, const propset* inner) {
    ASSERT_EQ(ps_add(set, new_kv(name, 0, type, 4, inner)), 0);
}

template <class T>
void add_array(propset* set, const char* name, std::uint32_t type, std::initializer_list<T> items) {
    val_array* array = new_val_array(0, type);
    for (const T& item : items) {
        ASSERT_EQ(val_array_add(array, new_value(type, sizeof item, &item)), 0);
    }
    ASSERT_EQ(ps_add(set, new_kv_assign(qzstrdup(name), 0, type | KV_ARRAY, 4, array)), 0);
}

// One entry of every datatype.
inline propset_ptr every_type() {
    propset_ptr owned(new_ps(0));
    propset* set = owned.get();
    const qz_guid guid{0x01234567, 0x89ab, 0xcdef, {1, 2, 3, 4, 5, 6, 7, 8}};
    add(set, "a_bool", KV_BOOLEAN, std::uint8_t{1});
    add(set, "b_i32", KV_INT32, std::int32_t{-2}, 0x10);
    add(set, "c_u32", KV_UINT32, std::uint32_t{4'000'000'000});
    add(set, "d_i64", KV_INT64, -(std::int64_t{1} << 40) - 3);
    add(set, "e_u64", KV_UINT64, (std::uint64_t{1} << 63) + 7, 0xdeadbeef);
    add(set, "f_str", KV_STRING, "h\u00e9y!");
    add(set, "g_wstr", KV_WSTRING, u"h\u20ac\U0001f600");
    add(set, "h_bin", KV_BINARY, std::array<unsigned char, 3>{0, 0xff, 0x10});
    add(set, "i_guid", KV_GUID, guid);
    const propset_ptr inner(new_ps(0));
    add(inner.get(), "in", KV_STRING, "", 1);
    add_set(set, "j_set", KV_PROPERTY_SET, inner.get());
    add(set, "k_objid", KV_OBJID, guid);
    add(set, "l_time", KV_TIME, std::uint64_t{1'700'000'000});
    add_array<std::int32_t>(set, "m_arr", KV_INT32, {1, -1, 7});
    add_array<std::array<char, 2>>(set, "n_sarr", KV_STRING, {{'x'}, {}});
    const propset_ptr empty(new_ps(0));
    add_set(set, "o_obj", KV_OBJECT, empty.get());
    return owned;
}
