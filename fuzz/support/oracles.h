// Second opinions on the small parsers, written for being obviously right: one character at a time,
// no calls that the product makes.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <string_view>
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

// Bytes of the UTF-8 sequence (RFC 3629) that stands at that place; 0 where none does.
size_t oracle_sequence(std::string_view text, size_t place);

// Whether a text is UTF-8 without control characters.
bool oracle_is_harmless(std::string_view text);

// The text with "_" for each byte that belongs to no sequence, each control character and each of
// those characters.
std::string oracle_clean(std::string_view text, std::string_view forbidden);

// The text without blanks and tabs at its ends.
std::string oracle_trim(std::string_view text);

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
