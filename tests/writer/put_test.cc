// The writer's command path: the exact unitmod command lines, modify then
// add, the time stamp attribute, and values that reach unitmod literally.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cache_fixture.h"
#include "trace_capture.h"

namespace {

using testing_support::ReadFile;
using testing_support::WriteFile;

class Put : public CacheTest {
 protected:
  void SetUp() override {
    CacheTest::SetUp();
    Settings("directsave=0\n");
  }
  // A unitmod that logs its arguments and exits with `modify_status` for -m.
  void FakeUnitmod(int modify_status) {
    testing_support::FakeCommand(box_, "unitmod",
                                 "[ \"$1\" = -m ] && exit " + std::to_string(modify_status) + "\nexit 0");
  }
  std::string Log() const {
    return access(box_.Path("unitmod.log").c_str(), F_OK) == 0 ? ReadFile(box_.Path("unitmod.log")) : "";
  }
};

TEST_F(Put, CommandLinesCarryEveryValueLiterally) {
  FakeUnitmod(0);
  ASSERT_EQ(chdir(box_.dir().c_str()), 0);
  KeywordList *l = List({{"alias", "disk0"}, {"plain", "x y"}, {"empty", ""}, {"quoted", "\"as is\""},
                         {"shell", "$(touch pwned) `id` ; | >"}, {"tab", "a\tb"}, {"odd key", "v"}});
  EXPECT_EQ(QDput("disk0", l), 0);
  EXPECT_EQ(Log(), "<-m><disk0><plain=x y><empty=><quoted=as is><shell=$(touch pwned) `id` ; | >>"
                   "<tab=a b><odd key=v>\n");
  char *kw, *value;
  ASSERT_EQ(ReferenceKeywordInList(l, "tab", &kw, &value), 0);
  EXPECT_STREQ(value, "a b") << "the caller's list keeps the blank";
  EXPECT_NE(access("pwned", F_OK), 0);
  DestroyKeywordList(l);
}

TEST_F(Put, TheCommandTextKeepsItsShape) {
  KeywordList *l = List({{"desc", "Disk drive"}, {"alias", "disk0"}, {"n", "\"1\""}});
  char *command = BuildPutCommand("disk0", l, "-m");
  ASSERT_NE(command, nullptr);
  EXPECT_STREQ(command, "unitmod -m disk0\\\n desc=\"Disk drive\"\\\n n=\"1\"");
  OverlayPutCommand(command, "-a");
  EXPECT_STREQ(command, "unitmod -a disk0\\\n desc=\"Disk drive\"\\\n n=\"1\"");
  free(command);
  DestroyKeywordList(l);
}

TEST_F(Put, ValuesTheShellWouldNotTakeLiterallyAreRefused) {
  FakeUnitmod(0);
  TraceCapture trace(box_, 3);
  for (const char *bad : {"\"$(touch pwned)\"", "\"open", "close\"", "\"a\"b\""}) {
    KeywordList *l = List({{"desc", bad}});
    EXPECT_EQ(QDput("disk0", l), -1) << bad;
    DestroyKeywordList(l);
  }
  EXPECT_EQ(Log(), "");
  EXPECT_TRUE(trace.Has("Cannot pass the value of 'desc' to unitmod safely"));
}

TEST_F(Put, AModifyOfAMissingEntryBecomesAnAdd) {
  FakeUnitmod(3);
  KeywordList *l = List({{"class", "disk"}});
  EXPECT_EQ(QDput("newdisk", l), 0);
  EXPECT_EQ(Log(), "<-m><newdisk><class=disk>\n<-a><newdisk><class=disk>\n");
  DestroyKeywordList(l);
}

TEST_F(Put, ConflictsAndFailures) {
  FakeUnitmod(5);
  KeywordList *conflict = List({{"alias", "other"}});
  EXPECT_EQ(QDput("disk0", conflict), 254);
  EXPECT_EQ(Log(), "");
  DestroyKeywordList(conflict);
  KeywordList *l = List({{"class", "disk"}, {"class", "again"}});
  EXPECT_EQ(QDput("disk0", l), -1) << "unitmod -m failed with 5";
  DestroyKeywordList(l);
}

TEST_F(Put, TheTimeStampGoesWithTheWriteAndLeavesTheCallersList) {
  FakeUnitmod(0);
  setenv("QD_TIMESTAMP", "0126,10,22,10,00,00,0,325,00", 1);
  KeywordList *l = List({{"class", "disk"}, {"class", "dup"}});
  EXPECT_EQ(QDput("disk0", l), KWL_DUPLICATE);
  EXPECT_EQ(Log(), "<-m><disk0><class=disk><ObjTimestamp=0126,10,22,10,00,00,0,325,00>\n");
  char *kw, *value;
  EXPECT_NE(ReferenceKeywordInList(l, "ObjTimestamp", &kw, &value), 0);
  EXPECT_EQ(NumberOfKeywords(l), 1);
  DestroyKeywordList(l);
}

TEST_F(Put, RealUnitmodAddsAndModifies) {
  KeywordList *l = List({{"class", "tape"}, {"desc", "spare: slot 3"}});
  EXPECT_EQ(QDput("tape9", l), 0);
  DestroyKeywordList(l);
  auto r = testing_support::RunProgram({testing_support::Command("unitprop"), "tape9", "desc"});
  EXPECT_EQ(r.out, "spare: slot 3\n");
}

}  // namespace
