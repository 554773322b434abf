// The file-pointer lock: the table lock plus a record lock on the table
// file, and the counts of both coming back to zero.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "holder.h"
#include "lock_state.h"
#include "qd.h"
#include "sandbox.h"

using testing_support::ReadFile;
using testing_support::Sandbox;

namespace {

class FileLock : public testing::Test {
 protected:
  void SetUp() override {
    setenv("VCEL_TRACE_FILE", box_.Path("trace.log").c_str(), 1);
    setenv("QD_LOCK_RETRY_SECONDS", "0", 1);
    vcel_verbose_level = 8;
  }
  bool Traced(const std::string &s) const {
    return ReadFile(box_.Path("trace.log")).find(s) != std::string::npos;
  }
  Sandbox box_;
};

TEST_F(FileLock, OneReadLockAndItsRelease) {
  ASSERT_EQ(QDlock_fp(QDREAD), 0);
  EXPECT_EQ(qdlock::table.counter, 1);
  ASSERT_NE(QDlock_fptr, nullptr);
  char line[64];
  ASSERT_NE(fgets(line, sizeof line, QDlock_fptr), nullptr);  // a stream on the table
  EXPECT_EQ(std::string(line).substr(0, 2), "# ");
  EXPECT_EQ(QDunlock_fp(QDREAD), 0);
  EXPECT_EQ(QDlock_fptr, nullptr);
  EXPECT_EQ(qdlock::table.counter, 0);
  EXPECT_EQ(qdlock::table.fd, -1);
  EXPECT_EQ(QDunlock_fp(QDREAD), -1);
  EXPECT_TRUE(Traced("file lock has not been obtained yet"));
}

TEST_F(FileLock, NestedAndConvertedLocksAllComeBackToZero) {
  ASSERT_EQ(QDlock_fp(QDREAD), 0);
  ASSERT_EQ(QDlock_fp(QDREAD), 0);
  ASSERT_EQ(QDlock_fp(QDWRITE), 0);  // converts the record lock
  EXPECT_EQ(qdlock::file.read_lock_count, 2);
  EXPECT_EQ(qdlock::file.write_lock_count, 1);
  EXPECT_EQ(qdlock::file.lock_counter, 3);
  EXPECT_EQ(qdlock::table.counter, 3);
  EXPECT_EQ(QDunlock_fp(QDREAD), 0);
  EXPECT_EQ(QDunlock_fp(QDWRITE), 0);
  EXPECT_NE(QDlock_fptr, nullptr);
  EXPECT_EQ(QDunlock_fp(QDREAD), 0);
  EXPECT_EQ(QDlock_fptr, nullptr);
  EXPECT_EQ(qdlock::file.lock_counter, 0);
  EXPECT_EQ(qdlock::table.counter, 0);
  EXPECT_EQ(qdlock::table.rlck_cnt, 0);
  EXPECT_EQ(qdlock::table.wlck_cnt, 0);
  EXPECT_EQ(qdlock::table.fd, -1);
  EXPECT_EQ(access(box_.Path(".units.tab").c_str(), F_OK), -1) << "lock file left behind";
}

TEST_F(FileLock, WaitsForAnotherProcessThenLocksTheFileAfresh) {
  // The other process holds only a record lock on the table file, as an
  // outside writer of the table would.
  std::string table = box_.table();
  Holder outsider(
      [table] {
        int fd = open(table.c_str(), O_RDWR);
        struct flock fl {};
        fl.l_type = F_WRLCK;
        fl.l_whence = SEEK_SET;
        return fcntl(fd, F_SETLK, &fl);
      },
      [] {});
  ASSERT_TRUE(outsider.took());
  std::thread releaser([&outsider] {
    usleep(200 * 1000);
    outsider.Release();
  });
  ASSERT_EQ(QDlock_fp(QDREAD), 0);
  releaser.join();
  EXPECT_TRUE(Traced("File busy, attempt waiting lock"));
  EXPECT_TRUE(Traced("File lock successful"));
  EXPECT_EQ(QDunlock_fp(QDREAD), 0);
}

TEST_F(FileLock, AFailedFileLockLeavesNoTableLock) {
  std::string dir = box_.Path("tabdir");
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  setenv("TAV_DEVTAB", dir.c_str(), 1);  // a directory cannot be opened as the table
  EXPECT_EQ(QDlock_fp(QDREAD), -1);
  EXPECT_TRUE(Traced("open failed, errno="));
  EXPECT_TRUE(Traced("Lock failed, type=1, errno=-1"));
  EXPECT_EQ(QDlock_fptr, nullptr);
  EXPECT_EQ(qdlock::table.counter, 0);
  EXPECT_EQ(qdlock::table.fd, -1);
}

TEST_F(FileLock, TableLockRefusedMeansNoFileLock) {
  Holder writer([] { return QDlock(QDWRITE); }, [] { QDunlock(QDWRITE); });
  ASSERT_TRUE(writer.took());
  EXPECT_EQ(QDlock_fp(QDREAD | QDLOCK_NOWAIT), -1);
  EXPECT_TRUE(Traced("Cannot lock:  QDlock() unavailable"));
  EXPECT_EQ(qdlock::file.lock_counter, 0);
}

}  // namespace
