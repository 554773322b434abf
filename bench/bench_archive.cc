// Archiving the stale objects of a cached table of 100,000 entries, one in
// ten of them stale, in one run:
// - QDcache_archive over the loaded cache (every entry judged, each stale
//   one written to its file and dropped): objects per second;
// - the same files, with the same bytes, written by open/write/close in a
//   loop (baseline); target: archiving within 1.5x of it.
// The run directory is one of the benchmark's own (set in QDarchivedir, as
// a run that has built it would): nothing is written to the host's archive.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "qd.h"
#include "table_gen.h"
#include "timing.h"

namespace {

using bench::Clock;
using bench::Median;
using bench::Ms;

constexpr size_t kEntries = 100000;
constexpr int kRounds = 7;
const char kNow[] = "0099,00,20,00,00,00,3,019,00";
const char kYesterday[] = "0099,00,19,00,00,00,2,018,00";

void Die(const char *what) {
  fprintf(stderr, "bench_archive: %s\n", what);
  exit(1);
}

size_t WriteStampedTable(const std::string &path) {
  FILE *out = fopen(path.c_str(), "w");
  if (out == nullptr) Die("cannot write the table");
  size_t n = 0;
  std::string line;
  tablegen::Generate(kEntries, 7, [&](const devtab::Entry &generated) {
    devtab::Entry e = generated;
    size_t at = e.Find("ObjTimestamp");
    devtab::Pair &p = at < e.npairs ? e.pairs[at] : e.AddPair();
    p.name = "ObjTimestamp";
    p.value = n++ % 10 == 0 ? kYesterday : kNow;
    line.clear();
    devtab::FormatEntry(e, &line);
    fwrite(line.data(), 1, line.size(), out);
  });
  fclose(out);
  return n;
}

// The archive file of every stale cached object, as the library writes it.
std::vector<std::pair<std::string, std::string>> StaleFiles() {
  std::vector<std::pair<std::string, std::string>> files;
  struct tm now = QDvalue2tm(kNow);
  for (oce *e = qdcache_ocp->next; e != qdcache_ocp; e = e->next) {
    if (QDcomparestamps(e->accesstime, now) >= 0) continue;
    char *text = nullptr;
    size_t size = 0;
    FILE *mem = open_memstream(&text, &size);
    fprintf(mem, "alias=%s\n", e->objptr->alias);
    KeywordListToStream(mem, e->objptr->attributes);
    KeywordListToStream(mem, e->objptr->methods);
    fclose(mem);
    files.emplace_back(e->objptr->alias, std::string(text, size));
    free(text);
  }
  return files;
}

double CpuMs() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

std::string FreshDir(const std::string &root, const char *kind, int round) {
  std::string dir = root + "/" + kind + std::to_string(round);
  if (mkdir(dir.c_str(), 0775) != 0) Die("cannot make a run directory");
  return dir;
}

}  // namespace

int main() {
  // In memory where there is a tmpfs: the file system's own work is least
  // there and varies least, so what the library adds to it shows most.
  std::string where = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  std::string made = where + "/qdarchive.XXXXXX";
  std::vector<char> root_buf(made.begin(), made.end());
  root_buf.push_back('\0');
  char *root = root_buf.data();
  if (mkdtemp(root) == nullptr) Die("no temporary directory");
  std::string table = std::string(root) + "/units.tab";
  WriteStampedTable(table);
  setenv("TAV_DEVTAB", table.c_str(), 1);
  setenv("TAV_LIBQDRC", (std::string(root) + "/none").c_str(), 1);
  setenv("QD_TIMESTAMP", kNow, 1);
  unsetenv("QD_EXPIRATION");

  // The file system's own load varies from second to second: each round
  // times both, back to back, in alternating order, and the ratio is the
  // median of the rounds' ratios.
  std::vector<double> archive_ms, baseline_ms, ratios, archive_cpu, baseline_cpu, cpu_ratios;
  size_t stale = 0;
  for (int round = 0; round < kRounds; ++round) {
    if (QDcache_load() != 0) Die("cannot load the cache");
    auto files = StaleFiles();
    stale = files.size();
    auto baseline = [&] {
      std::string base = FreshDir(root, "base", round);
      double c0 = CpuMs();
      auto t0 = Clock::now();
      for (const auto &f : files) {
        int fd = open((base + "/" + f.first).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (fd < 0 || write(fd, f.second.data(), f.second.size()) != static_cast<ssize_t>(f.second.size()))
          Die("baseline write failed");
        close(fd);
      }
      baseline_ms.push_back(Ms(t0, Clock::now()));
      baseline_cpu.push_back(CpuMs() - c0);
    };
    auto archive = [&] {
      std::string run = FreshDir(root, "run", round);
      snprintf(QDarchivedir, sizeof QDarchivedir, "%s", run.c_str());
      double c0 = CpuMs();
      auto t0 = Clock::now();
      int rc = QDcache_archive(QD_ARCH_ALL, nullptr);
      archive_ms.push_back(Ms(t0, Clock::now()));
      archive_cpu.push_back(CpuMs() - c0);
      if (rc != 245 || static_cast<size_t>(QDcache_dump_aliases()) != kEntries - stale)
        Die("the archive run did not archive exactly the stale objects");
    };
    if (round % 2 == 0) {
      baseline();
      archive();
    } else {
      archive();
      baseline();
    }
    ratios.push_back(archive_ms.back() / baseline_ms.back());
    cpu_ratios.push_back(archive_cpu.back() / baseline_cpu.back());
    QDcache_free();
  }
  double base = Median(baseline_ms), archive = Median(archive_ms);
  printf("\n%zu cached entries, %zu stale, files under %s (medians of %d rounds)\n", kEntries, stale,
         where.c_str(), kRounds);
  printf("  %-48s %9.1f ms  1.00x\n", "open/write/close of the same files (baseline)", base);
  printf("  %-48s %9.1f ms  %.2fx  (target: within 1.5x)\n", "QDcache_archive, QD_ARCH_ALL", archive,
         Median(ratios));
  printf("  %-48s %9.0f objects/s\n", "archived", static_cast<double>(stale) / (archive / 1000.0));
  printf("  %-48s %9.1f ms against %.1f ms: %.2fx\n", "process CPU time, archive against baseline",
         Median(archive_cpu), Median(baseline_cpu), Median(cpu_ratios));
  std::filesystem::remove_all(root);
  return 0;
}
