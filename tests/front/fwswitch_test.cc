// Every path of the framework decision, with the real run-level checker
// (behind a wrapper that logs each run) and real dlopen of the example
// framework and its broken variants.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <algorithm>
#include <memory>
#include <string>
#include <tuple>

#include "list_util.h"
#include "qd_paths.h"
#include "sandbox.h"
#include "trace_capture.h"

using testing_support::ReadFile;
using testing_support::Sandbox;
using testing_support::WriteFile;

namespace {

class Switch : public testing::Test {
 protected:
  void SetUp() override {
    trace_ = std::make_unique<TraceCapture>(box_, 8);
    // The framework's own table differs from the sample: its values show who served.
    WriteFile(box_.Path("fw.tab"), "disk0:/fw/rdsk:::desc=\"from the framework\" fwcmd=\"echo fw\"\n");
    setenv("QDDEMO_TABLE", box_.Path("fw.tab").c_str(), 1);
    setenv("SO_DIR", QD_TEST_FRAMEWORK_DIR, 1);
    setenv("TAV_LIBQDRC", box_.Path("libQDrc").c_str(), 1);
    setenv("CHECKRUNLEVEL_LEVEL", "3", 1);
    // A checker that logs each run, then asks the real one.
    WriteFile(box_.Path("checker"), "#!/bin/sh\necho run >> '" + box_.Path("checker.log") + "'\nexec '" +
                                        QD_TEST_CHECKER + "'\n");
    chmod(box_.Path("checker").c_str(), 0755);
    setenv("QD_RUNLEVEL_CHECKER_PATH", box_.Path("checker").c_str(), 1);
    // Frameworks are considered only for the default table.
    DefaultTable();
    unsetenv("YRA_FW");
  }
  void DefaultTable() {
    mkdir((std::string(QD_DEVTAB_PATH) + "/..").c_str(), 0755);
    setenv("TAV_DEVTAB", QD_DEVTAB_PATH, 1);
  }
  int CheckerRuns() const {
    std::string log = access(box_.Path("checker.log").c_str(), F_OK) == 0 ? ReadFile(box_.Path("checker.log")) : "";
    return static_cast<int>(std::count(log.begin(), log.end(), '\n'));
  }
  static bool Loaded(const std::string &lib) {
    return ReadFile("/proc/self/maps").find(lib) != std::string::npos;
  }
  // The value of disk0's desc as the public query gives it.
  static std::string Desc() { return pvtest::Value(QDgetattr("disk0", "desc")); }
  bool Traced(const std::string &s) const { return trace_->Has(s); }

  Sandbox box_;
  std::unique_ptr<TraceCapture> trace_;
};

// The framework serves the queries and the writes; QDgetobj and QDputobj
// themselves never consult the switch, their reads and writes do.
TEST_F(Switch, AFrameworkServesTheQueriesAndWrites) {
  setenv("YRA_FW", "demo", 1);
  EXPECT_EQ(Desc(), "from the framework");
  EXPECT_EQ(IsOriginalQD(), 0);
  EXPECT_EQ(pvtest::Value(QDgetmethod("disk0", "fwcmd")), "echo fw");
  EXPECT_EQ(CheckerRuns(), 1) << "the checker runs once per decision";
  EXPECT_TRUE(Loaded("libQDdemo.so"));
  ObjectRecord *object = QDgetobj("disk0");
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(NumberOfKeywords(object->methods), 1);
  UpdateKeywordInList(object->attributes, "desc", "copied");
  EXPECT_EQ(QDputobj("disk9", object), 0);  // the given alias, not the record's
  QDfreeobj(object);
  EXPECT_FALSE(Traced("FWgetobj"));
  EXPECT_TRUE(Traced("Searching for routine FWgetattrs()"));
  std::string table = ReadFile(box_.Path("fw.tab"));
  EXPECT_NE(table.find("\ndisk9:/fw/rdsk:::desc=\"copied\" fwcmd=\"echo fw\"\n"), std::string::npos) << table;
  EXPECT_NE(table.find("disk0:/fw/rdsk:::desc=\"from the framework\""), std::string::npos);
}

TEST_F(Switch, APrivateTableIsServedLocallyAndLeavesTheSwitchUndecided) {
  setenv("YRA_FW", "demo", 1);
  setenv("TAV_DEVTAB", box_.table().c_str(), 1);
  EXPECT_EQ(Desc(), "SCSI disk 0: 9.1 GB");
  EXPECT_EQ(IsOriginalQD(), 1);
  EXPECT_TRUE(Traced("non default table override in effect, path=" + box_.table()));
  EXPECT_EQ(CheckerRuns(), 0);
  EXPECT_FALSE(Loaded("libQDdemo.so"));
  DefaultTable();  // still undecided: the decision happens now
  EXPECT_EQ(Desc(), "from the framework");
}

TEST_F(Switch, NoNameAnywhereMeansLocalWithoutRunningAnything) {
  EXPECT_EQ(IsOriginalQD(), 1);
  EXPECT_EQ(IsOriginalQD(), 1);  // decided: the second call asks nothing
  EXPECT_EQ(CheckerRuns(), 0);
  EXPECT_TRUE(Traced("switch setting: 1")) << "decided local for good";
}

TEST_F(Switch, TheSettingsFileNamesTheFrameworkLastNonEmptyLineWins) {
  WriteFile(box_.Path("libQDrc"), "# settings\nYRA_FW=nosuch\nQD_CACHE=1\nYRA_FW=demo\nYRA_FW=\n");
  EXPECT_EQ(Desc(), "from the framework");
}

TEST_F(Switch, DecisionFailuresFallBackToLocalService) {
  // YRA_FW, the run level the checker sees, whether the checker exists, what the failure leaves in the trace.
  const std::tuple<const char *, const char *, bool, const char *> cases[] = {
      {"demo", "3", false, "Cannot stat() run-level checker - framework set to default"},
      {"demo", "1", true, "Run-level not appropriate for framework choice"},
      {"nosuch", "3", true, "libQDnosuch.so"},
      {"noinit", "3", true, "No symbol for FWinit:"},
      {"badinit", "3", true, "Error in FWinit, returned 7, using original QD"},
      {"../framework/demo", "3", true, "Invalid framework name: ../framework/demo"},
  };
  for (const auto &[name, level, checker, trace] : cases) {
    pid_t pid = fork();  // each decision is once per process
    if (pid == 0) {
      setenv("YRA_FW", name, 1);
      setenv("CHECKRUNLEVEL_LEVEL", level, 1);
      if (!checker) setenv("QD_RUNLEVEL_CHECKER_PATH", "/nonexistent/CheckRunLevel", 1);
      setenv("TAV_DEVTAB", QD_DEVTAB_PATH, 1);
      bool ok = IsOriginalQD() == 1 && Traced(trace) && Traced("switch setting: 0");
      // Decided: later calls go straight to local service.
      ok = ok && IsOriginalQD() == 1 && Traced("switch setting: 1");
      _exit(ok ? 0 : 1);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << name << "/" << level << "\n" << trace_->Text();
  }
}

TEST_F(Switch, AFrameworkMissingOneFunctionIsDroppedForTheRestOfTheProcess) {
  setenv("YRA_FW", "nogetattr", 1);
  // Served by the framework: cdevice, bdevice, pathname, desc.
  EXPECT_EQ(NumberOfKeywords(pvtest::List(QDgetattrs("disk0")).get()), 4);
  // FWgetattr is missing: this call and every later one are local. The
  // default table does not exist in the sandbox, so local service finds nothing.
  EXPECT_EQ(Desc(), "<null>");
  EXPECT_FALSE(pvtest::List(QDgetattrs("disk0"))) << "FWgetattrs is no longer used";
}

TEST_F(Switch, SetFWswitchNullRunsNoCheckerAndOpensNoLibrary) {
  setenv("YRA_FW", "demo", 1);
  EXPECT_EQ(SetFWswitch(nullptr), 0);
  EXPECT_EQ(Desc(), "<null>");  // local, on the (missing) default table
  EXPECT_EQ(IsOriginalQD(), 1);
  EXPECT_EQ(CheckerRuns(), 0);
  EXPECT_FALSE(Loaded("libQDdemo.so"));
  // Naming a framework makes the next call decide afresh.
  EXPECT_EQ(SetFWswitch("demo"), 0);
  EXPECT_STREQ(getenv("YRA_FW"), "demo");
  EXPECT_EQ(Desc(), "from the framework");
}

TEST_F(Switch, NamesTooLongForTheirBuffersAreRefused) {
  std::string huge(2000, 'x');
  EXPECT_EQ(SetFWswitch(huge.c_str()), -1);
  EXPECT_EQ(getenv("YRA_FW"), nullptr);
  setenv("YRA_FW", huge.c_str(), 1);
  EXPECT_EQ(IsOriginalQD(), 1);
  unsetenv("YRA_FW");
  WriteFile(box_.Path("libQDrc"), "YRA_FW=" + huge + "\n");
  char name[1024] = "";
  EXPECT_EQ(QDread_rc(name), 1);
  EXPECT_EQ(CheckerRuns(), 0);
}

}  // namespace
