// Archive copies of objects: one file per object in a run directory named
// after the process's current time stamp.
//
// Run directories are group-writable, so a name in one may have been put
// there by someone else: the object file is opened relative to the run
// directory, neither of them through a symbolic link, and written only when
// it is a regular file with no other name.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "archive_dir.h"
#include "qd.h"

extern "C" {
char QDarchivedir[513] = "";   // this process's run directory, once built
char QDarchivepath[513] = "";  // the object file last written
}

namespace {

const char kModule[] = "QDarchive";

// An alias names one file: anything else would land outside the run directory.
bool IsFileName(const char *alias) {
  return *alias != '\0' && strchr(alias, '/') == nullptr && strcmp(alias, ".") != 0 &&
         strcmp(alias, "..") != 0;
}

const char *Reason(int err) {
  return err == ELOOP ? "a symbolic link stands there; not written through" : strerror(err);
}

// Closes a descriptor when it goes out of scope.
struct Fd {
  int fd;
  ~Fd() {
    if (fd >= 0) close(fd);
  }
};

// The object file, empty and ready for writing, or -1 with errno set.
int OpenObjectFile(int dir, const char *alias) {
  // O_NONBLOCK: a FIFO planted under the name must not hang the run.
  int fd = openat(dir, alias, O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0666);
  if (fd < 0) return -1;
  struct stat st;
  int err = 0;
  if (fstat(fd, &st) != 0)
    err = errno;
  else if (!S_ISREG(st.st_mode) || st.st_nlink != 1)
    err = EPERM;  // a device, or a hard link to some other file
  else if (ftruncate(fd, 0) != 0)
    err = errno;
  if (err != 0) {
    close(fd);
    errno = err;
    return -1;
  }
  return fd;
}

bool WriteObject(int fd, ObjectRecord *object) {
  FILE *out = fdopen(fd, "w");
  if (out == nullptr) {
    close(fd);
    return false;
  }
  fprintf(out, "%s=%s\n", "alias", object->alias);
  if (object->attributes != nullptr) KeywordListToStream(out, object->attributes);
  if (object->methods != nullptr) KeywordListToStream(out, object->methods);
  bool ok = fflush(out) == 0 && ferror(out) == 0;
  int err = errno;
  if (fclose(out) != 0 && ok) {
    ok = false;
    err = errno;
  }
  errno = err;
  return ok;
}

}  // namespace

extern "C" {

char *QD_build_archive_dir(void) {
  if (QDtimestamp.tm_mday == 0) return nullptr;
  if (QDarchivedir[0] != '\0') return QDarchivedir;
  snprintf(QDarchivepath, sizeof QDarchivepath, "%4d:%02d:%02d:%02d:%02d:%02d",
           QDtimestamp.tm_year + 1900, QDtimestamp.tm_mon + 1, QDtimestamp.tm_mday,
           QDtimestamp.tm_hour, QDtimestamp.tm_min, QDtimestamp.tm_sec);
  int n = snprintf(QDarchivedir, sizeof QDarchivedir, "%s/%s", qd::ArchiveDir(), QDarchivepath);
  if (n < 0 || static_cast<size_t>(n) >= sizeof QDarchivedir) {
    QDarchivedir[0] = '\0';
    return nullptr;
  }
  // The copies that cannot be written say so; this says why.
  if (mkdirp(QDarchivedir, 0775) != 0)
    QDtrace(3, kModule, "Cannot make archive directory '%s': %s", QDarchivedir, strerror(errno));
  return QDarchivedir;
}

int QD_archive_object(ObjectRecord *object) {
  if (object == nullptr || object->alias == nullptr) return 255;
  const char *dir = QD_build_archive_dir();
  if (dir == nullptr) return 255;
  const char *alias = object->alias;
  int n = snprintf(QDarchivepath, sizeof QDarchivepath, "%s/%s", dir, alias);
  if (n < 0 || static_cast<size_t>(n) >= sizeof QDarchivepath) {
    QDtrace(3, kModule, "Archive path for '%s' too long", alias);
    QDtrace(7, kModule, "Cannot open archive path for %s", alias);
    return 255;
  }
  QDtrace(7, kModule, "Archive path: %s", QDarchivepath);
  if (!IsFileName(alias)) {
    QDtrace(3, kModule, "Alias '%s' is not a file name; no archive copy outside %s", alias, dir);
    QDtrace(7, kModule, "Cannot open archive path for %s", alias);
    return 255;
  }
  Fd run{open(dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)};
  if (run.fd < 0) {
    QDtrace(3, kModule, "Cannot open run directory '%s': %s", dir, Reason(errno));
    QDtrace(7, kModule, "Cannot open archive path for %s", alias);
    return 255;
  }
  int fd = OpenObjectFile(run.fd, alias);
  if (fd < 0) {
    QDtrace(3, kModule, "Cannot open archive file '%s': %s", QDarchivepath,
            errno == EPERM ? "not a regular file of its own; not written through" : Reason(errno));
    QDtrace(7, kModule, "Cannot open archive path for %s", alias);
    return 255;
  }
  QDtrace(7, kModule, "Archiving %s", alias);
  if (!WriteObject(fd, object)) {
    QDtrace(3, kModule, "Cannot write archive file '%s': %s", QDarchivepath, strerror(errno));
    unlinkat(run.fd, alias, 0);  // a cut copy would pass for the object
    return 255;
  }
  return 0;
}

}  // extern "C"
