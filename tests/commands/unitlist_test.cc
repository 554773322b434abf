// unitlist: table order, criteria with and without -a, malformed lines.
#include <gtest/gtest.h>

#include "sandbox.h"

using testing_support::Command;
using testing_support::RunProgram;
using testing_support::Sandbox;

namespace {

std::string List(std::vector<std::string> args) {
  args.insert(args.begin(), Command("unitlist"));
  auto r = RunProgram(args);
  EXPECT_EQ(r.status, 0) << r.err;
  return r.out;
}

TEST(Unitlist, EveryAliasInTableOrder) {
  Sandbox box;
  std::string out = List({});
  EXPECT_EQ(out.substr(0, 30), "disk0\ndisk0s1\ndisk0s2\ndisk0s3\n");
  EXPECT_EQ(out.substr(out.size() - 16), "console\nfloppy0\n");
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 32);
}

TEST(Unitlist, Criteria) {
  Sandbox box;
  struct Case {
    std::vector<std::string> args;
    const char *expect;
  } cases[] = {
      {{"class=tape"}, "tape0\ntape1\n"},
      {{"-a", "class=serial", "state!=disabled", "speed:1*"}, "tty01\ntty03\ntty05\n"},
      {{"class=tape", "class=printer"}, "tape0\ntape1\nlp0\n"},          // any
      {{"-a", "class=tape", "class=printer"}, ""},                      // all
      {{"-a", "class:*", "alias_status:*"}, "floppy0\n"},
      {{"-a", "ObjContains:*", "alias_status!:*", "class!=disk"}, "serial0\nserial1\nscsi0\n"},
      {{"alias=net1"}, "net1\n"},
      {{"pathname=/usr"}, "disk0s2\n"},
      {{"desc:*\"AHA-2940\"*"}, "scsi0\n"},
  };
  for (const Case &c : cases) EXPECT_EQ(List(c.args), c.expect) << testing::PrintToString(c.args);
}

TEST(Unitlist, MalformedLinesAreReportedAndSkipped) {
  Sandbox box;
  box.WriteTable("a::::\nb:::\nc:::: k=\"open\nd:::: k\ne::::k=\"v\"\n");
  auto r = RunProgram({Command("unitlist")});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "a\ne\n");
  EXPECT_NE(r.err.find(":2: fewer than four colons"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find(":3: unterminated quote"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find(":4: keyword without '='"), std::string::npos) << r.err;
}

TEST(Unitlist, StatusesForBadUse) {
  Sandbox box;
  EXPECT_EQ(RunProgram({Command("unitlist"), "novalue"}).status, 1);
  EXPECT_EQ(RunProgram({Command("unitlist"), "=x"}).status, 1);
  EXPECT_EQ(RunProgram({Command("unitlist"), "-t", box.Path("none.tab")}).status, 2);
}

}  // namespace
