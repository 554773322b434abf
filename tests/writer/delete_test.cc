// Deleting: the archive copy first, then the removal.
#include <gtest/gtest.h>

#include "cache_fixture.h"
#include "trace_capture.h"

#include <algorithm>

namespace {

class Delete : public CacheTest {};

TEST_F(Delete, AnUnknownAliasIsThreeAndLeavesNoCopy) {
  EXPECT_EQ(QDdelete("nosuch"), 3);
  EXPECT_TRUE(Archived().empty());
}

TEST_F(Delete, WithTimestampingOffTheCopyIsFiledUnderNow) {
  EXPECT_EQ(QDdelete("lp0"), 0);
  auto r = testing_support::RunProgram({testing_support::Command("unitprop"), "lp0", "class"});
  EXPECT_EQ(r.status, 3) << "gone from the table";
  std::vector<std::string> files = Archived();
  ASSERT_EQ(files.size(), 1u);
  EXPECT_EQ(files[0].substr(files[0].size() - 4), "/lp0");
  EXPECT_EQ(QDtimestamp.tm_mday, 0) << "timestamping is off again";
  std::string copy = testing_support::ReadFile(box_.Path("archive/" + files[0]));
  EXPECT_EQ(copy.substr(0, 10), "alias=lp0\n");
  EXPECT_NE(copy.find("testcmd=echo test page | lp -d lp\n"), std::string::npos);
}

TEST_F(Delete, TheRunDirectoryIsBuiltOncePerProcess) {
  setenv("QD_TIMESTAMP", "0097,02,14,09,05,03,5,072,00", 1);
  QDsettime(QD_TS_ENV, nullptr);
  EXPECT_EQ(QDdelete("tty00"), 0);
  QDsettime(QD_TS_STRING, const_cast<char *>("0098,02,14,09,05,03,6,072,00"));
  EXPECT_EQ(QDdelete("tty01"), 0);
  std::vector<std::string> files = Archived();
  std::sort(files.begin(), files.end());
  EXPECT_EQ(files, (std::vector<std::string>{"1997:03:14:09:05:03/tty00", "1997:03:14:09:05:03/tty01"}));
}

TEST_F(Delete, AnAliasThatWouldLeaveTheRunDirectoryGetsNoCopy) {
  setenv("QD_TIMESTAMP", "0097,02,14,09,05,03,5,072,00", 1);
  QDsettime(QD_TS_ENV, nullptr);
  KeywordList *l = List({{"class", "x"}});
  ASSERT_EQ(QDput("../escape", l), 0);
  DestroyKeywordList(l);
  EXPECT_EQ(QDdelete("../escape"), 0);
  EXPECT_TRUE(Archived().empty());
  EXPECT_NE(access(box_.Path("archive/escape").c_str(), F_OK), 0);
}

}  // namespace
