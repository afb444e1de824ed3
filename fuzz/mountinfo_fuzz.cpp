// The kernel's table of mounts, in which media and their owners choose names, and its table of swap
// areas, against an independent reading.
//
// Input: on a line each a path, a directory and a line of the table of swap areas; then the table
// of mounts.
#include "common/mountinfo.h"
#include "support/check.h"
#include "support/input.h"
#include "support/oracles.h"

#include <string.h>

#include <algorithm>
#include <memory>
#include <optional>

namespace {

struct Mount {
    int64_t id;
    int64_t parent;
    int64_t major;
    int64_t minor;
    std::string root;
    std::string directory;
    std::string type;
    std::string source;
    std::string options;
    bool readonly;
};

} // namespace

// Texts that the product takes end at a zero byte.
static std::string ended(const std::string& text)
{
    return text.c_str();
}

static std::vector<std::string> split(const std::string& text, char at)
{
    std::vector<std::string> parts = {""};
    for (const char c : text) {
        if (c == at)
            parts.emplace_back();
        else
            parts.back() += c;
    }
    return parts;
}

static std::string decoded(const std::string& field)
{
    std::string text;
    for (size_t at = 0; at < field.size(); at++) {
        const std::string digits = field.substr(at + 1 < field.size() ? at + 1 : at, 3);
        const bool octal = field[at] == '\\' && digits.size() == 3 && digits[0] <= '3' &&
                           digits.find_first_not_of("01234567") == std::string::npos;
        text += octal ? static_cast<char>(std::stoi(digits, nullptr, 8)) : field[at];
        at += octal ? 3 : 0;
    }
    return ended(text);
}

static bool holds_ro(const std::string& options)
{
    const std::vector<std::string> words = split(options, ',');
    return std::find(words.begin(), words.end(), "ro") != words.end();
}

// Digits and nothing else, of 32 bits.
static std::optional<int64_t> number_of(const std::string& text)
{
    const size_t first = std::min(text.find_first_not_of('0'), text.size());
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
        text.size() - first > 10)
        return {};
    const int64_t number = first < text.size() ? std::stoll(text.substr(first)) : 0;
    return number <= UINT32_MAX ? std::optional<int64_t>(number) : std::nullopt;
}

// A line that is not in the kernel's form says nothing.
static std::optional<Mount> read_line(const std::string& line)
{
    std::vector<std::string> fields = split(line, ' ');
    if (fields.back().empty())
        fields.pop_back();
    const auto dash =
        fields.size() > 6 ? std::find(fields.begin() + 6, fields.end(), "-") : fields.end();
    if (fields.end() - dash < 3)
        return {};
    const std::string* of_filesystem = &*dash;
    const size_t colon = fields[2].find(':');
    const std::optional<int32_t> id = oracle_number(fields[0], 10);
    const std::optional<int32_t> parent = oracle_number(fields[1], 10);
    if (!id || !parent || colon == std::string::npos)
        return {};
    const std::optional<int64_t> major = number_of(fields[2].substr(0, colon));
    const std::optional<int64_t> minor = number_of(fields[2].substr(colon + 1));
    if (!major || !minor || fields[3].empty() || fields[4].empty() || of_filesystem[1].empty())
        return {};
    const bool any = fields.end() - dash > 3;
    return Mount{.id = *id,
                 .parent = *parent,
                 .major = *major,
                 .minor = *minor,
                 .root = decoded(fields[3]),
                 .directory = decoded(fields[4]),
                 .type = decoded(of_filesystem[1]),
                 .source = decoded(of_filesystem[2]),
                 .options = fields[5],
                 .readonly = holds_ro(fields[5]) || (any && holds_ro(of_filesystem[3]))};
}

static void check_mount(const MountinfoEntry& got, const Mount& wanted)
{
    check_equal(got.id, wanted.id, "the id");
    check_equal(got.parent, wanted.parent, "the parent");
    check_equal(got.major, wanted.major, "the major number");
    check_equal(got.minor, wanted.minor, "the minor number");
    check_same(got.root, wanted.root, "the root");
    check_same(got.directory, wanted.directory, "the directory");
    check_same(got.type, wanted.type, "the type");
    check_same(got.source, wanted.source, "the source");
    check_same(got.options, wanted.options, "the options");
    check_equal(got.readonly ? 1 : 0, wanted.readonly ? 1 : 0, "whether it is read-only");
}

// ---- paths ----

// The names on the way; none for a text that is no absolute path.
static std::optional<std::vector<std::string>> steps(const std::string& path)
{
    if (path.empty() || path[0] != '/')
        return {};
    std::vector<std::string> names = split(path, '/');
    names.erase(std::remove(names.begin(), names.end(), ""), names.end());
    return names;
}

// How many names further down the path lies; -1 where it does not lie there.
static int64_t depth_below(const std::string& path, const std::string& directory)
{
    const auto names = steps(path);
    const auto above = steps(directory);
    if (!names || !above || above->size() > names->size() ||
        !std::equal(above->begin(), above->end(), names->begin()))
        return -1;
    return static_cast<int64_t>(names->size() - above->size());
}

static int64_t place_of(const Mountinfo* table, const MountinfoEntry* entry)
{
    return entry != nullptr ? entry - table->entries : -1;
}

static void check_search(const Mountinfo* table, const std::vector<Mount>& mounts,
                         const std::string& path, const std::string& directory)
{
    int64_t nearest = -1;
    int64_t of_device = -1;
    int64_t fewest = INT64_MAX;
    for (size_t i = 0; i < mounts.size(); i++) {
        const int64_t depth = depth_below(path, mounts[i].directory);
        if (depth >= 0 && depth <= fewest) {
            fewest = depth;
            nearest = static_cast<int64_t>(i);
        }
        if (of_device < 0 && mounts[i].major == 8 && mounts[i].minor == 1 &&
            depth_below(mounts[i].directory, directory) > 0)
            of_device = static_cast<int64_t>(i);
    }
    check_equal(place_of(table, mountinfo_find(table, path.c_str())), nearest,
                "the mount of a path");
    check_equal(place_of(table, mountinfo_find_device(table, 8, 1, directory.c_str())), of_device,
                "the mount of a device");
    check_equal(mountinfo_is_below(path.c_str(), directory.c_str()) ? 1 : 0,
                depth_below(path, directory) > 0 ? 1 : 0, "whether a path is below a directory");
}

// ---- swap areas ----

static void check_swap(const std::string& line)
{
    const std::unique_ptr<char[]> exact(new char[line.size() + 1]); // no byte longer
    memcpy(exact.get(), line.c_str(), line.size() + 1);
    const char* got = mountinfo_swap_path(exact.get());
    check_equal(got != nullptr ? 1 : 0, !line.empty() && line[0] == '/' ? 1 : 0, "a path is there");
    if (got == nullptr)
        return;
    static const std::string mark = " (deleted)";
    std::string wanted = decoded(line.substr(0, line.find_first_of(" \t")));
    if (wanted.size() > mark.size() &&
        wanted.compare(wanted.size() - mark.size(), mark.size(), mark) == 0)
        wanted.resize(wanted.size() - mark.size());
    check_same(got, wanted, "the path of a swap area");
}

void fuzz(Input& input)
{
    const std::string path = ended(input.line());
    const std::string directory = ended(input.line());
    check_swap(ended(input.line()));
    const std::string text = input.rest();
    const std::unique_ptr<char[]> exact(new char[text.size()]); // no byte longer
    std::copy(text.begin(), text.end(), exact.get());
    MountinfoGuard table;
    check_equal(mountinfo_parse(exact.get(), text.size(), table.out()), 0, "the table is read");
    std::vector<Mount> mounts;
    for (const std::string& line : split(text, '\n')) {
        if (const std::optional<Mount> mount = read_line(ended(line)))
            mounts.push_back(*mount);
    }
    check_equal(static_cast<int64_t>(table->count), static_cast<int64_t>(mounts.size()),
                "the mounts");
    for (size_t i = 0; i < mounts.size(); i++)
        check_mount(table->entries[i], mounts[i]);
    check_search(table.get(), mounts, path, directory);
}
