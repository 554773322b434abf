// The device commands as a user runs them: what they print, their exit
// statuses, what unitmod writes and keeps, and that the table is never torn
// by a crash or a full disk (concurrent writers: the writer suite).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "sandbox.h"

using testing_support::Command;
using testing_support::ReadFile;
using testing_support::RunProgram;
using testing_support::Sandbox;

namespace {

testing_support::RunResult Cmd(const char *command, std::vector<std::string> args) {
  args.insert(args.begin(), Command(command));
  return RunProgram(args);
}

std::string Prop(const std::string &alias, const std::string &name) {
  auto r = Cmd("unitprop", {alias, name});
  return r.status == 0 ? r.out.substr(0, r.out.size() - 1) : "<status " + std::to_string(r.status) + ">";
}

TEST(Unitprop, ValuesListingsAndStatuses) {
  Sandbox box;
  EXPECT_EQ(Cmd("unitprop", {"-v", "lp0"}).out,
            "alias='lp0'\ncdevice='/dev/lp0'\nbdevice=''\npathname=''\nclass='printer'\n"
            "type='parallel'\ndesc='Line printer, room 2.14'\nqueue='lp'\nstate='enabled'\n"
            "testcmd='echo test page | lp -d lp'\ncancelcmd='cancel -a lp'\n");
  const std::pair<std::vector<std::string>, int> cases[] = {
      {{"nosuchalias", "desc"}, 3}, {{"disk0", "nosuchname"}, 4}, {{"disk0"}, 1}, {{"-v"}, 1},
      {{"-x", "disk0", "desc"}, 1}, {{"-t", box.Path("missing.tab"), "disk0", "desc"}, 2},
      {{"-t", box.table(), "disk0", "desc"}, 0},
  };
  for (const auto &c : cases) {
    auto r = Cmd("unitprop", c.first);
    EXPECT_EQ(r.status, c.second) << testing::PrintToString(c.first) << " " << r.err;
    EXPECT_EQ(r.err.empty(), c.second == 0) << r.err;
  }
}

TEST(Unitlist, TableOrderCriteriaAndMalformedLines) {
  Sandbox box;
  std::string all = Cmd("unitlist", {}).out;
  EXPECT_EQ(all.substr(0, 30), "disk0\ndisk0s1\ndisk0s2\ndisk0s3\n");
  EXPECT_EQ(std::count(all.begin(), all.end(), '\n'), 32);
  const std::pair<std::vector<std::string>, const char *> cases[] = {
      {{"class=tape"}, "tape0\ntape1\n"},
      {{"-a", "class=serial", "state!=disabled", "speed:1*"}, "tty01\ntty03\ntty05\n"},
      {{"class=tape", "class=printer"}, "tape0\ntape1\nlp0\n"},  // any
      {{"-a", "class=tape", "class=printer"}, ""},              // all
      {{"-a", "ObjContains:*", "alias_status!:*", "class!=disk"}, "serial0\nserial1\nscsi0\n"},
      {{"alias=net1"}, "net1\n"}, {{"pathname=/usr"}, "disk0s2\n"}, {{"desc:*\"AHA-2940\"*"}, "scsi0\n"},
  };
  for (const auto &c : cases) EXPECT_EQ(Cmd("unitlist", c.first).out, c.second) << testing::PrintToString(c.first);
  EXPECT_EQ(Cmd("unitlist", {"novalue"}).status, 1);
  EXPECT_EQ(Cmd("unitlist", {"=x"}).status, 1);
  EXPECT_EQ(Cmd("unitlist", {"-t", box.Path("none.tab")}).status, 2);
  box.WriteTable("a::::\nb:::\nc:::: k=\"open\nd:::: k\ne::::k=\"v\"\n");
  auto r = Cmd("unitlist", {});
  EXPECT_EQ(r.out, "a\ne\n");
  for (const char *why : {":2: fewer than four colons", ":3: unterminated quote", ":4: keyword without '='"})
    EXPECT_NE(r.err.find(why), std::string::npos) << r.err;
}

TEST(Unitmod, RefusesBadUseAndLeavesTheTableAlone) {
  Sandbox box;
  const std::pair<std::vector<std::string>, int> cases[] = {
      {{"-m", "nosuch", "a=b"}, 3},   {{"-d", "nosuch"}, 3},          {{"-a", "disk0", "a=b"}, 4},
      {{"disk0", "a=b"}, 1},          {{"-a", "-d", "disk0"}, 1},     {{"-d", "disk0", "a=b"}, 1},
      {{"-m", "disk0", "novalue"}, 1}, {{"-m", "disk0", "=v"}, 1},    {{"-m", "disk0", "two words=v"}, 1},
      {{"-m", "disk0", "alias=other"}, 1}, {{"-a", ""}, 1},          {{"-m", "-t", box.Path("none"), "x", "a=b"}, 2},
  };
  std::string before = box.ReadTable();
  for (const auto &c : cases) EXPECT_EQ(Cmd("unitmod", c.first).status, c.second) << testing::PrintToString(c.first);
  EXPECT_EQ(box.ReadTable(), before) << "a failed command changed the table";
}

TEST(Unitmod, WritesTheTableFormatTakesValuesLiterallyAndKeepsEverythingElse) {
  Sandbox box;
  box.WriteTable(
      "# hand-written comment\n"
      "broken line without colons\n"
      "a:/dev/a::: x=\"1\"   y=unquoted\n"
      "b::::z=\"2\"\n");
  ASSERT_EQ(Cmd("unitmod", {"-m", "b", "z=3", "runcmd=echo hi", "pathname=/p", "w=a:b"}).status, 0);
  EXPECT_EQ(box.ReadTable(),
            "# hand-written comment\n"
            "broken line without colons\n"
            "a:/dev/a::: x=\"1\"   y=unquoted\n"
            "b:::/p:z=\"3\" w=\"a\\:b\" runcmd=\"echo hi\"\n");
  ASSERT_EQ(Cmd("unitmod", {"-a", "#c", "onlycmd=x"}).status, 0);
  EXPECT_NE(box.ReadTable().find("\n\\#c:::: onlycmd=\"x\"\n"), std::string::npos);
  ASSERT_EQ(Cmd("unitmod", {"-d", "a"}).status, 0);
  EXPECT_EQ(box.ReadTable().find("a:/dev/a"), std::string::npos);
  EXPECT_NE(box.ReadTable().find("broken line without colons\n"), std::string::npos);

  const std::vector<std::string> values = {"two words", "back\\slash", "quote\"d", "new\nline", "$(touch pwned)",
                                           "`id`", "semi;colon", "", " edges ", "tab\there", "it's"};
  ASSERT_EQ(Cmd("unitmod", {"-a", "new:one", "cdevice=/dev/x"}).status, 0);
  for (size_t i = 0; i < values.size(); ++i)
    ASSERT_EQ(Cmd("unitmod", {"-m", "new:one", "k" + std::to_string(i) + "=" + values[i]}).status, 0) << i;
  for (size_t i = 0; i < values.size(); ++i) EXPECT_EQ(Prop("new:one", "k" + std::to_string(i)), values[i]);
  EXPECT_EQ(Prop("new:one", "cdevice"), "/dev/x");
  EXPECT_NE(access(box.Path("pwned").c_str(), F_OK), 0);
}

TEST(Unitmod, MakesAMissingTableKeepsModesAndLinks) {
  Sandbox box;
  std::string fresh = box.Path("fresh.tab");
  ASSERT_EQ(Cmd("unitmod", {"-a", "-t", fresh, "x", "k=v"}).status, 0);
  EXPECT_EQ(ReadFile(fresh), "x::::k=\"v\"\n");
  ASSERT_EQ(chmod(fresh.c_str(), 0640), 0);
  std::string link = box.Path("link.tab");
  ASSERT_EQ(symlink("fresh.tab", link.c_str()), 0);
  ASSERT_EQ(Cmd("unitmod", {"-m", "-t", link, "x", "k=w"}).status, 0);
  struct stat l, f;
  ASSERT_EQ(lstat(link.c_str(), &l), 0);
  ASSERT_EQ(stat(fresh.c_str(), &f), 0);
  EXPECT_TRUE(S_ISLNK(l.st_mode)) << "the link was replaced by a file";
  EXPECT_EQ(f.st_mode & 0777, 0640u);
  EXPECT_EQ(ReadFile(fresh), "x::::k=\"w\"\n");
}

// A crash or a failure at any point leaves the old table or the new one,
// whole; the next writer removes what a killed one left.
TEST(Unitmod, CrashesAndFailuresLeaveTheOldOrTheNewTable) {
  const std::tuple<const char *, int, bool> cases[] = {
      {"kill@temp-written", -1, false}, {"kill@before-rename", -1, false}, {"kill@after-rename", -1, true},
      {"enospc@1", 5, false},           {"eio@fsync", 5, false},
  };
  for (const auto &c : cases) {
    Sandbox box;
    std::string before = box.ReadTable();
    setenv("QD_FAULT", std::get<0>(c), 1);
    auto r = Cmd("unitmod", {"-m", "disk1", "state=offline"});
    unsetenv("QD_FAULT");
    EXPECT_EQ(r.status, std::get<1>(c)) << std::get<0>(c);
    if (std::get<2>(c)) EXPECT_EQ(Prop("disk1", "state"), "offline");
    else EXPECT_EQ(box.ReadTable(), before) << std::get<0>(c);
    EXPECT_EQ(box.Count(".units.tab.new."), r.status == -1 && !std::get<2>(c) ? 1 : 0) << std::get<0>(c);
    EXPECT_EQ(Cmd("unitmod", {"-m", "disk2", "state=offline"}).status, 0);
    EXPECT_EQ(box.Count(".units.tab.new."), 0) << std::get<0>(c);
  }
}

}  // namespace
