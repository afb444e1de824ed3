// Why a device is not mounted: what blkid prints, what the kernel says, and shares' names, against
// an independent reading, and the sentence that is made of them.
//
// Input: a line with the number of the answer (0 to 4) and of the filesystems that the machine has;
// then, separated by lines "%%", what blkid prints, a record of the kernel's log, and a share's
// name.
#include "agent/by_share.h"
#include "agent/diagnosis.h"
#include "agent/kernel_log.h"
#include "agent/volume.h"
#include "support/check.h"
#include "support/input.h"
#include "support/oracles.h"

#include <string.h>

#include <algorithm>

static bool starts(const std::string& text, const std::string& with)
{
    return text.compare(0, with.size(), with) == 0;
}

static std::vector<std::string> split(const std::string& text, char at)
{
    std::vector<std::string> parts = {""};
    for (const char c : text) {
        if (c == at)
            parts.emplace_back();
        else
            parts.back() += c;
    }
    return parts;
}

static std::string plain(std::string text)
{
    for (char& c : text) {
        const bool stays = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                           (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.' || c == '_';
        c = stays ? c : '_';
    }
    return text;
}

// The last line of a key.
static std::string value_of(const std::string& text, const std::string& key, size_t most)
{
    std::string found;
    for (const std::string& line : split(text, '\n')) {
        if (starts(line, key + "="))
            found = plain(line.substr(key.size() + 1)).substr(0, most - 1);
    }
    return found;
}

static std::string several_of(const std::string& text)
{
    std::string list;
    for (const std::string& line : split(text, '\n')) {
        if (!starts(line, "ID_FS_AMBIVALENT="))
            continue;
        list.clear();
        for (const std::string& item : split(line.substr(17), ' ')) {
            const std::vector<std::string> parts = split(item, ':');
            if (parts.size() < 2 || parts[1].empty() ||
                list.size() + 2 + parts[1].size() >= volume_list_size)
                continue;
            list += (list.empty() ? "" : ", ") + plain(parts[1]);
        }
    }
    return list;
}

static Volume check_volume(const std::string& text)
{
    Volume volume;
    volume_parse(text.c_str(), &volume);
    check_same(volume.type, value_of(text, "ID_FS_TYPE", sizeof volume.type), "type");
    check_same(volume.usage, value_of(text, "ID_FS_USAGE", sizeof volume.usage), "usage");
    check_same(volume.table, value_of(text, "ID_PART_TABLE_TYPE", sizeof volume.table), "table");
    check_same(volume.several, several_of(text), "several");
    return volume;
}

static bool is_word(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

// The first word that is a device's name; "" for none.
static std::string device_in(const std::string& text)
{
    std::string word;
    for (const char c : text + " ") {
        if (is_word(c)) {
            word += c;
            continue;
        }
        BlockName name;
        if (word.size() < block_name_size && block_name_parse(word.c_str(), &name))
            return word;
        word.clear();
    }
    return "";
}

static void check_text(const char* text)
{
    check(oracle_is_harmless(text), "it is UTF-8 without control characters");
}

static std::string check_kernel(const std::string& record)
{
    KernelLine line = {};
    const bool taken = kernel_line_parse(record.c_str(), &line);
    const size_t end = record.find_first_of(",;");
    const size_t message = record.find(';');
    const std::string priority = end == std::string::npos ? record : record.substr(0, end);
    // Digits with nothing before them but a sign; blanks and zeros as strtol has them are its own.
    const bool is_plain_number =
        !priority.empty() && priority.size() <= 3 &&
        std::all_of(priority.begin(), priority.end(), [](char c) { return c >= '0' && c <= '9'; });
    if (is_plain_number && message != std::string::npos) {
        std::string text = record.substr(message + 1);
        text = text.substr(0, text.find('\n')).substr(0, kernel_line_size - 1);
        const std::string cleaned = oracle_clean(text.c_str(), "");
        check_equal(taken, std::stoi(priority) <= 4 && !device_in(cleaned).empty(), "taken");
        if (taken)
            check_same(line.text, cleaned, "text");
        if (taken)
            check_same(line.name.text, device_in(cleaned), "name");
    }
    if (!taken)
        return "";
    check_text(line.text);
    check(kernel_line_errno(line.text) >= 0 && kernel_line_errno(line.text) < 4096, "an errno");
    return line.text;
}

static void check_sentence(int64_t answer, uint32_t available, const Volume& volume,
                           const std::string& kernel)
{
    BlockName name = {};
    check(block_name_parse("mmcblk0p1", &name), "a name");
    Findings findings;
    findings.name = &name;
    findings.answer = static_cast<Answer>(answer);
    findings.volume = &volume;
    findings.failure = "blkid failed";
    findings.available = available;
    findings.kernel = kernel.c_str();
    Diagnosis diagnosis;
    diagnosis_make(findings, &diagnosis);
    check(diagnosis.trouble != TROUBLE_NONE && diagnosis.trouble < TROUBLE_COUNT, "a trouble");
    check(starts(diagnosis.words, "mmcblk0p1 "), "begins with the device");
    check_text(diagnosis.words);
    check_text(diagnosis.command);
    check_text(diagnosis.type);
    check(strchr(diagnosis.type, ' ') == nullptr, "one word");
    diagnosis_make_readonly(name, volume.type, (available & 1U) != 0, kernel.c_str(), &diagnosis);
    check_text(diagnosis.words);
}

static void check_name(const std::string& share)
{
    char name[by_share_name_size];
    const bool any = by_share_name(share.c_str(), name);
    check_equal(any, name[0] != '\0', "whether there is a name");
    check_text(name);
    check(name[0] != '.' && strchr(name, '/') == nullptr, "it stays in its folder");
    const char* place = by_share_place(share.c_str(), "/media/vyhotplug");
    check(place == nullptr ||
              (place[0] != '\0' && place[0] != '.' && strchr(place, '/') == nullptr),
          "a place lies in the directory");
}

void fuzz(Input& input)
{
    const int64_t answer = input.number(0, 4);
    const int64_t available = input.number(0, 0x1fff);
    const Volume volume = check_volume(input.field().c_str());
    const std::string kernel = check_kernel(input.field().c_str());
    check_sentence(answer, static_cast<uint32_t>(available), volume, kernel);
    check_name(input.field().c_str());
}
