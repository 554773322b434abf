// unitprop - print attributes of a device table entry.
//
//   unitprop [-t TABLE] [--] ALIAS NAME   the value of NAME
//   unitprop [-t TABLE] -v [--] ALIAS     every keyword as name='value'
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "common.h"

using namespace unitcmd;

namespace {

void Usage() {
  fprintf(stderr,
          "usage: unitprop [-t table] alias name\n"
          "       unitprop [-t table] -v alias\n");
}

void PrintValue(const std::string &value) {
  fwrite(value.data(), 1, value.size(), stdout);
  fputc('\n', stdout);
}

void PrintAll(const devtab::Entry &e) {
  auto line = [](const char *name, const std::string &value) {
    fputs(name, stdout);
    fputs("='", stdout);
    fwrite(value.data(), 1, value.size(), stdout);
    fputs("'\n", stdout);
  };
  line("alias", e.alias);
  for (int i = 0; i < 3; ++i) line(devtab::kPositionalNames[i], e.positional[i]);
  for (size_t i = 0; i < e.npairs; ++i) line(e.pairs[i].name.c_str(), e.pairs[i].value);
}

// The value of `name` in `e`, or nullptr.
const std::string *Lookup(const devtab::Entry &e, const char *name) {
  if (strcmp(name, "alias") == 0) return &e.alias;
  for (int i = 0; i < 3; ++i)
    if (strcmp(name, devtab::kPositionalNames[i]) == 0) return &e.positional[i];
  size_t i = e.Find(name);
  return i < e.npairs ? &e.pairs[i].value : nullptr;
}

// The first well-formed entry of the table whose alias is `alias`.
// A read error mid-way counts as a table that cannot be read (*error set).
bool Find(devtab::TableReader *table, const char *alias, devtab::Entry *entry, int *error) {
  std::string spelt;
  devtab::AppendEscapedAlias(&spelt, alias);
  devtab::EntryStream stream(table);
  devtab::RawEntry raw;
  while (stream.Next(&raw)) {
    if (devtab::AliasIs(raw.text, alias, spelt) &&
        devtab::ParseEntry(raw.text, entry) == devtab::Defect::kNone)
      return true;
  }
  *error = stream.error();
  return false;
}

}  // namespace

int main(int argc, char **argv) {
  program = "unitprop";
  const char *table = nullptr;
  bool all = false;
  int opt;
  while ((opt = getopt(argc, argv, "+t:v")) != -1) {
    switch (opt) {
      case 't': table = optarg; break;
      case 'v': all = true; break;
      default: Usage(); return kUsage;
    }
  }
  int rest = argc - optind;
  if (rest != (all ? 1 : 2)) {
    Usage();
    return kUsage;
  }
  const char *alias = argv[optind];
  std::string path = TablePath(table);
  devtab::TableReader reader;
  if (!OpenTable(path, &reader)) return kNoTable;
  devtab::Entry entry;
  int error = 0;
  if (!Find(&reader, alias, &entry, &error)) {
    if (error != 0) {
      Fail("cannot read %s: %s", path.c_str(), strerror(error));
      return kNoTable;
    }
    Fail("no entry for alias %s", alias);
    return kNoEntry;
  }
  if (all) {
    PrintAll(entry);
  } else {
    const char *name = argv[optind + 1];
    const std::string *value = Lookup(entry, name);
    if (value == nullptr) {
      Fail("%s has no attribute %s", alias, name);
      return kExistsOrName;
    }
    PrintValue(*value);
  }
  if (fflush(stdout) != 0) return kWriteFailed;
  return kOk;
}
