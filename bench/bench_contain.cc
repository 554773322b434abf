// The whole containment tree of a table of 10,000 entries (each container
// holding 10 entries), with the cache on, in one run:
// - QDget_contained_objects with QDCONTAINS from the top (every entry of
//   the tree fetched, its ObjContains split and followed, the tree held
//   until it is freed): entries per second;
// - QDgetobj of the same entries from the same cache, every object held
//   until the last is fetched and then freed, as the tree holds them
//   (baseline); target: the walk within 1.5x of it;
// - for comparison, QDgetobj and QDfreeobj of one entry after the other,
//   which reuses the same memory over and over: holding 10,000 objects at
//   once costs the memory allocator more, whoever fetches them.
#include <malloc.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "qd.h"
#include "timing.h"

namespace {

constexpr size_t kEntries = 10000;
constexpr size_t kFanOut = 10;
constexpr int kRounds = 9;
constexpr int kRuns = 5;  // of each side in a round

void Die(const char *what) {
  fprintf(stderr, "bench_contain: %s\n", what);
  exit(1);
}

std::string Alias(size_t i) { return "unit" + std::to_string(i); }

// Entry i contains entries 10i+1 to 10i+10; each has the attributes and
// methods of a real device entry.
void WriteTree(const std::string &path) {
  FILE *out = fopen(path.c_str(), "w");
  if (out == nullptr) Die("cannot write the table");
  for (size_t i = 0; i < kEntries; ++i) {
    std::string contains;
    for (size_t c = kFanOut * i + 1; c <= kFanOut * i + kFanOut && c < kEntries; ++c)
      contains += (contains.empty() ? "" : ",") + Alias(c);
    fprintf(out,
            "%s:/dev/rdsk/%zu:/dev/dsk/%zu::class=\"disk\" type=\"scsi\" desc=\"Disk %zu\" bus=\"scsi%zu\" "
            "target=\"%zu\" lun=\"0\" state=\"online\" capabilities=\"read,write,format\"%s%s%s "
            "checkcmd=\"/sbin/fsck -n /dev/dsk/%zu\" offlinecmd=\"echo offline\" "
            "QDdestroyfunc=\"checkcmd[10][?],offlinecmd[20]\"\n",
            Alias(i).c_str(), i, i, i, i / 16, i % 16, contains.empty() ? "" : " ObjContains=\"",
            contains.c_str(), contains.empty() ? "" : "\"", i);
  }
  fclose(out);
}

double CpuMs() {
  timespec t;
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return t.tv_sec * 1e3 + t.tv_nsec / 1e6;
}

// One side of the comparison. A side runs a few times in a row and its
// figure for the block is the median of those: what one operation leaves
// in the heap shapes the next one, and a side repeated finds the heap as
// it leaves it itself.
struct Timed {
  std::function<void()> fn;
  std::vector<double> wall = {}, cpu = {};
  void Block(int runs) {
    std::vector<double> w, c;
    for (int i = 0; i < runs; ++i) {
      double c0 = CpuMs();
      auto t0 = bench::Clock::now();
      fn();
      w.push_back(bench::Ms(t0, bench::Clock::now()));
      c.push_back(CpuMs() - c0);
    }
    wall.push_back(bench::Median(w));
    cpu.push_back(bench::Median(c));
  }
};

size_t Count(const ObjectRecord *o) {
  size_t n = 1;
  std::vector<const ContainedNode *> stack{o->contained};
  while (!stack.empty()) {
    const ContainedNode *node = stack.back();
    stack.pop_back();
    for (; node != nullptr; node = node->next) {
      ++n;
      if (node->object->contained != nullptr) stack.push_back(node->object->contained);
    }
  }
  return n;
}

}  // namespace

int main() {
  char dir[] = "/tmp/bench_contain.XXXXXX";
  if (mkdtemp(dir) == nullptr) Die("cannot make a directory");
  std::string table = std::string(dir) + "/units.tab";
  WriteTree(table);
  setenv("TAV_DEVTAB", table.c_str(), 1);
  setenv("TAV_LIBQDRC", (std::string(dir) + "/rc").c_str(), 1);
  if (QDcache_load() != 0) Die("cannot load the cache");
  // The heap keeps what each round frees: otherwise whichever side runs
  // after memory went back to the system pays the page faults of getting it
  // again, and the figures follow the order of the rounds, not the work.
  mallopt(M_TRIM_THRESHOLD, 1 << 30);

  std::vector<std::string> aliases;
  for (size_t i = 0; i < kEntries; ++i) aliases.push_back(Alias(i));
  // Others' load varies from moment to moment: each round times the three
  // back to back, in turning order, and the ratios are the medians of the
  // rounds' ratios, in wall time and in this process's CPU time.
  size_t found = 0;
  std::vector<ObjectRecord *> objects;
  objects.reserve(kEntries);
  auto walk = [&] {
    ObjectRecord *top = QDgetobj(aliases[0].c_str());
    if (top == nullptr || QDget_contained_objects(top, QDCONTAINS) != 0) Die("the walk found nothing");
    found = Count(top);
    QDfreeobj(top);
  };
  auto held = [&] {
    for (const std::string &a : aliases) objects.push_back(QDgetobj(a.c_str()));
    for (ObjectRecord *o : objects) QDfreeobj(o);
    objects.clear();
  };
  auto each = [&] {
    for (const std::string &a : aliases) QDfreeobj(QDgetobj(a.c_str()));
  };
  Timed sides[] = {{walk}, {held}, {each}};
  std::vector<double> ratio, cpu_ratio, each_ratio;
  for (int round = 0; round < kRounds; ++round) {
    for (int i = 0; i < 3; ++i) sides[(round + i) % 3].Block(kRuns);
    ratio.push_back(sides[0].wall.back() / sides[1].wall.back());
    cpu_ratio.push_back(sides[0].cpu.back() / sides[1].cpu.back());
    each_ratio.push_back(sides[0].wall.back() / sides[2].wall.back());
  }
  if (found != kEntries) Die("the walk missed entries");
  double w = bench::Median(sides[0].wall), h = bench::Median(sides[1].wall), e = bench::Median(sides[2].wall);
  printf("containment tree of %zu entries (fan-out %zu), cache on, medians of %d rounds\n", kEntries, kFanOut,
         kRounds);
  printf("  %-50s %8.2f ms  %9.0f entries/s\n", "QDget_contained_objects(QDCONTAINS), tree freed", w,
         kEntries / w * 1000);
  printf("  %-50s %8.2f ms  %9.0f entries/s (baseline)\n", "QDgetobj of each, all held, then freed", h,
         kEntries / h * 1000);
  printf("  %-50s %8.2f ms  (the walk takes %.2fx of it)\n", "QDgetobj and QDfreeobj of one after the other", e,
         bench::Median(each_ratio));
  printf("  process CPU time, walk against baseline: %.2f ms against %.2f ms: %.2fx\n",
         bench::Median(sides[0].cpu), bench::Median(sides[1].cpu), bench::Median(cpu_ratio));
  double r = bench::Median(ratio);
  printf("  ratio %.2fx (target: within 1.50x) %s\n", r, r <= 1.5 ? "met" : "MISSED");
  QDcache_free();
  std::string rm = std::string("rm -rf '") + dir + "'";
  return system(rm.c_str()) == 0 ? 0 : 1;
}
