// Listing, matching and walking aliases, against real tables and the real
// unitlist (or, where its command line is the subject, a stand-in).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "qd.h"
#include "sandbox.h"
#include "trace_capture.h"

using testing_support::ReadFile;
using testing_support::Sandbox;
using testing_support::WriteFile;

namespace {

std::vector<std::string> Take(AliasList *list) {
  std::vector<std::string> v;
  for (AliasList *n = list; n != nullptr; n = n->next) v.push_back(n->alias);
  QDFreeAliasList(list);
  return v;
}

AliasList *Make(const std::vector<std::string> &aliases) {
  AliasList *head = nullptr;
  for (auto it = aliases.rbegin(); it != aliases.rend(); ++it) {
    auto *n = static_cast<AliasList *>(malloc(sizeof(AliasList)));
    *n = {strdup(it->c_str()), head};
    head = n;
  }
  return head;
}

KeywordList *Criteria(const std::vector<std::pair<std::string, std::string>> &pairs) {
  KeywordList *list = CreateKeywordList();
  for (const auto &p : pairs) AddKeywordToList(list, p.first.c_str(), p.second.c_str());
  return list;
}

std::vector<std::string> Match(const std::vector<std::pair<std::string, std::string>> &criteria,
                               const std::vector<std::string> &candidates) {
  KeywordList *c = Criteria(criteria);
  AliasList *cand = Make(candidates);
  auto result = Take(QDmatchalias(c, cand));
  QDFreeAliasList(cand);
  DestroyKeywordList(c);
  return result;
}

using V = std::vector<std::string>;

TEST(QDgetaliases, WithoutCriteriaEveryAliasInTableOrder) {
  Sandbox box;
  V all = Take(QDgetaliases(nullptr));
  ASSERT_EQ(all.size(), 32u);
  EXPECT_EQ(all.front(), "disk0");
  EXPECT_EQ(all.back(), "floppy0");
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
  struct Case {
    std::vector<std::pair<std::string, std::string>> criteria;
    V candidates, expect;
  } cases[] = {
      // every item of the criterion, in any order, among the entry's items
      {{{"proto", "ip,arp"}}, {"a", "b", "c", "d"}, {"c", "a"}},
      // reverse table order, whatever the candidates' order
      {{{"class", "net"}}, {"c", "b", "a"}, {"c", "b", "a"}},
      {{{"class", "net"}}, {"a", "c"}, {"c", "a"}},
      // a candidate listed twice is accepted once
      {{{"class", "net"}}, {"b", "b"}, {"b"}},
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
  for (const Case &c : cases) EXPECT_EQ(Match(c.criteria, c.candidates), c.expect);
}

TEST(QDmatchalias, AMissingTableGivesNothingAndSaysSo) {
  Sandbox box;
  TraceCapture trace(box, 0);
  setenv("TAV_DEVTAB", box.Path("none/units.tab").c_str(), 1);
  EXPECT_EQ(Match({{"class", "net"}}, {"a"}), V{});
}

// A unitlist that records its arguments and prints two aliases.
void FakeUnitlist(const Sandbox &box) {
  testing_support::FakeCommand(box, "unitlist", "echo disk0\necho tape0");
}

TEST(QDgetaliases, CriteriaReachUnitlistAsAttributeTests) {
  Sandbox box;
  FakeUnitlist(box);
  TraceCapture trace(box, 8);
  KeywordList *c = Criteria({{"class", "disk"}, {"two words", "x"}});
  Take(QDgetaliases(c));
  qd_stale = 1;
  Take(QDgetaliases(c));
  DestroyKeywordList(c);
  EXPECT_EQ(ReadFile(box.Path("unitlist.log")),
            "<-a><class:*><two words:*><alias_status!:*>\n"
            "<-a><class:*><two words:*>\n");
  EXPECT_TRUE(trace.Has("GetAllAliases(0,  -a class:\\* 'two words':\\* alias_status!:\\*)"))
      << trace.Text();
}

TEST(QDgetaliases, CriteriaUnitlistCannotTakeAreRefused) {
  Sandbox box;
  FakeUnitlist(box);
  TraceCapture trace(box, 3);
  std::vector<std::pair<std::string, std::string>> many;
  for (int i = 0; i < 300; ++i) many.push_back({"attribute" + std::to_string(i), "v"});
  for (const auto &criteria : std::vector<std::vector<std::pair<std::string, std::string>>>{
           many, {{"a=b", "x"}}, {{"a:b", "x"}}, {{"not!", "x"}}, {{"-v", "x"}}}) {
    KeywordList *c = Criteria(criteria);
    EXPECT_EQ(QDgetaliases(c), nullptr);
    DestroyKeywordList(c);
  }
  EXPECT_EQ(access(box.Path("unitlist.log").c_str(), F_OK), -1) << "unitlist ran";
  EXPECT_TRUE(trace.Has("command line too long"));
  EXPECT_TRUE(trace.Has("criteria keyword holds '=', ':' or a final '!'"));
}

TEST(QDgetaliases, CriteriaQueriesLeaveOutEntriesWithAliasStatusUnlessStaleIsSet) {
  Sandbox box;
  KeywordList *c = Criteria({{"class", "floppy"}});
  EXPECT_EQ(Take(QDgetaliases(c)), V{});
  qd_stale = 1;
  EXPECT_EQ(Take(QDgetaliases(c)), V{"floppy0"});
  DestroyKeywordList(c);
  c = Criteria({{"class", "serial"}, {"flow", "rtscts"}});
  qd_stale = 0;
  EXPECT_EQ(Take(QDgetaliases(c)), (V{"tty07", "tty05", "tty03", "tty01"}));
  DestroyKeywordList(c);
}

std::string Next(const char *cls, const char *current) {
  char *a = QDnextalias(cls, current);
  std::string s = a ? a : "<null>";
  free(a);
  return s;
}

TEST(QDnextalias, WalksAClass) {
  Sandbox box;
  // The matching gives the class in reverse table order.
  EXPECT_EQ(Next("tape", nullptr), "tape1");
  EXPECT_EQ(Next("tape", "tape1"), "tape0");
  EXPECT_EQ(Next("tape", "tape0"), "<null>");
  EXPECT_EQ(Next("tape", "disk0"), "<null>");
  EXPECT_EQ(Next("nosuchclass", nullptr), "<null>");
}

TEST(MeetCriteria, TellsCriteriaFromOtherAttributes) {
  KeywordList *c = Criteria({{"proto", "ip, arp"}});
  EXPECT_EQ(MeetCriteria(c, "proto", "arp,ip,ipx"), 1);
  EXPECT_EQ(MeetCriteria(c, "proto", "ip"), -1);
  EXPECT_EQ(MeetCriteria(c, "class", "anything"), 0);
  DestroyKeywordList(c);
}

}  // namespace
