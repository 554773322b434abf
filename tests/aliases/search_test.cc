// Searching with criteria groups, NOT lists and filters: the same calls give
// the same objects with the same attributes, in the same order, whether the
// walk reads the table file or the cache.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "qd.h"
#include "trace_capture.h"

using testing_support::Sandbox;

namespace {

using Pairs = std::vector<std::pair<const char *, const char *>>;  // a null value: none
using V = std::vector<std::string>;

KeywordList *List(const Pairs &pairs) {
  KeywordList *l = CreateKeywordList();
  for (const auto &p : pairs) AddKeywordToList(l, p.first, p.second);
  return l;
}

// The objects found, as "alias|name=value,...|name=value,..." with the
// filtered attributes and methods, sorted (the cache keeps its own order),
// and without the empty device fields that only the table file has; or as
// the aliases alone.
V Found(short type, const Pairs *must, const Pairs *must_not, const char *filter, bool with_lists = false) {
  SearchCriteria_t *c = CreateSearchCriteria(type, QD_ONE_LEVEL);
  if (must != nullptr) AddKeyListToSearch(c, List(*must));
  if (must_not != nullptr) AddNotKeyListToSearch(c, List(*must_not));
  ObjectList *found = QDsearchaliases(c, filter);
  V out;
  for (ObjectList *n = found; n != nullptr; n = n->next) {
    std::string s = n->Object->alias;
    for (KeywordList *l : {n->Object->attributes, n->Object->methods}) {
      if (!with_lists) break;
      V pairs;
      for (char *k, *v; l != nullptr && ReferenceNextKeywordInList(l, &k, &v) != KWL_END;)
        if (*v != '\0' || (strcmp(k, "cdevice") != 0 && strcmp(k, "bdevice") != 0)) pairs.push_back(std::string(k) + "=" + v);
      std::sort(pairs.begin(), pairs.end());
      s += l == nullptr ? "|-" : "|";
      for (const std::string &p : pairs) s += p + ",";
    }
    out.push_back(s);
  }
  EXPECT_EQ(DestroyObjectList(found), 0);
  DestroySearchCriteria(c);
  return out;
}

class Search : public testing::TestWithParam<bool> {  // the cache on or off
 protected:
  void SetUp() override {
    box_.WriteTable(
        "a:::: type=\"disk\" group=\"a,b,c\"\n"
        "b:::: type=\"disk\" removable=\"yes\"\n"
        "c:::: removable=\"no\" type=\"disk\"\n"
        "d:::: type=\"tape\" removable=\"\"\n"
        "e:::: type=\"disk\" removable=\"\" upcmd=\"up\" group=\"x\"\n");
    if (GetParam()) {
      ASSERT_EQ(QDcache_load(), 0);
    }
  }
  Sandbox box_;
};

TEST_P(Search, TheRulesOfMatching) {
  const Pairs disk = {{"type", "disk"}}, yes = {{"removable", "yes"}}, none = {{"removable", nullptr}},
              b = {{"group", "b"}}, two = {{"type", "disk"}, {"type", "tape"}}, empty = {},
              tape_or_b = {{"type", "tape"}, {"group", "b"}};
  struct Case {
    short type;
    const Pairs *must, *must_not;
    V found;
  } cases[] = {
      // a lacks removable (the remainder rule), b fails it, c and e meet
      // both where the count reaches two; newest match first
      {QD_MATCH_ALL, &disk, &yes, {"e", "c", "a"}},
      {QD_MATCH_ALL, &b, nullptr, {"a"}},                 // an item of a comma list
      {QD_MATCH_ALL, &none, nullptr, {"e", "d"}},          // without a value: an empty one
      {QD_MATCH_ALL, nullptr, &none, {"c", "b", "a"}},     // NOT without a value: a non-empty one
      {QD_MATCH_ALL, &two, nullptr, {}},                   // both never hold
      {QD_MATCH_ANY, &tape_or_b, &yes, {"e", "d", "c", "a"}},  // one suffices; b fails its NOT
      {QD_MATCH_ALL, &empty, &empty, {"e", "d", "c", "b", "a"}},  // nothing to meet
  };
  for (const Case &c : cases) EXPECT_EQ(Found(c.type, c.must, c.must_not, ",,,"), c.found) << &c - cases;
}

TEST_P(Search, TheFilterAndStaleObjects) {
  const Pairs disk = {{"type", "disk"}}, yes = {{"removable", "yes"}};
  // ",,," keeps every pair, those before the match too; a filter naming
  // only methods leaves no attribute list.
  EXPECT_EQ(Found(QD_MATCH_ALL, &disk, &yes, ",,,", true),
            (V{"e|group=x,pathname=,removable=,type=disk,|upcmd=up,", "c|pathname=,removable=no,type=disk,|-",
               "a|group=a,b,c,pathname=,type=disk,|-"}));
  EXPECT_EQ(Found(QD_MATCH_ALL, &disk, &yes, "upcmd", true), (V{"e|-|upcmd=up,", "c|-|-", "a|-|-"}));
  EXPECT_EQ(Found(QD_MATCH_ALL, &disk, &yes, "group,nosuch", true), (V{"e|group=x,|-", "c|-|-", "a|group=a,b,c,|-"}));
  if (!GetParam()) return;
  // With the cache on and time stamps in use, objects the run has not
  // touched are stale, and left out unless qd_stale is set.
  QDcache_free();
  box_.WriteTable("old:::: type=\"disk\" ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\"\nnew:::: type=\"disk\"\n");
  setenv("QD_TIMESTAMP", "0126,10,22,10,00,00,0,325,00", 1);
  ASSERT_EQ(QDcache_load(), 0);
  EXPECT_EQ(Found(QD_MATCH_ALL, &disk, nullptr, nullptr), V{"new"});
  qd_stale = 1;
  EXPECT_EQ(Found(QD_MATCH_ALL, &disk, nullptr, nullptr), (V{"new", "old"}));
}

INSTANTIATE_TEST_SUITE_P(CacheOffAndOn, Search, testing::Bool());

TEST(SearchCriteria, BadRecordsAndArgumentsAreRefusedAndSaySo) {
  Sandbox box;
  TraceCapture trace(box, 3);
  EXPECT_EQ(CreateSearchCriteria(QD_MATCH_ALL, QD_MANY_LEVELS), nullptr);
  EXPECT_EQ(QDsearchaliases(nullptr, ",,,"), nullptr);
  SearchCriteria_t *c = CreateSearchCriteria(7, QD_ONE_LEVEL);
  EXPECT_EQ(QDsearchaliases(c, ",,,"), nullptr);  // no lists
  EXPECT_EQ(AddKeyListToSearch(c, List({{"type", "disk"}})), 0);
  KeywordList *again = List({});
  EXPECT_EQ(AddKeyListToSearch(c, again), -1);
  EXPECT_EQ(QDsearchaliases(c, ",,,"), nullptr);  // search type 7
  c->search_type = QD_MATCH_ALL;
  c->group->GroupType = QD_MANY_LEVELS;
  EXPECT_EQ(AddNotKeyListToSearch(c, again), -1);
  EXPECT_EQ(QDsearchaliases(c, ",,,"), nullptr);
  DestroyKeywordList(again);
  DestroySearchCriteria(c);
  DestroySearchCriteria(nullptr);
  EXPECT_TRUE(trace.Has("search type 7 is invalid\n") && trace.Has("Already has a keywordlist.\n"));
  setenv("TAV_DEVTAB", box.Path("none/units.tab").c_str(), 1);
  const Pairs disk = {{"type", "disk"}};
  EXPECT_EQ(Found(QD_MATCH_ALL, &disk, nullptr, ",,,"), V{});
}

}  // namespace
