// qdadm status, expire and archive: what the time stamps make of the
// table's entries, and the archive's run directories.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <set>

#include "archive_dir.h"
#include "commands.h"

namespace qdadm {

namespace {

using Names = std::set<std::string>;

// The process's stamp from QD_TIMESTAMP: 0 when it is set; otherwise the
// exit status, after saying why (`needed`: a command that cannot do without).
int SetStamp(bool needed) {
  int rc = QDsettime(QD_TS_ENV, nullptr);
  if (rc == 254) {
    Say("QD_TIMESTAMP is not a time stamp value: %s", getenv("QD_TIMESTAMP"));
    return rc;
  }
  if (QDtimestamp.tm_mday != 0) return 0;
  Say("timestamping is off (QD_TIMESTAMP unset or \"0\")%s",
      needed ? ": set it (empty for now, or a stamp value)" : ": every entry counts as active");
  return needed ? (rc != 0 ? rc : 242) : 0;
}

std::string Readable(const struct tm &stamp) {
  char text[64] = "";
  if (stamp.tm_mday != 0) strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &stamp);
  return text;
}

std::string ValueText(const struct tm &stamp) {
  char text[32];
  QDtm2value(stamp, text);
  return text;
}

Names AllAliases() {
  AliasList *list = QDgetaliases(nullptr);
  std::vector<std::string> v = ToVector(list);
  QDFreeAliasList(list);
  return Names(v.begin(), v.end());
}

// Entries of an open directory; `keep` decides on each (name, type).
template <typename Keep>
Names Entries(int fd, Keep keep) {
  Names out;
  DIR *dir = fd >= 0 ? fdopendir(fd) : nullptr;
  if (dir == nullptr) {
    if (fd >= 0) close(fd);
    return out;
  }
  while (dirent *e = readdir(dir)) {
    struct stat st;
    if (fstatat(dirfd(dir), e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && keep(e->d_name, st))
      out.insert(e->d_name);
  }
  closedir(dir);
  return out;
}

int OpenDir(const std::string &path) { return open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }

Names RunDirectories() {
  return Entries(open(qd::ArchiveDir(), O_RDONLY | O_DIRECTORY | O_CLOEXEC),
                 [](const char *name, const struct stat &st) {
                   return S_ISDIR(st.st_mode) && qd::IsRunDirectoryName(name);
                 });
}

Names ObjectFiles(const std::string &run) {
  return Entries(OpenDir(run), [](const char *, const struct stat &st) { return S_ISREG(st.st_mode); });
}

std::vector<std::string> Minus(const Names &a, const Names &b) {
  std::vector<std::string> out;
  std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(out));
  return out;
}

int ListRuns(Output &out) {
  std::vector<Pairs> rows;
  std::string root = qd::ArchiveDir();
  for (const std::string &name : RunDirectories()) {
    struct tm t = {};
    strptime(name.c_str(), "%Y:%m:%d:%H:%M:%S", &t);
    rows.push_back({{"directory", name},
                    {"time", Readable(t)},
                    {"objects", std::to_string(ObjectFiles(root + "/" + name).size())}});
  }
  out.Records(rows);
  return 0;
}

int Clean(Output &out) {
  if (int rc = SetStamp(true)) return rc;
  Names before = RunDirectories();
  QD_cleanup_archive_dir();
  if (QDexpirationdate.tm_mday == 0) {
    Say("no expiration date: nothing removed");
    return 255;
  }
  out.Report({{"expiration", Readable(QDexpirationdate)}}, {{"removed", Minus(before, RunDirectories())}});
  return 0;
}

// Archives all stale entries, or the listed ones, and tells what left the
// table: with a copy (archived) or without (expired, or its copy failed).
int Run(Output &out, const Args &a) {
  bool all = a[0] == "--all";
  if (all && a.size() > 1) {
    Say("--all takes no aliases");
    return kBadArguments;
  }
  if (int rc = SetStamp(true)) return rc;
  Names before = AllAliases();
  AliasList *list = all ? nullptr : ToAliasList(a);
  int rc = QDArchive(all ? QD_ARCH_ALL : QD_ARCH_LIST, &list);
  std::vector<std::string> kept = ToVector(list);
  QDFreeAliasList(list);
  std::string run = QDarchivedir;
  Names files = run.empty() ? Names() : ObjectFiles(run);
  Names after = AllAliases();
  std::vector<std::string> archived, expired;
  for (const std::string &alias : Minus(before, after))
    (files.count(alias) != 0 ? archived : expired).push_back(alias);
  size_t stayed = all ? kept.size() : static_cast<size_t>(std::count_if(a.begin(), a.end(), [&](const std::string &s) {
    return after.count(s) != 0;
  }));
  out.Report({{"directory", run}, {"kept", std::to_string(stayed)}}, {{"archived", archived}, {"expired", expired}});
  if (rc == 254) Say("%s", "an alias given is not in the table");
  else if (rc == 255) Say("%s", "not everything could be archived: the entries concerned stay in the table");
  return rc == 245 ? 0 : rc;
}

}  // namespace

int Status(Output &out, const Args &a) {
  if (int rc = SetStamp(false)) return rc;
  std::vector<Pairs> rows;
  int result = 0;
  for (const std::string &alias : a) {
    ObjectRecord *o = QDgetobj(alias.c_str());
    if (o == nullptr) {
      Say("no entry for %s", alias.c_str());
      result = kNoEntry;
      continue;
    }
    char *kw;
    char *stamp = nullptr;
    ReferenceKeywordInList(o->attributes, "ObjTimestamp", &kw, &stamp);
    std::string value = stamp != nullptr ? stamp : "";
    rows.push_back({{"alias", alias},
                    {"status", QDobjectstatus(o) == OBJ_ACTIVE ? "active" : "stale"},
                    {"stamp", value},
                    {"time", value.empty() ? "" : Readable(QDvalue2tm(value.c_str()))}});
    QDfreeobj(o);
  }
  out.Records(rows);
  return result;
}

int Expire(Output &out, const Args &) {
  if (int rc = SetStamp(true)) return rc;
  if (QDset_expiration_date() != 0) {
    Say("the current stamp %s is not a calendar date", QDstampstring);
    return 255;
  }
  const char *days = getenv("QD_EXPIRATION");
  out.Fields({{"stamp", QDstampstring},
              {"days", days != nullptr ? days : "7"},
              {"expiration", ValueText(QDexpirationdate)},
              {"time", Readable(QDexpirationdate)}});
  return 0;
}

int Archive(Output &out, const Args &a) {
  if (a[0] == "--list" || a[0] == "--clean") {
    if (a.size() > 1) {
      Say("%s takes no further arguments", a[0].c_str());
      return kBadArguments;
    }
    return a[0] == "--list" ? ListRuns(out) : Clean(out);
  }
  if (a[0].rfind("--", 0) == 0 && a[0] != "--all") {
    Say("not an archive option (--all, --list or --clean): %s", a[0].c_str());
    return kBadArguments;
  }
  return Run(out, a);
}

}  // namespace qdadm
