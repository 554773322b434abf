// Listing, matching and walking aliases, against real tables and the real
// unitlist (or, where its command line is the subject, a stand-in).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "qd.h"
#include "trace_capture.h"

using testing_support::ReadFile;
using testing_support::Sandbox;
using V = std::vector<std::string>;
using Criteria = std::vector<std::pair<std::string, std::string>>;

namespace {

V Take(AliasList *list) {
  V v;
  for (AliasList *n = list; n != nullptr; n = n->next) v.push_back(n->alias);
  QDFreeAliasList(list);
  return v;
}

KeywordList *List(const Criteria &pairs) {
  KeywordList *list = CreateKeywordList();
  for (const auto &p : pairs) AddKeywordToList(list, p.first.c_str(), p.second.c_str());
  return list;
}

V Match(const Criteria &criteria, const V &candidates) {
  AliasList *cand = nullptr;
  for (auto it = candidates.rbegin(); it != candidates.rend(); ++it) {
    auto *n = static_cast<AliasList *>(malloc(sizeof(AliasList)));
    *n = {strdup(it->c_str()), cand};
    cand = n;
  }
  KeywordList *c = List(criteria);
  V result = Take(QDmatchalias(c, cand));
  QDFreeAliasList(cand);
  DestroyKeywordList(c);
  return result;
}

// No criteria at all (not an empty list): every alias.
V Aliases(const Criteria &criteria) {
  KeywordList *c = criteria.empty() ? nullptr : List(criteria);
  V v = Take(QDgetaliases(c));
  DestroyKeywordList(c);
  return v;
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

}  // namespace
