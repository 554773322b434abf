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
  struct Case {
    const char *text;
    std::vector<std::string> items;
  };
  const Case cases[] = {
      {"a,b,c", {"a", "b", "c"}},
      {"", {}},
      {"single", {"single"}},
      {" a , b\t,c ", {"a", "b", "c"}},
      {"a,,b", {"a", "b"}},
      {",,,", {}},
      {"   ", {}},
      {"a,b,", {"a", "b"}},
      {",a", {"a"}},
      {"two words, x y z", {"two words", "x y z"}},
      {"rw,logging", {"rw", "logging"}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(std::string("input \"") + c.text + "\"");
    std::string input = c.text;
    CommaList list = ParseCommaList(input.c_str());
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(input, c.text) << "input changed";
    std::vector<std::string> got;
    size_t n = 0;
    while (list[n] != nullptr) got.emplace_back(list[n++]);
    EXPECT_EQ(got, c.items);
    // Freeing the block and the array must free every item: each one lies
    // inside the block.
    char *block = list[n + 1];
    if (n > 0) {
      ASSERT_NE(block, nullptr);
      auto lo = reinterpret_cast<uintptr_t>(block);
      uintptr_t hi = lo + malloc_usable_size(block);
      for (size_t i = 0; i < n; ++i) {
        auto p = reinterpret_cast<uintptr_t>(list[i]);
        EXPECT_TRUE(p >= lo && p + strlen(list[i]) < hi) << "item " << i << " outside the block";
      }
    }
    free(block);
    free(list);
  }
}

TEST(ParseCommaList, NullTextGivesNull) { EXPECT_EQ(ParseCommaList(nullptr), nullptr); }

TEST(IsInCommaList, MatchesWholeTrimmedItemsExactly) {
  struct Case {
    const char *item;
    const char *text;
    int want;
  };
  const Case cases[] = {
      {"b", "a,b,c", 1},       {"a", "a,b,c", 1},     {"c", "a,b,c", 1},
      {"d", "a,b,c", 0},       {"b", " a , b , c ", 1}, {" b\t", "a,b,c", 1},
      {"B", "a,b,c", 0},       {"ab", "a,b", 0},      {"a", "ab,ba", 0},
      {"a,b", "a,b", 0},       {"x y", "w,x y,z", 1}, {"", "a,,b", 0},
      {" ", " , ", 0},         {"a", "", 0},          {"a", "a", 1},
      {nullptr, "a", 0},       {"a", nullptr, 0},
  };
  for (const Case &c : cases)
    EXPECT_EQ(IsInCommaList(c.item, c.text), c.want)
        << "item " << (c.item ? c.item : "(null)") << " in " << (c.text ? c.text : "(null)");
}

}  // namespace
