#include "ctl/target.h"

#include "ctl/status.h"
#include "ctl/terminal.h"

#include <errno.h>
#include <string.h>
#include <strings.h>

// ---- what fits ----

static bool equals(const char* text, const char* word)
{
    return text != nullptr && strcmp(text, word) == 0;
}

static bool equals_in_any_case(const char* text, const char* word)
{
    return text != nullptr && strcasecmp(text, word) == 0;
}

// "sda1" of "/dev/sda1" and "/dev/vyhotplug/sda1".
static const char* bare_name(const char* word)
{
    return strncmp(word, "/dev/", 5) == 0 ? strrchr(word, '/') + 1 : word;
}

static bool is_partition(const Item& item, const char* word)
{
    const char* name = bare_name(word);
    return (item.name[0] != '\0' && equals_in_any_case(item.name, name)) ||
           (item.part != nullptr && equals_in_any_case(item.part->name, name));
}

static bool is_letter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool item_is_on_disk(const Item& item, const char* disk)
{
    const size_t length = strlen(disk);
    if (item.part != nullptr && strcasecmp(item.part->disk, disk) == 0)
        return true;
    if (length == 0 || strncasecmp(item.name, disk, length) != 0 || !is_letter(disk[length - 1]))
        return false;
    const char* number = item.name + length;
    return number[0] != '\0' && number[strspn(number, "0123456789")] == '\0';
}

static bool is_on_disk(const Item& item, const char* word)
{
    return item_is_on_disk(item, bare_name(word));
}

static bool is_identity(const Item& item, const char* word)
{
    return equals(item.identity, word);
}

// The length of the item's directory where the word is it, or something below it; 0.
static size_t directory_length(const Item& item, const char* word)
{
    size_t length = 0;
    if (word[0] != '/')
        return 0;
    if (item.directory != nullptr && mountinfo_rest(word, item.directory) != nullptr)
        length = strlen(item.directory);
    if (item.mount != nullptr && mountinfo_rest(word, item.mount->directory) != nullptr)
        length = strlen(item.mount->directory);
    return length;
}

static bool is_directory(const Item& item, const char* word)
{
    return directory_length(item, word) > 0;
}

static bool is_share(const Item& item, const char* word)
{
    if (item.share != nullptr)
        return equals_in_any_case(item.share, word);
    return item.settings != nullptr && equals_in_any_case(item.settings->sharename, word);
}

static bool is_label(const Item& item, const char* word)
{
    return equals_in_any_case(item_label(item), word);
}

static constexpr bool (*const kinds[])(const Item&, const char*) = {
    is_partition, is_on_disk, is_identity, is_directory, is_share, is_label,
};

// Leaves the innermost of directories that lie in each other.
static void keep_innermost(const char* word, Targets* targets)
{
    size_t longest = 0;
    for (size_t i = 0; i < targets->count; i++) {
        const size_t length = directory_length(*targets->items[i], word);
        longest = length > longest ? length : longest;
    }
    size_t kept = 0;
    for (size_t i = 0; i < targets->count; i++) {
        if (directory_length(*targets->items[i], word) == longest)
            targets->items[kept++] = targets->items[i];
    }
    targets->count = kept;
}

int targets_find(const View& view, const char* word, Targets* targets)
{
    *targets = {};
    targets->items = static_cast<const Item**>(calloc(view.count + 1, sizeof(void*)));
    if (targets->items == nullptr)
        return -ENOMEM;
    for (const auto fits : kinds) {
        for (size_t i = 0; i < view.count; i++) {
            if (fits(view.items[i], word))
                targets->items[targets->count++] = &view.items[i];
        }
        targets->disk = fits == is_on_disk;
        if (fits == is_directory)
            keep_innermost(word, targets);
        if (targets->count > 0)
            return 0;
    }
    return 0;
}

void targets_end(Targets* targets)
{
    free(targets->items);
    *targets = {};
}

// ---- one ----

int target_missing(const char* word)
{
    complain("nothing here is called %.200s; see: vyhotplugctl status --all", word);
    return EXIT_NO_DISK;
}

static int tell_ambiguous(const char* word, const Targets& targets)
{
    text_print(stderr, "%.200s fits %u:\n", word, static_cast<unsigned>(targets.count));
    for (size_t i = 0; i < targets.count; i++)
        text_print(stderr, "  %.200s  %.80s\n", item_name(*targets.items[i]),
                   targets.items[i]->share);
    return EXIT_WRONG_CALL;
}

const Item* target_find_one(const View& view, const char* word, int* status)
{
    Targets targets;
    const Item* found = nullptr;
    if (targets_find(view, word, &targets) != 0) {
        *status = complain_errno(nullptr, ENOMEM);
    } else if (targets.count == 0) {
        *status = target_missing(word);
    } else if (targets.count > 1) {
        *status = tell_ambiguous(word, targets);
    } else {
        found = targets.items[0];
    }
    targets_end(&targets);
    return found;
}
