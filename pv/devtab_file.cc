#include "devtab_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <algorithm>

namespace devtab {

// ---------------------------------------------------------------- Image

Image::~Image() { Release(); }

void Image::Release() {
  if (data_ != nullptr) munmap(data_, capacity_);
  data_ = nullptr;
  size_ = capacity_ = 0;
}

int Image::Load(const char *path) {
  int fd;
  do fd = open(path, O_RDONLY | O_CLOEXEC);
  while (fd < 0 && errno == EINTR);
  if (fd < 0) return errno;
  int rc = LoadFd(fd);
  close(fd);
  return rc;
}

int Image::LoadFd(int fd) {
  struct stat st;
  if (fstat(fd, &st) != 0) return errno;
  if (lseek(fd, 0, SEEK_SET) < 0) return errno;
  size_t want = static_cast<size_t>(st.st_size) + 1;
  long page = sysconf(_SC_PAGESIZE);
  want = (want + static_cast<size_t>(page) - 1) & ~(static_cast<size_t>(page) - 1);
  if (want > capacity_) {
    Release();
    void *p = mmap(nullptr, want, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE,
                   -1, 0);
    if (p == MAP_FAILED) return ENOMEM;
    data_ = static_cast<char *>(p);
    capacity_ = want;
  }
  size_ = 0;
  for (;;) {
    if (size_ == capacity_) {
      // The file grew after fstat: double the block.
      size_t bigger = capacity_ * 2;
      void *p = mremap(data_, capacity_, bigger, MREMAP_MAYMOVE);
      if (p == MAP_FAILED) return ENOMEM;
      data_ = static_cast<char *>(p);
      capacity_ = bigger;
    }
    ssize_t n = read(fd, data_ + size_, capacity_ - size_);
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    if (n == 0) break;
    size_ += static_cast<size_t>(n);
  }
  return 0;
}

// ---------------------------------------------------------------- EntryStream

namespace {
// Small enough that a short table costs few page faults at start; it grows
// for an entry longer than itself.
constexpr size_t kChunk = 64 << 10;
}

EntryStream::EntryStream(int fd) : fd_(fd), buf_(kChunk, '\0') {}

bool EntryStream::Fill() {
  if (eof_) return false;
  if (begin_ > 0) {
    // Keep the unfinished entry at the front.
    buf_.replace(0, end_ - begin_, buf_, begin_, end_ - begin_);
    base_ += begin_;
    end_ -= begin_;
    begin_ = 0;
  }
  if (end_ == buf_.size()) buf_.resize(buf_.size() * 2);  // one entry bigger than the buffer
  for (;;) {
    ssize_t n = read(fd_, &buf_[end_], buf_.size() - end_);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) error_ = errno;
    if (n <= 0) {
      eof_ = true;
      return false;
    }
    end_ += static_cast<size_t>(n);
    return true;
  }
}

bool EntryStream::Next(RawEntry *out) {
  for (;;) {
    std::string_view pending(buf_.data() + begin_, end_ - begin_);
    size_t newlines = 0;
    size_t end = EntryEnd(pending, 0, &newlines);
    if (end == pending.size() && !eof_) {
      if (Fill()) continue;
      pending = std::string_view(buf_.data() + begin_, end_ - begin_);
      end = EntryEnd(pending, 0, &newlines);
    }
    if (pending.empty()) return false;
    RawEntry raw;
    raw.text = pending.substr(0, end);
    raw.line = line_;
    raw.offset = base_ + begin_;
    line_ += newlines;
    begin_ += end < pending.size() ? end + 1 : end;
    if (IsCommentOrBlank(raw.text)) continue;
    *out = raw;
    return true;
  }
}

// ---------------------------------------------------------------- seam

namespace sys {
namespace {

#ifdef QD_FAULT_INJECTION
// QD_FAULT holds items separated by commas: "kill@POINT" kills the process
// at that point; "enospc@N" makes the N-th write fail with ENOSPC; "eio@fsync"
// makes every fsync fail.
bool FaultNamed(const char *item) {
  const char *faults = getenv("QD_FAULT");
  if (faults == nullptr) return false;
  size_t len = strlen(item);
  for (const char *p = faults; *p;) {
    const char *comma = strchr(p, ',');
    size_t n = comma ? static_cast<size_t>(comma - p) : strlen(p);
    if (n == len && strncmp(p, item, n) == 0) return true;
    p += n + (comma ? 1 : 0);
  }
  return false;
}
int writes_done = 0;
#endif

}  // namespace

ssize_t Write(int fd, const void *buf, size_t len) {
#ifdef QD_FAULT_INJECTION
  ++writes_done;
  char item[32];
  snprintf(item, sizeof item, "enospc@%d", writes_done);
  if (FaultNamed(item)) {
    errno = ENOSPC;
    return -1;
  }
#endif
  return write(fd, buf, len);
}

int Fsync(int fd) {
#ifdef QD_FAULT_INJECTION
  if (FaultNamed("eio@fsync")) {
    errno = EIO;
    return -1;
  }
#endif
  return fsync(fd);
}

int Rename(const char *from, const char *to) { return rename(from, to); }

void Point(const char *name) {
#ifdef QD_FAULT_INJECTION
  char item[64];
  snprintf(item, sizeof item, "kill@%s", name);
  if (FaultNamed(item)) kill(getpid(), SIGKILL);
#else
  (void)name;
#endif
}

}  // namespace sys

// ---------------------------------------------------------------- LockedTable

namespace {

std::string DirName(const std::string &path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

std::string BaseName(const std::string &path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Temporary files are named after the table and the writer's pid, so one
// left by a writer that died can be recognised and removed.
std::string TempPrefix(const std::string &path) { return "." + BaseName(path) + ".new."; }

void RemoveStaleTemps(const std::string &path) {
  std::string dir = DirName(path);
  std::string prefix = TempPrefix(path);
  DIR *d = opendir(dir.c_str());
  if (d == nullptr) return;
  while (struct dirent *e = readdir(d)) {
    if (strncmp(e->d_name, prefix.c_str(), prefix.size()) != 0) continue;
    char *end = nullptr;
    long pid = strtol(e->d_name + prefix.size(), &end, 10);
    if (end == e->d_name + prefix.size() || *end != '\0' || pid <= 0) continue;
    if (kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) continue;
    unlinkat(dirfd(d), e->d_name, 0);
  }
  closedir(d);
}

int WriteAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t n = sys::Write(fd, data.data(), data.size());
    if (n < 0) {
      if (errno == EINTR) continue;
      return errno;
    }
    data.remove_prefix(static_cast<size_t>(n));
  }
  return 0;
}

}  // namespace

LockedTable::~LockedTable() {
  if (fd_ >= 0) close(fd_);
}

int LockedTable::Open(const std::string &path, bool create) {
  char resolved[PATH_MAX];
  path_ = realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : path;
  for (;;) {
    int flags = O_RDWR | O_CLOEXEC | (create ? O_CREAT : 0);
    int fd;
    do fd = open(path_.c_str(), flags, 0644);
    while (fd < 0 && errno == EINTR);
    if (fd < 0) return errno;
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    int rc;
    do rc = fcntl(fd, F_SETLKW, &fl);
    while (rc < 0 && errno == EINTR);
    if (rc < 0) {
      int err = errno;
      close(fd);
      return err;
    }
    struct stat by_fd, by_path;
    if (fstat(fd, &by_fd) == 0 && stat(path_.c_str(), &by_path) == 0 &&
        by_fd.st_ino == by_path.st_ino && by_fd.st_dev == by_path.st_dev) {
      fd_ = fd;
      st_ = by_fd;
      RemoveStaleTemps(path_);
      return 0;
    }
    // Replaced (or removed) while we waited: lock whatever the path names now.
    close(fd);
  }
}

int LockedTable::Replace(std::string_view content) {
  std::string dir = DirName(path_);
  std::string temp = dir + "/" + TempPrefix(path_) + std::to_string(getpid());
  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return errno;
  int err = WriteAll(fd, content);
  sys::Point("temp-written");
  // Keep the table's owner and mode; failing to keep the owner is no reason
  // to stop (an unprivileged writer can only make files of its own).
  if (err == 0 && fchmod(fd, st_.st_mode & 07777) != 0) err = errno;
  if (err == 0 && fchown(fd, st_.st_uid, st_.st_gid) != 0 && errno != EPERM) err = errno;
  if (err == 0 && sys::Fsync(fd) != 0) err = errno;
  if (close(fd) != 0 && err == 0) err = errno;
  if (err == 0) {
    sys::Point("before-rename");
    if (sys::Rename(temp.c_str(), path_.c_str()) != 0) err = errno;
  }
  if (err != 0) {
    unlink(temp.c_str());
    return err;
  }
  sys::Point("after-rename");
  int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    sys::Fsync(dfd);
    close(dfd);
  }
  return 0;
}

// ---------------------------------------------------------------- journal

std::string JournalPath(const std::string &table) {
  return DirName(table) + "/." + BaseName(table) + ".flush";
}

std::string CommitPath(const std::string &table) {
  return DirName(table) + "/." + BaseName(table) + ".commit";
}

std::string ReadablePath(const std::string &table) {
  std::string commit = CommitPath(table);
  return access(commit.c_str(), F_OK) == 0 ? commit : table;
}

namespace {

void SyncDir(const std::string &path) {
  int dfd = open(DirName(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    sys::Fsync(dfd);
    close(dfd);
  }
}

int FinishCopy(const std::string &table, int fd, size_t size) {
  if (ftruncate(fd, static_cast<off_t>(size)) != 0) return errno;
  if (sys::Fsync(fd) != 0) return errno;
  sys::Point("flush-copied");
  unlink(CommitPath(table).c_str());
  SyncDir(table);
  return 0;
}

// Copies the committed content over the table, in place, then drops it.
// The kernel copies between the files; a file system that cannot falls back
// to reading and writing through memory.
int CopyCommitted(const std::string &table, int fd) {
  std::string commit = CommitPath(table);
  int in = open(commit.c_str(), O_RDONLY | O_CLOEXEC);
  if (in < 0) return errno;
  struct stat st;
  if (fstat(in, &st) != 0) {
    int err = errno;
    close(in);
    return err;
  }
  size_t size = static_cast<size_t>(st.st_size);
  int flags0 = fcntl(fd, F_GETFL);
  if (flags0 >= 0 && (flags0 & O_APPEND) != 0) fcntl(fd, F_SETFL, flags0 & ~O_APPEND);
  loff_t from = 0, to = 0;
  bool copied = true;
  while (static_cast<size_t>(from) < size) {
    if (static_cast<size_t>(from) >= size / 2) sys::Point("flush-copy-half");
    size_t chunk = std::min<size_t>(size - static_cast<size_t>(from), std::max<size_t>(size / 2, 1));
    ssize_t n = copy_file_range(in, &from, fd, &to, chunk, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      copied = false;
      break;
    }
  }
  close(in);
  if (flags0 >= 0 && (flags0 & O_APPEND) != 0) fcntl(fd, F_SETFL, flags0);
  if (copied) return FinishCopy(table, fd, size);
  Image image;
  int err = image.Load(commit.c_str());
  if (err != 0) return err;
  std::string_view content = image.view();
  // The descriptor may be in append mode (a stream opened "a+" on it), in
  // which Linux ignores pwrite's offset: append mode is off for the copy.
  int flags = fcntl(fd, F_GETFL);
  if (flags >= 0 && (flags & O_APPEND) != 0) fcntl(fd, F_SETFL, flags & ~O_APPEND);
  struct Restore {
    int fd, flags;
    ~Restore() {
      if (flags >= 0 && (flags & O_APPEND) != 0) fcntl(fd, F_SETFL, flags);
    }
  } restore{fd, flags};
  size_t half = content.size() / 2;
  size_t done = 0;
  while (done < content.size()) {
    if (done >= half) sys::Point("flush-copy-half");
    size_t chunk = std::min<size_t>(content.size() - done, std::max<size_t>(half, 1));
    ssize_t n = pwrite(fd, content.data() + done, chunk, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return errno;
    done += static_cast<size_t>(n);
  }
  return FinishCopy(table, fd, content.size());
}

}  // namespace

int CommitJournal(const std::string &table, int fd) {
  std::string journal = JournalPath(table);
  int jfd = open(journal.c_str(), O_RDONLY | O_CLOEXEC);
  int err = jfd < 0 ? errno : 0;
  if (err == 0 && sys::Fsync(jfd) != 0) err = errno;
  if (jfd >= 0) close(jfd);
  sys::Point("flush-journal-written");
  if (err == 0 && sys::Rename(journal.c_str(), CommitPath(table).c_str()) != 0) err = errno;
  if (err != 0) {
    unlink(journal.c_str());
    return err;
  }
  SyncDir(table);
  sys::Point("flush-committed");
  return CopyCommitted(table, fd);
}

int RecoverRewrite(const std::string &table, int fd) {
  unlink(JournalPath(table).c_str());  // never committed: the table stands
  if (access(CommitPath(table).c_str(), F_OK) != 0) return 0;
  return CopyCommitted(table, fd);
}

}  // namespace devtab
