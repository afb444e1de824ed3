// Shares from the text of a share file, and notes as texts.
#pragma once

#include "share/share.h"

#include <string>
#include <vector>

// The shares of a text; never null.
ShareTable* shares_of(const std::string& text, Notes* notes);

// The messages of the notes, and "<priority> message".
std::vector<std::string> messages(const Notes& notes);
std::vector<std::string> messages_with_priority(const Notes& notes);
