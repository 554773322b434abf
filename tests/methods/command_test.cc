// Command and function methods: what runs, what the command is fed, what
// comes back, and references that must load nothing.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "list_util.h"
#include "qd.h"
#include "trace_capture.h"

using pvtest::MakeList;
using pvtest::Pairs;
using testing_support::Sandbox;

namespace {

Pairs Result(KeywordList *list) {
  pvtest::List owned(list);
  return owned ? pvtest::All(owned.get()) : Pairs{{"<null>", ""}};
}

bool Exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

TEST(Command, ParametersReachTheCommandAsDataOnly) {
  Sandbox box;
  TraceCapture trace(box, 8);
  std::unique_ptr<char, decltype(&free)> cwd(getcwd(nullptr, 0), free);
  ASSERT_EQ(chdir(box.dir().c_str()), 0);  // the file a parameter would make
  std::string f = box.Path("ran");
  std::string touch = "touch ran";
  pvtest::List params = MakeList({{"a", "x\nEOF\n" + touch},
                                  {"b", "$(" + touch + ")"},
                                  {"c", "`" + touch + "`"},
                                  {"d", "'; " + touch + "; '"},
                                  {"e", "\"; " + touch + "; \""},
                                  {"$(" + touch + ")", "EOF"},
                                  {"f", "\nEOF\n\n" + touch + "\n"}});
  // The command sees its input whole, closing line included.
  Pairs raw = Result(PerformCommand("cat", "box", params.get(), 0));
  ASSERT_EQ(raw.size(), 3u);
  std::string lines;
  for (const auto &p : pvtest::All(params.get())) lines += p.first + "=" + p.second + "\n";
  EXPECT_EQ(raw[0].second.substr(0, lines.size() + 8), lines + "'EOF' 2>");
  EXPECT_EQ(raw[1], (std::pair<std::string, std::string>{"message", ""}));
  std::string tmp = raw[0].second.substr(lines.size() + 8, 15);
  EXPECT_EQ(tmp.substr(0, 9), "/tmp/xraw");
  EXPECT_FALSE(Exists(tmp)) << "the raw runner's error file is removed";
  EXPECT_EQ(Result(PerformCommand("cat >/dev/null; echo done=1", "box", params.get(), 1)), (Pairs{{"done", "1"}}));
  EXPECT_FALSE(Exists(f)) << "a parameter ran as shell code";
  EXPECT_EQ(chdir(cwd.get()), 0);
  EXPECT_TRUE(trace.Has("cat    2>/dev/null << 'EOF'\na=x\nEOF\n" + touch + "\nb=$(")) << "traced as formed";
}

TEST(Command, TextsThatDoNotFitAreRefused) {
  Sandbox box;
  TraceCapture trace(box, 3);
  // "CMD    2>/dev/null << 'EOF'\n" is CMD + 25; "'EOF'" 5; " 2>/dev/null" 12; a terminator.
  std::string fits(4096 - 25 - 5 - 12 - 1 - 9, ' ');
  fits = "echo ok=1" + fits;
  EXPECT_EQ(Result(PerformCommand(fits.c_str(), "box", nullptr, 1)), (Pairs{{"ok", "1"}}));
  EXPECT_EQ(Result(PerformCommand((fits + " ").c_str(), "box", nullptr, 1)), (Pairs{{"<null>", ""}}));
  EXPECT_TRUE(trace.Has("PerformCommand: command text of 4097 bytes does not fit in 4096"));
  std::string raw_fits = fits.substr(0, fits.size() - 6);  // the raw runner's suffix is 6 longer
  EXPECT_EQ(Result(PerformCommand(raw_fits.c_str(), "box", nullptr, 0)).size(), 3u);
  EXPECT_EQ(Result(PerformCommand((raw_fits + " ").c_str(), "box", nullptr, 0)), (Pairs{{"<null>", ""}}));
  pvtest::List long_value = MakeList({{"v", std::string(513, 'v')}});
  EXPECT_EQ(Result(PerformCommand("true", "box", long_value.get(), 1)), (Pairs{{"<null>", ""}}));
  pvtest::List long_name = MakeList({{std::string(33, 'n'), "1"}});
  EXPECT_EQ(Result(PerformCommand("true", "box", long_name.get(), 1)), (Pairs{{"<null>", ""}}));
}

TEST(Command, OutputsAndStatusesComeBackWhole) {
  Sandbox box;
  Pairs big = Result(PerformCommand("head -c 300000 /dev/zero | tr '\\0' a; exit 3", "box", nullptr, 0));
  ASSERT_EQ(big.size(), 3u);
  EXPECT_EQ(big[0].second, std::string(300000, 'a')) << "no newline, many pieces";
  EXPECT_EQ(big[2], (std::pair<std::string, std::string>{"errorcode", "3"}));
  EXPECT_EQ(Result(PerformCommand("true", "box", nullptr, 0))[0],
            (std::pair<std::string, std::string>{"output", ""}));
  EXPECT_EQ(Result(PerformCommand("echo a=1; exit 4", "box", nullptr, 1)), (Pairs{{"a", "1"}}));
  for (int formatted : {0, 1})
    EXPECT_EQ(Result(PerformCommand("echo a=1; kill -9 $$", "box", nullptr, formatted)), (Pairs{{"<null>", ""}}));
  // As a shell reads the text: the here-document is the input of the
  // command it follows, not of the whole pipeline.
  pvtest::List params = MakeList({{"p", "1"}});
  EXPECT_EQ(Result(PerformCommand("echo q=2 | cat", "box", params.get(), 1)), (Pairs{{"p", "1"}}));
}

TEST(Function, ReferencesLoadOnlyLibrariesOfTheMethodDirectory) {
  Sandbox box;
  std::string dir = box.Path("lib");
  mkdir(dir.c_str(), 0755);
  mkdir((dir + "/sub").c_str(), 0755);
  std::string real = std::string(QD_TEST_METHODS_DIR) + "/devcheck.so";
  ASSERT_EQ(symlink(real.c_str(), (dir + "/devcheck.so").c_str()), 0);
  ASSERT_EQ(symlink(real.c_str(), (dir + "/sub/devcheck.so").c_str()), 0);
  ASSERT_EQ(symlink(real.c_str(), (dir + "/a.so").c_str()), 0);
  testing_support::WriteFile(dir + "/text.so", "not a library\n");
  testing_support::WriteFile(box.Path("outside.so"), "");
  setenv("SO_DIR", dir.c_str(), 1);
  pvtest::List params = MakeList({{"path", box.table()}});
  const struct {
    const char *reference;
    Pairs result;
  } cases[] = {
      {"devcheck.exists", {{"errorcode", "0"}, {"completioncode", "0"}, {"message", box.table() + " exists"}}},
      {"devcheck.echo", {{"path", box.table()}}},
      {"check", {{"errorcode", "1"}}},
      {"../outside.echo", {{"errorcode", "1"}}},
      {"sub/devcheck.echo", {{"errorcode", "1"}}},
      {"text.echo", {{"errorcode", "1"}}},
      {"missing.echo", {{"errorcode", "1"}}},
      {"devcheck.", {{"errorcode", "2"}}},
      {"devcheck.nosuch", {{"errorcode", "2"}}},
      {"a.echo.x", {{"errorcode", "2"}}},  // a.so, function "echo.x"
  };
  for (const auto &c : cases)
    EXPECT_EQ(Result(QDperformmethod("box", META_FCN, c.reference, params.get(), 1)), c.result) << c.reference;
  EXPECT_EQ(pvtest::All(params.get()), (Pairs{{"path", box.table()}}));
}

TEST(Perform, AMethodOfATableRunsEndToEnd) {
  Sandbox box;
  setenv("SO_DIR", QD_TEST_METHODS_DIR, 1);
  box.WriteTable("ups0:/dev/ups0:::class=\"power\" statuscmd=\"echo load=3; echo completioncode=0\" "
                 "checkfunc=\"statuscmd[10][+],devcheck.attrs[20][+]\" echofunc=\"devcheck.echo\"\n");
  pvtest::List params = MakeList({{"names", "class,cdevice"}});
  EXPECT_EQ(Result(QDperform("ups0", "checkfunc", params.get())),
            (Pairs{{"load", "3"}, {"errorcode", "0"}, {"completioncode", "0"}, {"class", "power"},
                   {"cdevice", "/dev/ups0"}}));
  EXPECT_EQ(Result(QDperform("ups0", "statuscmd", nullptr)), (Pairs{{"load", "3"}, {"completioncode", "0"}}));
  EXPECT_EQ(Result(QDperform("ups0", "echofunc", params.get())), (Pairs{{"names", "class,cdevice"}}))
      << "a function handing back its own input leaves the caller's list alone";
  EXPECT_EQ(Result(QDperform("ups0", "nofunc", nullptr)), (Pairs{{"errorcode", "3"}}));
  EXPECT_EQ(Result(QDperform("nosuch", "statuscmd", nullptr)), (Pairs{{"errorcode", "3"}}));
}

}  // namespace
