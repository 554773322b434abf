// Reading the device table file whole, and replacing it safely.
//
// fcntl traps kept in mind here: closing any descriptor of a file drops every
// lock this process holds on it, and a lock never excludes its own process.
// The table is replaced by rename, so a lock taken on a descriptor opened
// before the rename belongs to a file that the path no longer names: after
// locking, the inode of the path is compared with the descriptor's.
#ifndef PV_DEVTAB_FILE_H
#define PV_DEVTAB_FILE_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "devtab_format.h"

namespace devtab {

// The whole file in one block (prefaulted, so a big table costs one
// allocation and no page faults while it is scanned).
class Image {
 public:
  Image() = default;
  ~Image();
  Image(const Image &) = delete;
  Image &operator=(const Image &) = delete;

  // 0, or the errno of the failure.
  int Load(const char *path);
  int LoadFd(int fd);
  std::string_view view() const { return {data_, size_}; }

 private:
  void Release();
  char *data_ = nullptr;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

// The entries of a table file, read through one reused buffer: a table of
// any size is scanned without being held whole.
class EntryStream {
 public:
  explicit EntryStream(int fd);
  // The next entry (blank and comment lines skipped); its text stays valid
  // until the next call. False at the end, or on a read error (see error()).
  bool Next(RawEntry *out);
  int error() const { return error_; }

 private:
  bool Fill();  // reads more; false when nothing more came
  int fd_;
  std::string buf_;
  size_t begin_ = 0;  // first byte not yet delivered
  size_t end_ = 0;    // bytes of buf_ in use
  size_t base_ = 0;   // file offset of buf_[0]
  size_t line_ = 1;
  bool eof_ = false;
  int error_ = 0;
};

// System calls of the rewrite, through a seam the test build can make fail.
namespace sys {
ssize_t Write(int fd, const void *buf, size_t len);
int Fsync(int fd);
int Rename(const char *from, const char *to);
// In test builds, QD_FAULT=kill@NAME ends the process with SIGKILL here.
void Point(const char *name);
}  // namespace sys

// The table file opened read-write under an fcntl write lock that is known to
// be on the file the path names.
class LockedTable {
 public:
  LockedTable() = default;
  ~LockedTable();
  LockedTable(const LockedTable &) = delete;
  LockedTable &operator=(const LockedTable &) = delete;

  // 0 when locked; ENOENT when the table does not exist and !create; other errno.
  int Open(const std::string &path, bool create);
  int fd() const { return fd_; }
  const struct stat &status() const { return st_; }
  const std::string &path() const { return path_; }

  // Writes `content` beside the table, syncs it and renames it over the
  // table, so the path names either the old or the new file, never a torn one.
  // 0, or the errno of the failure (the table is then unchanged).
  int Replace(std::string_view content);

 private:
  int fd_ = -1;
  struct stat st_ {};
  std::string path_;  // symbolic links resolved: the file itself is replaced
};

// A rewrite that keeps the table's identity (the file-pointer locks are on
// the table file itself). The new content goes to a journal beside the table
// and is committed by renaming the journal; only then is it copied over the
// table in place. A crash before the commit leaves the old table and an
// uncommitted journal that the next writer drops; a crash after it leaves
// the committed journal, which readers read instead of the table and the
// next writer copies into place.
std::string JournalPath(const std::string &table);   // <dir>/.<base>.flush
std::string CommitPath(const std::string &table);    // <dir>/.<base>.commit
// The file that holds the table's current content.
std::string ReadablePath(const std::string &table);
// Syncs and commits the written journal, then copies it into the table
// through `fd`, which the caller holds under a write lock. 0, or the errno of
// the failure (before the commit: the table is untouched and the journal
// gone; after it: the commit stands and the next writer finishes it).
int CommitJournal(const std::string &table, int fd);
// Finishes a committed rewrite, or drops an uncommitted journal. `fd` is the
// table, held under a write lock. 0, or the errno of a failed copy.
int RecoverRewrite(const std::string &table, int fd);

}  // namespace devtab

#endif
