// The cache store and its settings: the hash function, chains, duplicates,
// statuses, counters, and the settings file.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "cache_fixture.h"
#include "trace_capture.h"

namespace {

class Store : public CacheTest {
 protected:
  void SetUp() override { ASSERT_EQ(QDcache_hash_init(), 0); }
  void TearDown() override {
    while (qdcache_ocp->next != qdcache_ocp) QDcache_rmobj(qdcache_ocp->next);
    free(qdchash_tbl);
  }
  static oce *Add(const char *alias, std::initializer_list<std::pair<const char *, const char *>> pairs,
                  unsigned char status = 1) {
    KeywordList *list = List(pairs);
    oce *e = QDcache_addalias(alias, list, status);
    DestroyKeywordList(list);
    return e;
  }
};

TEST_F(Store, TheCharacterSumHashAndItsChains) {
  EXPECT_EQ(QDcache_hash("abc") - qdchash_tbl, 38);
  EXPECT_EQ(QDcache_hash("") - qdchash_tbl, 0);
  EXPECT_EQ(QDcache_hash("a\xE9") - qdchash_tbl, 74);  // 0xE9 counts as -23
  EXPECT_EQ(QDcache_hash("\xE9") - qdchash_tbl, (0u - 23u) % 128u);
  oce *ab = Add("ab", {});
  oce *ba = Add("ba", {});  // anagrams share a chain, in the order added
  oce *head = QDcache_hash("ab");
  EXPECT_TRUE(head->hnext == ab && ab->hnext == ba && ba->hnext == head);
  EXPECT_EQ(QDcache_find_alias("ba"), ba);
  EXPECT_EQ(QDcache_hash_lookup("aa"), nullptr);
  free(qdchash_tbl);
  qdc_rc.aliashashsize = 1;  // one bucket: one chain of every alias
  ASSERT_EQ(QDcache_hash_init(), 0);
  for (int i = 0; i < 50; ++i) Add(("alias" + std::to_string(i)).c_str(), {});
  EXPECT_EQ(qdcache_info[10], 50u);
  EXPECT_STREQ(QDcache_hash_lookup("alias17")->objptr->alias, "alias17");
}

TEST_F(Store, ASecondEntryOfAnAliasIsQueuedButNeverChained) {
  oce *first = Add("dup", {{"n", "1"}});
  EXPECT_EQ(Add("dup", {{"n", "2"}}), first);
  oce *second = qdcache_ocp->prev;
  EXPECT_TRUE(second != first && second->hnext == second);
  EXPECT_EQ(QDcache_dump_aliases(), 2);
  QDcache_rmobj(first);
  EXPECT_EQ(QDcache_hash_lookup("dup"), nullptr);
  EXPECT_EQ(QDcache_dump_aliases(), 1);
}

TEST_F(Store, StatusStampsAndCleanedValuesFromThePairs) {
  oce *plain = Add("plain", {{"class", "disk"}});
  EXPECT_EQ(plain->status, OCE_ACTIVE);
  EXPECT_EQ(plain->accesstime.tm_mday + plain->modifytime.tm_mday, 0);
  oce *stale = Add("stale", {{"ObjTimestamp", "0097,02,14,09,05,03,5,072,00"}});
  EXPECT_EQ(stale->status, 0);
  EXPECT_EQ(stale->accesstime.tm_mday, 14);
  EXPECT_EQ(QDcomparestamps(stale->accesstime, stale->modifytime), 0);
  oce *modified = Add("modified", {{"ObjTimestamp", "0097,02,14,09,05,03,5,072,00"},
                                   {"ObjModifyTime", "0096,00,02,00,00,00,2,001,00"}});
  EXPECT_EQ(modified->modifytime.tm_year, 96);
  QDsettime(QD_TS_STRING, const_cast<char *>("0120,05,01,12,00,00,1,152,01"));
  oce *fresh = Add("fresh", {{"ObjTimestamp", "0097,02,14,09,05,03,5,072,00"}}, OCE_ACTIVE | OCE_UPDATED);
  EXPECT_EQ(fresh->status, OCE_ACTIVE | OCE_UPDATED);
  EXPECT_EQ(fresh->accesstime.tm_year + fresh->modifytime.tm_year, 240);
  KeywordList *list = List({{"desc", "tab\there\nand\x7f\xe9"}, {"upcmd", "ifconfig up"}, {"statfunc", "s"}});
  oce *e = QDcache_addalias("net0", list, 1);
  EXPECT_EQ(Pairs(e->objptr->attributes), (std::map<std::string, std::string>{{"desc", "tab here and  "}}));
  EXPECT_EQ(Pairs(list)["desc"], "tab here and  ") << "cleaned in the caller's list too";
  EXPECT_EQ(NumberOfKeywords(e->objptr->methods), 2);
  DestroyKeywordList(list);
  TraceCapture trace(box_, 8);
  QDcache_find_alias("net0");
  QDcache_show_info();
  EXPECT_TRUE(trace.Has("QDcache: QDcache_flush:  usage counts") &&
              trace.Has("    QDcache_find_alias             1\n") && trace.Has("    QDcache_addobj                 5\n"))
      << trace.Text();
}

TEST_F(Store, TheSettingsFile) {
  TraceCapture trace(box_, 6);
  unsetenv("QD_EXPIRATION");
  auto read = [this](const std::string &text) {
    Settings(text);
    QDcache_read_rc();
  };
  read("aliashashsize=509\ndirectload=1\ndirectsave=0\nQD_EXPIRATION=30\n");
  EXPECT_EQ(qdc_rc.aliashashsize, 509u);
  EXPECT_EQ(qdcache_directload * 10 + qdcache_directsave, 10);
  EXPECT_STREQ(getenv("QD_EXPIRATION"), "30");
  EXPECT_TRUE(trace.Has("QDcache_read_rc: Set QD_EXPIRATION to 30 days") &&
              trace.Has("                 qdc_rc.aliashashsize  509") &&
              trace.Has("                 qdc_rc.directsave     OFF"));
  read("directload=0\ndirectload=\nQD_EXPIRATION=40\n");  // an empty value is skipped
  EXPECT_EQ(qdcache_directload, 0);
  EXPECT_STREQ(getenv("QD_EXPIRATION"), "30");
  EXPECT_TRUE(trace.Has("QDcache_read_rc: QD_EXPIRATION overridden in environment"));
  read("directload=2\naliashashsize=0\ndirectsave=257\n");  // nonzero is direct, though the trace says OFF
  EXPECT_EQ(qdcache_directload, 2);
  EXPECT_TRUE(trace.Has("                 qdc_rc.directload     OFF"));
  EXPECT_EQ(qdc_rc.aliashashsize * 10 + qdcache_directsave, 11u);  // 0 is kept as 1; the low 8 bits
  read("aliashashsize=junk\naliashashsize=64\nYRA_FW=demo\n");  // the later entry wins
  EXPECT_EQ(qdc_rc.aliashashsize, 64u);
  EXPECT_TRUE(trace.Has("QDcache_read_rc: unknown keyword 'YRA_FW'"));
  qdcache_directsave = 7;
  setenv("TAV_LIBQDRC", box_.Path("missing").c_str(), 1);
  QDcache_read_rc();
  EXPECT_EQ(qdcache_directsave, 7) << "the copies are not refreshed";
  EXPECT_TRUE(trace.Has("Cannot open QD library environment options path: " + box_.Path("missing")));
}

}  // namespace
