// Circular doubly linked list of untyped element pointers, in insertion order.
//
// The list owns its head and its nodes and nothing else: whoever puts an element in frees it,
// before erasing its node or disposing of the list. A list shared between threads is guarded by its
// user.
//
// Walk a list on its fields:
//     for (vylist_node* node = list->next; node != vylist_end(list); node = node->next) ...
// To remove while walking, continue with the node that vylist_erase returns.
#pragma once

#include <stdint.h>

// The head stands in the circle in the place of a node, so the compiler must not assume that a
// vylist and a vylist_node never share storage.
struct __attribute__((may_alias)) vylist_node {
    vylist_node* next;
    vylist_node* prev;
    void* data; // the element, never null; not owned
};

struct __attribute__((may_alias)) vylist {
    vylist_node* next; // first node, or the head itself when empty
    vylist_node* prev; // last node, or the head itself when empty
    uint32_t count;    // nodes reachable from the head
};

// The head seen as a node: the end of every walk, and the insert position for "last".
inline vylist_node* vylist_end(vylist* list)
{
    return reinterpret_cast<vylist_node*>(list);
}

inline const vylist_node* vylist_end(const vylist* list)
{
    return reinterpret_cast<const vylist_node*>(list);
}

// Returns owned: a new empty list; null when memory runs out.
[[nodiscard]] vylist* vylist_create();

// Links a new node for `element` immediately before `position` (a node of the list, or its head for
// "at the end"). Borrows the element. Returns the new node; null, with the list unchanged, when an
// argument is null or memory runs out.
vylist_node* vylist_insert(vylist* list, vylist_node* position, void* element);

// Unlinks and frees `node` (never its element); that the node belongs to the list is the caller's
// duty. Returns the node that followed it, the head if it was the last; null, with nothing changed,
// when an argument is null or the list is empty.
vylist_node* vylist_erase(vylist* list, vylist_node* node);

// Erases every node, first to last; the list stays usable. The list must not be null.
void vylist_clear(vylist* list);

// Takes the list: clears it and frees its head. The list must not be null.
void vylist_dispose(vylist* list);

// Appends every element of `source` to `destination`, then clears `source`. Returns 0; -1 when an
// insertion fails: what was appended stays and `source` keeps all, so elements stand in both lists.
[[nodiscard]] int vylist_move(vylist* destination, vylist* source);

// As vylist_move, but leaves `source` as it was.
[[nodiscard]] int vylist_copy(vylist* destination, vylist* source);
