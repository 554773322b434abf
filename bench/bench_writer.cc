// Writing, on generated tables of 10,000 and 100,000 entries, in one run:
// - a direct flush of the loaded cache (journal, commit and the copy into
//   place included), against writing the same bytes with one buffered
//   write; target 2x. A flush of a cache just loaded from the table writes
//   the entries in reverse order, so it rewrites the table from its first
//   byte; the flush that meets its own earlier output is measured too, with
//   one entry in the middle changed (typical), the first entry changed (all
//   rewritten: the worst case) and nothing changed;
// - one QDput to a table with the cache off: load, change, flush;
// - QDgetattr with the cache on (median ns), against a plain hash-map
//   lookup of the same string; target 10x.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unordered_map>
#include <vector>

#include "qd.h"
#include "table_gen.h"
#include "timing.h"

namespace {

using bench::Clock;
using bench::Median;
using bench::MedianMs;
using bench::Ms;

void Run(size_t entries, const std::string &dir) {
  std::string table = dir + "/units" + std::to_string(entries) + ".tab";
  std::string content;
  std::vector<std::string> aliases;
  tablegen::Generate(entries, 1, [&](const devtab::Entry &e) {
    devtab::FormatEntry(e, &content);
    aliases.push_back(e.alias);
  });
  // Synced, so that a flush's fsync writes back only what the flush wrote.
  auto write_file = [&](const std::string &bytes) {
    int fd = open(table.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) exit(1);
    fsync(fd);
    close(fd);
  };
  write_file(content);
  setenv("TAV_DEVTAB", table.c_str(), 1);

  // Baseline: the same number of bytes, one buffered write, synced as the
  // flush syncs what it writes.
  std::vector<double> base, flush, put;
  for (int i = 0; i < 5; ++i) {
    std::string scratch = dir + "/scratch";
    auto t0 = Clock::now();
    int fd = open(scratch.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) exit(1);
    fsync(fd);
    close(fd);
    base.push_back(Ms(t0, Clock::now()));

    if (QDcache_load() != 0) exit(1);
    t0 = Clock::now();
    if (QDcache_flush() != 0) exit(1);
    flush.push_back(Ms(t0, Clock::now()));
  }

  // What a flush of the cache loaded from `content` writes.
  write_file(content);
  if (QDcache_load() != 0 || QDcache_flush() != 0) exit(1);
  std::string output;
  {
    FILE *f = fopen(table.c_str(), "r");
    char buf[1 << 16];
    for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) output.append(buf, n);
    fclose(f);
  }
  // The cache loaded from `content`, the table set to that output, then one
  // entry changed (or none): the flush rewrites from that entry on.
  struct Again {
    const char *label;
    const char *alias;
    std::vector<double> ms;
  } again[] = {
      {"QDcache_flush, one entry in the middle changed", aliases[aliases.size() / 2].c_str(), {}},
      {"QDcache_flush, first entry changed (worst)", aliases.back().c_str(), {}},
      {"QDcache_flush, nothing changed", nullptr, {}},
  };
  for (Again &a : again) {
    for (int i = 0; i < 5; ++i) {
      write_file(content);
      if (QDcache_load() != 0) exit(1);
      write_file(output);
      if (a.alias != nullptr) {
        KeywordList *l = CreateKeywordList();
        AddKeywordToList(l, "state", i % 2 ? "online" : "maintenance");
        if (QDput(a.alias, l) != 0) exit(1);  // the cache is on: no flush yet
        DestroyKeywordList(l);
      }
      auto t0 = Clock::now();
      if (QDcache_flush() != 0) exit(1);
      a.ms.push_back(Ms(t0, Clock::now()));
    }
  }
  for (int i = 0; i < 5; ++i) {
    KeywordList *l = CreateKeywordList();
    AddKeywordToList(l, "state", i % 2 ? "online" : "maintenance");
    auto t0 = Clock::now();
    if (QDput(aliases[aliases.size() - 1 - static_cast<size_t>(i)].c_str(), l) != 0) exit(1);
    put.push_back(Ms(t0, Clock::now()));
    DestroyKeywordList(l);
  }

  // Lookups with the cache on, against a hash map of the same aliases.
  if (QDcache_load() != 0) exit(1);
  std::unordered_map<std::string, std::string> plain;
  for (const std::string &a : aliases) plain.emplace(a, "value of " + a);
  std::vector<std::string> keys;
  for (size_t i = 0; i < aliases.size(); i += std::max<size_t>(1, aliases.size() / 2000)) keys.push_back(aliases[i]);
  std::vector<double> cached, mapped;
  size_t sink = 0;
  for (int r = 0; r < 9; ++r) {
    auto t0 = Clock::now();
    for (const std::string &k : keys) {
      NameValue *nv = QDgetattr(k.c_str(), "class");
      sink += nv != nullptr;
      free(nv);
    }
    cached.push_back(Ms(t0, Clock::now()) * 1e6 / static_cast<double>(keys.size()));
    t0 = Clock::now();
    for (const std::string &k : keys) sink += plain.find(k)->second.size();
    mapped.push_back(Ms(t0, Clock::now()) * 1e6 / static_cast<double>(keys.size()));
  }
  QDcache_free();
  double b = Median(base), f = Median(flush), g = Median(cached), m = Median(mapped);
  printf("\n%zu entries, table file %.1f MB, %zu aliases looked up (%zu answers)\n", aliases.size(),
         content.size() / 1e6, keys.size(), sink / 9 > keys.size() ? keys.size() : sink / 9);
  printf("  %-46s %10.1f ms  1.00x\n", "one buffered write of the same bytes + fsync", b);
  printf("  %-46s %10.1f ms  %.2fx  (target: within 2x)\n", "QDcache_flush, direct", f, f / b);
  for (const Again &a : again)
    printf("  %-46s %10.1f ms  %.2fx  (target: within 2x)\n", a.label, Median(a.ms), Median(a.ms) / b);
  printf("  %-46s %10.1f ms\n", "QDput with the cache off (load, change, flush)", Median(put));
  printf("  %-46s %10.0f ns  1.00x\n", "hash-map lookup of the alias", m);
  printf("  %-46s %10.0f ns  %.1fx  (target: within 10x)\n", "QDgetattr with the cache on", g, g / m);
}

}  // namespace

int main() {
  char dir[] = "/tmp/qdwriter.XXXXXX";
  if (mkdtemp(dir) == nullptr) return 1;
  setenv("TAV_LIBQDRC", (std::string(dir) + "/none").c_str(), 1);
  vcel_verbose_level = 0;
  for (size_t n : {10000, 100000}) Run(n, dir);
  std::string cleanup = std::string("rm -rf ") + dir;
  return system(cleanup.c_str()) == 0 ? 0 : 1;
}
