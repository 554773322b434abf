// Containment chains, one level and whole trees, through the cache and
// through the device commands; trees that contain themselves, very deep and
// very wide ones; the clean-up list; destroy with its flag defaults, early
// failures, methods along a tree, fallbacks and the merged result list, a
// destroy killed halfway, and qdadm's view of all this.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "cache_fixture.h"
#include "list_util.h"
#include "trace_capture.h"

namespace {

using testing_support::ReadFile;
using testing_support::WriteFile;

class ContainTest : public CacheTest {
 protected:
  void Add(const std::string &lines) const {
    box_.WriteTable(testing_support::ReadFile(testing_support::SampleTablePath()) + lines);
  }
  // The tree depth first in chain order, one word an object: a dot a level.
  static std::string Tree(const ObjectRecord *o, const std::string &dots = "") {
    std::string out = dots + o->alias;
    for (const ContainedNode *n = o->contained; n != nullptr; n = n->next) out += " " + Tree(n->object, dots + ".");
    return out;
  }
  // Every entry, "keyword=value" joined by "|"; the list is destroyed.
  static std::string Text(KeywordList *list) {
    if (list == nullptr) return "<null>";
    std::string out;
    for (const auto &p : pvtest::All(list)) out += (out.empty() ? "" : "|") + p.first + "=" + p.second;
    DestroyKeywordList(list);
    return out;
  }
};

const char kExtra[] =
    "box::::ObjContains=\"slots, ghost,,tty07\" slots=\"tty00, nothere,tty01\"\n"
    "hollow::::ObjContains=\"\"\n"
    "ring1::::ObjContains=\"ring2\"\n"
    "ring2::::ObjContains=\"ring1,ring2,tty00\"\n"
    "twice::::ObjContains=\"ring1,ring1\"\n";

TEST_F(ContainTest, ChainsOneLevelOrWholeTreesInReverseOrderOfDiscovery) {
  Add(kExtra + std::string("long::::ObjContains=\"") + std::string(480, 'x') + ",tty03\"\n");
  // tree "kept": the chain given before the call stays
  struct Case { const char *alias; unsigned char flags; int rc; const char *tree; } cases[] = {
      {"scsi0", 0, 0, "scsi0 .tape0 .disk2 .disk1 .disk0"},
      {"scsi0", QDOBJECT, 0, "scsi0 .tape0 .disk2 .disk1 .disk0"},
      {"scsi0", QDCONTAINS, 0,
       "scsi0 .tape0 .disk2 ..disk2s3 ..disk2s2 ..disk2s1 .disk1 ..disk1s3 ..disk1s2 ..disk1s1 .disk0 ..disk0s3 "
       "..disk0s2 ..disk0s1"},
      {"scsi0", QDOBJECT | QDCONTAINS, 1, "kept"},
      {"tape0", QDCONTAINS, 3, "kept"},
      {"hollow", QDOBJECT, 3, "hollow"},
      {"box", QDOBJECT, 0, "box .tty07"},
      {"box", QDEXTENDED, 0, "box .tty07 .tty01 .tty00"},
      {"long", QDOBJECT, 0, "long .tty03"},
      {"ring1", QDCONTAINS, 0, "ring1 .ring2 ..tty00 ..ring2 ..ring1"},
      {"twice", QDCONTAINS, 0, "twice .ring1 ..ring2 ...tty00 ...ring2 ...ring1 .ring1 ..ring2 ...tty00 ...ring2 ...ring1"},
  };
  for (bool cached : {true, false}) {
    for (const Case &c : cases) {
      if (qdcache_on != 0) QDcache_free();
      qdcache_free = cached ? 1 : 0;  // not free: the load fails and the commands answer under a read lock
      ObjectRecord *o = QDgetobj(c.alias);
      ASSERT_NE(o, nullptr) << c.alias;
      o->contained = QDAddObjectToList(nullptr, QDgetobj("lp0"));
      EXPECT_EQ(QDget_contained_objects(o, c.flags), c.rc) << c.alias << " " << int(c.flags);
      EXPECT_EQ(Tree(o), std::string(c.tree) == "kept" ? std::string(c.alias) + " .lp0" : c.tree) << c.alias;
      EXPECT_EQ(qdcache_on, cached && c.rc != 1 ? 1 : 0);
      QDfreeobj(o);
    }
  }
}

TEST_F(ContainTest, AnEntryWithoutAValueIsNoEntryAndAPathIsNotFollowedTwice) {
  Add(kExtra);
  TraceCapture trace(box_, 4);
  ObjectRecord *o = Create_object(strdup("hand"), CreateKeywordList(), CreateKeywordList());
  AddKeywordToList(o->attributes, "ObjContains", nullptr);  // delivered with KWL_WARN
  o->contained = QDAddObjectToList(nullptr, QDgetobj("lp0"));
  EXPECT_EQ(QDget_contained_objects(o, QDOBJECT), 3);
  EXPECT_EQ(Tree(o), "hand .lp0");
  QDfreeobj(o);
  ObjectRecord *ring = QDgetobj("ring2");
  EXPECT_EQ(QDget_contained_objects(ring, QDCONTAINS), 0);
  EXPECT_EQ(Tree(ring), "ring2 .tty00 .ring2 .ring1 ..ring2");
  QDfreeobj(ring);
  EXPECT_TRUE(trace.Has("'ring2' is already on the containment path: not followed"));
  EXPECT_EQ(QDexec_on_contained(), 0);
}

// 10,000 levels, and 10,000 aliases in one ObjContains: neither is bounded
// by the stack, both come back whole and free whole.
TEST_F(ContainTest, TenThousandLevelsDeepOrWide) {
  std::string table, wide;
  for (int i = 0; i < 10000; ++i) {
    std::string next = i + 1 < 10000 ? "ObjContains=\"d" + std::to_string(i + 1) + "\"" : "";
    table += "d" + std::to_string(i) + "::::" + next + "\n";
    wide += (i ? "," : "") + std::string("d") + std::to_string(i);
  }
  box_.WriteTable(table);
  ObjectRecord *deep = QDgetobj("d0");
  ASSERT_EQ(QDget_contained_objects(deep, QDCONTAINS), 0);
  int depth = 0;
  for (const ObjectRecord *o = deep; o->contained != nullptr; o = o->contained->object) ++depth;
  EXPECT_EQ(depth, 9999);
  QDfreeobj(deep);
  // Every level destroyed, the deepest first; each message merged once.
  std::string r = Text(QDdestroy("d0", QDEXTENDED | QDCONTAINS));
  EXPECT_EQ(r.rfind("errorcode=0|completioncode=0|destroyed=|deleted=|not_destroyed=d9999,d9998,", 0), 0u);
  EXPECT_EQ(std::count(r.begin(), r.end(), '|'), 10005);
  ObjectRecord *flat = Create_object(strdup("flat"), pvtest::MakeList({{"ObjContains", wide}}).release(), nullptr);
  ASSERT_EQ(QDget_contained_objects(flat, QDOBJECT), 0);
  int n = 0;
  for (const ContainedNode *c = flat->contained; c != nullptr; c = c->next, ++n)
    ASSERT_EQ(c->object->alias, "d" + std::to_string(9999 - n));
  EXPECT_EQ(n, 10000);
  r = Text(QD_destroy_object(flat, QDDEL | QDCONTAINS));
  EXPECT_EQ(r.rfind("errorcode=0|completioncode=3|destroyed=|deleted=d9999,d9998,", 0), 0u);
  EXPECT_NE(r.find(",d0|not_destroyed=|not_deleted=flat|message='QDdelete' failed for alias 'flat'"), std::string::npos);
  QDfreeobj(flat);
  QDcache_flush();
  EXPECT_EQ(box_.ReadTable(), "");
}

TEST_F(ContainTest, TheCleanUpListRemovesNewestFirstAndKeepsItsRegistrations) {
  std::string file = box_.Path("scratch"), log = box_.Path("seen");
  // Reports whether the file is still there when the entry is deleted.
  testing_support::FakeCommand(box_, "unitmod", "[ -e '" + file + "' ] && echo file-there >>'" + log + "'; exit 0");
  TraceCapture trace(box_, 3);
  auto item = [](unsigned short type, const std::string &name, const char *qualifier) {
    QDCleanupItem i{};
    i.type = type;
    snprintf(i.name, sizeof i.name, "%s", name.c_str());
    snprintf(i.qualifier, sizeof i.qualifier, "%s", qualifier);
    return i;
  };
  QDCleanupItem f = item(QD_CLEANUP_FILE, file, ""), tape = item(QD_CLEANUP_OBJECT, "tape1", "q");
  QDCleanupItem ghost = item(QD_CLEANUP_OBJECT, "ghost", ""), other_q = item(QD_CLEANUP_OBJECT, "tape1", "r");
  QDCleanupItem cut = item(QD_CLEANUP_FILE, "x", "");
  memset(cut.name, 'x', sizeof cut.name);
  for (QDCleanupItem *i : {&f, &f, &ghost, &f, &tape}) ASSERT_EQ(QDcleanup(i, QD_CLEANUP_ADD), 0);
  EXPECT_EQ(QDcleanup(&f, QD_CLEANUP_REMOVE), 0);        // every registration of the file goes
  EXPECT_EQ(QDcleanup(&other_q, QD_CLEANUP_REMOVE), 0);  // another qualifier: tape1 stays
  WriteFile(file, "x");
  EXPECT_EQ(QDcleanup(nullptr, QD_CLEANUP_EXECUTE), 0);
  EXPECT_EQ(access(file.c_str(), F_OK), 0);
  EXPECT_EQ(QDcleanup(&f, QD_CLEANUP_ADD), 0);
  EXPECT_EQ(QDcleanup(nullptr, QD_CLEANUP_EXECUTE), 0);  // the file first now, then tape1 again
  EXPECT_EQ(testing_support::ReadFile(log), "file-there\n");
  EXPECT_NE(access(file.c_str(), F_OK), 0);
  EXPECT_EQ(QDcleanup(nullptr, QD_CLEANUP_EXECUTE), 0);
  for (const char *said : {"QDdelete failed with alias ghost", "unlink failed with file"})
    EXPECT_TRUE(trace.Has(said)) << said;
  EXPECT_EQ(QDcleanup(&cut, QD_CLEANUP_ADD), -1);
  EXPECT_EQ(QDcleanup(nullptr, QD_CLEANUP_ADD), -1);
  EXPECT_EQ(QDcleanup(nullptr, QD_CLEANUP_REMOVE), -1);
  EXPECT_EQ(QDcleanup(&f, 3), -1);
  EXPECT_TRUE(trace.Has("invalid operation: 3"));
}

class Destroy : public ContainTest {
 protected:
  void SetUp() override {
    setenv("SO_DIR", QD_TEST_METHODS_DIR, 1);
    log_ = box_.Path("acts");
    // A command method that notes its act and reports.
    auto act = [this](const std::string &name, const std::string &report) {
      return "echo " + name + " >>" + log_ + "; " + report;
    };
    Add("rack::::ObjContains=\"node1,node2\" QDdestroyfunc=\"offcmd[10]\" offcmd=\"" +
        act("rack", "echo errorcode=0") + "\"\n" +
        "node1::::QDdestroyfunc=\"offcmd[10]\" offcmd=\"" +
        act("node1", "echo message=node1 is off; echo state=off; echo completioncode=5") +
        "\" QDdeletefunc=\"rmcmd[10]\" rmcmd=\"" + act("node1-del", "echo deleted=node1,spare,node1; echo errorcode=0") +
        "\"\n" + "node2:/nonexistent/node2:::QDdestroyfunc=\"devcheck.exists[10]\"\n" +
        "ring1::::ObjContains=\"ring2\"\nring2::::ObjContains=\"ring1,tty00\"\ntwice::::ObjContains=\"ring1,ring1\"\n");
  }
  std::string Acts() const { return ReadFile(log_); }
  static bool InTable(const char *alias) { return QDcheck(alias) == 0; }
  std::string log_;
};

TEST_F(Destroy, FlagDefaultsAndEarlyFailures) {
  const std::string head = "destroyed=|deleted=|not_destroyed=";
  EXPECT_EQ(Text(QDdestroy("rack", 0)), head + "rack|not_deleted=|message=QDdestroy() API not available|errorcode=1");
  EXPECT_EQ(Text(QDdestroy("rack", QDDEL | QDDESTROY)),
            head + "rack|not_deleted=rack|message=QDdestroy() API not available|errorcode=1");
  EXPECT_EQ(Text(QDdestroy("rack", QDEXTENDED | QDOBJECT | QDCONTAINS)),
            head + "rack|not_deleted=|message=QDdestroy(QDOBJECT|QDCONTAINS) is invalid|errorcode=1");
  EXPECT_EQ(Text(QDdestroy("ghost", QDDEL)), head + "|not_deleted=ghost|message=Cannot get object|errorcode=3");
  qdcache_free = 0;  // the cache cannot be loaded: the write lock serves
  EXPECT_EQ(Text(QDdestroy("ghost", QDDEL)),
            head + "|not_deleted=ghost|message=Cannot cache object table|message=Cannot get object|errorcode=3");
  setenv("TAV_DEVTAB", ("/" + std::string(1100, 'd') + "/units.tab").c_str(), 1);  // no lock file path fits
  EXPECT_EQ(Text(QDdestroy("rack", QDDEL)), head +
                                                "|not_deleted=rack|message=Cannot cache object table|message=Cannot "
                                                "lock object table for writing|errorcode=2");
  EXPECT_EQ(Acts(), "");
}

TEST_F(Destroy, MethodsAlongTheTreeContainedFirstWithFallbacksAndTheMergedList) {
  setenv("QD_TIMESTAMP", "0099,00,20,00,00,00,3,019,00", 1);
  unsigned char all = QDEXTENDED | QDDESTROY | QDDEL | QDDELFALLBACK | QDCONTAINS;
  // node2's function method reports errorcode 2, node1's command method
  // completioncode 5 and a delete of two aliases; the last code stays.
  EXPECT_EQ(Text(QDdestroy("rack", all)),
            "errorcode=5|completioncode=0|destroyed=|deleted=node2,node1,spare,rack|not_destroyed=|not_deleted="
            "|message=/nonexistent/node2: No such file or directory"
            "|message='QDdeletefunc' not defined for alias 'node2'|message=node1 is off|state=off"
            "|message='QDdeletefunc' not defined for alias 'rack'");
  EXPECT_EQ(Acts(), "node1\nnode1-del\nrack\n");
  EXPECT_FALSE(InTable("node2"));
  EXPECT_TRUE(InTable("node1"));  // its own delete method did not delete it
  EXPECT_FALSE(InTable("rack"));
  EXPECT_EQ(Archived(), (std::vector<std::string>{"1999:01:20:00:00:00/node2", "1999:01:20:00:00:00/rack"}));
}

TEST_F(Destroy, DeletesWithoutMethodsAndWithoutFallback) {
  EXPECT_EQ(Text(QDdestroy("disk0s1", QDDEL)),
            "errorcode=0|completioncode=0|destroyed=|deleted=disk0s1|not_destroyed=|not_deleted=");
  EXPECT_EQ(Text(QDdestroy("disk0", QDDEL | QDEXTENDED)),
            "errorcode=0|completioncode=0|destroyed=|deleted=|not_destroyed=|not_deleted=disk0"
            "|message='QDdeletefunc' not defined for alias 'disk0'");
  EXPECT_FALSE(InTable("disk0s1"));
  EXPECT_TRUE(InTable("disk0"));
  // A contained object whose delete fails gives its container error code 3.
  ObjectRecord *top = QDgetobj("disk0");
  ObjectRecord *phantom = Create_object(strdup("phantom"), CreateKeywordList(), CreateKeywordList());
  top->contained = QDAddObjectToList(QDAddObjectToList(nullptr, QDgetobj("disk0s2")), phantom);
  EXPECT_EQ(Text(QD_destroy_object(top, QDDEL | QDCONTAINS)),
            "errorcode=3|completioncode=0|destroyed=|deleted=disk0s2,disk0|not_destroyed=|not_deleted=phantom"
            "|message='QDdelete' failed for alias 'phantom'");
  QDfreeobj(top);
}

TEST_F(Destroy, MergingASubList) {
  pvtest::List r = pvtest::MakeList({{"errorcode", "2"}, {"destroyed", "a"}, {"message", "m0"}});
  QD_destroy_parse(r.get(), pvtest::MakeList({{"destroyed", "b, a,,c"}, {"message", "m1"}, {"completioncode", "4"},
                                              {"errorcode", "0"}, {"x", "1"}, {"message", "m2"}, {"deleted", "d"}})
                                .release());
  EXPECT_EQ(Text(r.release()), "errorcode=4|destroyed=a,b,c|message=m0|message=m1|x=1|message=m2|deleted=d");
}

// An object below itself is not handled again; one listed twice is, and
// its second delete fails.
TEST_F(Destroy, ATreeThatContainsItselfIsHandledOnceAPath) {
  EXPECT_EQ(Text(QDdestroy("twice", QDDEL | QDCONTAINS)),
            "errorcode=3|completioncode=0|destroyed=|deleted=tty00,ring2,ring1,twice|not_destroyed=|not_deleted=ring1"
            "|message='QDdelete' failed for alias 'ring1'");
}

// Killed at its third object: what was not deleted yet is still in the
// table, and what was deleted has its archive copy (cached deletes were
// never written; without the cache each delete rewrote the table).
TEST_F(Destroy, KilledHalfwayLosesNothing) {
  Add("k0::::ObjContains=\"k1,k2,k3\"\nk1::::QDdeletefunc=\"killcmd[10]\" killcmd=\"kill -9 $PPID\"\nk2::::\nk3::::\n");
  for (bool cached : {true, false}) {
    std::string table = box_.ReadTable();
    pid_t pid = fork();
    if (pid == 0) {
      if (cached) setenv("QD_TIMESTAMP", "0099,00,20,00,00,00,3,019,00", 1);
      qdcache_free = cached ? 1 : 0;
      QDdestroy("k0", QDEXTENDED | QDDEL | QDDELFALLBACK | QDCONTAINS);
      _exit(0);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    ASSERT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGKILL) << cached;
    EXPECT_TRUE(InTable("k0") && InTable("k1")) << cached;
    std::vector<std::string> copies = Archived();
    EXPECT_EQ(copies.size(), 2u) << cached;
    for (const std::string &copy : copies) {
      std::string alias = copy.substr(copy.find('/') + 1);
      EXPECT_TRUE(alias == "k2" || alias == "k3") << copy;
      EXPECT_EQ(InTable(alias.c_str()), cached) << copy;
      EXPECT_EQ(ReadFile(box_.Path("archive/" + copy)).rfind("alias=" + alias + "\n", 0), 0u) << copy;
    }
    EXPECT_TRUE(!cached || box_.ReadTable() == table);
    std::filesystem::remove_all(box_.Path("archive"));
  }
}

testing_support::RunResult Admin(std::vector<std::string> args) {
  args.insert(args.begin(), QD_TEST_QDADM);
  return testing_support::RunProgram(args);
}

TEST_F(Destroy, QdadmShowsTreesAndWhatADestroyWouldDoWithoutDoingIt) {
  EXPECT_EQ(Admin({"contains", "--tree", "ring1"}).out, "ring1\n  ring2\n    tty00\n    ring1 (repeated above: not followed)\n");
  EXPECT_EQ(Admin({"--json", "contains", "--tree", "rack"}).out,
            "{\"alias\": \"rack\", \"contains\": [{\"alias\": \"node2\", \"contains\": []}, "
            "{\"alias\": \"node1\", \"contains\": []}]}\n");
  std::string table = box_.ReadTable();
  auto plan = Admin({"destroy", "--tree", "--extended", "--delete", "--fallback", "--dry-run", "rack"});
  EXPECT_EQ(plan.status, 0) << plan.err;
  EXPECT_EQ(plan.out, "1 perform node2 QDdestroyfunc\n2 delete node2\n3 perform node1 QDdestroyfunc\n"
                      "4 perform node1 QDdeletefunc\n5 perform rack QDdestroyfunc\n6 delete rack\n");
  EXPECT_EQ(box_.ReadTable(), table);
  EXPECT_TRUE(Archived().empty());
  EXPECT_EQ(Acts(), "");
  auto done = Admin({"--json", "destroy", "--delete", "tape0"});
  EXPECT_EQ(done.status, 0) << done.err;
  EXPECT_EQ(done.out, "{\"errorcode\": \"0\", \"completioncode\": \"0\", \"destroyed\": [], \"deleted\": [\"tape0\"], "
                      "\"not_destroyed\": [], \"not_deleted\": [], \"message\": []}\n");
  EXPECT_EQ(Admin({"destroy", "rack"}).status, 1);  // destroy without methods is refused
}

}  // namespace
