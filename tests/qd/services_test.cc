// Tracing rules, the reporting allocator and the command runner.
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <vector>

#include "qd.h"
#include "sandbox.h"
#include "trace_capture.h"

using testing_support::Sandbox;

namespace {

TEST(QDtrace, ProducesALineByVerbosityOrExplicitLevel) {
  struct Case {
    int verbose, explicit_level, level;
    bool produced;
  } cases[] = {
      {3, 8, 8, true},   {3, 0, 8, false}, {8, -1, 8, true}, {7, -1, 8, false},
      {0, -1, 0, true},  {2, 5, 5, true},  {2, 5, 4, false}, {5, -1, 3, true},
  };
  for (const Case &c : cases) {
    Sandbox box;
    TraceCapture trace(box, c.verbose, c.explicit_level);
    QDtrace(c.level, "QDput", "value %d and %s", 42, "text");
    EXPECT_EQ(trace.Has("L" + std::to_string(c.level) + " QDput: value 42 and text"), c.produced)
        << c.verbose << "/" << c.explicit_level << "/" << c.level << ": " << trace.Text();
  }
}

TEST(QDerror, NeedsVerbosityThreeAndCutsTheModuleAtItsLastDot) {
  Sandbox box;
  TraceCapture quiet(box, 2, 3);
  QDerror("QDgetattr", "hidden\n");
  EXPECT_EQ(quiet.Text(), "");
  TraceCapture loud(box, 3);
  QDerror("QDgetattr.c.old", "shown %d\n", 7);
  EXPECT_TRUE(loud.Has("L3 QDgetattr.c: shown 7\n")) << loud.Text();
}

TEST(QDmalloc, ReportsExhaustion) {
  Sandbox box;
  TraceCapture trace(box, 3);
  void *p = QDmalloc("QDmod.c", 64);
  ASSERT_NE(p, nullptr);
  free(p);
  EXPECT_EQ(QDmalloc("QDmod.c", SIZE_MAX / 2), nullptr);
  EXPECT_TRUE(trace.Has("L3 QDservices: QDmod: cannot malloc")) << trace.Text();
}

int Collect(void *context, char *line) {
  static_cast<std::vector<std::string> *>(context)->push_back(line);
  return 0;
}

int RunShell(const std::string &text, std::vector<std::string> *lines) {
  std::vector<char> buf(text.begin(), text.end());
  buf.resize(text.size() + 64, '\0');
  return ExecuteCommand(buf.data(), Collect, lines);
}

TEST(ExecuteCommand, HandsOverEachLineAndPassesTheExitStatusOn) {
  Sandbox box;
  std::vector<std::string> lines;
  EXPECT_EQ(RunShell("printf 'one\\ntwo\\n'; echo noise >&2", &lines), 0);
  EXPECT_EQ(lines, (std::vector<std::string>{"one", "two"}));
  lines.clear();
  EXPECT_EQ(RunShell("printf 'last without newline'; exit 3", &lines), 3);
  EXPECT_EQ(lines, (std::vector<std::string>{"last without newline"}));
  EXPECT_EQ(RunShell("kill -9 $$", &lines), -1);
  EXPECT_EQ(RunShell("no-such-command-anywhere", &lines), 127);
}

TEST(ExecuteCommand, SplitsLinesLongerThanItsBuffer) {
  Sandbox box;
  std::vector<std::string> lines;
  EXPECT_EQ(RunShell("printf '%01500d\\n' 0", &lines), 0);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].size(), 1023u);
  EXPECT_EQ(lines[1].size(), 477u);
}

TEST(ExecuteCommand, TracesItsStatuses) {
  Sandbox box;
  TraceCapture trace(box, 8);
  std::vector<std::string> lines;
  RunShell("exit 4", &lines);
  EXPECT_TRUE(trace.Has("ExecuteCommand:      Command exit status = 4")) << trace.Text();
  EXPECT_TRUE(trace.Has("ExecuteCommand: Command execution status = 0"));
  EXPECT_TRUE(trace.Has("ExecuteCommand:            Return status = 4"));
}

TEST(QDFreeAliasList, FreesEveryNodeAndTracesANullListOnce) {
  Sandbox box;
  TraceCapture trace(box, 8);
  QDFreeAliasList(nullptr);
  EXPECT_TRUE(trace.Has("List address = 0"));
  EXPECT_FALSE(trace.Has("Free list block"));
  auto *second = static_cast<AliasList *>(malloc(sizeof(AliasList)));
  *second = {strdup("b"), nullptr};
  auto *first = static_cast<AliasList *>(malloc(sizeof(AliasList)));
  *first = {strdup("a"), second};
  QDFreeAliasList(first);  // the sanitizer build checks that nothing leaks
  EXPECT_TRUE(trace.Has("Contains string  = a"));
  EXPECT_TRUE(trace.Has("Contains string  = b"));
}

TEST(DisplayParameterList, TracesFromTheCursorAtLevelSeven) {
  Sandbox box;
  TraceCapture trace(box, 7);
  KeywordList *list = CreateKeywordList();
  AddKeywordToList(list, "a", "1");
  AddKeywordToList(list, "b", "two words");
  char *kw, *value;
  ReferenceNextKeywordInList(list, &kw, &value);  // the cursor is not reset
  EXPECT_EQ(DisplayParameterList(list), 0);
  EXPECT_FALSE(trace.Has("a=\"1\""));
  EXPECT_TRUE(trace.Has("L7 QDservices: b=\"two words\"")) << trace.Text();
  DestroyKeywordList(list);
}

TEST(NameClasses, AreDecidedByTheNameAlone) {
  struct Case {
    const char *name;
    int length, alias, method;
  } cases[] = {
      {"alias", 5, 1, 0},          {"alias_status", 12, 1, 0}, {"myalias2", 8, 1, 0},
      {"formatcmd", 9, 0, 1},      {"statfunc", 8, 0, 1},      {"cmdline", 7, 0, 1},
      {"desc", 4, 0, 0},           {"formatcmd", 6, 0, 0},     {"aliascmd", 8, 1, 1},
      {"", 0, 0, 0},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(IsAlias(c.name, c.length), c.alias) << c.name;
    EXPECT_EQ(IsMethod(c.name, c.length), c.method) << c.name;
  }
  std::string long_name(1000, 'x');
  long_name += "cmd";
  EXPECT_EQ(IsMethod(long_name.c_str(), static_cast<int>(long_name.size())), 1);
}

}  // namespace
