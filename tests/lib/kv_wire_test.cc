// Proves the wire form against bytes made with another tool, and that the checked reader refuses
// every broken block without leak or crash.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "lib/kv.h"
#include "lib/plat.h"

namespace {

using block = std::vector<unsigned char>;

// One entry of every datatype, packed big-endian by Python's struct module.
const char* const every_type_hex =
    "0000000f0000000100000006615f626f6f6c00000000010000000200000005625f69333200000010fffffffe"
    "0000000300000005635f75333200000000ee6b28000000000400000005645f69363400000000fffffeffffff"
    "fffd0000000500000005655f753634deadbeef80000000000000070000000600000005665f73747200000000"
    "0000000568c3a979210000000700000006675f777374720000000000000004006820acd83dde000000000800"
    "000005685f62696e000000000000000300ff100000000900000006695f67756964000000000123456789abcd"
    "ef01020304050607080000000a000000056a5f73657400000000000000010000000600000002696e00000001"
    "000000000000000b000000076b5f6f626a6964000000000123456789abcdef01020304050607080001000500"
    "0000066c5f74696d6500000000000000006553f10080000002000000056d5f61727200000000000000030000"
    "0001ffffffff0000000780000006000000066e5f736172720000000000000002000000017800000000000000"
    "0c000000056f5f6f626a0000000000000000";

block from_hex(const std::string& hex) {
    block bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<unsigned char>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
    return bytes;
}

block marshalled(const propset* set) {
    std::uint32_t size = 0;
    const qz_owned<unsigned char> bytes(ps_marshal(set, &size));
    EXPECT_EQ(size, ps_binary_pack_size(set));
    return {bytes.get(), bytes.get() + size};
}

// Reads from a heap block of exactly this size.
propset_ptr read_checked(const block& bytes) {
    const auto exact = std::make_unique<unsigned char[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), exact.get());
    propset* set = nullptr;
    const unsigned char* end = ps_unmarshal_bounded(exact.get(), exact.get() + bytes.size(), &set);
    EXPECT_EQ(end != nullptr, set != nullptr);
    return propset_ptr(set);
}

template <class T>
void add(propset* set, const char* name, std::uint32_t flags, std::uint32_t type, T number) {
    ASSERT_EQ(ps_add(set, new_kv(name, flags, type, sizeof number, &number)), 0);
}

void add_text(propset* set, const char* name, std::uint32_t flags, const std::string& text) {
    ASSERT_EQ(ps_add(set, new_kv(name, flags, KV_STRING,
                                 static_cast<std::uint32_t>(text.size() + 1), text.c_str())),
              0);
}

template <class T>
void add_array(propset* set, const char* name, std::uint32_t type, const std::vector<T>& items) {
    val_array* array = new_val_array(0, type);
    for (const T& item : items) {
        if constexpr (std::is_same_v<T, std::string>) {
            ASSERT_EQ(val_array_add(array, new_value(type, static_cast<std::uint32_t>(item.size()),
                                                     item.c_str())),
                      0);
        } else {
            ASSERT_EQ(val_array_add(array, new_value(type, sizeof item, &item)), 0);
        }
    }
    ASSERT_EQ(ps_add(set, new_kv_assign(qzstrdup(name), 0, type | KV_ARRAY, 4, array)), 0);
}

propset_ptr every_type() {
    propset_ptr set(new_ps(0));
    const unsigned char guid[16] = {0x67, 0x45, 0x23, 0x01, 0xab, 0x89, 0xef, 0xcd,
                                    1,    2,    3,    4,    5,    6,    7,    8};
    const char16_t units[] = u"h\u20ac\U0001f600";
    add(set.get(), "a_bool", 0, KV_BOOLEAN, std::uint8_t{1});
    add(set.get(), "b_i32", 0x10, KV_INT32, std::int32_t{-2});
    add(set.get(), "c_u32", 0, KV_UINT32, std::uint32_t{4'000'000'000});
    add(set.get(), "d_i64", 0, KV_INT64, -(std::int64_t{1} << 40) - 3);
    add(set.get(), "e_u64", 0xdeadbeef, KV_UINT64, (std::uint64_t{1} << 63) + 7);
    add_text(set.get(), "f_str", 0, "h\u00e9y!");
    EXPECT_EQ(ps_add(set.get(), new_kv("g_wstr", 0, KV_WSTRING, sizeof units, units)), 0);
    EXPECT_EQ(ps_add(set.get(), new_kv("h_bin", 0, KV_BINARY, 3, "\0\xff\x10")), 0);
    EXPECT_EQ(ps_add(set.get(), new_kv("i_guid", 0, KV_GUID, 16, guid)), 0);
    const propset_ptr inner(new_ps(0));
    add_text(inner.get(), "in", 1, "");
    EXPECT_EQ(ps_add(set.get(), new_kv("j_set", 0, KV_PROPERTY_SET, 4, inner.get())), 0);
    EXPECT_EQ(ps_add(set.get(), new_kv("k_objid", 0, KV_OBJID, 16, guid)), 0);
    add(set.get(), "l_time", 0, KV_TIME, std::uint64_t{1'700'000'000});
    add_array<std::int32_t>(set.get(), "m_arr", KV_INT32, {1, -1, 7});
    add_array<std::string>(set.get(), "n_sarr", KV_STRING, {"x", ""});
    const propset_ptr empty(new_ps(0));
    EXPECT_EQ(ps_add(set.get(), new_kv("o_obj", 0, KV_OBJECT, 4, empty.get())), 0);
    return set;
}

TEST(wire_form, writes_the_bytes_of_another_tool) {
    EXPECT_EQ(marshalled(every_type().get()), from_hex(every_type_hex));
    EXPECT_EQ(marshalled(propset_ptr(new_ps(0)).get()), block(4, 0));
}

TEST(wire_form, both_readers_read_them_back) {
    const block bytes = from_hex(every_type_hex);
    const propset_ptr expected = every_type();
    const propset_ptr checked = read_checked(bytes);
    EXPECT_EQ(ps_compare(checked.get(), expected.get()), 1);
    propset* trusted = nullptr;
    EXPECT_EQ(ps_unmarshal(bytes.data(), &trusted), bytes.data() + bytes.size());
    EXPECT_EQ(ps_compare(trusted, expected.get()), 1);
    const std::uint32_t lengths[] = {1, 4, 4, 8, 8, 6, 10, 3, 16, 4, 16, 8, 4, 4, 4};
    for (std::int32_t i = 0; i < ps_getcount(trusted); ++i) {
        EXPECT_EQ(ps_at(trusted, i)->value->length, lengths[i]) << ps_at(trusted, i)->name;
        EXPECT_EQ(ps_at(trusted, i)->flags, ps_at(expected.get(), i)->flags);
    }
    ps_free(trusted);
}

TEST(wire_form, reading_sorts_and_puts_the_later_of_equals_first) {
    const block bytes = from_hex(
        "00000003"
        "00000001"
        "0000000162"
        "00000001"
        "01"
        "00000001"
        "0000000161"
        "00000002"
        "01"
        "00000001"
        "0000000162"
        "00000003"
        "01");
    const propset_ptr set = read_checked(bytes);
    ASSERT_EQ(ps_getcount(set.get()), 3);
    EXPECT_EQ(ps_at(set.get(), 0)->flags, 2U);
    EXPECT_EQ(ps_at(set.get(), 1)->flags, 3U);
    EXPECT_EQ(ps_at(set.get(), 2)->flags, 1U);
}

TEST(wire_form, storage_bits_never_travel) {
    const block bytes = from_hex("0000000160000006000000016100000000000000017a");
    const propset_ptr set = read_checked(bytes);
    ASSERT_NE(set, nullptr);
    EXPECT_EQ(ps_at(set.get(), 0)->value->datatype, KV_STRING);

    const propset_ptr packed(new_ps(0));
    ASSERT_EQ(ps_add(packed.get(), new_kv("a", 0, KV_STRING | KV_WIRE, 5, "\0\0\0\1z")), 0);
    EXPECT_EQ(marshalled(packed.get()), from_hex("0000000100000006000000016100000000000000017a"));
}

TEST(wire_form, unknown_codes_have_no_body_for_the_trusting_reader) {
    const block bytes = from_hex("0000000100000063000000016100000005");
    propset* set = nullptr;
    EXPECT_EQ(ps_unmarshal(bytes.data(), &set), bytes.data() + bytes.size());
    EXPECT_EQ(ps_at(set, 0)->value->data, nullptr);
    EXPECT_EQ(ps_at(set, 0)->value->length, 0U);
    EXPECT_EQ(marshalled(set), bytes);
    ps_free(set);
    EXPECT_EQ(read_checked(bytes), nullptr);
}

TEST(checked_reader, refuses_every_truncation) {
    const block bytes = from_hex(every_type_hex);
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        EXPECT_EQ(read_checked({bytes.begin(), bytes.begin() + static_cast<int>(size)}), nullptr)
            << size;
    }
    block longer = bytes;
    longer.push_back(0);
    EXPECT_NE(read_checked(longer), nullptr);
    propset* untouched = nullptr;
    EXPECT_EQ(ps_unmarshal_bounded(nullptr, nullptr, &untouched), nullptr);
}

TEST(checked_reader, refuses_counts_that_cannot_be_true) {
    for (const char* hex : {
             "ffffffff",  // entries
             "0000000180000063"
             "00000000"
             "00000000"
             "ffffffff",  // elements without a body
             "0000000180000001"
             "00000000"
             "00000000"
             "7fffffff",  // booleans
             "0000000100000006"
             "ffffffff"
             "00000000",  // name
             "0000000100000007"
             "00000000"
             "00000000"
             "80000001"
             "0000",  // units: twice overflows
             "0000000100000008"
             "00000000"
             "00000000"
             "ffffffff",  // bytes
             "0000000100000012"
             "00000000"
             "00000000",  // code 18
         }) {
        EXPECT_EQ(read_checked(from_hex(hex)), nullptr) << hex;
    }
}

block nested_sets(int levels) {
    block bytes;
    for (int i = 1; i < levels; ++i) {
        const block level = from_hex(
            "00000001"
            "0000000a"
            "00000000"
            "00000000");
        bytes.insert(bytes.end(), level.begin(), level.end());
    }
    bytes.insert(bytes.end(), 4, 0);
    return bytes;
}

TEST(checked_reader, refuses_deep_nesting) {
    EXPECT_NE(read_checked(nested_sets(64)), nullptr);
    EXPECT_EQ(read_checked(nested_sets(65)), nullptr);
    EXPECT_EQ(read_checked(nested_sets(200'000)), nullptr);
}

// What is accepted packs to the announced size and reads back as the same set.
TEST(checked_reader, survives_random_damage) {
    std::mt19937 random(23);
    const block original = from_hex(every_type_hex);
    int accepted = 0;
    for (int i = 0; i < 20000; ++i) {
        block bytes = original;
        for (unsigned n = 1 + static_cast<unsigned>(random() % 4); n > 0; --n) {
            bytes[random() % bytes.size()] = static_cast<unsigned char>(random());
        }
        const propset_ptr set = read_checked(bytes);
        if (set != nullptr) {
            ++accepted;
            const propset_ptr again = read_checked(marshalled(set.get()));
            ASSERT_EQ(ps_getcount(again.get()), ps_getcount(set.get()));
        }
    }
    EXPECT_GT(accepted, 1000);
}

}  // namespace
