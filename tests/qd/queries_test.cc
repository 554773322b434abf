// The four queries end to end: libQD runs the real unitprop on a sandbox
// table. Where the output of unitprop itself is the subject, a stand-in
// unitprop placed first on PATH prints what the test wants and records how
// it was called.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>

#include "qd.h"
#include "sandbox.h"
#include "trace_capture.h"

using testing_support::ReadFile;
using testing_support::Sandbox;
using testing_support::WriteFile;

namespace {

std::map<std::string, std::string> ToMap(KeywordList *list) {
  std::map<std::string, std::string> m;
  list->kwl_cursor = list->kwl_first;
  char *kw, *value;
  int rc;
  while ((rc = ReferenceNextKeywordInList(list, &kw, &value)) == KWL_OK || rc == KWL_WARN)
    m[kw] = value;
  return m;
}

// A unitprop that prints `output`, exits with `status` and logs its arguments.
class FakeUnitprop {
 public:
  FakeUnitprop(const Sandbox &box, const std::string &output, int status = 0) {
    WriteFile(box.Path("fake.out"), output);
    log_ = testing_support::FakeCommand(box, "unitprop",
                                        "cat '" + box.Path("fake.out") + "'\nexit " + std::to_string(status));
  }
  std::string Calls() const { return access(log_.c_str(), F_OK) == 0 ? ReadFile(log_) : ""; }

 private:
  std::string log_;
};

TEST(QDLgetattr, ReadsOneValueThroughUnitprop) {
  Sandbox box;
  NameValue *nv = QDLgetattr("disk0", "desc");
  ASSERT_NE(nv, nullptr);
  EXPECT_STREQ(nv->name, "desc");
  EXPECT_STREQ(nv->value, "SCSI disk 0: 9.1 GB");
  free(nv);
  nv = QDLgetattr("disk0", "pathname");  // present but empty
  ASSERT_NE(nv, nullptr);
  EXPECT_STREQ(nv->value, "");
  free(nv);
}

TEST(QDLgetattr, FailsForUnknownAliasOrName) {
  Sandbox box;
  EXPECT_EQ(QDLgetattr("nosuch", "desc"), nullptr);
  EXPECT_EQ(QDLgetattr("disk0", "nosuch"), nullptr);
  setenv("TAV_DEVTAB", box.Path("missing.tab").c_str(), 1);
  EXPECT_EQ(QDLgetattr("disk0", "desc"), nullptr);
}

TEST(QDLgetattr, RefusesMethodNamesWithoutRunningACommand) {
  Sandbox box;
  FakeUnitprop fake(box, "value\n");
  EXPECT_EQ(QDLgetattr("disk0", "formatcmd"), nullptr);
  EXPECT_EQ(QDLgetattr("disk0", "statfunc"), nullptr);
  EXPECT_EQ(QDLgetmethod("disk0", "desc"), nullptr);
  EXPECT_EQ(fake.Calls(), "");
  NameValue *nv = QDLgetmethod("disk0", "formatcmd");
  ASSERT_NE(nv, nullptr);
  EXPECT_EQ(fake.Calls(), "<disk0><formatcmd>\n");
  free(nv);
}

TEST(QDLgetmethod, ReadsAMethodValue) {
  Sandbox box;
  NameValue *nv = QDLgetmethod("net0", "restartfunc");
  ASSERT_NE(nv, nullptr);
  EXPECT_STREQ(nv->value, "downcmd[10][x],upcmd[20][?]");
  free(nv);
}

TEST(QDLgetattr, TheLastOutputLineIsTheValue) {
  Sandbox box;
  FakeUnitprop fake(box, "first\nsecond\nthird\n");
  NameValue *nv = QDLgetattr("x", "desc");
  ASSERT_NE(nv, nullptr);
  EXPECT_STREQ(nv->value, "third");
  free(nv);
}

TEST(QDLgetattr, NamesAndValuesAtTheRecordLimits) {
  Sandbox box;
  FakeUnitprop fake(box, std::string(512, 'v') + "\n");
  NameValue *nv = QDLgetattr("x", std::string(32, 'n').c_str());
  ASSERT_NE(nv, nullptr);
  EXPECT_EQ(std::string(nv->value), std::string(512, 'v'));
  free(nv);
  EXPECT_EQ(QDLgetattr("x", std::string(33, 'n').c_str()), nullptr);
  FakeUnitprop longer(box, std::string(513, 'v') + "\n");
  EXPECT_EQ(QDLgetattr("x", "desc"), nullptr);
}

TEST(QDLgetattrs, SplitsAttributesFromMethodsAndAliasNames) {
  Sandbox box;
  KeywordList *attrs = QDLgetattrs("floppy0");
  KeywordList *methods = QDLgetmethods("floppy0");
  ASSERT_NE(attrs, nullptr);
  ASSERT_NE(methods, nullptr);
  EXPECT_EQ(ToMap(attrs), (std::map<std::string, std::string>{
                              {"cdevice", "/dev/rdsk/f0"}, {"bdevice", "/dev/dsk/f0"},
                              {"pathname", ""}, {"class", "floppy"}, {"type", "3.5in"},
                              {"desc", "Floppy drive"}, {"density", "720k,1.44m"}}));
  EXPECT_EQ(ToMap(methods),
            (std::map<std::string, std::string>{{"formatcmd", "fdformat /dev/rdsk/f0"}}));
  DestroyKeywordList(attrs);
  DestroyKeywordList(methods);
  EXPECT_EQ(QDLgetattrs("nosuch"), nullptr);
  EXPECT_EQ(QDLgetmethods("nosuch"), nullptr);
}

// How "unitprop -v" lines become pairs, including the lines that are refused.
TEST(QDLgetattrs, ParsesOutputLines) {
  Sandbox box;
  std::string n33(33, 'n'), n34(34, 'm');
  FakeUnitprop fake(box,
                    "alias='x'\n"
                    "desc='Disk drive'\n"
                    "bare=unquoted value\n"
                    "quoted='it's inside'\n"
                    "broken=it's\n"
                    "no equals sign here\n" +
                        n33 + "='ok'\n" + n34 + "='refused'\n"
                        "v513='" + std::string(513, 'a') + "'\n"
                        "v514='" + std::string(514, 'b') + "'\n"
                        "runcmd='echo hi'\n");
  TraceCapture trace(box, 3);
  KeywordList *attrs = QDLgetattrs("x");
  ASSERT_NE(attrs, nullptr);
  auto m = ToMap(attrs);
  EXPECT_EQ(m, (std::map<std::string, std::string>{{"desc", "Disk drive"},
                                                   {"bare", "unquoted value"},
                                                   {"quoted", "it's inside"},
                                                   {n33, "ok"},
                                                   {"v513", std::string(513, 'a')}}));
  EXPECT_TRUE(trace.Has("Invalid keyword value;missing end quote:[s]"));
  EXPECT_TRUE(trace.Has("Invalid keyword:too many characters:[" + n34 + "]\n"));
  EXPECT_TRUE(trace.Has("Invalid keyword value;too many characters:[" + std::string(514, 'b')));
  DestroyKeywordList(attrs);
}

TEST(Queries, ArgumentsReachUnitpropLiterally) {
  Sandbox box;
  ASSERT_EQ(chdir(box.dir().c_str()), 0);
  FakeUnitprop fake(box, "v\n");
  for (const char *alias : {"$(touch pwned)", "`touch pwned`", "a;touch pwned", "it's", "a b"}) {
    NameValue *nv = QDLgetattr(alias, "desc");
    ASSERT_NE(nv, nullptr) << alias;
    free(nv);
  }
  EXPECT_EQ(fake.Calls(),
            "<$(touch pwned)><desc>\n<`touch pwned`><desc>\n<a;touch pwned><desc>\n"
            "<it's><desc>\n<a b><desc>\n");
  EXPECT_NE(access("pwned", F_OK), 0);
}

TEST(Queries, OptionLikeAliasesAreRefusedWithAClearError) {
  Sandbox box;
  FakeUnitprop fake(box, "v\n");
  TraceCapture trace(box, 3);
  EXPECT_EQ(QDLgetattr("-v", "desc"), nullptr);
  EXPECT_EQ(QDLgetattrs("-x"), nullptr);
  EXPECT_EQ(fake.Calls(), "");
  EXPECT_TRUE(trace.Has("argument would be read as an option")) << trace.Text();
}

// unitprop runs while the query holds the table's read lock.
TEST(Queries, HoldTheReadLockWhileUnitpropRuns) {
  Sandbox box;
  std::string bin = box.Path("lockbin");
  mkdir(bin.c_str(), 0755);
  WriteFile(bin + "/unitprop", "#!/bin/sh\ncut -d: -f4,5 '" + box.Path(".units.tab") + "'\n");
  chmod((bin + "/unitprop").c_str(), 0755);
  setenv("PATH", (bin + ":" + getenv("PATH")).c_str(), 1);
  NameValue *nv = QDLgetattr("disk0", "desc");
  ASSERT_NE(nv, nullptr);
  EXPECT_STREQ(nv->value, "LOCK:read");
  free(nv);
  KeywordList *attrs = QDLgetattrs("disk0");  // "LOCK:read" has no '=': no pairs
  ASSERT_NE(attrs, nullptr);
  DestroyKeywordList(attrs);
  EXPECT_NE(access(box.Path(".units.tab").c_str(), F_OK), 0) << "released and removed";
}

TEST(Queries, AreReachedThroughTheDispatchOfLibPV) {
  Sandbox box;
  NameValue *nv = PVQueryattr("tty03", "speed");
  ASSERT_NE(nv, nullptr);
  EXPECT_STREQ(nv->value, "115200");
  free(nv);
  KeywordList *methods = PVQuerymeths("tty03");
  ASSERT_NE(methods, nullptr);
  EXPECT_EQ(NumberOfKeywords(methods), 2);
  DestroyKeywordList(methods);
  ObjectRecord *object = PVQueryobjs("tty03");
  ASSERT_NE(object, nullptr);
  EXPECT_STREQ(object->alias, "tty03");
  EXPECT_EQ(NumberOfKeywords(object->methods), 2);
  QDfreeobj(object);
}

}  // namespace
