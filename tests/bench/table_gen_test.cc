// The table generator: its tables read back whole, hold together at any
// size, repeat for a variant, and look like a real host's table.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "sandbox.h"
#include "table_gen.h"

using testing_support::RunProgram;

namespace {

std::string Table(size_t count, uint64_t variant) {
  std::string out;
  tablegen::Generate(count, variant, [&](const devtab::Entry &e) { devtab::FormatEntry(e, &out); });
  return out;
}

// The entries of an image; a malformed one fails the test.
std::vector<devtab::Entry> Parse(const std::string &image) {
  std::vector<devtab::Entry> entries;
  devtab::Scanner scanner(image);
  devtab::RawEntry raw;
  while (scanner.Next(&raw)) {
    entries.emplace_back();
    EXPECT_EQ(devtab::ParseEntry(raw.text, &entries.back()), devtab::Defect::kNone) << raw.text;
  }
  return entries;
}

const std::string *Value(const devtab::Entry &e, const char *name) {
  size_t i = e.Find(name);
  return i < e.npairs ? &e.pairs[i].value : nullptr;
}

std::vector<std::string> Items(const std::string &list) {
  std::vector<std::string> items;
  size_t start = 0;
  for (size_t comma; (comma = list.find(',', start)) != std::string::npos; start = comma + 1)
    items.push_back(list.substr(start, comma - start));
  items.push_back(list.substr(start));
  return items;
}

// Small counts cut the groups short: a bus needs three entries, a board two.
TEST(TableGen, ExactCountOfWellFormedEntriesThatHoldTogether) {
  std::vector<size_t> counts;
  for (size_t n = 0; n <= 60; ++n) counts.push_back(n);
  counts.push_back(5000);
  for (uint64_t variant : {1, 2}) {
    for (size_t count : counts) {
      SCOPED_TRACE(testing::Message() << count << " entries, variant " << variant);
      std::string image = Table(count, variant);
      std::vector<devtab::Entry> entries = Parse(image);
      ASSERT_EQ(entries.size(), count);
      ASSERT_EQ(static_cast<size_t>(std::count(image.begin(), image.end(), '\n')), count);
      std::map<std::string, size_t> index;
      for (size_t i = 0; i < count; ++i)
        EXPECT_TRUE(index.emplace(entries[i].alias, i).second) << "twice: " << entries[i].alias;
      for (size_t i = 0; i < count; ++i) {
        if (const std::string *contains = Value(entries[i], "ObjContains")) {
          for (const std::string &item : Items(*contains)) {
            auto it = index.find(item);
            ASSERT_NE(it, index.end()) << entries[i].alias << " contains missing " << item;
            EXPECT_GT(it->second, i) << entries[i].alias << " comes after " << item;
          }
        }
        if (const std::string *parent = Value(entries[i], "parent")) {
          auto it = index.find(*parent);
          ASSERT_NE(it, index.end()) << entries[i].alias;
          const std::string *siblings = Value(entries[it->second], "ObjContains");
          ASSERT_NE(siblings, nullptr);
          std::vector<std::string> items = Items(*siblings);
          EXPECT_NE(std::find(items.begin(), items.end(), entries[i].alias), items.end());
        }
      }
    }
  }
}

TEST(TableGen, VariantRepeatsAndTheProgramWritesTheSameTable) {
  EXPECT_EQ(Table(3000, 5), Table(3000, 5));
  EXPECT_NE(Table(3000, 5), Table(3000, 6));

  auto r = RunProgram({QD_GENTABLE, "3000", "5"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, Table(3000, 5));
  EXPECT_EQ(RunProgram({QD_GENTABLE, "40"}).out, Table(40, 1));
  for (std::vector<std::string> bad :
       {std::vector<std::string>{}, {"x"}, {"-5"}, {"10", "v"}, {"10", "1", "2"}}) {
    bad.insert(bad.begin(), QD_GENTABLE);
    r = RunProgram(bad);
    EXPECT_EQ(r.status, 1) << testing::PrintToString(bad);
    EXPECT_EQ(r.out, "");
  }
}

TEST(TableGen, LooksLikeARealTable) {
  const size_t count = 20000;
  std::string image = Table(count, 1);
  std::vector<devtab::Entry> entries = Parse(image);
  std::map<std::string, size_t> classes;
  size_t set_aside = 0, cmd = 0, func = 0, lists = 0;
  for (const devtab::Entry &e : entries) {
    const std::string *cls = Value(e, "class");
    ASSERT_NE(cls, nullptr) << e.alias;
    ++classes[*cls];
    EXPECT_LE(e.alias.size(), 12u) << e.alias;
    if (Value(e, "alias_status") != nullptr) ++set_aside;
    for (size_t i = 0; i < e.npairs; ++i) {
      const devtab::Pair &p = e.pairs[i];
      cmd += p.name.find("cmd") != std::string::npos;
      func += p.name.find("func") != std::string::npos;
      lists += p.name != "ObjContains" && p.name != "ObjTimestamp" &&
               p.value.find(',') != std::string::npos;
    }
  }
  for (const char *cls : {"controller", "disk", "partition", "tape", "serialboard", "serial",
                          "network", "printer", "cdrom"})
    EXPECT_GT(classes[cls], 0u) << cls;
  EXPECT_GT(classes["partition"], classes["disk"]);
  EXPECT_GT(classes["serial"], classes["serialboard"]);
  EXPECT_GT(set_aside, count / 1000);
  EXPECT_LT(set_aside, count / 50);
  EXPECT_GT(cmd, count);
  EXPECT_GT(func, count / 10);
  EXPECT_GT(lists, count / 10);
  EXPECT_NE(image.find("\\:"), std::string::npos);   // escaped colons
  EXPECT_NE(image.find("\\\""), std::string::npos);  // escaped quotes
}

}  // namespace
