// The device file: whatever stands in it, the records that come from it keep to their limits, and
// saving and loading them again changes nothing.
//
// Input: the file.
#include "records/conf_dev_file.h"

#include "config/filesystems.h"
#include "fake/fake_world.h"
#include "support/check.h"
#include "support/input.h"
#include "support/oracles.h"

#include <string.h>
#include <unistd.h>

#include <algorithm>

static constexpr char device_file[] = "/tmp/hotplug.dev.conf";

static std::vector<int32_t> ids_of(vylist* users)
{
    std::vector<int32_t> ids;
    for (vylist_node* node = users->next; node != vylist_end(users); node = node->next)
        ids.push_back(*static_cast<int32_t*>(node->data));
    return ids;
}

// ---- user lists ----

static void free_ids(vylist* users)
{
    for (vylist_node* node = users->next; node != vylist_end(users); node = node->next)
        free(node->data);
    vylist_dispose(users);
}

// The text twice over: what the list holds already is not taken again.
static void check_user_list(const std::string& text)
{
    const Guard<vylist, free_ids> users(vylist_create());
    std::vector<int32_t> wanted;
    for (int pass = 0; pass < 2; pass++) {
        const auto before = static_cast<int64_t>(wanted.size());
        oracle_user_list(text, &wanted);
        check_equal(conf_parse_user_list(text.c_str(), users.get()),
                    static_cast<int64_t>(wanted.size()) - before, "how many ids are new");
    }
    check(ids_of(users.get()) == wanted, "the user list holds what the text says");
}

// ---- records ----

static void check_users(vylist* users)
{
    std::vector<int32_t> ids = ids_of(users);
    std::sort(ids.begin(), ids.end());
    check(ids.empty() || ids.front() >= 0, "a user id is not negative");
    check(std::adjacent_find(ids.begin(), ids.end()) == ids.end(), "a user id is there once");
}

static void check_text(const char* text, size_t most, const char* what)
{
    check(text == nullptr || (*text != '\0' && strlen(text) <= most), what);
    check(text == nullptr || strpbrk(text, "\r\n") == nullptr, what);
}

static void check_record(const ConfDev* dev)
{
    check(dev->identifier != nullptr && *dev->identifier != '\0', "a record has a name");
    check_text(dev->identifier, SIZE_MAX, "the identifier");
    check_text(dev->sharename, 34, "the share's name");
    check_text(dev->comment, 63, "the comment");
    check_text(dev->path, 255, "the path");
    check(dev->path == nullptr || *dev->path == '/', "the path is absolute");
    check(dev->filesystem <= CONF_DEV_FS_NTFS, "the filesystem");
    check(dev->administrator <= CONF_DEV_ADMIN_FULL, "the administrator's access");
    for (const uint8_t flag : {dev->sync, dev->readonly, dev->guestaccess, dev->guesthide})
        check(flag <= 1, "a switch");
    for (vylist* users :
         {dev->fullaccessusers, dev->readonlyusers, dev->blockusers, dev->hideusers})
        check_users(users);
}

// ---- files ----

static bool has_bracket(const ConfDevTable* table)
{
    for (vylist_node* node = table->list->next; node != vylist_end(table->list);
         node = node->next) {
        if (strchr(static_cast<ConfDev*>(node->data)->identifier, ']') != nullptr)
            return true;
    }
    return false;
}

// Loads the file, checks its records and saves them. Returns the file that this makes. `bracket`
// tells whether a record's name holds a "]".
static std::string load_and_save(bool* bracket)
{
    const ConfDevTableGuard table(conf_dev_create());
    check_equal(conf_dev_load(device_file, table.get()), 0, "the file is loaded");
    for (vylist_node* node = table->list->next; node != vylist_end(table->list); node = node->next)
        check_record(static_cast<ConfDev*>(node->data));
    *bracket = has_bracket(table.get());
    check_equal(conf_dev_save(device_file, table.get()), 0, "the file is saved");
    return get_file(device_file);
}

// What the second loading finds otherwise: a text that was cut behind a blank is written with it
// and read without, and ext4 is written as the default filesystem, which then has no line.
static std::string as_loaded_again(const std::string& file)
{
    std::string result;
    size_t begin = 0;
    while (begin < file.size()) {
        const size_t end = std::min(file.find('\n', begin), file.size());
        std::string line = file.substr(begin, end - begin);
        const bool cut = line.rfind("Share Name=", 0) == 0 || line.rfind("Comment=", 0) == 0;
        while (cut && (line.back() == ' ' || line.back() == '\t'))
            line.pop_back();
        if (line != "File System=DefFS")
            result += line + "\n";
        begin = end + 1;
    }
    return result;
}

void fuzz(Input& input)
{
    const std::string text = input.rest();
    check_user_list(text.c_str());
    put_file(device_file, text);
    bool bracket = false;
    const std::string first = load_and_save(&bracket);
    const std::string second = load_and_save(&bracket);
    // Of two names that a lookup takes for one, because it ends them at "]", the last one's
    // settings win at the second loading.
    if (!bracket)
        check_same(second, as_loaded_again(first), "saved, loaded and saved again");
    check_same(load_and_save(&bracket), second, "saved once more");
    unlink(device_file);
    fake_world_reset();
}
