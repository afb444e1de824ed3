#include "ksmbd/ksmbd_file.h"

#include "lib/guard.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace {

const std::string path = "/tmp/run/ksmbd.conf";
const std::string base = "/tmp/base.conf";
const std::string list = std::string(ksmbd_file_head) + "[A]\n\tpath = /mnt\n[global]\n";

std::string global_of(const std::string& text)
{
    MemGuard<char> made;
    EXPECT_EQ(ksmbd_global_make(text.c_str(), made.out()), 0);
    return made ? made.get() : "";
}

std::string read_back()
{
    MemGuard<char> text;
    EXPECT_EQ(ksmbd_file_read(path.c_str(), base.c_str(), text.out()), 0);
    return text ? text.get() : "";
}

int write(const std::string& text)
{
    return ksmbd_file_write(path.c_str(), base.c_str(), text.c_str());
}

} // namespace

TEST(KsmbdGlobal, OnlyItsLinesAreTakenOver)
{
    EXPECT_EQ(global_of(""), "[global]\n");
    EXPECT_EQ(global_of("lost = 1\n; words\n[Global]\n\ttcp port = 445\n; more\n[data]\npath = /\n"
                        "\t[GLOBAL] ; again\nworkgroup = HOME"),
              "[global]\n\ttcp port = 445\n; more\nworkgroup = HOME\n");
    EXPECT_EQ(global_of("[globals]\npath = /\n"), "[global]\n");
}

TEST(KsmbdGlobal, WhatGivesMoreThanAShareSaysIsLeftOut)
{
    EXPECT_EQ(
        global_of("[global]\nWrite List = anna\nwriteable = yes\nWritable = yes\nwrite ok = "
                  "yes\npublic = yes\n\tadmin users=bert\nforce user = root\n"
                  "force group = root\nwrite listed = x\nroot directory = /\nguest ok = yes\n"),
        "[global]\nguest ok = yes\n")
        << "each share says itself whether guests enter";
}

TEST(KsmbdFile, TheListStandsBehindTheGlobalParameters)
{
    write_file(base, "[global]\nworkgroup = HOME\n");
    ASSERT_EQ(write(list), 0);
    EXPECT_EQ(read_file(path), "[global]\nworkgroup = HOME\n" + list);
    EXPECT_EQ(read_back(), list);
}

TEST(KsmbdFile, WithoutTheAdministratorsFileThereAreNoParameters)
{
    ASSERT_EQ(write(list), 0);
    EXPECT_EQ(read_file(path), "[global]\n" + list);
    EXPECT_EQ(read_back(), list);
}

TEST(KsmbdFile, OtherParametersMakeItWrittenAnew)
{
    ASSERT_EQ(write(list), 0);
    write_file(base, "[global]\nworkgroup = HOME\n");
    EXPECT_EQ(read_back(), list + "\n");
    ASSERT_EQ(write(list), 0);
    EXPECT_EQ(read_back(), list);
}

TEST(KsmbdFile, SomebodyElsesFileHasNoList)
{
    ASSERT_EQ(mkdir("/tmp/run", 0755), 0);
    write_file(path, "[global]\n[music]\npath = /srv\n");
    MemGuard<char> text;
    EXPECT_EQ(ksmbd_file_read(path.c_str(), base.c_str(), text.out()), -ENOENT);
    EXPECT_FALSE(text);
}

TEST(KsmbdFile, WithoutTheParametersTheOldFileStays)
{
    ASSERT_EQ(write(list), 0);
    ASSERT_EQ(mkdir(base.c_str(), 0755), 0); // a file that cannot be read
    EXPECT_LT(write("nothing"), 0);
    EXPECT_EQ(read_file(path), "[global]\n" + list);
}

TEST(KsmbdFile, WithoutMemoryNothingChanges)
{
    write_file(base, "[global]\nworkgroup = HOME\n");
    ASSERT_EQ(write(list), 0);
    for (int failing = 1;; failing++) {
        const long before = memory_blocks();
        MemGuard<char> text;
        memory_fail(failing);
        const int written = write(list + "more");
        const bool struck = memory_failed();
        memory_fail(0);
        if (!struck) {
            EXPECT_EQ(written, 0);
            break;
        }
        EXPECT_EQ(written, -ENOMEM);
        EXPECT_EQ(memory_blocks(), before);
        EXPECT_EQ(read_back(), list);
    }
}
