// Objects made from classes, unique aliases (also between processes),
// class files, multi-value attributes and alias lists.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "list_util.h"
#include "qd.h"
#include "sandbox.h"

namespace {

using pvtest::Pairs;
using testing_support::Sandbox;

const unsigned char kCombined = QD_CLASS_METHOD | QD_CLASS_ADD;
const QDclass_entry_t kDisk[] = {
    {0, "type", "scsi", 0, 0},
    {0, "state", "offline", 0, 0},
    {QD_CLASS_ADD, "caps", "read", 0, 0},
    {QD_CLASS_ADD, "caps", "format", 0, 0},
    {QD_CLASS_ADD, "caps", "a,b", 0, 0},  // skipped: one item holds no comma
    {QD_CLASS_METHOD, "offcmd", "echo off", 0, 0},
    {QD_CLASS_METHOD, "offcmd", "echo off2", 0, 0},
    {kCombined, "killfunc", "offcmd", 20, 0},
    {kCombined, "killfunc", "checkcmd", 10, META_COND},
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
  std::vector<pid_t> children;
  for (int i = 0; i < kCreates; ++i) {
    pid_t pid = fork();
    if (pid == 0) {
      int fd = open(box.Path("out" + std::to_string(i)).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(fd, 1);
      execl(QD_TEST_QDADM, "qdadm", "create", "--class-file", box.Path("classes").c_str(), "disk", nullptr);
      _exit(127);
    }
    children.push_back(pid);
  }
  std::set<std::string> made;
  for (int i = 0; i < kCreates; ++i) {
    int status = 0;
    waitpid(children[i], &status, 0);
    EXPECT_EQ(status, 0);
    made.insert(testing_support::ReadFile(box.Path("out" + std::to_string(i))));
  }
  std::set<std::string> want;
  for (int n = 3; n < 3 + kCreates; ++n) want.insert("alias=disk" + std::to_string(n) + "\n");
  EXPECT_EQ(made, want);
  for (int n = 0; n < 3 + kCreates; ++n) EXPECT_EQ(QDcheck(("disk" + std::to_string(n)).c_str()), 0) << n;
}

TEST(Classes, ClassFilesAreReadWholeOrRefusedWithTheLine) {
  Sandbox box;
  const std::string path = box.Path("classes");
  const std::string long_value = "class d\ndefault desc " + std::string(513, 'q') + "\n";
  struct Case {
    std::string text, error;
  } cases[] = {
      {"default type scsi\n", "1: a row before the first class line"},
      {"class d\n\n  # note\nsome type scsi\n", "4: unknown kind"},
      {"class d\ndefault type \"scsi\n", "2: a quote is not closed"},
      {"class d\ndefault type \"a\"b\n", "2: text follows a closing quote"},
      {"class d\ndefault type scsi ide\n", "2: too many fields"},
      {"class d\ndefault type\n", "2: a row needs a kind, a keyword and a value"},
      {"class d\ndefault checkcmd x\n", "2: an attribute row cannot take a method name"},
      {"class d\nmethod type x\n", "2: a method row needs a method name"},
      {"class d\ndefault myalias x\n", "2: an alias name is no attribute"},
      {"class d\ncombined runcmd x\n", "2: a command method holds no meta-method value"},
      {"class d\nmulti caps a,b\n", "2: a multi-value item is one item"},
      {"class d\ncombined runfunc x 100\n", "2: the index is not a number from 0 to 99"},
      {"class d\ncombined runfunc x 1 ?k\n", "2: an operator is not one of"},
      {"class d\ncombined runfunc x[1] 1\n", "2: the element name holds"},
      {"class d\nclass d\n", "2: the class is given twice"},
      {"class a:b\n", "1: a class name is"},
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
  struct Case {
    const char *before;  // nullptr: no such attribute
    int (*edit)(const char *, const char *, const char *);
    std::string item;
    int rc;
    std::string after;
  } cases[] = {
      {"a,c", QDaddattributevalue, "b", 0, "a,c,b"},
      {"a,c", QDaddattributevalue, "c", 0, "a,c"},
      {nullptr, QDaddattributevalue, "x", 0, "x"},
      {"", QDaddattributevalue, "v", 0, ",v"},
      {"a,c", QDaddattributevalue, "b,d", 254, "a,c"},
      {"a,c", QDaddattributevalue, "", 254, "a,c"},
      {"a,c", QDaddattributevalue, " b", 254, "a,c"},
      {q510.c_str(), QDaddattributevalue, "b", 0, q510 + ",b"},
      {q510.c_str(), QDaddattributevalue, "bc", 254, q510},
      {"a,b,a", QDdelattributevalue, "a", 0, "b"},
      {"a", QDdelattributevalue, "a", 0, ""},
      {"a,b", QDdelattributevalue, "z", 0, "a,b"},
      {"a,b", DelEntryFmCommaList, "a", 0, "b"},
      {"a,b", DelEntryFmCommaList, "z", 2, "a,b"},
      {nullptr, DelEntryFmCommaList, "z", 2, "<none>"},
  };
  for (const Case &c : cases) {
    box.WriteTable(std::string("box::::desc=\"x\"") + (c.before ? std::string(" caps=\"") + c.before + "\"" : "") + "\n");
    EXPECT_EQ(c.edit("box", "caps", c.item.c_str()), c.rc) << c.before << " " << c.item;
    NameValue *nv = QDgetattr("box", "caps");
    EXPECT_EQ(nv ? nv->value : "<none>", c.after) << c.before << " " << c.item;
    free(nv);
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

AliasList *Chain(std::vector<std::string> aliases) {
  AliasList *head = nullptr;
  for (auto it = aliases.rbegin(); it != aliases.rend(); ++it)
    head = new (malloc(sizeof(AliasList))) AliasList{strdup(it->c_str()), head};
  return head;
}

std::vector<std::string> Names(const AliasList *list) {
  std::vector<std::string> out;
  for (; list != nullptr; list = list->next) out.push_back(list->alias);
  return out;
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

}  // namespace

namespace {

TEST(Tool, CreatesAndEditsOrChangesNothing) {
  Sandbox box;
  const std::string classes = std::string(QD_TEST_SOURCE_DIR) + "/examples/classes/units.classes";
  testing_support::WriteFile(box.Path("bad"), "class disk\nmulti caps a,b\n");
  const std::string q506(506, 'q');
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;  // for a failure: a piece of the message; the table stays as it was
  } cases[] = {
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
