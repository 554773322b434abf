// The table generator of the benchmarks: its tables read back whole, hold
// together at any size, and repeat for a variant.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "sandbox.h"
#include "table_gen.h"

namespace {

std::string Table(size_t count, uint64_t variant) {
  std::string out;
  tablegen::Generate(count, variant, [&](const devtab::Entry &e) { devtab::FormatEntry(e, &out); });
  return out;
}

// Small counts cut the groups short (a bus needs three entries, a board two);
// containers come before what they contain, and contain only what exists.
TEST(TableGen, ExactCountsOfWellFormedEntriesThatHoldTogether) {
  for (size_t count : {0, 1, 2, 3, 7, 31, 5000}) {
    std::string image = Table(count, 2);
    std::vector<devtab::Entry> entries;
    devtab::Scanner scanner(image);
    devtab::RawEntry raw;
    while (scanner.Next(&raw)) {
      entries.emplace_back();
      ASSERT_EQ(devtab::ParseEntry(raw.text, &entries.back()), devtab::Defect::kNone) << raw.text;
    }
    ASSERT_EQ(entries.size(), count);
    std::map<std::string, size_t> index;
    for (size_t i = 0; i < count; ++i) EXPECT_TRUE(index.emplace(entries[i].alias, i).second) << entries[i].alias;
    for (size_t i = 0; i < count; ++i) {
      size_t c = entries[i].Find("ObjContains");
      if (c == entries[i].npairs) continue;
      std::string list = entries[i].pairs[c].value + ",";
      for (size_t at = 0, comma; (comma = list.find(',', at)) != std::string::npos; at = comma + 1) {
        auto it = index.find(list.substr(at, comma - at));
        ASSERT_NE(it, index.end()) << entries[i].alias << " contains a missing entry";
        EXPECT_GT(it->second, i) << entries[i].alias;
      }
    }
  }
}

TEST(TableGen, VariantRepeatsAndTheProgramWritesTheSameTable) {
  EXPECT_EQ(Table(3000, 5), Table(3000, 5));
  EXPECT_NE(Table(3000, 5), Table(3000, 6));
  EXPECT_EQ(testing_support::RunProgram({QD_GENTABLE, "3000", "5"}).out, Table(3000, 5));
  EXPECT_EQ(testing_support::RunProgram({QD_GENTABLE, "40"}).out, Table(40, 1));
  for (std::vector<std::string> bad : {std::vector<std::string>{}, {"x"}, {"-5"}, {"10", "v"}, {"10", "1", "2"}}) {
    bad.insert(bad.begin(), QD_GENTABLE);
    EXPECT_EQ(testing_support::RunProgram(bad).status, 1) << testing::PrintToString(bad);
  }
}

}  // namespace
