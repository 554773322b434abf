// Archive runs in a sandbox: what leaves the table, what is copied, and
// what no alias or planted name can make the run write through.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>

#include "cache_fixture.h"
#include "trace_capture.h"

namespace {

using testing_support::ReadFile;
using testing_support::WriteFile;

const char kNow[] = "0099,00,20,00,00,00,3,019,00";  // 20 January 1999
const char kRun[] = "1999:01:20:00:00:00";
const char kTable[] =
    "fresh:::: k=\"1\" ObjTimestamp=\"0099,00,20,00,00,00,3,019,00\"\n"
    "stale:::: k=\"2\" ObjTimestamp=\"0099,00,18,00,00,00,1,017,00\"\n"
    "old:::: k=\"3\" ObjTimestamp=\"0099,00,01,00,00,00,5,000,00\"\n"
    "nostamp:::: k=\"4\"\n";

class Archive : public CacheTest {
 protected:
  void SetUp() override {
    setenv("QD_TIMESTAMP", kNow, 1);
    box_.WriteTable(kTable);
  }
  std::string Run(const std::string &name = "") const { return box_.Path("archive/") + kRun + name; }
  bool InTable(const std::string &alias) const {
    return ("\n" + box_.ReadTable()).find("\n" + alias + ":") != std::string::npos;
  }
};

TEST_F(Archive, AllStaleObjectsLeaveTheTableExpiredOnesUncopied) {
  AliasList *kept = nullptr;
  EXPECT_EQ(QDArchive(QD_ARCH_ALL, &kept), 245);
  std::vector<std::string> names;
  for (AliasList *n = kept; n != nullptr; n = n->next) names.push_back(n->alias);
  QDFreeAliasList(kept);
  EXPECT_EQ(names, (std::vector<std::string>{"fresh", "nostamp"}));
  EXPECT_EQ(Archived(), std::vector<std::string>{std::string(kRun) + "/stale"});
  EXPECT_EQ(ReadFile(Run("/stale")), "alias=stale\npathname=\nk=2\nObjTimestamp=0099,00,18,00,00,00,1,017,00\n");
  EXPECT_TRUE(InTable("fresh") && InTable("nostamp"));
  EXPECT_FALSE(InTable("stale") || InTable("old"));
  EXPECT_EQ(qdcache_on, 0);
  EXPECT_EQ(qdcache_free, 1);
}

TEST_F(Archive, ListedAliasesAreArchivedPastOneThatIsNotCached) {
  AliasList *list = nullptr;
  for (const char *a : {"stale", "nosuch", "fresh"}) {
    AliasList node{const_cast<char *>(a), nullptr};
    list = AddAliasToList(&node, list);
  }
  EXPECT_EQ(QDArchive(QD_ARCH_LIST, &list), 254);  // fresh 245, nosuch 254, stale 0: the last non-zero
  QDFreeAliasList(list);
  EXPECT_FALSE(InTable("stale"));
  EXPECT_TRUE(InTable("old")) << "not listed";
}

// An alias cached twice: the stale copy goes by itself, never the other
// one; a stamp from the future is taken for corrupt and the entry stays.
TEST_F(Archive, DuplicateAliasesAndFutureStamps) {
  box_.WriteTable("dup:::: k=\"kept\" ObjTimestamp=\"0099,00,20,00,00,00,3,019,00\"\n"
                  "future:::: ObjTimestamp=\"0099,00,21,00,00,00,4,020,00\"\n"
                  "dup:::: k=\"gone\" ObjTimestamp=\"0099,00,18,00,00,00,1,017,00\"\n");
  EXPECT_EQ(QDArchive(QD_ARCH_ALL, nullptr), 255);
  EXPECT_EQ(box_.ReadTable(), "future::::ObjTimestamp=\"0099,00,21,00,00,00,4,020,00\"\n"
                              "dup::::k=\"kept\" ObjTimestamp=\"0099,00,20,00,00,00,3,019,00\"\n");
  EXPECT_NE(ReadFile(Run("/dup")).find("k=gone\n"), std::string::npos);
}

TEST_F(Archive, BadArgumentsAndNoLockChangeNothing) {
  ASSERT_EQ(mkdir(box_.Path(".units.tab").c_str(), 0755), 0);  // the lock file cannot be opened
  AliasList one{const_cast<char *>("stale"), nullptr};
  AliasList *some = &one, *none = nullptr;
  EXPECT_EQ(QDArchive(QD_ARCH_ALL, &some), 254);
  EXPECT_EQ(QDArchive(QD_ARCH_LIST, nullptr), 254);
  EXPECT_EQ(QDArchive(QD_ARCH_LIST, &none), 254);
  TraceCapture trace(box_, 3);
  EXPECT_EQ(QDArchive(QD_ARCH_ALL, nullptr), 255);
  EXPECT_TRUE(trace.Has("Cannot lock Object Table for reads"));
  EXPECT_EQ(box_.ReadTable(), kTable);
  unsetenv("QD_TIMESTAMP");
  ASSERT_EQ(rmdir(box_.Path(".units.tab").c_str()), 0);
  EXPECT_EQ(QDArchive(QD_ARCH_ALL, nullptr), 255) << "timestamping off";
  for (const char *alias : {"fresh", "stale", "old", "nostamp"}) EXPECT_TRUE(InTable(alias)) << alias;
  EXPECT_TRUE(Archived().empty());
}

TEST_F(Archive, ACacheAlreadyOnStaysTheCallersToFlush) {
  ASSERT_EQ(QDcache_load(), 0);
  EXPECT_EQ(QDArchive(QD_ARCH_ALL, nullptr), 245);
  EXPECT_EQ(qdcache_on, 1);
  EXPECT_EQ(QDcache_find_alias("stale"), nullptr);
  EXPECT_EQ(box_.ReadTable(), kTable);
  ASSERT_EQ(QDcache_flush(), 0);
  EXPECT_FALSE(InTable("stale"));
}

// Whatever stands where a copy would go, nothing outside the run directory
// is written, the object stays in the table, and a trace says why.
TEST_F(Archive, NoCopyIsWrittenThroughWhatOthersPlanted) {
  std::string victim = box_.Path("victim");
  struct Case {
    const char *what;
    std::function<void()> plant;
    std::string trace;
  } cases[] = {
      {"a symbolic link under the alias", [&] { EXPECT_EQ(symlink(victim.c_str(), Run("/stale").c_str()), 0); },
       "symbolic link stands there"},
      {"a hard link under the alias", [&] { EXPECT_EQ(link(victim.c_str(), Run("/stale").c_str()), 0); },
       "not a regular file of its own"},
      {"a symbolic link as the run directory",
       [&] {
         EXPECT_EQ(rmdir(Run().c_str()), 0);
         EXPECT_EQ(symlink(box_.dir().c_str(), Run().c_str()), 0);
       },
       "Cannot open run directory"},
      {"a file where the archive should be",
       [&] {
         std::filesystem::remove_all(box_.Path("archive"));
         WriteFile(box_.Path("archive"), "");
       },
       "Cannot make archive directory '" + Run() + "': Not a directory"},
  };
  for (const Case &c : cases) {
    std::filesystem::remove_all(box_.Path("archive"));
    std::filesystem::create_directories(Run());
    WriteFile(victim, "precious\n");
    WriteFile(box_.Path("stale"), "precious\n");
    box_.WriteTable(kTable);
    c.plant();
    TraceCapture trace(box_, 3);
    AliasList one{const_cast<char *>("stale"), nullptr};
    AliasList *list = &one;
    EXPECT_EQ(QDArchive(QD_ARCH_LIST, &list), 255) << c.what;
    EXPECT_TRUE(trace.Has(c.trace)) << c.what << "\n" << trace.Text();
    EXPECT_EQ(ReadFile(victim), "precious\n") << c.what;
    EXPECT_EQ(ReadFile(box_.Path("stale")), "precious\n") << c.what;
    EXPECT_TRUE(InTable("stale")) << c.what;
  }
}

TEST_F(Archive, AnAliasThatIsNoFileNameGetsNoCopy) {
  box_.WriteTable("..:::: ObjTimestamp=\"0099,00,18,00,00,00,1,017,00\"\n");
  TraceCapture trace(box_, 3);
  EXPECT_EQ(QDArchive(QD_ARCH_ALL, nullptr), 255);
  EXPECT_TRUE(trace.Has("Alias '..' is not a file name"));
  EXPECT_EQ(box_.ReadTable().rfind("..:", 0), 0u);
}

}  // namespace
