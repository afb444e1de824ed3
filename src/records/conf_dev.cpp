#include "records/conf_dev.h"

#include "config/filesystems.h"
#include "lib/str.h"

#include <stdlib.h>
#include <string.h>

static constexpr int key_size = 512;

// Writes four hexadecimal digits. Returns the place behind them.
static char* put_id(char* at, uint16_t id)
{
    for (int shift = 12; shift >= 0; shift -= 4)
        *at++ = "0123456789abcdef"[id >> shift & 0xF];
    return at;
}

// Writes a decimal number with its NUL to the end of `text`. Returns where it begins.
template <size_t N>
static const char* decimal(char (&text)[N], int32_t number)
{
    char* at = text + N - 1;
    *at = '\0';
    auto rest = number < 0 ? 0U - static_cast<uint32_t>(number) : static_cast<uint32_t>(number);
    do {
        *--at = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (rest != 0);
    if (number < 0)
        *--at = '-';
    return at;
}

// Formats an identity; -1 when it is too long. One of exactly 512 characters is used cut to 511:
// kept, such serials have been stored that way. By hand: a refresh does it for every record and
// every mount, and printf(3) takes ten times as long.
static int format_key(char (&key)[key_size], uint16_t vid, uint16_t pid, const char* serial,
                      int32_t partition)
{
    if (serial == nullptr)
        serial = "";
    char digits[12]; // "-2147483648"
    const char* number = decimal(digits, partition);
    constexpr size_t ids = 10; // "vvvv:pppp:"
    if (ids + strlen(serial) + 1 + strlen(number) > key_size)
        return -1;
    char* at = put_id(key, vid);
    *at++ = ':';
    at = put_id(at, pid);
    *at++ = ':';
    at = str_cpy(at, serial);
    *at++ = ':';
    str_ncpy(at, number, static_cast<int32_t>(key + key_size - at));
    return 0;
}

// ---- records ----

static void free_users(vylist* users)
{
    if (users == nullptr)
        return;
    for (vylist_node* node = users->next; node != vylist_end(users); node = node->next)
        free(node->data);
    vylist_dispose(users);
}

void conf_dev_record_free(ConfDev* dev)
{
    free(dev->identifier);
    free(dev->sharename);
    free(dev->path);
    free(dev->comment);
    free_users(dev->fullaccessusers);
    free_users(dev->readonlyusers);
    free_users(dev->blockusers);
    free_users(dev->hideusers);
    for (char* text : dev->misread)
        free(text);
    free(dev);
}

ConfDev* conf_dev_record_create()
{
    ConfDevGuard dev(static_cast<ConfDev*>(calloc(1, sizeof(ConfDev))));
    if (!dev)
        return nullptr;
    dev->fullaccessusers = vylist_create();
    dev->readonlyusers = vylist_create();
    dev->blockusers = vylist_create();
    dev->hideusers = vylist_create();
    const bool complete = dev->fullaccessusers != nullptr && dev->readonlyusers != nullptr &&
                          dev->blockusers != nullptr && dev->hideusers != nullptr;
    return complete ? dev.take() : nullptr;
}

void conf_dev_record_defaults(ConfDev* dev)
{
    dev->filesystem = CONF_DEV_FS_UNKNOWN;
    dev->sync = 0;
    dev->readonly = 0;
    dev->guestaccess = 0;
    dev->guesthide = 0;
    dev->administrator = CONF_DEV_ADMIN_FULL;
}

static bool has_misread(const ConfDev* dev)
{
    for (const char* text : dev->misread) {
        if (text != nullptr)
            return true;
    }
    return false;
}

// Whether the record carries nothing of the administrator's. The filesystem is not looked at.
static bool is_default(const ConfDev* dev)
{
    return dev->sharename == nullptr && dev->path == nullptr && dev->comment == nullptr &&
           dev->sync == 0 && dev->readonly == 0 && dev->guestaccess == 0 && dev->guesthide == 0 &&
           dev->administrator == CONF_DEV_ADMIN_FULL && dev->fullaccessusers->count == 0 &&
           dev->readonlyusers->count == 0 && dev->blockusers->count == 0 &&
           dev->hideusers->count == 0 && !has_misread(dev);
}

// ---- the table ----

static ConfDev* record_of(const vylist_node* node)
{
    return static_cast<ConfDev*>(node->data);
}

ConfDevTable* conf_dev_create()
{
    MemGuard<ConfDevTable> table(static_cast<ConfDevTable*>(malloc(sizeof(ConfDevTable))));
    if (!table)
        return nullptr;
    table->list = vylist_create();
    if (table->list == nullptr)
        return nullptr;
    return table.take();
}

void conf_dev_free(ConfDevTable* table)
{
    if (table == nullptr)
        return;
    for (vylist_node* node = table->list->next; node != vylist_end(table->list); node = node->next)
        conf_dev_record_free(record_of(node));
    vylist_dispose(table->list);
    free(table);
}

static ConfDev* find_key(const ConfDevTable* table, const char* key)
{
    for (vylist_node* node = table->list->next; node != vylist_end(table->list);
         node = node->next) {
        if (strcmp(record_of(node)->identifier, key) == 0)
            return record_of(node);
    }
    return nullptr;
}

ConfDev* conf_dev_add(ConfDevTable* table, uint16_t vid, uint16_t pid, const char* serial,
                      int32_t partition)
{
    char key[key_size];
    if (format_key(key, vid, pid, serial, partition) != 0)
        return nullptr;
    if (find_key(table, key) != nullptr)
        return nullptr;
    ConfDevGuard dev(conf_dev_record_create());
    if (!dev)
        return nullptr;
    conf_dev_record_defaults(dev.get());
    dev->identifier = strdup(key);
    if (dev->identifier == nullptr)
        return nullptr;
    if (vylist_insert(table->list, vylist_end(table->list), dev.get()) == nullptr)
        return nullptr;
    return dev.take();
}

ConfDev* conf_dev_find(const ConfDevTable* table, uint16_t vid, uint16_t pid, const char* serial,
                       int32_t partition)
{
    char key[key_size];
    if (format_key(key, vid, pid, serial, partition) != 0)
        return nullptr;
    return find_key(table, key);
}

int conf_dev_cmp(const ConfDev* dev, uint16_t vid, uint16_t pid, const char* serial,
                 int32_t partition)
{
    char key[key_size];
    if (format_key(key, vid, pid, serial, partition) != 0)
        return -1;
    return strcmp(key, dev->identifier);
}

ConfDev* conf_dev_find_index(const ConfDevTable* table, int32_t index)
{
    if (index < 0)
        return nullptr;
    for (vylist_node* node = table->list->next; node != vylist_end(table->list);
         node = node->next) {
        if (index-- == 0)
            return record_of(node);
    }
    return nullptr;
}

ConfDev* conf_dev_find_def(const ConfDevTable* table, int32_t n)
{
    if (n < 0)
        return nullptr;
    for (vylist_node* node = table->list->next; node != vylist_end(table->list);
         node = node->next) {
        if (is_default(record_of(node)) && n-- == 0)
            return record_of(node);
    }
    return nullptr;
}

// Frees the node's record and the node. Returns the node that followed.
static vylist_node* erase(ConfDevTable* table, vylist_node* node)
{
    conf_dev_record_free(record_of(node));
    return vylist_erase(table->list, node);
}

int conf_dev_del(ConfDevTable* table, ConfDev* dev)
{
    for (vylist_node* node = table->list->next; node != vylist_end(table->list);
         node = node->next) {
        if (node->data != dev)
            continue;
        erase(table, node);
        return 0;
    }
    return -1;
}

void conf_dev_prune(ConfDevTable* table, bool (*in_use)(const ConfDev* dev))
{
    for (vylist_node* node = table->list->next; node != vylist_end(table->list);) {
        if (is_default(record_of(node)) && !in_use(record_of(node)))
            node = erase(table, node);
        else
            node = node->next;
    }
}
