// The text that comes back from an editor: what came back as it was handed out asks for nothing,
// each change is one line of a setting that is known, and each fault is told in one harmless line.
//
// Input: the text that was handed out, "%%" on a line, the text that came back.
#include "ctl/edit_text.h"
#include "support/check.h"
#include "support/input.h"
#include "support/oracles.h"

#include <stdlib.h>
#include <string.h>

#include <set>

namespace {

// What is told on standard error meanwhile.
class Told {
  public:
    Told() : kept_(stderr) { stderr = open_memstream(&text_, &size_); }
    Told(const Told&) = delete;
    Told& operator=(const Told&) = delete;
    ~Told() { free(text_); }

    std::string end()
    {
        (void)fclose(stderr);
        stderr = kept_;
        return {text_, size_};
    }

  private:
    FILE* kept_;
    char* text_ = nullptr;
    size_t size_ = 0;
};

} // namespace

static void hold(const std::string& text, FileBytes* bytes)
{
    bytes->bytes.reset(static_cast<char*>(malloc(text.size() + 1)));
    memcpy(bytes->bytes.get(), text.c_str(), text.size() + 1);
    bytes->size = text.size();
}

// Whether a section's name stands twice, so that only the last of them counts.
static bool has_namesakes(const std::string& text)
{
    SectionTableGuard table;
    std::set<std::string> names;
    check_equal(sections_cut(text.data(), text.size(), table.out()), 0, "the text is cut");
    for (size_t i = 0; i < table->count; i++) {
        const Section& section = table->sections[i];
        std::string name = text.substr(section.name, section.name_size);
        for (char& c : name)
            c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
        if (!name.empty() && !names.insert(name).second)
            return true;
    }
    return false;
}

static void check_change(const SectionChange& change)
{
    bool known = false;
    for (const SettingRow& row : setting_rows)
        known |= strcmp(row.key, change.key) == 0;
    check(known, "a change is of a setting");
    const std::string value = text_of(change.value);
    check(value.size() < setting_value_size, "the service reads all of a value");
    check(value.find_first_of("\r\n") == std::string::npos, "a value is one line");
}

static void check_told(const std::string& told, unsigned faults)
{
    unsigned lines = 0;
    for (size_t at = 0; at < told.size();) {
        const size_t end = told.find('\n', at);
        check(end != std::string::npos, "what is told ends its line");
        const std::string line = told.substr(at, end - at);
        check(oracle_is_harmless(line), "what is told is harmless");
        lines += line.starts_with("line ") ? 1 : 0;
        at = end + 1;
    }
    check_equal(lines, faults, "each fault is told");
}

// Returns how many sections have changes.
static size_t edit(const std::string& before, const std::string& after)
{
    const View view = {};
    FileBytes handed_out;
    FileBytes came_back;
    hold(before, &handed_out);
    hold(after, &came_back);
    EditedText edited;
    Told told;
    const int result = edited_read(view, handed_out, came_back, &edited);
    const std::string text = told.end();
    check_equal(result, 0, "it is read");
    check_told(text, edited.faults);
    const size_t count = edited.count;
    for (size_t i = 0; i < count; i++) {
        const DeviceEdit& made = edited.sections[i].edit;
        check(made.identity != nullptr && made.identity[0] != '\0', "a change has a section");
        check(made.forget != (made.count > 0), "a section is changed or forgotten");
        check(!made.forget || before.find(made.identity) != std::string::npos,
              "what is forgotten was handed out");
        for (size_t j = 0; j < made.count; j++)
            check_change(made.changes[j]);
    }
    edited_end(&edited);
    return count;
}

void fuzz(Input& input)
{
    const std::string before = input.field();
    const std::string after = input.rest();
    (void)edit(before, after);
    if (!has_namesakes(before))
        check_equal(static_cast<int64_t>(edit(before, before)), 0, "nothing was changed");
}
