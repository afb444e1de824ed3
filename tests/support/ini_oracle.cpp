#include "support/ini_oracle.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>

static const std::string blanks = " \t";

// One line, without the line feed, carriage return or NUL that ends it. False when the file is at
// its end before the first character.
static bool read_line(FILE* file, std::string* line)
{
    line->clear();
    int c = fgetc(file);
    if (c == EOF)
        return false;
    while (c != EOF && c != '\n' && c != '\r' && c != '\0') {
        line->push_back(static_cast<char>(c));
        c = fgetc(file);
    }
    return true;
}

static std::vector<std::string> read_lines(FILE* file)
{
    std::vector<std::string> lines;
    std::string line;
    while (read_line(file, &line))
        lines.push_back(line);
    return lines;
}

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

// Whether a lookup of that section takes the line for its header.
static bool is_header_of(const std::string& line, const std::string& section)
{
    const std::string text = without_leading_blanks(line);
    if (text.empty() || text[0] != '[')
        return false;
    const size_t close = text.find(']');
    if (close == std::string::npos)
        return false;
    return upper_case(text.substr(1, close - 1)) == upper_case(section);
}

static bool ends_section(const std::string& line)
{
    return !line.empty() && line[0] == '[' && line.find(']') != std::string::npos;
}

// The number of the line behind the last header of the section; -1 without one.
static int first_line_of(const std::vector<std::string>& lines, const char* section)
{
    if (section == nullptr || *section == '\0')
        return 0;
    int found = -1;
    for (size_t i = 0; i < lines.size(); i++) {
        if (is_header_of(lines[i], section))
            found = static_cast<int>(i) + 1;
    }
    return found;
}

// Every value of the key in the section that begins at that line, in file order.
static std::vector<std::string> values_of(const std::vector<std::string>& lines, int first,
                                          const std::string& key)
{
    std::vector<std::string> values;
    for (size_t i = static_cast<size_t>(first); i < lines.size(); i++) {
        if (ends_section(lines[i]))
            break;
        const size_t equals = lines[i].find('=');
        if (equals == std::string::npos)
            continue;
        if (reduce_key(lines[i].substr(0, equals)) == reduce_key(key))
            values.push_back(without_outer_blanks(lines[i].substr(equals + 1)).substr(0, 2047));
    }
    return values;
}

IniOracleAnswer ini_oracle_get_string(const std::string& path, const char* section,
                                      const std::string& key, int32_t occurrence)
{
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr)
        return {-EIO, ""};
    const std::vector<std::string> lines = read_lines(file);
    fclose(file);
    const int first = first_line_of(lines, section);
    if (first < 0)
        return {-1, ""};
    const std::vector<std::string> values = values_of(lines, first, key);
    if (occurrence == -1 && !values.empty())
        return {0, values.back()};
    if (occurrence >= 1 && static_cast<size_t>(occurrence) <= values.size())
        return {0, values[static_cast<size_t>(occurrence) - 1]};
    return {-ENOENT, ""};
}

int ini_oracle_section_list(const std::string& path, std::vector<std::string>* names)
{
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr)
        return -EIO;
    std::string line;
    while (read_line(file, &line)) {
        const std::string text = without_leading_blanks(line);
        if (text.empty() || text[0] != '[')
            continue;
        const size_t close = text.rfind(']');
        if (close == std::string::npos)
            continue;
        if (text.find_first_not_of(blanks, close + 1) != std::string::npos)
            continue;
        if (close > 1)
            names->push_back(text.substr(1, close - 1));
    }
    fclose(file);
    return 0;
}
