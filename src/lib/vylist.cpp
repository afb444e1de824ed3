#include "lib/vylist.h"

#include <stddef.h>
#include <stdlib.h>

// The head takes part in the circle through a node's first two fields.
static_assert(offsetof(vylist, next) == offsetof(vylist_node, next));
static_assert(offsetof(vylist, prev) == offsetof(vylist_node, prev));

vylist* vylist_create()
{
    auto* list = static_cast<vylist*>(malloc(sizeof(vylist)));
    if (list == nullptr)
        return nullptr;
    *list = {.next = vylist_end(list), .prev = vylist_end(list), .count = 0};
    return list;
}

vylist_node* vylist_insert(vylist* list, vylist_node* position, void* element)
{
    if (list == nullptr || position == nullptr || element == nullptr)
        return nullptr;
    auto* node = static_cast<vylist_node*>(malloc(sizeof(vylist_node)));
    if (node == nullptr)
        return nullptr;
    *node = {.next = position, .prev = position->prev, .data = element};
    position->prev->next = node;
    position->prev = node;
    list->count++;
    return node;
}

vylist_node* vylist_erase(vylist* list, vylist_node* node)
{
    if (list == nullptr || node == nullptr || list->count == 0)
        return nullptr;
    vylist_node* following = node->next;
    following->prev = node->prev;
    node->prev->next = following;
    list->count--;
    free(node);
    return following;
}

void vylist_clear(vylist* list)
{
    for (vylist_node* node = list->next; node != vylist_end(list);)
        node = vylist_erase(list, node);
}

void vylist_dispose(vylist* list)
{
    vylist_clear(list);
    free(list);
}

int vylist_move(vylist* destination, vylist* source)
{
    if (vylist_copy(destination, source) != 0)
        return -1;
    vylist_clear(source);
    return 0;
}

int vylist_copy(vylist* destination, vylist* source)
{
    for (vylist_node* node = source->next; node != vylist_end(source); node = node->next) {
        if (node->data == nullptr)
            continue;
        if (vylist_insert(destination, vylist_end(destination), node->data) == nullptr)
            return -1;
    }
    return 0;
}
