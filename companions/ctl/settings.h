// The settings of a share by the words that people use for them: one row for each. Texts in, texts
// out; users and groups are looked up in the system's databases.
#pragma once

#include "records/conf_dev.h"

#include <stddef.h>
#include <stdio.h>

enum SettingKind : uint8_t {
    SETTING_TEXT,
    SETTING_PATH,
    SETTING_SWITCH,
    SETTING_WORD,
    SETTING_USERS
};

struct SettingRow {
    const char* word; // on the command line: "share"
    const char* key;  // in the device file: "Share Name"
    const char* json; // in JSON: "share_name"
    const char* help;
    SettingKind kind;
    uint8_t most; // bytes of a text
    union {       // by its kind
        char* ConfDev::*text;
        uint8_t ConfDev::*number; // of a switch, or a word
        vylist* ConfDev::*users;
    };
};

constexpr size_t setting_count = 12;
extern const SettingRow setting_rows[setting_count];

// Whether it is the one that no two shares may have the same of.
inline bool is_share_name(const SettingRow& row)
{
    return &row == setting_rows;
}

// Lends the row of a word, or of a key of the file, without regard to blanks, hyphens and letter
// case; null.
[[nodiscard]] const SettingRow* setting_find(const char* word);

constexpr size_t setting_value_size = 2048; // bytes with the NUL: what the service reads of a value
constexpr size_t setting_fault_size = 512;

// Makes the device file's value of what somebody wrote: "yes" to "Enable", "anna,@music" to
// "1001,1002,". Returns 0; -1 with the reason in `fault`. `fault` holds a warning, or nothing,
// where 0 is returned.
[[nodiscard]] int setting_parse(const SettingRow& row, const char* text,
                                char (&value)[setting_value_size],
                                char (&fault)[setting_fault_size]);

// Writes the value that a record holds, in one form for what is equal to the service.
void setting_format(const SettingRow& row, const ConfDev& record,
                    char (&value)[setting_value_size]);

// Whether two records hold the same of the setting that is wanted, of all where that is null.
[[nodiscard]] bool setting_is_equal(const SettingRow* wanted, const ConfDev& a, const ConfDev& b);

// The word for what the administrator may do: "full", "read-only", "block", "hide".
[[nodiscard]] const char* setting_administrator(uint8_t code);

// Writes a user's name; the number where nobody has it, or the name is too long.
void user_format(unsigned uid, char* name, size_t size);

// Prints a list of users by name, as text_show does, separated by ", ". In one that is read back,
// who would come back as somebody else, or nobody, stands by number.
void users_show(FILE* out, const vylist* users, bool read_back);
