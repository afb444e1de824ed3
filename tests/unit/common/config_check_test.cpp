#include "common/config_check.h"

#include "config/config_file.h"
#include "support/files.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

using Texts = std::vector<std::string>;

static void note(void* context, const Finding& finding)
{
    char text[finding_text_size];
    finding_format(finding, text);
    EXPECT_STREQ(finding.section, "");
    static_cast<Texts*>(context)->push_back(std::to_string(finding.line) + ": " + text);
}

static Texts check(const std::string& text)
{
    Texts found;
    const int count = config_check(text.data(), text.size(), note, &found);
    EXPECT_EQ(count, static_cast<int>(found.size()));
    return found;
}

TEST(ConfigCheck, FindsNothingWhereNothingIsWrong)
{
    EXPECT_EQ(check(""), Texts{});
    EXPECT_EQ(
        check("An explanation without the sign\n"
              "# mountpath = x\n;defualtgid=7\n"
              "smbtype = Samba\nDS / NasWork = 0\nsmbconfigpath = /a\ndeviceconfigpath=/b\n"
              "mount path = /c\ndevicepath = /d\ndefaultuid = 0\ndefaultgid = 2147483647\n"
              "defaultfilepermission = 0\ndefaultdirectorypermission = 0777\n"
              "vfatoptions = \nntfsoptions = anything, at = all,nosuid\nextfsoptions=acl,sync\n"
              "mountfs = FAT,vfat,ntfs,ext,ext2,ext3,ext4\nfatvolumelabel = DISABLE\n"
              "otherfs = exfat, ntfs3 ,f2fs,btrfs,xfs,hfsplus,udf,iso9660\n"
              "exfatoptions=a\nntfs3options=a\nf2fsoptions=a\nbtrfsoptions=a\nxfsoptions=a\n"
              "hfsplusoptions=a\nudfoptions=a\niso9660options=a\nlabels = All\n"
              "strict = enable\nadopt = 1\n"
              "mountflags = nosuid, nodev,noexec,noatime,nodiratime,sync,dirsync,nosymfollow\n"),
        Texts{});
    EXPECT_EQ(check("smbtype = vy nas mira\nmountfs=\notherfs=\nmountflags=\n"), Texts{});
}

// A file with one wrong line, and what is told of it.
TEST(ConfigCheck, TellsEachMistakeWithTheNearestRightWord)
{
    static constexpr struct {
        const char* line;
        const char* told;
    } rows[] = {
        {"defualtgid = 100", "defualtgid is no key, write defaultgid; it is passed over"},
        {"mountptah = /x", "mountptah is no key, write mountpath; it is passed over"},
        {"exfatoption = x", "exfatoption is no key, write exfatoptions; it is passed over"},
        {"Colour of the Box = x", "ColouroftheBox is no key; it is passed over"},
        {" = x", "(nothing) is no key; it is passed over"},
        {"mountfs = fat,ntsf", "mountfs: ntsf is no word for it, write ntfs; it is passed over"},
        {"mountfs = fat, ntfs", "mountfs:  ntfs is no word for it, write ntfs; it is passed over"},
        {"mountfs = fat,=,zzz", "mountfs: = is no word for it, accepted: fat, vfat, ext4, ext, "
                                "ext3, ext2, ntfs; it is passed over"},
        {"mountfs = exfat", "mountfs: exfat is no word for it, write it into otherfs; it is passed "
                            "over"},
        {"otherfs = xfat", "otherfs: xfat is no word for it, write exfat; it is passed over"},
        {"otherfs = udf,ntfs",
         "otherfs: ntfs is no word for it, write it into mountfs; it is passed over"},
        {"mountflags = nosuid,nodve",
         "mountflags: nodve is no word for it, write nodev; it is passed over"},
        {"mountflags = ro",
         "mountflags: ro is no word for it, accepted: nosuid, nodev, noexec, noatime, nodiratime, "
         "sync, dirsync, nosymfollow; it is passed over"},
        {"vfatoptions = utf8,nosuid", "vfatoptions: nosuid is no word for it, write it into "
                                      "mountflags; no mount at all is taken"},
        {"xfsoptions = noatime", "xfsoptions: noatime is no word for it, write it into mountflags; "
                                 "no mount at all is taken"},
        {"labels = al", "labels: al is no word for it, write all; it is passed over"},
        {"smbtype = sambo",
         "smbtype: sambo is no word for it, write samba; the product's own server is taken"},
        {"strict = enabel", "strict: enabel is no word for it, write enable; enable is taken"},
        {"adopt = yes", "adopt: yes is no word for it, accepted: enable, disable; enable is taken"},
        {"ds/naswork = dissable",
         "ds/naswork: dissable is no word for it, write disable; enable is taken"},
        {"fatvolumelabel =",
         "fatvolumelabel: (nothing) is no word for it, accepted: enable, disable; enable is taken"},
        {"defaultfilepermission = rw-rw-r--",
         "defaultfilepermission: rw-rw-r-- is no number, write 664; 664 is taken"},
        {"defaultdirectorypermission = drwxr-x---",
         "defaultdirectorypermission: drwxr-x--- is no number, write 750; 775 is taken"},
        {"defaultfilepermission = 668", "defaultfilepermission: 668 is no number, accepted: 0 to "
                                        "777, octal; 664 is taken"},
        {"defaultfilepermission = 1754", "defaultfilepermission: 1754 is out of range, accepted: "
                                         "0 to 777, octal; 754 is taken"},
        {"defaultgid = users",
         "defaultgid: users is no number, accepted: 0 to 2147483647; 0 is taken"},
        {"defaultuid = 2147483648", "defaultuid: 2147483648 is out of range, accepted: 0 to "
                                    "2147483647; 0 is taken"},
        {"defaultuid = -2",
         "defaultuid: -2 is out of range, accepted: 0 to 2147483647; 4294967294 is taken"},
        {"mountpath = media",
         "mountpath: media does not begin with a slash; /tmp/hotplug.dev.conf is taken"},
        {"smbconfigpath =",
         "smbconfigpath: (nothing) does not begin with a slash; /tmp/vynas.dir.conf is taken"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(check(std::string("x\n") + row.line + "\n"),
                  Texts{std::string("2: ") + row.told});
}

TEST(ConfigCheck, OfAKeyThatIsRepeatedTheLastLineIsLookedAt)
{
    EXPECT_EQ(
        check("mountpath=x\nmountpath=/y\nMOUNT PATH=/z\n"),
        (Texts{"1: mountpath stands again below, and the last line counts; it is passed over",
               "2: mountpath stands again below, and the last line counts; it is passed over"}));
    EXPECT_EQ(check("defaultgid=1\ndefaultgid=x\n").size(), 2U);
}

TEST(ConfigCheck, KeysBehindAHeaderAreNotRead)
{
    EXPECT_EQ(check("mountpath=/x\n[share]\nmountpath=/y\n"),
              Texts{"3: mountpath stands behind a line in brackets, where no key is read; it is "
                    "passed over"});
}

TEST(ConfigCheck, WhatItShowsIsHarmless)
{
    const std::string wild = "a\x1b[2J\xff" + std::string(400, 'x');
    for (const std::string& text : {wild + "=1", "labels=" + wild, "otherfs=" + wild}) {
        const Texts found = check(text);
        ASSERT_EQ(found.size(), 1U);
        EXPECT_EQ(found[0].find('\x1b'), std::string::npos);
        EXPECT_LT(found[0].size(), 300U);
    }
}

// What is told to be taken is what the loader takes.
TEST(ConfigCheck, AgreesWithTheLoader)
{
    write_file("/tmp/check.conf", "smbtype=sambo\nstrict=x\nadopt=x\nds/naswork=x\n"
                                  "fatvolumelabel=x\ndefaultuid=x\ndefaultgid=-2\nmountpath=x\n"
                                  "defaultfilepermission=x\ndefaultdirectorypermission=1754\n"
                                  "mountfs= fat\notherfs=fat\nlabels=x\n");
    const ConfHotplugGuard config(load_config_hotplug("/tmp/check.conf"));
    EXPECT_EQ(config->smbtype, SMB_TYPE_OWN);
    EXPECT_EQ(config->strict, 1);
    EXPECT_EQ(config->adopt, 1);
    EXPECT_EQ(config->naswork, 1);
    EXPECT_EQ(config->fatvolumelabel, 1);
    EXPECT_EQ(config->defaultuid, 0U);
    EXPECT_EQ(config->defaultgid, 4294967294U);
    EXPECT_STREQ(config->mountpath, "/tmp/hotplug.dev.conf");
    EXPECT_EQ(config->fileumask, 0113U);
    EXPECT_EQ(config->dirumask, 0023U);
    EXPECT_EQ(config->mountvfat, 1U) << "a blank at the value's beginning belongs to nothing";
    EXPECT_EQ(config->mountntfs, 0U);
    EXPECT_EQ(config->otherfs[0], 0);
    EXPECT_EQ(config->labels, 0);
    EXPECT_EQ(check(read_file("/tmp/check.conf")).size(), 12U);
}

// ---- nearest words ----

TEST(FindingNearest, IsTheOneWithTheFewestSteps)
{
    static const char* const words[] = {"defaultuid", "defaultgid", "fat", "ext"};
    const auto near = [](const char* word) {
        const char* found = finding_nearest(word, words, 4);
        return std::string(found != nullptr ? found : "(none)");
    };
    EXPECT_EQ(near("defaultgid"), "defaultgid");
    EXPECT_EQ(near("DEFUALTGID"), "defaultgid");
    EXPECT_EQ(near("defaultid"), "defaultuid") << "of several the first";
    EXPECT_EQ(near("gdefaultgid"), "defaultgid");
    EXPECT_EQ(near("faat"), "fat");
    EXPECT_EQ(near("aft"), "fat");
    EXPECT_EQ(near("xt"), "ext");
    static const char* const swapped[] = {"xxsf", "ntfs"}; // two steps, and one
    EXPECT_STREQ(finding_nearest("ntsf", swapped, 2), "ntfs");
    EXPECT_EQ(near("xy"), "(none)");
    EXPECT_EQ(near("fat32"), "fat");
    EXPECT_EQ(near(""), "(none)");
    EXPECT_EQ(near(std::string(64, 'x').c_str()), "(none)");
    EXPECT_EQ(near(std::string(63, 'x').c_str()), "(none)");
    const std::string longest(63, 'x');
    const char* const one[] = {longest.c_str()};
    EXPECT_STREQ(finding_nearest((longest.substr(1) + "y").c_str(), one, 1), one[0]);
    EXPECT_EQ(finding_nearest((longest + "y").c_str(), one, 1), nullptr);
}
