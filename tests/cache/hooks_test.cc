// The cache hooks: writing into cached objects, touching and updating them,
// the list hooks and the cache cursor.
#include <gtest/gtest.h>

#include "cache_fixture.h"
#include "trace_capture.h"

namespace {

class Hooks : public CacheTest {
 protected:
  void SetUp() override {
    CacheTest::SetUp();
    setenv("QD_TIMESTAMP", "0126,10,22,10,00,00,0,325,00", 1);
    ASSERT_EQ(QDcache_load(), 0);
  }
  int Put(const char *alias, KeywordList *list) {
    int rc = QDcache_hook_QDLput(alias, list);
    DestroyKeywordList(list);
    return rc;
  }
};

TEST_F(Hooks, APutOfANewAliasCreatesAnUpdatedEntry) {
  ASSERT_EQ(Put("net9", List({{"class", "network"}, {"upcmd", "ifconfig net9 up"}})), 0);
  oce *e = QDcache_find_alias("net9");
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(e->status, OCE_ACTIVE | OCE_UPDATED);
  EXPECT_EQ(Pairs(e->objptr->methods), (std::map<std::string, std::string>{{"upcmd", "ifconfig net9 up"}}));
  EXPECT_EQ(e->accesstime.tm_year, 126);
  EXPECT_TRUE(Archived().empty()) << "a new object has no old state to archive";
}

TEST_F(Hooks, AnUnchangedPutOnlyTouches) {
  ASSERT_EQ(Put("tape0", List({{"class", "tape"}, {"state", "online"}})), 0);
  oce *e = QDcache_find_alias("tape0");
  EXPECT_EQ(e->status, OCE_ACTIVE);
  EXPECT_EQ(e->accesstime.tm_year, 126);
  EXPECT_TRUE(Archived().empty());
}

TEST_F(Hooks, FromTheFirstChangeOnEveryPairIsWrittenAndTheOldObjectArchivedOnce) {
  oce *e = QDcache_find_alias("tty02");
  // "parity" is unchanged and left alone; "speed" changes; "flow" is
  // written again although equal; a tab and a 0xA0 byte become blanks.
  ASSERT_EQ(Put("tty02", List({{"parity", "none"}, {"speed", "57600"}, {"flow", "xonxoff"},
                               {"desc", "a\tb\xa0"}})), 0);
  EXPECT_EQ(e->status, OCE_ACTIVE | OCE_UPDATED);
  EXPECT_EQ(Attr("tty02", "speed"), "57600");
  EXPECT_EQ(Attr("tty02", "desc"), "a b ");
  EXPECT_NE(Attr("tty02", "ObjModifyTime"), "<none>");
  ASSERT_EQ(Put("tty02", List({{"speed", "9600"}})), 0);
  std::vector<std::string> files = Archived();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(files[0], "2026:11:22:10:00:00/tty02");
  std::string copy = testing_support::ReadFile(box_.Path("archive/" + files[0]));
  EXPECT_EQ(copy.substr(0, 12), "alias=tty02\n");
  EXPECT_NE(copy.find("speed=38400\n"), std::string::npos) << "the copy holds the old state";
}

// A cached object's lists lie in the cache's own memory: changing them over
// and over grows them into blocks of their own and packs them, and neither
// loses or corrupts a pair (run under ASan in the check build).
TEST_F(Hooks, ObjectsChangedOverAndOverKeepEveryPair) {
  std::map<std::string, std::string> before = Pairs(QDcache_find_alias("disk1")->objptr->attributes);
  for (int i = 0; i < 3000; ++i) {
    std::string value(static_cast<size_t>(i % 200), static_cast<char>('a' + i % 26));
    ASSERT_EQ(Put("disk1", List({{"state", value.c_str()}, {"scratch", std::to_string(i).c_str()}})), 0);
    if (i % 3 == 0) RemoveKeywordFmList(QDcache_find_alias("disk1")->objptr->attributes, "scratch");
  }
  std::map<std::string, std::string> after = Pairs(QDcache_find_alias("disk1")->objptr->attributes);
  EXPECT_EQ(after["state"], std::string(2999 % 200, static_cast<char>('a' + 2999 % 26)));
  EXPECT_EQ(after["scratch"], "2999");
  for (const auto &p : before) {
    if (p.first != "state" && p.first != "ObjTimestamp" && p.first != "ObjModifyTime") {
      EXPECT_EQ(after[p.first], p.second) << p.first;
    }
  }
  QDcache_free();
  ASSERT_EQ(QDcache_load(), 0);
  EXPECT_EQ(Attr("disk1", "state"), "online") << "a reload starts from the table";
}

TEST_F(Hooks, StaleEntriesAreLeftOutOfCriteriaListsOnly) {
  QDcache_free();
  box_.WriteTable("old:::: class=\"disk\" ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\"\n"
                  "new:::: class=\"disk\"\n");
  ASSERT_EQ(QDcache_load(), 0);
  KeywordList *criteria = List({{"class", "disk"}});
  AliasList *some = nullptr;
  QDcache_hook_GetSpecificAliases(&some, criteria);
  ASSERT_NE(some, nullptr);
  EXPECT_STREQ(some->alias, "new");
  EXPECT_EQ(some->next, nullptr);
  QDFreeAliasList(some);
  some = nullptr;
  AliasList *all = nullptr;
  QDcache_hook_GetAllAliases(&all, nullptr);
  ASSERT_NE(all, nullptr);
  EXPECT_STREQ(all->alias, "old");
  ASSERT_NE(all->next, nullptr);
  QDFreeAliasList(all);
  qd_stale = 1;
  QDcache_hook_GetSpecificAliases(&some, criteria);
  ASSERT_NE(some, nullptr);
  EXPECT_NE(some->next, nullptr) << "with qd_stale both";
  QDFreeAliasList(some);
  DestroyKeywordList(criteria);
}

TEST_F(Hooks, EveryCriterionMustHold) {
  KeywordList *criteria = List({{"class", "serial"}, {"speed", "9600"}});
  AliasList *got = nullptr;
  QDcache_hook_GetSpecificAliases(&got, criteria);
  std::vector<std::string> aliases;
  for (AliasList *n = got; n; n = n->next) aliases.push_back(n->alias);
  QDFreeAliasList(got);
  EXPECT_EQ(aliases, (std::vector<std::string>{"console", "tty04", "tty00"}));
  AliasList *candidates = nullptr;
  QDcache_hook_GetAllAliases(&candidates, nullptr);
  AliasList *matched = QDcache_hook_QDmatchalias(criteria, candidates);
  aliases.clear();
  for (AliasList *n = matched; n; n = n->next) aliases.push_back(n->alias);
  EXPECT_EQ(aliases, (std::vector<std::string>{"console", "tty04", "tty00"}));
  QDFreeAliasList(matched);
  QDFreeAliasList(candidates);
  DestroyKeywordList(criteria);
}

TEST_F(Hooks, TheCacheCursorWalksAttributesThenMethodsThenStartsAgain) {
  QDcache_free();
  box_.WriteTable("one:/c::: x=\"1\" y=\"2\" mcmd=\"m\"\n");
  ASSERT_EQ(QDcache_load(), 0);
  std::vector<std::string> seen;
  char *a, *n, *v;
  for (int i = 0; i < 8; ++i) {
    int st = CachedReferenceNextAttribute(&a, &n, &v);
    seen.push_back(st == KWL_END ? "END" : std::string(a) + ":" + n + "=" + v);
  }
  EXPECT_EQ(seen, (std::vector<std::string>{"one:y=2", "one:x=1", "one:pathname=", "one:cdevice=/c",
                                            "one:mcmd=m", "END", "one:y=2", "one:x=1"}));
}

TEST_F(Hooks, DuplicatesAreCaughtAndTheTreeLeftEmpty) {
  KeywordList *l = List({{"type", "a"}, {"desc", "b"}, {"type", "c"}});
  EXPECT_EQ(QDcache_check_duplicates(l), -1);
  EXPECT_EQ(report_root, nullptr);
  RemoveDuplicateKeywordFmList(l);
  EXPECT_EQ(QDcache_check_duplicates(l), 0);
  DestroyKeywordList(l);
}

TEST_F(Hooks, QueriesAnswerFromTheCacheWithoutCommands) {
  setenv("PATH", "/nonexistent", 1);  // no device command can run now
  NameValue *nv = QDgetattr("disk0", "desc");
  ASSERT_NE(nv, nullptr);
  EXPECT_STREQ(nv->value, "SCSI disk 0: 9.1 GB");
  free(nv);
  KeywordList *methods = QDgetmethods("net1");
  ASSERT_NE(methods, nullptr);
  EXPECT_EQ(NumberOfKeywords(methods), 3);
  DestroyKeywordList(methods);
  EXPECT_EQ(QDdelete("lp0"), 0);
  EXPECT_EQ(QDcache_find_alias("lp0"), nullptr);
  EXPECT_EQ(QDdelete("lp0"), 3);
}

}  // namespace
