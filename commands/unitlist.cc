// unitlist - list the aliases of the device table.
//
//   unitlist [-t TABLE] [-a] [CRITERION ...]
//
// A criterion is attr=value, attr!=value, attr:pattern or attr!:pattern
// (pattern as in the shell: attr:* holds when attr is defined). Without
// criteria every alias is listed; with them, the entries that meet any of
// them, or all of them with -a. Aliases come in table order, one a line.
#include <fnmatch.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common.h"

using namespace unitcmd;

namespace {

enum class Op { kEquals, kMatches };

struct Criterion {
  std::string attr;
  Op op;
  bool negated;
  std::string operand;
};

void Usage() { fprintf(stderr, "usage: unitlist [-t table] [-a] [attr=value | attr!=value | attr:pattern | attr!:pattern ...]\n"); }

// The operator is the first '=' or ':' (with a '!' just before it).
bool ParseCriterion(const char *text, Criterion *out) {
  const char *op = strpbrk(text, "=:");
  if (op == nullptr || op == text) return false;
  out->op = *op == '=' ? Op::kEquals : Op::kMatches;
  out->negated = op[-1] == '!';
  out->attr.assign(text, static_cast<size_t>(op - text) - (out->negated ? 1 : 0));
  out->operand = op + 1;
  return !out->attr.empty();
}

bool Holds(const Criterion &c, const std::string &value) {
  if (c.op == Op::kEquals) return value == c.operand;
  return fnmatch(c.operand.c_str(), value.c_str(), 0) == 0;
}

// True when some value of the attribute meets the criterion's positive form.
bool AnyValueHolds(const Criterion &c, const devtab::Entry &e) {
  if (c.attr == "alias") return Holds(c, e.alias);
  for (int i = 0; i < 3; ++i)
    if (c.attr == devtab::kPositionalNames[i]) return Holds(c, e.positional[i]);
  for (size_t i = 0; i < e.npairs; ++i)
    if (e.pairs[i].name == c.attr && Holds(c, e.pairs[i].value)) return true;
  return false;
}

bool Meets(const std::vector<Criterion> &criteria, bool all, const devtab::Entry &e) {
  for (const Criterion &c : criteria) {
    bool holds = AnyValueHolds(c, e) != c.negated;
    if (holds && !all) return true;
    if (!holds && all) return false;
  }
  return all;
}

}  // namespace

int main(int argc, char **argv) {
  program = "unitlist";
  const char *table = nullptr;
  bool all = false;
  int opt;
  while ((opt = getopt(argc, argv, "+t:a")) != -1) {
    switch (opt) {
      case 't': table = optarg; break;
      case 'a': all = true; break;
      default: Usage(); return kUsage;
    }
  }
  std::vector<Criterion> criteria;
  for (int i = optind; i < argc; ++i) {
    Criterion c;
    if (!ParseCriterion(argv[i], &c)) {
      Fail("not a criterion: %s", argv[i]);
      Usage();
      return kUsage;
    }
    criteria.push_back(std::move(c));
  }
  std::string path = TablePath(table);
  devtab::TableReader reader;
  if (!OpenTable(path, &reader)) return kNoTable;

  static char outbuf[1 << 16];
  setvbuf(stdout, outbuf, _IOFBF, sizeof outbuf);
  devtab::EntryStream stream(&reader);
  devtab::RawEntry raw;
  devtab::Entry entry;
  while (stream.Next(&raw)) {
    // Without criteria only the alias is kept, but the entry is still checked.
    devtab::Defect d = criteria.empty() ? devtab::ParseAlias(raw.text, &entry.alias)
                                        : devtab::ParseEntry(raw.text, &entry);
    if (d != devtab::Defect::kNone) {
      ReportDefect(path, raw, d);
      continue;
    }
    if (!criteria.empty() && !Meets(criteria, all, entry)) continue;
    fwrite(entry.alias.data(), 1, entry.alias.size(), stdout);
    fputc('\n', stdout);
  }
  if (stream.error() != 0) {
    Fail("cannot read %s: %s", path.c_str(), strerror(stream.error()));
    return kNoTable;
  }
  if (fflush(stdout) != 0) return kWriteFailed;
  return kOk;
}
