// What the information tool tells of arbitrary files, against the same told from an independent
// reader's answers.
//
// Input: an identifier on a line, the device file, a line "%%", the share file.
#include "tools/info_tool.h"

#include "support/check.h"
#include "support/ini_oracle.h"
#include "support/input.h"

#include <stdio.h>
#include <stdlib.h>
#include <sys/statvfs.h>

#include <algorithm>

static constexpr char device_file[] = "/tmp/fuzz.dev.conf";
static constexpr char share_file[] = "/tmp/fuzz.dir.conf";
static constexpr size_t most_identifiers = 4; // asked for of those that the device file lists

// ---- what is printed ----

// Standard output, caught while it lives.
class Output {
  public:
    Output() : kept_(stdout) { stdout = open_memstream(&text_, &size_); }
    ~Output()
    {
        if (stdout != kept_)
            (void)take();
    }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    std::string take()
    {
        fclose(stdout);
        stdout = kept_;
        const std::string text(text_, size_);
        free(text_);
        return text;
    }

  private:
    FILE* kept_;
    char* text_ = nullptr;
    size_t size_ = 0;
};

// ---- the second opinion ----

static std::string value_of(const char* file, const std::string& section, const char* key)
{
    return ini_oracle_get_string(file, section.c_str(), key, -1).value;
}

static std::string line(const char* label, const std::string& value, const char* otherwise)
{
    return std::string(label) + (value.empty() ? otherwise : value) + "\n";
}

static std::string device_text(const std::string& identifier, bool* filesystem_told)
{
    const auto value = [&identifier](const char* key) {
        return value_of(device_file, identifier, key);
    };
    std::string text;
    if (!value("path").empty())
        text += "DevType=InternalDisk\n";
    text += line("Share Name=", value("sharename"), "");
    text += line("Comment=", value("comment"), "");
    *filesystem_told = !value("filesystem").empty();
    if (*filesystem_told)
        text += line("File System=", value("filesystem"), "");
    text += line("Sync=", value("sync"), "Disable");
    text += line("ReadOnly=", value("readonly"), "Disable");
    text += line("Guest Access=", value("guestaccess"), "Disable");
    text += line("Guest Hide=", value("guesthide"), "Disable");
    text += line("Administrator=", value("administrator"), "FullAccess");
    text += line("Full Access Users=", value("fullaccessusers"), "");
    text += line("Read Only Users=", value("readonlyusers"), "");
    text += line("Block Users=", value("blockusers"), "");
    return text + line("Hide Users=", value("hideusers"), "");
}

static std::string share_text(const std::string& section, bool filesystem_told)
{
    const auto value = [&section](const char* key) { return value_of(share_file, section, key); };
    std::string text = line("Status=", value("status"), "Mount");
    text += "Auto Mount Share Name=" + section + "\n";
    text += line("Auto Mount Comment=", value("comment"), "");
    if (!filesystem_told)
        text += line("File System=", value("filesystem"), "DefFS");
    text += line("Manufactuare=", value("manufactuare"), value("vid").c_str());
    text += line("Product=", value("product"), value("pid").c_str());
    text += line("Volume Label=", value("volumelabel"), "");
    const std::string path = value("path");
    if (path.empty())
        return text;
    text += "Path=" + path + "\n";
    struct statvfs status;
    if (statvfs(path.c_str(), &status) == 0)
        text += "Max Size=#\nFree Size=#\n";
    return text;
}

static std::string told(const std::string& identifier)
{
    bool filesystem_told = false;
    const std::string text = device_text(identifier, &filesystem_told);
    std::vector<std::string> sections;
    ini_oracle_section_list(share_file, &sections);
    for (const std::string& section : sections) {
        if (!identifier.empty() && value_of(share_file, section, "identifier") == identifier)
            return text + share_text(section, filesystem_told);
    }
    return text + "Status=Unplug\n";
}

// The sizes change under the test's hands; that they are numbers does not.
static std::string without_sizes(const std::string& text)
{
    std::string result;
    size_t begin = 0;
    while (begin < text.size()) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        const std::string one = text.substr(begin, end - begin);
        const size_t equals = one.find('=');
        const bool size = one.rfind("Max Size=", 0) == 0 || one.rfind("Free Size=", 0) == 0;
        if (size && equals + 1 < one.size() &&
            one.find_first_not_of("0123456789", equals + 1) == std::string::npos)
            result += one.substr(0, equals) + "=#\n";
        else
            result += one + "\n";
        begin = end + 1;
    }
    return result;
}

// ---- checks ----

static void check_described(const std::string& identifier, const std::vector<std::string>& known)
{
    const bool listed = std::find(known.begin(), known.end(), identifier) != known.end();
    Output output;
    const int result = hotplug_info_devinfo(device_file, share_file, identifier.c_str());
    const std::string text = output.take();
    check_equal(result, listed ? 0 : -1, "whether the device is known");
    check_same(without_sizes(text), without_sizes(listed ? told(identifier) : ""),
               "what is told of the device");
}

static void check_listed(const std::vector<std::string>& known)
{
    std::string wanted;
    for (const std::string& identifier : known)
        wanted += identifier + "\n";
    Output output;
    const int result = hotplug_info_list(device_file);
    const std::string text = output.take();
    check_equal(result, 0, "a list's result");
    check_same(text, wanted, "the list");
}

void fuzz(Input& input)
{
    const std::string identifier = input.line().c_str();
    put_file(device_file, input.field());
    put_file(share_file, input.field());
    std::vector<std::string> known;
    check_equal(ini_oracle_section_list(device_file, &known), 0, "the second reader's list");
    check_listed(known);
    check_described(identifier, known);
    for (size_t i = 0; i < known.size() && i < most_identifiers; i++)
        check_described(known[i], known);
}
