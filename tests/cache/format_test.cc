// Writing the cache back: the table format of each entry, the direct flush
// and the flush through the object writer, and the state afterwards.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "cache_fixture.h"
#include "trace_capture.h"

namespace {

using testing_support::ReadFile;

class Flush : public CacheTest {
 protected:
  // One entry written the way the flush writes it, into a fresh file.
  std::string Put(const char *alias, KeywordList *attrs, KeywordList *methods) {
    QDlock_fptr = fopen(box_.Path("out.tab").c_str(), "w");
    EXPECT_EQ(QDcache_flush_put(alias, attrs, methods), 0);
    fclose(QDlock_fptr);
    QDlock_fptr = nullptr;
    DestroyKeywordList(attrs);
    DestroyKeywordList(methods);
    return ReadFile(box_.Path("out.tab"));
  }
};

TEST_F(Flush, EntriesAreWrittenInTheTableFormat) {
  EXPECT_EQ(strlenesc("a:b\\"), 6u);
  char buf[64];
  EXPECT_STREQ(strcatesc(strcpyesc(buf, "a:b\"c\nd"), ":"), "a\\:b\\\"c\\\nd\\:");
  EXPECT_EQ(strcpyesc_omit_ch(buf, "a\"b:c", '"'), 5);
  EXPECT_STREQ(buf, "ab\\:c");
  const std::string alias(700, 'a'), path(900, 'p');
  const std::pair<std::string, std::string> cases[] = {
      {Put("disk1",
           List({{"cdevice", "/dev/rdsk/0s2"}, {"bdevice", "/dev/dsk/0s2"}, {"desc", "Disk: \"A\""}, {"type", "disk"}}),
           List({{"remove", "rm -f a:b"}})),
       "disk1:/dev/rdsk/0s2:/dev/dsk/0s2::desc=\"Disk\\: A\" type=\"disk\" remove=\"rm -f a\\:b\"\n"},
      {Put("x", List({{"k", "v"}}), nullptr), "x::::k=\"v\"\n"},
      {Put("x", List({{"pathname", ""}}), List({{"upcmd", "up"}})), "x:::: upcmd=\"up\"\n"},
      {Put("x", List({}), List({})), "x::::\n"},
      {Put("a:b", List({{"desc", "line1\nline2"}}), nullptr), "a\\:b::::desc=\"line1\\\nline2\"\n"},
      {Put("#c", List({}), nullptr), "\\#c::::\n"},
      {Put(alias.c_str(), List({{"pathname", path.c_str()}}), nullptr), alias + ":::" + path + ":\n"},
  };
  for (const auto &c : cases) EXPECT_EQ(c.first, c.second);
}

// Whatever the writer writes, the table cursor reads back as the same
// triples (double quotes in values are dropped by design).
TEST_F(Flush, TheCursorReadsBackWhatTheWriterWrote) {
  std::mt19937 gen(7);
  const std::string alphabet = "ab:\\\"\n =#\t,xyz09";
  auto text = [&](size_t max) {
    std::string s(gen() % (max + 1), ' ');
    for (char &c : s) c = alphabet[gen() % alphabet.size()];
    return s;
  };
  std::vector<std::string> want, got;
  QDlock_fptr = fopen(box_.table().c_str(), "w");
  for (int i = 0; i < 100; ++i) {
    std::string alias = text(12) + std::to_string(i), cdev = text(8), value = text(30);
    KeywordList *attrs = List({{"cdevice", cdev.c_str()}, {"k", value.c_str()}}), *methods = List({{"runcmd", "\"x\":y"}});
    ASSERT_EQ(QDcache_flush_put(alias.c_str(), attrs, methods), 0);
    value.erase(std::remove(value.begin(), value.end(), '"'), value.end());
    for (std::string t : {"cdevice|" + cdev, std::string("bdevice|"), std::string("pathname|"), "k|" + value,
                          std::string("runcmd|x:y")})
      want.push_back(alias + "|" + t);
    DestroyKeywordList(attrs);
    DestroyKeywordList(methods);
  }
  fclose(QDlock_fptr);
  QDlock_fptr = nullptr;
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  char *a, *n, *v;
  while (ReferenceNextAttribute(&a, &n, &v) != KWL_END) got.push_back(std::string(a) + "|" + n + "|" + v);
  EXPECT_EQ(got, want);
}

TEST_F(Flush, ADirectFlushRewritesInReverseOrderAndFreesTheCache) {
  TraceCapture trace(box_, 5);
  EXPECT_EQ(QDcache_flush(), 0);  // not loaded: nothing happens
  box_.WriteTable("a:/dev/a:::k=\"1\"\n"
                  "b::::ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\" z=\"2\"\n"
                  "c:::/p:runcmd=\"x\"\n");
  ASSERT_EQ(QDcache_load(), 0);
  ASSERT_EQ(QDcache_flush(), 0);
  EXPECT_EQ(box_.ReadTable(),
            "c:::/p: runcmd=\"x\"\n"
            "b::::z=\"2\" ObjTimestamp=\"0097,02,14,09,05,03,5,072,00\"\n"
            "a:/dev/a:::k=\"1\"\n");
  EXPECT_TRUE(qdcache_on == 0 && qdcache_free == 1 && qdchash_tbl == nullptr);
  EXPECT_EQ(box_.Count(".units.tab.new."), 0);
  QDcache_free();
  EXPECT_TRUE(trace.Has("Cache already free"));
  KeywordList *l = List({{"state", "offline"}, {"note", "moved: rack 4"}});
  EXPECT_EQ(QDput("tty01", l), 0);  // a put loads the cache and flushes it
  DestroyKeywordList(l);
  EXPECT_EQ(qdcache_on, 0);
  EXPECT_EQ(testing_support::RunProgram({testing_support::Command("unitprop"), "tty01", "note"}).out, "moved: rack 4\n");
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
  EXPECT_EQ(ReadFile(log_path),
            "<-d><changed>\n<-m><changed><pathname=><ObjModifyTime=0126,10,22,10,00,00,0,325,00><k=33>"
            "<ObjTimestamp=0126,10,22,10,00,00,0,325,00>\n"
            "<-m><changed><ObjTimestamp=0126,10,22,10,00,00,0,325,00>\n"  // its (empty) method list
            "<-m><touched><ObjTimestamp=0126,10,22,10,00,00,0,325,00>\n");
  EXPECT_EQ(qdcache_free, 1);
}

}  // namespace
