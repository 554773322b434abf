// Running methods, in one run, each against the plain work it wraps:
// - a meta-method of 10 command methods, each `true`, against 10 bare
//   popen + pclose of `true`; target 1.2x (the spawns dominate);
// - a meta-method of 10 function methods (devcheck.exists) against 10 direct
//   calls of the same function through dlsym; target 20x.
// The methods are looked up from the cache, as a long-running caller has
// them; the command list with the cache off (every lookup a unitprop run) is
// shown for comparison. Runs of a method list and of its baseline alternate,
// so load on the machine falls on both alike, and every result is checked.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "qd.h"
#include "timing.h"

namespace {

constexpr int kMethods = 10;

[[noreturn]] void Die(const std::string &why) {
  fprintf(stderr, "bench_methods: %s\n", why.c_str());
  exit(1);
}

// A meta-method of ten elements, each run with the caller's parameters: no
// checks, outputs dropped but the last one's, which is the result.
std::string Chain(const std::string &element) {
  std::string value;
  for (int i = 0; i < kMethods; ++i)
    value += (i ? "," : "") + element + (element.find('.') == std::string::npos ? std::to_string(i) + "cmd" : "") +
             "[" + std::to_string(i + 1) + "][" + (i + 1 < kMethods ? "!x" : "!") + "]";
  return value;
}

// A result with keyword=want, or an empty one for a null keyword.
void Check(KeywordList *result, const char *keyword, const char *want) {
  char *value = nullptr;
  bool ok = result != nullptr && (keyword == nullptr ? NumberOfKeywords(result) == 0
                                                      : ReferenceKeywordInList(result, keyword, nullptr, &value) ==
                                                                KWL_OK &&
                                                            std::string(value) == want);
  if (!ok) Die("a method run did not give what it should");
  DestroyKeywordList(result);
}

void Popen() {
  FILE *p = popen("true", "r");
  if (p == nullptr) Die("popen failed");
  char buf[256];
  while (fgets(buf, sizeof buf, p) != nullptr) {
  }
  if (pclose(p) != 0) Die("true failed");
}

struct Pair {
  double ours, base;
};

// Medians over alternating samples; each sample is `per` runs.
template <typename Ours, typename Base>
Pair Measure(int samples, int per, Ours ours, Base base) {
  std::vector<double> a, b;
  for (int s = 0; s < samples; ++s) {
    a.push_back(bench::MedianMs(1, [&] { for (int i = 0; i < per; ++i) ours(); }) / per);
    b.push_back(bench::MedianMs(1, [&] { for (int i = 0; i < per; ++i) base(); }) / per);
  }
  return {bench::Median(a), bench::Median(b)};
}

void Report(const char *what, Pair p, double target = 0) {
  double ratio = p.ours / p.base;
  printf("%-44s %9.1f us  baseline %9.1f us  %6.2fx", what, p.ours * 1000, p.base * 1000, ratio);
  if (target > 0)
    printf("  (target %gx) %s\n", target, ratio <= target ? "ok" : "OVER");
  else
    printf("  (no target)\n");
}

}  // namespace

int main() {
  char dir[] = "/tmp/qdbench.XXXXXX";
  if (mkdtemp(dir) == nullptr) Die("mkdtemp failed");
  std::string table = std::string(dir) + "/units.tab";
  std::string entry = "bench0:/dev/null:::class=\"bench\" cmdfunc=\"" + Chain("c") + "\" fnfunc=\"" +
                      Chain("devcheck.exists") + "\"";
  for (int i = 0; i < kMethods; ++i) entry += " c" + std::to_string(i) + "cmd=\"true\"";
  FILE *f = fopen(table.c_str(), "w");
  if (f == nullptr || fprintf(f, "%s\n", entry.c_str()) < 0 || fclose(f) != 0) Die("cannot write " + table);
  setenv("TAV_DEVTAB", table.c_str(), 1);
  setenv("TAV_LIBQDRC", (std::string(dir) + "/rc").c_str(), 1);
  setenv("SO_DIR", QD_METHODS_DIR, 1);
  setenv("PATH", (std::string(QD_COMMANDS_DIR) + ":" + getenv("PATH")).c_str(), 1);
  vcel_verbose_level = 0;

  KeywordList *params = CreateKeywordList();
  AddKeywordToList(params, "path", "/");
  void *lib = dlopen((std::string(QD_METHODS_DIR) + "/devcheck.so").c_str(), RTLD_NOW);
  if (lib == nullptr) Die(dlerror());

  auto commands = [] { Check(QDperform("bench0", "cmdfunc", nullptr), nullptr, nullptr); };
  auto popens = [] {
    for (int i = 0; i < kMethods; ++i) Popen();
  };
  auto functions = [params] { Check(QDperform("bench0", "fnfunc", params), "message", "/ exists"); };
  auto direct = [params, lib] {
    for (int i = 0; i < kMethods; ++i) {
      auto fn = reinterpret_cast<QDmethodfunc>(dlsym(lib, "exists"));
      if (fn == nullptr) Die("no function exists");
      Check(fn("bench0", params), "message", "/ exists");
    }
  };

  printf("%d methods a list, each run with the parameters path=/\n", kMethods);
  Report("commands, cache off (lookups by unitprop)", Measure(5, 1, commands, popens));
  if (QDcache_load() != 0) Die("cannot load the cache");
  Report("commands (true) vs popen+pclose", Measure(21, 3, commands, popens), 1.2);
  Report("functions (devcheck.exists) vs dlsym+call", Measure(21, 2000, functions, direct), 20);
  QDcache_free();
  DestroyKeywordList(params);
  unlink(table.c_str());
  rmdir(dir);
  return 0;
}
