#include "shares_of.h"

#include <gtest/gtest.h>

static std::vector<std::string> collected;

static void collect(int priority, const char* message)
{
    collected.push_back(std::to_string(priority) + " " + message);
}

ShareTable* shares_of(const std::string& text, Notes* notes)
{
    IniDocGuard doc;
    EXPECT_EQ(ini_doc_parse(text.data(), text.size(), doc.out()), 0);
    ShareTable* table = nullptr;
    EXPECT_EQ(shares_read(doc.get(), notes, &table), 0);
    return table;
}

std::vector<std::string> messages_with_priority(const Notes& notes)
{
    const Notes nothing = {};
    collected.clear();
    notes_new(&notes, &nothing, collect);
    return collected;
}

std::vector<std::string> messages(const Notes& notes)
{
    std::vector<std::string> found = messages_with_priority(notes);
    for (std::string& message : found)
        message.erase(0, 2);
    return found;
}
