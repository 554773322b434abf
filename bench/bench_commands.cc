// bench_commands - how long the device commands take on big tables, against
// the standard tools doing the nearest plain-text job on the same file.
//
//   bench_commands [-r RUNS] [-t TABLE] [COMMANDS_DIR]
//
// Generates tables of 10,000 and 100,000 entries (or measures TABLE alone)
// and times whole processes, spawned with standard output on /dev/null:
//   unitprop ALIAS NAME, ALIAS near the end   against  grep -m1 '^ALIAS:' TABLE
//   unitlist                                  against  cut -d: -f1 TABLE
//   unitmod -m ALIAS state=maintenance        on a copy, for information
// The commands find the table through TAV_DEVTAB, as libQD runs them. The
// warm-up run of each program writes to a file that is checked, so a broken
// command cannot pass for a fast one; timed runs of a command and its
// baseline alternate, so load on the machine falls on both alike.
#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "devtab_file.h"
#include "table_gen.h"

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;

constexpr double kTarget = 1.5;  // a command may take this many times its baseline

std::string temp_dir;  // removed on every way out

void RemoveTempDir() {
  if (temp_dir.empty()) return;
  if (DIR *d = opendir(temp_dir.c_str())) {
    while (struct dirent *e = readdir(d))
      if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
        unlinkat(dirfd(d), e->d_name, 0);
    closedir(d);
  }
  rmdir(temp_dir.c_str());
  temp_dir.clear();
}

[[noreturn]] void Die(const char *format, ...) __attribute__((format(printf, 1, 2)));
void Die(const char *format, ...) {
  fputs("bench_commands: ", stderr);
  va_list args;
  va_start(args, format);
  vfprintf(stderr, format, args);
  va_end(args);
  fputc('\n', stderr);
  RemoveTempDir();
  exit(1);
}

std::string ReadFile(const std::string &path) {
  devtab::Image image;
  if (int err = image.Load(path.c_str())) Die("cannot read %s: %s", path.c_str(), strerror(err));
  return std::string(image.view());
}

void WriteFile(const std::string &path, const std::string &content) {
  FILE *f = fopen(path.c_str(), "w");
  if (f == nullptr) Die("cannot create %s: %s", path.c_str(), strerror(errno));
  bool ok = fwrite(content.data(), 1, content.size(), f) == content.size();
  if (fclose(f) != 0 || !ok) Die("cannot write %s", path.c_str());
}

// What is measured on one table.
struct Table {
  std::string label;    // how the report names it
  std::string path;
  size_t entries = 0;
  size_t bytes = 0;
  std::string alias;    // an entry near the end
  std::string name;     // one of its attributes,
  std::string value;    // and that attribute's value
  std::string aliases;  // every alias, one a line: what unitlist must print
};

std::string Grouped(size_t n) {
  std::string s = std::to_string(n);
  for (size_t i = s.size(); i > 3; i -= 3) s.insert(i - 3, ",");
  return s;
}

Table Generated(size_t count, uint64_t variant) {
  Table t;
  t.path = temp_dir + "/units-" + std::to_string(count) + ".tab";
  t.entries = count;
  const size_t probe = count - 1 - count / 100;
  std::string content;
  size_t index = 0;
  tablegen::Generate(count, variant, [&](const devtab::Entry &e) {
    devtab::FormatEntry(e, &content);
    t.aliases += e.alias + "\n";
    if (index++ == probe) {
      t.alias = e.alias;
      t.name = e.pairs[0].name;
      t.value = e.pairs[0].value;
    }
  });
  WriteFile(t.path, content);
  t.bytes = content.size();
  t.label = Grouped(count) + " entries, variant " + std::to_string(variant);
  return t;
}

// An alias the grep pattern can name as it stands.
bool Plain(const std::string &alias) {
  for (char c : alias)
    if (!(isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-')) return false;
  return !alias.empty();
}

Table Given(const std::string &path) {
  Table t;
  t.path = path;
  std::string content = ReadFile(path);
  t.bytes = content.size();
  struct Probe {
    size_t index;
    std::string alias, name, value;
  };
  std::vector<Probe> probes;
  devtab::Scanner scanner(content);
  devtab::RawEntry raw;
  devtab::Entry e;
  while (scanner.Next(&raw)) {
    if (devtab::ParseEntry(raw.text, &e) != devtab::Defect::kNone) continue;
    t.aliases += e.alias + "\n";
    if (Plain(e.alias) && e.npairs > 0 && raw.text.substr(0, e.alias.size() + 1) == e.alias + ":")
      probes.push_back({t.entries, e.alias, e.pairs[0].name, e.pairs[0].value});
    ++t.entries;
  }
  const size_t near_end = t.entries - t.entries / 100;
  auto p = std::find_if(probes.rbegin(), probes.rend(),
                        [near_end](const Probe &x) { return x.index < near_end; });
  if (p == probes.rend()) Die("%s has no entry with a plain alias and an attribute", path.c_str());
  t.alias = p->alias;
  t.name = p->name;
  t.value = p->value;
  t.label = path + ", " + Grouped(t.entries) + " entries";
  return t;
}

// The environment of every program run: ours, with the table named and the
// C locale (the baselines are at their fastest in it).
std::vector<std::string> Environment(const std::string &table) {
  std::vector<std::string> env;
  for (char **e = environ; *e != nullptr; ++e)
    if (strncmp(*e, "TAV_DEVTAB=", 11) != 0 && strncmp(*e, "LC_ALL=", 7) != 0) env.push_back(*e);
  env.push_back("TAV_DEVTAB=" + table);
  env.push_back("LC_ALL=C");
  return env;
}

std::vector<char *> Pointers(const std::vector<std::string> &strings) {
  std::vector<char *> v;
  for (const std::string &s : strings) v.push_back(const_cast<char *>(s.c_str()));
  v.push_back(nullptr);
  return v;
}

// Runs argv with standard output on `out`; its exit status, or -1 when it
// did not run or did not exit. `ms` gets the wall time from spawn to reaping.
int Run(const std::vector<std::string> &argv, const std::vector<std::string> &env,
        const char *out, double *ms) {
  std::vector<char *> args = Pointers(argv), envp = Pointers(env);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid;
  auto t0 = Clock::now();
  int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    fprintf(stderr, "bench_commands: cannot run %s: %s\n", args[0], strerror(rc));
    return -1;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0)
    if (errno != EINTR) return -1;
  *ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

struct Job {
  std::string label;
  std::vector<std::string> argv;
  std::function<bool(const std::string &output)> check;  // of the warm-up run's output
};

struct Figures {
  double median = 0;
  double min = 0;
};

// Times the jobs together: one checked warm-up each, then `runs` rounds in
// which each job runs once.
std::vector<Figures> Measure(const std::vector<Job> &jobs, const std::vector<std::string> &env,
                             int runs) {
  const std::string out = temp_dir + "/output";
  double ms = 0;
  for (const Job &job : jobs) {
    int status = Run(job.argv, env, out.c_str(), &ms);
    if (status != 0) Die("%s: exit status %d in the warm-up run", job.label.c_str(), status);
    if (!job.check(ReadFile(out))) Die("%s: wrong output in the warm-up run", job.label.c_str());
  }
  std::vector<std::vector<double>> times(jobs.size());
  for (int r = 0; r < runs; ++r) {
    for (size_t j = 0; j < jobs.size(); ++j) {
      int status = Run(jobs[j].argv, env, "/dev/null", &ms);
      if (status != 0) Die("%s: exit status %d", jobs[j].label.c_str(), status);
      times[j].push_back(ms);
    }
  }
  std::vector<Figures> figures;
  for (std::vector<double> &t : times) {
    std::sort(t.begin(), t.end());
    size_t n = t.size();
    figures.push_back({n % 2 ? t[n / 2] : (t[n / 2 - 1] + t[n / 2]) / 2, t.front()});
  }
  return figures;
}

std::string Ms(double ms) {
  char buf[32];
  snprintf(buf, sizeof buf, "%.2f", ms);
  return buf;
}

void Row(const std::string &cmd, const std::string &c_median, const std::string &c_min,
         const std::string &base, const std::string &b_median, const std::string &b_min,
         const std::string &ratio, const std::string &verdict) {
  char line[512];
  snprintf(line, sizeof line, "  %-38s %8s %8s   %-32s %8s %8s %7s  %s", cmd.c_str(),
           c_median.c_str(), c_min.c_str(), base.c_str(), b_median.c_str(), b_min.c_str(),
           ratio.c_str(), verdict.c_str());
  std::string text = line;
  text.erase(text.find_last_not_of(' ') + 1);
  puts(text.c_str());
}

// One row; true when the command is within the target.
bool Compare(const Job &cmd, const Figures &c, const Job &base, const Figures &b) {
  double ratio = c.median / b.median;
  char r[32];
  snprintf(r, sizeof r, "%.2fx", ratio);
  bool met = ratio <= kTarget;
  Row(cmd.label, Ms(c.median), Ms(c.min), base.label, Ms(b.median), Ms(b.min), r,
      met ? "yes" : "NO");
  return met;
}

// Measures one table; the number of targets missed.
int Bench(const Table &t, const std::string &commands, int runs) {
  const std::vector<std::string> env = Environment(t.path);
  printf("\n%s (%.1f MB): %s of %s\n", t.label.c_str(), static_cast<double>(t.bytes) / 1e6,
         t.name.c_str(), t.alias.c_str());
  char target[32];
  snprintf(target, sizeof target, "within %.1fx?", kTarget);
  Row("command", "median", "min", "baseline", "median", "min", "ratio", target);

  const std::string value_line = t.value + "\n";
  const std::string line_start = t.alias + ":";
  std::vector<Job> jobs = {
      {"unitprop " + t.alias + " " + t.name,
       {commands + "/unitprop", t.alias, t.name},
       [&](const std::string &out) { return out == value_line; }},
      {"grep -m1 '^" + t.alias + ":' TABLE",
       {"grep", "-m1", "^" + t.alias + ":", t.path},
       [&](const std::string &out) { return out.compare(0, line_start.size(), line_start) == 0; }},
      {"unitlist",
       {commands + "/unitlist"},
       [&](const std::string &out) { return out == t.aliases; }},
      {"cut -d: -f1 TABLE",
       {"cut", "-d:", "-f1", t.path},
       [&](const std::string &out) { return !out.empty(); }},
  };
  std::vector<Figures> f = Measure(jobs, env, runs);
  int missed = !Compare(jobs[0], f[0], jobs[1], f[1]);
  missed += !Compare(jobs[2], f[2], jobs[3], f[3]);
  fflush(stdout);

  // unitmod rewrites its table, so it works on a copy.
  const std::string copy = temp_dir + "/copy.tab";
  WriteFile(copy, ReadFile(t.path));
  const std::vector<std::string> copy_env = Environment(copy);
  Job mod{"unitmod -m " + t.alias + " state=maintenance",
          {commands + "/unitmod", "-m", t.alias, "state=maintenance"},
          [](const std::string &out) { return out.empty(); }};
  Figures m = Measure({mod}, copy_env, runs)[0];
  const std::string out = temp_dir + "/output";
  double ms = 0;
  if (Run({commands + "/unitprop", t.alias, "state"}, copy_env, out.c_str(), &ms) != 0 ||
      ReadFile(out) != "maintenance\n")
    Die("unitmod -m did not change %s", t.alias.c_str());
  Row(mod.label, Ms(m.median), Ms(m.min), "(for information, no baseline)", "", "", "", "");
  fflush(stdout);
  unlink(copy.c_str());
  return missed;
}

void Usage() { fprintf(stderr, "usage: bench_commands [-r runs] [-t table] [commands_dir]\n"); }

}  // namespace

int main(int argc, char **argv) {
  int runs = 21;
  const char *given = nullptr;
  int opt;
  while ((opt = getopt(argc, argv, "r:t:")) != -1) {
    switch (opt) {
      case 'r': runs = atoi(optarg); break;
      case 't': given = optarg; break;
      default: Usage(); return 1;
    }
  }
  if (runs < 1 || argc - optind > 1) {
    Usage();
    return 1;
  }
  const std::string commands = optind < argc ? argv[optind] : QD_COMMANDS_DIR;
  for (const char *cmd : {"unitprop", "unitlist", "unitmod"}) {
    std::string path = commands + "/" + cmd;
    if (access(path.c_str(), X_OK) != 0) Die("no program %s", path.c_str());
  }
  const char *tmp = getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/qdbench.XXXXXX";
  if (mkdtemp(&pattern[0]) == nullptr) Die("cannot make a directory: %s", strerror(errno));
  temp_dir = pattern;

  printf("Device commands against their baselines, in ms of wall time per run:\n"
         "median and minimum of %d runs after a checked warm-up run; output to /dev/null;\n"
         "the commands find the table through TAV_DEVTAB; ratio = median / baseline median.\n",
         runs);
  fflush(stdout);
  int missed = 0;
  if (given != nullptr) {
    missed += Bench(Given(given), commands, runs);
  } else {
    for (size_t count : {size_t{10000}, size_t{100000}}) missed += Bench(Generated(count, 1), commands, runs);
  }
  if (missed == 0)
    printf("\nEvery command is within %.1fx of its baseline.\n", kTarget);
  else
    printf("\n%d of the commands' figures are NOT within %.1fx of their baselines.\n", missed,
           kTarget);
  RemoveTempDir();
  return 0;
}
