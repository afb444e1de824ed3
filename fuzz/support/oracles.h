// Second opinions on the small parsers, written for being obviously right: one character at a time,
// no calls that the product makes.
#pragma once

#include <stdint.h>

#include <optional>
#include <string>
#include <vector>

// What a conversion answers; `value` is set when something is stored.
struct NumberAnswer {
    int32_t result;
    std::optional<int64_t> value;
};

NumberAnswer oracle_to_long(const std::string& text, int base);
NumberAnswer oracle_to_ulong(const std::string& text, int base);

// The whole text as a number, none where it is not one or does not fit.
std::optional<int32_t> oracle_number(const std::string& text, int base);

// How much of `text` a copy into `size` bytes keeps, whole sequences only.
std::string oracle_copy_u8(const std::string& text, uint32_t size);

// The texts between commas, empty ones left out.
std::vector<std::string> oracle_items(const std::string& text);

struct OptionItem {
    std::string name;
    std::optional<std::string> value;
};

// The items of an option map.
std::vector<OptionItem> oracle_option_map(const std::string& text);

// The user ids that a text adds to a list that holds `ids` already.
void oracle_user_list(const std::string& text, std::vector<int32_t>* ids);
