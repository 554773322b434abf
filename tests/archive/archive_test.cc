// Archive runs: what leaves the table, what is copied, what is never written through.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <iterator>
#include <string>

#include "cache_fixture.h"
#include "trace_capture.h"

namespace {

using testing_support::ReadFile;
using testing_support::WriteFile;

const char kRun[] = "1999:01:20:00:00:00";
const char kTable[] =
    "fresh:::: k=\"1\" ObjTimestamp=\"0099,00,20,00,00,00,3,019,00\"\n"
    "stale:::: k=\"2\" ObjTimestamp=\"0099,00,18,00,00,00,1,017,00\"\n"
    "old:::: k=\"3\" ObjTimestamp=\"0099,00,01,00,00,00,5,000,00\"\n"
    "nostamp:::: k=\"4\"\n";

class Archive : public CacheTest {
 protected:
  void SetUp() override {
    setenv("QD_TIMESTAMP", "0099,00,20,00,00,00,3,019,00", 1);  // 20 January 1999
    box_.WriteTable(kTable);
  }
  std::string Run(const std::string &name = "") const { return box_.Path("archive/") + kRun + name; }
  std::string Aliases() const {  // the table's, in its order
    std::string out;
    for (size_t at = 0, end; (end = box_.ReadTable().find('\n', at)) != std::string::npos; at = end + 1)
      out += box_.ReadTable().substr(at, box_.ReadTable().find(':', at) - at) + " ";
    return out;
  }
  static int ArchiveList(std::initializer_list<const char *> aliases) {
    AliasList *list = nullptr;
    for (auto a = std::rbegin(aliases); a != std::rend(aliases); ++a) {
      AliasList node{const_cast<char *>(*a), nullptr};
      list = AddAliasToList(&node, list);
    }
    int rc = QDArchive(QD_ARCH_LIST, &list);
    QDFreeAliasList(list);
    return rc;
  }
};

TEST_F(Archive, StaleObjectsLeaveTheTableExpiredOnesUncopied) {
  AliasList *kept = nullptr;
  EXPECT_EQ(QDArchive(QD_ARCH_ALL, &kept), 245);
  EXPECT_STREQ(kept->alias, "fresh");
  EXPECT_STREQ(kept->next->alias, "nostamp");
  QDFreeAliasList(kept);
  EXPECT_EQ(Archived(), std::vector<std::string>{std::string(kRun) + "/stale"});
  EXPECT_EQ(ReadFile(Run("/stale")), "alias=stale\npathname=\nk=2\nObjTimestamp=0099,00,18,00,00,00,1,017,00\n");
  EXPECT_EQ(Aliases(), "nostamp fresh ");
  box_.WriteTable(kTable);  // listed: the last non-zero result (fresh 245, nosuch 254, stale 0)
  EXPECT_EQ(ArchiveList({"fresh", "nosuch", "stale"}), 254);
  EXPECT_EQ(Aliases(), "nostamp old fresh ");
}

// An alias cached twice: the stale entry goes by itself, never the other
// one. A stamp from the future is taken for corrupt; the entry stays.
TEST_F(Archive, DuplicateAliasesAndFutureStamps) {
  box_.WriteTable("dup:::: k=\"kept\" ObjTimestamp=\"0099,00,20,00,00,00,3,019,00\"\n"
                  "future:::: ObjTimestamp=\"0099,00,21,00,00,00,4,020,00\"\n"
                  "dup:::: k=\"gone\" ObjTimestamp=\"0099,00,18,00,00,00,1,017,00\"\n");
  EXPECT_EQ(QDArchive(QD_ARCH_ALL, nullptr), 255);
  EXPECT_EQ(box_.ReadTable(), "future::::ObjTimestamp=\"0099,00,21,00,00,00,4,020,00\"\n"
                              "dup::::k=\"kept\" ObjTimestamp=\"0099,00,20,00,00,00,3,019,00\"\n");
  EXPECT_NE(ReadFile(Run("/dup")).find("k=gone\n"), std::string::npos);
}

TEST_F(Archive, BadArgumentsNoLockOrNoStampChangeNothing) {
  ASSERT_EQ(mkdir(box_.Path(".units.tab").c_str(), 0755), 0);  // the lock file cannot be opened
  AliasList one{const_cast<char *>("stale"), nullptr}, *some = &one, *none = nullptr;
  EXPECT_EQ(QDArchive(QD_ARCH_ALL, &some), 254);
  EXPECT_EQ(QDArchive(QD_ARCH_LIST, nullptr), 254);
  TraceCapture trace(box_, 3);
  EXPECT_EQ(QDArchive(QD_ARCH_ALL, nullptr), 255);
  EXPECT_TRUE(trace.Has("Cannot lock Object Table for reads"));
  ASSERT_EQ(rmdir(box_.Path(".units.tab").c_str()), 0);
  EXPECT_EQ(QDArchive(3, &none), 254) << "other modes take a list, checked by the cache";
  unsetenv("QD_TIMESTAMP");
  QDsettime(QD_TS_ZERO, nullptr);
  EXPECT_EQ(QDArchive(QD_ARCH_ALL, nullptr), 255);
  EXPECT_EQ(Aliases(), "fresh stale old nostamp ") << "rewritten twice, in reverse each time";
  EXPECT_TRUE(Archived().empty());
}

TEST_F(Archive, ACacheAlreadyOnStaysTheCallersToFlush) {
  ASSERT_EQ(QDcache_load(), 0);
  EXPECT_EQ(QDArchive(QD_ARCH_ALL, nullptr), 245);
  EXPECT_EQ(qdcache_on, 1);
  EXPECT_EQ(box_.ReadTable(), kTable);
  ASSERT_EQ(QDcache_flush(), 0);
  EXPECT_EQ(Aliases(), "nostamp fresh ");
}

// Whatever stands where a copy would go, nothing outside the run directory
// is written, the object stays in the table, and a trace says why.
TEST_F(Archive, NoCopyIsWrittenThroughWhatOthersPlanted) {
  std::string victim = box_.Path("victim"), outside = box_.Path("stale");
  const std::string cases[][3] = {  // what stands where, pointing at what; the trace
      {"/stale", victim, "symbolic link stands there"},
      {"/stale", "hard link to " + victim, "not a regular file of its own"},
      {"", box_.dir(), "Cannot open run directory"},
      {"", "", "Cannot make archive directory '" + Run() + "': Not a directory"},
  };
  for (const auto &c : cases) {
    std::filesystem::remove_all(box_.Path("archive"));
    std::filesystem::create_directories(Run());
    for (const std::string &f : {victim, outside}) WriteFile(f, "precious\n");
    box_.WriteTable(kTable);
    std::filesystem::remove_all(c[1].empty() ? box_.Path("archive") : Run(c[0]));
    if (c[1].empty())
      WriteFile(box_.Path("archive"), "a file\n");
    else if (c[1].rfind("hard link to ", 0) == 0)
      ASSERT_EQ(link(victim.c_str(), Run(c[0]).c_str()), 0);
    else
      ASSERT_EQ(symlink(c[1].c_str(), Run(c[0]).c_str()), 0);
    TraceCapture trace(box_, 3);
    EXPECT_EQ(ArchiveList({"stale"}), 255) << c[2];
    EXPECT_TRUE(trace.Has(c[2])) << trace.Text();
    EXPECT_EQ(ReadFile(victim) + ReadFile(outside), "precious\nprecious\n") << c[2];
    EXPECT_EQ(Aliases(), "nostamp old stale fresh ") << c[2];
  }
  box_.WriteTable("..:::: ObjTimestamp=\"0099,00,18,00,00,00,1,017,00\"\n");
  TraceCapture trace(box_, 3);
  EXPECT_EQ(QDArchive(QD_ARCH_ALL, nullptr), 255);
  EXPECT_TRUE(trace.Has("Alias '..' is not a file name"));
}

}  // namespace
