// A mistake in the configuration or in the settings of devices, and how it is told.
#pragma once

#include <stddef.h>
#include <stdint.h>

enum FindingKind : uint8_t {
    FINDING_UNKNOWN_KEY,
    FINDING_BEHIND_HEADER, // a key where none is read
    FINDING_REPEATED,      // a key that stands again further down, where it counts
    FINDING_UNKNOWN_WORD,
    FINDING_NO_NUMBER,
    FINDING_OUT_OF_RANGE,
    FINDING_NO_PATH,
    FINDING_NO_USER_ID, // a word in a list of user ids
};

// Texts are lent for the call that reports it.
struct Finding {
    size_t line = 0;          // of the file; the first is 1
    const char* section = ""; // the configuration has none
    FindingKind kind = FINDING_UNKNOWN_KEY;
    const char* key = "";           // as it stands, without its blanks
    const char* word = "";          // the value, or the word of a list, that is wrong
    const char* right = nullptr;    // what was meant, most likely; null when nothing is near
    const char* accepted = nullptr; // what would be right; null where that cannot be listed
    const char* taken = nullptr;    // what the service takes in its place; null: it passes over it
};

using FindingReport = void (*)(void* context, const Finding& finding);

constexpr size_t finding_text_size = 512; // bytes with the NUL

// Writes one line without file and number, such as "mountfs: ntsf is no word for it, write ntfs; it
// is passed over", with the section in brackets before it where there is one. Control characters
// come out as "_"; what is too long is cut.
void finding_format(const Finding& finding, char (&text)[finding_text_size]);

// Lends the word that takes the fewest steps to become `word`: a letter that is wrong, missing, too
// many, or has changed places with the next, letter case aside. Null when none is near.
[[nodiscard]] const char* finding_nearest(const char* word, const char* const* words, size_t count);
