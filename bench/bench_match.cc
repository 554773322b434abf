// QDmatchalias with 1,000 candidates over a 100,000-entry table, against the
// table cursor alone walking the same file, in one run. The matching makes
// one pass over the table, so the cursor's walk is its floor.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

}  // namespace

int main(int argc, char **argv) {
  size_t entries = argc > 1 ? strtoul(argv[1], nullptr, 10) : 100000;
  size_t wanted = argc > 2 ? strtoul(argv[2], nullptr, 10) : 1000;
  char dir[] = "/tmp/qdmatch.XXXXXX";
  if (mkdtemp(dir) == nullptr) return 1;
  std::string table = std::string(dir) + "/units.tab";
  std::vector<std::string> aliases;
  tablegen::WriteTable(table, entries, 1, &aliases);
  setenv("TAV_DEVTAB", table.c_str(), 1);

  // Candidates spread over the whole table, the last entry among them, so
  // the matching cannot stop early.
  AliasList *candidates = nullptr;
  size_t step = std::max<size_t>(1, aliases.size() / wanted);
  for (size_t i = aliases.size(); i-- > 0 && aliases.size() - i <= step * wanted;) {
    if ((aliases.size() - 1 - i) % step != 0) continue;
    auto *n = static_cast<AliasList *>(malloc(sizeof(AliasList)));
    *n = {strdup(aliases[i].c_str()), candidates};
    candidates = n;
  }
  KeywordList *criteria = CreateKeywordList();
  AddKeywordToList(criteria, "state", "online");

  size_t triples = 0;
  auto walk = [&triples] {
    ResetDeviceTabFile();
    char *a, *n, *v;
    triples = 0;
    while (ReferenceNextAttribute(&a, &n, &v) != KWL_END) ++triples;
  };
  size_t matched = 0;
  auto match = [&] {
    AliasList *r = QDmatchalias(criteria, candidates);
    matched = 0;
    for (AliasList *n = r; n; n = n->next) ++matched;
    QDFreeAliasList(r);
  };
  walk();
  match();  // warm up the page cache and the allocator
  double walk_ms = MedianMs(7, walk);
  double match_ms = MedianMs(7, match);

  printf("table: %zu entries, %zu triples; %zu candidates, %zu matched\n", aliases.size(), triples,
         static_cast<size_t>(std::min(wanted, aliases.size())), matched);
  printf("%-40s %10s %8s\n", "operation", "ms", "ratio");
  printf("%-40s %10.1f %8s\n", "table cursor walk (baseline)", walk_ms, "1.00x");
  printf("%-40s %10.1f %7.2fx   (target: within 1.30x)\n", "QDmatchalias", match_ms,
         match_ms / walk_ms);
  QDFreeAliasList(candidates);
  DestroyKeywordList(criteria);
  std::string cleanup = std::string("rm -rf ") + dir;
  return system(cleanup.c_str()) == 0 ? 0 : 1;
}
