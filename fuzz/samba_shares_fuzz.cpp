// The bridge to Samba: whatever stands in the share file, the include file holds a section for each
// share that can be exported, under names that differ, with known parameters and exact paths, and
// nothing that Samba would read as anything else.
//
// Input: the share file.
#include "samba/include_text.h"
#include "samba/samba_server.h"
#include "share/share.h"
#include "share/share_list.h"
#include "share/share_name.h"
#include "share/shares_to_close.h"

#include "lib/str.h"
#include "support/check.h"
#include "support/input.h"
#include "support/oracles.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>

static constexpr std::string_view known_parameters[] = {
    "path",          "comment",
    "strict sync",   "sync always",
    "read only",     "guest ok",
    "guest only",    "wide links",
    "admin users",   "write list",
    "valid users",   "read list",
    "invalid users", "access based share enum",
};

// Users below 100 have names that smb.conf would take for something else, those above 100000 none.
static bool user_name(int32_t id, char (&name)[user_name_size])
{
    static const char* const odd[] = {"@a", "a b", "a,b", "%U", "a\nb", "\xff", "", "+x"};
    if (id > 100000)
        return false;
    if (id < 100)
        snprintf(name, sizeof name, "%s", odd[id % 8]);
    else
        snprintf(name, sizeof name, "u%d", static_cast<int>(id / 2)); // two ids for each name
    return true;
}

static const RightsSettings settings = {.administrator = "root",
                                        .guest = "nobody",
                                        .forceuser = "",
                                        .own = nullptr,
                                        .user_name = user_name,
                                        .user_fits = include_user_fits};

// Every line ends where it should, and holds harmless text; a tab begins it or none is there.
static void check_text(std::string_view text)
{
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        check(end != std::string_view::npos, "the last line is ended");
        std::string_view line = text.substr(at, end - at);
        check(line.empty() || line.back() != '\\', "no line goes on in the next");
        if (!line.empty() && line[0] == '\t')
            line.remove_prefix(1);
        check(oracle_is_harmless(line), "the line is harmless");
        at = end + 1;
    }
    check(!text.empty(), "there is a text");
}

namespace {

// Views into the text.
struct Section {
    std::string_view name;
    std::vector<std::pair<std::string_view, std::string_view>> entries;
};

} // namespace

// Reads the text as smb.conf(5) says: comments, sections, parameters.
static std::vector<Section> read_sections(std::string_view text)
{
    std::vector<Section> found;
    for (size_t at = 0; at < text.size();) {
        const size_t end = text.find('\n', at);
        const std::string_view line = text.substr(at, end - at);
        at = end + 1;
        if (line.starts_with('#'))
            continue;
        if (line.starts_with('[')) {
            check(line.find(']') == line.size() - 1, "a section's name ends with its line");
            found.push_back({.name = line.substr(1, line.size() - 2), .entries = {}});
            continue;
        }
        check(line.starts_with('\t') && !found.empty(), "an entry belongs to a section");
        const size_t equals = line.find(" =");
        check(equals != std::string_view::npos, "an entry has a value");
        const bool empty = equals + 2 == line.size();
        found.back().entries.emplace_back(line.substr(1, equals - 1),
                                          empty ? "" : line.substr(equals + 3));
    }
    return found;
}

static std::string_view value_of(const Section& section, std::string_view parameter)
{
    for (const auto& [key, value] : section.entries) {
        if (key == parameter)
            return value;
    }
    return "(none)";
}

static void check_parameters(const Section& section)
{
    bool seen[std::size(known_parameters)] = {};
    for (const auto& [key, value] : section.entries) {
        const auto* known =
            std::find(std::begin(known_parameters), std::end(known_parameters), key);
        check(known != std::end(known_parameters), "a parameter is known");
        bool& again = seen[known - std::begin(known_parameters)];
        check(!again, "a parameter is written once");
        again = true;
    }
}

static void check_section(const Section& section, const ExportedShare& share)
{
    check_same(section.name, share.name, "the name");
    check_same(value_of(section, "path"), share.share->path, "the path");
    check_parameters(section);
    check(!value_of(section, "valid users").empty(), "nobody is not everybody");
    check(value_of(section, "admin users").empty(), "nobody is root");
    if (share.share->readonly)
        check_same(value_of(section, "read only"), "yes", "a read-only share");
    if (share.share->guesthide || !share.share->guestaccess)
        check_same(value_of(section, "guest ok"), "no", "a share without guests");
    const bool selective = share_lists_users(share.share, SHARE_FULL) ||
                           share_lists_users(share.share, SHARE_READ_ONLY);
    check(selective == (value_of(section, "valid users") != "(none)"), "who may enter");
}

static void check_names(const std::vector<ExportedShare>& shares)
{
    for (size_t i = 0; i < shares.size(); i++) {
        check(strlen(shares[i].name) < share_name_size, "a name is short enough");
        for (size_t j = 0; j < i; j++)
            check(!share_names_meet(shares[i].name, shares[j].name), "names differ");
    }
}

static size_t count_closed(const char* old_text, const char* new_text)
{
    SectionListGuard names;
    check_equal(shares_to_close(old_text, new_text, samba_server.harmless_lines, names.out()), 0,
                "the texts are compared");
    return names->count;
}

// Whether the list holds a user whose name smb.conf would take for something else.
static bool holds_odd_user(const char* list)
{
    char entry[share_user_size];
    while (share_next_user(&list, entry)) {
        int32_t id = 0;
        if (str_to_long(entry, &id, 10) == 0 && id >= 0 && id < 100)
            return true;
    }
    return false;
}

// Whether somebody who may not enter a share that is open to all others cannot be named.
static bool is_withheld(const Share* share)
{
    return !share_lists_users(share, SHARE_FULL) && !share_lists_users(share, SHARE_READ_ONLY) &&
           (holds_odd_user(share->users[SHARE_BLOCK]) || holds_odd_user(share->users[SHARE_HIDE]));
}

// The shares whose path the file can carry.
static std::vector<ExportedShare> select(const ShareTable* table)
{
    std::vector<ExportedShare> shares;
    for (size_t i = 0; i < table->count; i++) {
        if (include_path_fault(table->shares[i].path) == nullptr)
            shares.push_back({.share = &table->shares[i], .name = nullptr});
    }
    return shares;
}

void fuzz(Input& input)
{
    const std::string file = input.rest();
    IniDocGuard doc;
    check_equal(ini_doc_parse(file.data(), file.size(), doc.out()), 0, "the file is read");
    Notes notes = {};
    const NotesGuard held(&notes);
    ShareTableGuard table;
    check_equal(shares_read(doc.get(), &notes, table.out()), 0, "the shares are read");
    std::vector<ExportedShare> shares = select(table.get());
    std::vector<ShareName> names(shares.size());
    for (size_t i = 0; i < shares.size(); i++)
        names[i].original = shares[i].share->name;
    share_names_map(&samba_server.names, names.data(), names.size(), &notes);
    for (size_t i = 0; i < shares.size(); i++)
        shares[i].name = names[i].exported;
    check_names(shares);

    MemGuard<char> text;
    check_equal(
        share_list_make(&samba_server, shares.data(), shares.size(), &settings, &notes, text.out()),
        0, "the text is made");
    check_text(text.get());
    const std::vector<Section> sections = read_sections(text.get());
    shares.erase(
        std::remove_if(shares.begin(), shares.end(),
                       [](const ExportedShare& share) { return is_withheld(share.share); }),
        shares.end());
    check_equal(static_cast<int64_t>(sections.size()), static_cast<int64_t>(shares.size()) + 1,
                "a section for each share that is not withheld, and one at the end");
    check_same(sections.back().name, "global", "the last section");
    for (size_t i = 0; i < shares.size(); i++)
        check_section(sections[i], shares[i]);
    check_equal(static_cast<int64_t>(count_closed(text.get(), text.get())), 0, "nothing changes");
    check_equal(static_cast<int64_t>(count_closed(text.get(), "[global]\n")),
                static_cast<int64_t>(shares.size()), "everything goes");
    (void)count_closed(file.c_str(), text.get()); // an old file may be anything
}
