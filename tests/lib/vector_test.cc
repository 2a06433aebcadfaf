// Proves that the vector behaves as a std::vector does, with its own growth and iterator rules.

#include "lib/plat.h"
#include "lib/qz_vector.h"
#include "tests/support/testing.h"

namespace {

std::vector<void*> words_of(const qz_vector* vector) {
    const auto words = qz_each(vector);
    return {words.begin(), words.end()};
}

TEST(vector, agrees_with_std_vector_on_random_operations) {
    std::mt19937 random(5);
    const vector_ptr owned(new_qz_vector(0, nullptr));
    qz_vector* vector = owned.get();
    std::vector<void*> model;
    // What taking out at `place` must give; null past the end.
    const auto taken = [&](std::size_t place) -> void* {
        if (place >= model.size()) {
            return nullptr;
        }
        void* word = model[place];
        model.erase(model.begin() + static_cast<std::ptrdiff_t>(place));
        return word;
    };
    for (int i = 0; i < 20000; ++i) {
        const std::size_t place = random() % (model.size() + 1);
        void* word = qz_word_of(random());
        switch (random() % 5) {
            case 0:
                qz_vector_pushfront(vector, word);
                model.insert(model.begin(), word);
                break;
            case 1:
                EXPECT_EQ(qz_vector_popback(vector), taken(model.size() - 1));
                break;
            case 2:
                EXPECT_EQ(qz_vector_popfront(vector), taken(0));
                break;
            case 3:
                qz_vector_pushback(vector, word);
                model.push_back(word);
                EXPECT_EQ(qz_vector_remove(vector, static_cast<std::int32_t>(place)), taken(place));
                break;
            default:
                qz_vector_insert(vector, word, static_cast<std::int32_t>(place));
                model.insert(model.begin() + static_cast<std::ptrdiff_t>(place), word);
                qz_vector_pushback(vector, word);
                model.push_back(word);
        }
        ASSERT_EQ(words_of(vector), model);
        std::vector<void*> visited;
        qz_vector_foreach(
            vector,
            [](void* item, void* arg) {
                static_cast<std::vector<void*>*>(arg)->push_back(item);
                return 1;  // a visitor cannot stop the walk
            },
            &visited);
        ASSERT_EQ(visited, model);
        ASSERT_EQ(qz_vector_at(vector, vector->count), nullptr);
    }
}

TEST(vector, capacity_starts_at_eight_and_doubles) {
    EXPECT_EQ(vector_ptr(new_qz_vector(100, nullptr))->capacity, 100U);
    const vector_ptr vector(new_qz_vector(3, nullptr));
    EXPECT_EQ(vector->capacity, 8U);
    for (int i = 0; i < 9; ++i) {
        qz_vector_pushback(vector.get(), nullptr);
    }
    qz_vector_clear(vector.get(), nullptr);
    EXPECT_EQ(vector->capacity, 16U);
}

TEST(vector, iterator_keeps_its_index_over_removals) {
    qz_vector* vector = new_qz_vector(0, qzfree);
    for (const char* text : {"a", "b", "c", "d"}) {
        qz_vector_pushback(vector, qzstrdup(text));
    }
    qz_vector* copy = qz_vector_copy(vector);  // shares the elements
    EXPECT_EQ(words_of(copy), words_of(vector));
    qz_vector_delete(copy);
    {
        qz_cursor cursor(qz_vector_open(vector));
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
    {
        vector->element_free = [](void*) { ADD_FAILURE(); };
        qz_cursor cursor(qz_vector_open(vector));
        qzfree(qz_vector_popback(vector));
        cursor.erase();  // nothing is left to dispose of
        EXPECT_TRUE(cursor.at_end());
    }
    qz_vector_destroy(vector);
    qz_vector_destroy(nullptr);
    qz_vector_delete(nullptr);
}

}  // namespace
