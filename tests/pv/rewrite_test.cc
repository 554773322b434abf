// The in-place rewrite of the table: only the end from the first changed
// byte is journaled; a crash at any point leaves readers the old or the new
// content whole, and recovery (itself restartable) finishes or drops it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "devtab_file.h"
#include "sandbox.h"

namespace {

using testing_support::ReadFile;
using testing_support::WriteFile;

// Ends the child with the errno of the first failure (0 when none).
int InChild(const char *fault, int (*body)(const std::string &, const std::string &),
            const std::string &table, const std::string &content) {
  pid_t pid = fork();
  if (pid == 0) {
    if (fault != nullptr) setenv("QD_FAULT", fault, 1);
    _exit(body(table, content));
  }
  int st = 0;
  waitpid(pid, &st, 0);
  return WIFSIGNALED(st) ? -WTERMSIG(st) : WEXITSTATUS(st);
}

// As the library does it: in pieces, on a descriptor in append mode.
int RewriteTo(const std::string &table, const std::string &content) {
  int fd = open(table.c_str(), O_RDWR | O_APPEND);
  devtab::TableRewrite rewrite(table, fd);
  int err = rewrite.Begin();
  for (size_t at = 0; err == 0 && at < content.size(); at += 1000)
    err = rewrite.Append(content.data() + at, std::min<size_t>(1000, content.size() - at));
  return err != 0 ? err : rewrite.Commit();
}

int Recover(const std::string &table, const std::string &) {
  return devtab::RecoverRewrite(table, open(table.c_str(), O_RDWR | O_APPEND));
}

// What readers see.
std::string Seen(const std::string &table) {
  devtab::TableReader reader;
  if (int err = reader.OpenFile(table)) return "<" + std::string(strerror(err)) + ">";
  std::string out;
  char buf[4096];
  ssize_t n;
  while ((n = reader.Read(buf, sizeof buf)) > 0) out.append(buf, static_cast<size_t>(n));
  return n < 0 ? "<" + std::string(strerror(errno)) + ">" : out;
}

// Entries e<from> to e<to>; 10,000 of them make several comparison windows.
std::string Entries(int from, int to) {
  std::string out;
  char line[64];
  for (int i = from; i < to; ++i)
    out +=
        std::string(line, static_cast<size_t>(snprintf(line, sizeof line, "e%05d::::k=\"v%05d\"\n", i, i)));
  return out;
}

std::string Replace(std::string s, const std::string &from, const std::string &to) {
  return s.replace(s.find(from), from.size(), to);
}

class Rewrite : public testing::Test {
 protected:
  bool Leftovers() const {
    return access(devtab::JournalPath(box_.table()).c_str(), F_OK) == 0 ||
           access(devtab::CommitPath(box_.table()).c_str(), F_OK) == 0;
  }
  testing_support::Sandbox box_;
  const std::string old_ = Entries(0, 10000);
};

TEST_F(Rewrite, AKillAtAnyPointLeavesTheOldOrTheNewContentAndRecoveryFinishes) {
  struct Change {
    const char *name;
    std::string content;
    bool compares;  // past the first window of the old content
  } changes[] = {
      {"middle", Replace(old_, "v05000", "w05000"), true},
      {"shorter", Replace(old_, "k=\"v05000\"", "k=\"\""), true},
      {"longer", Replace(old_, "v05000", "v05000 and more"), true},
      {"cut", Entries(0, 7500), true},
      {"appended", old_ + Entries(10000, 10100), true},
      {"first byte", "f" + old_.substr(1), false},
  };
  struct Point {
    const char *name;
    bool committed;
  } points[] = {
      {"flush-comparing", false}, {"flush-diverged", false}, {"flush-journal-written", false},
      {"flush-committed", true},  {"flush-copy-half", true}, {"flush-suffix-copied", true},
      {"flush-copied", true},
  };
  for (const Change &c : changes) {
    size_t same = static_cast<size_t>(
        std::mismatch(old_.begin(), old_.begin() + std::min(old_.size(), c.content.size()), c.content.begin())
            .first -
        old_.begin());
    for (const Point &p : points) {
      if (!c.compares && strcmp(p.name, "flush-comparing") == 0) continue;
      std::string where = std::string(c.name) + " at " + p.name;
      WriteFile(box_.table(), old_);
      ASSERT_EQ(InChild(("kill@" + std::string(p.name)).c_str(), RewriteTo, box_.table(), c.content),
                -SIGKILL)
          << where;
      if (strcmp(p.name, "flush-journal-written") == 0) {
        // Only the end from the first difference is journaled.
        size_t journal = ReadFile(devtab::JournalPath(box_.table())).size();
        EXPECT_GE(journal, c.content.size() - same) << where;
        EXPECT_LE(journal, c.content.size() - same + 64) << where;
      }
      const std::string &want = p.committed ? c.content : old_;
      EXPECT_TRUE(Seen(box_.table()) == want) << where;
      if (p.committed) {
        // Recovery killed half-way is done again from the start.
        EXPECT_EQ(InChild("kill@flush-copy-half", Recover, box_.table(), ""), -SIGKILL) << where;
        EXPECT_TRUE(Seen(box_.table()) == want) << where;
      }
      EXPECT_EQ(InChild(nullptr, Recover, box_.table(), ""), 0) << where;
      EXPECT_TRUE(ReadFile(box_.table()) == want) << where;
      EXPECT_FALSE(Leftovers()) << where;
    }
  }
}

TEST_F(Rewrite, FailuresBeforeTheCommitAndUnchangedContentLeaveTheTableUntouched) {
  struct Case {
    const char *name;
    std::string content;
    const char *fault;
    int status;
  } cases[] = {
      // No journal is begun and nothing is synced.
      {"unchanged", old_, "eio@fsync,kill@flush-diverged", 0},
      {"full disk", Replace(old_, "v05000", "w05000"), "enospc@2", ENOSPC},
      {"failed sync", Replace(old_, "v05000", "w05000"), "eio@fsync", EIO},
  };
  for (const Case &c : cases) {
    WriteFile(box_.table(), old_);
    struct stat before, after;
    ASSERT_EQ(stat(box_.table().c_str(), &before), 0);
    EXPECT_EQ(InChild(c.fault, RewriteTo, box_.table(), c.content), c.status) << c.name;
    ASSERT_EQ(stat(box_.table().c_str(), &after), 0);
    EXPECT_TRUE(ReadFile(box_.table()) == old_) << c.name;
    EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec) << c.name;
    EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec) << c.name;
    EXPECT_FALSE(Leftovers()) << c.name;
  }
}

TEST_F(Rewrite, ACommitForAReplacedTableIsVoidAndATornOneIsRefused) {
  const std::string changed = Replace(old_, "v05000", "w05000");
  // The table replaced by a rename after the commit: the commit is dropped.
  WriteFile(box_.table(), old_);
  ASSERT_EQ(InChild("kill@flush-committed", RewriteTo, box_.table(), changed), -SIGKILL);
  const std::string other = Entries(20000, 21000);
  WriteFile(box_.Path("other"), other);
  ASSERT_EQ(rename(box_.Path("other").c_str(), box_.table().c_str()), 0);
  EXPECT_TRUE(Seen(box_.table()) == other);
  EXPECT_EQ(InChild(nullptr, Recover, box_.table(), ""), 0);
  EXPECT_TRUE(ReadFile(box_.table()) == other);
  EXPECT_FALSE(Leftovers());

  // A commit shorter than its header says is neither read nor copied.
  WriteFile(box_.table(), old_);
  ASSERT_EQ(InChild("kill@flush-committed", RewriteTo, box_.table(), changed), -SIGKILL);
  std::string commit = devtab::CommitPath(box_.table());
  ASSERT_EQ(truncate(commit.c_str(), static_cast<off_t>(ReadFile(commit).size() - 1)), 0);
  EXPECT_EQ(Seen(box_.table()), "<" + std::string(strerror(EIO)) + ">");
  EXPECT_EQ(InChild(nullptr, Recover, box_.table(), ""), EIO);
  EXPECT_TRUE(ReadFile(box_.table()) == old_);
}

}  // namespace
