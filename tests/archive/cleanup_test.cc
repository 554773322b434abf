// Clean-up of the archive: expired run directories go, nothing else does.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "cache_fixture.h"
#include "trace_capture.h"

namespace {

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
  setenv("QD_TIMESTAMP", "0099,00,20,00,00,00,3,019,00", 1);  // expiration: 13 January 1999 00:00:00
  QDsettime(QD_TS_ENV, nullptr);
  for (const char *f : {"1999:01:12:23:59:59/a", "1999:01:13:00:00:00/c", "notes/n", "1999:01:12:23:59:59x/x",
                        "1999:1:12:23:59:59/y", "1998:12:02:00:00:00/link", "1998:12:03:00:00:00/sub/s",
                        "1998:12:03:00:00:00/f", "1998:12:04:00:00:00", "../outside/keep"})
    File(f);
  fs::remove(A("1998:12:02:00:00:00/link"));
  ASSERT_EQ(symlink(A("../outside/keep").c_str(), A("1998:12:02:00:00:00/link").c_str()), 0);
  ASSERT_EQ(symlink(A("../outside").c_str(), A("1998:12:01:00:00:00").c_str()), 0);
  TraceCapture trace(box_, 7);
  QD_cleanup_archive_dir();
  for (const char *gone : {"1999:01:12:23:59:59", "1998:12:02:00:00:00", "1998:12:03:00:00:00/f"})
    EXPECT_FALSE(Stays(gone)) << gone;
  for (const char *kept : {"1999:01:13:00:00:00/c", "notes/n", "1999:01:12:23:59:59x/x", "1999:1:12:23:59:59/y",
                           "1998:12:01:00:00:00", "1998:12:03:00:00:00/sub/s", "1998:12:04:00:00:00", "../outside/keep"})
    EXPECT_TRUE(Stays(kept)) << kept;
  EXPECT_TRUE(trace.Has("Corrupt archive directory name 'notes'"));
  EXPECT_TRUE(trace.Has("Directory '1998:12:03:00:00:00' not removed, errno = "));
}

TEST_F(Cleanup, NothingGoesWithoutAStampNorThroughALink) {
  File("1990:01:01:00:00:00/a");
  QD_cleanup_archive_dir();
  EXPECT_TRUE(Stays("1990:01:01:00:00:00/a"));
  ASSERT_EQ(symlink(A("1990:01:01:00:00:00").c_str(), box_.Path("via").c_str()), 0);
  EXPECT_EQ(QD_rmfiles(box_.Path("via").c_str()), -1);
  EXPECT_TRUE(Stays("1990:01:01:00:00:00/a"));
  EXPECT_EQ(QD_rmfiles(A("1990:01:01:00:00:00").c_str()), 0);
  EXPECT_FALSE(Stays("1990:01:01:00:00:00/a"));
}

}  // namespace
