// Methods: values parsed into operator and reference entries, expanded into
// method lists, and run as commands and functions with their operators.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "list_util.h"
#include "qd.h"
#include "trace_capture.h"

using pvtest::Pairs;
using pvtest::MakeList;
using testing_support::Sandbox;

namespace {

Pairs Parse(const std::string &value) {
  pvtest::List list(QDparsemetavalue(value.c_str()));
  return list ? pvtest::All(list.get()) : Pairs{{"<null>", ""}};
}

const char *const P = META_PRE_OP, *const O = META_POST_OP, *const C = META_CMD, *const F = META_FCN;

TEST(Grammar, ValuesGiveTheirEntriesInIndexOrder) {
  struct Case { const char *value; Pairs entries; } cases[] = {
      {"setup[10][u],run,cleanup[90][m!]",
       {{P, "u"}, {O, "?-"}, {F, "setup"}, {P, "k"}, {O, "?-"}, {F, "run"}, {P, "m"}, {O, "!-"}, {F, "cleanup"}}},
      {"doit", {{F, "doit"}}}, {"doit[5][x]", {{O, "x?"}, {F, "doit"}}},
      {"a[0][],b[99]", {{P, "k"}, {O, "?-"}, {F, "a"}, {P, "k"}, {F, "b"}}},
      {"a[100],b[60],c[1]", {{P, "k"}, {O, "?-"}, {F, "c"}, {P, "k"}, {O, "?-"}, {F, "a"}, {P, "k"}, {F, "b"}}},
      {"a[5][zz]", {{P, "k"}, {O, "?-"}, {F, "a"}}}, {"a[5][k]", {{P, "k"}, {O, "?-"}, {F, "a"}}},
      {"a[1][?um+]", {{P, "um"}, {O, "?+"}, {F, "a"}}}, {"a[1][?!x-]", {{O, "?!x-"}, {F, "a"}}},
      // A check or a disposition left out gets its default; one given stays where it was written.
      {"a[1][!],b[2][u!x+],c[3][+?]",
       {{P, "k"}, {O, "!-"}, {F, "a"}, {P, "u"}, {O, "!x+"}, {F, "b"}, {P, "k"}, {O, "+?"}, {F, "c"}}},
      // Equal indices keep their written order; bad indices count as 50.
      {"c,b[00],a[-3],d[abc],e[50]",
       {{P, "k"}, {O, "?-"}, {F, "c"}, {P, "k"}, {O, "?-"}, {F, "b"}, {P, "k"}, {O, "?-"}, {F, "a"},
        {P, "k"}, {O, "?-"}, {F, "d"}, {P, "k"}, {F, "e"}}},
      {"lib.fn[2][u], [[", {{P, "k"}, {O, "?-"}, {F, "[["}, {P, "u"}, {F, "lib.fn"}}},
      {"", {}},
  };
  for (const Case &c : cases) EXPECT_EQ(Parse(c.value), c.entries) << c.value;
}

TEST(Grammar, FieldsTooLongRefuseTheWholeValue) {
  testing_support::Sandbox box;
  TraceCapture trace(box, 6);
  std::string name35(35, 'n');
  EXPECT_EQ(Parse(name35 + "[3]"), (Pairs{{F, name35}}));
  EXPECT_EQ(Parse("ok," + name35 + "x[3]")[0].first, "<null>");
  EXPECT_TRUE(trace.Has("Method name '" + name35 + "x' is longer than 35 characters"));
  EXPECT_EQ(Parse("a[1][" + std::string(31, '?') + "]"), (Pairs{{O, std::string(31, '?') + "-"}, {F, "a"}}));
  EXPECT_EQ(Parse("a[1][" + std::string(32, '+') + "],b")[0].first, "<null>");
  EXPECT_EQ(Parse("[[[" + std::string(40, '[') + ",b")[0].first, "<null>");
  Parse("a[5][k]");
  EXPECT_TRUE(trace.Has("Invalid meta-operator 'k' encountered")) << "k is no operator of the table";
  std::string many;  // a hundred elements to each index, from 99 down
  for (int i = 0; i < 10000; ++i) many += "m" + std::to_string(i) + "[" + std::to_string(99 - i % 100) + "],";
  pvtest::List list(QDparsemetavalue(many.c_str()));
  ASSERT_NE(list, nullptr);
  Pairs all = pvtest::All(list.get());
  ASSERT_EQ(all.size(), 10000u * 3 - 1);
  for (int k = 0; k < 100; ++k) EXPECT_EQ(all[3 * k + 2].second, "m" + std::to_string(99 + 100 * k)) << k;
}


class Build : public testing::Test {
 protected:
  void SetUp() override {
    std::string fan = "f1func=\"x.y\"";  // f(n+1) uses f(n) eight times
    for (int i = 2; i <= 7; ++i) {
      std::string prev = "f" + std::to_string(i - 1) + "func";
      fan += " f" + std::to_string(i) + "func=\"" + prev;
      for (int j = 1; j < 8; ++j) fan += "," + prev;
      fan += "\"";
    }
    box_.WriteTable(
        "disk1:/dev/rdsk/1s0:/dev/dsk/1s0::startcmd=\"/usr/bin/spinup\" checkfunc=\"diskutil.check\" "
        "bootfunc=\"startcmd[1][x],checkfunc[2]\" listcmd=\"echo a,b[1][x] | cat\" "
        "cmdrun=\"listcmd,checkfunc\" emptyfunc=\"\" loopfunc=\"x.y,loopfunc[1]\" afunc=\"x.y,bfunc\" "
        "bfunc=\"cfunc\" cfunc=\"startcmd,afunc[3][+]\" difunc=\"checkfunc,checkfunc\" badfunc=\"ok,checkfunc[2][" +
        std::string(40, '?') + "]\" " + fan + "\n");
  }
  // The list of a method, or "<null>".
  Pairs List(const char *method, KeywordList *given = nullptr) {
    NameValue *m = QDgetmethod("disk1", method);
    EXPECT_NE(m, nullptr) << method;
    KeywordList *list = given;
    QDbuildmethodlist("disk1", &m, &list);
    free(m);
    Pairs out = list != nullptr ? pvtest::All(list) : Pairs{{"<null>", ""}};
    DestroyKeywordList(list);
    return out;
  }
  testing_support::Sandbox box_;
};

TEST_F(Build, MethodsExpandInPlaceAndCommandsPassThrough) {
  EXPECT_EQ(List("bootfunc"),
            (Pairs{{P, "k"}, {O, "x?"}, {C, "/usr/bin/spinup"}, {P, "k"}, {F, "diskutil.check"}}));
  EXPECT_EQ(List("listcmd"), (Pairs{{C, "echo a,b[1][x] | cat"}}));
  EXPECT_EQ(List("cmdrun"),
            (Pairs{{P, "k"}, {O, "?-"}, {C, "echo a,b[1][x] | cat"}, {P, "k"}, {F, "diskutil.check"}}));
  EXPECT_EQ(List("emptyfunc"), Pairs{});
  EXPECT_EQ(List("difunc"), (Pairs{{P, "k"}, {O, "?-"}, {F, "diskutil.check"}, {P, "k"}, {F, "diskutil.check"}}))
      << "a method used twice is no cycle";
  pvtest::List given = pvtest::MakeList({{"kept", "1"}});
  EXPECT_EQ(List("startcmd", given.release()), (Pairs{{"kept", "1"}, {C, "/usr/bin/spinup"}}));
}

TEST_F(Build, ACycleOrAnUnparsableValueLeavesNoList) {
  TraceCapture trace(box_, 3);
  pvtest::List given = pvtest::MakeList({{"kept", "1"}});
  EXPECT_EQ(List("loopfunc", given.release()), (Pairs{{"<null>", ""}}));
  EXPECT_TRUE(trace.Has("Method loopfunc of alias disk1 refers to itself: loopfunc -> loopfunc"));
  EXPECT_EQ(List("afunc"), (Pairs{{"<null>", ""}}));
  EXPECT_TRUE(trace.Has("refers to itself: afunc -> bfunc -> cfunc -> afunc"));
  EXPECT_EQ(List("badfunc"), (Pairs{{"<null>", ""}}));
  pvtest::List result(QDLperform("disk1", "cfunc", nullptr));
  Pairs r = pvtest::All(result.get());
  ASSERT_EQ(r.size(), 2u);
  EXPECT_EQ(r[0], (std::pair<std::string, std::string>{"errorcode", "255"}));
  EXPECT_EQ(r[1].second, "Method cfunc of alias disk1 refers to itself: cfunc -> afunc -> bfunc -> cfunc; "
                         "nothing was run");
}

TEST_F(Build, AnExpansionThatMultipliesOutIsRefused) {
  ASSERT_EQ(QDcache_load(), 0);  // lookups from memory: the expansion is large
  TraceCapture trace(box_, 3);
  // 8^4 references with their operators: n(1) = 1, n(k) = 8 * (n(k-1) + 2) - 1.
  EXPECT_EQ(List("f5func").size(), 12871u);
  EXPECT_EQ(List("f7func"), (Pairs{{"<null>", ""}}));
  EXPECT_TRUE(trace.Has("Method list of f7func for alias disk1 grows past 65536 entries"));
}

const char kOk[] = "echo a=1; echo completioncode=0";
const char kQuiet[] = "echo q=1";
const char kFail[] = "echo errorcode=4";
const char kShow[] = "sed -e /EOF/d -e s/^/in_/";  // its input, each line prefixed

TEST(Continue, EveryPairOfCodesByTheTable) {
  const char *m = "check.fn";
  const Pairs aborted = {{"method", m}, {"message", "No 'completioncode' keyword found."},
                         {"message", "No 'errorcode' keyword found."}, {"message", "Processing aborted."}};
  struct Case { Pairs codes; int go_on; Pairs added; } cases[] = {  // added: at trace level 8
      {{}, 0, aborted},
      {{{"completioncode", "-5"}, {"errorcode", "-2"}}, 0, aborted},
      {{{"errorcode", "2"}}, 0,
       {{"method", m}, {"message", "No 'completioncode' keyword found."},
        {"message", "Keyword 'errorcode' indicates failure."}, {"message", "Processing halted."}}},
      {{{"errorcode", "0"}}, 1, {}},
      {{{"errorcode", "7"}, {"completioncode", "0"}}, 1, {}},
      {{{"completioncode", "1"}, {"errorcode", "0"}}, 0, {{"method", m}, {"message", "Processing interrupted."}}},
      {{{"completioncode", "2"}}, 0, {{"method", m}, {"message", "Processing halted."}}},
      {{{"completioncode", "3"}}, 0, {}},
  };
  testing_support::Sandbox box;
  TraceCapture trace(box, 0);
  for (int verbose : {0, 8}) {
    vcel_verbose_level = verbose;
    for (const Case &c : cases) {
      pvtest::List cum = MakeList(c.codes);
      EXPECT_EQ(ContinueProcessing(m, cum.get()), c.go_on) << testing::PrintToString(c.codes);
      Pairs expected = c.codes;
      if (verbose == 8) expected.insert(expected.end(), c.added.begin(), c.added.end());
      EXPECT_EQ(pvtest::All(cum.get()), expected) << testing::PrintToString(c.codes) << verbose;
    }
  }
}

TEST(Execute, OperatorsRouteOutputsAndCodes) {
  struct Case { const char *what; Pairs list, result; int verbose = 0; } cases[] = {
      {"no operators: the output as it came", {{C, kQuiet}}, {{"q", "1"}}},
      {"add gathers outputs without their codes, and the latest codes",
       {{P, "k"}, {O, "+?"}, {C, kOk}, {P, "k"}, {O, "+?"}, {C, kShow}},
       {{"completioncode", "0"}, {"a", "1"}, {"in_p", "1"}}},
      {"a check without codes halts, with messages at level 8",
       {{P, "k"}, {O, "+?"}, {C, kQuiet}, {P, "k"}, {O, "+?"}, {C, kShow}},
       {{"q", "1"}, {"method", kQuiet}, {"message", "No 'completioncode' keyword found."},
        {"message", "No 'errorcode' keyword found."}, {"message", "Processing aborted."}}, 8},
      {"ignore drops the output after its codes are checked; the next gets the parameters",
       {{P, "k"}, {O, "x?"}, {C, kOk}, {P, "k"}, {C, kShow}}, {{"in_p", "1"}}},
      {"pipe", {{P, "k"}, {O, "?-"}, {C, kOk}, {P, "k"}, {C, kShow}}, {{"in_a", "1"}, {"in_completioncode", "0"}}},
      {"ignore before pipe: the next gets nothing", {{P, "k"}, {O, "x-"}, {C, kOk}, {P, "k"}, {C, kShow}}, {}},
      {"a skipped method's flags carry over to a mandatory one",
       {{P, "k"}, {O, "?-"}, {C, kFail}, {P, "k"}, {O, "+?"}, {C, kQuiet}, {P, "m"}, {C, kShow}},
       {{"errorcode", "4"}, {"in_errorcode", "4"}}},
      {"k takes back u", {{P, "u"}, {P, "k"}, {C, kOk}}, {{"a", "1"}, {"completioncode", "0"}}},
      {"u: raw output", {{P, "u"}, {C, kOk}},
       {{"output", "a=1\ncompletioncode=0\n"}, {"message", ""}, {"errorcode", "0"}}},
      {"completioncode 5 halts without messages; the piped output is the result",
       {{P, "k"}, {O, "?-"}, {C, "echo completioncode=5"}, {P, "k"}, {C, kShow}}, {{"completioncode", "5"}}, 8},
      {"completioncode -1 with errorcode 0 goes on",
       {{P, "k"}, {O, "?-"}, {C, "echo completioncode=-1; echo errorcode=0"}, {P, "k"}, {C, kShow}},
       {{"in_completioncode", "-1"}, {"in_errorcode", "0"}}},
      {"operators alone run nothing", {{P, "k"}, {O, "?-"}}, {{"<null>", ""}}},
  };
  testing_support::Sandbox box;
  TraceCapture trace(box, 0);
  pvtest::List params = MakeList({{"p", "1"}});
  for (const Case &c : cases) {
    vcel_verbose_level = c.verbose;
    KeywordList *list = MakeList(c.list).release();
    pvtest::List result(QDexecutemethodlist("box", &list, params.get()));
    EXPECT_EQ((result ? pvtest::All(result.get()) : Pairs{{"<null>", ""}}), c.result) << c.what;
    EXPECT_EQ(pvtest::All(params.get()), (Pairs{{"p", "1"}})) << c.what << ": the caller's list changed";
    DestroyKeywordList(list);
  }
}

Pairs Result(KeywordList *list) {
  pvtest::List owned(list);
  return owned ? pvtest::All(owned.get()) : Pairs{{"<null>", ""}};
}

bool Exists(const std::string &path) { return access(path.c_str(), F_OK) == 0; }

TEST(Command, ParametersReachTheCommandAsDataOnly) {
  Sandbox box;
  ASSERT_EQ(chdir(box.dir().c_str()), 0);  // where a parameter run as shell code would make its file
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
  pvtest::List long_value = MakeList({{"v", std::string(513, 'v')}});
  EXPECT_EQ(Result(PerformCommand("true", "box", long_value.get(), 1)), (Pairs{{"<null>", ""}}));
}

TEST(Command, OutputsAndStatusesComeBackWhole) {
  Sandbox box;
  Pairs big = Result(PerformCommand("head -c 300000 /dev/zero | tr '\\0' a; exit 3", "box", nullptr, 0));
  ASSERT_EQ(big.size(), 3u);
  EXPECT_EQ(big[0].second, std::string(300000, 'a')) << "no newline, many pieces";
  EXPECT_EQ(big[2], (std::pair<std::string, std::string>{"errorcode", "3"}));
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
  const struct { const char *reference; Pairs result; } cases[] = {
      {"devcheck.exists", {{"errorcode", "0"}, {"completioncode", "0"}, {"message", box.table() + " exists"}}},
      {"devcheck.echo", {{"path", box.table()}}},
      {"check", {{"errorcode", "1"}}},        {"../outside.echo", {{"errorcode", "1"}}},
      {"sub/devcheck.echo", {{"errorcode", "1"}}}, {"missing.echo", {{"errorcode", "1"}}},
      {"devcheck.", {{"errorcode", "2"}}},    {"devcheck.nosuch", {{"errorcode", "2"}}},
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
  EXPECT_EQ(Result(QDperform("nosuch", "statuscmd", nullptr)), (Pairs{{"errorcode", "3"}}));
}

}  // namespace
