// Removing run directories older than the expiration date.
//
// Run directories are group-writable and the archive may hold things that
// are not ours: only entries named exactly like a run directory are
// considered, every directory is opened without following a symbolic link,
// and files go with unlinkat, which removes a link and never its target.
// The process's working directory is never changed.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "archive_dir.h"
#include "qd.h"

namespace {

const char kModule[] = "QDarchive";

// Unlinks every entry of the open directory `fd` but "." and ".." (a
// subdirectory stays); `shown` is its path in the traces. Takes over fd.
void RemoveFiles(int fd, const std::string &shown) {
  DIR *dir = fdopendir(fd);
  if (dir == nullptr) {
    close(fd);
    QDtrace(4, kModule, "Cannot open archive directory");
    return;
  }
  while (dirent *e = readdir(dir)) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    QDtrace(7, kModule, "Attempting to remove file: %s/%s", shown.c_str(), e->d_name);
    unlinkat(dirfd(dir), e->d_name, 0);
  }
  closedir(dir);
}

// The stamp a run directory's name stands for; false when the name is not one.
bool RunDirectoryStamp(const char *name, struct tm *stamp) {
  if (!qd::IsRunDirectoryName(name)) return false;
  *stamp = {};
  sscanf(name, "%4d:%2d:%2d:%2d:%2d:%2d", &stamp->tm_year, &stamp->tm_mon, &stamp->tm_mday,
         &stamp->tm_hour, &stamp->tm_min, &stamp->tm_sec);
  stamp->tm_year -= 1900;
  stamp->tm_mon -= 1;
  return true;
}

void RemoveRunDirectory(int archive, const char *name, const std::string &path) {
  QDtrace(7, kModule, "Directory '%s' expired", name);
  QDtrace(7, kModule, "Removing dir and contents");
  int fd = openat(archive, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) {
    // A symbolic link or a file under a run directory's name: not ours.
    QDtrace(4, kModule, "'%s' is not a run directory (%s); left alone", path.c_str(),
            strerror(errno));
    return;
  }
  RemoveFiles(fd, path);
  if (unlinkat(archive, name, AT_REMOVEDIR) == 0)
    QDtrace(7, kModule, "Directory '%s' removed", name);
  else
    QDtrace(7, kModule, "Directory '%s' not removed, errno = %d", name, errno);
}

void CleanArchive(const char *root) {
  int fd = open(root, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  DIR *dir = fd >= 0 ? fdopendir(fd) : nullptr;
  if (dir == nullptr) {
    if (fd >= 0) close(fd);
    QDtrace(3, kModule, "Cannot open archive dir '%s'", root);
    return;
  }
  QDtrace(3, kModule, "Current directory is '%s'", root);
  while (dirent *e = readdir(dir)) {
    QDtrace(7, kModule, "Directory name: %s", e->d_name);
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    struct tm stamp;
    if (!RunDirectoryStamp(e->d_name, &stamp)) {
      QDtrace(4, kModule, "Corrupt archive directory name '%s'", e->d_name);
      continue;
    }
    QDtrace(7, kModule, "Archive directory name valid");
    if (QDcomparestamps(stamp, QDexpirationdate) < 0)
      RemoveRunDirectory(dirfd(dir), e->d_name, std::string(root) + "/" + e->d_name);
    else
      QDtrace(7, kModule, "Directory '%s' not expired", e->d_name);
  }
  closedir(dir);
}

}  // namespace

extern "C" {

int QD_cleanup_archive_dir(void) {
  QDtrace(7, kModule, "QD_cleanup_archive_dir()");
  if (QDtimestamp.tm_mday == 0) {
    QDtrace(7, kModule, "Timestamping not active; no cleanup performed");
    return 0;
  }
  // A date that could not be computed now must not be one left from before.
  if (QDset_expiration_date() != 0 || QDexpirationdate.tm_mday == 0) {
    QDtrace(7, kModule, "Expiration date not active; no cleanup performed");
    return 0;
  }
  CleanArchive(qd::ArchiveDir());
  return 0;
}

int QD_rmfiles(const char *path) {
  int fd = path != nullptr ? open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC) : -1;
  if (fd < 0) {
    QDtrace(4, kModule, "Cannot open archive directory");
    return -1;
  }
  RemoveFiles(fd, path);
  return 0;
}

}  // extern "C"
