#include "lib/vylist.h"

#include "support/failing_memory.h"

#include <gtest/gtest.h>

#include <stddef.h>

#include <type_traits>
#include <vector>

namespace {

using Elements = std::vector<int*>;

// The elements of a list in order, checked in both directions.
Elements elements(vylist* list)
{
    Elements forward;
    Elements backward;
    for (vylist_node* node = list->next; node != vylist_end(list); node = node->next)
        forward.push_back(static_cast<int*>(node->data));
    for (vylist_node* node = list->prev; node != vylist_end(list); node = node->prev)
        backward.insert(backward.begin(), static_cast<int*>(node->data));
    EXPECT_EQ(forward, backward) << "the two directions differ";
    EXPECT_EQ(list->count, forward.size());
    return forward;
}

void expect_its_own_circle(const vylist* list)
{
    EXPECT_EQ(list->next, vylist_end(list));
    EXPECT_EQ(list->prev, vylist_end(list));
    EXPECT_EQ(list->count, 0U);
}

class Vylist : public testing::Test {
  protected:
    ~Vylist() override
    {
        vylist_dispose(other);
        vylist_dispose(list);
    }
    vylist_node* append(int* element) { return vylist_insert(list, vylist_end(list), element); }
    void fill()
    {
        append(&one);
        append(&two);
        append(&three);
    }

    vylist* list = vylist_create();
    vylist* other = vylist_create();
    int one = 1;
    int two = 2;
    int three = 3;
    int four = 4;
};

// ---- layout ----

TEST(VylistLayout, HeadStandsInTheCircleLikeANode)
{
    EXPECT_EQ(offsetof(vylist, next), offsetof(vylist_node, next));
    EXPECT_EQ(offsetof(vylist, prev), offsetof(vylist_node, prev));
    EXPECT_EQ(offsetof(vylist_node, next), 0U);
    EXPECT_EQ(offsetof(vylist_node, prev), sizeof(void*));
    EXPECT_EQ(offsetof(vylist_node, data), 2 * sizeof(void*));
}

TEST(VylistLayout, CountHas32UnsignedBits)
{
    EXPECT_TRUE((std::is_same_v<decltype(vylist::count), uint32_t>));
}

// ---- create ----

TEST_F(Vylist, NewListIsItsOwnCircle)
{
    expect_its_own_circle(list);
}

TEST_F(Vylist, CreateIsNullWhenMemoryRunsOut)
{
    memory_fail(1);
    vylist* none = vylist_create();
    EXPECT_TRUE(memory_failed());
    EXPECT_EQ(none, nullptr);
}

// ---- insert ----

TEST_F(Vylist, InsertBeforeTheHeadAppends)
{
    append(&one);
    append(&two);
    append(&three);
    EXPECT_EQ(elements(list), (Elements{&one, &two, &three}));
}

TEST_F(Vylist, InsertBeforeTheFirstNodeMakesANewFirst)
{
    append(&one);
    vylist_insert(list, list->next, &two);
    EXPECT_EQ(elements(list), (Elements{&two, &one}));
}

TEST_F(Vylist, InsertBeforeAMiddleNodeLandsRightBeforeIt)
{
    append(&one);
    vylist_node* second = append(&two);
    vylist_insert(list, second, &three);
    EXPECT_EQ(elements(list), (Elements{&one, &three, &two}));
}

TEST_F(Vylist, InsertIntoAnEmptyListMakesTheOnlyNode)
{
    append(&one);
    EXPECT_EQ(list->next, list->prev);
    EXPECT_EQ(elements(list), Elements{&one});
}

TEST_F(Vylist, InsertReturnsTheNewNode)
{
    vylist_node* node = append(&one);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node, list->next);
    EXPECT_EQ(node->data, &one);
    EXPECT_EQ(node->next, vylist_end(list));
    EXPECT_EQ(node->prev, vylist_end(list));
}

TEST_F(Vylist, InsertOfTheSameElementTwiceMakesTwoNodes)
{
    append(&one);
    append(&one);
    EXPECT_EQ(elements(list), (Elements{&one, &one}));
}

TEST_F(Vylist, InsertWithoutAListFails)
{
    append(&one);
    EXPECT_EQ(vylist_insert(nullptr, vylist_end(list), &two), nullptr);
    EXPECT_EQ(elements(list), Elements{&one});
}

TEST_F(Vylist, InsertWithoutAPositionFails)
{
    append(&one);
    EXPECT_EQ(vylist_insert(list, nullptr, &two), nullptr);
    EXPECT_EQ(elements(list), Elements{&one});
}

TEST_F(Vylist, InsertOfANullElementFails)
{
    append(&one);
    EXPECT_EQ(append(nullptr), nullptr);
    EXPECT_EQ(elements(list), Elements{&one});
}

TEST_F(Vylist, InsertWithoutMemoryLeavesTheList)
{
    append(&one);
    memory_fail(1);
    vylist_node* node = append(&two);
    EXPECT_TRUE(memory_failed());
    EXPECT_EQ(node, nullptr);
    EXPECT_EQ(elements(list), Elements{&one});
}

// ---- erase ----

TEST_F(Vylist, EraseOfTheFirstReturnsTheSecond)
{
    fill();
    vylist_node* second = list->next->next;
    EXPECT_EQ(vylist_erase(list, list->next), second);
    EXPECT_EQ(elements(list), (Elements{&two, &three}));
}

TEST_F(Vylist, EraseOfAMiddleNodeReturnsTheNext)
{
    fill();
    vylist_node* last = list->prev;
    EXPECT_EQ(vylist_erase(list, list->next->next), last);
    EXPECT_EQ(elements(list), (Elements{&one, &three}));
}

TEST_F(Vylist, EraseOfTheLastReturnsTheHead)
{
    fill();
    EXPECT_EQ(vylist_erase(list, list->prev), vylist_end(list));
    EXPECT_EQ(elements(list), (Elements{&one, &two}));
}

TEST_F(Vylist, EraseOfTheOnlyNodeReturnsTheHeadOfAnEmptyList)
{
    vylist_node* node = append(&one);
    EXPECT_EQ(vylist_erase(list, node), vylist_end(list));
    expect_its_own_circle(list);
}

TEST_F(Vylist, EraseLeavesTheElementAlive)
{
    int* element = new int(7);
    vylist_erase(list, append(element));
    EXPECT_EQ(*element, 7);
    delete element;
}

TEST_F(Vylist, EraseFromAnEmptyListFails)
{
    EXPECT_EQ(vylist_erase(list, vylist_end(list)), nullptr);
    expect_its_own_circle(list);
}

TEST_F(Vylist, EraseWithAnEmptyListTouchesNotEvenAnotherListsNode)
{
    vylist_node* node = append(&one);
    EXPECT_EQ(vylist_erase(other, node), nullptr);
    EXPECT_EQ(elements(list), Elements{&one});
    expect_its_own_circle(other);
}

TEST_F(Vylist, EraseWithoutAListFails)
{
    EXPECT_EQ(vylist_erase(nullptr, append(&one)), nullptr);
    EXPECT_EQ(elements(list), Elements{&one});
}

TEST_F(Vylist, EraseWithoutANodeFails)
{
    append(&one);
    EXPECT_EQ(vylist_erase(list, nullptr), nullptr);
    EXPECT_EQ(elements(list), Elements{&one});
}

TEST_F(Vylist, WalkGoesOnWithWhatEraseReturns)
{
    fill();
    append(&four);
    for (vylist_node* node = list->next; node != vylist_end(list);) {
        if (*static_cast<int*>(node->data) % 2 == 0)
            node = vylist_erase(list, node);
        else
            node = node->next;
    }
    EXPECT_EQ(elements(list), (Elements{&one, &three}));
}

// ---- clear and dispose ----

TEST_F(Vylist, ClearEmptiesAndTheListStaysUsable)
{
    fill();
    vylist_clear(list);
    expect_its_own_circle(list);
    append(&two);
    EXPECT_EQ(elements(list), Elements{&two});
}

TEST_F(Vylist, ClearOfAnEmptyListChangesNothing)
{
    vylist_clear(list);
    expect_its_own_circle(list);
}

TEST_F(Vylist, ClearLeavesTheElementsAlive)
{
    int* element = new int(7);
    append(element);
    vylist_clear(list);
    EXPECT_EQ(*element, 7);
    delete element;
}

TEST_F(Vylist, DisposeLeavesTheElementsAlive)
{
    vylist* doomed = vylist_create();
    int* element = new int(7);
    vylist_insert(doomed, vylist_end(doomed), element);
    vylist_dispose(doomed);
    EXPECT_EQ(*element, 7);
    delete element;
}

// ---- move and copy ----

TEST_F(Vylist, MoveAppendsInOrderAndClearsTheSource)
{
    fill();
    vylist_insert(other, vylist_end(other), &four);
    EXPECT_EQ(vylist_move(other, list), 0);
    EXPECT_EQ(elements(other), (Elements{&four, &one, &two, &three}));
    expect_its_own_circle(list);
}

TEST_F(Vylist, CopyAppendsInOrderAndKeepsTheSource)
{
    fill();
    vylist_insert(other, vylist_end(other), &four);
    EXPECT_EQ(vylist_copy(other, list), 0);
    EXPECT_EQ(elements(other), (Elements{&four, &one, &two, &three}));
    EXPECT_EQ(elements(list), (Elements{&one, &two, &three}));
}

TEST_F(Vylist, MoveOfAnEmptySourceChangesNothing)
{
    append(&one);
    EXPECT_EQ(vylist_move(list, other), 0);
    EXPECT_EQ(elements(list), Elements{&one});
    expect_its_own_circle(other);
}

TEST_F(Vylist, CopyOfAnEmptySourceChangesNothing)
{
    append(&one);
    EXPECT_EQ(vylist_copy(list, other), 0);
    EXPECT_EQ(elements(list), Elements{&one});
    expect_its_own_circle(other);
}

TEST_F(Vylist, MoveLeavesOutNullElements)
{
    fill();
    list->next->next->data = nullptr;
    EXPECT_EQ(vylist_move(other, list), 0);
    EXPECT_EQ(elements(other), (Elements{&one, &three}));
    expect_its_own_circle(list);
}

TEST_F(Vylist, CopyLeavesOutNullElements)
{
    fill();
    list->next->data = nullptr;
    EXPECT_EQ(vylist_copy(other, list), 0);
    EXPECT_EQ(elements(other), (Elements{&two, &three}));
    EXPECT_EQ(list->count, 3U);
}

TEST_F(Vylist, MoveThatFailsHalfwayLeavesTheElementsInBothLists)
{
    fill();
    memory_fail(3);
    const int result = vylist_move(other, list);
    EXPECT_TRUE(memory_failed());
    EXPECT_EQ(result, -1);
    EXPECT_EQ(elements(other), (Elements{&one, &two}));
    EXPECT_EQ(elements(list), (Elements{&one, &two, &three}));
}

TEST_F(Vylist, CopyThatFailsStopsThere)
{
    fill();
    memory_fail(2); // the third would have been given memory
    const int result = vylist_copy(other, list);
    EXPECT_TRUE(memory_failed());
    EXPECT_EQ(result, -1);
    EXPECT_EQ(elements(other), Elements{&one});
    EXPECT_EQ(elements(list), (Elements{&one, &two, &three}));
}

} // namespace
