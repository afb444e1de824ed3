// The mount table: whatever stands in it, a line that is appended and removed again leaves the
// others as readers see them.
//
// Input: what the node and the directory are called, each on a line; the rest is the table.
#include "mount/mtab.h"

#include "fake/fake_world.h"
#include "support/check.h"
#include "support/input.h"

#include <mntent.h>
#include <stdio.h>

static constexpr char table_file[] = "/etc/mtab";
static constexpr size_t kept_bytes = 512; // of a line, when the table is rewritten
static constexpr size_t room = 64 * 1024; // for lines that a rewrite has made longer
static char texts[room];

namespace {

struct Line {
    std::string text; // its fields, one behind the other
    bool whole;       // has a field for everything; others come out of a rewrite as something else
    bool ours;
};

} // namespace

static Line make_line(const mntent& entry, const std::string& node, const std::string& directory)
{
    Line line;
    for (const char* field : {entry.mnt_fsname, entry.mnt_dir, entry.mnt_type, entry.mnt_opts})
        line.text += std::string(field) + "|";
    line.text += std::to_string(entry.mnt_freq) + "|" + std::to_string(entry.mnt_passno);
    line.whole = *entry.mnt_fsname != '\0' && *entry.mnt_opts != '\0';
    line.ours = entry.mnt_fsname == node && entry.mnt_dir == directory;
    return line;
}

// The table as a reader with that much room for a line sees it.
static std::vector<Line> read_table(size_t line_bytes, const std::string& node,
                                    const std::string& directory)
{
    std::vector<Line> lines;
    FILE* table = setmntent(table_file, "r");
    check(table != nullptr, "there is a table");
    mntent entry = {};
    while (getmntent_r(table, &entry, texts, static_cast<int>(line_bytes)) != nullptr)
        lines.push_back(make_line(entry, node, directory));
    endmntent(table);
    return lines;
}

static std::vector<std::string> whole_lines(const std::vector<Line>& lines)
{
    std::vector<std::string> found;
    for (const Line& line : lines)
        found.push_back(line.whole ? line.text : "(not whole)");
    return found;
}

static void check_append(const std::string& node, const std::string& directory)
{
    std::vector<std::string> wanted = whole_lines(read_table(room, node, directory));
    mtab_append(node.c_str(), directory.c_str(), "vfat", "rw");
    wanted.push_back(node + "|" + directory + "|vfat|rw|0|0");
    check_list(whole_lines(read_table(room, node, directory)), wanted, "the table with the line");
}

static void check_remove(const std::string& node, const std::string& directory)
{
    const std::vector<Line> before = read_table(kept_bytes, node, directory);
    mtab_remove(node.c_str(), directory.c_str());
    check(!is_there("/tmp/mntent.tmp"), "the temporary file has become the table");
    const std::vector<Line> after = read_table(room, node, directory);
    size_t at = 0;
    for (const Line& line : before) {
        if (line.ours)
            continue;
        check(at < after.size(), "no other line is lost");
        if (line.whole)
            check_same(after[at].text, line.text, "a foreign line");
        at++;
    }
    check_equal(static_cast<int64_t>(after.size()), static_cast<int64_t>(at),
                "no line is left of ours, and none has come");
}

void fuzz(Input& input)
{
    const std::string node = "/dev/" + std::string(input.line().c_str());
    const std::string directory = "/mnt/" + std::string(input.line().c_str());
    const std::string table = input.rest();
    put_file(table_file, table);
    // Behind a last line that does not end, or a zero byte, the C library's readers and writers run
    // lines together.
    const bool ends = table.empty() || table.back() == '\n';
    if (ends && table.find('\0') == std::string::npos)
        check_append(node, directory);
    check_remove(node, directory);
    fake_world_reset();
}
