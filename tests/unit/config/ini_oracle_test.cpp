// The reader against the slow one of tests/support, on files that nobody would write.
#include "support/ini_oracle.h"

#include "config/ini.h"

#include "support/files.h"
#include "support/random.h"

#include <gtest/gtest.h>

#include <stdio.h>

#include <string>
#include <vector>

using namespace std::string_literals;

namespace {

const std::string path = "/tmp/test.conf";

// Short names, so that they meet; the odd ones are prefixes, other cases and bracket tricks.
const std::vector<std::string> names = {
    "a", "A",   "ab", "aB", "abc", "a b",      " a",       "a ", " ",
    "]", "a]b", "[a", "=",  "a=b", "\xC3\xA4", "\xC3\x84", "b",  "1234:00ab:ABC:1"};

const std::vector<std::string> keys = {"k",  "K",  "key", "k e y", "\tk ", "ke",        "#k",
                                       "[k", "k]", "",    " ",     "[a]",  "share name"};

const std::vector<std::string> values = {"",    "1",     " 2 ", "\t", "a=b", "; x",     "x # y",
                                         "[a]", "\"q\"", "\\",  "]",  "=",   "\xFF\x80"};

const std::vector<std::string> blanks = {"", "", "", "", " ", "\t", " \t ", "\v"};

const std::vector<std::string> line_ends = {"\n", "\n", "\n", "\n", "\r\n", "\r", "\0"s, "\n\n"};

const std::vector<std::string> fragments = {"[", "]", "[",  "]",  "=",  " ",   "\t", "a", "b",
                                            "k", "K", "\n", "\n", "\r", "\0"s, "#",  ";", "1"};

// Half of the choices fall on the first two, so that questions meet answers.
std::string pick_common(Random& random, const std::vector<std::string>& choices)
{
    return random.chance(50) ? choices[random.below(2)] : random.pick(choices);
}

std::string random_header(Random& random)
{
    std::string line = random.chance(70) ? "" : random.pick(blanks);
    line += "[" + pick_common(random, names);
    if (random.chance(93))
        line += "]";
    line += random.pick(blanks);
    if (random.chance(15))
        line += random.pick(fragments);
    return line;
}

std::string random_entry(Random& random)
{
    std::string key = pick_common(random, keys);
    if (random.chance(3))
        key = std::string(505 + random.below(7), 'k'); // 511 is the most that is promised
    std::string value = random.pick(values);
    if (random.chance(3))
        value = std::string(2040 + random.below(20), 'v') + value;
    return random.pick(blanks) + key + random.pick(blanks) + "=" + random.pick(blanks) + value +
           random.pick(blanks);
}

std::string random_soup(Random& random)
{
    std::string line;
    for (uint32_t left = random.below(12); left > 0; left--)
        line += random.pick(fragments);
    return line;
}

// A file of so many lines, so many of a hundred of them headers.
std::string random_file(Random& random, uint32_t lines, uint32_t headers)
{
    std::string text;
    for (uint32_t left = lines; left > 0; left--) {
        const uint32_t kind = random.below(100);
        if (kind < headers)
            text += random_header(random);
        else if (kind < 80)
            text += random_entry(random);
        else
            text += random_soup(random);
        text += random.pick(line_ends);
    }
    if (!text.empty() && random.chance(30))
        text.pop_back(); // the last line without its end
    return text;
}

std::string random_file(Random& random)
{
    return random_file(random, random.below(25), 35);
}

// A file whose sections hold more entries than the reader keeps at hand of one.
std::string random_long_file(Random& random)
{
    return random_file(random, 80 + random.below(80), 1);
}

std::string printable(const std::string& text)
{
    std::string result;
    for (const char c : text) {
        char code[8];
        if (c >= ' ' && c < 127 && c != '\\')
            result.push_back(c);
        else if (snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(c)) > 0)
            result += code;
    }
    return result;
}

struct Question {
    std::string section;
    bool no_section; // null instead
    std::string key;
    int32_t occurrence;

    const char* section_text() const { return no_section ? nullptr : section.c_str(); }
};

Question random_question(Random& random)
{
    Question question;
    question.section = random.chance(20) ? "" : pick_common(random, names);
    question.no_section = random.chance(5);
    question.key = random.chance(95) ? pick_common(random, keys) : std::string(511, 'K');
    const int32_t occurrences[] = {INI_LAST, INI_LAST, INI_LAST, 1, 2, 3, 0, -2};
    question.occurrence = occurrences[random.below(8)];
    return question;
}

// A question whose answer lies about the end of what the reader keeps at hand.
Question random_far_question(Random& random)
{
    Question question = random_question(random);
    if (random.chance(70))
        question.section = "";
    const int32_t occurrences[] = {INI_LAST, INI_LAST, 10, 20, 24, 25, 26, 30};
    question.occurrence = occurrences[random.below(8)];
    return question;
}

std::string where(const std::string& text, const Question& question)
{
    return printable(text) + "\nsection \"" + printable(question.section) +
           (question.no_section ? "\" (null)" : "\"") + " key \"" + printable(question.key) +
           "\" occurrence " + std::to_string(question.occurrence);
}

IniOracleAnswer take(int result, char* value)
{
    IniOracleAnswer answer = {result, value != nullptr ? value : ""};
    config_release_string(value);
    return answer;
}

IniOracleAnswer ask_file(const Question& question)
{
    char* value = nullptr;
    const int result = config_get_ini_string(path.c_str(), question.section_text(),
                                             question.key.c_str(), &value, question.occurrence);
    return take(result, value);
}

IniOracleAnswer ask_doc(const IniDoc* doc, const Question& question)
{
    char* value = nullptr;
    const int result = ini_doc_get_string(doc, question.section_text(), question.key.c_str(),
                                          &value, question.occurrence);
    return take(result, value);
}

std::string text_of(const IniOracleAnswer& answer)
{
    return std::to_string(answer.result) + " \"" + printable(answer.value) + "\"";
}

std::vector<std::string> take_names(vylist* list)
{
    std::vector<std::string> found;
    for (vylist_node* node = list->next; node != vylist_end(list); node = node->next)
        found.emplace_back(static_cast<const char*>(node->data));
    config_release_section_list(list);
    return found;
}

// How the questions were answered.
struct Tally {
    int found;
    int found_far; // the 25th of a key or a later one
    int without_section;
    int without_key;
};

// Asks twelve questions about a file, each of the file and of two documents made of it.
void compare(Random& random, const std::string& text, Question (*ask)(Random&), Tally* tally)
{
    write_file(path, text);
    IniDocGuard loaded;
    IniDocGuard parsed;
    ASSERT_EQ(ini_doc_load(path.c_str(), loaded.out()), 0);
    ASSERT_EQ(ini_doc_parse(text.data(), text.size(), parsed.out()), 0);
    for (int asked = 0; asked < 12; asked++) {
        const Question question = ask(random);
        const IniOracleAnswer expected =
            ini_oracle_get_string(path, question.section_text(), question.key, question.occurrence);
        const std::string answer = text_of(expected);
        ASSERT_EQ(text_of(ask_file(question)), answer) << where(text, question);
        ASSERT_EQ(text_of(ask_doc(loaded.get(), question)), answer) << where(text, question);
        ASSERT_EQ(text_of(ask_doc(parsed.get(), question)), answer) << where(text, question);
        tally->found += expected.result == 0 ? 1 : 0;
        tally->found_far += expected.result == 0 && question.occurrence >= 25 ? 1 : 0;
        tally->without_section += expected.result == -1 ? 1 : 0;
        tally->without_key += expected.result == -2 ? 1 : 0;
    }
}

TEST(IniOracle, AgreesOnEveryValueOfGeneratedFiles)
{
    Random random(20240611);
    Tally tally = {};
    for (int i = 0; i < 5000; i++)
        ASSERT_NO_FATAL_FAILURE(compare(random, random_file(random), random_question, &tally))
            << "file " << i;
    // The questions are worth asking.
    EXPECT_GT(tally.found, 4000);
    EXPECT_GT(tally.without_section, 4000);
    EXPECT_GT(tally.without_key, 4000);
}

TEST(IniOracle, AgreesOnEveryValueOfLongSections)
{
    Random random(20240612);
    Tally tally = {};
    for (int i = 0; i < 150; i++)
        ASSERT_NO_FATAL_FAILURE(
            compare(random, random_long_file(random), random_far_question, &tally))
            << "file " << i;
    // The questions are worth asking.
    EXPECT_GT(tally.found, 200);
    EXPECT_GT(tally.found_far, 20);
}

TEST(IniOracle, AgreesOnTheSectionListOfGeneratedFiles)
{
    Random random(19700101);
    size_t listed = 0;
    for (int i = 0; i < 5000; i++) {
        const std::string text = random_file(random);
        write_file(path, text);
        std::vector<std::string> expected;
        ASSERT_EQ(ini_oracle_section_list(path, &expected), 0);
        vylist* list = nullptr;
        ASSERT_EQ(config_get_section_list(path.c_str(), &list), 0);
        ASSERT_EQ(take_names(list), expected) << "file " << i << ": " << printable(text);
        IniDocGuard doc;
        ASSERT_EQ(ini_doc_parse(text.data(), text.size(), doc.out()), 0);
        ASSERT_EQ(ini_doc_get_section_list(doc.get(), &list), 0);
        ASSERT_EQ(take_names(list), expected) << "file " << i << ": " << printable(text);
        listed += expected.size();
    }
    EXPECT_GT(listed, 10000U);
}

} // namespace
