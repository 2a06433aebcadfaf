// The hash containers: a vector of cells, each with the tree of its bucket once it has had a key.
#include <algorithm>
#include <cassert>

#include "lib/alloc.h"
#include "lib/qz_result.h"
#include "lib/rbtree.h"

namespace {

// Null until the bucket's first key, and again after a delete or remove has emptied it. An iterator
// leaves emptied trees in place.
struct bucket_cell {
    qz_map* tree;
};

void free_cell(void* word) {
    auto* cell = static_cast<bucket_cell*>(word);
    qz_map_destroy(cell->tree);
    qzfree(cell);
}

// Empty cells; the vector frees them with their trees.
qz_vector* new_buckets(std::int32_t count) {
    qz_vector* buckets = new_qz_vector(count, free_cell);
    for (std::int32_t i = 0; i < count; ++i) {
        qz_vector_pushback(buckets, qz_need_new<bucket_cell>());
    }
    return buckets;
}

bucket_cell* cell_at(const qz_hashmap* map, std::int32_t index) {
    return static_cast<bucket_cell*>(qz_vector_at(map->buckets, index));
}

// Unsigned, so that a hash with the top bit set stays in range.
bucket_cell* cell_of(const qz_hashmap* map, const void* key) {
    const auto buckets = static_cast<std::uint32_t>(map->buckets->count);
    return cell_at(map, static_cast<std::int32_t>(map->hash(key) % buckets));
}

// One key has gone from the cell's tree.
void forget_key(qz_hashmap* map, bucket_cell* cell) {
    --map->count;
    if (qz_map_size(cell->tree) == 0) {
        qz_map_destroy(cell->tree);
        cell->tree = nullptr;
    }
}

qz_hashmap* new_table(qz_kind kind, std::int32_t bucket_count, qz_hash_fn hash,
                      qz_compare_fn compare, qz_free_fn key_free, qz_free_fn value_free) {
    auto* map = qz_need_new<qz_hashmap>();
    map->kind = kind;
    map->buckets = new_buckets(std::max(bucket_count, 1));
    map->hash = hash;
    map->compare = compare;
    map->key_free = key_free;
    map->value_free = value_free;
    return map;
}

// --- Iterator: the position holds the bucket's index and the iterator of the bucket's tree ---

qz_hashmap* map_of(const qz_iterator* iterator) {
    return static_cast<qz_hashmap*>(iterator->container);
}

qz_iterator* inner_of(const qz_iterator* iterator) {
    return static_cast<qz_iterator*>(iterator->position->node);
}

bool at_end(const qz_iterator* iterator) {
    return (iterator->flags & qz_at_end) != 0;
}

void close_inner(qz_iterator* iterator) {
    if (qz_iterator* inner = inner_of(iterator)) {
        inner->ops->close(inner);
        iterator->position->node = nullptr;
    }
}

// Stands on the first key of the first filled bucket from `index` on, or at the end.
void enter_bucket(qz_iterator* iterator, std::uintptr_t index) {
    const qz_hashmap* map = map_of(iterator);
    close_inner(iterator);
    for (; index < static_cast<std::uintptr_t>(map->buckets->count); ++index) {
        qz_map* tree = cell_at(map, static_cast<std::int32_t>(index))->tree;
        if (tree != nullptr && qz_map_size(tree) > 0) {
            iterator->position->index = index;
            iterator->position->node = qz_map_open(tree);
            return;
        }
    }
    iterator->position->index = index;
    iterator->flags |= qz_at_end;
}

// After the inner iterator has moved: goes on to the next bucket when it is at its end.
void settle(qz_iterator* iterator) {
    if (inner_of(iterator)->ops->isend(inner_of(iterator)) != 0) {
        enter_bucket(iterator, iterator->position->index + 1);
    }
    iterator->flags &= ~qz_at_begin;
}

void* hash_data(qz_iterator* iterator) {
    qz_iterator* inner = inner_of(iterator);
    return inner == nullptr ? nullptr : inner->ops->data(inner);
}

qz_iterator* hash_next(qz_iterator* iterator) {
    if (!at_end(iterator)) {
        (void)inner_of(iterator)->ops->next(inner_of(iterator));
        settle(iterator);
    }
    return iterator;
}

void hash_close(qz_iterator* iterator) {
    close_inner(iterator);
    qzfree(iterator->position);
    qzfree(iterator);
}

void hash_rewind(qz_iterator* iterator) {
    iterator->flags = qz_at_begin;
    enter_bucket(iterator, 0);
}

// The inner iterator unlinks; an emptied tree stays, since this iterator may be standing in it.
void* hash_remove(qz_iterator* iterator) {
    if (at_end(iterator)) {
        return nullptr;
    }
    void* pair = inner_of(iterator)->ops->remove(inner_of(iterator));
    --map_of(iterator)->count;
    settle(iterator);
    return pair;
}

void hash_erase(qz_iterator* iterator) {
    if (!at_end(iterator)) {
        inner_of(iterator)->ops->erase(inner_of(iterator));
        --map_of(iterator)->count;
        settle(iterator);
    }
}

constexpr qz_iterator_ops hash_ops = {
    .data = hash_data,
    .next = hash_next,
    .close = hash_close,
    .isend = qz_iterator_map_isend,
    .isbegin = qz_iterator_map_isbegin,
    .erase = hash_erase,
    .remove = hash_remove,
    .rewind = hash_rewind,
};

}  // namespace

qz_hashmap* new_qz_hashmap(std::int32_t bucket_count, qz_hash_fn hash, qz_compare_fn compare,
                           qz_free_fn key_free, qz_free_fn value_free) noexcept {
    return new_table(QZ_MAP, bucket_count, hash, compare, key_free, value_free);
}

qz_hashmultimap* new_qz_hashmultimap(std::int32_t bucket_count, qz_hash_fn hash,
                                     qz_compare_fn compare, qz_free_fn key_free,
                                     qz_free_fn value_free) noexcept {
    return new_table(QZ_MULTIMAP, bucket_count, hash, compare, key_free, value_free);
}

int qz_hashmap_insert(qz_hashmap* map, void* key, void* value) noexcept {
    bucket_cell* cell = cell_of(map, key);
    if (cell->tree == nullptr) {
        cell->tree = map->kind == QZ_MULTIMAP
                         ? new_qz_multimap(map->compare, map->key_free, map->value_free)
                         : new_qz_map(map->compare, map->key_free, map->value_free);
    }
    const int result = qz_map_insert(cell->tree, key, value);
    if (result == qz_ok) {
        ++map->count;
    }
    return result;
}

int qz_hashmultimap_insert(qz_hashmultimap* map, void* key, void* value) noexcept {
    if (qz_hashmap_insert(map, key, value) == qz_exists && map->key_free != nullptr) {
        assert(qz_map_at(cell_of(map, key)->tree, key)->key != key);
        map->key_free(key);
    }
    return qz_ok;
}

void* qz_hashmap_find(const qz_hashmap* map, const void* key) noexcept {
    const bucket_cell* cell = cell_of(map, key);
    return cell->tree == nullptr ? nullptr : qz_map_find(cell->tree, key);
}

qz_vector* qz_hashmultimap_find(const qz_hashmultimap* map, const void* key) noexcept {
    return static_cast<qz_vector*>(qz_hashmap_find(map, key));
}

int qz_hashmap_delete(qz_hashmap* map, const void* key) noexcept {
    bucket_cell* cell = cell_of(map, key);
    if (cell->tree == nullptr) {
        return qz_not_found;
    }
    const int result = qz_map_delete(cell->tree, key);
    if (result == qz_ok) {
        forget_key(map, cell);
    }
    return result;
}

qz_pair* qz_hashmap_remove(qz_hashmap* map, const void* key) noexcept {
    bucket_cell* cell = cell_of(map, key);
    if (cell->tree == nullptr) {
        return nullptr;
    }
    qz_pair* pair = qz_map_remove(cell->tree, key);
    if (pair != nullptr) {
        forget_key(map, cell);
    }
    return pair;
}

void qz_hashmap_foreach(qz_hashmap* map, qz_visit_fn fn, void* arg) noexcept {
    for (void* word : qz_each(map->buckets)) {
        if (qz_map* tree = static_cast<bucket_cell*>(word)->tree) {
            qz_map_foreach(tree, fn, arg);
        }
    }
}

void qz_hashmap_clear(qz_hashmap* map) noexcept {
    const std::int32_t bucket_count = map->buckets->count;
    qz_vector_destroy(map->buckets);
    map->buckets = new_buckets(bucket_count);
    map->count = 0;
}

void qz_hashmap_destroy(qz_hashmap* map) noexcept {
    if (map != nullptr) {
        qz_vector_destroy(map->buckets);
        qzfree(map);
    }
}

qz_iterator* qz_hashmap_open(qz_hashmap* map) noexcept {
    auto* iterator = qz_need_new<qz_iterator>();
    iterator->kind = static_cast<std::uint8_t>(map->kind);
    iterator->container = map;
    iterator->position = qz_need_new<qz_position>();
    iterator->ops = &hash_ops;
    hash_rewind(iterator);
    return iterator;
}

qz_iterator* qz_hashmultimap_open(qz_hashmultimap* map) noexcept {
    return qz_hashmap_open(map);
}
