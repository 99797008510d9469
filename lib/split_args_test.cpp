#include "lib/split_args.h"

#include <array>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

std::vector<std::string> split(std::string text, std::size_t max = 62) {
  std::vector<char*> words(max);
  int n = split_arguments(text.data(), words);
  return {words.begin(), words.begin() + n};
}

TEST(SplitArguments, BlanksQuotesAndEmptyWords) {
  using v = std::vector<std::string>;
  EXPECT_EQ(split("a b c"), (v{"a", "b", "c"}));
  EXPECT_EQ(split(""), (v{""}));
  EXPECT_EQ(split("a  b"), (v{"a", "", "b"}));
  EXPECT_EQ(split("a "), (v{"a", ""}));
  EXPECT_EQ(split("\"x y\""), (v{"\"x y\""}));
  EXPECT_EQ(split("-m \"a b\" c"), (v{"-m", "\"a b\"", "c"}));
  EXPECT_EQ(split("a\tb"), (v{"a\tb"}));
}

TEST(SplitArguments, StopsAtTheSlotsGiven) {
  std::string many;
  for (int i = 0; i < 100; ++i) many += "w ";
  auto words = split(many, 62);
  EXPECT_EQ(words.size(), 62u);
  EXPECT_EQ(words.back(), "w");
}

}  // namespace
