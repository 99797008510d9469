#include "lib/flist.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Elements are ints; a list's content reads as a string of digits.
Flist* ints(std::initializer_list<int> values) {
  Flist* list = mkFlist(sizeof(int), 0);
  for (int v : values) iquedptr(list, &v);
  return list;
}

// The elements head to tail; fails the test when the back links, the tail or
// the count disagree with the forward chain.
std::string content(const Flist* list) {
  std::string out;
  const Flist_node* prev = nullptr;
  for (Flist_node* n = list->head; n != nullptr; n = n->next) {
    EXPECT_EQ(n->prev, prev);
    out += std::to_string(*static_cast<int*>(Flist_node_data(n)));
    prev = n;
  }
  EXPECT_EQ(list->tail, prev);
  EXPECT_EQ(list->count, out.size());
  return out;
}

int at(void* data) { return data == nullptr ? -1 : *static_cast<int*>(data); }

TEST(Flist, StackAndQueueOrder) {
  EXPECT_EQ(mkFlist(0, 4), nullptr);

  Flist* stack = mkFlist(sizeof(int), 0);
  for (int v : {1, 2, 3}) pushdptr(stack, &v);
  EXPECT_EQ(content(stack), "321");
  int top = 0;
  EXPECT_EQ(at(topdptr(stack, &top)), 3);
  EXPECT_EQ(top, 3);
  std::string popped;
  for (int v = 0; popd(stack, &v) == 1;) popped += std::to_string(v);
  EXPECT_EQ(popped, "321");
  EXPECT_EQ(topdptr(stack, nullptr), nullptr);
  EXPECT_EQ(popd(stack, nullptr), 0);

  Flist* queue = ints({1, 2, 3});
  popped.clear();
  for (int v = 0; popd(queue, &v) == 1;) popped += std::to_string(v);
  EXPECT_EQ(popped, "123");
  EXPECT_EQ(queue->head, nullptr);
  EXPECT_EQ(queue->tail, nullptr);

  EXPECT_EQ(rmFlist(&stack), 1);
  EXPECT_EQ(stack, nullptr);
  EXPECT_EQ(rmFlist(&stack), 0);
  EXPECT_EQ(rmFlist(&queue), 1);
}

TEST(Flist, CursorFollowsItsElement) {
  Flist* list = ints({1, 2, 3});
  EXPECT_EQ(at(mkcdptr(list, 2)), 2);
  int v = 9;
  pushdptr(list, &v);  // the cursor stays on 2, now at position 3
  EXPECT_EQ(ncur(list), 3u);
  EXPECT_EQ(at(curdptr(list)), 2);
  popd(list, nullptr);
  popd(list, nullptr);
  EXPECT_EQ(ncur(list), 1u);
  popd(list, nullptr);  // the current element itself goes
  EXPECT_EQ(ncur(list), 0u);
  EXPECT_EQ(curdptr(list), nullptr);
  EXPECT_EQ(content(list), "3");
  rmFlist(&list);

  // Deleting node 1 leaves no current node and node 2 as the head.
  list = ints({1, 2, 3});
  mkcdptr(list, 1);
  int out = 0;
  EXPECT_EQ(deld(list, &out), 1);
  EXPECT_EQ(out, 1);
  EXPECT_EQ(ncur(list), 0u);
  EXPECT_EQ(curdptr(list), nullptr);
  EXPECT_EQ(content(list), "23");
  EXPECT_EQ(deld(list, &out), 0);

  // Deleting the tail makes the node before it current and the tail.
  mkcdptr(list, 2);
  EXPECT_EQ(deld(list, &out), 1);
  EXPECT_EQ(at(curdptr(list)), 2);
  EXPECT_EQ(ncur(list), 1u);
  EXPECT_EQ(content(list), "2");

  // Inserting goes after the cursor, or to the head without one.
  v = 5;
  insdptr(list, &v);
  EXPECT_EQ(content(list), "25");
  EXPECT_EQ(ncur(list), 2u);
  mkcdptr(list, 0);
  v = 7;
  insdptr(list, &v);
  EXPECT_EQ(content(list), "725");
  EXPECT_EQ(ncur(list), 1u);
  rmFlist(&list);
}

TEST(Flist, IterationWrapsThroughNoCursor) {
  Flist* list = ints({1, 2, 3});
  std::string seen;
  int v = 0;
  while (nextdptr(list, &v) != nullptr) seen += std::to_string(v) + std::to_string(ncur(list));
  EXPECT_EQ(seen, "112233");
  EXPECT_EQ(ncur(list), 0u);
  EXPECT_EQ(at(nextdptr(list, nullptr)), 1);  // starts again at the head

  seen.clear();
  mkcdptr(list, 0);
  while (prevdptr(list, &v) != nullptr) seen += std::to_string(v) + std::to_string(ncur(list));
  EXPECT_EQ(seen, "332211");
  EXPECT_EQ(curdptr(list), nullptr);
  rmFlist(&list);
}

// Every move from every cursor position reaches the right node, whichever
// of head, cursor and tail the walk starts from.
TEST(Flist, PositioningReachesEveryNode) {
  for (int count = 0; count <= 7; ++count) {
    Flist* list = mkFlist(sizeof(int), 0);
    for (int v = 1; v <= count; ++v) iquedptr(list, &v);
    for (int from = 0; from <= count; ++from) {
      for (int to = 0; to <= count + 1; ++to) {
        mkcdptr(list, from);
        int expected = to >= 1 && to <= count ? to : -1;
        EXPECT_EQ(at(mkcdptr(list, to)), expected) << count << ": " << from << " -> " << to;
        EXPECT_EQ(ncur(list), expected == -1 ? 0u : static_cast<unsigned>(to));
        EXPECT_EQ(at(curdptr(list)), expected);
      }
    }
    rmFlist(&list);
  }
}

TEST(Flist, StoreRecallAndCopies) {
  Flist* list = ints({1, 2, 3});
  EXPECT_EQ(stod(list, nullptr, 2), 0);
  EXPECT_EQ(ncur(list), 2u);  // moved even without a source
  int v = 8;
  EXPECT_EQ(stod(list, &v, 3), 1);
  int out = 0;
  EXPECT_EQ(rcld(list, &out, 3), 1);
  EXPECT_EQ(out, 8);
  EXPECT_EQ(rcld(list, &out, 4), 0);
  EXPECT_EQ(ncur(list), 0u);
  EXPECT_EQ(getd(list, &out), 0);
  EXPECT_EQ(putd(list, &v), 0);
  mkcdptr(list, 1);
  EXPECT_EQ(getd(list, nullptr), 0);
  EXPECT_EQ(putd(list, &v), 1);
  EXPECT_EQ(content(list), "828");
  EXPECT_EQ(clrFlist(list), 1);
  EXPECT_EQ(content(list), "");
  EXPECT_EQ(ncur(list), 0u);
  rmFlist(&list);

  // The user data area follows the record; none when its size is 0.
  Flist* with_user = mkFlist(4, 16);
  ASSERT_NE(Flistdptr(with_user), nullptr);
  EXPECT_EQ(Flistdptr(with_user), static_cast<void*>(with_user + 1));
  Flist* without = mkFlist(4, 0);
  EXPECT_EQ(Flistdptr(without), nullptr);
  rmFlist(&with_user);
  rmFlist(&without);

  // A null list does nothing.
  EXPECT_EQ(pushdptr(nullptr, &v), nullptr);
  EXPECT_EQ(nempty(nullptr), 0u);
  EXPECT_EQ(clrFlist(nullptr), 0);
  EXPECT_EQ(mkcdptr(nullptr, 1), nullptr);
}

TEST(Flist, NodesMoveBetweenListsWithoutCopies) {
  Flist* a = ints({1, 2, 3});
  Flist* b = ints({});
  Flist_node* head = popn(a);
  void* data = Flist_node_data(head);
  EXPECT_EQ(iquen(b, head), 1);
  EXPECT_EQ(b->head, head);
  EXPECT_EQ(Flist_node_data(b->tail), data);

  mkcdptr(a, 2);
  Flist_node* last = deln(a);
  EXPECT_EQ(content(a), "2");
  EXPECT_EQ(pushn(b, last), 1);
  EXPECT_EQ(content(b), "31");

  mkcdptr(b, 1);
  EXPECT_EQ(insn(b, popn(a)), 1);
  EXPECT_EQ(content(b), "321");
  EXPECT_EQ(ncur(b), 2u);
  EXPECT_EQ(content(a), "");
  EXPECT_EQ(popn(a), nullptr);
  EXPECT_EQ(deln(a), nullptr);
  EXPECT_EQ(pushn(a, nullptr), 0);
  EXPECT_EQ(iquen(a, nullptr), 0);
  EXPECT_EQ(insn(a, nullptr), 0);
  rmFlist(&a);
  rmFlist(&b);
}

}  // namespace
