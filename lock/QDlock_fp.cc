// The file-pointer lock: the table lock, then a record lock on the table
// file itself with a stream on it for the callers that read or rewrite the
// file directly.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "devtab_file.h"
#include "lock_state.h"
#include "qd.h"

using qdlock::file;

FILE *QDlock_fptr = nullptr;  // declared extern "C" in qd.h

namespace {

const char kOrigin[] = "QDlock_fp";

void CloseFile() {
  // fclose closes the descriptor too; the stream is not left behind.
  if (QDlock_fptr != nullptr)
    fclose(QDlock_fptr);
  else if (file.fd >= 0)
    close(file.fd);
  if (file.read_only != nullptr) fclose(file.read_only);
  file.read_only = nullptr;
  QDlock_fptr = nullptr;
  file.fd = -1;
  file.writable = false;
}

void TraceCounters(const char *origin) {
  QDtrace(8, origin, "read_lock_count  = %d", file.read_lock_count);
  QDtrace(8, origin, "write_lock_count = %d", file.write_lock_count);
  QDtrace(8, origin, "lock_counter     = %d", file.lock_counter);
}

bool OpenFile(bool write) {
  do file.fd = open(file.file, (write ? O_RDWR : O_RDONLY) | O_CREAT | O_CLOEXEC, 0666);
  while (file.fd < 0 && errno == EINTR);
  if (file.fd < 0) return false;
  QDlock_fptr = fdopen(file.fd, write ? "a+" : "r");
  if (QDlock_fptr == nullptr) {
    close(file.fd);
    file.fd = -1;
  }
  file.writable = write && QDlock_fptr != nullptr;
  return QDlock_fptr != nullptr;
}

// A write lock needs a descriptor open for writing. Converting a read lock
// therefore locks through a second, read-write descriptor of the same file
// (record locks belong to the process, so this converts ours); the read
// stream stays open until the release, since closing it would drop the lock.
bool OpenForConversion() {
  FILE *read_stream = QDlock_fptr;
  int read_fd = file.fd;
  QDlock_fptr = nullptr;
  if (!OpenFile(true)) {
    QDlock_fptr = read_stream;
    file.fd = read_fd;
    return false;
  }
  file.read_only = read_stream;
  return true;
}

// True when the open descriptor is still the file the path names.
bool SameFile() {
  struct stat by_fd, by_path;
  return fstat(file.fd, &by_fd) == 0 && stat(file.file, &by_path) == 0 &&
         by_fd.st_ino == by_path.st_ino && by_fd.st_dev == by_path.st_dev;
}

// Step 4: open and lock. Returns 0, or the errno of the failed request (-1
// when no request failed).
int Acquire(bool write) {
  struct flock request {};
  request.l_type = write ? F_WRLCK : F_RDLCK;
  request.l_whence = SEEK_SET;
  for (;;) {
    if (file.fd == -1) {
      OpenFile(write);
    } else if (write && !file.writable && !OpenForConversion()) {
      QDtrace(3, "QDlock", "open failed, errno=%d", errno);
      return -1;  // the read lock we hold stays as it was
    }
    if (QDlock_fptr == nullptr) {
      QDtrace(3, "QDlock", "open failed, errno=%d", errno);
      return -1;
    }
    devtab::sys::Point("table-opened");
    struct flock fl = request;
    if (fcntl(file.fd, F_SETLK, &fl) == 0) {
      // The table may have been replaced between our open and our lock.
      if (file.lock_counter == 0 && !SameFile()) {
        CloseFile();
        continue;
      }
      QDtrace(8, kOrigin, "File lock successful");
      return 0;
    }
    int err = errno;
    if (err != EAGAIN && err != EACCES) {
      QDtrace(3, kOrigin, "F_SETLK failed");
      CloseFile();
      return err;
    }
    QDtrace(8, kOrigin, "File busy, attempt waiting lock");
    fl = request;
    int rc;
    do rc = fcntl(file.fd, F_SETLKW, &fl);
    while (rc != 0 && errno == EINTR);
    if (rc != 0) {
      err = errno;
      QDtrace(3, kOrigin, "F_SETLKW failed");
      CloseFile();
      return err;
    }
    // Granted: start over on a fresh descriptor, so that we lock the file
    // the path names now that the holder has let go.
    CloseFile();
  }
}

}  // namespace

namespace qdlock {

bool AdoptReplacement(int fd) {
  if (file.fd < 0 || !file.writable) return false;
  FILE *stream = fdopen(fd, "a+");
  if (stream == nullptr) return false;
  // Closing the old file drops our locks on it; the new one is locked already.
  CloseFile();
  file.fd = fd;
  file.writable = true;
  QDlock_fptr = stream;
  return true;
}

}  // namespace qdlock

extern "C" {

int QDlock_fp(int mode) {
  if (QDlock(mode) != 0) {
    QDtrace(5, kOrigin, "Cannot lock:  QDlock() unavailable");
    return -1;
  }
  bool write = (mode & QDWRITE) != 0;
  if (file.lock_counter <= 0) {
    char *path = _pdevtabpath();
    bool fits = path != nullptr && strlen(path) < sizeof file.file;
    if (fits) strcpy(file.file, path);
    free(path);
    if (!fits) {
      QDtrace(3, kOrigin, "device table path too long");
      QDunlock(mode);  // a failed file lock leaves no table lock behind
      return -1;
    }
    QDtrace(8, kOrigin, "Device table/Lock file pathname:   '%s'", file.file);
  }
  // Nested: covered requests only count. (They keep the table lock they
  // took, so that every file lock owns one table lock of its kind.)
  int &same_kind = write ? file.write_lock_count : file.read_lock_count;
  if (same_kind > 0) {
    if (mode & QDLOCK_TEST) return 0;
    ++same_kind;
    ++file.lock_counter;
    QDtrace(8, kOrigin, write ? "write_lock_count = %d" : "read_lock_count  = %d", same_kind);
    QDtrace(8, kOrigin, "lock_counter     = %d", file.lock_counter);
    return 0;
  }
  int failure;
  {
    qdlock::SigintHold hold;
    failure = Acquire(write);
  }
  if (failure != 0) {
    QDtrace(3, kOrigin, "Lock failed, type=%d, errno=%d", write ? 2 : 1, failure);
    // The stream goes only with the descriptor: a failed conversion leaves
    // the file locks already held, and their stream, as they were.
    if (file.fd < 0) QDlock_fptr = nullptr;
    QDunlock(mode);
    return -1;
  }
  if (write)
    ++file.write_lock_count;
  else
    ++file.read_lock_count;
  ++file.lock_counter;
  QDtrace(8, kOrigin, "successfully gained a %s lock", write ? "write" : "read");
  TraceCounters(kOrigin);
  return 0;
}

int QDunlock_fp(int mode) {
  if (file.fd < 0) {
    QDtrace(4, "QDlock", "file lock has not been obtained yet");
    return -1;
  }
  bool write = (mode & QDWRITE) != 0;
  qdlock::SigintHold hold;
  if (write && file.write_lock_count > 0) --file.write_lock_count;
  if (!write && file.read_lock_count > 0) --file.read_lock_count;
  if (file.lock_counter > 0) --file.lock_counter;
  TraceCounters("QDunlock_fp");
  if (file.lock_counter > 0) {
    // Every file lock took one table lock of its own kind: give back the
    // kind the caller names, so the table counts reach 0 with the last one.
    if (QDunlock(mode) != 0)
      QDtrace(5, kOrigin, "QDunlock(%s) failed", write ? "QDWRITE" : "QDREAD");
    QDtrace(8, "QDunlock_fp", "leaving lock on until counter=0");
    return 0;
  }
  CloseFile();
  QDtrace(8, "QDunlock_fp", "successfully released all locks");
  if (QDunlock(mode) != 0)
    QDtrace(5, kOrigin, "QDunlock(%s) failed", write ? "QDWRITE" : "QDREAD");
  return 0;
}

}  // extern "C"
