// Proves the wire form against bytes made with another tool, and that the checked reader refuses
// every broken block without leak or crash.

#include "tests/lib/kv_sample.h"

namespace {

using namespace std::string_literals;

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

TEST(wire_form, is_the_bytes_of_another_tool_both_ways) {
    const block bytes = from_hex(every_type_hex);
    const propset_ptr expected = every_type();
    EXPECT_EQ(marshalled(expected.get()), bytes);
    EXPECT_EQ(marshalled(propset_ptr(new_ps(0)).get()), block(4, 0));
    EXPECT_EQ(ps_compare(read_checked(bytes).get(), expected.get()), 1);
    propset* read = nullptr;
    EXPECT_EQ(ps_binary_unpack(bytes.data(), &read), bytes.data() + bytes.size());
    const propset_ptr trusted(read);
    EXPECT_EQ(ps_compare(read, expected.get()), 1);
    const std::uint32_t lengths[] = {1, 4, 4, 8, 8, 6, 10, 3, 16, 4, 16, 8, 4, 4, 4};
    for (std::int32_t i = 0; i < ps_getcount(read); ++i) {
        EXPECT_EQ(ps_at(read, i)->value->length, lengths[i]) << ps_at(read, i)->name;
        EXPECT_EQ(ps_at(read, i)->flags, ps_at(expected.get(), i)->flags);
    }
}

TEST(wire_form, items_alone_end_where_the_next_begins) {
    const block bytes = from_hex(every_type_hex);
    const propset_ptr expected = every_type();
    const unsigned char* at = bytes.data() + 4;  // behind the count
    for (void* word : qz_each(expected->entries)) {
        const auto* entry = static_cast<kv*>(word);
        const std::uint32_t type = entry->value->datatype;
        kv* read = nullptr;
        const unsigned char* end = kv_binary_unpack(at, &read);
        EXPECT_EQ(kv_compare(read, entry), 1) << entry->name;
        kv_free(read);
        at += 12 + std::strlen(entry->name);  // type, length, name, flags
        kv_value* value = nullptr;
        EXPECT_EQ(value_binary_unpack(at, &value, type), end) << entry->name;
        EXPECT_EQ(value_compare(value, entry->value), 1) << entry->name;
        value_free(value);
        if ((type & KV_ARRAY) != 0) {
            val_array* array = nullptr;
            EXPECT_EQ(val_array_binary_unpack(at, &array, type & ~KV_ARRAY), end) << entry->name;
            EXPECT_EQ(array->values->count, qz_as<val_array>(entry->value->data)->values->count);
            val_array_free(array);
        }
        at = end;
    }
    EXPECT_EQ(at, bytes.data() + bytes.size());
}

// One entry named `name` with the boolean true.
std::string boolean_hex(char name, char flags) {
    return "00000001000000016"s + name + "0000000" + flags + "01";
}

TEST(wire_form, reading_sorts_and_puts_the_later_of_equals_first) {
    const propset_ptr set =
        read_checked(from_hex("00000004" + boolean_hex('2', '1') + boolean_hex('1', '2') +
                              boolean_hex('2', '3') + boolean_hex('3', '4')));
    std::string order;
    for (void* word : qz_each(set->entries)) {
        order += static_cast<kv*>(word)->name + std::to_string(static_cast<kv*>(word)->flags);
    }
    EXPECT_EQ(order, "a2b3b1c4");
}

TEST(wire_form, storage_bits_never_travel) {
    const propset_ptr set = read_checked(from_hex("0000000160000006000000016100000000000000017a"));
    ASSERT_NE(set, nullptr);
    EXPECT_EQ(ps_at(set.get(), 0)->value->datatype, KV_STRING);

    const propset_ptr packed(new_ps(0));
    add(packed.get(), "a", KV_STRING | KV_WIRE, std::array<char, 5>{0, 0, 0, 1, 'z'});
    EXPECT_EQ(marshalled(packed.get()), from_hex("0000000100000006000000016100000000000000017a"));
}

TEST(wire_form, unknown_codes_have_no_body_for_the_trusting_reader) {
    const block bytes = from_hex("0000000100000063000000016100000005");
    propset* read = nullptr;
    EXPECT_EQ(ps_unmarshal(bytes.data(), &read), bytes.data() + bytes.size());
    const propset_ptr set(read);
    EXPECT_EQ(ps_at(read, 0)->value->data, nullptr);
    EXPECT_EQ(ps_at(read, 0)->value->length, 0U);
    EXPECT_EQ(marshalled(read), bytes);
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
    const struct {
        const char* hex;
        const char* what;
    } rows[] = {
        {"ffffffff", "entries"},
        {"00000001800000630000000000000000ffffffff", "elements without a body"},
        {"000000018000000100000000000000007fffffff", "booleans"},
        {"0000000100000006ffffffff00000000", "name"},
        {"00000001000000070000000000000000800000010000", "units: twice overflows"},
        {"00000001000000080000000000000000ffffffff", "bytes"},
        {"00000001000000120000000000000000", "code 18"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(read_checked(from_hex(row.hex)), nullptr) << row.what;
    }
}

TEST(checked_reader, refuses_deep_nesting) {
    const auto nested_sets = [](int levels) {
        std::string hex;
        for (int i = 1; i < levels; ++i) {
            hex += "000000010000000a0000000000000000";
        }
        return from_hex(hex + "00000000");
    };
    EXPECT_NE(read_checked(nested_sets(64)), nullptr);
    EXPECT_EQ(read_checked(nested_sets(65)), nullptr);
    EXPECT_EQ(read_checked(nested_sets(200'000)), nullptr);
}

}  // namespace
