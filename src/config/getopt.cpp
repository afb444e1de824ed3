#include "config/getopt.h"

#include "lib/log.h"
#include "lib/str.h"
#include "lib/vylist.h"

#include <stdlib.h>
#include <string.h>
#include <strings.h>

static constexpr char log_tag[] = "getopt";

// The numbers these two lines have always been logged under.
static constexpr int line_of_value_item = 243;
static constexpr int line_of_bare_item = 245;

const char* vyopt_get_section(const char* position, char* buffer, int32_t size)
{
    if (position == nullptr)
        return nullptr;
    const char* item = position + strspn(position, ",");
    if (*item == '\0')
        return nullptr;
    const size_t length = strcspn(item, ",");
    const bool fits = size > 0 && length < static_cast<size_t>(size);
    str_ncpy(buffer, item, fits ? static_cast<int32_t>(length) + 1 : size);
    return item + length;
}

void vyopt_free_op(vyopt_op* op)
{
    if (op == nullptr)
        return;
    free(op->name);
    free(op->value);
    free(op);
}

using OpGuard = Guard<vyopt_op, vyopt_free_op>;

void vyopt_free_opmap(vyopt_op** map)
{
    if (map == nullptr)
        return;
    for (vyopt_op** op = map; *op != nullptr; op++)
        vyopt_free_op(*op);
    free(map);
}

// Splits an item at its first "=". Returns owned; null when memory runs out.
static vyopt_op* create_op(const char* item)
{
    OpGuard op(static_cast<vyopt_op*>(calloc(1, sizeof(vyopt_op))));
    if (!op)
        return nullptr;
    const size_t name_length = strcspn(item, "=");
    op->name = strndup(item, name_length);
    if (op->name == nullptr)
        return nullptr;
    if (item[name_length] == '\0')
        return op.take();
    op->value = strdup(item + name_length + 1);
    if (op->value == nullptr)
        return nullptr;
    return op.take();
}

// Appends the items of `text` until one has no name or memory runs out.
static void take_items(const char* text, vylist* items)
{
    char item[VYOPT_ITEM_SIZE];
    const char* position = text;
    while ((position = vyopt_get_section(position, item, sizeof item)) != nullptr) {
        if (item[0] == '=')
            return;
        OpGuard op(create_op(item));
        if (!op || vylist_insert(items, vylist_end(items), op.get()) == nullptr)
            return;
        (void)op.take();
    }
}

static void release_items(vylist* items)
{
    for (vylist_node* node = items->next; node != vylist_end(items); node = node->next)
        vyopt_free_op(static_cast<vyopt_op*>(node->data));
    vylist_dispose(items);
}

vyopt_op** vyopt_create_opmap(const char* text)
{
    Guard<vylist, release_items> items(vylist_create());
    if (!items)
        return nullptr;
    take_items(text, items.get());

    auto** map = static_cast<vyopt_op**>(calloc(items->count + size_t{1}, sizeof(void*)));
    if (map == nullptr)
        return nullptr;
    size_t at = 0;
    vylist* list = items.take();
    for (vylist_node* node = list->next; node != vylist_end(list); node = node->next)
        map[at++] = static_cast<vyopt_op*>(node->data);
    vylist_dispose(list);
    return map;
}

static bool matches(const vyopt_option& option, const char* name)
{
    if (option.flags & VYOPT_NOCASE)
        return strcasecmp(option.name, name) == 0;
    return strcmp(option.name, name) == 0;
}

// The first descriptor of that name; null without one.
static const vyopt_option* find_option(const vyopt_option* table, const char* name)
{
    for (; table->code != 0 && table->name != nullptr; table++) {
        if (matches(*table, name))
            return table;
    }
    return nullptr;
}

// The item at a position; null behind the last one.
static const vyopt_op* item_at(vyopt_op** map, int32_t index)
{
    for (; *map != nullptr; map++) {
        if (index-- == 0)
            return *map;
    }
    return nullptr;
}

int vy_getopt(int32_t* index, vyopt_op** map, const vyopt_option* table, const char** value)
{
    if (index == nullptr || map == nullptr || table == nullptr || *index < 0)
        return 0;
    const vyopt_op* op = item_at(map, *index);
    if (op == nullptr)
        return 0;
    if (op->value != nullptr)
        VY_LOG_AT(LOG_DEBUG, line_of_value_item, "%s=%s", op->name, op->value);
    else
        VY_LOG_AT(LOG_DEBUG, line_of_bare_item, "%s", op->name);

    ++*index;
    const vyopt_option* option = find_option(table, op->name);
    const bool takes_value = option != nullptr && (option->flags & VYOPT_ARG);
    if (value != nullptr && option == nullptr)
        *value = op->name;
    else if (value != nullptr)
        *value = takes_value ? op->value : nullptr;
    return option == nullptr ? VYOPT_UNKNOWN : option->code;
}
