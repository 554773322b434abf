// Object status and the expiration date, archive runs (what leaves the table, what
// is copied, what is never written through) and the clean-up of expired runs.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <string>
#include <tuple>

#include "cache_fixture.h"
#include "list_util.h"
#include "trace_capture.h"

namespace {

class Status : public CacheTest {
 protected:
  // The process's stamp, as a run takes it from QD_TIMESTAMP.
  static void Stamp(const char *value) {
    setenv("QD_TIMESTAMP", value, 1);
    QDsettime(QD_TS_ZERO, nullptr);
    ASSERT_EQ(QDsettime(QD_TS_ENV, nullptr), 0);
  }
};

// Date, weekday and time of day: the fields the expiration walk moves.
std::string Shown(const struct tm &t) {
  char s[64];
  snprintf(s, sizeof s, "%04d-%02d-%02d wday %d %02d:%02d:%02d", t.tm_year + 1900, t.tm_mon + 1,
           t.tm_mday, t.tm_wday, t.tm_hour, t.tm_min, t.tm_sec);
  return s;
}

TEST_F(Status, ExpirationDates) {
  struct Case { const char *now, *days, *expiration; } cases[] = {  // days: QD_EXPIRATION, nullptr for unset
      {"0099,00,05,12,00,00,2,004,00", nullptr, "1998-12-29 wday 2 12:00:00"},
      {"0100,02,03,08,30,00,5,062,00", "7", "2000-02-24 wday 5 08:30:00"},  // February of 28 days
      {"0101,02,07,00,00,00,3,065,00", "7", "2001-02-28 wday 3 00:00:00"},
      {"0101,02,10,00,00,00,6,068,00", "40", "2001-01-29 wday 1 00:00:00"},
      {"0099,02,01,00,00,00,1,059,00", "365", "1998-03-01 wday 0 00:00:00"},
      {"0099,00,05,00,00,00,2,004,00", "400", "1997-12-01 wday 1 00:00:00"},
      {"0099,00,05,12,00,00,2,004,00", "0", "1999-01-05 wday 2 12:00:00"},
      {"0099,00,05,12,00,00,2,004,00", "none", "1999-01-05 wday 2 12:00:00"},
  };
  for (const Case &c : cases) {
    if (c.days != nullptr) setenv("QD_EXPIRATION", c.days, 1);
    else unsetenv("QD_EXPIRATION");
    Stamp(c.now);
    EXPECT_EQ(QDset_expiration_date(), 0) << c.now;
    EXPECT_EQ(Shown(QDexpirationdate), c.expiration) << c.now << " less " << (c.days ? c.days : "7");
  }
  // A count too large for any table ends (at some year long past).
  setenv("QD_EXPIRATION", "99999999999999999999999", 1);
  EXPECT_EQ(QDset_expiration_date(), 0);
  EXPECT_LT(QDexpirationdate.tm_year, -20000);
  // Without a calendar stamp there is no date, and the last one stays.
  struct tm last = QDexpirationdate;
  Stamp("0099,13,05,12,00,00,2,004,00");  // month 14: no row in the month table
  EXPECT_EQ(QDset_expiration_date(), 255);
  QDsettime(QD_TS_ZERO, nullptr);
  EXPECT_EQ(QDset_expiration_date(), 255);
  EXPECT_EQ(QDcomparestamps(QDexpirationdate, last), 0);
}

TEST_F(Status, ObjectsAgainstTheCurrentStamp) {
  // now nullptr: timestamping off; stamp nullptr: none
  const std::tuple<const char *, const char *, int> cases[] = {
      {"0099,00,05,12,00,00,2,004,00", "0099,00,05,12,00,00,2,004,00", OBJ_ACTIVE},
      {"0099,00,05,12,00,00,2,004,00", "0099,00,05,11,59,59,2,004,00", OBJ_STALE},
      {"0099,00,05,12,00,00,2,004,00", "0099,00,05,12,00,01,2,004,00", OBJ_ACTIVE},
      {"0099,00,05,12,00,00,2,004,00", "yesterday", OBJ_STALE},
      {"0099,00,05,12,00,00,2,004,00", nullptr, OBJ_ACTIVE},
      {nullptr, "0090,00,05,12,00,00,5,004,00", OBJ_ACTIVE},
  };
  for (const auto &[now, stamp, status] : cases) {
    if (now != nullptr) Stamp(now);
    else QDsettime(QD_TS_ZERO, nullptr);
    KeywordList *attrs = stamp ? List({{"k", "v"}, {"ObjTimestamp", stamp}}) : List({{"k", "v"}});
    ObjectRecord *o = Create_object(strdup("disk0"), attrs, nullptr);
    EXPECT_EQ(QDobjectstatus(o), status) << (now ? now : "off") << " against " << (stamp ? stamp : "none");
    QDfreeobj(o);
  }
}

TEST_F(Status, WhileCachedTheCacheDecides) {
  box_.WriteTable("seen:::: ObjTimestamp=\"0099,00,01,00,00,00,5,000,00\"\n"
                  "unseen:::: ObjTimestamp=\"0099,00,01,00,00,00,5,000,00\"\n"
                  "plain:::: k=\"1\"\n");
  setenv("QD_TIMESTAMP", "0099,00,05,12,00,00,2,004,00", 1);
  ASSERT_EQ(QDcache_load(), 0);
  QDcache_touch_obj(QDcache_find_alias("seen"));
  EXPECT_EQ(QDaliasstatus("seen"), OBJ_ACTIVE);
  EXPECT_EQ(QDaliasstatus("unseen"), OBJ_STALE);
  EXPECT_EQ(QDaliasstatus("plain"), OBJ_ACTIVE);
}

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
    AliasList *list = pvtest::Chain(std::vector<std::string>(aliases.begin(), aliases.end()));
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

namespace fs = std::filesystem;

class Cleanup : public CacheTest {
 protected:
  std::string A(const std::string &name) const { return box_.Path("archive/" + name); }
  void File(const std::string &name) const {
    fs::create_directories(fs::path(A(name)).parent_path());
    testing_support::WriteFile(A(name), "x\n");
  }
  bool Stays(const std::string &name) const { return fs::symlink_status(A(name)).type() != fs::file_type::not_found; }
};

TEST_F(Cleanup, OnlyExpiredRunDirectoriesGo) {
  for (const char *f : {"1999:01:12:23:59:59/a", "1999:01:13:00:00:00/c", "notes/n", "1999:01:12:23:59:59x/x",
                        "1999:1:12:23:59:59/y", "1998:12:02:00:00:00/link", "1998:12:03:00:00:00/sub/s",
                        "1998:12:03:00:00:00/f", "1998:12:04:00:00:00", "../outside/keep"})
    File(f);
  fs::remove(A("1998:12:02:00:00:00/link"));
  ASSERT_EQ(symlink(A("../outside/keep").c_str(), A("1998:12:02:00:00:00/link").c_str()), 0);
  ASSERT_EQ(symlink(A("../outside").c_str(), A("1998:12:01:00:00:00").c_str()), 0);
  QD_cleanup_archive_dir();
  EXPECT_TRUE(Stays("1998:12:03:00:00:00/f")) << "without a stamp nothing goes";
  setenv("QD_TIMESTAMP", "0099,00,20,00,00,00,3,019,00", 1);  // expiration: 13 January 1999 00:00:00
  QDsettime(QD_TS_ENV, nullptr);
  TraceCapture trace(box_, 7);
  QD_cleanup_archive_dir();
  for (const char *gone : {"1999:01:12:23:59:59", "1998:12:02:00:00:00", "1998:12:03:00:00:00/f"})
    EXPECT_FALSE(Stays(gone)) << gone;
  for (const char *kept : {"1999:01:13:00:00:00/c", "notes/n", "1999:01:12:23:59:59x/x", "1999:1:12:23:59:59/y",
                           "1998:12:01:00:00:00", "1998:12:03:00:00:00/sub/s", "1998:12:04:00:00:00", "../outside/keep"})
    EXPECT_TRUE(Stays(kept)) << kept;
  EXPECT_TRUE(trace.Has("Corrupt archive directory name 'notes'"));
  EXPECT_TRUE(trace.Has("Directory '1998:12:03:00:00:00' not removed, errno = "));
  // Removing files goes through no link given in place of the directory.
  ASSERT_EQ(symlink(A("1999:01:13:00:00:00").c_str(), box_.Path("via").c_str()), 0);
  EXPECT_EQ(QD_rmfiles(box_.Path("via").c_str()), -1);
  EXPECT_TRUE(Stays("1999:01:13:00:00:00/c"));
  EXPECT_EQ(QD_rmfiles(A("1999:01:13:00:00:00").c_str()), 0);
  EXPECT_FALSE(Stays("1999:01:13:00:00:00/c"));
}

}  // namespace
