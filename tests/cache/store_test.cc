// The cache store: the hash function, chains, duplicates, statuses, counters.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "qd.h"
#include "sandbox.h"
#include "trace_capture.h"

using testing_support::Sandbox;

namespace {

class Store : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(QDcache_hash_init(), 0); }
  void TearDown() override {
    while (qdcache_ocp->next != qdcache_ocp) QDcache_rmobj(qdcache_ocp->next);
    free(qdchash_tbl);
    qdchash_tbl = nullptr;
  }
  static oce *Add(const char *alias, std::initializer_list<std::pair<const char *, const char *>> pairs,
                  unsigned char status = 1) {
    KeywordList *list = CreateKeywordList();
    for (auto &p : pairs) AddKeywordToList(list, p.first, p.second);
    oce *e = QDcache_addalias(alias, list, status);
    DestroyKeywordList(list);
    return e;
  }
  static oce *Last() { return qdcache_ocp->prev; }
};

TEST_F(Store, TheCharacterSumHash) {
  EXPECT_EQ(QDcache_hash("abc") - qdchash_tbl, 38);
  EXPECT_EQ(QDcache_hash("") - qdchash_tbl, 0);
  EXPECT_EQ(QDcache_hash("cba"), QDcache_hash("abc"));
  // 0xE9 counts as -23: "a\xE9" sums to 97 - 23 = 74.
  EXPECT_EQ(QDcache_hash("a\xE9") - qdchash_tbl, 74);
  EXPECT_EQ(QDcache_hash("\xE9") - qdchash_tbl, (0u - 23u) % 128u);
}

TEST_F(Store, OneBucketHoldsEveryAliasInOneChain) {
  qdc_rc.aliashashsize = 1;
  free(qdchash_tbl);  // the fixture's table, still empty
  ASSERT_EQ(QDcache_hash_init(), 0);
  for (int i = 0; i < 50; ++i) Add(("alias" + std::to_string(i)).c_str(), {});
  EXPECT_EQ(qdcache_info[10], 50u);
  oce *head = &qdchash_tbl[0];
  int n = 0;
  for (oce *p = head->hnext; p != head; p = p->hnext) ++n;
  EXPECT_EQ(n, 50);
  EXPECT_STREQ(QDcache_hash_lookup("alias17")->objptr->alias, "alias17");
}

TEST_F(Store, AnagramsShareAChainInLoadOrder) {
  oce *ab = Add("ab", {});
  oce *ba = Add("ba", {});
  oce *head = QDcache_hash("ab");
  EXPECT_EQ(head->hnext, ab);
  EXPECT_EQ(ab->hnext, ba);
  EXPECT_EQ(ba->hnext, head);
  EXPECT_EQ(QDcache_hash_lookup("ab"), ab);
  EXPECT_EQ(QDcache_find_alias("ba"), ba);
  EXPECT_EQ(QDcache_hash_lookup("aa"), nullptr);
}

TEST_F(Store, ASecondEntryOfAnAliasIsQueuedButNeverChained) {
  oce *first = Add("dup", {{"n", "1"}});
  oce *returned = Add("dup", {{"n", "2"}});
  EXPECT_EQ(returned, first);
  oce *second = Last();
  EXPECT_NE(second, first);
  EXPECT_EQ(second->hnext, second);
  EXPECT_EQ(QDcache_dump_aliases(), 2);
  EXPECT_EQ(QDcache_hash_lookup("dup"), first);
  QDcache_rmobj(first);
  EXPECT_EQ(QDcache_hash_lookup("dup"), nullptr);
  EXPECT_EQ(QDcache_dump_aliases(), 1);
  QDcache_rmobj(second);
  EXPECT_EQ(QDcache_dump_aliases(), 0);
}

TEST_F(Store, StatusAndStampsFromTheObject) {
  oce *plain = Add("plain", {{"class", "disk"}});
  EXPECT_EQ(plain->status, OCE_ACTIVE);
  EXPECT_EQ(plain->accesstime.tm_mday, 0);
  EXPECT_EQ(plain->modifytime.tm_mday, 0);

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
  EXPECT_EQ(fresh->accesstime.tm_year, 120);
  EXPECT_EQ(fresh->modifytime.tm_year, 120);
}

TEST_F(Store, AddingFromPairsSplitsMethodsAndBlanksNonPrintingBytes) {
  KeywordList *list = CreateKeywordList();
  AddKeywordToList(list, "desc", "tab\there\nand\x7f\xe9");
  AddKeywordToList(list, "upcmd", "ifconfig up");
  AddKeywordToList(list, "statfunc", "diskstat");
  oce *e = QDcache_addalias("net0", list, 1);
  char *kw, *value;
  ASSERT_EQ(ReferenceKeywordInList(e->objptr->attributes, "desc", &kw, &value), 0);
  EXPECT_STREQ(value, "tab here and  ");
  ASSERT_EQ(ReferenceKeywordInList(list, "desc", &kw, &value), 0);
  EXPECT_STREQ(value, "tab here and  ") << "cleaned in the caller's list too";
  EXPECT_EQ(NumberOfKeywords(e->objptr->methods), 2);
  EXPECT_EQ(NumberOfKeywords(e->objptr->attributes), 1);
  DestroyKeywordList(list);
}

TEST_F(Store, EmptyQueueAndTheUsageReport) {
  Sandbox box;
  TraceCapture trace(box, 8);
  EXPECT_EQ(QDcache_dump_aliases(), 0);
  EXPECT_FALSE(trace.Has("QDcache_dump_aliases"));
  Add("x", {});
  QDcache_find_alias("x");
  QDcache_show_info();
  EXPECT_TRUE(trace.Has("QDcache: QDcache_flush:  usage counts"));
  EXPECT_TRUE(trace.Has("    QDcache_find_alias             1\n"));
  EXPECT_TRUE(trace.Has("    hash_lookup                    1\n"));
  EXPECT_TRUE(trace.Has("    QDcache_addobj                 1\n"));
  EXPECT_TRUE(trace.Has("Object added (original): x"));
}

}  // namespace
