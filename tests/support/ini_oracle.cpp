#include "support/ini_oracle.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>

static const std::string blanks = " \t";

static std::string upper_case(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return text;
}

static std::string without_leading_blanks(const std::string& text)
{
    const size_t first = text.find_first_not_of(blanks);
    return first == std::string::npos ? "" : text.substr(first);
}

static std::string without_outer_blanks(const std::string& text)
{
    const size_t last = text.find_last_not_of(blanks);
    return last == std::string::npos ? "" : without_leading_blanks(text.substr(0, last + 1));
}

// A key as it is compared: no blanks anywhere, one case, 511 characters.
static std::string reduce_key(const std::string& key)
{
    std::string reduced;
    for (const char c : key) {
        if (blanks.find(c) == std::string::npos)
            reduced.push_back(c);
    }
    return upper_case(reduced.substr(0, 511));
}

// What stands between a line's brackets, when it begins with one; the name ends at the `close`th
// character.
static std::string name_in(const std::string& text, size_t close)
{
    return text.substr(1, close - 1);
}

IniOracle::Line IniOracle::read_line(const std::string& text)
{
    Line line;
    const std::string inside = without_leading_blanks(text);
    const bool opens = !inside.empty() && inside[0] == '[';
    const size_t first = inside.find(']');
    const size_t last = inside.rfind(']');
    line.is_header = opens && first != std::string::npos;
    if (line.is_header)
        line.header = upper_case(name_in(inside, first));
    line.ends_section = !text.empty() && text[0] == '[' && first != std::string::npos;
    line.is_listed = line.is_header && last > 1 &&
                     inside.find_first_not_of(blanks, last + 1) == std::string::npos;
    if (line.is_listed)
        line.listed = name_in(inside, last);
    const size_t equals = text.find('=');
    line.is_entry = equals != std::string::npos;
    if (line.is_entry) {
        line.key = reduce_key(text.substr(0, equals));
        line.value = without_outer_blanks(text.substr(equals + 1)).substr(0, 2047);
    }
    return line;
}

// A line ends at a line feed, a carriage return or a zero byte; behind the last one is none.
IniOracle::IniOracle(const std::string& text)
{
    const std::string ends("\n\r\0", 3);
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find_first_of(ends, at);
        lines_.push_back(read_line(text.substr(at, end - at)));
        at = end == std::string::npos ? text.size() : end + 1;
    }
}

// The number of the line behind the last header of the section; 0 without a name, npos without a
// header.
size_t IniOracle::first_line_of(const char* section) const
{
    if (section == nullptr || *section == '\0')
        return 0;
    const std::string name = upper_case(section);
    size_t found = std::string::npos;
    for (size_t i = 0; i < lines_.size(); i++) {
        if (lines_[i].is_header && lines_[i].header == name)
            found = i + 1;
    }
    return found;
}

IniOracleAnswer IniOracle::get_string(const char* section, const std::string& key,
                                      int32_t occurrence) const
{
    const size_t first = first_line_of(section);
    if (first == std::string::npos)
        return {-1, ""};
    const std::string reduced = reduce_key(key);
    const Line* found = nullptr;
    int32_t count = 0;
    for (size_t i = first; i < lines_.size() && !lines_[i].ends_section; i++) {
        if (!lines_[i].is_entry || lines_[i].key != reduced)
            continue;
        count++;
        if (occurrence == -1 || occurrence == count)
            found = &lines_[i];
    }
    return found != nullptr ? IniOracleAnswer{0, found->value} : IniOracleAnswer{-ENOENT, ""};
}

std::vector<std::string> IniOracle::section_list() const
{
    std::vector<std::string> names;
    for (const Line& line : lines_) {
        if (line.is_listed)
            names.push_back(line.listed);
    }
    return names;
}

// ---- files ----

static bool read_all(const std::string& path, std::string* text)
{
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr)
        return false;
    for (int c = fgetc(file); c != EOF; c = fgetc(file))
        text->push_back(static_cast<char>(c));
    fclose(file);
    return true;
}

IniOracleAnswer ini_oracle_get_string(const std::string& path, const char* section,
                                      const std::string& key, int32_t occurrence)
{
    std::string text;
    if (!read_all(path, &text))
        return {-EIO, ""};
    return IniOracle(text).get_string(section, key, occurrence);
}

int ini_oracle_section_list(const std::string& path, std::vector<std::string>* names)
{
    std::string text;
    if (!read_all(path, &text))
        return -EIO;
    for (const std::string& name : IniOracle(text).section_list())
        names->push_back(name);
    return 0;
}
