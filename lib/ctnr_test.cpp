#include "lib/ctnr.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct rec {
  int key;
  char tag;
};

rec P{1, 'P'}, Q{2, 'Q'}, R{3, 'R'}, X{4, 'X'}, Y{5, 'Y'};

int by_key(const void* a, const void* b) {
  return static_cast<const rec*>(a)->key - static_cast<const rec*>(b)->key;
}

// The tags in link order; fails the test when the back links or the count
// disagree with the forward chain.
std::string tags(ctnr_node* c) {
  std::string out;
  for (ctnr_node* n = c->next; n != c; n = n->next) {
    EXPECT_EQ(n->next->prev, n);
    out += static_cast<rec*>(n->item)->tag;
  }
  EXPECT_EQ(c->next->prev, c);
  EXPECT_EQ(level_ctnr(c), static_cast<int>(out.size()));
  return out;
}

ctnr_node* make(std::initializer_list<rec*> items) {
  ctnr_node* c = new_ctnr();
  EXPECT_NE(c, nullptr);
  for (rec* r : items) EXPECT_NE(push_ctnr(c, r), nullptr);
  return c;
}

std::vector<void*> destroyed;
void record_destroy(void* item) { destroyed.push_back(item); }
void ignore(void*) {}

}  // namespace

TEST(Ctnr, EmptyContainerYieldsNothingAndDestroysWithNull) {
  ctnr_node* c = make({});
  EXPECT_EQ(get_ctnr(c, 0), nullptr);
  EXPECT_EQ(pop_ctnr(c), nullptr);
  EXPECT_EQ(remove_at_ctnr(c, 0), nullptr);
  EXPECT_EQ(search_ctnr(c, by_key, &P), -1);
  EXPECT_EQ(first_ctnr(c), nullptr);
  EXPECT_EQ(next_ctnr(c), nullptr);
  EXPECT_EQ(insert_ctnr(c, &X, 0), nullptr);
  swop_ctnr(c, 0, 1);
  bsort_ctnr(c, by_key);
  EXPECT_EQ(tags(c), "");
  testing::internal::CaptureStderr();
  EXPECT_EQ(remove_ctnr(c), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "remove_curr_ctnr: delete root node\n");
  destroyed.clear();
  zero_destr_ctnr(c, record_destroy);
  EXPECT_EQ(destroyed, (std::vector<void*>{nullptr}));
}

TEST(Ctnr, NullArgumentsAreReportedWithTheirFailureValue) {
  ctnr_node* c = make({&P});
  testing::internal::CaptureStderr();
  EXPECT_EQ(level_ctnr(nullptr), -1);
  EXPECT_EQ(push_ctnr(c, nullptr), nullptr);
  EXPECT_EQ(insert_ctnr(nullptr, &X, 0), nullptr);
  EXPECT_EQ(remove_at_ctnr(nullptr, 0), nullptr);
  EXPECT_EQ(pop_ctnr(nullptr), nullptr);
  EXPECT_EQ(get_ctnr(nullptr, 0), nullptr);
  EXPECT_EQ(search_ctnr(c, by_key, nullptr), -1);
  swop_ctnr(nullptr, 0, 1);
  bsort_ctnr(c, nullptr);
  EXPECT_EQ(first_ctnr(nullptr), nullptr);
  EXPECT_EQ(next_ctnr(nullptr), nullptr);
  EXPECT_EQ(remove_ctnr(nullptr), nullptr);
  zero_destr_ctnr(c, nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "level_ctnr: NIL argument\npush_ctnr: NIL argument\ninsert_ctnr: NIL argument\n"
            "remove_ctnr: NIL argument\npop_ctnr: NIL argument\nget_ctnr: NIL argument\n"
            "search_ctnr: NIL argument\nswop_ctnr: NIL argument\ndestr_ctnr: NIL argument\n"
            "first_ctnr: NIL argument\nnext_ctnr: NIL argument\n"
            "remove_curr_ctnr: NIL argument\ndestr_ctnr: NIL argument\n");
  EXPECT_EQ(tags(c), "P");
  zero_destr_ctnr(c, ignore);
}

TEST(Ctnr, PositionsSearchInsertAndRemove) {
  ctnr_node* c = make({&P, &Q, &R});
  rec missing{9, '?'};
  testing::internal::CaptureStderr();  // the lookups of the SIGCHLD path stay silent
  EXPECT_EQ(search_ctnr(c, by_key, &Q), 1);
  EXPECT_EQ(get_ctnr(c, 2), &R);
  EXPECT_EQ(get_ctnr(c, 3), nullptr);
  EXPECT_EQ(get_ctnr(c, search_ctnr(c, by_key, &missing)), nullptr);  // -1 walks past the end
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

  EXPECT_EQ(remove_at_ctnr(c, 3), nullptr);
  EXPECT_EQ(remove_at_ctnr(c, static_cast<std::uint32_t>(-1)), nullptr);
  EXPECT_EQ(remove_at_ctnr(c, 1), &Q);
  EXPECT_EQ(tags(c), "PR");

  EXPECT_NE(insert_ctnr(c, &X, 0), nullptr);  // lands after position 0
  EXPECT_EQ(tags(c), "PXR");
  EXPECT_NE(insert_ctnr(c, &Y, 2), nullptr);  // after the last: appended
  EXPECT_EQ(insert_ctnr(c, &Q, 4), nullptr);
  EXPECT_EQ(insert_ctnr(c, &Q, static_cast<std::uint32_t>(-1)), nullptr);
  EXPECT_EQ(tags(c), "PXRY");

  EXPECT_EQ(pop_ctnr(c), &P);
  EXPECT_EQ(remove_at_ctnr(c, 2), &Y);
  EXPECT_EQ(tags(c), "XR");
  destroyed.clear();
  zero_destr_ctnr(c, record_destroy);
  EXPECT_EQ(destroyed, (std::vector<void*>{&X, &R, nullptr}));
}

TEST(Ctnr, SwopAndStableBubbleSort) {
  ctnr_node* c = make({&P, &Q, &R});
  swop_ctnr(c, 2, 0);
  EXPECT_EQ(tags(c), "RQP");
  swop_ctnr(c, 1, 1);
  swop_ctnr(c, 0, 3);  // one position past the end: nothing moves
  swop_ctnr(c, static_cast<std::uint32_t>(-1), 1);
  EXPECT_EQ(tags(c), "RQP");
  zero_destr_ctnr(c, ignore);

  rec a{3, 'a'}, b{1, 'b'}, d{3, 'd'}, e{2, 'e'}, f{1, 'f'}, g{0, 'g'};
  c = make({&a, &b, &d, &e, &f, &g});
  bsort_ctnr(c, by_key);
  EXPECT_EQ(tags(c), "gbfead");
  bsort_ctnr(c, by_key);  // sorted input stays put
  EXPECT_EQ(tags(c), "gbfead");
  zero_destr_ctnr(c, ignore);
}

TEST(Ctnr, CursorWalkSurvivesRemoval) {
  ctnr_node* c = make({&P, &Q, &R});
  EXPECT_EQ(first_ctnr(c), &P);
  EXPECT_EQ(next_ctnr(c), &Q);
  EXPECT_EQ(remove_ctnr(c), &Q);
  EXPECT_EQ(next_ctnr(c), &R);
  EXPECT_EQ(next_ctnr(c), nullptr);  // at the end the cursor stays on R
  EXPECT_EQ(remove_ctnr(c), &R);
  EXPECT_EQ(tags(c), "P");

  // Removing the first item puts the cursor on the sentinel; next yields the new first.
  ASSERT_NE(push_ctnr(c, &X), nullptr);
  EXPECT_EQ(first_ctnr(c), &P);
  EXPECT_EQ(remove_ctnr(c), &P);
  testing::internal::CaptureStderr();
  EXPECT_EQ(remove_ctnr(c), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "remove_curr_ctnr: delete root node\n");
  EXPECT_EQ(next_ctnr(c), &X);

  // Taking the cursor's item out by position leaves the walk on its neighbour.
  ASSERT_NE(push_ctnr(c, &Y), nullptr);
  EXPECT_EQ(remove_at_ctnr(c, 0), &X);
  EXPECT_EQ(next_ctnr(c), &Y);
  EXPECT_EQ(pop_ctnr(c), &Y);
  EXPECT_EQ(next_ctnr(c), nullptr);
  EXPECT_EQ(first_ctnr(c), nullptr);
  zero_destr_ctnr(c, ignore);
}
