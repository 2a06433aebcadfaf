#include "lib/rbtree.h"

#include <cassert>
#include <type_traits>
#include <utility>

#include "lib/alloc.h"
#include "lib/qz_result.h"

static_assert(std::is_standard_layout_v<qz_map> && std::is_standard_layout_v<qz_node>);

namespace {

bool is_red(const qz_node* node) {
    return node->colour == qz_red;
}

bool is_empty(const qz_map* map) {
    return map->root == &map->nil;
}

// Fetches both children ahead of the comparison that chooses one of them: in a large tree that
// hides half of the wait for memory, in a small one it costs nothing measurable.
void prefetch_children(const qz_node* node) {
    __builtin_prefetch(&node->left->entry);
    __builtin_prefetch(&node->right->entry);
}

// Only a negative result goes left; the probe is always the first argument.
qz_node* find_node(const qz_map* map, const void* key) {
    const qz_compare_fn compare = map->compare;
    qz_node* node = map->root;
    while (node != &map->nil) {
        prefetch_children(node);
        const int order = compare(key, node->entry.key);
        if (order < 0) {
            node = node->left;
        } else if (order > 0) {
            node = node->right;
        } else {
            return node;
        }
    }
    return nullptr;
}

// --- Balancing: the textbook algorithms with a shared sentinel ---

// One of a node's two child links. The algorithms are written once, for a `near` side and the `far`
// one opposite.
using link = qz_node* qz_node::*;

link opposite(link side) {
    return side == &qz_node::left ? &qz_node::right : &qz_node::left;
}

// The link of `parent` that leads to `child`.
link side_of(const qz_node* parent, const qz_node* child) {
    return child == parent->left ? &qz_node::left : &qz_node::right;
}

// Makes `to` the child of `parent` (the root when null) where `from` was.
void replace_child(qz_map* map, qz_node* parent, const qz_node* from, qz_node* to) {
    if (parent == nullptr) {
        map->root = to;
    } else {
        parent->*side_of(parent, from) = to;
    }
}

// Moves `node` down to the `near` side; its far child takes its place. A rotation never writes the
// sentinel: its parent belongs to the deletion fix-up.
void rotate(qz_map* map, qz_node* node, link near) {
    const link far = opposite(near);
    qz_node* riser = node->*far;
    qz_node* crossing = riser->*near;
    node->*far = crossing;
    if (crossing != &map->nil) {
        crossing->parent = node;
    }
    riser->parent = node->parent;
    replace_child(map, node->parent, node, riser);
    riser->*near = node;
    node->parent = riser;
}

// Repairs a red node under a red parent. A red parent is never the root, so it has a parent itself.
void insert_fix_up(qz_map* map, qz_node* node) {
    while (node->parent != nullptr && is_red(node->parent)) {
        qz_node* parent = node->parent;
        qz_node* grandparent = parent->parent;
        const link near = side_of(grandparent, parent);
        const link far = opposite(near);
        qz_node* uncle = grandparent->*far;
        if (is_red(uncle)) {
            parent->colour = qz_black;
            uncle->colour = qz_black;
            grandparent->colour = qz_red;
            node = grandparent;
            continue;
        }
        if (node == parent->*far) {
            rotate(map, parent, near);
            parent = node;
        }
        parent->colour = qz_black;
        grandparent->colour = qz_red;
        rotate(map, grandparent, far);
        break;
    }
    map->root->colour = qz_black;
}

// One round of the deletion fix-up for a `node` on the `near` side that lacks one black; returns
// the node that lacks it next, the root when done.
qz_node* fix_one_level(qz_map* map, const qz_node* node, link near) {
    const link far = opposite(near);
    qz_node* parent = node->parent;
    qz_node* sibling = parent->*far;
    if (is_red(sibling)) {
        sibling->colour = qz_black;
        parent->colour = qz_red;
        rotate(map, parent, near);
        sibling = parent->*far;
    }
    if (!is_red(sibling->left) && !is_red(sibling->right)) {
        sibling->colour = qz_red;
        return parent;
    }
    if (!is_red(sibling->*far)) {
        (sibling->*near)->colour = qz_black;
        sibling->colour = qz_red;
        rotate(map, sibling, far);
        sibling = parent->*far;
    }
    sibling->colour = parent->colour;
    parent->colour = qz_black;
    (sibling->*far)->colour = qz_black;
    rotate(map, parent, near);
    return map->root;
}

void delete_fix_up(qz_map* map, qz_node* node) {
    while (node != map->root && !is_red(node)) {
        node = fix_one_level(map, node, side_of(node->parent, node));
    }
    node->colour = qz_black;
}

// Takes one entry out of the tree and returns the node that carries it. With two children that is
// the successor's node, after the two swapped entries: `node` then holds the successor's entry.
qz_node* unlink(qz_map* map, qz_node* node) {
    qz_node* nil = &map->nil;
    qz_node* victim = node;
    if (node->left != nil && node->right != nil) {
        victim = qz_leftmost(map, node->right);
        std::swap(node->entry, victim->entry);
    }
    qz_node* child = victim->left != nil ? victim->left : victim->right;
    child->parent = victim->parent;  // also for the sentinel: the fix-up climbs from it
    replace_child(map, victim->parent, victim, child);
    if (!is_red(victim)) {
        delete_fix_up(map, child);
    }
    nil->parent = nullptr;
    --map->count;
    return victim;
}

// --- Disposal ---

void free_values(const qz_map* map, void* value) {
    if (map->value_free == nullptr) {
        return;
    }
    if (map->kind == QZ_MULTIMAP) {
        auto* values = static_cast<qz_vector*>(value);
        qz_vector_clear(values, map->value_free);
        qz_vector_delete(values);
    } else if (map->kind == QZ_MAP) {
        map->value_free(value);
    }
}

// Kept: without a value_free the vector of a multimap's key is not freed here.
void free_entry(const qz_map* map, const qz_pair& entry) {
    if (map->key_free != nullptr) {
        map->key_free(entry.key);
    }
    free_values(map, entry.value);
}

// Disposal by clear and destroy, which unlike a delete never leak a multimap's vector.
void free_node(const qz_map* map, qz_node* node) {
    free_entry(map, node->entry);
    if (map->kind == QZ_MULTIMAP && map->value_free == nullptr) {
        qz_vector_delete(static_cast<qz_vector*>(node->entry.value));
    }
    qzfree(node);
}

// Children first, without recursion, so that a large tree costs no stack: parents forget each child
// once it is gone, and the root is the node without a parent.
void free_tree(qz_map* map) {
    qz_node* nil = &map->nil;
    qz_node* node = map->root;
    while (node != nil && node != nullptr) {
        if (node->left != nil) {
            node = node->left;
        } else if (node->right != nil) {
            node = node->right;
        } else {
            qz_node* parent = node->parent;
            if (parent != nullptr) {
                replace_child(map, parent, node, nil);
            }
            free_node(map, node);
            node = parent;
        }
    }
}

// The entry as the caller's own block.
qz_pair* new_pair(const qz_pair& entry) {
    auto* pair = qz_need_new<qz_pair>();
    *pair = entry;
    return pair;
}

// --- Iterator ---

qz_map* map_of(const qz_iterator* iterator) {
    return static_cast<qz_map*>(iterator->container);
}

qz_node* node_of(const qz_iterator* iterator) {
    return static_cast<qz_node*>(iterator->position->node);
}

bool at_end(const qz_iterator* iterator) {
    return (iterator->flags & qz_at_end) != 0;
}

// Unlinks the current entry and stands on the following one. Requires: not at the end.
qz_pair take_current(qz_iterator* iterator) {
    qz_node* current = node_of(iterator);
    (void)qz_iterator_map_next(iterator);
    qz_node* gone = unlink(map_of(iterator), current);
    if (gone != current) {
        iterator->position->node = current;  // which holds the successor's entry now
    }
    const qz_pair entry = gone->entry;
    qzfree(gone);
    return entry;
}

constexpr qz_iterator_ops pair_ops = {
    .data = qz_iterator_kv_data,
    .next = qz_iterator_map_next,
    .close = qz_iterator_map_close,
    .isend = qz_iterator_map_isend,
    .isbegin = qz_iterator_map_isbegin,
    .erase = qz_iterator_map_erase,
    .remove = qz_iterator_map_remove,
    .rewind = qz_iterator_map_rewind,
};

// A set's entry is its key.
constexpr qz_iterator_ops set_ops = {
    .data = qz_iterator_v_data,
    .next = qz_iterator_map_next,
    .close = qz_iterator_map_close,
    .isend = qz_iterator_map_isend,
    .isbegin = qz_iterator_map_isbegin,
    .erase = qz_iterator_map_erase,
    .remove = qz_iterator_map_remove,
    .rewind = qz_iterator_map_rewind,
};

// Every absent link points to the sentinel, also the sentinel's own, so that fix-ups read colours
// without asking for null.
qz_map* new_tree(qz_kind kind, qz_compare_fn compare, qz_free_fn key_free, qz_free_fn value_free) {
    auto* map = qz_need_new<qz_map>();
    map->kind = kind;
    map->nil.left = &map->nil;
    map->nil.right = &map->nil;
    map->nil.colour = qz_black;
    map->compare = compare;
    map->root = &map->nil;
    map->key_free = key_free;
    map->value_free = value_free;
    return map;
}

}  // namespace

qz_map* new_qz_map(qz_compare_fn compare, qz_free_fn key_free, qz_free_fn value_free) noexcept {
    return new_tree(QZ_MAP, compare, key_free, value_free);
}

qz_multimap* new_qz_multimap(qz_compare_fn compare, qz_free_fn key_free,
                             qz_free_fn value_free) noexcept {
    return new_tree(QZ_MULTIMAP, compare, key_free, value_free);
}

qz_set* new_qz_set(qz_compare_fn compare, qz_free_fn key_free) noexcept {
    return new_tree(QZ_SET, compare, key_free, nullptr);
}

void qz_map_clear(qz_map* map) noexcept {
    free_tree(map);
    map->count = 0;
    map->root = &map->nil;
}

void qz_map_destroy(qz_map* map) noexcept {
    if (map != nullptr) {
        free_tree(map);
        qzfree(map);
    }
}

int qz_map_insert(qz_map* map, void* key, void* value) noexcept {
    const qz_compare_fn compare = map->compare;
    qz_node* const nil = &map->nil;
    qz_node* parent = nullptr;
    qz_node** place = &map->root;
    // The two directions stand apart on purpose: as branches they let the processor fetch the next
    // node while the comparison is still running, which a selected address does not.
    for (qz_node* next = map->root; next != nil;) {
        parent = next;
        prefetch_children(parent);
        const int order = compare(key, parent->entry.key);
        if (order < 0) {
            place = &parent->left;
            next = parent->left;
        } else if (order > 0) {
            place = &parent->right;
            next = parent->right;
        } else {
            if (map->kind == QZ_MULTIMAP) {
                qz_vector_pushback(static_cast<qz_vector*>(parent->entry.value), value);
            }
            return qz_exists;
        }
    }
    auto* node = static_cast<qz_node*>(qz_need_bytes(sizeof(qz_node)));
    *node = {nil, nil, parent, qz_red, {key, value}};
    if (map->kind == QZ_MULTIMAP) {
        qz_vector* values = new_qz_vector(1, nullptr);
        qz_vector_pushback(values, value);
        node->entry.value = values;
    }
    *place = node;  // the last comparison of the descent told the side
    insert_fix_up(map, node);
    ++map->count;
    return qz_ok;
}

int qz_multimap_insert(qz_multimap* map, void* key, void* value) noexcept {
    if (qz_map_insert(map, key, value) == qz_exists && map->key_free != nullptr) {
        assert(find_node(map, key)->entry.key != key);
        map->key_free(key);
    }
    return qz_ok;
}

int qz_set_insert(qz_set* set, void* key) noexcept {
    return qz_map_insert(set, key, nullptr);
}

void* qz_map_find(const qz_map* map, const void* key) noexcept {
    const qz_node* node = find_node(map, key);
    if (node == nullptr) {
        return nullptr;
    }
    return map->kind == QZ_SET ? node->entry.key : node->entry.value;
}

qz_vector* qz_multimap_find(const qz_multimap* map, const void* key) noexcept {
    return static_cast<qz_vector*>(qz_map_find(map, key));
}

qz_pair* qz_map_at(qz_map* map, const void* key) noexcept {
    qz_node* node = find_node(map, key);
    return node == nullptr ? nullptr : &node->entry;
}

int qz_set_exists(const qz_set* set, const void* key) noexcept {
    return qz_map_find(set, key) != nullptr;
}

std::int32_t qz_map_size(const qz_map* map) noexcept {
    return map->count;
}

std::int32_t qz_set_size(const qz_set* set) noexcept {
    return set->count;
}

int qz_map_delete(qz_map* map, const void* key) noexcept {
    qz_node* node = find_node(map, key);
    if (node == nullptr) {
        return qz_not_found;
    }
    node = unlink(map, node);
    free_entry(map, node->entry);
    qzfree(node);
    return qz_ok;
}

qz_pair* qz_map_remove(qz_map* map, const void* key) noexcept {
    qz_node* node = find_node(map, key);
    if (node == nullptr) {
        return nullptr;
    }
    node = unlink(map, node);
    qz_pair* pair = new_pair(node->entry);
    qzfree(node);
    return pair;
}

void* qz_set_remove(qz_set* set, const void* key) noexcept {
    const qz_owned<qz_pair> pair(qz_map_remove(set, key));
    return pair == nullptr ? nullptr : pair->key;
}

qz_iterator* qz_map_open(qz_map* map) noexcept {
    auto* iterator = qz_need_new<qz_iterator>();
    iterator->kind = static_cast<std::uint8_t>(map->kind);
    iterator->container = map;
    iterator->position = qz_need_new<qz_position>();
    iterator->ops = map->kind == QZ_SET ? &set_ops : &pair_ops;
    qz_iterator_map_rewind(iterator);
    return iterator;
}

void qz_map_foreach(qz_map* map, qz_visit_fn fn, void* arg) noexcept {
    for (qz_pair& entry : qz_each(map)) {
        if (map->kind == QZ_MAP) {
            (void)fn(&entry, arg);  // a visitor cannot stop the walk
        } else if (map->kind == QZ_SET) {
            (void)fn(entry.key, arg);
        } else {
            for (void* value : qz_each(static_cast<qz_vector*>(entry.value))) {
                qz_pair pair{entry.key, value};
                (void)fn(&pair, arg);
            }
        }
    }
}

void* qz_iterator_kv_data(qz_iterator* iterator) noexcept {
    qz_node* node = node_of(iterator);
    if (node == nullptr || node == &map_of(iterator)->nil) {
        return nullptr;
    }
    return &node->entry;
}

void* qz_iterator_v_data(qz_iterator* iterator) noexcept {
    const auto* pair = static_cast<qz_pair*>(qz_iterator_kv_data(iterator));
    return pair == nullptr ? nullptr : pair->key;
}

qz_iterator* qz_iterator_map_next(qz_iterator* iterator) noexcept {
    if (at_end(iterator)) {
        return iterator;
    }
    qz_node* next = qz_successor(map_of(iterator), node_of(iterator));
    iterator->position->node = next;
    if (next == nullptr) {
        iterator->flags |= qz_at_end;
    }
    iterator->flags &= ~qz_at_begin;
    return iterator;
}

int qz_iterator_map_isend(const qz_iterator* iterator) noexcept {
    return at_end(iterator);
}

int qz_iterator_map_isbegin(const qz_iterator* iterator) noexcept {
    return (iterator->flags & qz_at_begin) != 0;
}

void qz_iterator_map_rewind(qz_iterator* iterator) noexcept {
    const qz_map* map = map_of(iterator);
    iterator->flags = is_empty(map) ? qz_at_begin | qz_at_end : qz_at_begin;
    iterator->position->node = qz_leftmost(map, map->root);
}

void* qz_iterator_map_remove(qz_iterator* iterator) noexcept {
    if (at_end(iterator)) {
        return nullptr;
    }
    const qz_pair entry = take_current(iterator);
    return map_of(iterator)->kind == QZ_SET ? entry.key : new_pair(entry);
}

void qz_iterator_map_erase(qz_iterator* iterator) noexcept {
    if (!at_end(iterator)) {
        const qz_pair entry = take_current(iterator);
        free_entry(map_of(iterator), entry);  // after the walk has left it behind
    }
}

void qz_iterator_map_close(qz_iterator* iterator) noexcept {
    qzfree(iterator->position);
    qzfree(iterator);
}
