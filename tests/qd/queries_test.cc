// The queries and object records end to end: libQD runs the real unitprop on
// a sandbox table. Where unitprop's output itself is the subject, a stand-in
// unitprop first on PATH prints what the test wants and logs its calls.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "list_util.h"
#include "trace_capture.h"

using pvtest::All;
using pvtest::Pairs;
using pvtest::Value;
using testing_support::ReadFile;
using testing_support::Sandbox;

namespace {

// A unitprop that prints `output` and logs its arguments.
std::string FakeUnitprop(const Sandbox &box, const std::string &output) {
  testing_support::WriteFile(box.Path("fake.out"), output);
  return testing_support::FakeCommand(box, "unitprop", "cat '" + box.Path("fake.out") + "'");
}

TEST(Queries, ReadValuesAttributesMethodsAndWholeObjects) {
  Sandbox box;
  EXPECT_EQ(Value(QDLgetattr("disk0", "desc")), "SCSI disk 0: 9.1 GB");
  EXPECT_EQ(Value(QDLgetattr("disk0", "pathname")), "");
  EXPECT_EQ(Value(QDLgetmethod("net0", "restartfunc")), "downcmd[10][x],upcmd[20][?]");
  for (NameValue *none : {QDLgetattr("nosuch", "desc"), QDLgetattr("disk0", "nosuch"), QDLgetmethod("disk0", "desc")})
    EXPECT_EQ(none, nullptr);
  EXPECT_EQ(All(pvtest::List(QDLgetattrs("floppy0")).get()),
            (Pairs{{"cdevice", "/dev/rdsk/f0"}, {"bdevice", "/dev/dsk/f0"}, {"pathname", ""}, {"class", "floppy"},
                   {"type", "3.5in"}, {"desc", "Floppy drive"}, {"density", "720k,1.44m"}}));
  EXPECT_EQ(All(pvtest::List(QDLgetmethods("floppy0")).get()), (Pairs{{"formatcmd", "fdformat /dev/rdsk/f0"}}));
  EXPECT_EQ(QDLgetattrs("nosuch"), nullptr);
  ObjectRecord *o = QDgetobj("tape1");
  ASSERT_NE(o, nullptr);
  EXPECT_STREQ(o->alias, "tape1");
  EXPECT_EQ(NumberOfKeywords(o->attributes) * 10 + NumberOfKeywords(o->methods), 83);
  QDfreeobj(o);
  o = QDLgetobj("console");  // without methods: an empty method list
  ASSERT_TRUE(o != nullptr && o->methods != nullptr);
  EXPECT_EQ(NumberOfKeywords(o->methods), 0);
  QDfreeobj(o);
  EXPECT_EQ(QDgetobj("nosuch"), nullptr);
  EXPECT_EQ(QDputobj("x", nullptr), 12);
  setenv("TAV_DEVTAB", box.Path("missing.tab").c_str(), 1);
  EXPECT_EQ(QDLgetattr("disk0", "desc"), nullptr);
}

// What unitprop prints becomes values: the last line, records at their
// limits, and "unitprop -v" lines, the refused ones reported.
TEST(Queries, OutputLinesBecomeValues) {
  Sandbox box;
  std::string log = FakeUnitprop(box, "first\nsecond\nthird\n");
  EXPECT_EQ(QDLgetattr("disk0", "formatcmd"), nullptr);  // method names never run a command
  EXPECT_EQ(Value(QDLgetattr("x", "desc")), "third");
  EXPECT_EQ(Value(QDLgetmethod("disk0", "formatcmd")), "third");
  EXPECT_EQ(ReadFile(log), "<x><desc>\n<disk0><formatcmd>\n");
  FakeUnitprop(box, std::string(512, 'v') + "\n");
  EXPECT_EQ(Value(QDLgetattr("x", std::string(32, 'n').c_str())), std::string(512, 'v'));
  EXPECT_EQ(QDLgetattr("x", std::string(33, 'n').c_str()), nullptr);
  FakeUnitprop(box, std::string(513, 'v') + "\n");
  EXPECT_EQ(QDLgetattr("x", "desc"), nullptr);
  std::string n33(33, 'n'), n34(34, 'm');
  FakeUnitprop(box, "alias='x'\ndesc='Disk drive'\nbare=unquoted value\nquoted='it's inside'\nbroken=it's\n"
                    "no equals sign here\n" + n33 + "='ok'\n" + n34 + "='refused'\nv513='" +
                        std::string(513, 'a') + "'\nv514='" + std::string(514, 'b') + "'\nruncmd='echo hi'\n");
  TraceCapture trace(box, 3);
  EXPECT_EQ(All(pvtest::List(QDLgetattrs("x")).get()), (Pairs{{"desc", "Disk drive"}, {"bare", "unquoted value"},
                                                              {"quoted", "it's inside"}, {n33, "ok"},
                                                              {"v513", std::string(513, 'a')}}));
  EXPECT_TRUE(trace.Has("Invalid keyword:too many characters:[" + n34 + "]\n"));
  EXPECT_TRUE(trace.Has("Invalid keyword value;too many characters:[" + std::string(514, 'b')));
}

TEST(Queries, ArgumentsReachUnitpropLiterallyUnderTheReadLock) {
  Sandbox box;
  ASSERT_EQ(chdir(box.dir().c_str()), 0);
  std::string log = FakeUnitprop(box, "v\n");
  for (const char *alias : {"$(touch pwned)", "`touch pwned`", "a;touch pwned", "it's"})
    EXPECT_EQ(Value(QDLgetattr(alias, "desc")), "v") << alias;
  EXPECT_EQ(ReadFile(log), "<$(touch pwned)><desc>\n<`touch pwned`><desc>\n<a;touch pwned><desc>\n<it's><desc>\n");
  EXPECT_NE(access("pwned", F_OK), 0);
  TraceCapture trace(box, 3);
  EXPECT_EQ(QDLgetattr("-v", "desc"), nullptr);  // would be read as an option
  EXPECT_TRUE(trace.Has("argument would be read as an option")) << trace.Text();
  // unitprop runs while the query holds the table's read lock.
  testing_support::FakeCommand(box, "unitprop", "cut -d: -f4,5 '" + box.Path(".units.tab") + "'");
  EXPECT_EQ(Value(QDLgetattr("disk0", "desc")), "LOCK:read");
  EXPECT_NE(access(box.Path(".units.tab").c_str(), F_OK), 0) << "released and removed";
}

}  // namespace
