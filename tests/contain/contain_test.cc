// Containment chains, one level and whole trees, through the cache and
// through the device commands; trees that contain themselves, very deep and
// very wide ones; and the clean-up list.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>

#include "contain_support.h"
#include "trace_capture.h"

namespace {

using testing_support::WriteFile;

const char kExtra[] =
    "box::::ObjContains=\"slots, ghost,,tty07\" slots=\"tty00, nothere,tty01\"\n"
    "hollow::::ObjContains=\"\"\n"
    "ring1::::ObjContains=\"ring2\"\n"
    "ring2::::ObjContains=\"ring1,ring2,tty00\"\n"
    "twice::::ObjContains=\"ring1,ring1\"\n";

TEST_F(ContainTest, ChainsOneLevelOrWholeTreesInReverseOrderOfDiscovery) {
  Add(kExtra + std::string("long::::ObjContains=\"") + std::string(480, 'x') + ",tty03\"\n");
  struct Case {
    const char *alias;
    unsigned char flags;
    int rc;
    const char *tree;  // "kept": the chain given before the call stays
  } cases[] = {
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

}  // namespace
