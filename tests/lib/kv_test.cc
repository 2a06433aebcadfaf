// Proves the property sets' results, ownership and merge rules. The leak checker sees who frees
// what.

#include "lib/qz_result.h"
#include "tests/lib/kv_sample.h"

namespace {

using namespace std::string_literals;

kv* text_entry(const char* name, const std::string& text, std::uint32_t flags = 0) {
    return new_kv(name, flags, KV_STRING, static_cast<std::uint32_t>(text.size() + 1),
                  text.c_str());
}

// "name=text|name=text|": strings as they are, other types as "#".
std::string summary(const propset* set) {
    std::string text;
    for (void* word : qz_each(set->entries)) {
        const auto* entry = static_cast<kv*>(word);
        text += entry->name;
        text += '=';
        text += entry->value->datatype == KV_STRING ? static_cast<char*>(entry->value->data) : "#";
        text += '|';
    }
    return text;
}

propset_ptr set_of(std::initializer_list<const char*> names, const char* value) {
    propset_ptr set(new_ps(0));
    for (const char* name : names) {
        EXPECT_EQ(ps_add(set.get(), text_entry(name, value)), 0);
    }
    return set;
}

TEST(property_set, refuses_what_is_there_and_what_has_no_data) {
    const propset_ptr set = set_of({"b", "a", "c"}, "v");
    EXPECT_EQ(summary(set.get()), "a=v|b=v|c=v|");
    const kv_ptr refused(text_entry("b", "w"));
    EXPECT_EQ(ps_add(set.get(), refused.get()), qz_exists);
    EXPECT_EQ(ps_add(set.get(), nullptr), qz_invalid);
    kv_ptr without_data(new_kv("x", 0, KV_STRING, 0, nullptr));
    kv* moved = without_data.get();
    EXPECT_EQ(ps_add(set.get(), moved), qz_invalid);
    EXPECT_EQ(ps_update(set.get(), moved), qz_invalid);
    EXPECT_EQ(ps_update_fast(set.get(), &moved), qz_invalid);
    EXPECT_EQ(summary(set.get()), "a=v|b=v|c=v|");
    EXPECT_EQ(ps_at(set.get(), 3), nullptr);
    propset_free(nullptr);
}

TEST(property_set, agrees_with_std_map_on_random_operations) {
    std::mt19937 random(17);
    const propset_ptr set(new_ps(0));
    std::map<std::string, std::string> model;
    for (int i = 0; i < 10000; ++i) {
        const std::string name = "k" + std::to_string(random() % 60);
        const std::string value = std::to_string(random() % 5);
        kv* entry = text_entry(name.c_str(), value);
        kv_ptr owned(entry);
        const bool present = model.contains(name);
        const bool same = present && model[name] == value;
        switch (random() % 6) {
            case 0:
                ASSERT_EQ(ps_add(set.get(), entry), present ? qz_exists : qz_ok);
                if (!present) {
                    (void)owned.release();
                    model[name] = value;
                }
                break;
            case 1:
                ASSERT_EQ(ps_update(set.get(), entry), 0);
                model[name] = value;
                break;
            case 2:
                ASSERT_EQ(ps_update_fast(set.get(), &entry), 0);
                ASSERT_EQ(entry, nullptr);
                (void)owned.release();
                model[name] = value;
                break;
            case 3:
                ASSERT_EQ(ps_check_update(set.get(), entry), same ? qz_unchanged : qz_ok);
                model[name] = value;
                break;
            case 4:
                ASSERT_EQ(ps_delete(set.get(), name.c_str()), present ? qz_ok : qz_not_found);
                model.erase(name);
                break;
            default:
                ASSERT_EQ(kv_ptr(ps_remove(set.get(), name.c_str())) != nullptr, present);
                model.erase(name);
        }
        std::string expected;
        for (const auto& [key, text] : model) {
            expected += key + "=" + text + "|";
        }
        ASSERT_EQ(summary(set.get()), expected);
    }
}

TEST(property_set, updates_refuse_another_datatype_and_only_moving_takes_the_flags) {
    const propset_ptr set = set_of({"a"}, "old");
    kv* entry = ps_lookup(set.get(), "a");
    entry->flags = 0x10;
    const std::int32_t five = 5;
    const kv_ptr number(new_kv("a", 0, KV_INT32, 4, &five));
    kv* moved = number.get();
    EXPECT_EQ(ps_update(set.get(), number.get()), qz_type_mismatch);
    EXPECT_EQ(ps_update_fast(set.get(), &moved), qz_type_mismatch);
    EXPECT_EQ(moved, number.get());
    EXPECT_EQ(ps_check_update(set.get(), number.get()), qz_type_mismatch);
    EXPECT_EQ(kv_update(entry, entry), 0);
    EXPECT_EQ(summary(set.get()), "a=old|");

    const kv_ptr flagged(text_entry("a", "2", 0x20));
    EXPECT_EQ(ps_update(set.get(), flagged.get()), 0);
    EXPECT_EQ(entry->flags, 0x10U);
    moved = text_entry("a", "3", 0x20);
    EXPECT_EQ(ps_update_fast(set.get(), &moved), 0);
    EXPECT_EQ(entry->flags, 0x20U);
}

TEST(property_set, merges) {
    const struct {
        std::initializer_list<const char*> dst, src;
        const char* copied;
        const char* moved;  // without the entry after each moved one
    } rows[] = {
        {{}, {"a", "b", "c", "d"}, "a=new|b=new|c=new|d=new|", "a=new|c=new|"},
        {{"a", "c"}, {"a", "b", "c"}, "a=new|b=new|c=new|", "a=new|c=new|"},
        {{"b"}, {"a", "b", "c"}, "a=new|b=new|c=new|", "a=new|b=old|c=new|"},
        {{"x"}, {}, "x=old|", "x=old|"},
    };
    for (const auto& row : rows) {
        propset* src = set_of(row.src, "new").release();
        const propset_ptr into = set_of(row.dst, "old");
        EXPECT_EQ(ps_merge(into.get(), src), 0);
        EXPECT_EQ(ps_merge(into.get(), into.get()), 0);
        EXPECT_EQ(summary(into.get()), row.copied);
        const propset_ptr checked = set_of(row.dst, "old");
        EXPECT_EQ(ps_merge_internal(checked.get(), src, 0),
                  row.src.size() == 0 ? qz_unchanged : qz_ok);
        EXPECT_EQ(summary(checked.get()), row.copied);
        EXPECT_EQ(ps_merge_internal(checked.get(), src, 0), qz_unchanged);
        const propset_ptr dst = set_of(row.dst, "old");
        EXPECT_EQ(ps_merge_fast(dst.get(), &src), 0);
        EXPECT_EQ(src, nullptr);
        EXPECT_EQ(summary(dst.get()), row.moved);
    }
}

TEST(property_set, merges_refuse_another_datatype) {
    const propset_ptr dst = set_of({"a"}, "old");
    propset* src = set_of({"b"}, "new").release();
    add(src, "a", KV_INT32, std::int32_t{1});
    ps_lookup(dst.get(), "a")->flags = 1;
    EXPECT_EQ(ps_merge_internal(dst.get(), src, 3), qz_invalid);
    EXPECT_EQ(ps_lookup(dst.get(), "a")->flags, 2U);  // toggled, not cleared
    EXPECT_EQ(ps_delete(dst.get(), "b"), 0);
    // The refused entry stays behind and does not shadow the next one.
    EXPECT_EQ(ps_merge_fast(dst.get(), &src), 0);
    EXPECT_EQ(summary(dst.get()), "a=old|b=new|");
}

TEST(property_set, copies_are_deep_and_never_short) {
    const propset_ptr inner = set_of({"x"}, "deep");
    const kv_ptr entry(new_kv("set", 3, KV_OBJECT, 4, inner.get()));
    const propset_ptr outer(new_ps(0));
    EXPECT_EQ(ps_add(outer.get(), kv_copy(entry.get())), 0);
    const propset_ptr copy(ps_copy(outer.get()));
    EXPECT_EQ(ps_delete(static_cast<propset*>(entry->value->data), "x"), 0);
    EXPECT_EQ(ps_compare(outer.get(), copy.get()), 1);
    EXPECT_EQ(summary(static_cast<propset*>(ps_at(copy.get(), 0)->value->data)), "x=deep|");

    const char unterminated[] = {'a', 'b', 'c'};
    const kv_ptr text(new_kv("t", 0, KV_STRING, 3, unterminated));
    EXPECT_STREQ(static_cast<char*>(text->value->data), "abc");
    const kv_ptr number(new_kv("n", 0, KV_UINT64, 1, "\x05"));
    EXPECT_EQ(*static_cast<std::uint64_t*>(number->value->data), 5U);

    propset* shared = ps_shallow_copy(outer.get());
    EXPECT_EQ(shared->entries, outer->entries);
    ps_shallow_free(shared);
}

TEST(property_set, borrowed_data_is_left_alone_until_copied) {
    char text[] = "mine";
    const kv_ptr entry(new_kv_assign(qzstrdup("b"), 0, KV_STRING | KV_BORROWED, sizeof text, text));
    const kv_ptr owned(kv_copy(entry.get()));
    EXPECT_EQ(owned->value->datatype, KV_STRING);
    EXPECT_NE(owned->value->data, static_cast<void*>(text));
    EXPECT_EQ(kv_compare(entry.get(), owned.get()), 1);
}

TEST(property_set, arrays_take_values_of_their_datatype) {
    const propset_ptr set(new_ps(0));
    add_array<std::uint32_t>(set.get(), "a", KV_UINT32, {7});
    kv* entry = ps_at(set.get(), 0);
    auto* array = static_cast<val_array*>(entry->value->data);
    const std::uint32_t number = 7;
    kv_value* wrong = new_value(KV_INT32, 4, &number);
    EXPECT_EQ(val_array_add(array, wrong), qz_type_mismatch);
    value_free(wrong);
    EXPECT_EQ(val_array_add(array, nullptr), qz_invalid);
    EXPECT_EQ(new_value(18, 4, &number), nullptr);
    const kv_ptr copy(kv_copy(entry));
    EXPECT_EQ(kv_compare(entry, copy.get()), 1);
    EXPECT_EQ(val_array_add(array, new_value(KV_UINT32, 4, &number)), 0);
    EXPECT_EQ(kv_compare(entry, copy.get()), 0);
}

TEST(property_set, equality_is_by_meaning) {
    const struct {
        std::uint32_t type_a;
        std::string a;
        std::uint32_t type_b;
        std::string b;
        int equal;
    } rows[] = {
        {KV_BOOLEAN, "\x01", KV_BOOLEAN, "\x02", 1},
        {KV_STRING, "a\0"s, KV_STRING, "a", 1},
        {KV_BINARY, "a\0"s, KV_BINARY, "a", 0},
        {KV_INT32, "abcd", KV_UINT32, "abcd", 0},
        {KV_GUID, "0123456789abcdef", KV_GUID, "0123456789abcdeg", 0},
        {KV_WSTRING, "a\0\0\0b\0"s, KV_WSTRING, "a\0"s, 1},
        {KV_STRING | KV_WIRE, "\0\0\0\1a"s, KV_STRING, "a", 1},  // packs to the same bytes
    };
    const auto value = [](std::uint32_t type, const std::string& bytes) {
        return new_value(type, static_cast<std::uint32_t>(bytes.size()), bytes.data());
    };
    for (const auto& row : rows) {
        kv_value* a = value(row.type_a, row.a);
        kv_value* b = value(row.type_b, row.b);
        EXPECT_EQ(value_compare(a, b), row.equal) << row.type_a;
        EXPECT_EQ(value_compare(b, a), row.equal) << row.type_a;
        value_free(a);
        value_free(b);
    }
    const kv_value none{0, KV_BINARY, nullptr};
    const kv_value other_none = none;
    char data = 'x';
    const kv_value empty{0, KV_BINARY, &data};
    EXPECT_EQ(value_compare(&none, &other_none), 1);
    EXPECT_EQ(value_compare(&none, &empty), 0);
    EXPECT_EQ(value_compare(&empty, &none), 0);
    EXPECT_EQ(value_compare(nullptr, nullptr), 1);
    EXPECT_EQ(value_compare(nullptr, &none) + value_compare(&none, nullptr), 0);

    const auto numbers = [](std::initializer_list<std::int32_t> items) {
        propset_ptr set(new_ps(0));
        add_array<std::int32_t>(set.get(), "a", KV_INT32, items);
        return set;
    };
    const propset_ptr sets[] = {set_of({}, ""),          set_of({"a"}, "v"), set_of({"a"}, "w"),
                                set_of({"b"}, "v"),      numbers({1, 2}),    numbers({1, 3}),
                                set_of({"a", "b"}, "v"), numbers({1}),       propset_ptr()};
    for (const propset_ptr& a : sets) {
        for (const propset_ptr& b : sets) {
            EXPECT_EQ(ps_compare(a.get(), b.get()), &a == &b);
        }
        if (a != nullptr) {
            EXPECT_EQ(kv_compare(ps_at(a.get(), 0), nullptr), ps_getcount(a.get()) == 0);
            EXPECT_EQ(kv_compare(nullptr, ps_at(a.get(), 0)), ps_getcount(a.get()) == 0);
        }
    }
}

TEST(property_set, disposing_of_nothing_does_nothing) {
    value_free(nullptr);
    kv_free(nullptr);
    val_array_free(nullptr);
    EXPECT_EQ(value_copy(nullptr), nullptr);
}

}  // namespace
