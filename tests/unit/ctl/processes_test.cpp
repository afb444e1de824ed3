#include "ctl/processes.h"

#include "support/child.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

// Processes of names of the test's, by copies of a program that waits for the end of a FIFO.
class Processes : public testing::Test {
  protected:
    Processes()
    {
        fs::create_directories("/tmp/programs");
        fs::create_directories("/tmp/scripts");
        for (const char* fifo : {"/tmp/scripts/wsdd", "/tmp/bare"})
            EXPECT_EQ(mkfifo(fifo, 0600), 0);
    }

    static pid_t start(const std::string& name, const std::string& word)
    {
        const std::string path = "/tmp/programs/" + name;
        fs::copy_file("/bin/cat", path);
        const pid_t pid = fork();
        if (pid == 0) {
            (void)!chdir("/tmp");
            execl(path.c_str(), path.c_str(), word.c_str(), nullptr);
            _exit(1);
        }
        EXPECT_TRUE(wait_for([&] {
            return read_file("/proc/" + std::to_string(pid) + "/cmdline").starts_with(path);
        }));
        return pid;
    }

    // What a look finds now.
    static pid_t find(const std::string& name) { return processes_find(now().get(), name.c_str()); }
    static bool is_replaced(const std::string& name)
    {
        return processes_any_replaced(now().get(), name.c_str());
    }
    static bool is_started_with(const std::string& name, const std::string& word)
    {
        return processes_any_started_with(now().get(), name.c_str(), word.c_str());
    }
    static bool is_script(const std::string& name)
    {
        return processes_any_script(now().get(), name.c_str());
    }

  private:
    class Look {
      public:
        Look() { EXPECT_EQ(processes_read(table_.out()), 0); }
        const ProcessTable* get() const { return table_.get(); }

      private:
        ProcessTableGuard table_;
    };
    static Look now() { return {}; }
};

} // namespace

TEST_F(Processes, IsFoundByItsName)
{
    const pid_t pid = start("one", "bare");
    EXPECT_EQ(find("one"), pid);
    for (const char* name : {"on", "one2", "bare", ""})
        EXPECT_EQ(find(name), 0) << name;
}

TEST_F(Processes, OfALongNameTheKernelKnowsTheBegin)
{
    start("vyhotplug-agent-of-all", "bare");
    EXPECT_NE(find("vyhotplug-agent-of-all"), 0);
    EXPECT_NE(find("vyhotplug-agent"), 0);
    EXPECT_EQ(find("vyhotplug-agen"), 0);
}

TEST_F(Processes, IsOlderThanWhatIsInstalled)
{
    start("one", "bare");
    EXPECT_FALSE(is_replaced("one"));
    ASSERT_EQ(unlink("/tmp/programs/one"), 0);
    EXPECT_TRUE(is_replaced("one"));
    EXPECT_FALSE(is_replaced("two"));
}

TEST_F(Processes, WasStartedWithAWord)
{
    start("one", "scripts/wsdd");
    EXPECT_TRUE(is_started_with("one", "scripts/wsdd"));
    EXPECT_TRUE(is_started_with("one", "wsdd"));
    EXPECT_FALSE(is_started_with("one", "wsdd2"));
    EXPECT_FALSE(is_started_with("two", "wsdd"));
}

TEST_F(Processes, WasStartedWithAFile)
{
    struct Row {
        std::vector<std::string> words;
        std::string found; // "" for none
    };
    write_file("/tmp/programs/own", "");
    write_file("/tmp/other", "");
    const Row rows[] = {
        {{}, ""},
        {{"-d", "-f", "/tmp/other", "-l", "7"}, "/tmp/other"},
        {{"-f", "/tmp/none"}, "/tmp/none"},
        {{"-f", "/tmp/none", "-f", "/tmp/other"}, "/tmp/other"},
        {{"-f", "programs/own"}, ""}, // of what directory cannot be told for certain
        {{"-f"}, ""},
        {{"-f", ""}, ""},
        {{"-l", "/tmp/other"}, ""},
        {{"-f/tmp/other"}, "/tmp/other"},
        {{"-df", "/tmp/other"}, "/tmp/other"},
        {{"-l7", "-kf/tmp/other"}, "/tmp/other"},
        {{"-lf/tmp/other"}, ""},
        {{"-l", "-f", "/tmp/other"}, ""}, // is the level
        {{"--file", "/tmp/other"}, "/tmp/other"},
        {{"--file=/tmp/other"}, "/tmp/other"},
        {{"--fi=/tmp/other"}, "/tmp/other"},
        {{"--level", "-f", "/tmp/other"}, ""},
        {{"--level=7", "--debug", "--f", "/tmp/other"}, "/tmp/other"},
        {{"--files", "/tmp/other"}, ""},
        {{"--", "/tmp/other"}, ""},
    };
    for (const Row& row : rows) {
        const pid_t pid = fork();
        if (pid == 0) {
            std::vector<const char*> arguments = {"sh", "-c", "read line </tmp/bare", "sh"};
            for (const std::string& word : row.words)
                arguments.push_back(word.c_str());
            arguments.push_back(nullptr);
            (void)!chdir("/tmp");
            execv("/bin/sh", const_cast<char* const*>(arguments.data()));
            _exit(1);
        }
        const std::string process = "/proc/" + std::to_string(pid);
        ASSERT_TRUE(wait_for(
            [&] { return read_file(process + "/cmdline").find("read") != std::string::npos; }));
        char path[PATH_MAX] = "";
        EXPECT_EQ(process_file_option(pid, path), !row.found.empty()) << path;
        if (!row.found.empty()) {
            EXPECT_EQ(path, row.found);
        }
        EXPECT_EQ(kill(pid, SIGKILL), 0);
        EXPECT_EQ(waitpid(pid, nullptr, 0), pid);
    }
}

TEST_F(Processes, AScriptIsTheInterpretersFirstWord)
{
    EXPECT_FALSE(is_script("wsdd"));
    start("python3", "/tmp/scripts/wsdd");
    EXPECT_TRUE(is_script("wsdd"));
    for (const char* name : {"python3", "wsd", "wsdd2", "scripts/wsdd", ""})
        EXPECT_FALSE(is_script(name)) << name;
}

TEST_F(Processes, AScriptMayStandThereWithoutAFolder)
{
    start("python3", "bare");
    EXPECT_TRUE(is_script("bare"));
}

TEST_F(Processes, AnotherInterpreterIsNotLookedAt)
{
    start("python", "bare");
    EXPECT_FALSE(is_script("bare"));
}

TEST_F(Processes, WithoutProcThereIsNone)
{
    start("one", "bare");
    ASSERT_EQ(mount("x", "/proc", "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(find("one"), 0);
    EXPECT_EQ(umount("/proc"), 0);
}
