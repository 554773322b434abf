// Loading the cache, directly from the table file or through the queries,
// and the report tree of unique keywords.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cache_fixture.h"
#include "table_gen.h"
#include "trace_capture.h"

namespace {

using V = std::vector<std::string>;

V Keys(KeywordList *list) {
  V keys;
  list->kwl_cursor = list->kwl_first;
  char *kw, *value;
  while (ReferenceNextKeywordInList(list, &kw, &value) != KWL_END) keys.push_back(kw);
  return keys;
}

V QueueAliases() {
  V v;
  for (oce *e = qdcache_ocp->next; e != qdcache_ocp; e = e->next) v.push_back(e->objptr->alias);
  return v;
}

// Every (alias, name, value) the table cursor reads, sorted; values without
// their double quotes, which the writer leaves out.
V Triples() {
  V out;
  ResetDeviceTabFile();
  char *a, *n, *v;
  while (ReferenceNextAttribute(&a, &n, &v) == KWL_OK) {
    std::string value = v;
    value.erase(std::remove(value.begin(), value.end(), '"'), value.end());
    out.push_back(std::string(a) + "|" + n + "|" + value);
  }
  std::sort(out.begin(), out.end());
  return out;
}

class Load : public CacheTest {};

TEST_F(Load, DirectLoadKeepsTableOrderAndTheLoadersRules) {
  std::string long_alias(40, 'L');
  box_.WriteTable("a::::k=\"1\"\n"
                  "b:::/mnt:desc=\"first\" desc=\"second\"\n"
                  "c:/dev/c:::zz=\"1\" ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\" aa=\"2\" upcmd=\"up\"\n" +
                  long_alias + ":::: x=\"1\" y=\"2\"\n");
  TraceCapture trace(box_, 5);
  ASSERT_EQ(QDcache_load(), 0);
  EXPECT_TRUE(qdcache_on == 1 && qdcache_free == 0);
  EXPECT_EQ(QueueAliases(), (V{"a", "b", "c", long_alias}));
  EXPECT_EQ(Keys(QDcache_find_alias("a")->objptr->attributes), (V{"pathname", "k"}));  // no empty cdevice
  EXPECT_EQ(Attr("b", "desc"), "first");
  oce *c = QDcache_find_alias("c");
  EXPECT_EQ(Keys(c->objptr->attributes), (V{"zz", "pathname", "cdevice", "aa", "ObjTimestamp"}));
  EXPECT_EQ(Keys(c->objptr->methods), V{"upcmd"});
  EXPECT_EQ(c->status, 0) << "a stamped object loads as stale";
  EXPECT_EQ(Keys(QDcache_find_alias(long_alias.c_str())->objptr->attributes).size(), 3u);
  EXPECT_EQ(qdcache_info[11], 4u);
  EXPECT_EQ(QDcache_load(), 0);
  EXPECT_TRUE(trace.Has("Cache already loaded"));
  EXPECT_EQ(QDcache_dump_aliases(), 4);
}

// A table big enough to take several of the cache's blocks of memory loads
// whole, twice in one process (the second time into the blocks the first
// left), and a direct flush writes back what the cursor read.
TEST_F(Load, ABigTableLoadsWholeAgainAndAgain) {
  V aliases;
  tablegen::WriteTable(box_.table(), 20000, 3, &aliases);
  V triples = Triples();
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(QDcache_load(), 0);
    EXPECT_EQ(QueueAliases(), aliases) << round;
    for (size_t i = 0; i < aliases.size(); i += 997)
      EXPECT_STREQ(QDcache_find_alias(aliases[i].c_str())->objptr->alias, aliases[i].c_str());
    if (round == 0) QDcache_free();
  }
  ASSERT_EQ(QDcache_flush(), 0);
  EXPECT_TRUE(Triples() == triples);
}

TEST_F(Load, AFailedReadLeavesTheCacheFreeTheIndirectWayAndTheHashSize) {
  TraceCapture trace(box_, 3);
  setenv("TAV_DEVTAB", box_.Path("no/such/dir/units.tab").c_str(), 1);
  EXPECT_EQ(QDcache_load(), -1);
  EXPECT_TRUE(trace.Has("Cannot obtain a read lock for the device table file"));
  EXPECT_TRUE(qdcache_on == 0 && qdcache_free == 1 && qdchash_tbl == nullptr);
  setenv("TAV_DEVTAB", box_.table().c_str(), 1);
  Settings("directload=0\naliashashsize=1\n");
  ASSERT_EQ(QDcache_load(), 0) << "a later load can still succeed";
  V aliases = QueueAliases();
  EXPECT_EQ(aliases.size(), 32u);
  EXPECT_EQ(aliases.front(), "disk0");
  EXPECT_EQ(NumberOfKeywords(QDcache_find_alias("tape0")->objptr->methods), 3);
  EXPECT_EQ(qdcache_info[10], 32u) << "every alias in one chain";
  EXPECT_EQ(qdcache_info[11], 0u) << "nothing loaded directly";
}

TEST(ReportTree, UniqueKeysInEitherOrder) {
  EXPECT_EQ(report_add_unique("m", "1"), 0);
  EXPECT_EQ(report_add_unique("m", "2"), -1);
  report_add_unique("z", "3");
  report_add_unique("a", nullptr);
  std::string seen;
  auto collect = [](void *arg, const char *key, const char *) {
    *static_cast<std::string *>(arg) += key;
    return 0;
  };
  report_apply(nullptr, collect, &seen);
  report_apply("d", collect, &seen);
  EXPECT_EQ(seen, "amzzma");
  EXPECT_STREQ(report_searchadd("m", "other")->value, "1");
  report_free();
  EXPECT_EQ(report_root, nullptr);
  EXPECT_EQ(report_add_unique("m", "2"), 0);
  report_free();
}

}  // namespace
