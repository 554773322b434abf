// The table is never lost: a writer killed at any point of a direct flush,
// a full disk or a failed sync leaves a table whose every entry of the old
// or the new version can be read, the next writer finishes or rolls back an
// interrupted rewrite, and concurrent writers lose nothing.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "cache_fixture.h"

namespace {

using testing_support::Command;
using testing_support::ReadFile;
using testing_support::RunProgram;
using testing_support::WriteFile;

std::string Prop(const char *alias, const char *name) {
  auto r = RunProgram({Command("unitprop"), alias, name});
  return r.status == 0 ? r.out.substr(0, r.out.size() - 1) : "<" + std::to_string(r.status) + ">";
}

size_t Aliases() {
  auto r = RunProgram({Command("unitlist")});
  return static_cast<size_t>(std::count(r.out.begin(), r.out.end(), '\n'));
}

// Runs a put of disk1 state=offline with direct saving in a child process.
int PutInChild(const char *fault) {
  pid_t pid = fork();
  if (pid == 0) {
    if (fault != nullptr) setenv("QD_FAULT", fault, 1);
    KeywordList *l = CreateKeywordList();
    AddKeywordToList(l, "state", "offline");
    _exit(QDput("disk1", l) == 0 ? 0 : 1);
  }
  int st = 0;
  waitpid(pid, &st, 0);
  return WIFSIGNALED(st) ? -WTERMSIG(st) : WEXITSTATUS(st);
}

class Safety : public CacheTest {};

TEST_F(Safety, AFlushKilledAtAnyPointLeavesTheOldOrTheNewTable) {
  struct Case {
    const char *point;
    bool committed;
  } cases[] = {
      {"flush-diverged", false},      {"flush-journal-written", false}, {"flush-committed", true},
      {"flush-copy-half", true},      {"flush-suffix-copied", true},    {"flush-copied", true},
  };
  for (const Case &c : cases) {
    box_.WriteTable(ReadFile(testing_support::SampleTablePath()));
    EXPECT_EQ(PutInChild((std::string("kill@") + c.point).c_str()), -SIGKILL) << c.point;
    // Readers see a whole table at once, before anyone repairs anything.
    EXPECT_EQ(Aliases(), 32u) << c.point;
    EXPECT_EQ(Prop("disk1", "state"), c.committed ? "offline" : "online") << c.point;
    EXPECT_EQ(Prop("tty07", "speed"), "115200") << c.point;
    // The next writer finishes (or drops) the interrupted rewrite.
    ASSERT_EQ(QDlock_fp(QDWRITE), 0);
    ASSERT_EQ(QDunlock_fp(QDWRITE), 0);
    EXPECT_NE(access(box_.Path(".units.tab.commit").c_str(), F_OK), 0) << c.point;
    EXPECT_NE(access(box_.Path(".units.tab.flush").c_str(), F_OK), 0) << c.point;
    std::string table = box_.ReadTable();
    EXPECT_EQ(table.find("state=\"offline\"") != std::string::npos, c.committed) << c.point;
    EXPECT_EQ(Aliases(), 32u) << c.point;
  }
}

// A flush of a cache just loaded from the table writes the entries in
// reverse order: it rewrites the table from the first byte. Here the table
// is set to what the flush of the cache writes before one entry changes, so
// the flush rewrites it from that entry on.
class OwnOutput : public Safety {
 protected:
  void SetUp() override {
    Safety::SetUp();
    char line[80];
    for (int i = 0; i < 4000; ++i)
      loaded_ += std::string(line, static_cast<size_t>(snprintf(line, sizeof line,
                                                              "n%04d::::class=\"net\" state=\"old\"\n", i)));
    box_.WriteTable(loaded_);
    ASSERT_EQ(QDcache_load(), 0);
    ASSERT_EQ(QDcache_flush(), 0);
    output_ = box_.ReadTable();
  }
  // Loads the cache, sets the table to the flush's output and changes n2000
  // (unless `value` is null); the flush is then the caller's.
  void Prepare(const char *value) {
    box_.WriteTable(loaded_);
    ASSERT_EQ(QDcache_load(), 0);
    box_.WriteTable(output_);
    if (value != nullptr) {
      KeywordList *l = CreateKeywordList();
      AddKeywordToList(l, "state", value);
      ASSERT_EQ(QDput("n2000", l), 0);  // with the cache on: no flush yet
      DestroyKeywordList(l);
    }
  }
  // Flushes in a child process with `fault`; frees the cache here.
  int FlushInChild(const char *fault) {
    pid_t pid = fork();
    if (pid == 0) {
      setenv("QD_FAULT", fault, 1);
      _exit(QDcache_flush() == 0 ? 0 : 1);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    QDcache_free();
    return WIFSIGNALED(st) ? -WTERMSIG(st) : WEXITSTATUS(st);
  }
  std::string loaded_, output_;
};

TEST_F(OwnOutput, AFlushKilledAtAnyPointLeavesTheOldOrTheNewEntries) {
  Prepare("new");
  ASSERT_EQ(QDcache_flush(), 0);
  const std::string changed = box_.ReadTable();
  struct Case {
    const char *point;
    bool committed;
  } cases[] = {
      {"flush-comparing", false}, {"flush-diverged", false}, {"flush-journal-written", false},
      {"flush-committed", true},  {"flush-copy-half", true}, {"flush-suffix-copied", true},
      {"flush-copied", true},
  };
  for (const Case &c : cases) {
    Prepare("new");
    ASSERT_EQ(FlushInChild((std::string("kill@") + c.point).c_str()), -SIGKILL) << c.point;
    // The commands and the library's own reader see the same whole table.
    EXPECT_EQ(Aliases(), 4000u) << c.point;
    EXPECT_EQ(Prop("n2000", "state"), c.committed ? "new" : "old") << c.point;
    EXPECT_EQ(Prop("n0000", "state"), "old") << c.point;
    EXPECT_EQ(Prop("n3999", "state"), "old") << c.point;
    ASSERT_EQ(QDcache_load(), 0);
    EXPECT_EQ(Attr("n2000", "state"), c.committed ? "new" : "old") << c.point;
    EXPECT_EQ(Attr("n0000", "class"), "net") << c.point;
    QDcache_free();
    // The next writer finishes (or drops) it.
    ASSERT_EQ(QDlock_fp(QDWRITE), 0);
    ASSERT_EQ(QDunlock_fp(QDWRITE), 0);
    EXPECT_TRUE(box_.ReadTable() == (c.committed ? changed : output_)) << c.point;
    EXPECT_NE(access(box_.Path(".units.tab.commit").c_str(), F_OK), 0) << c.point;
    EXPECT_NE(access(box_.Path(".units.tab.flush").c_str(), F_OK), 0) << c.point;
  }
}

TEST_F(OwnOutput, AFlushWithNothingChangedWritesNothing) {
  Prepare(nullptr);
  struct stat before, after;
  ASSERT_EQ(stat(box_.table().c_str(), &before), 0);
  // Killed if it began a journal or synced anything.
  EXPECT_EQ(FlushInChild("kill@flush-diverged,eio@fsync"), 0);
  ASSERT_EQ(stat(box_.table().c_str(), &after), 0);
  EXPECT_TRUE(box_.ReadTable() == output_);
  EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
}

TEST_F(Safety, UnitmodFinishesAnInterruptedRewriteFirst) {
  EXPECT_EQ(PutInChild("kill@flush-copy-half"), -SIGKILL);
  auto r = RunProgram({Command("unitmod"), "-m", "tty07", "speed=57600"});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(Prop("disk1", "state"), "offline");
  EXPECT_EQ(Prop("tty07", "speed"), "57600");
  EXPECT_NE(access(box_.Path(".units.tab.commit").c_str(), F_OK), 0);
}

TEST_F(Safety, AFullDiskOrAFailedSyncLeavesTheTableUnchanged) {
  for (const char *fault : {"enospc@1", "eio@fsync"}) {
    std::string before = box_.ReadTable();
    EXPECT_EQ(PutInChild(fault), 1) << fault;
    EXPECT_EQ(box_.ReadTable(), before) << fault;
    EXPECT_NE(access(box_.Path(".units.tab.flush").c_str(), F_OK), 0) << fault;
  }
}

// A real small file system, where the test may make one.
TEST_F(Safety, AFullSmallFileSystemLeavesTheTableUnchanged) {
  std::string mnt = box_.Path("small");
  mkdir(mnt.c_str(), 0755);
  if (mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=64k") != 0)
    GTEST_SKIP() << "cannot mount a small tmpfs here (" << strerror(errno) << ")";
  std::string table = mnt + "/units.tab";
  WriteFile(table, ReadFile(testing_support::SampleTablePath()));
  setenv("TAV_DEVTAB", table.c_str(), 1);
  // Leave less room than the journal needs.
  std::string filler(64 * 1024 - ReadFile(table).size() - 6 * 1024, 'x');
  WriteFile(mnt + "/filler", filler);
  std::string before = ReadFile(table);
  KeywordList *l = CreateKeywordList();
  AddKeywordToList(l, "state", "offline");
  EXPECT_EQ(QDput("disk1", l), -1);
  DestroyKeywordList(l);
  EXPECT_EQ(ReadFile(table), before);
  EXPECT_EQ(Aliases(), 32u);
  umount2(mnt.c_str(), MNT_DETACH);
}

// Six processes each write 200 distinct attributes of one entry: three
// through the cache with direct saving, three through unitmod.
TEST_F(Safety, ConcurrentWritersLoseNothing) {
  constexpr int kWriters = 6, kEach = 200;
  WriteFile(box_.Path("direct.rc"), "directsave=1\n");
  WriteFile(box_.Path("unitmod.rc"), "directsave=0\n");
  std::vector<pid_t> kids;
  for (int w = 0; w < kWriters; ++w) {
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      setenv("TAV_LIBQDRC", box_.Path(w % 2 == 0 ? "direct.rc" : "unitmod.rc").c_str(), 1);
      for (int i = 0; i < kEach; ++i) {
        KeywordList *l = CreateKeywordList();
        std::string kw = "w" + std::to_string(w) + "_" + std::to_string(i);
        AddKeywordToList(l, kw.c_str(), std::to_string(i).c_str());
        if (QDput("net1", l) != 0) _exit(1);
        DestroyKeywordList(l);
      }
      _exit(0);
    }
    kids.push_back(pid);
  }
  for (pid_t pid : kids) {
    int st = 0;
    waitpid(pid, &st, 0);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
  }
  auto r = RunProgram({Command("unitprop"), "-v", "net1"});
  int found = 0;
  for (int w = 0; w < kWriters; ++w)
    for (int i = 0; i < kEach; ++i)
      found += r.out.find("w" + std::to_string(w) + "_" + std::to_string(i) + "='" + std::to_string(i) + "'\n") !=
               std::string::npos;
  EXPECT_EQ(found, kWriters * kEach);
  EXPECT_EQ(Aliases(), 32u);
}

}  // namespace
