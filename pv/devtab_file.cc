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

EntryStream::EntryStream(TableReader *source) : source_(source), buf_(kChunk, '\0') {}

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

// ---------------------------------------------------------------- rewrite

std::string JournalPath(const std::string &table) {
  return DirName(table) + "/." + BaseName(table) + ".flush";
}

std::string CommitPath(const std::string &table) {
  return DirName(table) + "/." + BaseName(table) + ".commit";
}

namespace {

// A journal is this header, then the new content from `prefix` on. The
// header is written last, just before the sync: a journal is whole when its
// header is there and accounts for its size.
struct JournalHeader {
  char magic[8];
  uint64_t prefix;  // table bytes kept; the journal's part goes there
  uint64_t length;  // of the new table
  uint64_t inode;   // of the table file it was made for
};
constexpr char kMagic[8] = {'Q', 'D', 'J', 'R', 'N', 'L', '1', '\n'};
constexpr size_t kWindow = 64 << 10;  // small: a bigger buffer costs page faults

int ReadHeader(int fd, JournalHeader *h) {
  struct stat st;
  if (fstat(fd, &st) != 0) return errno;
  ssize_t n;
  do n = pread(fd, h, sizeof *h, 0);
  while (n < 0 && errno == EINTR);
  if (n < 0) return errno;
  bool whole = n == static_cast<ssize_t>(sizeof *h) && memcmp(h->magic, kMagic, sizeof kMagic) == 0 &&
               h->prefix <= h->length &&
               static_cast<uint64_t>(st.st_size) == sizeof *h + (h->length - h->prefix);
  return whole ? 0 : EIO;
}

void SyncDir(const std::string &path) {
  int dfd = open(DirName(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (dfd >= 0) {
    sys::Fsync(dfd);
    close(dfd);
  }
}

// Linux ignores the offset of a write to a descriptor in append mode (the
// library's table stream is opened "a+"), and copy_file_range refuses one.
class AppendModeOff {
 public:
  explicit AppendModeOff(int fd) : fd_(fd), flags_(fcntl(fd, F_GETFL)) {
    if (flags_ >= 0 && (flags_ & O_APPEND) != 0) fcntl(fd_, F_SETFL, flags_ & ~O_APPEND);
  }
  ~AppendModeOff() {
    if (flags_ >= 0 && (flags_ & O_APPEND) != 0) fcntl(fd_, F_SETFL, flags_);
  }

 private:
  int fd_, flags_;
};

// Copies `size` bytes between the files; the kernel copies where the file
// system can, memory does it elsewhere.
int CopyRange(int in, loff_t from, int out, loff_t to, uint64_t size) {
  while (size > 0) {
    ssize_t n = copy_file_range(in, &from, out, &to, size, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    size -= static_cast<uint64_t>(n);
  }
  std::unique_ptr<char[]> buf;
  while (size > 0) {
    if (!buf) buf.reset(new char[kWindow]);
    ssize_t n = pread(in, buf.get(), std::min<uint64_t>(size, kWindow), from);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return n < 0 ? errno : EIO;
    for (ssize_t done = 0; done < n;) {
      ssize_t w = pwrite(out, buf.get() + done, static_cast<size_t>(n - done), to + done);
      if (w < 0 && errno == EINTR) continue;
      if (w < 0) return errno;
      done += w;
    }
    from += n;
    to += n;
    size -= static_cast<uint64_t>(n);
  }
  return 0;
}

// Puts the committed part (journal `jfd`) over the table at its offset,
// cuts the table to its new length, syncs it and drops the commit. Doing it
// again after a crash half-way gives the same table.
int CopyCommitted(const std::string &table, int fd, int jfd, const JournalHeader &h) {
  {
    AppendModeOff append_off(fd);
    uint64_t size = h.length - h.prefix, half = size / 2;
    loff_t from = sizeof h, to = static_cast<loff_t>(h.prefix);
    if (int err = CopyRange(jfd, from, fd, to, half)) return err;
    sys::Point("flush-copy-half");
    loff_t rest = static_cast<loff_t>(half);
    if (int err = CopyRange(jfd, from + rest, fd, to + rest, size - half)) return err;
  }
  sys::Point("flush-suffix-copied");
  if (ftruncate(fd, static_cast<off_t>(h.length)) != 0) return errno;
  if (sys::Fsync(fd) != 0) return errno;
  sys::Point("flush-copied");
  unlink(CommitPath(table).c_str());
  SyncDir(table);
  return 0;
}

}  // namespace

TableRewrite::TableRewrite(std::string table, int fd) : table_(std::move(table)), fd_(fd) {}

TableRewrite::~TableRewrite() {
  if (journal_ >= 0) Drop(0);
}

int TableRewrite::Drop(int err) {
  if (journal_ >= 0) close(journal_);
  journal_ = -1;
  if (!committed_) unlink(JournalPath(table_).c_str());
  return err;
}

int TableRewrite::Begin() {
  // A commit left by a crash is finished first: the table's head must be
  // what readers see before it is compared with anything.
  if (int err = RecoverRewrite(table_, fd_)) return err;
  struct stat st;
  if (fstat(fd_, &st) != 0) return errno;
  old_size_ = static_cast<uint64_t>(st.st_size);
  inode_ = st.st_ino;
  window_.reset(new char[kWindow]);
  return 0;
}

bool TableRewrite::Refill() {
  if (offset_ >= old_size_) return false;
  if (offset_ > 0) sys::Point("flush-comparing");  // part compared, nothing written
  size_t want = std::min<uint64_t>(kWindow, old_size_ - offset_);
  ssize_t n;
  do n = pread(fd_, window_.get(), want, static_cast<off_t>(offset_));
  while (n < 0 && errno == EINTR);
  // What cannot be read is rewritten: the journal starts there.
  if (n <= 0) return false;
  window_base_ = offset_;
  window_len_ = static_cast<size_t>(n);
  return true;
}

int TableRewrite::Diverge() {
  prefix_ = offset_;
  journal_ = open(JournalPath(table_).c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (journal_ < 0) return errno;
  JournalHeader blank{};  // the real one goes in at the commit
  int err = WriteAll(journal_, std::string_view(reinterpret_cast<char *>(&blank), sizeof blank));
  sys::Point("flush-diverged");
  return err;
}

int TableRewrite::Append(const char *data, size_t size) {
  if (error_ != 0) return error_;
  error_ = Take(data, size);
  return error_;
}

int TableRewrite::Take(const char *data, size_t size) {
  while (size > 0 && journal_ < 0) {
    if (offset_ == window_base_ + window_len_ && !Refill()) {
      if (int err = Diverge()) return err;
      break;
    }
    size_t n = std::min<uint64_t>(size, window_base_ + window_len_ - offset_);
    const char *old = window_.get() + (offset_ - window_base_);
    size_t same = n;
    if (memcmp(data, old, n) != 0) same = static_cast<size_t>(std::mismatch(data, data + n, old).first - data);
    offset_ += same;
    data += same;
    size -= same;
    if (same < n) {
      if (int err = Diverge()) return err;
    }
  }
  if (size == 0) return 0;
  offset_ += size;
  return WriteAll(journal_, std::string_view(data, size));
}

int TableRewrite::Commit() {
  if (error_ != 0) return Drop(error_);
  if (journal_ < 0) {
    if (offset_ == old_size_) return 0;  // the table holds the new content already
    if (int err = Diverge()) return Drop(err);  // the new content ends early
  }
  JournalHeader h{};
  memcpy(h.magic, kMagic, sizeof kMagic);
  h.prefix = prefix_;
  h.length = offset_;
  h.inode = inode_;
  int err = 0;
  if (pwrite(journal_, &h, sizeof h, 0) != static_cast<ssize_t>(sizeof h)) err = errno != 0 ? errno : EIO;
  if (err == 0 && sys::Fsync(journal_) != 0) err = errno;
  sys::Point("flush-journal-written");
  if (err == 0 && sys::Rename(JournalPath(table_).c_str(), CommitPath(table_).c_str()) != 0) err = errno;
  if (err != 0) return Drop(err);
  committed_ = true;
  SyncDir(table_);
  sys::Point("flush-committed");
  return Drop(CopyCommitted(table_, fd_, journal_, h));
}

int RecoverRewrite(const std::string &table, int fd) {
  unlink(JournalPath(table).c_str());  // never committed: the table stands
  std::string commit = CommitPath(table);
  int jfd = open(commit.c_str(), O_RDONLY | O_CLOEXEC);
  if (jfd < 0) return errno == ENOENT ? 0 : errno;
  JournalHeader h;
  struct stat st;
  int err = ReadHeader(jfd, &h);
  if (err == 0 && fstat(fd, &st) != 0) err = errno;
  if (err == 0 && h.inode == st.st_ino) {
    err = CopyCommitted(table, fd, jfd, h);
  } else if (err == 0) {
    // Made for a table file that has since been replaced: it is void.
    unlink(commit.c_str());
    SyncDir(table);
  }
  close(jfd);
  return err;
}

// ---------------------------------------------------------------- TableReader

TableReader::~TableReader() { Close(); }

void TableReader::Close() {
  if (suffix_fd_ >= 0) close(suffix_fd_);
  suffix_fd_ = -1;
  if (own_fd_ && fd_ >= 0) close(fd_);
  own_fd_ = false;
}

int TableReader::OpenFile(const std::string &table) {
  Close();
  int fd;
  do fd = open(table.c_str(), O_RDONLY | O_CLOEXEC);
  while (fd < 0 && errno == EINTR);
  if (fd < 0) return errno;
  int err = Open(table, fd);
  own_fd_ = true;
  return err;
}

int TableReader::Open(const std::string &table, int fd) {
  if (fd != fd_) Close();
  if (suffix_fd_ >= 0) close(suffix_fd_);
  suffix_fd_ = -1;
  fd_ = fd;
  pos_ = 0;
  // The usual case costs one failed open.
  int jfd = open(CommitPath(table).c_str(), O_RDONLY | O_CLOEXEC);
  if (jfd < 0) return errno == ENOENT ? 0 : errno;
  JournalHeader h;
  struct stat st;
  int err = ReadHeader(jfd, &h);
  if (err == 0 && fstat(fd, &st) != 0) err = errno;
  if (err != 0 || h.inode != st.st_ino) {
    close(jfd);  // a commit made for a file the path no longer names is void
    return err;
  }
  suffix_fd_ = jfd;
  prefix_ = h.prefix;
  length_ = h.length;
  return 0;
}

ssize_t TableReader::Read(char *buf, size_t len) {
  int from = fd_;
  uint64_t at = pos_;
  if (suffix_fd_ >= 0) {
    if (pos_ >= length_) return 0;
    len = std::min<uint64_t>(len, length_ - pos_);
    if (pos_ < prefix_) {
      len = std::min<uint64_t>(len, prefix_ - pos_);
    } else {
      from = suffix_fd_;
      at = sizeof(JournalHeader) + pos_ - prefix_;
    }
  }
  ssize_t n = pread(from, buf, len, static_cast<off_t>(at));
  if (n == 0 && suffix_fd_ >= 0) {
    errno = EIO;  // the table or the journal is shorter than the header says
    return -1;
  }
  if (n > 0) pos_ += static_cast<uint64_t>(n);
  return n;
}

}  // namespace devtab
