// Proves that the vector behaves as a std::vector does, with its own growth and iterator rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "lib/plat.h"
#include "lib/qz_vector.h"

namespace {

std::vector<void*> words_of(const qz_vector* vector) {
    const auto words = qz_each(vector);
    return {words.begin(), words.end()};
}

TEST(vector, agrees_with_std_vector_on_random_operations) {
    std::mt19937 random(5);
    const vector_ptr vector(new_qz_vector(0, nullptr));
    std::vector<void*> model;
    for (int i = 0; i < 20000; ++i) {
        const auto place = static_cast<std::int32_t>(random() % (model.size() + 1));
        void* word = qz_word_of(random());
        switch (random() % 8) {
            case 0:
            case 1:
                qz_vector_pushback(vector.get(), word);
                model.push_back(word);
                break;
            case 2:
                qz_vector_pushfront(vector.get(), word);
                model.insert(model.begin(), word);
                break;
            case 3:
                qz_vector_insert(vector.get(), word, place);
                model.insert(model.begin() + place, word);
                break;
            case 4:
                EXPECT_EQ(qz_vector_popback(vector.get()), model.empty() ? nullptr : model.back());
                if (!model.empty()) {
                    model.pop_back();
                }
                break;
            case 5:
                EXPECT_EQ(qz_vector_popfront(vector.get()),
                          model.empty() ? nullptr : model.front());
                if (!model.empty()) {
                    model.erase(model.begin());
                }
                break;
            default:
                if (place < static_cast<std::int32_t>(model.size())) {
                    EXPECT_EQ(qz_vector_remove(vector.get(), place),
                              model[static_cast<std::size_t>(place)]);
                    model.erase(model.begin() + place);
                } else {
                    EXPECT_EQ(qz_vector_remove(vector.get(), place), nullptr);
                }
        }
        ASSERT_EQ(words_of(vector.get()), model);
        ASSERT_EQ(qz_vector_at(vector.get(), vector->count), nullptr);
    }
}

TEST(vector, capacity_starts_at_eight_and_doubles) {
    for (const int initial : {0, 3, 8}) {
        const vector_ptr vector(new_qz_vector(initial, nullptr));
        EXPECT_EQ(vector->capacity, 8U);
        for (int i = 0; i < 9; ++i) {
            qz_vector_pushback(vector.get(), nullptr);
        }
        EXPECT_EQ(vector->capacity, 16U);
        qz_vector_clear(vector.get(), nullptr);
        EXPECT_EQ(vector->capacity, 16U);
    }
    EXPECT_EQ(vector_ptr(new_qz_vector(100, nullptr))->capacity, 100U);
}

TEST(vector, owns_elements_only_when_destroyed) {
    qz_vector* vector = new_qz_vector(0, qzfree);
    qz_vector_pushback(vector, qzstrdup("a"));
    qz_vector* copy = qz_vector_copy(vector);
    EXPECT_EQ(words_of(copy), words_of(vector));
    qz_vector_delete(copy);
    qz_vector_destroy(vector);
    qz_vector_destroy(nullptr);
    qz_vector_delete(nullptr);
}

TEST(vector, binary_search_finds_what_is_there) {
    const auto compare = [](const void* probe, const void* stored) noexcept {
        return static_cast<int>(qz_number_of(probe)) - static_cast<int>(qz_number_of(stored));
    };
    for (std::uintptr_t size = 0; size < 20; ++size) {
        const vector_ptr vector(new_qz_vector(0, nullptr));
        for (std::uintptr_t i = 0; i < size; ++i) {
            qz_vector_pushback(vector.get(), qz_word_of(2 * i + 1));
        }
        for (std::uintptr_t key = 0; key < 2 * size + 2; ++key) {
            const int expected = key % 2 == 1 && key < 2 * size ? static_cast<int>(key / 2) : -1;
            EXPECT_EQ(qz_vector_find_sorted(vector.get(), compare, qz_word_of(key)), expected);
        }
    }
}

TEST(vector, iterator_keeps_its_index_over_removals) {
    const vector_ptr vector(new_qz_vector(0, qzfree));
    for (const char* text : {"a", "b", "c", "d"}) {
        qz_vector_pushback(vector.get(), qzstrdup(text));
    }
    qz_cursor cursor(qz_vector_open(vector.get()));
    EXPECT_EQ(cursor.get()->kind, QZ_VECTOR);
    cursor.next();
    EXPECT_FALSE(cursor.at_begin());
    cursor.erase();
    EXPECT_STREQ(cursor.data<char>(), "c");
    qzfree(cursor.remove<char>());
    EXPECT_STREQ(cursor.data<char>(), "d");
    cursor.erase();
    EXPECT_TRUE(cursor.at_end());
    EXPECT_EQ(cursor.data<char>(), nullptr);
    EXPECT_EQ(cursor.remove<char>(), nullptr);
    cursor.erase();
    EXPECT_EQ(vector->count, 1);

    cursor.rewind();
    EXPECT_STREQ(cursor.data<char>(), "a");
    cursor.next();  // the only element: both flags stay set
    EXPECT_EQ(cursor.get()->flags, qz_at_begin | qz_at_end);
}

TEST(critical_section, is_recursive_and_reports_a_foreign_leave) {
    critical_section section;
    ASSERT_EQ(init_critical_section(&section), 0);
    {
        const critical_section_guard guard(&section);
        EXPECT_EQ(enter_critical_section(&section), 0);
        EXPECT_EQ(leave_critical_section(&section), 0);
        EXPECT_EQ(pthread_mutex_trylock(&section), 0);
        EXPECT_EQ(leave_critical_section(&section), 0);
    }
    EXPECT_EQ(leave_critical_section(&section), EPERM);
    EXPECT_EQ(destroy_critical_section(&section), 0);
}

}  // namespace
