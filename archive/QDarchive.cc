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
#include <string>

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

// The run directory, held open between copies: a run writes thousands of
// them. A directory built afresh is opened afresh; one held open is still
// ours even if its name is taken over meanwhile.
struct RunDirectory {
  std::string path;
  int fd = -1;
  void Forget() {
    if (fd >= 0) close(fd);
    fd = -1;
    path.clear();
  }
  int Open(const char *dir) {
    if (fd >= 0 && path == dir) return fd;
    Forget();
    fd = open(dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd >= 0) path = dir;
    return fd;
  }
};
RunDirectory run_directory;

// The object file, empty and ready for writing, or -1 with errno set.
int OpenObjectFile(int dir, const char *alias) {
  // The usual case: a name new in this run, so a file of our own.
  int fd = openat(dir, alias, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
  if (fd >= 0 || errno != EEXIST) return fd;
  // O_NONBLOCK: a FIFO planted under the name must not hang the run.
  fd = openat(dir, alias, O_WRONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return -1;
  struct stat st;
  int err = 0;
  if (fstat(fd, &st) != 0)
    err = errno;
  else if (!S_ISREG(st.st_mode) || st.st_nlink != 1)
    err = EPERM;  // a device, or a hard link to some other file
  else if (st.st_size != 0 && ftruncate(fd, 0) != 0)  // ext4 syncs a file cut to 0 on close
    err = errno;
  if (err != 0) {
    close(fd);
    errno = err;
    return -1;
  }
  return fd;
}

ssize_t Append(void *text, const char *buf, size_t size) {
  static_cast<std::string *>(text)->append(buf, size);
  return static_cast<ssize_t>(size);
}

// The file's content, built in memory so that it reaches the file in one
// write: "alias=" line, attributes, methods. One stream serves every copy
// of the process (a run makes thousands).
const std::string *FormatObject(ObjectRecord *object) {
  // Never destroyed: stdio may still touch its stream at exit.
  static std::string &text = *new std::string;
  static FILE *out = nullptr;
  if (out == nullptr) {
    cookie_io_functions_t io = {nullptr, Append, nullptr, nullptr};
    if ((out = fopencookie(&text, "w", io)) == nullptr) return nullptr;
  }
  text.clear();
  clearerr(out);
  fprintf(out, "%s=%s\n", "alias", object->alias);
  if (object->attributes != nullptr) KeywordListToStream(out, object->attributes);
  if (object->methods != nullptr) KeywordListToStream(out, object->methods);
  return fflush(out) == 0 && ferror(out) == 0 ? &text : nullptr;
}

bool WriteAll(int fd, const std::string &text) {
  for (size_t done = 0; done < text.size();) {
    ssize_t n = write(fd, text.data() + done, text.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
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
  run_directory.Forget();
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
  int run = run_directory.Open(dir);
  if (run < 0) {
    QDtrace(3, kModule, "Cannot open run directory '%s': %s", dir, Reason(errno));
    QDtrace(7, kModule, "Cannot open archive path for %s", alias);
    return 255;
  }
  int fd = OpenObjectFile(run, alias);
  if (fd < 0) {
    QDtrace(3, kModule, "Cannot open archive file '%s': %s", QDarchivepath,
            errno == EPERM ? "not a regular file of its own; not written through" : Reason(errno));
    QDtrace(7, kModule, "Cannot open archive path for %s", alias);
    return 255;
  }
  QDtrace(7, kModule, "Archiving %s", alias);
  const std::string *text = FormatObject(object);
  bool written = text != nullptr && WriteAll(fd, *text);
  int err = errno;
  if (close(fd) != 0 && written) {
    written = false;
    err = errno;
  }
  if (!written) {
    errno = err;
    QDtrace(3, kModule, "Cannot write archive file '%s': %s", QDarchivepath, strerror(errno));
    unlinkat(run, alias, 0);  // a cut copy would pass for the object
    return 255;
  }
  return 0;
}

}  // extern "C"
