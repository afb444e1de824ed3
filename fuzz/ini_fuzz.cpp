// The reader of INI-style files against an independent one: no difference, ever.
//
// Input: a section (empty: the entries before the first header), a key and an occurrence, each on a
// line; the rest is the file.
#include "config/ini.h"
#include "support/check.h"
#include "support/ini_oracle.h"
#include "support/input.h"

#include <strings.h>

#include <algorithm>

static constexpr size_t most_sections = 2; // asked for of those that the file lists
static constexpr size_t most_keys = 2;     // asked for of those that stand in the file

static IniOracleAnswer answer_of(int result, char* value, const char* untouched)
{
    if (result == 0) {
        const IniValueGuard owned(value);
        return {0, value};
    }
    check(value == untouched, "a failed lookup leaves its value untouched");
    return {result, ""};
}

static void compare(const IniOracleAnswer& got, const IniOracleAnswer& wanted)
{
    check_equal(got.result, wanted.result, "lookup's result");
    check_same(got.value, wanted.value, "looked-up value");
}

// Words are few; the second opinion on them is short.
static void check_words(const std::string& value)
{
    const char* text = value.c_str();
    const bool on = strcasecmp(text, "enable") == 0 || value == "1";
    const bool off = strcasecmp(text, "disable") == 0 || value == "0";
    check_equal(string_enable_disable(text), on ? 1 : off ? 0 : -1, "enable or disable");
    const bool yes = strcasecmp(text, "yes") == 0 || strcasecmp(text, "y") == 0 || value == "1";
    const bool no = strcasecmp(text, "no") == 0 || strcasecmp(text, "n") == 0 || value == "0";
    check_equal(string_yes_no(text), yes ? 1 : no ? 0 : -1, "yes or no");
}

static void check_lookup(const IniDoc* doc, const IniOracle& oracle, const char* section,
                         const std::string& key, int32_t occurrence)
{
    const IniOracleAnswer wanted = oracle.get_string(section, key, occurrence);
    char untouched = 0;
    char* value = &untouched;
    const int result = ini_doc_get_string(doc, section, key.c_str(), &value, occurrence);
    compare(answer_of(result, value, &untouched), wanted);
    check_words(wanted.value);
}

static std::vector<std::string> texts_of(vylist* list)
{
    std::vector<std::string> texts;
    for (vylist_node* node = list->next; node != vylist_end(list); node = node->next)
        texts.push_back(static_cast<const char*>(node->data));
    check_equal(list->count, static_cast<int64_t>(texts.size()), "the section list's count");
    return texts;
}

static std::vector<std::string> check_section_list(const IniDoc* doc, const IniOracle& oracle)
{
    const std::vector<std::string> wanted = oracle.section_list();
    SectionListGuard list;
    check_equal(ini_doc_get_section_list(doc, list.out()), 0, "the section list");
    check_list(texts_of(list.get()), wanted, "the sections");
    return wanted;
}

// The first keys that stand in the text, as they are written.
static std::vector<std::string> keys_in(const std::string& text)
{
    std::vector<std::string> keys;
    size_t begin = 0;
    while (begin < text.size() && keys.size() < most_keys) {
        const size_t end =
            std::min(text.find_first_of(std::string("\n\r\0", 3), begin), text.size());
        const std::string line = text.substr(begin, end - begin);
        if (line.find('=') != std::string::npos)
            keys.push_back(line.substr(0, line.find('=')));
        begin = end + 1;
    }
    return keys;
}

void fuzz(Input& input)
{
    const std::string section = input.line().c_str();
    const std::string key = input.line().c_str();
    const auto occurrence = static_cast<int32_t>(input.number(INT32_MIN, INT32_MAX));
    const std::string text = input.rest();
    const IniOracle oracle(text);
    IniDocGuard doc;
    check_equal(ini_doc_parse(text.data(), text.size(), doc.out()), 0, "the text is taken");

    std::vector<std::string> sections = check_section_list(doc.get(), oracle);
    if (sections.size() > most_sections)
        sections.resize(most_sections);
    sections.push_back(section);
    std::vector<std::string> keys = keys_in(text);
    keys.push_back(key);
    for (const std::string& asked : keys) {
        check_lookup(doc.get(), oracle, nullptr, asked, INI_LAST);
        for (const std::string& name : sections) {
            check_lookup(doc.get(), oracle, name.c_str(), asked, INI_LAST);
            check_lookup(doc.get(), oracle, name.c_str(), asked, occurrence);
        }
    }
}
