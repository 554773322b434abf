// Objects made from a class, against the same objects built by hand, in
// one run: 10,000 QDcreate + QDputobj of one class (four defaults, two
// items of a multi-value attribute, two methods, two elements merged into
// a meta-method) into the cache with direct saving, then one flush, against
// 10,000 QDput of the same pairs, then one flush. Both start from the same
// generated table of 1,000 entries and must leave byte-identical tables.
// Target: within 1.5x.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "qd.h"
#include "table_gen.h"
#include "timing.h"

namespace {

constexpr int kObjects = 10000;
constexpr unsigned char kCombined = QD_CLASS_METHOD | QD_CLASS_ADD;

const QDclass_entry_t kRows[] = {
    {0, "class", "bdisk", 0, 0},
    {0, "type", "scsi", 0, 0},
    {0, "bus", "scsi0", 0, 0},
    {0, "state", "offline", 0, 0},
    {QD_CLASS_ADD, "capabilities", "read", 0, 0},
    {QD_CLASS_ADD, "capabilities", "write", 0, 0},
    {QD_CLASS_METHOD, "offlinecmd", "echo offline", 0, 0},
    {QD_CLASS_METHOD, "onlinecmd", "echo online", 0, 0},
    {kCombined, "QDdestroyfunc", "offlinecmd", 20, 0},
    {kCombined, "QDdestroyfunc", "checkcmd", 10, META_COND},
    {0, nullptr, nullptr, 0, 0},
};

[[noreturn]] void Die(const std::string &why) {
  fprintf(stderr, "bench_create: %s\n", why.c_str());
  exit(1);
}

std::string Alias(int i) { return "bdisk" + std::to_string(i); }

// The pairs the caller gives for object i.
KeywordList *Given(int i) {
  KeywordList *list = CreateKeywordList();
  std::string n = std::to_string(i);
  AddKeywordToList(list, "cdevice", ("/dev/rdsk/b" + n).c_str());
  AddKeywordToList(list, "bdevice", ("/dev/dsk/b" + n).c_str());
  AddKeywordToList(list, "desc", ("bench disk " + n).c_str());
  AddKeywordToList(list, "target", n.c_str());
  return list;
}

void FromClass() {
  for (int i = 0; i < kObjects; ++i) {
    KeywordList *given = Given(i);
    ObjectRecord *object = QDcreate("bdisk", Alias(i).c_str(), given);
    if (object == nullptr || QDputobj(object->alias, object) != 0) Die("a create or put failed");
    QDfreeobj(object);
    DestroyKeywordList(given);
  }
}

// The pairs QDcreate makes of the class, in the same order.
void ByHand() {
  for (int i = 0; i < kObjects; ++i) {
    KeywordList *list = Given(i);
    AddKeywordToList(list, "class", "bdisk");
    AddKeywordToList(list, "type", "scsi");
    AddKeywordToList(list, "bus", "scsi0");
    AddKeywordToList(list, "state", "offline");
    AddKeywordToList(list, "capabilities", "read,write");
    AddKeywordToList(list, "offlinecmd", "echo offline");
    AddKeywordToList(list, "onlinecmd", "echo online");
    AddKeywordToList(list, "QDdestroyfunc", "offlinecmd[20][],checkcmd[10][?]");
    if (QDput(Alias(i).c_str(), list) != 0) Die("a put failed");
    DestroyKeywordList(list);
  }
}

std::string ReadAll(const std::string &path) {
  std::string text;
  if (FILE *f = fopen(path.c_str(), "rb")) {
    char buf[65536];
    while (size_t n = fread(buf, 1, sizeof buf, f)) text.append(buf, n);
    fclose(f);
  }
  return text;
}

// One run from a fresh copy of the base table: the puts and the flush, in
// milliseconds; the table it leaves goes to *result.
template <typename Fn>
double Run(const std::string &base, const std::string &table, Fn fn, std::string *result) {
  std::string text = ReadAll(base);
  FILE *f = fopen(table.c_str(), "wb");
  if (f == nullptr || fwrite(text.data(), 1, text.size(), f) != text.size() || fclose(f) != 0)
    Die("cannot copy the table");
  if (QDcache_load() != 0) Die("cannot load the cache");
  auto t0 = bench::Clock::now();
  fn();
  if (QDcache_flush() != 0) Die("cannot flush the cache");
  double ms = bench::Ms(t0, bench::Clock::now());
  *result = ReadAll(table);
  return ms;
}

}  // namespace

int main() {
  char dir[] = "/tmp/qdbench.XXXXXX";
  if (mkdtemp(dir) == nullptr) Die("mkdtemp failed");
  std::string base = std::string(dir) + "/base.tab", table = std::string(dir) + "/units.tab";
  tablegen::WriteTable(base, 1000, 1);
  setenv("TAV_DEVTAB", table.c_str(), 1);
  setenv("TAV_LIBQDRC", (std::string(dir) + "/rc").c_str(), 1);  // none: direct load and save
  unsetenv("QD_TIMESTAMP");
  vcel_verbose_level = 0;
  static const QDclass_tbl_t classes[] = {{"bdisk", kRows}, {nullptr, nullptr}};
  QD_class_tbl = classes;

  std::vector<double> ours, base_ms;
  std::string ours_table, base_table;
  for (int s = 0; s < 5; ++s) {
    ours.push_back(Run(base, table, FromClass, &ours_table));
    base_ms.push_back(Run(base, table, ByHand, &base_table));
    if (ours_table != base_table) Die("the two runs left different tables");
  }
  double a = bench::Median(ours), b = bench::Median(base_ms), ratio = a / b;
  printf("%d objects of one class into a cache of 1,000 entries, then one flush\n", kObjects);
  printf("%-44s %9.1f ms  baseline %9.1f ms  %6.2fx  (target 1.5x) %s\n", "QDcreate+QDputobj vs QDput of the pairs", a, b,
         ratio, ratio <= 1.5 ? "ok" : "OVER");
  unlink(base.c_str());
  unlink(table.c_str());
  rmdir(dir);
  return 0;
}
