// Proves that the ordered containers behave as a std::map does, keep the red-black rules after
// every step, and have the very shape of the textbook algorithms.
#include <string>

#include "tests/lib/container_model.h"

namespace {

// Returns the black height; checks parents, colours and the sentinel on the way.
int black_height(const qz_map* map, const qz_node* node) {
    if (node == &map->nil) {
        return 1;
    }
    for (const qz_node* child : {node->left, node->right}) {
        if (child != &map->nil) {
            EXPECT_EQ(child->parent, node);
            EXPECT_FALSE(node->colour == qz_red && child->colour == qz_red);
        }
    }
    const int left = black_height(map, node->left);
    EXPECT_EQ(left, black_height(map, node->right));
    return left + node->colour;
}

void check_tree(const qz_map* map) {
    EXPECT_EQ(map->nil.left, &map->nil);
    EXPECT_EQ(map->nil.right, &map->nil);
    EXPECT_EQ(map->nil.parent, nullptr);
    EXPECT_EQ(map->nil.colour, qz_black);
    EXPECT_EQ(map->root->parent, nullptr);
    EXPECT_EQ(map->root->colour, qz_black);
    (void)black_height(map, map->root);
}

container_api api_of(qz_map* map) {
    const auto kind = static_cast<qz_kind>(map->kind);
    return {
        .kind = kind,
        .insert =
            [=](int* key, int* value) {
                return kind == QZ_MULTIMAP ? qz_multimap_insert(map, key, value)
                       : kind == QZ_SET    ? qz_set_insert(map, key)
                                           : qz_map_insert(map, key, value);
            },
        .find = [=](const int* key) { return qz_map_find(map, key); },
        .erase = [=](const int* key) { return qz_map_delete(map, key); },
        .remove = [=](const int* key) { return qz_map_remove(map, key); },
        .open = [=] { return qz_map_open(map); },
        .foreach = [=](qz_visit_fn fn, void* arg) { qz_map_foreach(map, fn, arg); },
        .clear = [=] { qz_map_clear(map); },
        .size = [=] { return qz_map_size(map); },
        .check_structure = [=] { check_tree(map); },
    };
}

using namespace std::string_literals;

TEST(ordered_containers, agree_with_std_map_on_random_operations) {
    for (unsigned seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        const map_ptr map(new_qz_map(compare_numbers, qzfree, qzfree));
        const map_ptr multimap(new_qz_multimap(compare_numbers, qzfree, qzfree));
        const map_ptr set(new_qz_set(compare_numbers, qzfree));
        for (qz_map* container : {map.get(), multimap.get(), set.get()}) {
            SCOPED_TRACE(testing::Message() << "kind " << container->kind);
            model_run(api_of(container), std::less<>(), seed).run(3000, seed % 2 == 0 ? 64 : 12);
        }
    }
}

TEST(ordered_containers, set_gives_and_takes_keys) {
    const map_ptr set(new_qz_set(compare_numbers, qzfree));
    const qz_owned<int> refused(new_number(4));
    EXPECT_EQ(qz_set_insert(set.get(), new_number(4)), 0);
    EXPECT_EQ(qz_set_insert(set.get(), refused.get()), 1);
    EXPECT_EQ(qz_set_exists(set.get(), refused.get()), 1);
    const qz_owned<int> removed(static_cast<int*>(qz_set_remove(set.get(), refused.get())));
    EXPECT_EQ(*removed, 4);
    EXPECT_EQ(qz_set_remove(set.get(), refused.get()), nullptr);
    EXPECT_EQ(qz_set_size(set.get()), 0);
}

// --- Shape ---

std::string shape(const qz_map* map, const qz_node* node) {
    if (node == &map->nil) {
        return ".";
    }
    std::string text = std::to_string(qz_number_of(node->entry.key));
    if (node->colour == qz_red) {
        text += 'r';
    }
    if (node->left != &map->nil || node->right != &map->nil) {
        text += "(" + shape(map, node->left) + " " + shape(map, node->right) + ")";
    }
    return text;
}

int compare_words(const void* probe, const void* stored) {
    return static_cast<int>(qz_number_of(probe)) - static_cast<int>(qz_number_of(stored));
}

TEST(tree_shape, equals_an_independent_textbook_implementation) {
    struct {
        unsigned seed, steps, range, insert_share;
        const char* expected;
    } const rows[] = {
        {1, 40, 23, 5, "11(2(1(0r .) 4r(3 7(5r 9r))) 13(12 18r(14(. 17r) 20(19r 21r))))"},
        {2, 120, 19, 3, "6(2(1(0r .) 4(3r 5r)) 14(10r(8(7r .) 13) 16r(15 18(17r .))))"},
        {3, 400, 31, 3, "16(5(2(. 3r) 10r(7 15(13r .))) 23(19(18r 20r) 25r(24 28(. 29r))))"},
        {4, 60, 29, 4, "13(5(3(2r 4r) 10r(9(8r .) 12)) 22(17(14r 18r) 26(24r 28r)))"},
    };
    for (const auto& row : rows) {
        const map_ptr set(new_qz_set(compare_words, nullptr));
        unsigned x = row.seed;
        for (unsigned i = 0; i < row.steps; ++i) {
            x = (x * 75 + 74) % 65537;
            void* key = qz_word_of(x % row.range);
            if ((x >> 8) % 5 < row.insert_share) {
                (void)qz_set_insert(set.get(), key);
            } else {
                (void)qz_set_delete(set.get(), key);
            }
        }
        EXPECT_EQ(shape(set.get(), set->root), row.expected);
    }
}

// A stored "*" equals every probe that reaches it.
int compare_wildcard(const void* probe, const void* stored) {
    return "*"s == static_cast<const char*>(stored) ? 0 : compare_string(probe, stored);
}

TEST(tree_shape, decides_which_probes_reach_a_wildcard) {
    char alice[] = "alice";
    char star[] = "*";
    char bob[] = "bob";
    const map_ptr set(new_qz_set(compare_wildcard, nullptr));
    EXPECT_EQ(qz_set_insert(set.get(), alice), 0);
    EXPECT_EQ(qz_set_insert(set.get(), star), 0);
    EXPECT_EQ(qz_set_insert(set.get(), bob), 0);
    EXPECT_EQ(qz_set_exists(set.get(), "aaron"), 1);
    EXPECT_EQ(qz_set_exists(set.get(), "zed"), 0);

    const map_ptr only_star(new_qz_set(compare_wildcard, nullptr));
    EXPECT_EQ(qz_set_insert(only_star.get(), star), 0);
    EXPECT_EQ(qz_set_exists(only_star.get(), "zed"), 1);
    EXPECT_EQ(qz_set_insert(only_star.get(), bob), 1);
}

// --- Corners ---

TEST(ordered_containers, iterator_flags_of_no_and_of_one_entry) {
    const map_ptr map(new_qz_map(compare_words, nullptr, nullptr));
    {
        const qz_cursor cursor(qz_map_open(map.get()));
        EXPECT_TRUE(cursor.at_end());
        EXPECT_TRUE(cursor.at_begin());
        EXPECT_EQ(cursor.get()->kind, QZ_MAP);
    }
    EXPECT_EQ(qz_map_insert(map.get(), qz_word_of(1), nullptr), 0);
    qz_cursor cursor(qz_map_open(map.get()));
    EXPECT_EQ(cursor.get()->flags, qz_at_begin);
    cursor.next();
    EXPECT_EQ(cursor.get()->flags, qz_at_end);
    cursor.next();
    cursor.rewind();
    EXPECT_EQ(cursor.get()->flags, qz_at_begin);
    EXPECT_EQ(cursor.data<qz_pair>()->key, qz_word_of(1));
}

TEST(ordered_containers, inserting_keeps_pairs_and_iterators_valid) {
    const map_ptr map(new_qz_map(compare_words, nullptr, nullptr));
    EXPECT_EQ(qz_map_insert(map.get(), qz_word_of(500), qz_word_of(1)), 0);
    const qz_pair* pair = qz_map_at(map.get(), qz_word_of(500));
    qz_cursor cursor(qz_map_open(map.get()));
    for (unsigned key = 1; key < 1000; ++key) {
        (void)qz_map_insert(map.get(), qz_word_of(key), nullptr);
    }
    EXPECT_EQ(qz_map_at(map.get(), qz_word_of(500)), pair);
    EXPECT_EQ(cursor.data<qz_pair>(), pair);
    cursor.next();
    EXPECT_EQ(cursor.data<qz_pair>()->key, qz_word_of(501));
    std::uintptr_t expected = 1;
    for (const qz_pair& entry : qz_each(map.get())) {
        EXPECT_EQ(qz_number_of(entry.key), expected++);
    }
    EXPECT_EQ(expected, 1000U);
}

TEST(ordered_containers, delete_may_probe_with_part_of_the_value) {
    struct record {
        int id;
    };
    const map_ptr map(new_qz_map(compare_numbers, nullptr, qzfree));
    for (int id = 0; id < 50; ++id) {
        auto* entry = static_cast<record*>(qzalloc(sizeof(record)));
        entry->id = id;
        EXPECT_EQ(qz_map_insert(map.get(), &entry->id, entry), 0);
    }
    for (int id = 10; id < 40; ++id) {
        auto* entry = static_cast<record*>(qz_map_find(map.get(), &id));
        EXPECT_EQ(qz_map_delete(map.get(), &entry->id), 0);
    }
    EXPECT_EQ(qz_map_size(map.get()), 20);
}

TEST(ordered_containers, multimap_without_value_free_keeps_the_vector_on_delete_only) {
    const map_ptr map(new_qz_multimap(compare_words, nullptr, nullptr));
    EXPECT_EQ(qz_multimap_insert(map.get(), qz_word_of(1), qz_word_of(7)), 0);
    EXPECT_EQ(qz_multimap_insert(map.get(), qz_word_of(2), qz_word_of(8)), 0);
    qz_vector* kept = qz_multimap_find(map.get(), qz_word_of(1));
    EXPECT_EQ(qz_multimap_delete(map.get(), qz_word_of(1)), 0);
    EXPECT_EQ(qz_vector_at(kept, 0), qz_word_of(7));
    qz_vector_delete(kept);
    qz_multimap_clear(map.get());  // the leak checker sees the other one
    EXPECT_EQ(qz_map_size(map.get()), 0);
    qz_map_destroy(nullptr);
}

}  // namespace
