// Ordered containers (map, multimap, set) and the hash containers built from them.
//
// All three ordered kinds are one red-black tree with one node per key. Keys and values are words
// of the caller: insert takes them only when it reports success, remove hands them back, delete,
// erase, clear and destroy dispose of them through key_free and value_free (either may be null).
// The shape of the tree is part of the contract: a comparator that treats one stored key as equal
// to every probe (a wildcard) is reached by exactly the probes whose search path crosses it.
//
// Removing moves entries between nodes: it ends the validity of every qz_pair pointer and of every
// iterator but the one used for removing. Inserting ends neither. Callbacks must not change the
// container they are called from. Not safe for use from two threads.
#pragma once

#include <cstdint>
#include <memory>

#include "lib/qz_iterator.h"
#include "lib/qz_vector.h"

enum qz_colour : std::int32_t { qz_red = 0, qz_black = 1 };

struct qz_node {
    qz_node* left;  // the sentinel when absent
    qz_node* right;
    qz_node* parent;  // null at the root
    std::int32_t colour;
    qz_pair entry;  // a multimap's value is the key's qz_vector of values, a set's is null
};

// Holds its sentinel by value and therefore never moves: created by the new_ functions only.
struct qz_map {
    std::int32_t kind;
    std::int32_t count;  // keys; a multimap does not count values
    qz_node nil;
    qz_compare_fn compare;
    qz_node* root;
    qz_free_fn key_free;
    qz_free_fn value_free;

    qz_map() = default;
    ~qz_map() = default;
    qz_map(const qz_map&) = delete;
    qz_map& operator=(const qz_map&) = delete;
    qz_map(qz_map&&) = delete;
    qz_map& operator=(qz_map&&) = delete;
};
using qz_multimap = qz_map;
using qz_set = qz_map;

// --- Creation and disposal ---

// Empty containers. The comparator gets (probe, stored key), always in this order; the callbacks
// get one word each and may be null, which means that the words are not the container's to free.
[[nodiscard]] qz_map* new_qz_map(qz_compare_fn compare, qz_free_fn key_free,
                                 qz_free_fn value_free) noexcept;
[[nodiscard]] qz_multimap* new_qz_multimap(qz_compare_fn compare, qz_free_fn key_free,
                                           qz_free_fn value_free) noexcept;
[[nodiscard]] qz_set* new_qz_set(qz_compare_fn compare, qz_free_fn key_free) noexcept;

// Disposes of every entry; the container stays usable.
void qz_map_clear(qz_map* map) noexcept;
// Disposes of every entry and frees the container. Null is ignored.
void qz_map_destroy(qz_map* map) noexcept;

// --- Insertion ---

// Returns 0 when stored. Returns 1 when the key is present already: a map or set stores neither key
// nor value and both stay the caller's; a multimap appends the value and the key stays the
// caller's.
int qz_map_insert(qz_map* map, void* key, void* value) noexcept;

// As above, and a key that is present already is released through key_free; always 0. Requires: the
// key is not the very pointer that is stored.
int qz_multimap_insert(qz_multimap* map, void* key, void* value) noexcept;

// 0 when stored, 1 when present already (the caller keeps the key).
int qz_set_insert(qz_set* set, void* key) noexcept;

// --- Look-up ---

// A map's value, a multimap's vector of values, a set's stored key; null when absent.
void* qz_map_find(const qz_map* map, const void* key) noexcept;
qz_vector* qz_multimap_find(const qz_multimap* map, const void* key) noexcept;
// The stored key and value, or null.
qz_pair* qz_map_at(qz_map* map, const void* key) noexcept;
// 1 or 0. A stored key that is the null word counts as absent.
int qz_set_exists(const qz_set* set, const void* key) noexcept;
std::int32_t qz_map_size(const qz_map* map) noexcept;
std::int32_t qz_set_size(const qz_set* set) noexcept;

// --- Removal ---

// Disposes of the stored key and value; 0, or 2 when absent. The probe is not used once the entry
// is unlinked, so it may be part of the value that is released. Kept: a multimap without value_free
// keeps the key's vector allocated after a delete (clear and destroy free it); take the vector with
// qz_multimap_find first.
int qz_map_delete(qz_map* map, const void* key) noexcept;

// Returns a new pair (free it with qzfree) whose key and value the caller owns; null when absent.
[[nodiscard]] qz_pair* qz_map_remove(qz_map* map, const void* key) noexcept;
// Returns the stored key, null when absent.
[[nodiscard]] void* qz_set_remove(qz_set* set, const void* key) noexcept;

// --- Traversal in ascending order ---

// An iterator on the smallest key; its data is the qz_pair, or the key for a set.
// Kept: next clears the begin flag even when it reaches the end, and after the first entry is
// removed through the iterator, isbegin is 0 although it stands on the smallest key.
[[nodiscard]] qz_iterator* qz_map_open(qz_map* map) noexcept;

// Calls fn(pair, arg) for a map, fn(key, arg) for a set, and for a multimap fn(pair, arg) once per
// value with a temporary pair.
void qz_map_foreach(qz_map* map, qz_visit_fn fn, void* arg) noexcept;

// The slots of a tree's iterator, which callers reach through its operation table.
//
// data: the pair inside the node (kv) or its key (v), null at the end.
// next: the in-order successor; nothing once the end flag is set.
// remove: unlinks the current entry and hands it over, a new pair (free it with qzfree) or the
// set's key; the iterator then stands on the entry that followed. Null at the end.
// erase: the same, but disposes of the entry as delete does.
void* qz_iterator_kv_data(qz_iterator* iterator) noexcept;
void* qz_iterator_v_data(qz_iterator* iterator) noexcept;
qz_iterator* qz_iterator_map_next(qz_iterator* iterator) noexcept;
void qz_iterator_map_rewind(qz_iterator* iterator) noexcept;
int qz_iterator_map_isend(const qz_iterator* iterator) noexcept;
int qz_iterator_map_isbegin(const qz_iterator* iterator) noexcept;
[[nodiscard]] void* qz_iterator_map_remove(qz_iterator* iterator) noexcept;
void qz_iterator_map_erase(qz_iterator* iterator) noexcept;
void qz_iterator_map_close(qz_iterator* iterator) noexcept;

// The other kinds' names for the same operations: each acts by the container's kind.
inline void qz_multimap_clear(qz_multimap* map) noexcept {
    qz_map_clear(map);
}
inline void qz_set_clear(qz_set* set) noexcept {
    qz_map_clear(set);
}
inline void qz_multimap_destroy(qz_multimap* map) noexcept {
    qz_map_destroy(map);
}
inline void qz_set_destroy(qz_set* set) noexcept {
    qz_map_destroy(set);
}
inline int qz_multimap_delete(qz_multimap* map, const void* key) noexcept {
    return qz_map_delete(map, key);
}
inline int qz_set_delete(qz_set* set, const void* key) noexcept {
    return qz_map_delete(set, key);
}
[[nodiscard]] inline qz_pair* qz_multimap_remove(qz_multimap* map, const void* key) noexcept {
    return qz_map_remove(map, key);
}
[[nodiscard]] inline qz_iterator* qz_multimap_open(qz_multimap* map) noexcept {
    return qz_map_open(map);
}
[[nodiscard]] inline qz_iterator* qz_set_open(qz_set* set) noexcept {
    return qz_map_open(set);
}
inline void qz_multimap_foreach(qz_multimap* map, qz_visit_fn fn, void* arg) noexcept {
    qz_map_foreach(map, fn, arg);
}
inline void qz_set_foreach(qz_set* set, qz_visit_fn fn, void* arg) noexcept {
    qz_map_foreach(set, fn, arg);
}

// Destroys a container of any ordered kind at the end of its scope.
struct qz_map_deleter {
    void operator()(qz_map* map) const noexcept { qz_map_destroy(map); }
};
using map_ptr = std::unique_ptr<qz_map, qz_map_deleter>;

// --- Ranges ---

// The smallest entry below `node`. A walk returns for the right child of every node on the way, so
// each is fetched ahead: its cache miss then overlaps with those of the left subtree.
inline qz_node* qz_leftmost(const qz_map* map, qz_node* node) noexcept {
    __builtin_prefetch(node->right);
    while (node->left != &map->nil) {
        node = node->left;
        __builtin_prefetch(node->right);
    }
    return node;
}

// The in-order successor, null after the last.
inline qz_node* qz_successor(const qz_map* map, qz_node* node) noexcept {
    if (node->right != &map->nil) {
        return qz_leftmost(map, node->right);
    }
    qz_node* parent = node->parent;
    while (parent != nullptr && node == parent->right) {
        node = parent;
        parent = parent->parent;
    }
    return parent;
}

// The entries as a range: for (qz_pair& e : qz_each(map)). The body may insert, never remove.
class qz_map_range {
  public:
    struct stop {};
    class cursor {
      public:
        cursor(const qz_map* map, qz_node* node) noexcept : map_(map), node_(node) {}
        qz_pair& operator*() const noexcept { return node_->entry; }
        cursor& operator++() noexcept {
            node_ = qz_successor(map_, node_);
            return *this;
        }
        bool operator!=(stop) const noexcept { return node_ != nullptr; }

      private:
        const qz_map* map_;
        qz_node* node_;
    };

    explicit qz_map_range(const qz_map* map) noexcept : map_(map) {}
    [[nodiscard]] cursor begin() const noexcept {
        return {map_, map_->root == &map_->nil ? nullptr : qz_leftmost(map_, map_->root)};
    }
    [[nodiscard]] stop end() const noexcept { return {}; }

  private:
    const qz_map* map_;
};
inline qz_map_range qz_each(const qz_map* map) noexcept {
    return qz_map_range(map);
}

// --- Hash containers ---

// A fixed number of buckets, each an ordered tree. Results, ownership and validity are those of the
// ordered containers; iteration visits buckets by index and, inside a bucket, keys in order.
struct qz_hashmap {
    std::int32_t kind;
    qz_vector* buckets;  // of cells, each holding the bucket's qz_map* or null
    qz_hash_fn hash;
    std::int32_t count;  // keys
    qz_compare_fn compare;
    qz_free_fn key_free;
    qz_free_fn value_free;
};
using qz_hashmultimap = qz_hashmap;

// A bucket_count below 1 counts as 1. A key lives in bucket hash(key) modulo bucket_count for ever.
[[nodiscard]] qz_hashmap* new_qz_hashmap(std::int32_t bucket_count, qz_hash_fn hash,
                                         qz_compare_fn compare, qz_free_fn key_free,
                                         qz_free_fn value_free) noexcept;
[[nodiscard]] qz_hashmultimap* new_qz_hashmultimap(std::int32_t bucket_count, qz_hash_fn hash,
                                                   qz_compare_fn compare, qz_free_fn key_free,
                                                   qz_free_fn value_free) noexcept;
// Results and ownership as qz_map_insert and qz_multimap_insert.
int qz_hashmap_insert(qz_hashmap* map, void* key, void* value) noexcept;
int qz_hashmultimap_insert(qz_hashmultimap* map, void* key, void* value) noexcept;
// The value, or a multimap's vector; null when absent.
void* qz_hashmap_find(const qz_hashmap* map, const void* key) noexcept;
qz_vector* qz_hashmultimap_find(const qz_hashmultimap* map, const void* key) noexcept;
// As qz_map_delete and qz_map_remove. The bucket's tree goes with its last key.
int qz_hashmap_delete(qz_hashmap* map, const void* key) noexcept;
[[nodiscard]] qz_pair* qz_hashmap_remove(qz_hashmap* map, const void* key) noexcept;
// Visits as qz_map_foreach does, bucket by bucket.
void qz_hashmap_foreach(qz_hashmap* map, qz_visit_fn fn, void* arg) noexcept;
// Disposes of every entry and keeps the number of buckets.
void qz_hashmap_clear(qz_hashmap* map) noexcept;
// Null is ignored.
void qz_hashmap_destroy(qz_hashmap* map) noexcept;
// An iterator on the first entry. Kept: an erase or remove through it leaves an emptied bucket's
// tree allocated until the bucket's next delete or the next clear.
[[nodiscard]] qz_iterator* qz_hashmap_open(qz_hashmap* map) noexcept;
[[nodiscard]] qz_iterator* qz_hashmultimap_open(qz_hashmultimap* map) noexcept;
