// A file server of another kind, as one table: machines instead of users, an exports(5) instead of
// sections. Nothing of the common part knows of it.
#include "common/include_sections.h"
#include "share/bridge.h"
#include "share/include_file.h"
#include "share/path_fault.h"
#include "share/share_lines.h"

#include "fake/fake_log.h"
#include "fake/fake_world.h"
#include "lib/process.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <string>
#include <vector>

// ---- the server ----

static constexpr char head[] = "# Exported\n";
static constexpr char exports_line[] = "\"%.*s\" *(%s) # %.*s\n";

static bool holds_quote(const char* path)
{
    return strchr(path, '"') != nullptr;
}

static const char* path_fault(const char* path)
{
    static constexpr PathFault rows[] = {{holds_quote, "a quotation mark"}};
    return path_fault_find(path, rows, 1);
}

static bool user_fits(const char* name)
{
    return name[0] != '\0';
}

// It knows machines alone, and what one user of them may, all may.
static int write_share(TextBuffer* text, const ExportedShare* exported, const Rights* rights,
                       const RightsSettings* settings, Notes* notes)
{
    const Member* administrator = rights_find(rights, settings->administrator);
    const bool same = rights->guests && !rights->selective && rights->count == 2 &&
                      administrator->access == SHARE_FULL;
    if (!same) {
        notes_add(notes, 4, "share %s is withheld: it is not everybody's", exported->share->name);
        return 0;
    }
    text_buffer_add(text, "[%s]\n\tpath = %s\n", exported->name, exported->share->path);
    share_line_switch(text, "read only", rights->readonly);
    return 0;
}

// Sections to lines, and back.
static int write_exports(const BridgeConfig* config, const char* text)
{
    TextBuffer made = {};
    const TextBufferGuard held(&made);
    IncludeSection share;
    text_buffer_add(&made, "%s", head);
    while (include_section_next(&text, &share)) {
        Span path = {};
        Span readonly = {};
        (void)include_section_value(&share, "path", &path);
        (void)include_section_value(&share, "read only", &readonly);
        text_buffer_add(&made, exports_line, static_cast<int>(path.size), path.begin,
                        span_begins(readonly, "yes") ? "ro" : "rw",
                        static_cast<int>(share.name.size), share.name.begin);
    }
    return made.failed ? -ENOMEM : include_file_write(config->includepath, made.text);
}

static int read_exports(const BridgeConfig* config, char** text)
{
    MemGuard<char> standing;
    const int result = include_file_read(config->includepath, standing.out());
    if (result != 0)
        return result;
    TextBuffer made = {};
    const TextBufferGuard held(&made);
    text_buffer_add(&made, "%s", head);
    char path[256];
    char mode[3];
    char name[share_name_size];
    for (const char* at = strchr(standing.get(), '\n') + 1; *at != '\0';
         at = strchr(at, '\n') + 1) {
        if (sscanf(at, "\"%255[^\"]\" *(%2[row]) # %80[^\n]", path, mode, name) == 3) {
            text_buffer_add(&made, "[%s]\n\tpath = %s\n", name, path);
            share_line_switch(&made, "read only", strcmp(mode, "ro") == 0);
        }
    }
    text_buffer_add(&made, "%s", include_foot);
    *text = made.text;
    made.text = nullptr;
    return 0;
}

static pid_t tell(const BridgeConfig* config, const char* option)
{
    char* const arguments[] = {config->control, const_cast<char*>(option), nullptr};
    return vy_fork_exec(config->control, arguments, nullptr, nullptr, nullptr);
}

static pid_t reload(const BridgeConfig* config)
{
    return tell(config, "-r");
}

static pid_t close_all(const BridgeConfig* config, const char* share)
{
    (void)share;
    return tell(config, "-f");
}

static constexpr const char* harmless_lines[] = {nullptr};

static const ShareServer exports_server = {
    .program = "vynas-exports",
    .help = "",
    .keys = {.includepath = {"exportspath", "/tmp/run/exports", bridge_config_is_path},
             .control = {"exportfs", "exportfs", bridge_config_is_given},
             .user_fits = user_fits,
             .own = {}},
    .names = {.forbidden = "#[]", .size = share_name_size, .accepts = nullptr},
    .harmless_lines = harmless_lines,
    .path_fault = path_fault,
    .head = head,
    .write_share = write_share,
    .read = read_exports,
    .write = write_exports,
    .reload = reload,
    .close = close_all,
    .control_name = "exportfs",
    .settle_ms = 0,
    .closes_all = true};

// ---- what the common part does with it ----

namespace {

using Runs = std::vector<std::vector<std::string>>;

const std::string share_file = "/tmp/vynas.dir.conf";
const std::string place = "/tmp/hotplug";
const std::string everybodys = "Guest Access=Enable\n";
const std::vector<std::string> told = {"exportfs", "-r"};
const std::vector<std::string> closed = {"exportfs", "-f"};

class AnotherServerTest : public testing::Test {
  protected:
    void SetUp() override
    {
        fake_world().programs["exportfs"].assign(100, FakeRun{});
        ASSERT_EQ(mkdir(place.c_str(), 0755), 0);
        for (const char* name : {"sda1", "sdb1"}) {
            const std::string directory = place + "/" + name;
            ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
            ASSERT_EQ(mount("disk", directory.c_str(), "tmpfs", 0, nullptr), 0);
        }
        config.reset(bridge_config_load("/tmp/none", &exports_server.keys));
        bridge_init(&bridge, &exports_server, config.get(), share_file.c_str(), place.c_str(),
                    nullptr);
    }
    void TearDown() override
    {
        bridge_clear(&bridge);
        fake_world_reset();
    }

    static std::string share(const std::string& name, const std::string& settings)
    {
        return "[" + name + "]\nPath=" + place + "/" + name + "\n" + settings;
    }

    // Refreshes after a change of the share file. Returns the programs that were run.
    Runs refresh(const std::string& shares)
    {
        write_file(share_file, shares);
        fake_world().spawned.clear();
        fake_log_clear();
        EXPECT_EQ(bridge_refresh(&bridge), 0);
        bridge_finish(&bridge);
        return fake_world().spawned;
    }

    static std::string exports() { return read_file("/tmp/run/exports"); }

    static bool was_said(const std::string& text)
    {
        for (const FakeLogLine& line : fake_log_lines()) {
            if (line.text.find(text) != std::string::npos)
                return true;
        }
        return false;
    }

    BridgeConfigGuard config;
    Bridge bridge = {};
};

} // namespace

TEST_F(AnotherServerTest, SharesComeStayAndGo)
{
    EXPECT_EQ(refresh(share("sda1", everybodys) + share("sdb1", everybodys + "Read Only=Enable\n")),
              Runs{told});
    const std::string both = "# Exported\n\"/tmp/hotplug/sda1\" *(rw) # sda1\n"
                             "\"/tmp/hotplug/sdb1\" *(ro) # sdb1\n";
    EXPECT_EQ(exports(), both);
    EXPECT_EQ(refresh(share("sda1", everybodys) + share("sdb1", everybodys + "Read Only=Enable\n")),
              Runs{})
        << "what stands is understood";
    EXPECT_EQ(refresh(share("sdb1", everybodys + "Read Only=Enable\n")), (Runs{told, closed}));
    EXPECT_TRUE(was_said("close share sda1"));
    EXPECT_EQ(exports(), "# Exported\n\"/tmp/hotplug/sdb1\" *(ro) # sdb1\n");
}

TEST_F(AnotherServerTest, WhatIsPulledGoesWithItsMount)
{
    (void)refresh(share("sda1", everybodys) + share("sdb1", everybodys));
    ASSERT_EQ(umount((place + "/sda1").c_str()), 0);
    EXPECT_EQ(bridge_mounts_changed(&bridge), 0);
    bridge_finish(&bridge);
    EXPECT_EQ(exports(), "# Exported\n\"/tmp/hotplug/sdb1\" *(rw) # sdb1\n");
}

TEST_F(AnotherServerTest, WhatItCannotDoIsClosedAndSaid)
{
    for (const char* settings :
         {"", "Guest Access=Enable\nGuest Hide=Enable\n", "Guest Access=Enable\nBlock Users=0,\n",
          "Guest Access=Enable\nFull Access Users=0,\n",
          "Guest Access=Enable\nAdministrator=ReadOnly\n"}) {
        (void)refresh(share("sda1", everybodys));
        (void)refresh(share("sda1", settings));
        EXPECT_EQ(exports(), head) << settings;
        EXPECT_TRUE(was_said("share sda1 is withheld: it is not everybody's")) << settings;
        EXPECT_TRUE(was_said("close share sda1")) << settings;
    }
}

TEST_F(AnotherServerTest, ItsNamesAndPathsAreItsOwn)
{
    (void)refresh("[a#1]\nPath=" + place + "/sda1\n" + everybodys + "[b]\nPath=/tmp/\"x\n" +
                  everybodys);
    EXPECT_EQ(exports(), "# Exported\n\"/tmp/hotplug/sda1\" *(rw) # a_1\n");
    EXPECT_TRUE(was_said("share b is left out: its path holds a quotation mark"));
}
