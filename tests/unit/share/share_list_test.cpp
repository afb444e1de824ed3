// What is written for each server where lists are longer than the share file can hold.
#include "share/share_list.h"

#include "ksmbd/ksmbd_server.h"
#include "samba/samba_server.h"
#include "shares_of.h"

#include <gtest/gtest.h>

#include <string.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {

using Names = std::set<std::string>;

constexpr int first_id = 1000;
constexpr int id_count = 1000;

std::string name_of(int id)
{
    return "user" + std::to_string(id);
}

// Everybody has a name, but for every tenth; of the others every hundredth does not fit.
bool is_unknown(int id)
{
    return id % 10 == 7;
}

bool does_not_fit(int id)
{
    return id % 100 == 9;
}

bool user_name(int32_t id, char (&name)[user_name_size])
{
    const char* sign = does_not_fit(id) ? "%" : "";
    return !is_unknown(id) &&
           snprintf(name, sizeof name, "%s%s", name_of(id).c_str(), sign) < int{sizeof name};
}

std::string ids(int first, int count)
{
    std::string list;
    for (int id = first; id < first + count; id++)
        list += std::to_string(id) + ",";
    return list;
}

Names known(int first, int count)
{
    Names names;
    for (int id = first; id < first + count; id++) {
        if (!is_unknown(id) && !does_not_fit(id))
            names.insert(name_of(id));
    }
    return names;
}

Names operator+(Names names, const Names& more)
{
    names.insert(more.begin(), more.end());
    return names;
}

struct Made {
    std::string text;
    std::vector<std::string> said;
};

// A share with these lists, by access.
Made make(const ShareServer& server, const std::vector<std::string>& lists)
{
    const RightsSettings with = {.administrator = "root",
                                 .guest = "nobody",
                                 .forceuser = "",
                                 .own = nullptr,
                                 .user_name = user_name,
                                 .user_fits = server.keys.user_fits};
    Notes notes = {};
    const NotesGuard held(&notes);
    const ShareTableGuard table(shares_of("[A]\nPath=/mnt\n", &notes));
    for (size_t access = 0; access < lists.size(); access++)
        table->shares[0].users[access] =
            lists[access].empty() ? nullptr : strdup(lists[access].c_str());
    const ExportedShare share = {.share = &table->shares[0], .name = "A"};
    char* text = nullptr;
    EXPECT_EQ(share_list_make(&server, &share, 1, &with, &notes, &text), 0);
    Made made = {.text = text, .said = messages(notes)};
    free(text);
    return made;
}

// Who stands in a line, none of them twice.
Names in_line(const std::string& text, const std::string& parameter)
{
    const std::string begin = "\t" + parameter + " = ";
    size_t at = text.find(begin);
    if (at == std::string::npos)
        return {};
    Names names;
    at += begin.size();
    for (const size_t end = text.find('\n', at); at < end;) {
        const size_t comma = std::min(text.find(", ", at), end);
        EXPECT_TRUE(names.insert(text.substr(at, comma - at)).second)
            << text.substr(at, comma - at);
        at = comma == end ? end : comma + 2;
    }
    return names;
}

// Who is in one of them alone.
Names apart(const Names& a, const Names& b)
{
    Names names;
    std::set_symmetric_difference(a.begin(), a.end(), b.begin(), b.end(),
                                  std::inserter(names, names.end()));
    return names;
}

const ShareServer* const servers[] = {&samba_server, &ksmbd_server};

} // namespace

TEST(LongLists, AThousandMayEnterAndNobodyIsLost)
{
    for (const ShareServer* server : servers) {
        SCOPED_TRACE(server->program);
        const Made made = make(*server, {ids(first_id, id_count)});
        EXPECT_EQ(
            apart(in_line(made.text, "valid users"), known(first_id, id_count) + Names{"root"}),
            Names{});
        EXPECT_EQ(known(first_id, id_count).size(), 890U);
        EXPECT_EQ(made.said.size(), 110U) << "whoever is left out is told of";
        EXPECT_EQ(made.said.front(), "share A: no user has the id 1007");
        EXPECT_EQ(made.said.back(), "share A: no user has the id 1997");
        EXPECT_EQ(in_line(made.text, "invalid users"), Names{});
    }
}

TEST(LongLists, OfThreeListsEachThousandsLong)
{
    for (const ShareServer* server : servers) {
        SCOPED_TRACE(server->program);
        const Made made = make(
            *server, {ids(first_id, 1000), ids(first_id + 500, 1000), ids(first_id + 1000, 1000)});
        EXPECT_EQ(apart(in_line(made.text, "valid users"), known(first_id, 1000) + Names{"root"}),
                  Names{});
        EXPECT_EQ(apart(in_line(made.text, "read list"), known(first_id + 500, 500)), Names{});
        EXPECT_EQ(apart(in_line(made.text, "invalid users"), known(first_id + 1000, 1000)),
                  Names{});
    }
}

// One of a thousand who cannot be named would get in where everybody else may.
TEST(LongLists, AThousandWhoMayNotEnter)
{
    for (const ShareServer* server : servers) {
        SCOPED_TRACE(server->program);
        const Made made = make(*server, {"", "", ids(first_id, id_count)});
        EXPECT_EQ(made.text.find("[A]"), std::string::npos);
        EXPECT_EQ(made.said.back(),
                  "share A is withheld: somebody who may not enter cannot be kept out by name");
        const Made named = make(*server, {"", "", ids(first_id, 9)});
        EXPECT_EQ(apart(in_line(named.text, "invalid users"), known(first_id, 9)), Names{});
    }
}
