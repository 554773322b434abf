// Expanding a method into its method list: the worked example, values that
// pass through unparsed, and expansions that must not be made at all.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "list_util.h"
#include "qd.h"
#include "trace_capture.h"

using pvtest::Pairs;

namespace {

const char *const P = META_PRE_OP, *const O = META_POST_OP, *const C = META_CMD, *const F = META_FCN;

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

}  // namespace
