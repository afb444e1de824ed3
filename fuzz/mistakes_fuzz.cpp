// Mistakes in the two files that administrators write: whatever stands in one, each finding has its
// line, and its text is one harmless line; and a file has lost nothing that it holds itself.
//
// Input: a file, "%%" on a line, another file.
#include "common/config_check.h"
#include "common/settings_check.h"
#include "prepare/settings_loss.h"
#include "support/check.h"
#include "support/input.h"
#include "support/oracles.h"

#include <string.h>

#include <algorithm>

namespace {

struct Seen {
    size_t lines; // of the file
    size_t last = 0;
    int count = 0;
};

} // namespace

static void take(void* context, const Finding& finding)
{
    auto* seen = static_cast<Seen*>(context);
    check(finding.line >= std::max<size_t>(seen->last, 1), "findings come in the file's order");
    check(finding.line <= seen->lines, "a finding is about a line of the file");
    seen->last = finding.line;
    seen->count++;
    char text[finding_text_size];
    finding_format(finding, text);
    const std::string shown = text;
    check(!shown.empty() && shown.size() < sizeof text - 1, "a finding's text fits");
    check(oracle_is_harmless(shown), "a finding's text is harmless");
    if (finding.right != nullptr)
        check(shown.find(", write ") != std::string::npos, "what is right is said");
}

static bool find_user(const char* name, uint32_t* id)
{
    *id = static_cast<uint32_t>(strlen(name));
    return *id % 2 == 0;
}

static void check_file(const std::string& text)
{
    const auto feeds = std::count(text.begin(), text.end(), '\n');
    Seen in_config = {.lines = static_cast<size_t>(feeds) + 1};
    Seen in_settings = in_config;
    const int config = config_check(text.data(), text.size(), take, &in_config);
    check_equal(config, in_config.count, "mistakes in the configuration");
    const int settings = settings_check(text.data(), text.size(), find_user, take, &in_settings);
    check_equal(settings, in_settings.count, "mistakes in the settings");
    check(!settings_lost(text.data(), text.size(), text.data(), text.size()),
          "a file holds what it holds");
}

void fuzz(Input& input)
{
    const std::string before = input.field();
    const std::string after = input.rest();
    check_file(before);
    check_file(after);
    const bool lost = settings_lost(before.data(), before.size(), after.data(), after.size());
    check(!lost || !before.empty(), "nothing has nothing to lose");
}
