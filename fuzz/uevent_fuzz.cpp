// Events as they come from the kernel's socket, and as they stand in an environment, against an
// independent reading.
//
// Input: a datagram, in which each line feed stands for a zero byte and each vertical tab for a
// line feed; after a line "%%" the texts of an environment, one a line.
#include "agent/limits.h"
#include "agent/uevent.h"
#include "support/check.h"
#include "support/input.h"

#include <errno.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>

using Items = std::map<std::string, std::string>;

namespace {

// What an event says, by the second reading.
struct Said {
    int result = -EINVAL;
    int action = 0;
    std::string name;
    int64_t major = -1;
    int64_t minor = -1;
    uint64_t sequence = 0;
    bool media_change = false;
};

} // namespace

static bool is_digits(const std::string& text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// Digits, without a zero before others, that are no more than `most`.
static std::optional<uint64_t> number_of(const std::string& text, uint64_t most, bool zeros = true)
{
    if (!is_digits(text) || (!zeros && text.size() > 1 && text[0] == '0'))
        return {};
    unsigned __int128 number = 0;
    for (const char c : text) {
        number = number * 10 + static_cast<unsigned>(c - '0');
        if (number > most)
            return {};
    }
    return static_cast<uint64_t>(number);
}

// Splits a name into its disk's and the partition's number ("" for none).
static bool split_name(const std::string& name, std::string* disk, std::string* number)
{
    size_t at = 0;
    if (name.rfind("mmcblk", 0) == 0) {
        at = name.find_first_not_of("0123456789", 6);
        at = at == std::string::npos ? name.size() : at;
        const std::string card = name.substr(6, at - 6);
        if (card.size() > 4 || !number_of(card, 9999, false))
            return false;
        *disk = name.substr(0, at);
        *number = name.substr(at);
        if (number->empty())
            return true;
        if ((*number)[0] != 'p')
            return false;
        number->erase(0, 1);
    } else if (name.rfind("sd", 0) == 0) {
        at = 2;
        while (at < name.size() && name[at] >= 'a' && name[at] <= 'z')
            at++;
        if (at == 2 || at > 6)
            return false;
        *disk = name.substr(0, at);
        *number = name.substr(at);
        if (number->empty())
            return true;
    } else {
        return false;
    }
    return number->size() <= 4 && number_of(*number, 9999, false).value_or(0) > 0;
}

static bool is_sound_path(const std::string& path)
{
    if (path.empty() || path.size() > 511 || path[0] != '/')
        return false;
    size_t begin = 1;
    while (begin <= path.size()) { // each step
        const size_t end = std::min(path.find('/', begin), path.size());
        const std::string step = path.substr(begin, end - begin);
        if (step.empty() || step == "." || step.find("..") != std::string::npos)
            return false;
        begin = end + 1;
    }
    return std::all_of(path.begin(), path.end(), [](unsigned char c) {
        return c > ' ' && c < 0x7f && c != '\\' && c != '"' && c != '\'';
    });
}

static void say_path(Said* said, const std::string& path)
{
    if (!is_sound_path(path))
        return;
    const size_t slash = path.rfind('/');
    said->name = path.substr(slash + 1);
    std::string disk, number;
    if (!split_name(said->name, &disk, &number)) {
        said->result = 1;
        return;
    }
    const std::string above = path.substr(0, slash);
    const bool on_disk =
        above.size() > disk.size() &&
        above.compare(above.size() - disk.size() - 1, std::string::npos, "/" + disk) == 0;
    if (number.empty() || on_disk)
        said->result = 0;
}

static bool say_number(int64_t* field, const Items& items, const char* key, uint64_t most)
{
    if (items.count(key) == 0)
        return true;
    const std::optional<uint64_t> number = number_of(items.at(key), most);
    *field = number ? static_cast<int64_t>(*number) : -1;
    return number.has_value();
}

static Said read_again(const Items& items)
{
    Said said;
    if (items.count("ACTION") == 0 || items.count("DEVPATH") == 0)
        return said;
    static const std::string actions[] = {"add", "remove", "change"};
    const auto* action = std::find(std::begin(actions), std::end(actions), items.at("ACTION"));
    const bool is_block = items.count("SUBSYSTEM") == 0 || items.at("SUBSYSTEM") == "block";
    if (!is_block || action == std::end(actions)) {
        said.result = 1;
        return said;
    }
    said.action = static_cast<int>(action - std::begin(actions));
    say_path(&said, items.at("DEVPATH"));
    if (said.result != 0)
        return said;
    const std::string sequence = items.count("SEQNUM") != 0 ? items.at("SEQNUM") : "0";
    const std::optional<uint64_t> count = number_of(sequence, UINT64_MAX);
    said.sequence = count.value_or(0);
    said.media_change =
        items.count("DISK_MEDIA_CHANGE") != 0 && items.at("DISK_MEDIA_CHANGE") == "1";
    if (!say_number(&said.major, items, "MAJOR", 4095) ||
        !say_number(&said.minor, items, "MINOR", 1048575) || !count)
        said.result = -EINVAL;
    return said;
}

// ---- against the agent's reading ----

static void put_item(Items* items, const std::string& text)
{
    const size_t equals = text.find('=');
    if (equals != std::string::npos)
        (*items)[text.substr(0, equals)] = text.substr(equals + 1);
}

static void check_event(int result, const Uevent& event, const Said& said)
{
    check_equal(result, said.result, "the result");
    if (result != 0)
        return;
    check_same(event.name.text, said.name, "the name");
    check_equal(event.action, said.action, "the action");
    check_equal(event.major, said.major, "the major number");
    check_equal(event.minor, said.minor, "the minor number");
    check(event.sequence == said.sequence, "the sequence number");
    check_equal(event.media_change ? 1 : 0, said.media_change ? 1 : 0, "the medium's change");
}

static Said read_datagram_again(const std::string& bytes)
{
    Said said;
    if (bytes.empty() || bytes.back() != '\0')
        return said;
    Items items;
    const size_t heading = bytes.find('\0');
    if (bytes.substr(0, heading).find('@') == std::string::npos)
        return said;
    for (size_t at = heading + 1; at < bytes.size();) {
        const size_t end = bytes.find('\0', at);
        put_item(&items, bytes.substr(at, end - at));
        at = end + 1;
    }
    if (items.count("SUBSYSTEM") == 0)
        return said;
    said = read_again(items);
    if (said.result == 0 && (said.major < 0 || said.minor < 0))
        said.result = -EINVAL;
    return said;
}

static void check_datagram(std::string bytes)
{
    std::replace(bytes.begin(), bytes.end(), '\n', '\0');
    std::replace(bytes.begin(), bytes.end(), '\v', '\n');
    const std::unique_ptr<char[]> exact(new char[bytes.size()]); // no byte longer
    std::copy(bytes.begin(), bytes.end(), exact.get());
    Uevent event = {};
    const int result = uevent_parse(exact.get(), bytes.size(), &event);
    check_event(result, event, read_datagram_again(bytes));
}

static void check_environment(const std::string& text)
{
    std::vector<std::string> texts;
    Items items;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        texts.push_back(text.substr(at, end - at).c_str()); // ends at a zero byte, as they do
        put_item(&items, texts.back());
        at = end + 1;
    }
    std::vector<const char*> environment;
    environment.reserve(texts.size() + 1);
    for (const std::string& one : texts)
        environment.push_back(one.c_str());
    environment.push_back(nullptr);
    Uevent event = {};
    const int result = uevent_from_environment(environment.data(), &event);
    check_event(result, event, read_again(items));
}

void fuzz(Input& input)
{
    check_datagram(input.field());
    check_environment(input.field());
}
