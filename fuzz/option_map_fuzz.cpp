// The option map and its walk against an independent splitting of the same text.
//
// Input: the size of a buffer on a line; the rest is the text.
#include "config/getopt.h"
#include "fake/fake_log.h"
#include "support/check.h"
#include "support/input.h"
#include "support/oracles.h"

#include <memory>

static constexpr vyopt_option exact_names[] = {
    {'a', VYOPT_ARG, "ACTION"},
    {'j', VYOPT_ARG, "MAJOR"},
    {'q', 0, "quiet"},
    {'A', VYOPT_ARG, "ACTION"}, // never found: the first of a name wins
    {0, 0, nullptr},
};

static constexpr vyopt_option caseless_names[] = {
    {'f', VYOPT_NOCASE, "fat"},
    {'n', VYOPT_NOCASE, "ntfs"},
    {'u', VYOPT_NOCASE | VYOPT_ARG, "uid"},
    {'x', 0, nullptr},
};

static std::string lower_case(std::string text)
{
    for (char& c : text) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
    return text;
}

// ---- items one at a time ----

static void check_sections(const std::string& text, int32_t size)
{
    const size_t bytes = size > 0 ? static_cast<size_t>(size) : 1;
    // On the heap and no byte longer than it is said to be.
    const std::unique_ptr<char[]> buffer(new char[bytes]);
    const char* position = text.c_str();
    size_t consumed = 0;
    for (const std::string& item : oracle_items(text)) {
        buffer[0] = '#';
        position = vyopt_get_section(position, buffer.get(), size);
        check(position != nullptr, "there is an item more");
        consumed = text.find_first_not_of(',', consumed) + item.size();
        check_equal(position - text.c_str(), static_cast<int64_t>(consumed), "the item's end");
        if (size > 0)
            check_same(buffer.get(), item.substr(0, bytes - 1), "the item");
        else
            check(buffer[0] == '#', "nothing is written without room");
    }
    check(vyopt_get_section(position, buffer.get(), size) == nullptr, "there is no item more");
}

// ---- the map ----

static const vyopt_option* find(const vyopt_option* table, const std::string& name)
{
    for (; table->code != 0 && table->name != nullptr; table++) {
        const bool caseless = (table->flags & VYOPT_NOCASE) != 0;
        if (caseless ? lower_case(table->name) == lower_case(name) : table->name == name)
            return table;
    }
    return nullptr;
}

static void check_log(const std::vector<OptionItem>& items)
{
    const std::vector<FakeLogLine> lines = fake_log_take();
    check_equal(static_cast<int64_t>(lines.size()), static_cast<int64_t>(items.size()),
                "each item is logged once");
    for (size_t i = 0; i < items.size(); i++) {
        const OptionItem& item = items[i];
        const std::string wanted =
            item.value ? "getopt(243)" + item.name + "=" + *item.value : "getopt(245)" + item.name;
        check_same(lines[i].text, wanted, "the item's log line");
    }
}

static void check_step(const vyopt_option* table, const OptionItem& item, int code,
                       const char* value)
{
    const vyopt_option* option = find(table, item.name);
    check_equal(code, option != nullptr ? option->code : '-', "the item's code");
    if (option == nullptr)
        check_same(text_of(value), item.name, "an unknown item's name");
    else if ((option->flags & VYOPT_ARG) != 0 && item.value)
        check_same(text_of(value), *item.value, "the item's value");
    else
        check(value == nullptr, "no value is lent");
}

static void check_walk(vyopt_op** map, const std::vector<OptionItem>& items,
                       const vyopt_option* table)
{
    int32_t index = 0;
    const char* value = nullptr;
    fake_log_clear();
    for (const OptionItem& item : items) {
        const int32_t before = index;
        const int code = vy_getopt(&index, map, table, &value);
        check_equal(index, before + 1, "the index moves by one");
        check_step(table, item, code, value);
    }
    check_log(items);
    check_equal(vy_getopt(&index, map, table, &value), 0, "the map's end");
    int32_t outside = -1;
    check_equal(vy_getopt(&outside, map, table, nullptr), 0, "a negative index");
}

void fuzz(Input& input)
{
    const auto buffer_size = static_cast<int32_t>(input.number(-1, 2000));
    const std::string text = input.rest().c_str();
    check_sections(text, buffer_size);
    const OptionMapGuard map(vyopt_create_opmap(text.c_str()));
    check(static_cast<bool>(map), "there is a map");
    const std::vector<OptionItem> items = oracle_option_map(text);
    check_walk(map.get(), items, exact_names);
    check_walk(map.get(), items, caseless_names);
}
