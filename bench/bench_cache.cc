// The cache, on generated tables of 10,000 and 100,000 entries, in one run:
// - the direct load of the whole table against the table cursor alone
//   walking the same file (the parsing any load must do); target 2x;
// - the memory the loaded cache holds against the table file's size;
//   target 4x;
// - a single-alias lookup through the hash (median ns), which must not
//   degrade to a walk of the clustered chains.
#include <malloc.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "qd.h"
#include "table_gen.h"
#include "timing.h"

namespace {

using bench::Clock;
using bench::Median;
using bench::MedianMs;
using bench::Ms;

size_t Allocated() { return mallinfo2().uordblks + mallinfo2().hblkhd; }

// Frees the cache's contents without writing anything back.
void Unload() {
  while (qdcache_ocp->next != qdcache_ocp) QDcache_rmobj(qdcache_ocp->next);
  free(qdchash_tbl);
  qdchash_tbl = nullptr;
  qdcache_on = 0;
  qdcache_free = 1;
}

long MinorFaults() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_minflt;
}

// The load a program meets once: the first in a fresh process, whose heap
// must still be faulted in page by page. Run as a child of its own.
int FirstLoad(const char *table) {
  setenv("TAV_DEVTAB", table, 1);
  long faults = MinorFaults();
  auto t0 = Clock::now();
  if (QDcache_load() != 0) return 1;
  double ms = Ms(t0, Clock::now());
  printf("  %-44s %10.1f ms  (%ld page faults)\n", "QDcache_load, first in a fresh process", ms,
         MinorFaults() - faults);
  return 0;
}

void RunFirstLoad(const std::string &table) {
  fflush(stdout);
  pid_t pid = fork();
  if (pid == 0) {
    execl("/proc/self/exe", "bench_cache", "--first-load", table.c_str(), static_cast<char *>(nullptr));
    _exit(127);
  }
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    fprintf(stderr, "first load failed\n");
    exit(1);
  }
}

void Run(size_t entries, const std::string &dir) {
  std::string table = dir + "/units" + std::to_string(entries) + ".tab";
  std::vector<std::string> aliases;
  size_t file_bytes = tablegen::WriteTable(table, entries, 1, &aliases);
  setenv("TAV_DEVTAB", table.c_str(), 1);

  auto walk = [] {
    ResetDeviceTabFile();
    char *a, *n, *v;
    while (ReferenceNextAttribute(&a, &n, &v) != KWL_END) {
    }
  };
  walk();
  double walk_ms = MedianMs(5, walk);

  std::vector<double> loads;
  size_t held = 0;
  for (int i = 0; i < 5; ++i) {
    size_t before = Allocated();
    auto t0 = Clock::now();
    if (QDcache_load() != 0) {
      fprintf(stderr, "load failed\n");
      exit(1);
    }
    loads.push_back(Ms(t0, Clock::now()));
    held = Allocated() - before;
    if (i < 4) Unload();
  }
  std::sort(loads.begin(), loads.end());
  double load_ms = loads[loads.size() / 2];

  // Lookups of aliases spread over the table, in a shuffled order.
  std::vector<const char *> keys;
  for (size_t i = 0; i < aliases.size(); i += std::max<size_t>(1, aliases.size() / 5000))
    keys.push_back(aliases[i].c_str());
  std::vector<double> per;
  size_t found = 0;
  for (int r = 0; r < 9; ++r) {
    auto t0 = Clock::now();
    for (const char *k : keys) found += QDcache_find_alias(k) != nullptr;
    per.push_back(Ms(t0, Clock::now()) * 1e6 / static_cast<double>(keys.size()));
  }
  std::sort(per.begin(), per.end());

  printf("\n%zu entries, table file %.1f MB, max_hash_chain %u (128 buckets)\n", aliases.size(),
         file_bytes / 1e6, qdcache_info[10]);
  printf("  %-44s %10.1f ms  1.00x\n", "table cursor walk (baseline)", walk_ms);
  printf("  %-44s %10.1f ms  %.2fx  (target: within 2x)\n", "QDcache_load, direct", load_ms,
         load_ms / walk_ms);
  RunFirstLoad(table);
  printf("  %-44s %10.1f MB  %.2fx of the file  (target: at most 4x)\n", "memory held by the loaded cache",
         held / 1e6, static_cast<double>(held) / static_cast<double>(file_bytes));
  printf("  %-44s %10.0f ns  (%zu of %zu found)\n", "QDcache_find_alias, median per lookup", per[per.size() / 2],
         found / 9, keys.size());
  Unload();
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 3 && std::string(argv[1]) == "--first-load") return FirstLoad(argv[2]);
  char dir[] = "/tmp/qdcache.XXXXXX";
  if (mkdtemp(dir) == nullptr) return 1;
  setenv("TAV_LIBQDRC", (std::string(dir) + "/none").c_str(), 1);
  for (size_t n : {10000, 100000}) Run(n, dir);
  std::string cleanup = std::string("rm -rf ") + dir;
  return system(cleanup.c_str()) == 0 ? 0 : 1;
}
