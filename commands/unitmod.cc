// unitmod - add, modify or delete a device table entry.
//
//   unitmod -a|-m|-d [-t TABLE] [--] ALIAS [NAME=VALUE ...]
//
// The table file is locked (fcntl, on the file itself) for the whole change
// and replaced by a rename, so readers and a crash at any moment see either
// the old table or the new one. Lines we cannot parse are carried over as
// they stand; only the entry being changed is rewritten.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common.h"

using namespace unitcmd;

namespace {

enum class Mode { kNone, kAdd, kModify, kDelete };

struct Change {
  std::string name;
  std::string value;
};

void Usage() {
  fprintf(stderr,
          "usage: unitmod -a [-t table] alias [name=value ...]\n"
          "       unitmod -m [-t table] alias [name=value ...]\n"
          "       unitmod -d [-t table] alias\n");
}

int PositionalIndex(const std::string &name) {
  for (int i = 0; i < 3; ++i)
    if (name == devtab::kPositionalNames[i]) return i;
  return -1;
}

// Checks the arguments; false (after saying why) when one cannot be written.
bool ParseChanges(const char *alias, char **args, int n, std::vector<Change> *out) {
  if (const char *why = devtab::CheckAlias(alias)) {
    Fail("%s: %s", why, alias);
    return false;
  }
  for (int i = 0; i < n; ++i) {
    const char *eq = strchr(args[i], '=');
    if (eq == nullptr) {
      Fail("not a name=value pair: %s", args[i]);
      return false;
    }
    Change c{std::string(args[i], static_cast<size_t>(eq - args[i])), eq + 1};
    const char *why = devtab::CheckKeyword(c.name);
    if (why == nullptr) why = devtab::CheckValue(c.value);
    // The positional fields are read with the shorter limit of names.
    if (why == nullptr && PositionalIndex(c.name) >= 0 && c.value.size() > devtab::kMaxNameLength)
      why = "positional field too long";
    if (why != nullptr) {
      Fail("%s: %s", why, args[i]);
      return false;
    }
    if (c.name == "alias") {
      // The alias names the entry; it is not stored as a pair.
      if (c.value != alias) {
        Fail("alias=%s conflicts with the alias argument %s", c.value.c_str(), alias);
        return false;
      }
      continue;
    }
    out->push_back(std::move(c));
  }
  return true;
}

void Apply(const std::vector<Change> &changes, devtab::Entry *e) {
  for (const Change &c : changes) {
    int pos = PositionalIndex(c.name);
    if (pos >= 0) {
      e->positional[pos] = c.value;
      continue;
    }
    size_t i = e->Find(c.name);
    if (i < e->npairs) {
      e->pairs[i].value = c.value;
    } else {
      devtab::Pair &p = e->AddPair();
      p.name = c.name;
      p.value = c.value;
    }
  }
}

// The table's new content, or a status when the change cannot be made.
int Rewrite(Mode mode, std::string_view old, const char *alias,
            const std::vector<Change> &changes, std::string *content) {
  devtab::RawEntry raw;
  devtab::Entry entry;
  bool found = devtab::FindEntry(old, alias, &raw, &entry);
  if (mode == Mode::kAdd) {
    if (found) {
      Fail("an entry for %s exists already", alias);
      return kExistsOrName;
    }
    entry = devtab::Entry();
    entry.alias = alias;
    Apply(changes, &entry);
    content->reserve(old.size() + 256);
    content->assign(old);
    if (!content->empty() && content->back() != '\n') content->push_back('\n');
    devtab::FormatEntry(entry, content);
    return kOk;
  }
  if (!found) {
    Fail("no entry for alias %s", alias);
    return kNoEntry;
  }
  size_t end = raw.offset + raw.text.size();
  size_t after = end < old.size() ? end + 1 : end;  // past its newline
  content->reserve(old.size() + 256);
  content->assign(old.substr(0, raw.offset));
  if (mode == Mode::kModify) {
    Apply(changes, &entry);
    devtab::FormatEntry(entry, content);
  }
  content->append(old.substr(after));
  return kOk;
}

}  // namespace

int main(int argc, char **argv) {
  program = "unitmod";
  Mode mode = Mode::kNone;
  const char *table = nullptr;
  int opt;
  while ((opt = getopt(argc, argv, "+amdt:")) != -1) {
    Mode chosen = Mode::kNone;
    switch (opt) {
      case 'a': chosen = Mode::kAdd; break;
      case 'm': chosen = Mode::kModify; break;
      case 'd': chosen = Mode::kDelete; break;
      case 't': table = optarg; continue;
      default: Usage(); return kUsage;
    }
    if (mode != Mode::kNone && mode != chosen) {
      Fail("give one of -a, -m and -d");
      return kUsage;
    }
    mode = chosen;
  }
  if (mode == Mode::kNone || optind >= argc || (mode == Mode::kDelete && argc - optind != 1)) {
    Usage();
    return kUsage;
  }
  const char *alias = argv[optind];
  std::vector<Change> changes;
  if (!ParseChanges(alias, argv + optind + 1, argc - optind - 1, &changes)) return kUsage;

  std::string path = TablePath(table);
  devtab::LockedTable locked;
  int err = locked.Open(path, mode == Mode::kAdd);
  if (err == ENOENT) {
    Fail("no table %s", path.c_str());
    return kNoTable;
  }
  if (err != 0) {
    Fail("cannot lock %s: %s", path.c_str(), strerror(err));
    return err == EACCES || err == EPERM ? kNoTable : kWriteFailed;
  }
  devtab::Image image;
  if ((err = image.LoadFd(locked.fd())) != 0) {
    Fail("cannot read %s: %s", path.c_str(), strerror(err));
    return kNoTable;
  }
  std::string content;
  int status = Rewrite(mode, image.view(), alias, changes, &content);
  if (status != kOk) return status;
  if ((err = locked.Replace(content)) != 0) {
    Fail("cannot write %s: %s; the table is unchanged", path.c_str(), strerror(err));
    return kWriteFailed;
  }
  return kOk;
}
