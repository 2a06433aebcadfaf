// Proves that the ordered and the hash containers behave as a std::map does, that trees keep the
// red-black rules after every step and have the very shape of the textbook algorithms.
//
// Keys and values are heap integers with the containers' ownership rules, so that the leak checker
// sees every mistake about who frees what.

#include "lib/plat.h"
#include "lib/qz_result.h"
#include "lib/rbtree.h"
#include "tests/support/testing.h"

namespace {

using namespace std::string_literals;

int number_at(const void* word) {
    return *static_cast<const int*>(word);
}

int compare_numbers(const void* probe, const void* stored) {
    const int a = number_at(probe);
    const int b = number_at(stored);
    return a < b ? -7 : static_cast<int>(a > b);
}

int* new_number(int number) {
    auto* word = static_cast<int*>(qzalloc(sizeof(int)));
    *word = number;
    return word;
}

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

void check_structure(const qz_map* map) {
    EXPECT_EQ(map->nil.left, &map->nil);
    EXPECT_EQ(map->nil.right, &map->nil);
    EXPECT_EQ(map->nil.parent, nullptr);
    EXPECT_EQ(map->nil.colour, qz_black);
    EXPECT_EQ(map->root->parent, nullptr);
    EXPECT_EQ(map->root->colour, qz_black);
    (void)black_height(map, map->root);
}

void check_structure(const qz_hashmap* /*map*/) {}

// The two families' names for the same operations.
struct tree_calls {
    static constexpr auto insert = qz_map_insert;
    static constexpr auto insert_multi = qz_multimap_insert;
    static constexpr auto find = qz_map_find;
    static constexpr auto erase = qz_map_delete;
    static constexpr auto remove = qz_map_remove;
    static constexpr auto open = qz_map_open;
    static constexpr auto foreach = qz_map_foreach;
    static constexpr auto clear = qz_map_clear;
};
// The other kinds' names for what differs from a map's.
struct multimap_calls : tree_calls {
    static constexpr auto find = qz_multimap_find;
    static constexpr auto erase = qz_multimap_delete;
    static constexpr auto remove = qz_multimap_remove;
    static constexpr auto open = qz_multimap_open;
    static constexpr auto foreach = qz_multimap_foreach;
    static constexpr auto clear = qz_multimap_clear;
};
struct hash_calls {
    static constexpr auto insert = qz_hashmap_insert;
    static constexpr auto insert_multi = qz_hashmultimap_insert;
    static constexpr auto find = qz_hashmap_find;
    static constexpr auto erase = qz_hashmap_delete;
    static constexpr auto remove = qz_hashmap_remove;
    static constexpr auto open = qz_hashmap_open;
    static constexpr auto foreach = qz_hashmap_foreach;
    static constexpr auto clear = qz_hashmap_clear;
};
struct hash_multimap_calls : hash_calls {
    static constexpr auto find = qz_hashmultimap_find;
    static constexpr auto open = qz_hashmultimap_open;
};

// Runs random operations on a container and on a std::map in the container's order.
template <class Calls, class Container>
class model_run {
  public:
    using model_order = std::function<bool(int, int)>;

    model_run(Container* container, const model_order& order, unsigned seed)
        : container_(container), model_(order), random_(seed) {}

    void run(int steps, int key_range) {
        for (int i = 0; i < steps && !testing::Test::HasFatalFailure(); ++i) {
            SCOPED_TRACE(testing::Message() << "kind " << container_->kind << " step " << i);
            step(pick(key_range));
            compare();
        }
    }

  private:
    using values = std::vector<int>;

    int pick(int below) { return std::uniform_int_distribution<int>(0, below - 1)(random_); }

    void step(int key) {
        const int choice = pick(100);
        if (choice < 45) {
            insert(key);
        } else if (choice < 65) {
            EXPECT_EQ(Calls::erase(container_, &key),
                      model_.erase(key) != 0 ? qz_ok : qz_not_found);
        } else if (choice < 80) {
            remove(key);
        } else if (choice < 99) {
            walk_and_thin();
        } else {
            Calls::clear(container_);
            model_.clear();
        }
    }

    void insert(int key) {
        int* stored_key = new_number(key);
        int* value = container_->kind == QZ_SET ? nullptr : new_number(++last_value_);
        const bool present = model_.contains(key);
        const int result = container_->kind == QZ_MULTIMAP
                               ? Calls::insert_multi(container_, stored_key, value)
                               : Calls::insert(container_, stored_key, value);
        if (container_->kind == QZ_MULTIMAP) {
            EXPECT_EQ(result, qz_ok);
            model_[key].push_back(last_value_);
        } else if (present) {
            EXPECT_EQ(result, qz_exists);
            qzfree(stored_key);
            qzfree(value);
        } else {
            EXPECT_EQ(result, qz_ok);
            model_[key] = {last_value_};
        }
    }

    void remove(int key) {
        const qz_owned<qz_pair> pair(Calls::remove(container_, &key));
        const auto at = model_.find(key);
        ASSERT_EQ(pair != nullptr, at != model_.end());
        if (pair != nullptr) {
            take(*pair, at->first, at->second);
            model_.erase(at);
        }
    }

    // Checks and frees a removed entry.
    void take(const qz_pair& pair, int key, const values& expected) const {
        EXPECT_EQ(number_at(pair.key), key);
        qzfree(pair.key);
        if (container_->kind == QZ_MULTIMAP) {
            const vector_ptr stored(static_cast<qz_vector*>(pair.value));
            values found;
            for (void* word : qz_each(stored.get())) {
                found.push_back(number_at(word));
            }
            EXPECT_EQ(found, expected);
            qz_vector_clear(stored.get(), qzfree);
        } else if (container_->kind == QZ_MAP) {
            EXPECT_EQ(values{number_at(pair.value)}, expected);
            qzfree(pair.value);
        } else {
            EXPECT_EQ(pair.value, nullptr);
        }
    }

    // One walk from the start that removes, erases or keeps each entry at random.
    void walk_and_thin() {
        const int share = pick(3) == 0 ? 2 : 8;
        const bool is_set = container_->kind == QZ_SET;
        qz_cursor cursor(Calls::open(container_));
        EXPECT_TRUE(cursor.at_begin());
        auto at = model_.begin();
        while (!cursor.at_end()) {
            ASSERT_NE(at, model_.end());
            const void* key = is_set ? cursor.data<int>() : cursor.data<qz_pair>()->key;
            EXPECT_EQ(number_at(key), at->first);
            const int choice = pick(share);
            if (choice > 1) {
                cursor.next();
                ++at;
                continue;
            }
            if (choice == 1) {
                cursor.erase();
            } else if (is_set) {
                EXPECT_EQ(*qz_owned<int>(cursor.remove<int>()), at->first);
            } else {
                take(*qz_owned<qz_pair>(cursor.remove<qz_pair>()), at->first, at->second);
            }
            EXPECT_FALSE(cursor.at_begin());
            at = model_.erase(at);
            check_structure(container_);
        }
        ASSERT_EQ(at, model_.end());
        EXPECT_EQ(cursor.data<void>(), nullptr);
        EXPECT_EQ(cursor.remove<void>(), nullptr);
        cursor.erase();
    }

    // The whole content, through foreach, find and size; a set's values count as 0.
    void compare() {
        struct visit_log {
            bool is_set;
            std::vector<std::pair<int, int>> entries;
        } log{container_->kind == QZ_SET, {}};
        Calls::foreach (
            container_,
            [](void* item, void* arg) {
                auto* into = static_cast<visit_log*>(arg);
                const auto* pair = static_cast<qz_pair*>(item);
                into->entries.emplace_back(number_at(into->is_set ? item : pair->key),
                                           into->is_set ? 0 : number_at(pair->value));
                return 1;
            },
            &log);
        std::vector<std::pair<int, int>> expected;
        for (const auto& [key, stored] : model_) {
            for (const int value : stored) {
                expected.emplace_back(key, log.is_set ? 0 : value);
            }
            ASSERT_NE(Calls::find(container_, &key), nullptr);
        }
        EXPECT_EQ(log.entries, expected);
        EXPECT_EQ(container_->count, static_cast<int>(model_.size()));
        const int absent = -1;
        EXPECT_EQ(Calls::find(container_, &absent), nullptr);
        check_structure(container_);
    }

    Container* container_;
    std::map<int, values, model_order> model_;
    std::mt19937 random_;
    int last_value_ = 0;
};

TEST(ordered_containers, agree_with_std_map_on_random_operations) {
    for (unsigned seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        const map_ptr map(new_qz_map(compare_numbers, qzfree, qzfree));
        const map_ptr set(new_qz_set(compare_numbers, qzfree));
        const int keys = seed % 2 == 0 ? 64 : 12;
        for (qz_map* tree : {map.get(), set.get()}) {
            model_run<tree_calls, qz_map>(tree, std::less<>(), seed).run(3000, keys);
        }
        qz_multimap* multimap = new_qz_multimap(compare_numbers, qzfree, qzfree);
        model_run<multimap_calls, qz_multimap>(multimap, std::less<>(), seed).run(3000, keys);
        qz_multimap_destroy(multimap);
    }
}

// --- Hash containers: entries in order of bucket and then key ---

constexpr int bucket_count = 7;

std::uint32_t hash_all_alike(const void* /*key*/) {
    return 0;
}

std::uint32_t hash_identity(const void* key) {
    return static_cast<std::uint32_t>(number_at(key));
}

TEST(hash_containers, agree_with_std_map_on_random_operations) {
    for (unsigned seed = 1; seed <= 8; ++seed) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        const bool spread = seed % 2 == 0;
        const auto order = [=](int a, int b) {
            return std::pair(spread ? a % bucket_count : 0, a) <
                   std::pair(spread ? b % bucket_count : 0, b);
        };
        const qz_hash_fn hash = spread ? hash_identity : hash_all_alike;
        const auto table_of = [&](auto make) {
            return make(bucket_count, hash, compare_numbers, qzfree, qzfree);
        };
        qz_hashmap* map = table_of(new_qz_hashmap);
        model_run<hash_calls, qz_hashmap>(map, order, seed).run(3000, 40);
        qz_hashmap_destroy(map);
        qz_hashmultimap* multimap = table_of(new_qz_hashmultimap);
        model_run<hash_multimap_calls, qz_hashmultimap>(multimap, order, seed).run(3000, 40);
        qz_hashmap_destroy(multimap);
    }
}

TEST(hash_containers, buckets_are_at_least_one_and_survive_clear) {
    qz_hashmap* map = new_qz_hashmap(0, hash_identity, compare_numbers, qzfree, nullptr);
    EXPECT_EQ(qz_hashmap_insert(map, new_number(5), nullptr), 0);
    qz_hashmap_clear(map);
    EXPECT_EQ(qz_vector_size(map->buckets), 1);
    EXPECT_EQ(qz_cursor(qz_hashmap_open(map)).get()->flags, qz_at_begin | qz_at_end);
    qz_hashmap_destroy(map);
    qz_hashmap_destroy(nullptr);
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
    const map_ptr set(new_qz_set(compare_wildcard, qzfree));
    for (const char* name : {"alice", "*", "bob"}) {
        EXPECT_EQ(qz_set_insert(set.get(), qzstrdup(name)), 0);
    }
    EXPECT_EQ(qz_set_size(set.get()), 3);
    EXPECT_EQ(qz_set_exists(set.get(), "aaron"), 1);
    EXPECT_EQ(qz_set_exists(set.get(), "zed"), 0);

    const map_ptr only_star(new_qz_set(compare_wildcard, qzfree));
    EXPECT_EQ(qz_set_insert(only_star.get(), qzstrdup("*")), 0);
    EXPECT_EQ(qz_set_exists(only_star.get(), "zed"), 1);
    const qz_owned<char> refused(qzstrdup("bob"));
    EXPECT_EQ(qz_set_insert(only_star.get(), refused.get()), 1);
    EXPECT_STREQ(qz_owned<char>(qz_as<char>(qz_set_remove(only_star.get(), "zed"))).get(), "*");
    EXPECT_EQ(qz_set_remove(only_star.get(), "zed"), nullptr);
}

// --- Corners ---

TEST(ordered_containers, flags_and_validity_of_iterators) {
    const map_ptr map(new_qz_map(compare_words, nullptr, nullptr));
    EXPECT_EQ(qz_cursor(qz_map_open(map.get())).get()->flags, qz_at_begin | qz_at_end);
    EXPECT_EQ(qz_map_insert(map.get(), qz_word_of(500), nullptr), 0);
    qz_cursor cursor(qz_map_open(map.get()));
    EXPECT_EQ(cursor.get()->kind, QZ_MAP);
    EXPECT_EQ(cursor.get()->flags, qz_at_begin);
    cursor.next();
    EXPECT_EQ(cursor.get()->flags, qz_at_end);
    cursor.next();
    cursor.rewind();
    EXPECT_EQ(cursor.get()->flags, qz_at_begin);

    const qz_pair* pair = qz_map_at(map.get(), qz_word_of(500));
    for (unsigned key = 1; key < 1000; ++key) {
        (void)qz_map_insert(map.get(), qz_word_of(key), nullptr);
    }
    EXPECT_EQ(cursor.data<qz_pair>(), pair);  // inserting moves no entry
    cursor.next();
    EXPECT_EQ(cursor.data<qz_pair>()->key, qz_word_of(501));
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
