#include "agent/block_name.h"

#include "lib/str.h"

#include <stdio.h>
#include <string.h>

static constexpr char sd_prefix[] = "sd";
static constexpr char mmc_prefix[] = "mmcblk";
static constexpr int most_letters = 4;
static constexpr size_t most_digits = 4;
static constexpr int letters = 26;

static bool begins_with(const char* text, const char* prefix)
{
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

// Takes a number as the kernel writes it: digits, no zero before others.
static bool take_number(const char** text, int32_t* number)
{
    const size_t length = strspn(*text, "0123456789");
    if (length == 0 || length > most_digits || (length > 1 && (*text)[0] == '0'))
        return false;
    char digits[most_digits + 1];
    memcpy(digits, *text, length);
    digits[length] = '\0';
    *text += length;
    return str_to_long(digits, number, 10) == 0;
}

// Takes "a", "b", ..., "z", "aa", ... as 1, 2, ..., 26, 27, ...
static bool take_letters(const char** text, int32_t* number)
{
    int count = 0;
    for (*number = 0; **text >= 'a' && **text <= 'z'; (*text)++) {
        if (++count > most_letters)
            return false;
        *number = *number * letters + (**text - 'a' + 1);
    }
    return count > 0;
}

static bool parse_sd(const char* text, BlockName* name)
{
    name->kind = BLOCK_SD;
    if (!take_letters(&text, &name->disk))
        return false;
    if (*text == '\0')
        return true;
    return take_number(&text, &name->partition) && name->partition > 0 && *text == '\0';
}

static bool parse_mmc(const char* text, BlockName* name)
{
    name->kind = BLOCK_MMC;
    if (!take_number(&text, &name->disk))
        return false;
    if (*text == '\0')
        return true;
    if (*text++ != 'p')
        return false;
    return take_number(&text, &name->partition) && name->partition > 0 && *text == '\0';
}

bool block_name_parse(const char* text, BlockName* name)
{
    *name = {};
    if (begins_with(text, mmc_prefix))
        return parse_mmc(text + strlen(mmc_prefix), name);
    if (begins_with(text, sd_prefix))
        return parse_sd(text + strlen(sd_prefix), name);
    return false;
}

static void format_letters(int32_t number, char (&text)[most_letters + 1])
{
    char reversed[most_letters];
    int count = 0;
    for (; number > 0 && count < most_letters; number = (number - 1) / letters)
        reversed[count++] = static_cast<char>('a' + (number - 1) % letters);
    char* to = text;
    while (count > 0)
        *to++ = reversed[--count];
    *to = '\0';
}

void block_name_format(const BlockName& name, char (&text)[block_name_size])
{
    char partition[12] = "";
    if (name.partition > 0)
        (void)snprintf(partition, sizeof partition, "%d", name.partition);
    if (name.kind == BLOCK_MMC) {
        const char* divider = name.partition > 0 ? "p" : "";
        (void)snprintf(text, sizeof text, "%s%d%s%s", mmc_prefix, name.disk, divider, partition);
        return;
    }
    char disk[most_letters + 1];
    format_letters(name.disk, disk);
    (void)snprintf(text, sizeof text, "%s%s%s", sd_prefix, disk, partition);
}

BlockName block_name_disk(const BlockName& name)
{
    return {.kind = name.kind, .disk = name.disk, .partition = 0};
}

bool block_name_same_disk(const BlockName& a, const BlockName& b)
{
    return a.kind == b.kind && a.disk == b.disk;
}

int block_name_compare(const BlockName& a, const BlockName& b)
{
    if (a.kind != b.kind)
        return a.kind < b.kind ? -1 : 1;
    if (a.disk != b.disk)
        return a.disk < b.disk ? -1 : 1;
    if (a.partition != b.partition)
        return a.partition < b.partition ? -1 : 1;
    return 0;
}
