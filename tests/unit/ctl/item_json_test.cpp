#include "ctl/item_json.h"

#include "lib/str.h"
#include "support/files.h"
#include "unit/ctl/made_view.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace {

std::string json_of(const Item& item, bool whole)
{
    return written_by([&](FILE* out) {
        Json json = {.out = out, .more = false};
        item_json(&json, nullptr, item, whole);
    });
}

constexpr char bare[] =
    R"("reason":null,"share":null,"label":null,"directory":null,"filesystem":null,)"
    R"("size_bytes":null,"used_bytes":null,"free_bytes":null,"read_only":false,"settings":null)";

} // namespace

TEST(ItemJson, ACallIsOneObjectOnALine)
{
    EXPECT_EQ(written_by([](FILE* out) {
                  Json json = {.out = out, .more = false};
                  json_begin(&json, "who");
                  json_null(&json, "item");
                  json_end(&json);
                  json_begin(&json, "who");
                  json_end(&json);
              }),
              "{\"call\":\"who\",\"version\":1,\"item\":null}\n{\"call\":\"who\",\"version\":1}\n");
}

TEST(ItemJson, WhatIsNotKnownIsNull)
{
    MadeView view;
    const Item& item = view.add("", "a:1", ITEM_ABSENT);
    const std::string begin =
        std::string(R"({"name":null,"identity":"a:1","state":"absent",)") + bare;
    EXPECT_EQ(json_of(item, false), begin + "}");
    EXPECT_EQ(json_of(item, true),
              begin + R"(,"device":{"vendor":null,"product":null,"serial":null,)"
                      R"("speed_mbit_per_s":null,"kernel_name":null,"uuid":null,"node":null,)"
                      R"("mounted_as":null,"mount_flags":null}})");
}

TEST(ItemJson, EachStateHasItsWord)
{
    const char* const words[] = {"shared",  "mounted",   "busy", "unmounted", "not_mounted",
                                 "waiting", "directory", "gone", "absent"};
    for (int state = 0; state < ITEM_STATES; state++) {
        MadeView view;
        const std::string json =
            json_of(view.add("sda1", "", static_cast<ItemState>(state)), false);
        EXPECT_EQ(json.find(std::string(R"({"name":"sda1","identity":null,"state":")") +
                            words[state] + "\","),
                  0U)
            << json;
    }
}

TEST(ItemJson, AllThatIsKnown)
{
    std::filesystem::create_directories("/dev/disk/by-uuid");
    std::filesystem::create_symlink("../../loop3", "/dev/disk/by-uuid/ABCD-1234");
    MadeView view;
    DiskPart& part = view.add_part("sda1", "sda", 3);
    part.major = 7;
    str_cpy(part.vendor, "Maker");
    str_cpy(part.product, "Stick");
    str_cpy(part.serial, "S1");
    str_cpy(part.speed, "480");
    MountinfoEntry& mount = view.add_mount(3, "/mounts/sda1");
    mount.readonly = true;
    Item& item = view.add("sda1", "a:1", ITEM_SHARED);
    item.part = &part;
    item.mount = &mount;
    item.share = view.text("Music");
    item.directory = view.text("/mounts/sda1");
    item.texts[SHARE_LABEL] = view.text("MUSIC");
    item.texts[SHARE_PRODUCT] = view.text("Told");
    item.texts[SHARE_VENDOR] = view.text("");
    item.size_bytes = 1000;
    item.used_bytes = 400;
    item.free_bytes = 500;
    EXPECT_EQ(json_of(item, true),
              R"({"name":"sda1","identity":"a:1","state":"shared","reason":null,"share":"Music",)"
              R"("label":"MUSIC","directory":"/mounts/sda1","filesystem":"vfat",)"
              R"("size_bytes":1000,"used_bytes":400,"free_bytes":500,"read_only":true,)"
              R"("settings":null,"device":{"vendor":"Maker","product":"Told","serial":"S1",)"
              R"("speed_mbit_per_s":480,"kernel_name":"sda1","uuid":"ABCD-1234",)"
              R"("node":"/dev/node","mounted_as":"read-only","mount_flags":"rw,nosuid"}})");
    mount.readonly = false;
    EXPECT_NE(json_of(item, true).find(R"("mounted_as":"read-write")"), std::string::npos);
}

TEST(ItemJson, WhatIsNotMountedHasASizeAlone)
{
    MadeView view;
    Item& item = view.add("sda1", "a:1", ITEM_UNMOUNTED);
    item.size_bytes = 1000;
    EXPECT_NE(json_of(item, false).find(R"("size_bytes":1000,"used_bytes":null,"free_bytes":null)"),
              std::string::npos);
    item.size_bytes = INT64_MAX;
    EXPECT_NE(json_of(item, false).find(R"("size_bytes":9223372036854775807,)"), std::string::npos);
    item.size_bytes++;
    EXPECT_NE(json_of(item, false).find(R"("size_bytes":null,)"), std::string::npos)
        << "no number that programs read";
}

TEST(ItemJson, SettingsHaveTheirKinds)
{
    MadeView view;
    Item& item = view.add("sda1", "a:1", ITEM_UNMOUNTED);
    ConfDev* settings = view.settings();
    settings->guestaccess = 1;
    settings->readonly = 1;
    settings->sharename = strdup("Music");
    settings->comment = strdup("");
    settings->administrator = CONF_DEV_ADMIN_BLOCK;
    add_user(settings->fullaccessusers, 0);
    add_user(settings->fullaccessusers, 4294);
    item.settings = settings;
    const std::string json = json_of(item, false);
    EXPECT_NE(
        json.find(R"("read_only":true,"settings":{"share_name":"Music","comment":null,"path":null,)"
                  R"("read_only":true,"guest":true,"hide_from_guests":false,"sync":false,)"
                  R"("administrator":"block","full_users":[{"uid":0,"name":"root"},)"
                  R"({"uid":4294,"name":"4294"}],"reading_users":[],"blocked_users":[],)"
                  R"("hidden_users":[]}})"),
        std::string::npos)
        << json;
}
