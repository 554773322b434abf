// QDsearchaliases over a 100,000-entry table, with the cache off and on, in
// one run: a search with two criteria, one NOT criterion and a filter of two
// names, and a search that matches nothing. Off, the baseline is the table
// cursor alone walking the same file (the search makes one such walk); on,
// a plain loop over the cached objects testing the same conditions and
// copying the filtered values of each match.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "qd.h"
#include "table_gen.h"
#include "timing.h"

namespace {

using bench::MedianMs;

struct Query {
  const char *name;
  std::vector<std::pair<const char *, const char *>> must, must_not;
};

const Query kQueries[] = {
    {"two criteria, one NOT, filter", {{"class", "serial"}, {"flow", "rtscts"}}, {{"state", "disabled"}}},
    {"matching nothing", {{"class", "nosuch"}, {"flow", "rtscts"}}, {{"state", "disabled"}}},
};
const char kFilter[] = "speed,state";

size_t Search(const Query &q) {
  SearchCriteria_t *c = CreateSearchCriteria(QD_MATCH_ALL, QD_ONE_LEVEL);
  KeywordList *must = CreateKeywordList(), *must_not = CreateKeywordList();
  for (const auto &p : q.must) AddKeywordToList(must, p.first, p.second);
  for (const auto &p : q.must_not) AddKeywordToList(must_not, p.first, p.second);
  AddKeyListToSearch(c, must);
  AddNotKeyListToSearch(c, must_not);
  ObjectList *found = QDsearchaliases(c, kFilter);
  size_t n = 0;
  for (ObjectList *o = found; o != nullptr; o = o->next) ++n;
  DestroyObjectList(found);
  DestroySearchCriteria(c);
  return n;
}

size_t Walk() {
  ResetDeviceTabFile();
  char *a, *n, *v;
  size_t triples = 0;
  while (ReferenceNextAttribute(&a, &n, &v) != KWL_END) ++triples;
  return triples;
}

bool Holds(KeywordList *attrs, const char *name, const char *value) {
  char *kw, *v;
  return ReferenceKeywordInList(attrs, name, &kw, &v) == KWL_OK && strcmp(v, value) == 0;
}

// What a hand-written loop over the cache does for the same query.
size_t CachedLoop(const Query &q) {
  std::vector<std::pair<std::string, std::vector<std::string>>> found;
  for (oce *e = qdcache_ocp->next; e != qdcache_ocp; e = e->next) {
    KeywordList *attrs = e->objptr->attributes;
    bool ok = true;
    for (const auto &p : q.must) ok = ok && Holds(attrs, p.first, p.second);
    for (const auto &p : q.must_not) ok = ok && !Holds(attrs, p.first, p.second);
    if (!ok) continue;
    std::vector<std::string> values;
    char *kw, *v;
    for (const char *name : {"speed", "state"})
      if (ReferenceKeywordInList(attrs, name, &kw, &v) == KWL_OK) values.emplace_back(v);
    found.emplace_back(e->objptr->alias, std::move(values));
  }
  return found.size();
}

void Row(const char *what, double ms, double base, const char *target) {
  printf("%-52s %9.1f %7.2fx%s\n", what, ms, ms / base, target);
}

}  // namespace

int main(int argc, char **argv) {
  size_t entries = argc > 1 ? strtoul(argv[1], nullptr, 10) : 100000;
  bool only_cache = argc > 2 && strcmp(argv[2], "cache") == 0;  // for profiling
  char dir[] = "/tmp/qdsearch.XXXXXX";
  if (mkdtemp(dir) == nullptr) return 1;
  std::string table = std::string(dir) + "/units.tab";
  tablegen::WriteTable(table, entries, 1);
  setenv("TAV_DEVTAB", table.c_str(), 1);
  setenv("TAV_LIBQDRC", (std::string(dir) + "/rc").c_str(), 1);
  unsetenv("QD_TIMESTAMP");

  printf("%zu entries; filter \"%s\"\n", entries, kFilter);
  printf("%-52s %9s %8s\n", "cache off", "ms", "ratio");
  size_t triples = Walk();
  double walk = MedianMs(only_cache ? 1 : 5, [] { Walk(); });
  Row("table cursor walk (baseline)", walk, walk, "");
  for (const Query &q : kQueries) {
    if (only_cache) break;
    size_t n = Search(q);
    double ms = MedianMs(5, [&q] { Search(q); });
    std::string what = std::string("QDsearchaliases, ") + q.name + " (" + std::to_string(n) + " found)";
    Row(what.c_str(), ms, walk, "   (target: within 1.50x)");
  }

  if (QDcache_load() != 0) return 1;
  printf("%-52s %9s %8s\n", "cache on", "ms", "ratio");
  for (const Query &q : kQueries) {
    size_t expected = CachedLoop(q);
    double loop = MedianMs(7, [&q] { CachedLoop(q); });
    size_t n = Search(q);
    double ms = MedianMs(7, [&q] { Search(q); });
    if (n != expected) printf("the search found %zu objects, the loop %zu\n", n, expected);
    std::string base = std::string("plain loop over the cache, ") + q.name + " (baseline)";
    Row(base.c_str(), loop, loop, "");
    Row("QDsearchaliases", ms, loop, "   (target: within 1.50x)");
  }
  printf("(%zu triples in the table)\n", triples);
  QDcache_free();
  std::string cleanup = std::string("rm -rf ") + dir;
  return system(cleanup.c_str()) == 0 ? 0 : 1;
}
