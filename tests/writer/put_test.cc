// The writer's command path and deletes: the exact unitmod command lines,
// modify then add, the time stamp attribute, values that reach unitmod
// literally, and the archive copy a delete writes first.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "cache_fixture.h"
#include "trace_capture.h"

namespace {

using testing_support::ReadFile;

class Put : public CacheTest {
 protected:
  void SetUp() override { Settings("directsave=0\n"); }
  // A unitmod that logs its arguments and exits with `modify_status` for -m.
  void FakeUnitmod(int modify_status) {
    log_ = testing_support::FakeCommand(box_, "unitmod",
                                        "[ \"$1\" = -m ] && exit " + std::to_string(modify_status) + "\nexit 0");
  }
  std::string Log() const { return access(log_.c_str(), F_OK) == 0 ? ReadFile(log_) : ""; }
  // A put loads the cache for the rest of the process; the cache is let go
  // again, so that what follows works on the table.
  int Write(const char *alias, std::initializer_list<std::pair<const char *, const char *>> pairs) {
    KeywordList *l = List(pairs);
    int rc = QDput(alias, l);
    DestroyKeywordList(l);
    QDcache_free();
    return rc;
  }
  std::string log_;
};

TEST_F(Put, CommandLinesCarryEveryValueLiterallyOrRefuseIt) {
  FakeUnitmod(0);
  ASSERT_EQ(chdir(box_.dir().c_str()), 0);
  KeywordList *l = List({{"alias", "disk0"}, {"plain", "x y"}, {"empty", ""}, {"quoted", "\"as is\""},
                         {"shell", "$(touch pwned) `id` ; | >"}, {"tab", "a\tb"}, {"odd key", "v"}});
  EXPECT_EQ(QDput("disk0", l), 0);
  EXPECT_EQ(Log(), "<-m><disk0><plain=x y><empty=><quoted=as is><shell=$(touch pwned) `id` ; | >><tab=a b><odd key=v>\n");
  EXPECT_EQ(Pairs(l)["tab"], "a b") << "the caller's list keeps the blank";
  EXPECT_NE(access("pwned", F_OK), 0);
  DestroyKeywordList(l);
  TraceCapture trace(box_, 3);
  for (const char *bad : {"\"$(touch pwned)\"", "\"open", "close\"", "\"a\"b\""})
    EXPECT_EQ(Write("disk0", {{"desc", bad}}), -1) << bad;
  std::string calls = Log();
  EXPECT_EQ(std::count(calls.begin(), calls.end(), '\n'), 1) << "a refused value ran unitmod";
  EXPECT_TRUE(trace.Has("Cannot pass the value of 'desc' to unitmod safely"));
  l = List({{"desc", "Disk drive"}, {"alias", "disk0"}, {"n", "\"1\""}});
  char *command = BuildPutCommand("disk0", l, "-m");
  ASSERT_NE(command, nullptr);
  OverlayPutCommand(command, "-a");
  EXPECT_STREQ(command, "unitmod -a disk0\\\n desc=\"Disk drive\"\\\n n=\"1\"");
  free(command);
  DestroyKeywordList(l);
}

TEST_F(Put, ModifyThenAddConflictsFailuresAndTheTimeStamp) {
  FakeUnitmod(3);
  EXPECT_EQ(Write("newdisk", {{"class", "disk"}}), 0);
  EXPECT_EQ(Log(), "<-m><newdisk><class=disk>\n<-a><newdisk><class=disk>\n");
  EXPECT_EQ(Write("disk0", {{"alias", "other"}}), 254);
  FakeUnitmod(5);
  EXPECT_EQ(Write("disk0", {{"class", "disk"}}), -1) << "unitmod -m failed with 5";
  FakeUnitmod(0);
  setenv("QD_TIMESTAMP", "0126,10,22,10,00,00,0,325,00", 1);
  KeywordList *l = List({{"class", "disk"}, {"class", "dup"}, {"ObjTimestamp", "old"}});
  EXPECT_EQ(QDput("disk0", l), KWL_DUPLICATE);
  EXPECT_NE(Log().find("<-m><disk0><class=disk><ObjTimestamp=old>\n"), std::string::npos) << Log();
  EXPECT_EQ(Pairs(l), (std::map<std::string, std::string>{{"class", "disk"}})) << "the stamp leaves the list";
  DestroyKeywordList(l);
  l = List({{"class", "disk"}});
  QDput("disk1", l);
  EXPECT_NE(Log().find("<-m><disk1><class=disk><ObjTimestamp=0126,10,22,10,00,00,0,325,00>\n"), std::string::npos);
  DestroyKeywordList(l);
}

TEST_F(Put, RealUnitmodAddsAndDeletesWriteTheirArchiveCopyFirst) {
  EXPECT_EQ(Write("tape9", {{"class", "tape"}, {"desc", "spare: slot 3"}}), 0);
  EXPECT_EQ(testing_support::RunProgram({testing_support::Command("unitprop"), "tape9", "desc"}).out, "spare: slot 3\n");
  EXPECT_EQ(QDdelete("nosuch"), 3);
  EXPECT_TRUE(Archived().empty());
  EXPECT_EQ(QDdelete("lp0"), 0);  // timestamping off: filed under now, off again after
  EXPECT_EQ(testing_support::RunProgram({testing_support::Command("unitprop"), "lp0", "class"}).status, 3);
  std::vector<std::string> files = Archived();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(QDtimestamp.tm_mday, 0);
  std::string copy = ReadFile(box_.Path("archive/" + files[0]));
  EXPECT_EQ(copy.substr(0, 10), "alias=lp0\n");
  EXPECT_NE(copy.find("testcmd=echo test page | lp -d lp\n"), std::string::npos);
}

TEST_F(Put, TheRunDirectoryIsBuiltOncePerProcessAndNeverLeft) {
  setenv("QD_TIMESTAMP", "0097,02,14,09,05,03,5,072,00", 1);
  QDsettime(QD_TS_ENV, nullptr);
  EXPECT_EQ(QDdelete("tty00"), 0);
  QDsettime(QD_TS_STRING, const_cast<char *>("0098,02,14,09,05,03,6,072,00"));
  EXPECT_EQ(QDdelete("tty01"), 0);
  EXPECT_EQ(Write("../escape", {{"class", "x"}}), 0);
  EXPECT_EQ(QDdelete("../escape"), 0);
  std::vector<std::string> files = Archived();
  std::sort(files.begin(), files.end());
  EXPECT_EQ(files, (std::vector<std::string>{"1997:03:14:09:05:03/tty00", "1997:03:14:09:05:03/tty01"}));
  EXPECT_NE(access(box_.Path("archive/escape").c_str(), F_OK), 0);
}

}  // namespace
