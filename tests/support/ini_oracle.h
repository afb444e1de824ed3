// A second reader of INI-style files, written for being obviously right: it goes through the file
// one character at a time and knows nothing of tables, spans or buffers. Slow. The tests hold the
// real reader against it.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

struct IniOracleAnswer {
    int result; // as config_get_ini_string
    std::string value;
};

// `section` may be null. `occurrence` is -1 for the last entry of the key, or n >= 1.
IniOracleAnswer ini_oracle_get_string(const std::string& path, const char* section,
                                      const std::string& key, int32_t occurrence);

// Returns as config_get_section_list; appends the names.
int ini_oracle_section_list(const std::string& path, std::vector<std::string>* names);
