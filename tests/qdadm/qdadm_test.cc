// qdadm as an administrator runs it: outputs in both formats, exit
// statuses, errors for bad arguments, and nothing changed by a failure.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "sandbox.h"

using testing_support::RunProgram;
using testing_support::Sandbox;

namespace {

testing_support::RunResult Admin(std::vector<std::string> args) {
  args.insert(args.begin(), QD_TEST_QDADM);
  return RunProgram(args);
}

class Qdadm : public testing::Test {
 protected:
  Sandbox box_;
};

TEST_F(Qdadm, ReadsInBothFormats) {
  struct Case { std::vector<std::string> args; std::string out; } cases[] = {
      {{"get", "disk0", "desc"}, "desc=SCSI disk 0: 9.1 GB\n"},
      {{"--json", "get", "disk0", "desc"}, "{\"desc\": \"SCSI disk 0: 9.1 GB\"}\n"},
      {{"get", "lp0", "testcmd"}, "testcmd=echo test page | lp -d lp\n"},
      {{"methods", "cdrom0"}, "ejectcmd=eject /dev/rdsk/cd0\n"},
      {{"list", "class=tape"}, "tape1\ntape0\n"},
      {{"--json", "list", "class=tape"}, "[\"tape1\", \"tape0\"]\n"},
      {{"match", "class=network", "--", "net0", "disk0", "net2"}, "net2\nnet0\n"},
      {{"--json", "next", "tape"}, "{\"alias\": \"tape1\"}\n"},
      {{"search", "--filter", "desc", "class=tape", "--not", "type=lto"}, "alias=tape0\ndesc=Tape drive 0\n"},
      {{"--json", "search", "--any", "--filter", "x", "class=floppy", "class=cdrom"},
       "[{\"alias\": \"floppy0\", \"attributes\": {}, \"methods\": {}}, "
       "{\"alias\": \"cdrom0\", \"attributes\": {}, \"methods\": {}}]\n"},
  };
  for (const Case &c : cases) {
    auto r = Admin(c.args);
    EXPECT_EQ(r.status, 0) << testing::PrintToString(c.args) << r.err;
    EXPECT_EQ(r.out, c.out) << testing::PrintToString(c.args);
  }
  auto obj = Admin({"--json", "get", "console"});
  EXPECT_EQ(obj.out,
            "{\"alias\": \"console\", \"attributes\": {\"cdevice\": \"/dev/console\", \"bdevice\": \"\", "
            "\"pathname\": \"\", \"class\": \"serial\", \"type\": \"console\", \"speed\": \"9600\", "
            "\"desc\": \"System console\", \"state\": \"enabled\"}, \"methods\": {}}\n");
}

// Values never meet a shell on the way to the table.
TEST_F(Qdadm, WritesDeletesAndTouches) {
  ASSERT_EQ(chdir(box_.dir().c_str()), 0);
  const std::string desc = "spare: \"4\" $(touch pwned); `id`";
  EXPECT_EQ(Admin({"put", "net3", "class=network", "desc=" + desc, "upcmd=ifconfig net3 up"}).status, 0);
  EXPECT_EQ(Admin({"get", "net3", "desc"}).out, "desc=spare: 4 $(touch pwned); `id`\n") << "quotes do not survive";
  EXPECT_NE(access("pwned", F_OK), 0);
  EXPECT_EQ(Admin({"get", "net3", "upcmd"}).out, "upcmd=ifconfig net3 up\n");
  EXPECT_EQ(Admin({"delete", "net3"}).status, 0);
  EXPECT_EQ(Admin({"get", "net3"}).status, 3);
  setenv("QD_TIMESTAMP", "0126,10,22,10,00,00,0,325,00", 1);
  EXPECT_EQ(Admin({"touch", "tape0"}).out, "ObjTimestamp=0126,10,22,10,00,00,0,325,00\n");
  EXPECT_EQ(Admin({"get", "tape0", "ObjTimestamp"}).out, "ObjTimestamp=0126,10,22,10,00,00,0,325,00\n");
  EXPECT_EQ(Admin({"--json", "stamp"}).out,
            "{\"stamp\": \"0126,10,22,10,00,00,0,325,00\", \"time\": \"2026-11-22 10:00:00\", "
            "\"timestamping\": \"on\"}\n");
}

TEST_F(Qdadm, ErrorsChangeNothing) {
  std::string before = box_.ReadTable();
  struct Case { std::vector<std::string> args; int status; } cases[] = {
      {{"get"}, 254},          {{"bogus"}, 254},          {{"--bogus", "list"}, 254},  {{"-v", "x", "list"}, 254},
      {{"put", "disk0", "novalue"}, 254},        {{"put", "disk0"}, 254},     {{"delete", "nosuch"}, 3},
      {{"get", "nosuch"}, 3},  {{"get", "disk0", "nosuch"}, 3},              {{"match", "class=disk", "disk0"}, 254},
      {{"search", "--not"}, 254},                {{"search", "--filter", "x"}, 254},     {{"lock", "sideways"}, 254},
      {{"touch", "disk0"}, 242},                 {{"cache", "bogus"}, 254},
  };
  for (const Case &c : cases) {
    auto r = Admin(c.args);
    EXPECT_EQ(r.status, c.status) << testing::PrintToString(c.args) << r.err;
    EXPECT_FALSE(r.err.empty()) << testing::PrintToString(c.args);
  }
  EXPECT_EQ(box_.ReadTable(), before);
}

// A command runs under the lock without a shell; cache commands work within one run.
TEST_F(Qdadm, LockAndCacheCommands) {
  auto r = Admin({"lock", "write", "--", "cat", box_.Path(".units.tab")});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.out.find(":LOCK:write\n"), std::string::npos) << r.out;
  EXPECT_EQ(Admin({"lock", "read", "--", "sh", "-c", "exit 7"}).status, 7);
  EXPECT_EQ(Admin({"lock", "test"}).out, "lock=free\n");
  r = Admin({"cache", "stats"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("entries=32\n"), std::string::npos);
  EXPECT_NE(r.out.find("QDcache_addobj=32\n"), std::string::npos);
  EXPECT_NE(Admin({"--json", "cache", "stats"}).out.find("\"entries\": 32, \"aliashashsize\": 128,"),
            std::string::npos);
  r = Admin({"--json", "cache", "flush"});
  EXPECT_EQ(r.out, "{\"entries\": 32, \"flushed\": 1}\n");
  EXPECT_EQ(Admin({"list"}).out.substr(0, 8), "floppy0\n") << "a direct flush writes in reverse";
}

TEST_F(Qdadm, StatusExpirationAndArchiveRuns) {
  box_.WriteTable("fresh:::: ObjTimestamp=\"0099,00,20,00,00,00,3,019,00\"\n"
                  "stale:::: ObjTimestamp=\"0099,00,18,00,00,00,1,017,00\"\n"
                  "old:::: ObjTimestamp=\"0099,00,01,00,00,00,5,000,00\"\n");
  EXPECT_EQ(Admin({"archive", "--all"}).status, 242) << "no stamp, no run";
  setenv("QD_TIMESTAMP", "0099,00,20,00,00,00,3,019,00", 1);
  EXPECT_EQ(Admin({"--json", "status", "fresh", "stale"}).out,
            "[{\"alias\": \"fresh\", \"status\": \"active\", \"stamp\": \"0099,00,20,00,00,00,3,019,00\", "
            "\"time\": \"1999-01-20 00:00:00\"}, {\"alias\": \"stale\", \"status\": \"stale\", "
            "\"stamp\": \"0099,00,18,00,00,00,1,017,00\", \"time\": \"1999-01-18 00:00:00\"}]\n");
  EXPECT_EQ(Admin({"expire"}).out, "stamp=0099,00,20,00,00,00,3,019,00\ndays=7\n"
                                   "expiration=0099,00,13,00,00,00,3,019,00\ntime=1999-01-13 00:00:00\n");
  EXPECT_EQ(Admin({"--json", "archive", "--all"}).out,
            "{\"directory\": \"" + box_.Path("archive/1999:01:20:00:00:00") +
                "\", \"kept\": \"1\", \"archived\": [\"stale\"], \"expired\": [\"old\"]}\n");
  ASSERT_EQ(mkdir(box_.Path("archive/1999:01:01:00:00:00").c_str(), 0755), 0);
  EXPECT_EQ(Admin({"archive", "--list"}).out, "directory=1999:01:01:00:00:00\ntime=1999-01-01 00:00:00\nobjects=0\n\n"
                                              "directory=1999:01:20:00:00:00\ntime=1999-01-20 00:00:00\nobjects=1\n");
  EXPECT_EQ(Admin({"archive", "--clean"}).out, "expiration=1999-01-13 00:00:00\nremoved=1999:01:01:00:00:00\n");
  for (auto bad : std::vector<std::vector<std::string>>{
           {"archive", "--all", "x"}, {"archive", "--lots"}, {"archive", "--list", "x"}, {"archive", "nosuch"}})
    EXPECT_EQ(Admin(bad).status, 254) << bad[1];
  EXPECT_EQ(Admin({"status", "nosuch"}).status, 3);
}

TEST_F(Qdadm, PerformsAndPlansMethods) {
  setenv("SO_DIR", QD_TEST_METHODS_DIR, 1);
  ASSERT_EQ(chdir(box_.dir().c_str()), 0);
  ASSERT_EQ(Admin({"put", "serial1", "touchcmd=touch ran", "diecmd=kill -9 $$", "touchfunc=touchcmd[1][!]"}).status, 0);
  struct Case { std::vector<std::string> args; int status; std::string out; } cases[] = {
      {{"perform", "serial1", "checkfunc", "names=irq"}, 0, "ports=4\nenabled=2\nerrorcode=0\ncompletioncode=0\nirq=7\n"},
      {{"--json", "perform", "serial1", "statuscmd"}, 0, "{\"ports\": \"4\", \"enabled\": \"2\", \"completioncode\": \"0\"}\n"},
      {{"perform", "serial1", "nofunc"}, 1, "errorcode=3\n"},
      {{"perform", "serial1", "diecmd"}, 255, ""},
      {{"perform", "serial1", "checkfunc", "novalue"}, 254, ""},
      {{"plan", "serial1", "checkfunc"}, 0,
       "1 command pre=k post=+? echo ports=4; echo enabled=2; echo completioncode=0\n2 function pre=k post=+? devcheck.attrs\n"},
      {{"--json", "plan", "serial1", "touchfunc"}, 0,
       "[{\"step\": 1, \"kind\": \"command\", \"pre\": \"\", \"post\": \"!-\", \"value\": \"touch ran\"}]\n"},
      {{"plan", "serial1", "nofunc"}, 3, ""},
  };
  for (const Case &c : cases) {
    auto r = Admin(c.args);
    EXPECT_EQ(r.status, c.status) << testing::PrintToString(c.args) << r.err;
    EXPECT_EQ(r.out, c.out) << testing::PrintToString(c.args);
  }
  EXPECT_NE(access("ran", F_OK), 0) << "plan ran a method";
  EXPECT_EQ(Admin({"perform", "serial1", "touchfunc"}).status, 0);
  EXPECT_EQ(access("ran", F_OK), 0);
}

}  // namespace
