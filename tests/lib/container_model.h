// Runs random operations on a container of the library and on a std::map side by side.
//
// Keys and values are heap integers with the container's ownership rules, so that the leak checker
// sees every mistake about who frees what.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <random>
#include <vector>

#include "lib/plat.h"
#include "lib/qz_result.h"
#include "lib/rbtree.h"

inline int number_at(const void* word) {
    return *static_cast<const int*>(word);
}

inline int compare_numbers(const void* probe, const void* stored) {
    const int a = number_at(probe);
    const int b = number_at(stored);
    return a < b ? -7 : static_cast<int>(a > b);
}

inline int* new_number(int number) {
    auto* word = static_cast<int*>(qzalloc(sizeof(int)));
    *word = number;
    return word;
}

// The operations under test; trees and hash containers share their results.
struct container_api {
    qz_kind kind;
    std::function<int(int*, int*)> insert;
    std::function<void*(const int*)> find;
    std::function<int(const int*)> erase;
    std::function<qz_pair*(const int*)> remove;
    std::function<qz_iterator*()> open;
    std::function<void(qz_visit_fn, void*)> foreach;
    std::function<void()> clear;
    std::function<int()> size;
    std::function<void()> check_structure;
};

// Orders the model as the container iterates.
using model_order = std::function<bool(int, int)>;

class model_run {
  public:
    model_run(container_api api, const model_order& order, unsigned seed)
        : api_(std::move(api)), model_(order), random_(seed) {}

    void run(int steps, int key_range) {
        for (int i = 0; i < steps && !::testing::Test::HasFatalFailure(); ++i) {
            SCOPED_TRACE(testing::Message() << "step " << i);
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
            EXPECT_EQ(api_.erase(&key), model_.erase(key) != 0 ? qz_ok : qz_not_found);
        } else if (choice < 80) {
            remove(key);
        } else if (choice < 99) {
            walk_and_thin();
        } else {
            api_.clear();
            model_.clear();
        }
    }

    void insert(int key) {
        int* stored_key = new_number(key);
        int* value = api_.kind == QZ_SET ? nullptr : new_number(++last_value_);
        const bool present = model_.contains(key);
        const int result = api_.insert(stored_key, value);
        if (api_.kind == QZ_MULTIMAP) {
            EXPECT_EQ(result, qz_ok);
            model_[key].push_back(last_value_);
            return;
        }
        EXPECT_EQ(result, present ? qz_exists : qz_ok);
        if (present) {
            qzfree(stored_key);
            qzfree(value);
        } else {
            model_[key] = {last_value_};
        }
    }

    void remove(int key) {
        const qz_owned<qz_pair> pair(api_.remove(&key));
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
        EXPECT_EQ(values_of(pair), expected);
        if (api_.kind == QZ_MULTIMAP) {
            qz_vector_clear(static_cast<qz_vector*>(pair.value), qzfree);
            qz_vector_delete(static_cast<qz_vector*>(pair.value));
        } else {
            qzfree(pair.value);
        }
        qzfree(pair.key);
    }

    values values_of(const qz_pair& pair) const {
        if (api_.kind == QZ_SET) {
            return {last_value_};  // sets have no values: 0
        }
        if (api_.kind == QZ_MAP) {
            return {number_at(pair.value)};
        }
        values found;
        for (void* word : qz_each(static_cast<qz_vector*>(pair.value))) {
            found.push_back(number_at(word));
        }
        return found;
    }

    // One walk from the start that removes, erases or keeps each entry at random.
    void walk_and_thin() {
        const int share = pick(3) == 0 ? 2 : 8;
        qz_cursor cursor(api_.open());
        EXPECT_TRUE(cursor.at_begin());
        auto at = model_.begin();
        while (!cursor.at_end()) {
            ASSERT_NE(at, model_.end());
            const int choice = pick(share);
            if (choice == 0) {
                thin_by_remove(cursor, at->first, at->second);
            } else if (choice == 1) {
                cursor.erase();
            } else {
                EXPECT_EQ(current_key(cursor), at->first);
                cursor.next();
                ++at;
                continue;
            }
            EXPECT_FALSE(cursor.at_begin());
            at = model_.erase(at);
            api_.check_structure();
        }
        ASSERT_EQ(at, model_.end());
        EXPECT_EQ(cursor.data<void>(), nullptr);
        EXPECT_EQ(cursor.remove<void>(), nullptr);
        cursor.erase();
    }

    void thin_by_remove(qz_cursor& cursor, int key, const values& expected) {
        if (api_.kind == QZ_SET) {
            const qz_owned<int> removed(cursor.remove<int>());
            EXPECT_EQ(*removed, key);
        } else {
            const qz_owned<qz_pair> removed(cursor.remove<qz_pair>());
            take(*removed, key, expected);
        }
    }

    int current_key(const qz_cursor& cursor) const {
        return api_.kind == QZ_SET ? *cursor.data<int>() : number_at(cursor.data<qz_pair>()->key);
    }

    // The whole content, through foreach, find and size.
    void compare() {
        struct visit_log {
            qz_kind kind;
            values keys;
            values seen;
        } log{api_.kind, {}, {}};
        api_.foreach (
            [](void* item, void* arg) {
                auto* into = static_cast<visit_log*>(arg);
                if (into->kind == QZ_SET) {
                    into->keys.push_back(number_at(item));
                } else {
                    const auto* pair = static_cast<qz_pair*>(item);
                    into->keys.push_back(number_at(pair->key));
                    into->seen.push_back(number_at(pair->value));
                }
                return 1;
            },
            &log);
        values keys;
        values expected;
        for (const auto& [key, stored] : model_) {
            keys.insert(keys.end(), stored.size(), key);
            expected.insert(expected.end(), stored.begin(), stored.end());
            ASSERT_NE(api_.find(&key), nullptr);
        }
        EXPECT_EQ(log.keys, keys);
        if (api_.kind != QZ_SET) {
            EXPECT_EQ(log.seen, expected);
        }
        EXPECT_EQ(api_.size(), static_cast<int>(model_.size()));
        const int absent = -1;
        EXPECT_EQ(api_.find(&absent), nullptr);
        api_.check_structure();
    }

    container_api api_;
    std::map<int, values, model_order> model_;
    std::mt19937 random_;
    int last_value_ = 0;
};
