// Volume labels as blkid prints them, against an independent reading, with the C library's own
// table of code page 850.
//
// Input: a line with a type, a line "850" or another, and what blkid prints.
#include "label/label_text.h"
#include "support/check.h"
#include "support/input.h"
#include "support/oracles.h"

#include <iconv.h>
#include <string.h>

#include <memory>

static std::string from_code_page(std::string text)
{
    static const iconv_t table = iconv_open("UTF-8", "CP850");
    check(table != reinterpret_cast<iconv_t>(-1), "the C library knows the code page");
    std::string converted(text.size() * 3, '\0');
    char* from = text.data();
    char* to = converted.data();
    size_t left = text.size();
    size_t room = converted.size();
    check(iconv(table, &from, &left, &to, &room) == 0, "all of a code page is a character");
    converted.resize(converted.size() - room);
    return converted;
}

static bool is_well_formed(const std::string& text)
{
    size_t place = 0;
    while (place < text.size()) {
        const size_t length = oracle_sequence(text, place);
        if (length == 0)
            return false;
        place += length;
    }
    return true;
}

static void check_label(const char* printed, bool code_page)
{
    using Label = char[label_size];
    const std::unique_ptr<Label[]> label(new Label[1]); // no byte longer
    label_from_printed(printed, code_page, label[0]);
    std::string text = std::string(printed).substr(0, label_printed_size - 1);
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    if (code_page && !is_well_formed(text))
        text = from_code_page(text);
    check_same(label[0], oracle_clean(text, "[]"), "the label");
}

// Leaves what stands before the last line.
static void check_type(char* printed, const std::string& type)
{
    std::string text = printed;
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    const size_t feed = text.rfind('\n');
    const size_t begin = feed == std::string::npos ? 0 : feed + 1;
    const bool same = label_take_type(printed, type.c_str());
    check_equal(same ? 1 : 0, text.substr(begin) == type ? 1 : 0, "whether it is of the type");
    check_same(printed, text.substr(0, begin), "what stands before the type");
}

void fuzz(Input& input)
{
    const std::string type = input.line().c_str();
    const bool code_page = input.line() == "850";
    const std::string text = input.rest();
    const std::unique_ptr<char[]> printed(new char[text.size() + 1]); // no byte longer
    memcpy(printed.get(), text.c_str(), text.size() + 1);
    check_type(printed.get(), type);
    check_label(printed.get(), code_page);
}
