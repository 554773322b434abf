// The one rewrite of the table: a new file renamed into place. A kill or a
// failure at any point leaves the old table or the new one, whole; the next
// writer removes what a killed one left; links, modes and owners survive.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <string>

#include "devtab_file.h"
#include "sandbox.h"

namespace {

using testing_support::ReadFile;
using testing_support::WriteFile;

// Replaces `table` with `content` in a child; its status, or -signal.
int ReplaceInChild(const std::string &table, const std::string &content, const char *fault) {
  pid_t pid = fork();
  if (pid == 0) {
    if (fault != nullptr) setenv("QD_FAULT", fault, 1);
    devtab::LockedTable locked;
    int err = locked.Open(table, false);
    _exit(err != 0 ? err : locked.Replace(content));
  }
  int st = 0;
  waitpid(pid, &st, 0);
  return WIFSIGNALED(st) ? -WTERMSIG(st) : WEXITSTATUS(st);
}

class Rewrite : public testing::Test {
 protected:
  testing_support::Sandbox box_;
  const std::string old_ = "a::::k=\"old\"\n", new_ = "a::::k=\"new\"\nb::::\n";
};

TEST_F(Rewrite, AKillOrAFailureAnywhereLeavesTheOldOrTheNewTable) {
  struct Case {
    const char *fault;
    int status;
    bool replaced;
  } cases[] = {
      {"kill@temp-written", -SIGKILL, false}, {"kill@before-rename", -SIGKILL, false},
      {"kill@after-rename", -SIGKILL, true},  {"enospc@1", ENOSPC, false},
      {"eio@fsync", EIO, false},
  };
  for (const Case &c : cases) {
    WriteFile(box_.table(), old_);
    struct stat before, after;
    ASSERT_EQ(stat(box_.table().c_str(), &before), 0);
    EXPECT_EQ(ReplaceInChild(box_.table(), new_, c.fault), c.status) << c.fault;
    ASSERT_EQ(stat(box_.table().c_str(), &after), 0);
    EXPECT_EQ(ReadFile(box_.table()), c.replaced ? new_ : old_) << c.fault;
    EXPECT_EQ(after.st_ino != before.st_ino, c.replaced) << c.fault;
    // A failure cleans up after itself; a killed writer's file goes with the next writer.
    EXPECT_EQ(box_.Count(".units.tab.new."), c.status == -SIGKILL && !c.replaced ? 1 : 0) << c.fault;
    EXPECT_EQ(ReplaceInChild(box_.table(), old_, nullptr), 0) << c.fault;
    EXPECT_EQ(box_.Count(".units.tab.new."), 0) << c.fault;
  }
}

TEST_F(Rewrite, ALinkedTableStaysALinkAndTheFileKeepsItsMode) {
  std::string real = box_.Path("real.tab");
  WriteFile(real, old_);
  ASSERT_EQ(chmod(real.c_str(), 0640), 0);
  std::string link = box_.Path("link.tab");
  ASSERT_EQ(symlink("real.tab", link.c_str()), 0);
  EXPECT_EQ(ReplaceInChild(link, new_, nullptr), 0);
  struct stat l, r;
  ASSERT_EQ(lstat(link.c_str(), &l), 0);
  ASSERT_EQ(stat(real.c_str(), &r), 0);
  EXPECT_TRUE(S_ISLNK(l.st_mode));
  EXPECT_EQ(r.st_mode & 07777, 0640u);
  EXPECT_EQ(ReadFile(real), new_);
}

TEST_F(Rewrite, AWriterThatLockedTheOldFileRelocksTheNewOne) {
  // The first writer holds the lock; the second waits on the same file,
  // which the first replaces: the second must write over the new one.
  WriteFile(box_.table(), old_);
  auto first = std::make_unique<devtab::LockedTable>();
  ASSERT_EQ(first->Open(box_.table(), false), 0);
  pid_t pid = fork();
  if (pid == 0) {
    devtab::LockedTable second;
    if (second.Open(box_.table(), false) != 0) _exit(1);
    devtab::Image image;
    if (image.LoadFd(second.fd()) != 0) _exit(2);
    _exit(second.Replace(std::string(image.view()) + "c::::\n"));
  }
  usleep(100 * 1000);
  ASSERT_EQ(first->Replace(new_), 0);
  first.reset();
  int st = 0;
  waitpid(pid, &st, 0);
  EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
  EXPECT_EQ(ReadFile(box_.table()), new_ + "c::::\n");
}

}  // namespace
