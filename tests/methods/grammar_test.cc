// Meta-method values into operator and reference entries: the worked
// examples, the defaults, the order, and values refused whole.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "list_util.h"
#include "qd.h"
#include "trace_capture.h"

using pvtest::Pairs;

namespace {

Pairs Parse(const std::string &value) {
  pvtest::List list(QDparsemetavalue(value.c_str()));
  return list ? pvtest::All(list.get()) : Pairs{{"<null>", ""}};
}

const char *const P = META_PRE_OP, *const O = META_POST_OP, *const F = META_FCN;

TEST(Grammar, ValuesGiveTheirEntriesInIndexOrder) {
  struct Case {
    const char *value;
    Pairs entries;
  } cases[] = {
      {"setup[10][u],run,cleanup[90][m!]",
       {{P, "u"}, {O, "?-"}, {F, "setup"}, {P, "k"}, {O, "?-"}, {F, "run"}, {P, "m"}, {O, "!-"}, {F, "cleanup"}}},
      {"doit", {{F, "doit"}}},
      {"doit[5][x]", {{O, "x?"}, {F, "doit"}}},
      {"a[0][],b[99]", {{P, "k"}, {O, "?-"}, {F, "a"}, {P, "k"}, {F, "b"}}},
      {"a[100],b[60],c[1]", {{P, "k"}, {O, "?-"}, {F, "c"}, {P, "k"}, {O, "?-"}, {F, "a"}, {P, "k"}, {F, "b"}}},
      {"a[5][zz]", {{P, "k"}, {O, "?-"}, {F, "a"}}},
      {"a[5][k]", {{P, "k"}, {O, "?-"}, {F, "a"}}},
      {"a[1][?um+]", {{P, "um"}, {O, "?+"}, {F, "a"}}},
      {"a[1][?!x-]", {{O, "?!x-"}, {F, "a"}}},
      // Equal indices keep their written order; bad indices count as 50.
      {"c,b[00],a[-3],d[abc],e[50]",
       {{P, "k"}, {O, "?-"}, {F, "c"}, {P, "k"}, {O, "?-"}, {F, "b"}, {P, "k"}, {O, "?-"}, {F, "a"},
        {P, "k"}, {O, "?-"}, {F, "d"}, {P, "k"}, {F, "e"}}},
      {"lib.fn[2][u], [[", {{P, "k"}, {O, "?-"}, {F, "[["}, {P, "u"}, {F, "lib.fn"}}},
      {"", {}},
  };
  for (const Case &c : cases) EXPECT_EQ(Parse(c.value), c.entries) << c.value;
}

TEST(Grammar, PostOperatorsGetACheckAndADisposition) {
  const char *cases[][2] = {{"x", "x?"}, {"!", "!-"}, {"+?", "+?"}, {"?-", "?-"}, {"um", "?-"}, {"u!x+", "!x+"}};
  for (auto &c : cases) {
    char *out = QDParsePostOps(c[0]);
    EXPECT_STREQ(out, c[1]) << c[0];
    free(out);
  }
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

}  // namespace
