#include "common/finding.h"

#include "common/text.h"
#include "lib/str.h"

#include <stdio.h>
#include <string.h>

// ---- texts ----

static constexpr size_t shown_size = 64; // bytes of a word that are shown, with the NUL

// Lends the text as it is shown, from `shown`.
static const char* show(const char* text, char (&shown)[shown_size])
{
    str_ncpy_u8(shown, text[0] != '\0' ? text : "(nothing)", sizeof shown);
    (void)text_clean(shown, ""); // how much it had to change does not matter
    return shown;
}

static const char* says(FindingKind kind)
{
    switch (kind) {
    case FINDING_UNKNOWN_KEY:
        return "is no key";
    case FINDING_BEHIND_HEADER:
        return "stands behind a line in brackets, where no key is read";
    case FINDING_REPEATED:
        return "stands again below, and the last line counts";
    case FINDING_UNKNOWN_WORD:
        return "is no word for it";
    case FINDING_NO_NUMBER:
        return "is no number";
    case FINDING_OUT_OF_RANGE:
        return "is out of range";
    case FINDING_NO_PATH:
        return "does not begin with a slash";
    case FINDING_NO_USER_ID:
        return "is no user id";
    }
    return "is wrong";
}

static bool is_about_key(FindingKind kind)
{
    return kind == FINDING_UNKNOWN_KEY || kind == FINDING_BEHIND_HEADER || kind == FINDING_REPEATED;
}

void finding_format(const Finding& finding, char (&text)[finding_text_size])
{
    char sections[shown_size];
    char keys[shown_size];
    char words[shown_size];
    char rights[shown_size];
    const char* section = finding.section[0] != '\0' ? show(finding.section, sections) : "";
    const char* key = show(finding.key, keys);
    const char* word = is_about_key(finding.kind) ? "" : show(finding.word, words);
    const bool near = finding.right != nullptr;
    const bool list = !near && finding.accepted != nullptr;
    (void)snprintf(text, sizeof text, "%s%s%s%s%s%s %s%s%s%s%s; %s%s",
                   section[0] != '\0' ? "[" : "", section, section[0] != '\0' ? "] " : "", key,
                   word[0] != '\0' ? ": " : "", word, says(finding.kind), near ? ", write " : "",
                   near ? show(finding.right, rights) : "", list ? ", accepted: " : "",
                   list ? finding.accepted : "", finding.taken != nullptr ? finding.taken : "it",
                   finding.taken != nullptr ? " is taken" : " is passed over");
}

// ---- nearest words ----

static constexpr size_t longest = 63; // bytes of a word that is compared

static char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

static size_t least(size_t a, size_t b)
{
    return a < b ? a : b;
}

// Steps from one word to the other, each at most `longest` bytes long (optimal string alignment):
// one row for each letter of `a`, of which the last three are held, each in the place of the one
// three above it.
static size_t distance(const char* a, const char* b)
{
    uint8_t rows[3][longest + 1];
    uint8_t* two_up = rows[0];
    uint8_t* up = rows[1];
    uint8_t* row = rows[2];
    const size_t width = strlen(b);
    for (size_t j = 0; j <= width; j++)
        row[j] = static_cast<uint8_t>(j);
    char before = '\0';
    for (; *a != '\0'; a++) {
        uint8_t* oldest = two_up;
        two_up = up;
        up = row;
        row = oldest;
        const char letter = lower(*a);
        row[0] = static_cast<uint8_t>(up[0] + 1);
        for (size_t j = 0; j < width; j++) {
            const char other = lower(b[j]);
            size_t steps =
                least(least(up[j + 1], row[j]) + 1U, up[j] + (letter == other ? 0U : 1U));
            if (before != '\0' && j > 0 && letter == lower(b[j - 1]) && before == other)
                steps = least(steps, two_up[j - 1] + 1U);
            row[j + 1] = static_cast<uint8_t>(steps);
        }
        before = letter;
    }
    return row[width];
}

const char* finding_nearest(const char* word, const char* const* words, size_t count)
{
    const size_t length = strlen(word);
    if (length > longest)
        return nullptr;
    const char* nearest = nullptr;
    size_t fewest = length / 3 + 2; // as many steps are too many
    for (size_t at = 0; at < count; at++) {
        const size_t steps = strlen(words[at]) <= longest ? distance(word, words[at]) : SIZE_MAX;
        if (steps < fewest && steps < strlen(words[at])) {
            fewest = steps;
            nearest = words[at];
        }
    }
    return nearest;
}
