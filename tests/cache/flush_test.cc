// Writing the cache back: both modes, the state afterwards, and a table
// that keeps its identity through a direct flush.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "cache_fixture.h"
#include "trace_capture.h"

namespace {

using testing_support::ReadFile;
using testing_support::WriteFile;

class Flush : public CacheTest {};

TEST_F(Flush, AnUnloadedCacheWritesNothing) {
  std::string before = box_.ReadTable();
  EXPECT_EQ(QDcache_flush(), 0);
  EXPECT_EQ(box_.ReadTable(), before);
}

TEST_F(Flush, ADirectFlushRewritesInReverseOrder) {
  box_.WriteTable("a:/dev/a:::k=\"1\"\n"
                  "b::::ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\" z=\"2\"\n"
                  "c:::/p:runcmd=\"x\"\n");
  ASSERT_EQ(QDcache_load(), 0);
  ASSERT_EQ(QDcache_flush(), 0);
  EXPECT_EQ(box_.ReadTable(),
            "c:::/p: runcmd=\"x\"\n"
            "b::::z=\"2\" ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\"\n"
            "a:/dev/a:::k=\"1\"\n");
  EXPECT_EQ(qdcache_on, 0);
  EXPECT_EQ(qdcache_free, 1);
  EXPECT_EQ(qdchash_tbl, nullptr);
  EXPECT_EQ(box_.Count(".units.tab.new."), 0);
}

TEST_F(Flush, FreeingTwiceOnlyTraces) {
  TraceCapture trace(box_, 5);
  ASSERT_EQ(QDcache_load(), 0);
  QDcache_free();
  QDcache_free();
  EXPECT_TRUE(trace.Has("Cache already free"));
}

// In object-writer mode the flush hands changed objects to unitmod; a
// stand-in records what it is asked to do.
TEST_F(Flush, TheObjectWriterWritesOnlyWhatChanged) {
  Settings("directsave=0\n");
  setenv("QD_TIMESTAMP", "0126,10,22,10,00,00,0,325,00", 1);
  box_.WriteTable("stale:::: k=\"1\" ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\"\n"
                  "touched:::: k=\"2\" ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\"\n"
                  "changed:::: k=\"3\" ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\"\n");
  std::string log_path = testing_support::FakeCommand(box_, "unitmod", "exit 0");
  ASSERT_EQ(QDcache_load(), 0);
  QDcache_touch_obj(QDcache_find_alias("touched"));
  KeywordList *change = List({{"k", "33"}});
  QDcache_hook_QDLput("changed", change);
  DestroyKeywordList(change);
  ASSERT_EQ(QDcache_flush(), 0);
  std::string log = ReadFile(log_path);
  EXPECT_EQ(log.find("<stale>"), std::string::npos) << log;
  EXPECT_NE(log.find("<-m><touched><ObjTimestamp=0126,10,22,10,00,00,0,325,00>\n"), std::string::npos) << log;
  EXPECT_NE(log.find("<-d><changed>\n"), std::string::npos) << log;
  EXPECT_NE(log.find("<-m><changed><pathname=><ObjModifyTime=0126,10,22,10,00,00,0,325,00><k=33>"),
            std::string::npos)
      << log;
  EXPECT_EQ(qdcache_free, 1);
}

TEST_F(Flush, APutWithDirectSavingRewritesTheTable) {
  KeywordList *l = List({{"state", "offline"}, {"note", "moved: rack 4"}});
  EXPECT_EQ(QDput("disk1", l), 0);
  DestroyKeywordList(l);
  EXPECT_EQ(qdcache_on, 0) << "the put loaded the cache and flushed it";
  auto r = testing_support::RunProgram({testing_support::Command("unitprop"), "disk1", "note"});
  EXPECT_EQ(r.out, "moved: rack 4\n");
  r = testing_support::RunProgram({testing_support::Command("unitprop"), "disk1", "state"});
  EXPECT_EQ(r.out, "offline\n");
  r = testing_support::RunProgram({testing_support::Command("unitlist")});
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 32);
}

}  // namespace
