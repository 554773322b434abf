// The cache hooks: writing into cached objects, touching and updating them,
// the list hooks and the cache cursor.
#include <gtest/gtest.h>

#include "cache_fixture.h"
#include "trace_capture.h"

namespace {

using V = std::vector<std::string>;

V Take(AliasList *list) {
  V v;
  for (AliasList *n = list; n != nullptr; n = n->next) v.push_back(n->alias);
  QDFreeAliasList(list);
  return v;
}

class Hooks : public CacheTest {
 protected:
  void SetUp() override {
    setenv("QD_TIMESTAMP", "0126,10,22,10,00,00,0,325,00", 1);
    ASSERT_EQ(QDcache_load(), 0);
  }
  int Put(const char *alias, KeywordList *list) {
    int rc = QDcache_hook_QDLput(alias, list);
    DestroyKeywordList(list);
    return rc;
  }
  void Reload(const std::string &table) {
    QDcache_free();
    box_.WriteTable(table);
    ASSERT_EQ(QDcache_load(), 0);
  }
};

TEST_F(Hooks, PutsCreateTouchOrUpdateArchivingTheOldObjectOnce) {
  ASSERT_EQ(Put("net9", List({{"class", "network"}, {"upcmd", "ifconfig net9 up"}})), 0);
  oce *e = QDcache_find_alias("net9");
  EXPECT_EQ(e->status, OCE_ACTIVE | OCE_UPDATED);
  EXPECT_EQ(Pairs(e->objptr->methods), (std::map<std::string, std::string>{{"upcmd", "ifconfig net9 up"}}));
  EXPECT_EQ(e->accesstime.tm_year, 126);
  ASSERT_EQ(Put("tape0", List({{"class", "tape"}, {"state", "online"}})), 0);  // unchanged: only touched
  EXPECT_EQ(QDcache_find_alias("tape0")->status, OCE_ACTIVE);
  EXPECT_EQ(QDcache_find_alias("tape0")->accesstime.tm_year, 126);
  EXPECT_TRUE(Archived().empty()) << "a new or touched object has no old state to archive";
  // "parity" is unchanged and left alone; "speed" changes; "flow" is
  // written again although equal; a tab and a 0xA0 byte become blanks.
  ASSERT_EQ(Put("tty02", List({{"parity", "none"}, {"speed", "57600"}, {"flow", "xonxoff"}, {"desc", "a\tb\xa0"}})), 0);
  EXPECT_EQ(QDcache_find_alias("tty02")->status, OCE_ACTIVE | OCE_UPDATED);
  EXPECT_EQ(Attr("tty02", "speed") + "|" + Attr("tty02", "desc"), "57600|a b ");
  EXPECT_NE(Attr("tty02", "ObjModifyTime"), "<none>");
  ASSERT_EQ(Put("tty02", List({{"speed", "9600"}})), 0);
  ASSERT_EQ(Archived(), V{"2026:11:22:10:00:00/tty02"});
  std::string copy = testing_support::ReadFile(box_.Path("archive/2026:11:22:10:00:00/tty02"));
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
  for (const char *kept : {"class", "type", "cdevice", "desc"}) EXPECT_EQ(after[kept], before[kept]) << kept;
  Reload(testing_support::ReadFile(testing_support::SampleTablePath()));
  EXPECT_EQ(Attr("disk1", "state"), "online") << "a reload starts from the table";
}

TEST_F(Hooks, ListsLeaveOutStaleEntriesWhereAskedAndNeedEveryCriterion) {
  KeywordList *serial = List({{"class", "serial"}, {"speed", "9600"}});
  AliasList *got = nullptr;
  QDcache_hook_GetSpecificAliases(&got, serial);
  EXPECT_EQ(Take(got), (V{"console", "tty04", "tty00"}));
  AliasList *candidates = nullptr;
  QDcache_hook_GetAllAliases(&candidates, nullptr);
  EXPECT_EQ(Take(QDcache_hook_QDmatchalias(serial, candidates)), (V{"console", "tty04", "tty00"}));
  QDFreeAliasList(candidates);
  DestroyKeywordList(serial);
  Reload("old:::: class=\"disk\" ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\"\nnew:::: class=\"disk\"\n");
  KeywordList *disk = List({{"class", "disk"}});
  got = nullptr;
  QDcache_hook_GetSpecificAliases(&got, disk);
  EXPECT_EQ(Take(got), V{"new"});
  AliasList *all = nullptr;
  QDcache_hook_GetAllAliases(&all, nullptr);
  EXPECT_EQ(Take(all), (V{"old", "new"}));
  qd_stale = 1;
  got = nullptr;
  QDcache_hook_GetSpecificAliases(&got, disk);
  EXPECT_EQ(Take(got), (V{"new", "old"}));
  DestroyKeywordList(disk);
}

TEST_F(Hooks, TheCursorWalksAttributesThenMethodsThenStartsAgainDuplicatesAreCaught) {
  Reload("one:/c::: x=\"1\" y=\"2\" mcmd=\"m\"\n");
  V seen;
  char *a, *n, *v;
  for (int i = 0; i < 8; ++i)
    seen.push_back(CachedReferenceNextAttribute(&a, &n, &v) == KWL_END ? "END" : std::string(a) + ":" + n + "=" + v);
  EXPECT_EQ(seen, (V{"one:y=2", "one:x=1", "one:pathname=", "one:cdevice=/c", "one:mcmd=m", "END", "one:y=2", "one:x=1"}));
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
  EXPECT_EQ(NumberOfKeywords(methods), 3);
  DestroyKeywordList(methods);
  EXPECT_EQ(QDdelete("lp0"), 0);
  EXPECT_EQ(QDcache_find_alias("lp0"), nullptr);
  EXPECT_EQ(QDdelete("lp0"), 3);
}

}  // namespace
