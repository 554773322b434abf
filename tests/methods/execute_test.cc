// Running method lists: the continuation rule, and the operators with real
// shell commands.
#include <gtest/gtest.h>

#include <string>

#include "list_util.h"
#include "qd.h"
#include "trace_capture.h"

using pvtest::MakeList;
using pvtest::Pairs;

namespace {

const char *const P = META_PRE_OP, *const O = META_POST_OP, *const C = META_CMD;
const char kOk[] = "echo a=1; echo completioncode=0";
const char kQuiet[] = "echo q=1";
const char kFail[] = "echo errorcode=4";
const char kShow[] = "sed -e /EOF/d -e s/^/in_/";  // its input, each line prefixed

TEST(Continue, EveryPairOfCodesByTheTable) {
  const char *m = "check.fn";
  const Pairs aborted = {{"method", m}, {"message", "No 'completioncode' keyword found."},
                         {"message", "No 'errorcode' keyword found."}, {"message", "Processing aborted."}};
  struct Case {
    Pairs codes;
    int go_on;
    Pairs added;  // at trace level 8
  } cases[] = {
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
  struct Case {
    const char *what;
    Pairs list;
    Pairs result;
    int verbose = 0;
  } cases[] = {
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

}  // namespace
