// Clean-up of the archive: expired run directories go, nothing else does.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "cache_fixture.h"
#include "trace_capture.h"

namespace {

namespace fs = std::filesystem;
using testing_support::WriteFile;

class Cleanup : public CacheTest {
 protected:
  std::string A(const std::string &name) const { return box_.Path("archive/" + name); }
  void Dir(const std::string &name, std::initializer_list<const char *> files = {}) const {
    fs::create_directories(A(name));
    for (const char *f : files) WriteFile(A(name + "/" + f), "x\n");
  }
};

TEST_F(Cleanup, OnlyExpiredRunDirectoriesGo) {
  setenv("QD_TIMESTAMP", "0099,00,20,00,00,00,3,019,00", 1);  // expiration: 13 January 1999 00:00:00
  QDsettime(QD_TS_ENV, nullptr);
  std::string outside = box_.Path("outside");
  fs::create_directories(outside);
  WriteFile(outside + "/keep", "x\n");
  Dir("1999:01:12:23:59:59", {"a", "b"});
  Dir("1999:01:13:00:00:00", {"c"});
  Dir("notes", {"n"});
  Dir("1999:01:12:23:59:59x");
  Dir("1999:1:12:23:59:59");
  ASSERT_EQ(symlink(outside.c_str(), A("1998:12:01:00:00:00").c_str()), 0);
  Dir("1998:12:02:00:00:00");
  ASSERT_EQ(symlink((outside + "/keep").c_str(), A("1998:12:02:00:00:00/link").c_str()), 0);
  Dir("1998:12:03:00:00:00/sub", {"s"});
  WriteFile(A("1998:12:03:00:00:00/f"), "x\n");
  WriteFile(A("1998:12:04:00:00:00"), "a file\n");

  TraceCapture trace(box_, 7);
  QD_cleanup_archive_dir();
  struct {
    const char *name;
    bool stays;
  } expect[] = {
      {"1999:01:12:23:59:59", false}, {"1999:01:13:00:00:00/c", true},  {"notes/n", true},
      {"1999:01:12:23:59:59x", true}, {"1999:1:12:23:59:59", true},     {"1998:12:01:00:00:00", true},
      {"1998:12:02:00:00:00", false}, {"1998:12:03:00:00:00/sub/s", true}, {"1998:12:03:00:00:00/f", false},
      {"1998:12:04:00:00:00", true},
  };
  for (const auto &e : expect) EXPECT_EQ(fs::symlink_status(A(e.name)).type() != fs::file_type::not_found, e.stays) << e.name;
  EXPECT_TRUE(fs::exists(outside + "/keep")) << "never through a link";
  EXPECT_TRUE(trace.Has("Corrupt archive directory name 'notes'"));
  EXPECT_TRUE(trace.Has("Directory '1999:01:13:00:00:00' not expired"));
  EXPECT_TRUE(trace.Has("Directory '1998:12:03:00:00:00' not removed, errno = "));
}

TEST_F(Cleanup, NothingGoesWithoutAStamp) {
  Dir("1990:01:01:00:00:00", {"a"});
  QD_cleanup_archive_dir();
  EXPECT_TRUE(fs::exists(A("1990:01:01:00:00:00/a")));
  // Removing files never follows a link given as the directory.
  ASSERT_EQ(symlink(A("1990:01:01:00:00:00").c_str(), box_.Path("via").c_str()), 0);
  EXPECT_EQ(QD_rmfiles(box_.Path("via").c_str()), -1);
  EXPECT_TRUE(fs::exists(A("1990:01:01:00:00:00/a")));
  EXPECT_EQ(QD_rmfiles(A("1990:01:01:00:00:00").c_str()), 0);
  EXPECT_FALSE(fs::exists(A("1990:01:01:00:00:00/a")));
}

}  // namespace
