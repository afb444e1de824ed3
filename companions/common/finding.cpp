#include "common/finding.h"

#include "common/text.h"
#include "lib/str.h"

#include <stdio.h>
#include <string.h>

// ---- texts ----

static constexpr size_t shown_size = 64; // bytes of a word that are shown, with the NUL

namespace {

struct Shown {
    char text[shown_size];
};

} // namespace

static Shown show(const char* text)
{
    Shown shown = {};
    str_ncpy_u8(shown.text, text[0] != '\0' ? text : "(nothing)", sizeof shown.text);
    (void)text_clean(shown.text, ""); // how much it had to change does not matter
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
    const Shown section = finding.section[0] != '\0' ? show(finding.section) : Shown{};
    const Shown key = show(finding.key);
    const Shown word = is_about_key(finding.kind) ? Shown{} : show(finding.word);
    const char* between = word.text[0] != '\0' ? ": " : "";
    const bool near = finding.right != nullptr;
    const Shown right = near ? show(finding.right) : Shown{};
    const bool list = !near && finding.accepted != nullptr;
    (void)snprintf(
        text, sizeof text, "%s%s%s%s%s%s %s%s%s%s%s; %s%s", section.text[0] != '\0' ? "[" : "",
        section.text, section.text[0] != '\0' ? "] " : "", key.text, between, word.text,
        says(finding.kind), near ? ", write " : "", right.text, list ? ", accepted: " : "",
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
// one row for each letter of `a`, of which the last three are held.
static size_t distance(const char* a, const char* b)
{
    size_t rows[3][longest + 1];
    const size_t width = strlen(b);
    for (size_t j = 0; j <= width; j++)
        rows[0][j] = j;
    size_t i = 0;
    for (; a[i] != '\0'; i++) {
        const size_t* two_up = rows[(i + 2) % 3];
        const size_t* up = rows[i % 3];
        size_t* row = rows[(i + 1) % 3];
        row[0] = i + 1;
        for (size_t j = 0; j < width; j++) {
            const bool same = lower(a[i]) == lower(b[j]);
            row[j + 1] = least(least(up[j + 1], row[j]) + 1, up[j] + (same ? 0 : 1));
            if (i > 0 && j > 0 && lower(a[i]) == lower(b[j - 1]) && lower(a[i - 1]) == lower(b[j]))
                row[j + 1] = least(row[j + 1], two_up[j - 1] + 1);
        }
    }
    return rows[i % 3][width];
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
