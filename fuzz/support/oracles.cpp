#include "support/oracles.h"

#include <errno.h>

namespace {

// A number at a text's beginning, as strtol(3) finds it.
struct Number {
    bool found;
    bool negative;
    bool huge; // beyond anything that is asked for
    int64_t magnitude;
    size_t end;
};

} // namespace

static int digit_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'z')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'Z')
        return c - 'A' + 10;
    return 99;
}

static char at(const std::string& text, size_t place)
{
    return place < text.size() ? text[place] : '\0';
}

static bool has_hex_prefix(const std::string& text, size_t place)
{
    return at(text, place) == '0' && (at(text, place + 1) == 'x' || at(text, place + 1) == 'X') &&
           digit_value(at(text, place + 2)) < 16;
}

static Number find_number(const std::string& text, int base)
{
    Number number = {};
    size_t place = 0;
    while (at(text, place) == ' ' || (at(text, place) >= '\t' && at(text, place) <= '\r'))
        place++;
    number.negative = at(text, place) == '-';
    if (at(text, place) == '-' || at(text, place) == '+')
        place++;
    if ((base == 0 || base == 16) && has_hex_prefix(text, place)) {
        place += 2;
        base = 16;
    } else if (base == 0) {
        base = at(text, place) == '0' ? 8 : 10;
    }
    for (; digit_value(at(text, place)) < base; place++) {
        number.found = true;
        number.magnitude = number.magnitude * base + digit_value(at(text, place));
        if (number.magnitude > (int64_t{1} << 40)) {
            number.huge = true;
            number.magnitude = int64_t{1} << 40;
        }
    }
    number.end = number.found ? place : 0;
    return number;
}

static bool is_base(int base)
{
    return base == 0 || (base >= 2 && base <= 36);
}

NumberAnswer oracle_to_long(const std::string& text, int base)
{
    if (!is_base(base))
        return {-EINVAL, {}};
    const Number number = find_number(text, base);
    const int64_t value = number.negative ? -number.magnitude : number.magnitude;
    if (value > INT32_MAX)
        return {INT32_MAX, INT32_MAX};
    if (value < INT32_MIN)
        return {INT32_MIN, INT32_MIN};
    if (!number.found || number.end != text.size())
        return {-EINVAL, {}};
    return {0, value};
}

NumberAnswer oracle_to_ulong(const std::string& text, int base)
{
    if (!is_base(base))
        return {-EINVAL, {}};
    const Number number = find_number(text, base);
    if (!number.found)
        return {-EINVAL, {}};
    if (number.magnitude > UINT32_MAX)
        return {-1, UINT32_MAX};
    const int64_t value =
        number.negative ? (int64_t{1} << 32) - number.magnitude : number.magnitude;
    return {0, value % (int64_t{1} << 32)};
}

std::optional<int32_t> oracle_number(const std::string& text, int base)
{
    const NumberAnswer answer = oracle_to_long(text, base);
    if (answer.result != 0)
        return {};
    return static_cast<int32_t>(*answer.value);
}

// Bytes of the sequence that a byte begins; 0 for one that begins none.
static size_t sequence_length(unsigned char lead)
{
    if (lead == 0)
        return 0;
    if (lead <= 0x7F)
        return 1;
    if (lead >= 0xC0 && lead <= 0xDF)
        return 2;
    if (lead >= 0xE0 && lead <= 0xEF)
        return 3;
    return lead >= 0xF0 && lead <= 0xF7 ? 4 : 0;
}

std::string oracle_copy_u8(const std::string& text, uint32_t size)
{
    const size_t room = size < 2 ? 0 : size - 2;
    std::string kept;
    for (;;) {
        const size_t length = sequence_length(static_cast<unsigned char>(at(text, kept.size())));
        if (length == 0 || kept.size() + length > room)
            return kept;
        for (size_t i = 1; i < length; i++) {
            const auto byte = static_cast<unsigned char>(at(text, kept.size() + i));
            if (byte < 0x80 || byte > 0xBF)
                return kept;
        }
        kept += text.substr(kept.size(), length);
    }
}

// ---- UTF-8 ----

// The character of so many bytes at a place; more than there are characters where there is none.
static uint32_t decode(std::string_view text, size_t place, size_t length)
{
    static const uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    if (length == 0 || place + length > text.size())
        return UINT32_MAX;
    const auto lead = static_cast<unsigned char>(text[place]);
    if (length == 1)
        return lead;
    uint32_t character = lead & (0xFFU >> (length + 1));
    for (size_t i = 1; i < length; i++) {
        const auto byte = static_cast<unsigned char>(text[place + i]);
        if (byte < 0x80 || byte > 0xBF)
            return UINT32_MAX;
        character = character * 64 + (byte - 0x80U);
    }
    const bool surrogate = character >= 0xD800 && character <= 0xDFFF;
    return character < least[length] || surrogate ? UINT32_MAX : character;
}

size_t oracle_sequence(std::string_view text, size_t place)
{
    if (place >= text.size())
        return 0;
    const size_t length = sequence_length(static_cast<unsigned char>(text[place]));
    return decode(text, place, length) <= 0x10FFFF ? length : 0;
}

static bool is_control(uint32_t character)
{
    return character < 0x20 || (character >= 0x7F && character < 0xA0);
}

static bool is_harmless_at(std::string_view text, size_t place, size_t length)
{
    return length > 0 && !is_control(decode(text, place, length));
}

bool oracle_is_harmless(std::string_view text)
{
    for (size_t place = 0; place < text.size();) {
        const size_t length = oracle_sequence(text, place);
        if (!is_harmless_at(text, place, length))
            return false;
        place += length;
    }
    return true;
}

std::string oracle_clean(std::string_view text, std::string_view forbidden)
{
    std::string clean;
    for (size_t place = 0; place < text.size();) {
        const size_t length = oracle_sequence(text, place);
        if (is_harmless_at(text, place, length) &&
            forbidden.find(text[place]) == std::string_view::npos)
            clean += text.substr(place, length);
        else
            clean += '_';
        place += length > 0 ? length : 1;
    }
    return clean;
}

std::string oracle_trim(std::string_view text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return std::string(text);
}

// ---- lists and maps ----

std::vector<std::string> oracle_items(const std::string& text)
{
    std::vector<std::string> items;
    std::string item;
    for (size_t place = 0; place <= text.size(); place++) {
        if (place < text.size() && text[place] != ',') {
            item.push_back(text[place]);
            continue;
        }
        if (!item.empty())
            items.push_back(item);
        item.clear();
    }
    return items;
}

std::vector<OptionItem> oracle_option_map(const std::string& text)
{
    std::vector<OptionItem> map;
    for (const std::string& whole : oracle_items(text)) {
        const std::string item = whole.substr(0, 511);
        const size_t equals = item.find('=');
        if (equals == 0)
            break;
        if (equals == std::string::npos)
            map.push_back({item, {}});
        else
            map.push_back({item.substr(0, equals), item.substr(equals + 1)});
    }
    return map;
}

static void add_user(const std::string& digits, std::vector<int32_t>* ids)
{
    const std::optional<int32_t> id = oracle_number(digits, 10);
    if (!id || digits.size() > 32) // longer runs are no id, whatever they spell
        return;
    for (const int32_t other : *ids) {
        if (other == *id)
            return;
    }
    ids->push_back(*id);
}

void oracle_user_list(const std::string& text, std::vector<int32_t>* ids)
{
    std::string digits;
    for (const char c : text) {
        if (c >= '0' && c <= '9') {
            digits.push_back(c);
            continue;
        }
        if (c == ',')
            add_user(digits, ids);
        digits.clear();
    }
    add_user(digits, ids);
}
