// A change of the device file: whatever stands in it, all other sections stay byte for byte, the
// section has what was wanted, and the same change once more changes nothing.
//
// Input: the section's name, the key and the value, each up to a line feed, then the file.
#include "ctl/sections.h"

#include "support/check.h"
#include "support/input.h"

#include <string.h>

static std::string changed(const std::string& file, const std::string& name, const std::string& key,
                           const std::string& value)
{
    const SectionChange change = {.key = key.c_str(), .value = value.c_str()};
    FileBytes out;
    check_equal(sections_change(file.data(), file.size(), name.c_str(), &change, 1, &out), 0,
                "the change is made");
    return {out.bytes.get(), out.size};
}

// Every section but the last of that name, one after the other.
static std::string others(const std::string& file, const char* name)
{
    SectionTableGuard table;
    check_equal(sections_cut(file.data(), file.size(), table.out()), 0, "the file is cut");
    const Section* found = sections_find(table.get(), file.data(), name);
    std::string result;
    size_t at = 0;
    for (size_t i = 0; i < table->count; i++) {
        const Section& section = table->sections[i];
        check_equal(static_cast<int64_t>(section.begin), static_cast<int64_t>(at), "no gaps");
        at = section.end;
        if (&section != found)
            result += file.substr(section.begin, section.end - section.begin);
    }
    check_equal(static_cast<int64_t>(at), static_cast<int64_t>(file.size()), "to the end");
    return result;
}

void fuzz(Input& input)
{
    const std::string name = input.line();
    const std::string key = input.line();
    const std::string value = input.line();
    const std::string file = input.rest();
    const bool fit =
        !name.empty() && key.find_first_not_of(" \t") != std::string::npos &&
        (name + key + value).find_first_of(std::string("[]\r\0", 4)) == std::string::npos &&
        key.find('=') == std::string::npos && key.size() < 60;
    if (!fit)
        return; // nobody makes such a change
    const std::string once = changed(file, name, key, value);
    std::string before = others(file, name.c_str());
    const std::string after = others(once, name.c_str());
    // A file that does not end in a line feed is given one, before a section is added.
    if (after.size() == before.size() + 1)
        before += "\n";
    check_same(after, before, "other sections stay byte for byte");
    SectionTableGuard table;
    check_equal(sections_cut(once.data(), once.size(), table.out()), 0, "the new file is cut");
    const Section* section = sections_find(table.get(), once.data(), name.c_str());
    check(section != nullptr, "the section is there");
    check_same(once.substr(section->body, key.size() + value.size() + 2), key + "=" + value + "\n",
               "it has the value");
    check_same(changed(once, name, key, value), once, "the same change once more");
}
