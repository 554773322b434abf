// Six processes take the table lock hundreds of times, nested and upgraded.
// A write holder increments a shared counter non-atomically (read, pause,
// write) and logs its enter and leave: no increment may be lost and no two
// writers may overlap.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "qd.h"
#include "sandbox.h"

using testing_support::ReadFile;
using testing_support::Sandbox;

namespace {

constexpr int kProcesses = 6;
constexpr int kRounds = 200;

int ReadCounter(const std::string &path) {
  std::ifstream in(path);
  int n = 0;
  in >> n;
  return n;
}

void Log(const std::string &path, const std::string &line) {
  FILE *f = fopen(path.c_str(), "a");
  fprintf(f, "%s\n", line.c_str());
  fclose(f);
}

// One write section: the counter goes up by one, with a pause in between
// that lets a second writer in if the lock failed to keep it out.
void WriteSection(const std::string &counter, const std::string &log, int who) {
  Log(log, "enter " + std::to_string(who));
  int n = ReadCounter(counter);
  usleep(200);
  testing_support::WriteFile(counter, std::to_string(n + 1));
  Log(log, "leave " + std::to_string(who));
}

int Worker(const std::string &counter, const std::string &log, int who) {
  unsigned state = 12345u * static_cast<unsigned>(who + 1);
  int writes = 0;
  for (int i = 0; i < kRounds; ++i) {
    state = state * 1103515245u + 12345u;
    switch ((state >> 16) % 4) {
      case 0:  // plain read
        if (QDlock(QDREAD) != 0) return -1;
        QDunlock(QDREAD);
        break;
      case 1:  // plain write
        if (QDlock(QDWRITE) != 0) return -1;
        WriteSection(counter, log, who), ++writes;
        QDunlock(QDWRITE);
        break;
      case 2:  // nested write inside write
        if (QDlock(QDWRITE) != 0 || QDlock(QDWRITE) != 0) return -1;
        WriteSection(counter, log, who), ++writes;
        QDunlock(QDWRITE);
        QDunlock(QDWRITE);
        break;
      case 3:  // read upgraded to write; two processes upgrading at once may
               // be refused by the kernel (deadlock), which is a clean -1
        if (QDlock(QDREAD) != 0) return -1;
        if (QDlock(QDWRITE) == 0) {
          WriteSection(counter, log, who), ++writes;
          QDunlock(QDWRITE);
        }
        QDunlock(QDREAD);
        break;
    }
  }
  return writes;
}

TEST(LockStress, SixProcessesNeverOverlapAndLoseNothing) {
  Sandbox box;
  setenv("QD_LOCK_RETRY_SECONDS", "0", 1);
  std::string counter = box.Path("counter"), log = box.Path("sections.log");
  testing_support::WriteFile(counter, "0");
  std::vector<pid_t> kids;
  std::vector<int> pipes;
  for (int p = 0; p < kProcesses; ++p) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      close(fds[0]);
      int writes = Worker(counter, log, p);
      if (write(fds[1], &writes, sizeof writes) != sizeof writes) _exit(2);
      _exit(writes < 0 ? 1 : 0);
    }
    close(fds[1]);
    kids.push_back(pid);
    pipes.push_back(fds[0]);
  }
  int total = 0;
  for (int p = 0; p < kProcesses; ++p) {
    int writes = -1;
    ASSERT_EQ(read(pipes[p], &writes, sizeof writes), static_cast<ssize_t>(sizeof writes));
    close(pipes[p]);
    int st = 0;
    waitpid(kids[p], &st, 0);
    ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "worker " << p;
    total += writes;
  }
  EXPECT_GT(total, kProcesses * kRounds / 4);
  EXPECT_EQ(ReadCounter(counter), total);
  std::istringstream sections(ReadFile(log));
  std::string word, inside;
  int who, overlaps = 0;
  while (sections >> word >> who) {
    if (word == "enter") {
      if (!inside.empty()) ++overlaps;
      inside = std::to_string(who);
    } else {
      inside.clear();
    }
  }
  EXPECT_EQ(overlaps, 0);
  EXPECT_NE(access(box.Path(".units.tab").c_str(), F_OK), 0) << "lock file left behind";
}

}  // namespace
