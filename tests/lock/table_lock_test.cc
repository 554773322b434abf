// The table lock across real processes: sharing, exclusion, waiting,
// the lock file's records and its removal, and the inode check.
#include <gtest/gtest.h>
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

class TableLock : public testing::Test {
 protected:
  void SetUp() override {
    setenv("VCEL_TRACE_FILE", box_.Path("trace.log").c_str(), 1);
    setenv("QD_LOCK_RETRY_SECONDS", "0", 1);
    vcel_verbose_level = 8;
    argv_[0] = const_cast<char *>("fmtunit");
    vcel_argv = argv_;
  }
  std::string LockFile() const { return box_.Path(".units.tab"); }
  bool LockFileExists() const { return access(LockFile().c_str(), F_OK) == 0; }
  std::string Trace() const { return ReadFile(box_.Path("trace.log")); }
  bool Traced(const std::string &s) const { return Trace().find(s) != std::string::npos; }
  std::string Record(const char *what, const char *kind, pid_t pid = getpid()) const {
    return "QDlock:fmtunit:" + std::to_string(pid) + ":" + what + ":" + kind + "\n";
  }

  Sandbox box_;
  char *argv_[2] = {nullptr, nullptr};
};

TEST_F(TableLock, FirstReadLockWritesItsRecordAndTheLastReleaseRemovesTheFile) {
  ASSERT_EQ(QDlock(QDREAD), 0);
  EXPECT_EQ(ReadFile(LockFile()), Record("LOCK", "read"));
  ASSERT_EQ(QDlock(QDREAD), 0);  // nested: counted, no second record
  EXPECT_EQ(qdlock::table.counter, 2);
  EXPECT_EQ(QDunlock(QDREAD), 0);
  EXPECT_TRUE(Traced("leaving read lock on until counter=0"));
  EXPECT_TRUE(LockFileExists());
  EXPECT_EQ(QDunlock(QDREAD), 0);
  EXPECT_FALSE(LockFileExists());
  EXPECT_EQ(qdlock::table.counter, 0);
  EXPECT_EQ(qdlock::table.fd, -1);
  EXPECT_EQ(QDunlock(QDREAD), -1);
  EXPECT_TRUE(Traced("lock has not been obtained yet"));
}

TEST_F(TableLock, UpgradeThenReleaseWriteFirst) {
  ASSERT_EQ(QDlock(QDREAD), 0);
  ASSERT_EQ(QDlock(QDWRITE), 0);
  EXPECT_EQ(ReadFile(LockFile()), Record("LOCK", "write"));
  EXPECT_EQ(QDunlock(QDWRITE), 0);
  EXPECT_EQ(ReadFile(LockFile()), Record("LOCK", "write") + Record("UNLOCK", "write"));
  EXPECT_TRUE(Traced("leaving lock on until counter=0"));
  EXPECT_NE(qdlock::table.fd, -1);
  EXPECT_EQ(QDunlock(QDREAD), 0);
  EXPECT_FALSE(LockFileExists());
  EXPECT_EQ(qdlock::table.counter, 0);
}

TEST_F(TableLock, ReadersShareAndTheLastOneKeepsTheFileForTheOther) {
  Holder other([] { return QDlock(QDREAD); }, [] { QDunlock(QDREAD); });
  ASSERT_TRUE(other.took());
  ASSERT_EQ(QDlock(QDREAD | QDLOCK_NOWAIT), 0);
  ASSERT_EQ(QDunlock(QDREAD), 0);
  EXPECT_TRUE(Traced("cannot get write lock for removal"));
  EXPECT_TRUE(LockFileExists());
  EXPECT_NE(ReadFile(LockFile()).find(Record("UNLOCK", "read")), std::string::npos);
  other.Release();
  other.Wait();
  EXPECT_FALSE(LockFileExists()) << "the last holder removes the file";
}

TEST_F(TableLock, AWriterExcludesReadersAndWriters) {
  Holder writer([] { return QDlock(QDWRITE); }, [] { QDunlock(QDWRITE); });
  ASSERT_TRUE(writer.took());
  EXPECT_EQ(QDlock(QDREAD | QDLOCK_NOWAIT), -1);
  EXPECT_TRUE(Traced("Lock failure/noretry: type=1"));
  EXPECT_EQ(QDlock(QDWRITE | QDLOCK_NOWAIT), -1);
  EXPECT_TRUE(Traced("Lock failure/noretry: type=2"));
  EXPECT_EQ(QDlock(QDREAD | QDLOCK_TEST), -1);
  EXPECT_TRUE(Traced("File has current read lock"));
  EXPECT_EQ(qdlock::table.counter, 0);
  writer.Release();
  writer.Wait();
  EXPECT_EQ(QDlock(QDWRITE | QDLOCK_NOWAIT), 0);
  EXPECT_EQ(QDunlock(QDWRITE), 0);
}

TEST_F(TableLock, TestModeTakesNothing) {
  EXPECT_EQ(QDlock(QDWRITE | QDLOCK_TEST), 0);
  EXPECT_TRUE(Traced("File has no current write lock"));
  EXPECT_EQ(qdlock::table.counter, 0);
  // Nothing is held, so another process can take the write lock at once.
  Holder writer([] { return QDlock(QDWRITE | QDLOCK_NOWAIT); }, [] { QDunlock(QDWRITE); });
  EXPECT_TRUE(writer.took());
}

TEST_F(TableLock, AWaiterGetsTheLockWhenTheHolderDies) {
  Holder writer([] { return QDlock(QDWRITE); }, [] { QDunlock(QDWRITE); });
  ASSERT_TRUE(writer.took());
  std::thread killer([&writer] {
    usleep(200 * 1000);
    writer.Kill();
  });
  EXPECT_EQ(QDlock(QDWRITE), 0);  // blocks until the kernel drops the dead holder's lock
  killer.join();
  EXPECT_EQ(ReadFile(LockFile()), Record("LOCK", "write"));
  EXPECT_EQ(QDunlock(QDWRITE), 0);
}

TEST_F(TableLock, AWaiterGetsTheLockWhenTheHolderReleases) {
  Holder reader([] { return QDlock(QDREAD); }, [] { QDunlock(QDREAD); });
  ASSERT_TRUE(reader.took());
  std::thread releaser([&reader] {
    usleep(200 * 1000);
    reader.Release();
  });
  EXPECT_EQ(QDlock(QDWRITE), 0);
  releaser.join();
  EXPECT_EQ(QDunlock(QDWRITE), 0);
}

TEST_F(TableLock, ALockFileReplacedWhileWaitingIsCaughtByItsInode) {
  std::string path = LockFile();
  Holder writer([] { return QDlock(QDWRITE); }, [] { QDunlock(QDWRITE); },
                [path] {
                  // Replace the file under the waiter, then die holding the old one.
                  unlink(path.c_str());
                  testing_support::WriteFile(path, "");
                  kill(getpid(), SIGKILL);
                });
  ASSERT_TRUE(writer.took());
  std::thread releaser([&writer] {
    usleep(200 * 1000);
    writer.Release();
  });
  ASSERT_EQ(QDlock(QDWRITE), 0);
  releaser.join();
  EXPECT_TRUE(Traced("New inode #:") || Traced("Cannot stat")) << Trace();
  struct stat by_path;
  ASSERT_EQ(stat(path.c_str(), &by_path), 0);
  EXPECT_EQ(by_path.st_ino, qdlock::table.fd_stat.st_ino) << "locked the new file";
  EXPECT_EQ(QDunlock(QDWRITE), 0);
}

TEST_F(TableLock, OverlongNamesAreCutOrRefusedNeverWrittenPast) {
  std::string name(300, 'p');
  argv_[0] = &name[0];
  ASSERT_EQ(QDlock(QDREAD), 0);
  std::string record = ReadFile(LockFile());
  EXPECT_LT(record.size(), sizeof qdlock::table.info);
  EXPECT_EQ(record.substr(record.size() - 11), ":LOCK:read\n");
  EXPECT_EQ(QDunlock(QDREAD), 0);

  std::string deep = box_.dir() + "/" + std::string(1100, 'd') + "/units.tab";
  setenv("TAV_DEVTAB", deep.c_str(), 1);
  EXPECT_EQ(QDlock(QDREAD), -1);
  EXPECT_TRUE(Traced("lock file path too long"));
}

}  // namespace
