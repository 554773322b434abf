// Comma lists: the array layout that DestroyCommaList relies on, and item
// membership.
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "pv.h"

namespace {

TEST(ParseCommaList, ItemsThenNullThenTheOneBlockHoldingThemAll) {
  const std::pair<const char *, std::vector<std::string>> cases[] = {
      {"a,b,c", {"a", "b", "c"}}, {"", {}},          {" a , b\t,c ", {"a", "b", "c"}}, {"a,,b,", {"a", "b"}},
      {",,,", {}},                {"   ", {}},        {",a", {"a"}}, {"two words, x y z", {"two words", "x y z"}},
  };
  for (const auto &c : cases) {
    std::string input = c.first;
    CommaList list = ParseCommaList(input.c_str());
    ASSERT_NE(list, nullptr) << c.first;
    EXPECT_EQ(input, c.first) << "input changed";
    size_t n = 0;
    while (list[n] != nullptr) ++n;
    EXPECT_EQ(std::vector<std::string>(list, list + n), c.second) << c.first;
    // Freeing the block and the array must free every item.
    char *block = list[n + 1];
    auto lo = reinterpret_cast<uintptr_t>(block), hi = lo + (block ? malloc_usable_size(block) : 0);
    for (size_t i = 0; i < n; ++i) {
      auto p = reinterpret_cast<uintptr_t>(list[i]);
      EXPECT_TRUE(p >= lo && p + strlen(list[i]) < hi) << "item " << i << " outside the block";
    }
    free(block);
    free(list);
  }
  EXPECT_EQ(ParseCommaList(nullptr), nullptr);
}

TEST(IsInCommaList, MatchesWholeTrimmedItemsExactly) {
  const std::tuple<const char *, const char *, int> cases[] = {
      {"b", "a,b,c", 1}, {"a", "a,b,c", 1}, {"c", "a,b,c", 1},   {"d", "a,b,c", 0}, {"b", " a , b , c ", 1},
      {" b\t", "a,b,c", 1}, {"B", "a,b,c", 0}, {"ab", "a,b", 0}, {"a", "ab,ba", 0}, {"a,b", "a,b", 0},
      {"x y", "w,x y,z", 1}, {"", "a,,b", 0}, {"a", "", 0},      {nullptr, "a", 0}, {"a", nullptr, 0},
  };
  for (const auto &c : cases)
    EXPECT_EQ(IsInCommaList(std::get<0>(c), std::get<1>(c)), std::get<2>(c))
        << (std::get<0>(c) ? std::get<0>(c) : "(null)") << " in " << (std::get<1>(c) ? std::get<1>(c) : "(null)");
}

}  // namespace
