// Loading the cache, directly from the table file or through the queries.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "qd.h"
#include "sandbox.h"
#include "table_gen.h"
#include "trace_capture.h"

using testing_support::Sandbox;
using testing_support::WriteFile;

namespace {

std::vector<std::string> Keys(KeywordList *list) {
  std::vector<std::string> keys;
  list->kwl_cursor = list->kwl_first;
  char *kw, *value;
  int st;
  while ((st = ReferenceNextKeywordInList(list, &kw, &value)) == KWL_OK || st == KWL_WARN)
    keys.push_back(kw);
  return keys;
}

std::vector<std::string> QueueAliases() {
  std::vector<std::string> v;
  for (oce *e = qdcache_ocp->next; e != qdcache_ocp; e = e->next) v.push_back(e->objptr->alias);
  return v;
}

class Load : public testing::Test {
 protected:
  void SetUp() override { setenv("TAV_LIBQDRC", box_.Path("rc").c_str(), 1); }
  Sandbox box_;
};

// Every (alias, name, value) the table cursor reads, sorted; values without
// their double quotes, which the writer leaves out.
std::vector<std::string> Triples() {
  std::vector<std::string> out;
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

// A table big enough to take several of the cache's blocks of memory loads
// whole, twice in one process (the second time into the blocks the first
// left), and a direct flush writes back what the cursor read.
TEST_F(Load, ABigTableLoadsWholeAgainAndAgain) {
  std::vector<std::string> aliases;
  tablegen::WriteTable(box_.table(), 20000, 3, &aliases);
  std::vector<std::string> triples = Triples();
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(QDcache_load(), 0);
    EXPECT_EQ(QueueAliases(), aliases) << round;
    for (size_t i = 0; i < aliases.size(); i += 997) {
      oce *e = QDcache_find_alias(aliases[i].c_str());
      ASSERT_NE(e, nullptr) << aliases[i];
      EXPECT_STREQ(e->objptr->alias, aliases[i].c_str());
    }
    if (round == 0) QDcache_free();
  }
  ASSERT_EQ(QDcache_flush(), 0);
  EXPECT_TRUE(Triples() == triples);
}

TEST_F(Load, DirectLoadKeepsTableOrderAndTheLoadersRules) {
  std::string long_alias(40, 'L');
  box_.WriteTable("a::::k=\"1\"\n"
                  "b:::/mnt:desc=\"first\" desc=\"second\"\n"
                  "c:/dev/c:::zz=\"1\" ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\" aa=\"2\" upcmd=\"up\"\n" +
                  long_alias + ":::: x=\"1\" y=\"2\"\n");
  ASSERT_EQ(QDcache_load(), 0);
  EXPECT_EQ(qdcache_on, 1);
  EXPECT_EQ(qdcache_free, 0);
  EXPECT_EQ(QueueAliases(), (std::vector<std::string>{"a", "b", "c", long_alias}));
  ObjectRecord *a = QDcache_find_alias("a")->objptr;
  EXPECT_EQ(Keys(a->attributes), (std::vector<std::string>{"pathname", "k"}));  // no empty cdevice
  ObjectRecord *b = QDcache_find_alias("b")->objptr;
  char *kw, *value;
  ASSERT_EQ(ReferenceKeywordInList(b->attributes, "desc", &kw, &value), 0);
  EXPECT_STREQ(value, "first");
  oce *c = QDcache_find_alias("c");
  EXPECT_EQ(Keys(c->objptr->attributes),
            (std::vector<std::string>{"zz", "pathname", "cdevice", "aa", "ObjTimestamp"}));
  EXPECT_EQ(Keys(c->objptr->methods), (std::vector<std::string>{"upcmd"}));
  EXPECT_EQ(c->status, 0) << "a stamped object loads as stale";
  EXPECT_EQ(Keys(QDcache_find_alias(long_alias.c_str())->objptr->attributes).size(), 3u);
  EXPECT_EQ(qdcache_info[11], 4u);
}

TEST_F(Load, ASecondLoadChangesNothing) {
  TraceCapture trace(box_, 5);
  ASSERT_EQ(QDcache_load(), 0);
  int n = QDcache_dump_aliases();
  EXPECT_EQ(QDcache_load(), 0);
  EXPECT_TRUE(trace.Has("Cache already loaded"));
  EXPECT_EQ(QDcache_dump_aliases(), n);
}

TEST_F(Load, AFailedDirectReadLeavesTheCacheFree) {
  TraceCapture trace(box_, 3);
  setenv("TAV_DEVTAB", box_.Path("no/such/dir/units.tab").c_str(), 1);
  EXPECT_EQ(QDcache_load(), -1);
  EXPECT_TRUE(trace.Has("Cannot obtain a read lock for the device table file"));
  EXPECT_EQ(qdcache_on, 0);
  EXPECT_EQ(qdcache_free, 1);
  EXPECT_EQ(qdchash_tbl, nullptr);
  setenv("TAV_DEVTAB", box_.table().c_str(), 1);
  EXPECT_EQ(QDcache_load(), 0) << "a later load can still succeed";
  EXPECT_EQ(QDcache_dump_aliases(), 32);
}

TEST_F(Load, TheIndirectWayGoesThroughTheQueries) {
  WriteFile(box_.Path("rc"), "directload=0\n");
  ASSERT_EQ(QDcache_load(), 0);
  std::vector<std::string> aliases = QueueAliases();
  ASSERT_EQ(aliases.size(), 32u);
  EXPECT_EQ(aliases.front(), "disk0");
  ObjectRecord *tape = QDcache_find_alias("tape0")->objptr;
  EXPECT_EQ(NumberOfKeywords(tape->methods), 3);
}

TEST_F(Load, TheHashSizeComesFromTheSettings) {
  WriteFile(box_.Path("rc"), "aliashashsize=1\n");
  ASSERT_EQ(QDcache_load(), 0);
  EXPECT_EQ(qdcache_info[10], 32u) << "every alias in one chain";
  EXPECT_STREQ(QDcache_find_alias("net2")->objptr->alias, "net2");
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
