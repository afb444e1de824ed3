#include "lib/vylist.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// The elements of a list in order, checked in both directions.
std::vector<int*> elements(vylist* list)
{
    std::vector<int*> forward;
    std::vector<int*> backward;
    for (vylist_node* node = list->next; node != vylist_end(list); node = node->next)
        forward.push_back(static_cast<int*>(node->data));
    for (vylist_node* node = list->prev; node != vylist_end(list); node = node->prev)
        backward.insert(backward.begin(), static_cast<int*>(node->data));
    EXPECT_EQ(forward, backward);
    EXPECT_EQ(list->count, forward.size());
    return forward;
}

class VylistTest : public testing::Test {
  protected:
    ~VylistTest() override { vylist_dispose(list); }
    vylist_node* append(int* element) { return vylist_insert(list, vylist_end(list), element); }

    vylist* list = vylist_create();
    int one = 1;
    int two = 2;
    int three = 3;
};

TEST_F(VylistTest, NewListIsItsOwnCircle)
{
    EXPECT_EQ(list->next, vylist_end(list));
    EXPECT_EQ(list->prev, vylist_end(list));
    EXPECT_EQ(list->count, 0U);
}

TEST_F(VylistTest, InsertBeforeTheHeadAppends)
{
    append(&one);
    append(&two);
    EXPECT_EQ(elements(list), (std::vector<int*>{&one, &two}));
}

TEST_F(VylistTest, InsertBeforeTheFirstNodeMakesANewFirst)
{
    append(&one);
    vylist_insert(list, list->next, &two);
    EXPECT_EQ(elements(list), (std::vector<int*>{&two, &one}));
}

} // namespace
