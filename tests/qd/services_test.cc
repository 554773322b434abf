// Tracing rules, the reporting allocator, the command runner, command lines
// and the name classes.
#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <vector>

#include "command.h"
#include "list_util.h"
#include "qd.h"
#include "trace_capture.h"

using testing_support::Sandbox;

namespace {

TEST(QDtrace, ProducesALineByVerbosityOrExplicitLevelErrorsAtThreeAndUp) {
  const int cases[][4] = {
      // verbose, explicit, level, produced
      {3, 8, 8, 1}, {3, 0, 8, 0}, {8, -1, 8, 1}, {7, -1, 8, 0}, {2, 5, 5, 1}, {2, 5, 4, 0},
  };
  for (const auto &c : cases) {
    Sandbox box;
    TraceCapture trace(box, c[0], c[1]);
    QDtrace(c[2], "QDput", "value %d and %s", 42, "text");
    EXPECT_EQ(trace.Has("L" + std::to_string(c[2]) + " QDput: value 42 and text"), c[3] == 1) << trace.Text();
  }
  Sandbox box;
  TraceCapture quiet(box, 2, 3);
  QDerror("QDgetattr", "hidden\n");
  EXPECT_EQ(quiet.Text(), "");
  TraceCapture loud(box, 3);
  QDerror("QDgetattr.c.old", "shown %d\n", 7);
  EXPECT_TRUE(loud.Has("L3 QDgetattr.c: shown 7\n")) << loud.Text();
  free(QDmalloc("QDmod.c", 64));
  EXPECT_EQ(QDmalloc("QDmod.c", SIZE_MAX / 2), nullptr);
  EXPECT_TRUE(loud.Has("L3 QDservices: QDmod: cannot malloc")) << loud.Text();
}

int Collect(void *context, char *line) {
  static_cast<std::vector<std::string> *>(context)->push_back(line);
  return 0;
}

int RunShell(const std::string &text, std::vector<std::string> *lines) {
  lines->clear();
  std::vector<char> buf(text.begin(), text.end());
  buf.resize(text.size() + 64, '\0');
  return ExecuteCommand(buf.data(), Collect, lines);
}

TEST(ExecuteCommand, HandsOverEachLineAndPassesTheExitStatusOn) {
  Sandbox box;
  std::vector<std::string> lines;
  EXPECT_EQ(RunShell("printf 'one\\ntwo\\n'; echo noise >&2", &lines), 0);
  EXPECT_EQ(lines, (std::vector<std::string>{"one", "two"}));
  EXPECT_EQ(RunShell("printf 'last without newline'; exit 3", &lines), 3);
  EXPECT_EQ(lines, (std::vector<std::string>{"last without newline"}));
  EXPECT_EQ(RunShell("kill -9 $$", &lines), -1);
  EXPECT_EQ(RunShell("printf '%01500d\\n' 0", &lines), 0);  // longer than the buffer
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].size() + 1000 * lines[1].size(), 1023u + 477000u);
}

// Whatever an argument holds, the shell hands it to the command literally.
TEST(CommandLine, EveryWordReachesTheCommandLiterallyOrIsRefused) {
  Sandbox box;
  ASSERT_EQ(chdir(box.dir().c_str()), 0);
  for (std::string w : {"disk0", "two words", "$(touch pwned)", "`touch pwned`", "a;touch pwned", "it's",
                        "\"quoted\"", "back\\slash", "new\nline", "*", "a>pwned", "$HOME", "", "{a,b}"}) {
    qd::CommandLine line(4096);
    line.Raw("printf '[%s]' ").Word(w);
    char buf[4096];
    ASSERT_TRUE(line.CopyTo(buf)) << w;
    std::vector<std::string> out;
    EXPECT_EQ(ExecuteCommand(buf, Collect, &out), 0) << line.text();
    std::string joined;
    for (const std::string &l : out) joined += (joined.empty() ? "" : "\n") + l;
    EXPECT_EQ(joined, "[" + w + "]") << line.text();
  }
  EXPECT_NE(access("pwned", F_OK), 0) << "an argument was run by the shell";
  char buf[64];
  qd::CommandLine option(sizeof buf);
  EXPECT_FALSE(option.Raw("unitprop ").Word("-v").CopyTo(buf));
  EXPECT_STREQ(option.error(), "argument would be read as an option");
  qd::CommandLine exact(sizeof buf), over(sizeof buf);
  EXPECT_TRUE(exact.Word(std::string(sizeof buf - qd::kRedirectRoom - 1, 'x')).CopyTo(buf));
  EXPECT_FALSE(over.Word(std::string(sizeof buf - qd::kRedirectRoom, 'x')).CopyTo(buf));
}

TEST(ListHelpers, FreeAndNameClasses) {
  QDFreeAliasList(nullptr);
  QDFreeAliasList(pvtest::Chain({"a", "b"}));  // the sanitizer build checks that nothing leaks
  const std::tuple<const char *, int, int, int> cases[] = {
      {"alias_status", 12, 1, 0}, {"myalias2", 8, 1, 0}, {"formatcmd", 9, 0, 1}, {"statfunc", 8, 0, 1},
      {"desc", 4, 0, 0},          {"formatcmd", 8, 0, 0}, {"statfunc", 7, 0, 0}, {"aliascmd", 8, 1, 1},
      {"", 0, 0, 0},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(IsAlias(std::get<0>(c), std::get<1>(c)), std::get<2>(c)) << std::get<0>(c);
    EXPECT_EQ(IsMethod(std::get<0>(c), std::get<1>(c)), std::get<3>(c)) << std::get<0>(c);
  }
}

}  // namespace
