// The reader on a file, as configuration and tables are read: it answers as on the same bytes in
// memory, of which the target ini takes care, and nothing is left open.
//
// Input: as that target's.
#include "config/ini.h"
#include "support/check.h"
#include "support/ini_oracle.h"
#include "support/input.h"

static constexpr char file[] = "/tmp/fuzz.ini";

static void check_lookup(const IniOracle& oracle, const std::string& section,
                         const std::string& key, int32_t occurrence)
{
    const IniOracleAnswer wanted = oracle.get_string(section.c_str(), key, occurrence);
    char* value = nullptr;
    check_equal(config_get_ini_string(file, section.c_str(), key.c_str(), &value, occurrence),
                wanted.result, "the lookup's result");
    const IniValueGuard owned(value);
    check_same(value != nullptr ? value : "", wanted.value, "the value");
}

static void check_section_list(const IniOracle& oracle)
{
    SectionListGuard list;
    check_equal(config_get_section_list(file, list.out()), 0, "the section list");
    std::vector<std::string> names;
    for (vylist_node* node = list->next; node != vylist_end(list.get()); node = node->next)
        names.push_back(static_cast<const char*>(node->data));
    check_list(names, oracle.section_list(), "the sections");
}

void fuzz(Input& input)
{
    const std::string section = input.line().c_str();
    const std::string key = input.line().c_str();
    const auto occurrence = static_cast<int32_t>(input.number(INT32_MIN, INT32_MAX));
    const std::string text = input.rest();
    put_file(file, text);
    const IniOracle oracle(text);
    check_lookup(oracle, section, key, occurrence);
    check_section_list(oracle);
}
