// unitmod: statuses, what it writes, what it keeps, and that the table is
// never torn by a crash, a full disk or a concurrent writer.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "sandbox.h"

using testing_support::Command;
using testing_support::ReadFile;
using testing_support::RunProgram;
using testing_support::Sandbox;

namespace {

int Mod(std::vector<std::string> args) {
  args.insert(args.begin(), Command("unitmod"));
  return RunProgram(args).status;
}

std::string Prop(const std::string &alias, const std::string &name) {
  auto r = RunProgram({Command("unitprop"), alias, name});
  return r.status == 0 ? r.out.substr(0, r.out.size() - 1) : "<status " + std::to_string(r.status) + ">";
}

TEST(Unitmod, ExitStatuses) {
  Sandbox box;
  struct Case {
    std::vector<std::string> args;
    int status;
  } cases[] = {
      {{"-m", "nosuch", "a=b"}, 3},
      {{"-d", "nosuch"}, 3},
      {{"-a", "disk0", "a=b"}, 4},
      {{"disk0", "a=b"}, 1},               // no mode
      {{"-a", "-d", "disk0"}, 1},          // two modes
      {{"-d", "disk0", "a=b"}, 1},         // delete takes no pairs
      {{"-m", "disk0", "novalue"}, 1},
      {{"-m", "disk0", "=v"}, 1},
      {{"-m", "disk0", "two words=v"}, 1},
      {{"-m", "disk0", "alias=other"}, 1},
      {{"-a", ""}, 1},
      {{"-m", "-t", box.Path("none.tab"), "disk0", "a=b"}, 2},
      {{"-d", "-t", box.Path("none.tab"), "disk0"}, 2},
  };
  std::string before = box.ReadTable();
  for (const Case &c : cases) {
    std::vector<std::string> argv = c.args;
    EXPECT_EQ(Mod(argv), c.status) << testing::PrintToString(c.args);
  }
  EXPECT_EQ(box.ReadTable(), before) << "a failed command changed the table";
}

TEST(Unitmod, AddModifyDeleteRoundTripAwkwardValues) {
  Sandbox box;
  const std::vector<std::string> values = {
      "plain", "two words", "colon:inside", "back\\slash", "quote\"d", "new\nline",
      "$(touch pwned)", "`id`", "semi;colon", "", " edges ", "tab\there", "it's",
  };
  ASSERT_EQ(Mod({"-a", "new:one", "cdevice=/dev/x", "k0=first"}), 0);
  for (size_t i = 0; i < values.size(); ++i)
    ASSERT_EQ(Mod({"-m", "new:one", "k" + std::to_string(i) + "=" + values[i]}), 0) << i;
  for (size_t i = 0; i < values.size(); ++i) EXPECT_EQ(Prop("new:one", "k" + std::to_string(i)), values[i]);
  EXPECT_EQ(Prop("new:one", "cdevice"), "/dev/x");
  EXPECT_NE(access(box.Path("pwned").c_str(), F_OK), 0);
  ASSERT_EQ(Mod({"-d", "new:one"}), 0);
  EXPECT_EQ(Prop("new:one", "k0"), "<status 3>");
}

TEST(Unitmod, WritesTheTableFormatAndKeepsEverythingElse) {
  Sandbox box;
  const std::string keep =
      "# hand-written comment\n"
      "broken line without colons\n"
      "a:/dev/a::: x=\"1\"   y=unquoted\n"
      "b::::z=\"2\"\n";
  box.WriteTable(keep);
  ASSERT_EQ(Mod({"-m", "b", "z=3", "runcmd=echo hi", "pathname=/p", "w=a:b"}), 0);
  EXPECT_EQ(box.ReadTable(),
            "# hand-written comment\n"
            "broken line without colons\n"
            "a:/dev/a::: x=\"1\"   y=unquoted\n"
            "b:::/p:z=\"3\" w=\"a\\:b\" runcmd=\"echo hi\"\n");
  ASSERT_EQ(Mod({"-a", "#c", "onlycmd=x"}), 0);
  EXPECT_NE(box.ReadTable().find("\n\\#c:::: onlycmd=\"x\"\n"), std::string::npos);
  EXPECT_EQ(Prop("#c", "onlycmd"), "x");
  ASSERT_EQ(Mod({"-d", "a"}), 0);
  EXPECT_EQ(box.ReadTable().find("a:/dev/a"), std::string::npos);
  EXPECT_NE(box.ReadTable().find("broken line without colons\n"), std::string::npos);
}

TEST(Unitmod, AddCreatesAMissingTableAndKeepsTheModeOfAnExistingOne) {
  Sandbox box;
  std::string fresh = box.Path("fresh.tab");
  ASSERT_EQ(Mod({"-a", "-t", fresh, "x", "k=v"}), 0);
  EXPECT_EQ(ReadFile(fresh), "x::::k=\"v\"\n");
  ASSERT_EQ(chmod(box.table().c_str(), 0640), 0);
  ASSERT_EQ(Mod({"-m", "disk0", "k=v"}), 0);
  struct stat st;
  ASSERT_EQ(stat(box.table().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
}

// A crash at any point leaves the old table or the new one, whole.
TEST(Unitmod, CrashAtAnyPointLeavesOldOrNewTable) {
  for (const char *point : {"temp-written", "before-rename", "after-rename"}) {
    Sandbox box;
    std::string before = box.ReadTable();
    setenv("QD_FAULT", (std::string("kill@") + point).c_str(), 1);
    auto r = RunProgram({Command("unitmod"), "-m", "disk1", "state=offline"});
    unsetenv("QD_FAULT");
    EXPECT_EQ(r.status, -1) << point << " was not reached";
    std::string after = box.ReadTable();
    if (std::string(point) == "after-rename") {
      EXPECT_EQ(Prop("disk1", "state"), "offline");
    } else {
      EXPECT_EQ(after, before) << point;
    }
    // The next writer clears what the dead one left and succeeds.
    EXPECT_EQ(Mod({"-m", "disk2", "state=offline"}), 0);
    auto ls = RunProgram({"/bin/sh", "-c", "ls -a '" + box.dir() + "' | grep -c new || true"});
    EXPECT_EQ(ls.out, "0\n") << point;
  }
}

TEST(Unitmod, FullDiskOrFailedSyncLeavesTheTableUnchanged) {
  for (const char *fault : {"enospc@1", "eio@fsync"}) {
    Sandbox box;
    std::string before = box.ReadTable();
    setenv("QD_FAULT", fault, 1);
    auto r = RunProgram({Command("unitmod"), "-m", "disk1", "state=offline"});
    unsetenv("QD_FAULT");
    EXPECT_EQ(r.status, 5) << fault;
    EXPECT_NE(r.err.find("unchanged"), std::string::npos) << r.err;
    EXPECT_EQ(box.ReadTable(), before) << fault;
  }
}

// Writers in several processes each change a distinct attribute: with the
// lock and the inode check, none of their changes is lost.
TEST(Unitmod, ConcurrentWritersLoseNothing) {
  Sandbox box;
  constexpr int kWriters = 6, kEach = 15;
  std::vector<pid_t> kids;
  for (int w = 0; w < kWriters; ++w) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      for (int i = 0; i < kEach; ++i) {
        std::string kv = "w" + std::to_string(w) + "_" + std::to_string(i) + "=v";
        if (RunProgram({Command("unitmod"), "-m", "net1", kv}).status != 0) _exit(1);
      }
      _exit(0);
    }
    kids.push_back(pid);
  }
  for (pid_t pid : kids) {
    int st = 0;
    waitpid(pid, &st, 0);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
  }
  auto r = RunProgram({Command("unitprop"), "-v", "net1"});
  for (int w = 0; w < kWriters; ++w)
    for (int i = 0; i < kEach; ++i)
      EXPECT_NE(r.out.find("w" + std::to_string(w) + "_" + std::to_string(i) + "='v'"),
                std::string::npos);
}

}  // namespace
