// The table lock and the file-pointer lock across real processes: sharing,
// exclusion, waiting, nesting, the lock file's records and removal, and the
// checks that the locked file is still the one the path names.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "holder.h"
#include "lock_state.h"
#include "qd.h"
#include "trace_capture.h"

using testing_support::ReadFile;

namespace {

class Lock : public testing::Test {
 protected:
  void SetUp() override {
    setenv("QD_LOCK_RETRY_SECONDS", "0", 1);
    argv_[0] = const_cast<char *>("fmtunit");
    vcel_argv = argv_;
  }
  std::string LockFile() const { return box_.Path(".units.tab"); }
  bool LockFileExists() const { return access(LockFile().c_str(), F_OK) == 0; }
  bool Traced(const std::string &s) const { return trace_.Has(s); }
  std::string Record(const char *what, const char *kind, pid_t pid = getpid()) const {
    return "QDlock:fmtunit:" + std::to_string(pid) + ":" + what + ":" + kind + "\n";
  }
  // Acts from another thread, a moment later, while this one waits for a lock.
  static std::thread Later(std::function<void()> act) { return std::thread([act] { usleep(200 * 1000); act(); }); }

  testing_support::Sandbox box_;
  TraceCapture trace_{box_, 8};
  char *argv_[2] = {nullptr, nullptr};
};

TEST_F(Lock, NestedReadsThenAnUpgradeTheRecordsAndTheLastReleaseRemovingTheFile) {
  ASSERT_EQ(QDlock(QDREAD), 0);
  EXPECT_EQ(ReadFile(LockFile()), Record("LOCK", "read"));
  ASSERT_EQ(QDlock(QDREAD), 0);  // nested: counted, no second record
  EXPECT_EQ(qdlock::table.counter, 2);
  EXPECT_EQ(QDunlock(QDREAD), 0);
  ASSERT_EQ(QDlock(QDWRITE), 0);  // an upgrade of the lock
  EXPECT_EQ(ReadFile(LockFile()), Record("LOCK", "write"));
  EXPECT_EQ(QDunlock(QDWRITE), 0);
  EXPECT_EQ(ReadFile(LockFile()), Record("LOCK", "write") + Record("UNLOCK", "write"));
  EXPECT_EQ(QDunlock(QDREAD), 0);
  EXPECT_FALSE(LockFileExists());
  EXPECT_EQ(qdlock::table.counter + qdlock::table.rlck_cnt + qdlock::table.wlck_cnt, 0);
  EXPECT_EQ(qdlock::table.fd, -1);
  EXPECT_EQ(QDunlock(QDREAD), -1);
  EXPECT_TRUE(Traced("lock has not been obtained yet"));
}

TEST_F(Lock, ReadersShareAWriterExcludesTestsTakeNothing) {
  EXPECT_EQ(QDlock(QDWRITE | QDLOCK_TEST), 0);
  EXPECT_EQ(qdlock::table.counter, 0);
  {
    Holder reader([] { return QDlock(QDREAD | QDLOCK_NOWAIT); }, [] { QDunlock(QDREAD); });
    ASSERT_TRUE(reader.took()) << "a test holds nothing";
    ASSERT_EQ(QDlock(QDREAD | QDLOCK_NOWAIT), 0);
    ASSERT_EQ(QDunlock(QDREAD), 0);
    EXPECT_NE(ReadFile(LockFile()).find(Record("UNLOCK", "read")), std::string::npos);
    reader.Release();
    reader.Wait();
    EXPECT_FALSE(LockFileExists()) << "the last holder removes the file";
  }
  Holder writer([] { return QDlock(QDWRITE); }, [] { QDunlock(QDWRITE); });
  ASSERT_TRUE(writer.took());
  EXPECT_EQ(QDlock(QDREAD | QDLOCK_NOWAIT), -1);
  EXPECT_EQ(QDlock(QDWRITE | QDLOCK_NOWAIT), -1);
  EXPECT_EQ(QDlock(QDREAD | QDLOCK_TEST), -1);
  EXPECT_EQ(QDlock_fp(QDREAD | QDLOCK_NOWAIT), -1);
  EXPECT_TRUE(Traced("Cannot lock:  QDlock() unavailable"));
  EXPECT_EQ(qdlock::table.counter + qdlock::file.lock_counter, 0);
}

// A waiter gets the lock when the holder lets go or dies; one whose lock
// file was replaced meanwhile locks the new file.
TEST_F(Lock, AWaiterGetsTheLockOnTheFileThePathNames) {
  for (int how = 0; how < 3; ++how) {
    std::string path = LockFile();
    Holder holder([how] { return QDlock(how == 0 ? QDREAD : QDWRITE); },
                  [how] { QDunlock(how == 0 ? QDREAD : QDWRITE); },
                  [path, how] {
                    if (how != 2) return;
                    unlink(path.c_str());  // replaced under the waiter; dies holding the old one
                    testing_support::WriteFile(path, "");
                    kill(getpid(), SIGKILL);
                  });
    ASSERT_TRUE(holder.took());
    std::thread later = Later([&holder, how] { how == 1 ? holder.Kill() : holder.Release(); });
    ASSERT_EQ(QDlock(QDWRITE), 0) << how;
    later.join();
    EXPECT_EQ(ReadFile(path), Record("LOCK", "write"));
    struct stat by_path;
    ASSERT_EQ(stat(path.c_str(), &by_path), 0);
    EXPECT_EQ(by_path.st_ino, qdlock::table.fd_stat.st_ino) << "locked a file the path no longer names";
    EXPECT_EQ(QDunlock(QDWRITE), 0);
  }
  EXPECT_TRUE(Traced("New inode #:") || Traced("Cannot stat"));
}

TEST_F(Lock, FileLocksNestConvertAndComeBackToZero) {
  ASSERT_EQ(QDlock_fp(QDREAD), 0);
  char line[64];
  ASSERT_NE(fgets(line, sizeof line, QDlock_fptr), nullptr);  // a stream on the table
  EXPECT_EQ(std::string(line).substr(0, 2), "# ");
  ASSERT_EQ(QDlock_fp(QDREAD), 0);
  ASSERT_EQ(QDlock_fp(QDWRITE), 0);  // converts the record lock
  EXPECT_EQ(qdlock::file.read_lock_count + 10 * qdlock::file.write_lock_count, 12);
  EXPECT_EQ(qdlock::table.counter, 3);
  EXPECT_EQ(QDunlock_fp(QDREAD), 0);
  EXPECT_EQ(QDunlock_fp(QDWRITE), 0);
  EXPECT_NE(QDlock_fptr, nullptr);
  EXPECT_EQ(QDunlock_fp(QDREAD), 0);
  EXPECT_EQ(QDlock_fptr, nullptr);
  EXPECT_EQ(qdlock::file.lock_counter + qdlock::table.counter + qdlock::table.rlck_cnt + qdlock::table.wlck_cnt, 0);
  EXPECT_EQ(qdlock::table.fd, -1);
  EXPECT_FALSE(LockFileExists());
  EXPECT_EQ(QDunlock_fp(QDREAD), -1);
  EXPECT_TRUE(Traced("file lock has not been obtained yet"));
  std::string dir = box_.Path("tabdir");  // a directory cannot be opened as the table
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  setenv("TAV_DEVTAB", dir.c_str(), 1);
  EXPECT_EQ(QDlock_fp(QDREAD), -1);
  EXPECT_TRUE(Traced("open failed, errno=") && Traced("Lock failed, type=1, errno=-1"));
  EXPECT_EQ(qdlock::table.counter, 0) << "a failed file lock leaves no table lock";
}

TEST_F(Lock, AFileLockWaitsForAnOutsiderThenLocksTheFileAfresh) {
  std::string table = box_.table();
  Holder outsider(
      [table] {
        struct flock fl {};
        fl.l_type = F_WRLCK;
        return fcntl(open(table.c_str(), O_RDWR), F_SETLK, &fl);
      },
      [] {});
  ASSERT_TRUE(outsider.took());
  std::thread later = Later([&outsider] { outsider.Release(); });
  ASSERT_EQ(QDlock_fp(QDREAD), 0);
  later.join();
  EXPECT_TRUE(Traced("File busy, attempt waiting lock") && Traced("File lock successful"));
  EXPECT_EQ(QDunlock_fp(QDREAD), 0);
}

TEST_F(Lock, OverlongNamesAreCutOrRefusedNeverWrittenPast) {
  std::string name(300, 'p');
  argv_[0] = &name[0];
  ASSERT_EQ(QDlock(QDREAD), 0);
  std::string record = ReadFile(LockFile());
  EXPECT_LT(record.size(), sizeof qdlock::table.info);
  EXPECT_EQ(record.substr(record.size() - 11), ":LOCK:read\n");
  EXPECT_EQ(QDunlock(QDREAD), 0);
  setenv("TAV_DEVTAB", (box_.dir() + "/" + std::string(1100, 'd') + "/units.tab").c_str(), 1);
  EXPECT_EQ(QDlock(QDREAD), -1);
  EXPECT_TRUE(Traced("lock file path too long"));
}

}  // namespace
