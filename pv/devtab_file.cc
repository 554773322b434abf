#include "devtab_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

EntryStream::EntryStream(TableReader *source) : source_(source), buf_(kChunk, '\0') {}

void EntryStream::Restart() {
  begin_ = end_ = base_ = 0;
  line_ = 1;
  eof_ = false;
  error_ = 0;
}

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
    ssize_t n = source_->Read(&buf_[end_], buf_.size() - end_);
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
// at that point and "stop@POINT" stops it there once; "enospc@N" makes the N-th
// write fail with ENOSPC; "eio@fsync" makes every fsync fail.
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
  // A stop happens once: whoever continues the process lets it run on.
  static std::string stopped;
  snprintf(item, sizeof item, "stop@%s", name);
  if (FaultNamed(item) && stopped.find(item) == std::string::npos) {
    stopped += item;
    stopped += ',';
    kill(getpid(), SIGSTOP);
  }
#else
  (void)name;
#endif
}

}  // namespace sys


// ---------------------------------------------------------------- TableReader

TableReader::~TableReader() { Close(); }

void TableReader::Close() {
  if (own_fd_ && fd_ >= 0) close(fd_);
  own_fd_ = false;
  fd_ = -1;
}

void TableReader::Borrow(int fd) {
  Close();
  fd_ = fd;
  pos_ = 0;
}

int TableReader::OpenFile(const std::string &path) {
  Close();
  int fd;
  do fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  while (fd < 0 && errno == EINTR);
  if (fd < 0) return errno;
  fd_ = fd;
  own_fd_ = true;
  pos_ = 0;
  return 0;
}

ssize_t TableReader::Read(char *buf, size_t len) {
  ssize_t n = pread(fd_, buf, len, pos_);
  if (n > 0) pos_ += n;
  return n;
}

// ---------------------------------------------------------------- Replacement

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

// Temporary files are named after the table and their writer's pid, so one
// left by a writer that died can be told from one being written.
std::string TempPrefix(const std::string &path) { return "." + BaseName(path) + ".new."; }

// The caller holds the table's write lock, so no live writer of ours is
// writing any of these; the pid test spares one of a writer that took no lock.
void RemoveStaleTemps(const std::string &path) {
  std::string prefix = TempPrefix(path);
  DIR *d = opendir(DirName(path).c_str());
  if (d == nullptr) return;
  while (struct dirent *e = readdir(d)) {
    if (strncmp(e->d_name, prefix.c_str(), prefix.size()) != 0) continue;
    char *end = nullptr;
    long pid = strtol(e->d_name + prefix.size(), &end, 10);
    if (end == e->d_name + prefix.size() || *end != '\0' || pid <= 0) continue;
    if (pid != getpid() && (kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH)) continue;
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

void SyncDir(const std::string &path) {
  int dfd = open(DirName(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    sys::Fsync(dfd);
    close(dfd);
  }
}

}  // namespace

std::string ResolvedPath(const std::string &path) {
  char resolved[PATH_MAX];
  if (realpath(path.c_str(), resolved) != nullptr) return resolved;
  // Not there yet (or a dangling link): the link's target is still what a
  // new table would be made as.
  char target[PATH_MAX];
  ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
  if (n <= 0) return path;
  target[n] = '\0';
  if (target[0] == '/') return target;
  return DirName(path) + "/" + target;
}

Replacement::~Replacement() {
  if (fd_ >= 0) close(fd_);
  if (!committed_ && !temp_.empty()) unlink(temp_.c_str());
}

int Replacement::Begin(const std::string &path) {
  target_ = ResolvedPath(path);
  RemoveStaleTemps(target_);
  temp_ = DirName(target_) + "/" + TempPrefix(target_) + std::to_string(getpid());
  do fd_ = open(temp_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600);
  while (fd_ < 0 && errno == EINTR);
  if (fd_ < 0) {
    int err = errno;
    temp_.clear();
    return err;
  }
  return 0;
}

int Replacement::Write(std::string_view data) {
  if (fd_ < 0) return EBADF;
  return WriteAll(fd_, data);
}

int Replacement::Commit(bool keep_locked) {
  if (fd_ < 0 || committed_) return EBADF;
  sys::Point("temp-written");
  int err = 0;
  // Keep the table's mode and owner; failing to keep the owner is no reason
  // to stop (an unprivileged writer can only make files of its own).
  struct stat old;
  if (stat(target_.c_str(), &old) == 0) {
    if (fchmod(fd_, old.st_mode & 07777) != 0) err = errno;
    if (err == 0 && fchown(fd_, old.st_uid, old.st_gid) != 0 && errno != EPERM) err = errno;
  } else if (fchmod(fd_, 0644) != 0) {
    err = errno;
  }
  if (err == 0 && sys::Fsync(fd_) != 0) err = errno;
  if (err == 0 && keep_locked) {
    // Nobody else knows this file yet: the lock is granted at once.
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    if (fcntl(fd_, F_SETLK, &fl) != 0) err = errno;
  }
  if (err == 0) {
    sys::Point("before-rename");
    if (sys::Rename(temp_.c_str(), target_.c_str()) != 0) err = errno;
  }
  if (err != 0) return err;
  committed_ = true;
  sys::Point("after-rename");
  SyncDir(target_);
  if (!keep_locked) {
    close(fd_);
    fd_ = -1;
  }
  return 0;
}

int Replacement::TakeFd() {
  int fd = committed_ ? fd_ : -1;
  if (fd >= 0) fd_ = -1;
  return fd;
}

// ---------------------------------------------------------------- LockedTable

LockedTable::~LockedTable() {
  if (fd_ >= 0) close(fd_);
}

int LockedTable::Open(const std::string &path, bool create) {
  path_ = ResolvedPath(path);
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
      return 0;
    }
    // Replaced (or removed) while we waited: lock whatever the path names now.
    close(fd);
  }
}

int LockedTable::Replace(std::string_view content) {
  Replacement r;
  int err = r.Begin(path_);
  if (err == 0) err = r.Write(content);
  if (err == 0) err = r.Commit(false);
  return err;
}

}  // namespace devtab
