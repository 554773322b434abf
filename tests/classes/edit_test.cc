// Editing meta-method values: the worked values of each call, the bounds
// of their buffers, and elements told apart from names they begin with.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "list_util.h"
#include "qd.h"
#include "trace_capture.h"

namespace {

std::string Cat(const std::string &current, const char *name, int index, unsigned char mask) {
  char out[QD_VALUE_MAX + 1];
  QDcatmetamethod(out, current.c_str(), name, index, mask);
  return out;
}

TEST(Edit, CatAddsOrMovesTheElementToTheEnd) {
  const std::string q505(505, 'q'), q506(506, 'q'), r503 = "e[1][]," + std::string(503, 'q');
  struct Case {
    std::string current;
    const char *name;
    int index;
    unsigned char mask;
    std::string want;
  } cases[] = {
      {"", "run", 5, 0, "run[5][]"},
      {"", "a", 7, 0x23, "a[7][m?-]"},
      {"", "a", 0, 0x7f, "a[0][um?-+x!]"},
      {"x[1][]", "run", 99, 0x01, "x[1][],run[99][?]"},
      {"a[1][],b[2][],c[3][]", "b", 9, 0, "a[1][],c[3][],b[9][]"},
      {"b[2][],c[3][]", "b", 9, 0, "c[3][],b[9][]"},
      {"b[2][]", "b", 9, 0, "b[9][]"},
      {"a[1][], b[2][]", "b", 9, 0, "a[1][],b[9][]"},
      {"run,x[1][]", "run", 3, 0, "x[1][],run[3][]"},
      {"restart[1][],runall[2][]", "run", 3, 0, "restart[1][],runall[2][],run[3][]"},
      {q505, "e", 1, 0, q505 + ",e[1][]"},                           // 512 characters
      {q506, "e", 1, 0, q506},                                       // 513: no room
      {r503, "e", 2, 0, std::string(503, 'q') + ",e[2][]"},          // 510 after a move
      {"e[1][]," + std::string(504, 'q'), "e", 2, 0, "e[1][]," + std::string(504, 'q')},  // 511
      // Refused elements leave the value as it was.
      {"x", std::string(36, 'n').c_str(), 1, 0, "x"},
      {"x", "a,b", 1, 0, "x"},
      {"x", "a[1]", 1, 0, "x"},
      {"x", "", 1, 0, "x"},
      {"x", "a", 100, 0, "x"},
      {"x", "a", -1, 0, "x"},
      {"x", "a", 1, 0x80, "x"},
  };
  for (const Case &c : cases) EXPECT_EQ(Cat(c.current, c.name, c.index, c.mask), c.want) << c.current << " + " << c.name;
  EXPECT_EQ(Cat("x", std::string(35, 'n').c_str(), 1, 0), "x," + std::string(35, 'n') + "[1][]");
  EXPECT_EQ(Cat(std::string(513, 'q'), "e", 1, 0), "") << "a value past the bound is never cut";
}

// Edits of the method "runfunc" of the entry "box", each from a fresh value.
class Methods : public testing::Test {
 protected:
  void SetUp() override { box_.WriteTable("box::::runcmd=\"echo run\" desc=\"a box\"\n"); }
  void Set(const std::string &value) {
    pvtest::List list = pvtest::MakeList({{"runfunc", value}});
    ASSERT_EQ(QDput("box", list.get()), 0);
  }
  std::string Get(const char *name = "runfunc") {
    NameValue *nv = QDgetmethod("box", name);
    std::string v = nv ? nv->value : "<none>";
    free(nv);
    return v;
  }
  testing_support::Sandbox box_;
};

TEST_F(Methods, AddRemoveAndUpdateRewriteTheMethod) {
  const std::string abc = "a[1][],b[2][],c[3][]", near = std::string(500, 'q') + ",b[2][]";
  struct Case {
    std::string before;
    int (*edit)(const char *);
    int rc;
    std::string after;
  } cases[] = {
      {abc, [](const char *m) { return QDrmmetamethod("box", m, "b"); }, 0, "a[1][],c[3][]"},
      {abc, [](const char *m) { return QDrmmetamethod("box", m, "a"); }, 0, "b[2][],c[3][]"},
      {abc, [](const char *m) { return QDrmmetamethod("box", m, "c"); }, 0, "a[1][],b[2][]"},
      {"a[1][],b[2][],a[3][m]", [](const char *m) { return QDrmmetamethod("box", m, "a"); }, 0, "b[2][]"},
      {"a[1][]", [](const char *m) { return QDrmmetamethod("box", m, "a"); }, 0, ""},
      {"restart[1][]", [](const char *m) { return QDrmmetamethod("box", m, "start"); }, 0, "restart[1][]"},
      {abc, [](const char *m) { return QDrmmetamethod("box", m, ""); }, 255, abc},
      {abc, [](const char *m) { return QDaddmetamethod("box", m, "d", 4, 0x08); }, 0, abc + ",d[4][x]"},
      {abc, [](const char *m) { return QDupdatemetamethod("box", m, "a", 9, 0x21); }, 0, "b[2][],c[3][],a[9][m?]"},
      {abc, [](const char *m) { return QDupdatemetamethod("box", m, "a,b", 9, 0); }, 254, abc},
      // The update would not fit: the element is not removed either.
      {near, [](const char *m) { return QDupdatemetamethod("box", m, "b", 2, 0x7f); }, 255, near},
  };
  for (const Case &c : cases) {
    Set(c.before);
    EXPECT_EQ(c.edit("runfunc"), c.rc) << c.before;
    EXPECT_EQ(Get(), c.after) << c.before;
  }
  EXPECT_EQ(QDaddmetamethod("box", "newfunc", "a", 1, 0), 0);
  EXPECT_EQ(Get("newfunc"), "a[1][]");
  // Values that hold no meta-method are not taken for empty ones.
  EXPECT_EQ(QDaddmetamethod("box", "desc", "a", 1, 0), 254);
  EXPECT_EQ(QDaddmetamethod("box", "runcmd", "a", 1, 0), 254);
  EXPECT_EQ(Get("runcmd"), "echo run");
  NameValue *desc = QDgetattr("box", "desc");
  ASSERT_NE(desc, nullptr);
  EXPECT_STREQ(desc->value, "a box");
  free(desc);
}

TEST(Edit, DefaultElementGoesWhenAnotherIsNotMandatory) {
  struct Case {
    const char *def, *current, *want;  // want nullptr: the list keeps current
  } cases[] = {
      {"def[1][m]", "def[1][m],mine[5][]", "mine[5][]"},
      {"def[1][m]", "mine[5][u],def[1][m],x[6][m]", "mine[5][u],x[6][m]"},
      {"def[1][m]", "def[1][m],keep[5][m]", nullptr},
      {"def[1][m]", "def[1][m],bare", "bare"},
      {"def[1][m]", "def[1][m]", nullptr},
      {"def", "def[1][],x[2][]", "x[2][]"},
      {"def[1", "def[10][m],x[2][]", nullptr},
      {"def", "define[1][],x[2][]", nullptr},
      {"def[1][m]", "x[2][],y[3][u]", nullptr},
  };
  for (const Case &c : cases) {
    pvtest::List list = pvtest::MakeList({{"a", "1"}, {"runfunc", c.current}});
    QDrmdefaultmetamethod(c.def, c.current, "runfunc", list.get());
    EXPECT_EQ(pvtest::All(list.get()), (pvtest::Pairs{{"a", "1"}, {"runfunc", c.want ? c.want : c.current}}))
        << c.def << " in " << c.current;
  }
  testing_support::Sandbox box;
  TraceCapture trace(box, 3);
  pvtest::List list = pvtest::MakeList({{"runfunc", "x"}});
  QDrmdefaultmetamethod("", "x", "runfunc", list.get());
  EXPECT_TRUE(trace.Has("DefaultValue is NULL"));
  std::string long_value = "def[1][m]," + std::string(1014, 'q');  // 1024 characters
  QDrmdefaultmetamethod("def[1][m]", long_value.c_str(), "runfunc", list.get());
  EXPECT_EQ(pvtest::All(list.get()), (pvtest::Pairs{{"runfunc", "x"}}));
}

}  // namespace
