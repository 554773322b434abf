// Listing, matching, walking and searching aliases, against real tables and
// the real unitlist (or, where its command line is the subject, a stand-in),
// with the cache off and on.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "list_util.h"
#include "qd.h"
#include "trace_capture.h"

using pvtest::Take;
using testing_support::ReadFile;
using testing_support::Sandbox;
using V = std::vector<std::string>;
using Criteria = std::vector<std::pair<std::string, const char *>>;  // a null value: none

namespace {

KeywordList *Items(const Criteria &pairs) {
  KeywordList *l = CreateKeywordList();
  for (const auto &p : pairs) AddKeywordToList(l, p.first.c_str(), p.second);
  return l;
}

V Match(const Criteria &criteria, const V &candidates) {
  AliasList *cand = pvtest::Chain(candidates);
  V result = Take(QDmatchalias(pvtest::List(Items(criteria)).get(), cand));
  QDFreeAliasList(cand);
  return result;
}

// No criteria at all (not an empty list): every alias.
V Aliases(const Criteria &criteria) {
  return Take(QDgetaliases(pvtest::List(criteria.empty() ? nullptr : Items(criteria)).get()));
}

TEST(QDmatchalias, MatchingRules) {
  Sandbox box;
  box.WriteTable(
      "a:::: proto=\"ip,arp,ipx\" class=\"net\"\n"
      "b:::: proto=\"ip\" class=\"net\"\n"
      "c:::: class=\"net\" proto=\"arp,ip\"\n"
      "d:::: class=\"disk\"\n"
      "twice:::: class=\"net\" class=\"disk\"\n"
      "twiceback:::: class=\"disk\" class=\"net\"\n");
  const std::tuple<Criteria, V, V> cases[] = {
      // every item of the criterion, in any order, among the entry's items
      {{{"proto", "ip,arp"}}, {"a", "b", "c", "d"}, {"c", "a"}},
      // reverse table order, whatever the candidates' order; each once
      {{{"class", "net"}}, {"c", "b", "a", "b"}, {"c", "b", "a"}},
      // a repeated attribute: met at its first line, or failed at it
      {{{"class", "net"}}, {"twice", "twiceback"}, {"twice"}},
      // no criteria: every candidate with an entry
      {{}, {"d", "nosuch", "a"}, {"d", "a"}},
      // an empty criterion value is met by any value
      {{{"class", ""}}, {"a", "d"}, {"d", "a"}},
      // an entry lacking a criteria attribute is never accepted
      {{{"proto", "ip"}, {"class", "net"}}, {"a", "d"}, {"a"}},
      {{{"class", "net"}}, {}, {}},
  };
  for (const auto &c : cases) EXPECT_EQ(Match(std::get<0>(c), std::get<1>(c)), std::get<2>(c));
  setenv("TAV_DEVTAB", box.Path("none/units.tab").c_str(), 1);
  EXPECT_EQ(Match({{"class", "net"}}, {"a"}), V{});
}

TEST(QDgetaliases, EveryAliasOrThoseMeetingCriteriaStaleOnesOnlyWhenAsked) {
  Sandbox box;
  V all = Aliases({});
  ASSERT_EQ(all.size(), 32u);
  EXPECT_EQ(all.front() + all.back(), "disk0floppy0");
  EXPECT_EQ(Aliases({{"class", "floppy"}}), V{});
  EXPECT_EQ(Aliases({{"class", "serial"}, {"flow", "rtscts"}}), (V{"tty07", "tty05", "tty03", "tty01"}));
  qd_stale = 1;
  EXPECT_EQ(Aliases({{"class", "floppy"}}), V{"floppy0"});
}

TEST(QDgetaliases, CriteriaReachUnitlistAsAttributeTestsOrAreRefused) {
  Sandbox box;
  std::string log = testing_support::FakeCommand(box, "unitlist", "echo disk0\necho tape0");
  TraceCapture trace(box, 8);
  Aliases({{"class", "disk"}, {"two words", "x"}});
  qd_stale = 1;
  Aliases({{"class", "disk"}, {"two words", "x"}});
  EXPECT_EQ(ReadFile(log), "<-a><class:*><two words:*><alias_status!:*>\n<-a><class:*><two words:*>\n");
  Criteria many;
  for (int i = 0; i < 300; ++i) many.push_back({"attribute" + std::to_string(i), "v"});
  for (const Criteria &refused : {many, Criteria{{"a=b", "x"}}, {{"a:b", "x"}}, {{"not!", "x"}}, {{"-v", "x"}}})
    EXPECT_EQ(Aliases(refused), V{});
  std::string calls = ReadFile(log);
  EXPECT_EQ(std::count(calls.begin(), calls.end(), '\n'), 2) << "unitlist ran";
  EXPECT_TRUE(trace.Has("command line too long") && trace.Has("criteria keyword holds '=', ':' or a final '!'"));
}

TEST(QDnextalias, WalksAClassInTheMatchingsOrder) {
  Sandbox box;
  const std::tuple<const char *, const char *, const char *> cases[] = {
      {"tape", nullptr, "tape1"}, {"tape", "tape1", "tape0"}, {"tape", "tape0", nullptr},
      {"tape", "disk0", nullptr}, {"nosuchclass", nullptr, nullptr},
  };
  for (const auto &c : cases) {
    char *a = QDnextalias(std::get<0>(c), std::get<1>(c));
    EXPECT_STREQ(a, std::get<2>(c)) << std::get<0>(c) << " after " << (std::get<1>(c) ? std::get<1>(c) : "-");
    free(a);
  }
}

using Pairs = Criteria;

// The objects found, as "alias|name=value,...|name=value,..." with the
// filtered attributes and methods, sorted (the cache keeps its own order),
// and without the empty device fields that only the table file has; or as
// the aliases alone.
V Found(short type, const Pairs *must, const Pairs *must_not, const char *filter, bool with_lists = false) {
  SearchCriteria_t *c = CreateSearchCriteria(type, QD_ONE_LEVEL);
  if (must != nullptr) AddKeyListToSearch(c, Items(*must));
  if (must_not != nullptr) AddNotKeyListToSearch(c, Items(*must_not));
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
  struct Case { short type; const Pairs *must, *must_not; V found; } cases[] = {
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
  // Traced at level 8 the walk takes the cursor's own path, pair by pair;
  // the outcome, and the cursor's usage count, must not change.
  TraceCapture trace(box_, 0);
  unsigned long counted[2] = {};
  for (int level : {0, 8}) {
    vcel_verbose_level = level;
    unsigned long before = qdcache_info[13];
    for (const Case &c : cases) EXPECT_EQ(Found(c.type, c.must, c.must_not, ",,,"), c.found) << &c - cases << level;
    counted[level / 8] = qdcache_info[13] - before;
  }
  EXPECT_EQ(counted[0], counted[1]);
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
  // The filter reads a name past its blanks, as IsInCommaList does.
  AddKeywordToList(QDcache_find_alias("c")->objptr->attributes, " group", "y");
  EXPECT_EQ(Found(QD_MATCH_ALL, &disk, &yes, "group", true), (V{"e|group=x,|-", "c| group=y,|-", "a|group=a,b,c,|-"}));
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
  EXPECT_EQ(AddKeyListToSearch(c, Items({{"type", "disk"}})), 0);
  KeywordList *again = Items({});
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
