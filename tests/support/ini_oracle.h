// A second reader of INI-style files, written for being obviously right: it cuts the text into
// lines and knows nothing of tables, spans or buffers. The tests hold the real reader against it.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

struct IniOracleAnswer {
    int result; // as config_get_ini_string
    std::string value;
};

class IniOracle {
  public:
    explicit IniOracle(const std::string& text);

    // `section` may be null. `occurrence` is -1 for the last entry of the key, or n >= 1.
    IniOracleAnswer get_string(const char* section, const std::string& key,
                               int32_t occurrence) const;

    // The names of all sections, in file order.
    std::vector<std::string> section_list() const;

  private:
    // What a line is to those who ask; a line may be several of these, or none.
    struct Line {
        bool is_header = false;    // a lookup takes it for the header of the section `header`
        bool ends_section = false; // a lookup goes no further
        bool is_listed = false;    // its name is in the list of sections
        bool is_entry = false;
        std::string header; // in one case
        std::string listed;
        std::string key; // as it is compared
        std::string value;
    };

    static Line read_line(const std::string& text);
    size_t first_line_of(const char* section) const;

    std::vector<Line> lines_;
};

// The same of a file: -EIO when it cannot be opened. The list appends the names.
IniOracleAnswer ini_oracle_get_string(const std::string& path, const char* section,
                                      const std::string& key, int32_t occurrence);
int ini_oracle_section_list(const std::string& path, std::vector<std::string>* names);
