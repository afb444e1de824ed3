#include "records/conf_dev_file.h"

#include "record.h"
#include "support/failing_memory.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

namespace {

using Ids = std::vector<int>;

// A list of owned ids.
struct Users {
    vylist* list = vylist_create();

    Users() = default;
    Users(const Users&) = delete;
    Users& operator=(const Users&) = delete;
    ~Users()
    {
        for (vylist_node* node = list->next; node != vylist_end(list); node = node->next)
            free(node->data);
        vylist_dispose(list);
    }
};

// ---- parsing ----

struct ParseRow {
    const char* text;
    Ids ids;
};

TEST(UserList, ParsesNumbersBeforeACommaOrTheEnd)
{
    const ParseRow rows[] = {
        {"", {}},
        {"500", {500}},
        {"500,501,", {500, 501}},
        {"500,501", {500, 501}},
        {"501,500", {501, 500}},
        {"500, 501", {500, 501}}, // a blank before a number is passed over
        {"500 ,501", {501}},      // one behind it spoils the number
        {"500 501", {501}},
        {"500 ", {}},
        {" 500", {500}},
        {"-7", {7}}, // a sign is passed over
        {"+7,-8", {7, 8}},
        {"500,500", {500}},
        {"500,501,500,", {500, 501}},
        {"007,7", {7}},
        {"0", {0}},
        {"a,b", {}},
        {"a5,5b,6", {5, 6}},
        {"12a34,", {34}},
        {"5;6,7", {6, 7}},
        {"1.5", {5}},
        {",,,", {}},
        {",5,,6,", {5, 6}},
        {"\t5\t,6", {6}},
        {"0x10,", {10}},
        {"2147483647", {2147483647}},
        {"2147483648,1", {1}}, // no user id
        {"99999999999999999999,2", {2}},
        {"\xC3\xA4"
         "5,6",
         {5, 6}},
    };
    for (const ParseRow& row : rows) {
        const Users users;
        EXPECT_EQ(conf_parse_user_list(row.text, users.list), static_cast<int>(row.ids.size()))
            << '"' << row.text << '"';
        EXPECT_EQ(user_ids(users.list), row.ids) << '"' << row.text << '"';
    }
}

TEST(UserList, PassesARunOfDigitsOverThatIsTooLongForItsBuffer)
{
    for (const size_t length : {33UL, 64UL, 1000UL, 2047UL}) {
        const Users users;
        const std::string text = std::string(length, '0') + "," + std::string(length, '9') + ",7";
        EXPECT_EQ(conf_parse_user_list(text.c_str(), users.list), 1) << length;
        EXPECT_EQ(user_ids(users.list), (Ids{7})) << length;
    }
}

TEST(UserList, AppendsToWhatIsThereEachIdOnce)
{
    const Users users;
    EXPECT_EQ(conf_parse_user_list("1,2", users.list), 2);
    EXPECT_EQ(conf_parse_user_list("2,3,1", users.list), 1);
    EXPECT_EQ(user_ids(users.list), (Ids{1, 2, 3}));
}

TEST(UserList, GoesOnWhenAnIdCannotBeAppended)
{
    for (int nth = 1; nth <= 2; nth++) { // an id is a number and a node
        const Users users;
        const long before = memory_blocks();
        memory_fail(nth);
        EXPECT_EQ(conf_parse_user_list("1,2,3", users.list), 2);
        EXPECT_TRUE(memory_failed());
        EXPECT_EQ(user_ids(users.list), (Ids{2, 3}));
        EXPECT_EQ(memory_blocks(), before + 4);
    }
}

// ---- writing ----

std::string written(const vylist* users)
{
    FILE* stream = fopen("/tmp/list", "w");
    EXPECT_EQ(conf_write_user_list(stream, users), 0);
    fclose(stream);
    return read_file("/tmp/list");
}

TEST(UserList, IsWrittenWithACommaBehindEachId)
{
    const Users users;
    EXPECT_EQ(written(users.list), "\n");
    add_users(users.list, {500, 501, 0, -3});
    EXPECT_EQ(written(users.list), "500,501,0,-3,\n");
}

TEST(UserList, CannotBeWrittenWithoutAStreamOrAList)
{
    const Users users;
    EXPECT_EQ(conf_write_user_list(nullptr, users.list), -1);
    FILE* stream = fopen("/tmp/list", "w");
    EXPECT_EQ(conf_write_user_list(stream, nullptr), -1);
    fclose(stream);
    EXPECT_EQ(read_file("/tmp/list"), "");
}

TEST(UserList, AFailedWriteGivesMinusOne)
{
    const Users users;
    FILE* stream = fopen("/dev/full", "w");
    setvbuf(stream, nullptr, _IONBF, 0);
    EXPECT_EQ(conf_write_user_list(stream, users.list), -1);
    add_users(users.list, {500});
    EXPECT_EQ(conf_write_user_list(stream, users.list), -1);
    fclose(stream);
}

} // namespace
