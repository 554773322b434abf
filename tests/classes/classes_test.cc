// Editing meta-method values (the worked values of each call, the bounds of
// their buffers, elements told apart from names they begin with); objects
// made from classes, unique aliases (also between processes), class files,
// multi-value attributes and alias lists; qdadm's commands for them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "list_util.h"
#include "qd.h"
#include "trace_capture.h"

namespace {

using pvtest::Chain;
using pvtest::Names;
using pvtest::Pairs;
using testing_support::Sandbox;

std::string Cat(const std::string &current, const char *name, int index, unsigned char mask) {
  char out[QD_VALUE_MAX + 1];
  QDcatmetamethod(out, current.c_str(), name, index, mask);
  return out;
}

TEST(Edit, CatAddsOrMovesTheElementToTheEnd) {
  const std::string n36(36, 'n'), q505(505, 'q'), q506(506, 'q'), r503 = "e[1][]," + std::string(503, 'q');
  struct Case { std::string current; const char *name; int index; unsigned char mask; std::string want; } cases[] = {
      {"", "run", 5, 0, "run[5][]"}, {"", "a", 7, 0x23, "a[7][m?-]"}, {"", "a", 0, 0x7f, "a[0][um?-+x!]"},
      {"x[1][]", "run", 99, 0x01, "x[1][],run[99][?]"}, {"a[1][], b[2][]", "b", 9, 0, "a[1][],b[9][]"},
      {"a[1][],b[2][],c[3][]", "b", 9, 0, "a[1][],c[3][],b[9][]"}, {"run,x[1][]", "run", 3, 0, "x[1][],run[3][]"},
      {"restart[1][],runall[2][]", "run", 3, 0, "restart[1][],runall[2][],run[3][]"},
      {q505, "e", 1, 0, q505 + ",e[1][]"},                           // 512 characters
      {q506, "e", 1, 0, q506},                                       // 513: no room
      {r503, "e", 2, 0, std::string(503, 'q') + ",e[2][]"},          // 510 after a move
      {"e[1][]," + std::string(504, 'q'), "e", 2, 0, "e[1][]," + std::string(504, 'q')},  // 511
      // Refused elements leave the value as it was.
      {"x", n36.c_str(), 1, 0, "x"}, {"x", "a,b", 1, 0, "x"}, {"x", "a[1]", 1, 0, "x"},
      {"x", "", 1, 0, "x"},          {"x", "a", 100, 0, "x"}, {"x", "a", 1, 0x80, "x"},
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
  std::string Get(const char *name = "runfunc") { return pvtest::Value(QDgetmethod("box", name)); }
  testing_support::Sandbox box_;
};

TEST_F(Methods, AddRemoveAndUpdateRewriteTheMethod) {
  const std::string abc = "a[1][],b[2][],c[3][]", near = std::string(500, 'q') + ",b[2][]";
  // edit: 'r'emove, 'a'dd or 'u'pdate the element.
  struct Case { std::string before; char edit; const char *element; int index, mask, rc; std::string after; } cases[] = {
      {abc, 'r', "b", 0, 0, 0, "a[1][],c[3][]"},  {abc, 'r', "a", 0, 0, 0, "b[2][],c[3][]"},
      {abc, 'r', "c", 0, 0, 0, "a[1][],b[2][]"},  {"a[1][],b[2][],a[3][m]", 'r', "a", 0, 0, 0, "b[2][]"},
      {"a[1][]", 'r', "a", 0, 0, 0, ""},          {"restart[1][]", 'r', "start", 0, 0, 0, "restart[1][]"},
      {abc, 'r', "", 0, 0, 255, abc},             {abc, 'a', "d", 4, 0x08, 0, abc + ",d[4][x]"},
      {abc, 'u', "a", 9, 0x21, 0, "b[2][],c[3][],a[9][m?]"}, {abc, 'u', "a,b", 9, 0, 254, abc},
      // The update would not fit: the element is not removed either.
      {near, 'u', "b", 2, 0x7f, 255, near},
  };
  for (const Case &c : cases) {
    Set(c.before);
    EXPECT_EQ(c.edit == 'r'   ? QDrmmetamethod("box", "runfunc", c.element)
              : c.edit == 'a' ? QDaddmetamethod("box", "runfunc", c.element, c.index, c.mask)
                              : QDupdatemetamethod("box", "runfunc", c.element, c.index, c.mask),
              c.rc) << c.before;
    EXPECT_EQ(Get(), c.after) << c.before;
  }
  EXPECT_EQ(QDaddmetamethod("box", "newfunc", "a", 1, 0), 0);
  EXPECT_EQ(Get("newfunc"), "a[1][]");
  // Values that hold no meta-method are not taken for empty ones.
  EXPECT_EQ(QDaddmetamethod("box", "desc", "a", 1, 0), 254);
  EXPECT_EQ(QDaddmetamethod("box", "runcmd", "a", 1, 0), 254);
  EXPECT_EQ(Get("runcmd"), "echo run");
  EXPECT_EQ(pvtest::Value(QDgetattr("box", "desc")), "a box");
}

TEST(Edit, DefaultElementGoesWhenAnotherIsNotMandatory) {
  struct Case { const char *def, *current, *want; } cases[] = {  // want nullptr: the list keeps current
      {"def[1][m]", "def[1][m],mine[5][]", "mine[5][]"}, {"def[1][m]", "mine[5][u],def[1][m],x[6][m]", "mine[5][u],x[6][m]"},
      {"def[1][m]", "def[1][m],keep[5][m]", nullptr},   {"def[1][m]", "def[1][m],bare", "bare"},
      {"def[1][m]", "def[1][m]", nullptr},              {"def", "def[1][],x[2][]", "x[2][]"},
      {"def[1", "def[10][m],x[2][]", nullptr},          {"def", "define[1][],x[2][]", nullptr},
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

const unsigned char kCombined = QD_CLASS_METHOD | QD_CLASS_ADD;
const QDclass_entry_t kDisk[] = {
    {0, "type", "scsi", 0, 0}, {0, "state", "offline", 0, 0},
    {QD_CLASS_ADD, "caps", "read", 0, 0}, {QD_CLASS_ADD, "caps", "format", 0, 0},
    {QD_CLASS_ADD, "caps", "a,b", 0, 0},  // skipped: one item holds no comma
    {QD_CLASS_METHOD, "offcmd", "echo off", 0, 0}, {QD_CLASS_METHOD, "offcmd", "echo off2", 0, 0},
    {kCombined, "killfunc", "offcmd", 20, 0}, {kCombined, "killfunc", "checkcmd", 10, META_COND},
    {kCombined, "killfunc", "offcmd", 30, META_IGNORE},
    {kCombined, "killfunc", "bad,name", 40, 0},  // skipped
    {0, nullptr, nullptr, 0, 0},
};

TEST(Classes, EveryKindOfRowApplies) {
  Sandbox box;
  pvtest::List given = pvtest::MakeList({{"type", "ide"}, {"caps", "format"}});
  ObjectRecord *o = QDcreate_fm_tbl("disk", "d9", given.get(), kDisk);
  ASSERT_NE(o, nullptr);
  EXPECT_STREQ(o->alias, "d9");
  const Pairs methods = {{"offcmd", "echo off2"}, {"killfunc", "checkcmd[10][?],offcmd[30][x]"}};
  EXPECT_EQ(pvtest::All(o->attributes), (Pairs{{"type", "ide"}, {"caps", "format,read"}, {"state", "offline"}}));
  EXPECT_EQ(pvtest::All(o->methods), methods);
  // Updates land among the attributes; the class, still in force, applies again.
  pvtest::List updates = pvtest::MakeList({{"type", "sata"}, {"startfunc", "x"}});
  EXPECT_EQ(QDupdate("disk", o, updates.get()), 0);
  EXPECT_EQ(pvtest::All(o->attributes),
            (Pairs{{"caps", "format,read"}, {"state", "offline"}, {"type", "sata"}, {"startfunc", "x"}}));
  EXPECT_EQ(pvtest::All(o->methods), methods);
  EXPECT_EQ(QDupdate("disk", nullptr, updates.get()), 254);
  EXPECT_NE(QDupdate("disk", o, nullptr), 0);
  QDfreeobj(o);
  o = QDcreate("tape", "t9", nullptr);  // no rows of that class in force
  ASSERT_NE(o, nullptr);
  EXPECT_EQ(pvtest::All(o->attributes), Pairs{});
  QDfreeobj(o);
}

TEST(Classes, UniqueAliasesFromTheClassName) {
  Sandbox box;
  std::string table = "disk0::::\ndisk1::::\nabcdefghijk0::::\n";
  for (int n = 0; n < 999; ++n) table += "t" + std::to_string(n) + "::::\n";
  box.WriteTable(table);
  ASSERT_EQ(QDcache_load(), 0);  // the thousand checks read the cache
  ObjectRecord *o = QDcreate("disk", nullptr, nullptr);
  ASSERT_NE(o, nullptr);
  EXPECT_STREQ(o->alias, "disk2");
  QDfreeobj(o);
  char alias[QD_UNIQID_SIZE];
  EXPECT_EQ(QDuniqid(alias, "abcdefghijklmn"), 0);
  EXPECT_STREQ(alias, "abcdefghijk1");
  EXPECT_EQ(QDuniqid(alias, "t"), 0);
  EXPECT_STREQ(alias, "t999");
  pvtest::List one = pvtest::MakeList({{"class", "t"}});
  ASSERT_EQ(QDput("t999", one.get()), 0);
  EXPECT_EQ(QDuniqid(alias, "t"), 255);
  EXPECT_STREQ(alias, "");
  EXPECT_EQ(QDcreate("t", nullptr, nullptr), nullptr);
  EXPECT_EQ(QDuniqid(alias, ""), 254);
  QDcache_free();
}

TEST(Classes, ConcurrentCreatesTakeDistinctAliases) {
  Sandbox box;
  testing_support::WriteFile(box.Path("classes"), "class disk\ndefault class disk\n");
  setenv("QD_LOCK_RETRY_SECONDS", "0", 1);  // a waiter that finds the lock file gone retries at once
  const int kCreates = 6;
  std::vector<testing_support::RunResult> runs(kCreates);
  std::vector<std::thread> threads;
  for (int i = 0; i < kCreates; ++i)
    threads.emplace_back([&, i] {
      runs[i] = testing_support::RunProgram({QD_TEST_QDADM, "create", "--class-file", box.Path("classes"), "disk"});
    });
  std::set<std::string> made, want;
  for (int i = 0; i < kCreates; ++i) {
    threads[i].join();
    EXPECT_EQ(runs[i].status, 0) << runs[i].err;
    made.insert(runs[i].out);
  }
  for (int n = 3; n < 3 + kCreates; ++n) want.insert("alias=disk" + std::to_string(n) + "\n");
  EXPECT_EQ(made, want);
  for (int n = 0; n < 3 + kCreates; ++n) EXPECT_EQ(QDcheck(("disk" + std::to_string(n)).c_str()), 0) << n;
}

TEST(Classes, ClassFilesAreReadWholeOrRefusedWithTheLine) {
  Sandbox box;
  const std::string path = box.Path("classes");
  const std::string long_value = "class d\ndefault desc " + std::string(513, 'q') + "\n";
  struct Case { std::string text, error; } cases[] = {
      {"default type scsi\n", "1: a row before the first class line"},
      {"class d\n\n  # note\nsome type scsi\n", "4: unknown kind"},
      {"class d\ndefault type \"scsi\n", "2: a quote is not closed"}, {"class d\ndefault type scsi ide\n", "2: too many fields"},
      {"class d\ndefault checkcmd x\n", "2: an attribute row cannot take a method name"},
      {"class d\ncombined runcmd x\n", "2: a command method holds no meta-method value"},
      {"class d\ncombined runfunc x 100\n", "2: the index is not a number from 0 to 99"},
      {"class d\ncombined runfunc x[1] 1\n", "2: the element name holds"},
      {long_value, "2: the value is longer than 512 characters"},
  };
  char error[256];
  for (const Case &c : cases) {
    testing_support::WriteFile(path, c.text);
    EXPECT_EQ(QDread_class_file(path.c_str(), error, sizeof error), nullptr) << c.text;
    EXPECT_EQ(std::string(error).substr(0, path.size() + 1 + c.error.size()), path + ":" + c.error);
  }
  testing_support::WriteFile(path, "class x # c\nmethod offcmd \"echo \\\"hi\\\" \\\\ \" # c\ncombined runfunc offcmd\n"
                                   "class y\ncombined runfunc offcmd 7 x?\n");
  QDclass_tbl_t *t = QDread_class_file(path.c_str(), error, sizeof error);
  ASSERT_NE(t, nullptr) << error;
  EXPECT_STREQ(t[0].rows[0].value, "echo \"hi\" \\ ");
  EXPECT_EQ(t[0].rows[1].index, 50);
  EXPECT_EQ(t[0].rows[1].mflags, 0);
  EXPECT_EQ(t[0].rows[2].keyword, nullptr);
  EXPECT_STREQ(t[1].class_name, "y");
  EXPECT_EQ(t[1].rows[0].mflags, META_COND | META_IGNORE);
  EXPECT_EQ(t[2].class_name, nullptr);
  QDfree_class_tbl(t);
  EXPECT_EQ(QDread_class_file(box.Path("none").c_str(), error, sizeof error), nullptr);
  EXPECT_NE(std::string(error).find("none: cannot be read"), std::string::npos);
}

TEST(Values, ItemsAreAddedAndRemovedWhole) {
  Sandbox box;
  const std::string q510(510, 'q');
  using Edit = int (*)(const char *, const char *, const char *);
  // before nullptr: no such attribute
  struct Case { const char *before; Edit edit; std::string item; int rc; std::string after; } cases[] = {
      {"a,c", QDaddattributevalue, "b", 0, "a,c,b"},       {"a,c", QDaddattributevalue, "c", 0, "a,c"},
      {nullptr, QDaddattributevalue, "x", 0, "x"},         {"", QDaddattributevalue, "v", 0, ",v"},
      {"a,c", QDaddattributevalue, "b,d", 254, "a,c"},     {"a,c", QDaddattributevalue, "", 254, "a,c"},
      {"a,c", QDaddattributevalue, " b", 254, "a,c"},      {q510.c_str(), QDaddattributevalue, "b", 0, q510 + ",b"},
      {q510.c_str(), QDaddattributevalue, "bc", 254, q510}, {"a,b,a", QDdelattributevalue, "a", 0, "b"},
      {"a", QDdelattributevalue, "a", 0, ""},              {"a,b", DelEntryFmCommaList, "a", 0, "b"},
      {"a,b", DelEntryFmCommaList, "z", 2, "a,b"},         {nullptr, DelEntryFmCommaList, "z", 2, "<null>"},
  };
  for (const Case &c : cases) {
    box.WriteTable(std::string("box::::desc=\"x\"") + (c.before ? std::string(" caps=\"") + c.before + "\"" : "") + "\n");
    EXPECT_EQ(c.edit("box", "caps", c.item.c_str()), c.rc) << c.before << " " << c.item;
    EXPECT_EQ(pvtest::Value(QDgetattr("box", "caps")), c.after) << c.before << " " << c.item;
  }
  // A value too long to be read whole is left as it is, not cut.
  const std::string line = "box::::caps=\"" + std::string(600, 'q') + "\"\n";
  box.WriteTable(line);
  EXPECT_EQ(QDaddattributevalue("box", "caps", "b"), -1);
  EXPECT_EQ(QDdelattributevalue("box", "caps", "b"), -1);
  EXPECT_EQ(box.ReadTable(), line);
  EXPECT_EQ(QDaddattributevalue("box", "checkcmd", "b"), 254);
  box.WriteTable("box::::caps=\"a,b\"\n");
  testing_support::FakeCommand(box, "unitmod", "exit 1");
  testing_support::WriteFile(box.Path("rc"), "directsave=0\n");
  EXPECT_EQ(DelEntryFmCommaList("box", "caps", "a"), 1);
}

TEST(Values, AliasListsAreJoinedAndThinned) {
  AliasList *first = nullptr;
  AddAliasListToList(&first, Chain({"a", "b"}));
  AddAliasListToList(&first, Chain({"c"}));
  AddAliasListToList(&first, first->next);  // already there: no loop
  EXPECT_EQ(Names(first), (std::vector<std::string>{"a", "b", "c"}));
  AliasList *second = first->next;
  EXPECT_EQ(DelAliasFmList(&first, first), second);
  EXPECT_EQ(Names(first), (std::vector<std::string>{"b", "c"}));
  AliasList *stray = Chain({"x", "y"});
  EXPECT_EQ(DelAliasFmList(&first, stray), stray->next);
  EXPECT_EQ(DelAliasFmList(&first, first->next), nullptr);
  EXPECT_EQ(Names(first), (std::vector<std::string>{"b"}));
  EXPECT_EQ(DelAliasFmList(&first, nullptr), nullptr);
  QDFreeAliasList(first);
  QDFreeAliasList(stray);
  DestroyCommaList(nullptr);
}

TEST(Tool, CreatesAndEditsOrChangesNothing) {
  Sandbox box;
  const std::string classes = std::string(QD_TEST_SOURCE_DIR) + "/examples/classes/units.classes";
  testing_support::WriteFile(box.Path("bad"), "class disk\nmulti caps a,b\n");
  const std::string q506(506, 'q');
  // out: a piece of the output, or for a failure of the message; a failure leaves the table as it was
  struct Case { std::vector<std::string> args; int status; std::string out; } cases[] = {
      {{"create", "--class-file", classes, "disk", "desc=new"}, 0, "alias=disk3\n"},
      {{"get", "disk3", "startfunc"}, 0, "startfunc=onlinecmd[10][?]\n"},
      {{"create", "--class-file", classes, "tape"}, 254, "no class tape"},
      {{"create", "--class-file", box.Path("bad"), "disk"}, 254, box.Path("bad") + ":2: a multi-value"},
      {{"update", "--class-file", classes, "tty00", "serial", "speed=1200"}, 0, "speed=1200\n"},
      {{"method", "add", "disk0", "QDdestroyfunc", "ejectcmd", "5", "?m"}, 0,
       "QDdestroyfunc=checkcmd[10][?],offlinecmd[20],ejectcmd[5][m?]\n"},
      {{"method", "rm", "disk0", "QDdestroyfunc", "checkcmd"}, 0, "QDdestroyfunc=offlinecmd[20],ejectcmd[5][m?]\n"},
      {{"method", "add", "disk0", "QDdestroyfunc", "x", "100"}, 254, "not an index"},
      {{"method", "add", "disk0", "QDdestroyfunc", "x", "1", "k"}, 254, "not an operator: 'k'"},
      {{"put", "disk0", "bigfunc=" + q506}, 0, ""},
      {{"method", "add", "disk0", "bigfunc", "e", "1"}, 255, "bigfunc of disk0 was not changed"},
      {{"value", "add", "disk0", "capabilities", "eject"}, 0, "capabilities=read,write,format,eject\n"},
      {{"value", "add", "disk0", "capabilities", "a,b"}, 254, "holds a comma"},
      {{"value", "rm", "nosuch", "capabilities", "a"}, 3, "no entry for nosuch"},
  };
  for (const Case &c : cases) {
    std::vector<std::string> argv = c.args;
    argv.insert(argv.begin(), QD_TEST_QDADM);
    std::string before = box.ReadTable();
    auto r = testing_support::RunProgram(argv);
    EXPECT_EQ(r.status, c.status) << argv[1] << " " << argv[2] << r.err;
    if (c.status == 0) {
      EXPECT_NE(r.out.find(c.out), std::string::npos) << r.out;
    } else {
      EXPECT_NE(r.err.find(c.out), std::string::npos) << r.err;
      EXPECT_EQ(box.ReadTable(), before) << argv[1] << " " << argv[2];
    }
  }
}

}  // namespace
