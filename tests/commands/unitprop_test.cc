// unitprop as a user runs it: values, the -v listing and exit statuses.
#include <gtest/gtest.h>

#include "sandbox.h"

using testing_support::Command;
using testing_support::RunProgram;
using testing_support::Sandbox;

namespace {

TEST(Unitprop, PrintsOneValueWithEscapesUndone) {
  Sandbox box;
  auto r = RunProgram({Command("unitprop"), "disk0", "desc"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "SCSI disk 0: 9.1 GB\n");
  r = RunProgram({Command("unitprop"), "disk0", "cdevice"});
  EXPECT_EQ(r.out, "/dev/rdsk/0s0\n");
  r = RunProgram({Command("unitprop"), "disk0", "pathname"});  // empty positional field
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "\n");
}

TEST(Unitprop, VerboseListsEveryKeywordAliasFirst) {
  Sandbox box;
  auto r = RunProgram({Command("unitprop"), "-v", "lp0"});
  ASSERT_EQ(r.status, 0);
  EXPECT_EQ(r.out,
            "alias='lp0'\ncdevice='/dev/lp0'\nbdevice=''\npathname=''\nclass='printer'\n"
            "type='parallel'\ndesc='Line printer, room 2.14'\nqueue='lp'\nstate='enabled'\n"
            "testcmd='echo test page | lp -d lp'\ncancelcmd='cancel -a lp'\n");
}

TEST(Unitprop, ExitStatuses) {
  Sandbox box;
  struct Case {
    std::vector<std::string> args;
    int status;
  } cases[] = {
      {{"nosuchalias", "desc"}, 3},
      {{"disk0", "nosuchname"}, 4},
      {{"disk0"}, 1},
      {{"-v"}, 1},
      {{"-x", "disk0", "desc"}, 1},
      {{"-t", box.Path("missing.tab"), "disk0", "desc"}, 2},
      {{"-t", box.table(), "disk0", "desc"}, 0},
  };
  for (const Case &c : cases) {
    std::vector<std::string> argv{Command("unitprop")};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    auto r = RunProgram(argv);
    EXPECT_EQ(r.status, c.status) << testing::PrintToString(c.args) << " " << r.err;
    if (c.status != 0) {
      EXPECT_FALSE(r.err.empty());
    }
  }
}

TEST(Unitprop, FindsEntriesWhateverTheirSpelling) {
  Sandbox box;
  box.WriteTable(
      "# comment:with:colons::\n"
      "\n"
      "a\\:b:c:d:e:note=\"x\"\n"
      "long:::: text=\"one\\\n"
      "two:not-an-entry::::\"\n"
      "\\w\\e\\i\\r\\d::::k=\"v\"\n"
      "two:::: k=\"real\"\n"
      "last::::k=unquoted\n");
  struct Case {
    const char *alias, *name, *value;
  } cases[] = {
      {"a:b", "note", "x"},
      {"a:b", "pathname", "e"},
      {"long", "text", "one\ntwo:not-an-entry::::"},
      {"weird", "k", "v"},
      {"two", "k", "real"},  // the continuation line is not an entry
      {"last", "k", "unquoted"},
  };
  for (const Case &c : cases) {
    auto r = RunProgram({Command("unitprop"), c.alias, c.name});
    EXPECT_EQ(r.status, 0) << c.alias << ": " << r.err;
    EXPECT_EQ(r.out, std::string(c.value) + "\n") << c.alias;
  }
}

TEST(Unitprop, ACommentEndingInABackslashDoesNotSwallowTheNextEntry) {
  Sandbox box;
  box.WriteTable("# a note that ends in a backslash \\\nafter:::: k=\"v\"\n");
  auto r = RunProgram({Command("unitprop"), "after", "k"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "v\n");
  EXPECT_EQ(RunProgram({Command("unitlist")}).out, "after\n");
}

TEST(Unitprop, SkipsAMalformedEntryOfTheSameAlias) {
  Sandbox box;
  box.WriteTable("x::: k=\"1\"\nx:::: k=\"unterminated\nx:::: k=\"good\"\n");
  auto r = RunProgram({Command("unitprop"), "x", "k"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "good\n");
}

}  // namespace
