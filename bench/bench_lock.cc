// The cost of one uncontended QDlock(QDREAD) + QDunlock(QDREAD) pair,
// against a bare fcntl lock and unlock of an already open file, measured in
// the same run. The lock file's create, truncate, record write and removal
// are part of every pair: the last releaser removes the file.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "qd.h"

namespace {

using Clock = std::chrono::steady_clock;

// Median over `rounds` batches of `per` operations, in ns per operation.
template <typename Fn>
double MedianNs(int rounds, int per, Fn fn) {
  std::vector<double> v;
  for (int r = 0; r < rounds; ++r) {
    auto t0 = Clock::now();
    for (int i = 0; i < per; ++i) fn();
    auto t1 = Clock::now();
    v.push_back(std::chrono::duration<double, std::nano>(t1 - t0).count() / per);
  }
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main() {
  char dir[] = "/tmp/qdbench.XXXXXX";
  if (mkdtemp(dir) == nullptr) return 1;
  std::string table = std::string(dir) + "/units.tab";
  FILE *f = fopen(table.c_str(), "w");
  fputs("disk0:::: class=\"disk\"\n", f);
  fclose(f);
  setenv("TAV_DEVTAB", table.c_str(), 1);
  vcel_verbose_level = 0;

  int fd = open(table.c_str(), O_RDWR);
  auto bare = [fd] {
    struct flock fl {};
    fl.l_type = F_RDLCK;
    fl.l_whence = SEEK_SET;
    fcntl(fd, F_SETLK, &fl);
    fl.l_type = F_UNLCK;
    fcntl(fd, F_SETLK, &fl);
  };
  auto pair = [] {
    if (QDlock(QDREAD) != 0) abort();
    QDunlock(QDREAD);
  };
  auto nested = [] {  // the common case inside a caller that already holds a lock
    QDlock(QDREAD);
    QDunlock(QDREAD);
  };
  for (int i = 0; i < 1000; ++i) pair();  // warm up

  double bare_ns = MedianNs(15, 2000, bare);
  double pair_ns = MedianNs(15, 2000, pair);
  QDlock(QDREAD);
  double nested_ns = MedianNs(15, 20000, nested);
  QDunlock(QDREAD);
  close(fd);

  printf("%-44s %12s %10s\n", "operation", "ns/op", "ratio");
  printf("%-44s %12.0f %10s\n", "bare fcntl lock+unlock (baseline)", bare_ns, "1.0x");
  printf("%-44s %12.0f %9.1fx\n", "QDlock(QDREAD)+QDunlock(QDREAD), first lock", pair_ns,
         pair_ns / bare_ns);
  printf("%-44s %12.0f %9.2fx\n", "  the same pair nested in a held lock", nested_ns,
         nested_ns / bare_ns);
  std::string cleanup = std::string("rm -rf ") + dir;
  return system(cleanup.c_str()) == 0 ? 0 : 1;
}
