// Proves that the hash containers behave as the ordered ones do, with entries in order of bucket
// and then key.
#include "tests/lib/container_model.h"

namespace {

constexpr int bucket_count = 7;

std::uint32_t hash_all_alike(const void* /*key*/) {
    return 0;
}

std::uint32_t hash_identity(const void* key) {
    return static_cast<std::uint32_t>(number_at(key));
}

container_api api_of(qz_hashmap* map) {
    const auto kind = static_cast<qz_kind>(map->kind);
    return {
        .kind = kind,
        .insert =
            [=](int* key, int* value) {
                return kind == QZ_MULTIMAP ? qz_hashmultimap_insert(map, key, value)
                                           : qz_hashmap_insert(map, key, value);
            },
        .find = [=](const int* key) { return qz_hashmap_find(map, key); },
        .erase = [=](const int* key) { return qz_hashmap_delete(map, key); },
        .remove = [=](const int* key) { return qz_hashmap_remove(map, key); },
        .open = [=] { return qz_hashmap_open(map); },
        .foreach = [=](qz_visit_fn fn, void* arg) { qz_hashmap_foreach(map, fn, arg); },
        .clear = [=] { qz_hashmap_clear(map); },
        .size = [=] { return map->count; },
        .check_structure = [] {},
    };
}

TEST(hash_containers, agree_with_std_map_on_random_operations) {
    const auto by_key = std::less<>();
    const auto by_bucket = [](int a, int b) {
        return std::pair(a % bucket_count, a) < std::pair(b % bucket_count, b);
    };
    for (unsigned seed = 1; seed <= 4; ++seed) {
        for (const bool spread : {false, true}) {
            SCOPED_TRACE(testing::Message() << "seed " << seed << " spread " << spread);
            const qz_hash_fn hash = spread ? hash_identity : hash_all_alike;
            qz_hashmap* map = new_qz_hashmap(bucket_count, hash, compare_numbers, qzfree, qzfree);
            qz_hashmap* multimap =
                new_qz_hashmultimap(bucket_count, hash, compare_numbers, qzfree, qzfree);
            for (qz_hashmap* container : {map, multimap}) {
                const model_order order = spread ? model_order(by_bucket) : model_order(by_key);
                model_run(api_of(container), order, seed).run(3000, 40);
                qz_hashmap_destroy(container);
            }
        }
    }
}

TEST(hash_containers, buckets_are_at_least_one_and_survive_clear) {
    qz_hashmap* map = new_qz_hashmap(0, hash_identity, compare_numbers, qzfree, nullptr);
    EXPECT_EQ(qz_vector_size(map->buckets), 1);
    EXPECT_EQ(qz_hashmap_insert(map, new_number(5), nullptr), 0);
    qz_hashmap_clear(map);
    EXPECT_EQ(qz_vector_size(map->buckets), 1);
    EXPECT_EQ(map->count, 0);
    const qz_cursor cursor(qz_hashmap_open(map));
    EXPECT_EQ(cursor.get()->flags, qz_at_begin | qz_at_end);
    qz_hashmap_destroy(map);
    qz_hashmap_destroy(nullptr);
}

}  // namespace
