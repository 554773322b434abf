// The table lock: one fcntl record lock on a lock file beside the table,
// counted within the process, with a short log of acquisitions and releases
// in the file. See lock_state.h for the fcntl traps this code lives with.
#include <fcntl.h>
#include <libgen.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "lock_state.h"
#include "qd.h"

using qdlock::table;

namespace {

const char kLock[] = "QDlock";
const char kUnlock[] = "QDunlock";

// Set while a release tries for the write lock that allows removing the lock
// file: a refusal must not close the descriptor, since the release still
// appends its record to the file.
bool removal_attempt = false;

void SetUtility() {
  table.utility = (vcel_argv != nullptr && vcel_argv[0] != nullptr) ? vcel_argv[0] : "unknown";
}

// "%s/.%s" of the table's directory and base name. False when it does not
// fit the path buffer (nothing is cut: a cut path would lock another file).
bool FormPath() {
  char *tab = _pdevtabpath();
  if (tab == nullptr) return false;
  QDtrace(8, kLock, "Device table pathname: '%s'", tab);
  std::string for_dir(tab), for_base(tab);
  free(tab);
  const char *dir = dirname(&for_dir[0]);
  const char *base = basename(&for_base[0]);
  int n = snprintf(table.path, sizeof table.path, "%s/.%s", dir, base);
  if (n < 0 || static_cast<size_t>(n) >= sizeof table.path) {
    QDtrace(3, kLock, "lock file path too long for table in '%s'", dir);
    table.path[0] = '\0';
    return false;
  }
  return true;
}

// The record line, with the program name cut so the line always fits whole.
void FormRecord(const char *what, bool write) {
  char tail[48];
  snprintf(tail, sizeof tail, ":%d:%s:%s\n", static_cast<int>(getpid()), what,
           write ? "write" : "read");
  size_t room = sizeof table.info - strlen("QDlock:") - strlen(tail) - 1;
  snprintf(table.info, sizeof table.info, "QDlock:%.*s%s", static_cast<int>(room), table.utility,
           tail);
}

void AppendRecord() {
  if (lseek(table.fd, 0, SEEK_END) < 0) return;
  ssize_t ignored = write(table.fd, table.info, strlen(table.info));
  (void)ignored;  // the log is advisory: its write errors are not the caller's
}

void TraceCounters(const char *origin) {
  QDtrace(8, origin, "QDlock_rlck_cnt = %d", table.rlck_cnt);
  QDtrace(8, origin, "QDlock_wlck_cnt = %d", table.wlck_cnt);
  QDtrace(8, origin, "QDlock_counter  = %d", table.counter);
}

void CloseFd() {
  close(table.fd);
  table.fd = -1;
}

// Step 2: a request the locks already held cover is only counted.
// Returns 0 when satisfied, 1 when the request must go to the file.
int Nested(bool write, int mode) {
  if (!write) {
    if (table.rlck_cnt > 0 && (mode & QDLOCK_TEST)) return 0;
    ++table.rlck_cnt;
    ++table.counter;
    QDtrace(8, kLock, "QDlock_rlck_cnt = %d", table.rlck_cnt);
    QDtrace(8, kLock, "QDlock_counter  = %d (lock file already open)", table.counter);
    return 0;
  }
  if (table.wlck_cnt > 0) {
    if (mode & QDLOCK_TEST) return 0;
    ++table.wlck_cnt;
    ++table.counter;
    QDtrace(8, kLock, "QDlock_wlck_cnt = %d", table.wlck_cnt);
    QDtrace(8, kLock, "QDlock_counter  = %d (lock file already open)", table.counter);
    return 0;
  }
  return 1;  // an upgrade from read to write
}

// One attempt of step 5. Returns 0 (held, or the test found no conflict),
// -1 (hard failure) or 1 (try again after the retry interval).
int Attempt(bool write, int mode, int cmd, struct flock *request) {
  if (table.fd == -1) {
    do table.fd = open(table.path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    while (table.fd < 0 && errno == EINTR);
    if (table.fd < 0) {
      QDtrace(3, kLock, "open failed, errno=%d", errno);
      return -1;
    }
  }
  fstat(table.fd, &table.fd_stat);
  QDtrace(8, kLock, "Lock file pathname (inode #):  %s (%d)", table.path,
          static_cast<int>(table.fd_stat.st_ino));
  struct flock fl = *request;
  int type = write ? 2 : 1;
  if (fcntl(table.fd, cmd, &fl) != 0) {
    int err = errno;
    int status;
    if ((err == EAGAIN || err == EACCES) && (mode & QDLOCK_NOWAIT)) {
      QDtrace(3, kLock, "Lock failure/noretry: type=%d, errno=%d", type, err);
      status = -1;
    } else if (err == EAGAIN || err == EACCES) {
      QDtrace(6, kLock, "Lock failure/retry: type=%d, errno=%d", type, err);
      status = 1;
    } else {
      QDtrace(3, kLock, "Lock failed, type=%d, errno=%d", type, err);
      status = -1;
    }
    if (table.counter == 0 && !removal_attempt) CloseFd();
    return status;
  }
  if (cmd == F_GETLK) {
    if (fl.l_type == F_UNLCK) {
      QDtrace(8, kLock, "File has no current %s lock", write ? "write" : "read");
      return 0;
    }
    QDtrace(8, kLock, "File has current %s lock", write ? "write" : "read");
    return -1;
  }
  if (stat(table.path, &table.path_stat) != 0) {
    QDtrace(8, kLock, "Cannot stat '%s'", table.path);
    CloseFd();
    return 1;
  }
  if (table.path_stat.st_ino != table.fd_stat.st_ino || table.path_stat.st_dev != table.fd_stat.st_dev) {
    QDtrace(8, kLock, "New inode #:  %d", static_cast<int>(table.path_stat.st_ino));
    CloseFd();
    return 1;
  }
  ++table.counter;
  if (write)
    ++table.wlck_cnt;
  else
    ++table.rlck_cnt;
  QDtrace(8, kLock, "successfully gained a %s lock", write ? "write" : "read");
  // The file becomes just this record. Writing it at the start and then
  // cutting the file to its length leaves the same content as truncating to
  // zero and appending, without the zero-length truncation that makes ext4
  // flush the file to disk when it is closed. Errors here are ignored: the
  // log is advisory, the lock is what counts.
  FormRecord("LOCK", write);
  size_t len = strlen(table.info);
  if (pwrite(table.fd, table.info, len, 0) == static_cast<ssize_t>(len)) {
    if (ftruncate(table.fd, static_cast<off_t>(len)) != 0) {
    }
  }
  return 0;
}

}  // namespace

extern "C" {

int QDlock(int mode) {
  SetUtility();
  bool write = (mode & QDWRITE) != 0;
  if (table.counter > 0 && Nested(write, mode) == 0) return 0;
  if (table.counter <= 0 && !FormPath()) return -1;
  TraceCounters(kLock);

  struct flock request {};
  request.l_type = write ? F_WRLCK : F_RDLCK;
  request.l_whence = SEEK_SET;
  int cmd = (mode & QDLOCK_TEST) ? F_GETLK : (mode & QDLOCK_NOWAIT) ? F_SETLK : F_SETLKW;

  int status = 1;
  {
    qdlock::SigintHold hold;
    while ((status = Attempt(write, mode, cmd, &request)) == 1) sleep(qdlock::RetrySeconds());
  }
  TraceCounters(kLock);
  QDtrace(8, kLock, "return(lock_status) = %d", status);
  return status;
}

int QDunlock(int mode) {
  SetUtility();
  if (table.fd < 0) {
    QDtrace(4, kLock, "lock has not been obtained yet");
    return -1;
  }
  bool write = (mode & QDWRITE) != 0;
  qdlock::SigintHold hold;
  if (table.counter > 0) --table.counter;
  bool remove = false;
  if (write) {
    if (table.wlck_cnt > 0) --table.wlck_cnt;
    if (table.wlck_cnt > 0) {
      QDtrace(8, kUnlock, "leaving write lock on until counter=0");
      return 0;
    }
    // We held the exclusive lock, so no other process holds any.
    remove = table.rlck_cnt == 0;
  } else {
    if (table.rlck_cnt > 0) --table.rlck_cnt;
    if (table.rlck_cnt > 0) {
      QDtrace(8, kUnlock, "leaving read lock on until counter=0");
      return 0;
    }
    if (table.wlck_cnt == 0) {
      // Only a write lock that nobody else blocks lets us remove the file.
      removal_attempt = true;
      int got = QDlock(QDWRITE | QDLOCK_NOWAIT);
      removal_attempt = false;
      if (got == 0)
        remove = true;
      else
        QDtrace(8, kUnlock, "cannot get write lock for removal");
    }
  }
  FormRecord("UNLOCK", write);
  AppendRecord();
  if (remove) {
    QDtrace(8, kLock, "Remove lock file (inode):  %s (%d)", table.path,
            static_cast<int>(table.fd_stat.st_ino));
    if (unlink(table.path) == 0)
      QDtrace(8, kUnlock, "removed lock file");
    else
      QDtrace(5, kUnlock, "lock file removal failed, errno = %d", errno);
    table.counter = 0;
    table.wlck_cnt = 0;
  }
  TraceCounters(kUnlock);
  if (table.counter <= 0) {
    CloseFd();
    QDtrace(8, kUnlock, "successfully released a lock");
  } else {
    QDtrace(8, kUnlock, "leaving lock on until counter=0");
  }
  return 0;
}

}  // extern "C"
