// Reading the device table file, and replacing it safely.
//
// The table is only ever rewritten one way (Replacement): the whole new
// content goes to a temporary file beside it, which is synced and renamed
// over the old file. A reader, or a crash at any moment, meets the old table
// or the new one, never a torn one.
//
// fcntl traps kept in mind here: closing any descriptor of a file drops every
// lock this process holds on it, and a lock never excludes its own process.
// A lock belongs to an inode, not to a path: whoever locks a descriptor opened
// before the table was replaced holds a lock on a file the path no longer
// names, so every locker compares the two after locking.
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

// A table file read from its start, through a descriptor that is either
// borrowed (the caller's, kept open for its locks) or its own.
class TableReader {
 public:
  explicit TableReader(int fd = -1) : fd_(fd) {}
  ~TableReader();
  TableReader(const TableReader &) = delete;
  TableReader &operator=(const TableReader &) = delete;

  // Reads `fd` from its start; the descriptor stays the caller's.
  void Borrow(int fd);
  // Opens `path` for reading. 0, or the errno of the failure.
  int OpenFile(const std::string &path);
  // As read(2), from where the last read ended.
  ssize_t Read(char *buf, size_t len);

 private:
  void Close();
  int fd_;
  bool own_fd_ = false;
  off_t pos_ = 0;
};

// The entries of a table, read through one reused buffer: a table of any
// size is scanned without being held whole.
class EntryStream {
 public:
  explicit EntryStream(TableReader *source);  // which outlives the stream
  // Starts over at the source's current position, keeping the buffer.
  void Restart();
  // The next entry (blank and comment lines skipped); its text stays valid
  // until the next call. False at the end, or on a read error (see error()).
  bool Next(RawEntry *out);
  int error() const { return error_; }

 private:
  bool Fill();  // reads more; false when nothing more came
  TableReader *source_;
  std::string buf_;
  size_t begin_ = 0;  // first byte not yet delivered
  size_t end_ = 0;    // bytes of buf_ in use
  size_t base_ = 0;   // content offset of buf_[0]
  size_t line_ = 1;
  bool eof_ = false;
  int error_ = 0;
};

// System calls of the rewrite, through a seam the test build can make fail.
namespace sys {
ssize_t Write(int fd, const void *buf, size_t len);
int Fsync(int fd);
int Rename(const char *from, const char *to);
// In test builds, QD_FAULT=kill@NAME ends the process with SIGKILL at the
// point NAME, and stop@NAME stops it (SIGSTOP) there the first time.
void Point(const char *name);
}  // namespace sys

// The file that `path` names, symbolic links resolved: a table path that is
// a link stays one, and the file it points to is what gets replaced.
std::string ResolvedPath(const std::string &path);

// The one rewrite of the table. The caller holds the table's write lock
// from before Begin until after Commit.
class Replacement {
 public:
  Replacement() = default;
  ~Replacement();  // removes the temporary file unless it was committed
  Replacement(const Replacement &) = delete;
  Replacement &operator=(const Replacement &) = delete;

  // Starts the new content of the table at `path`: removes the temporary
  // files that writers killed before their commit left behind, and makes a
  // new one in the directory of the file the path resolves to. 0 or errno.
  int Begin(const std::string &path);
  // Appends to the new content. 0, or the errno of the failed write.
  int Write(std::string_view data);
  // Gives the new file the old one's mode (and owner and group where
  // permitted), syncs it, renames it over the old file and syncs the
  // directory. With `keep_locked` the new file is write-locked before it
  // takes the old one's place and stays open (TakeFd), so that a lock the
  // caller held on the table carries over to the new one. 0 or errno; on
  // failure the table is unchanged.
  int Commit(bool keep_locked);
  // The new table's descriptor after Commit(true), now the caller's.
  int TakeFd();

 private:
  std::string target_;  // the file replaced
  std::string temp_;
  int fd_ = -1;
  bool committed_ = false;
};

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

  // Replaces the table with `content` (see Replacement). 0, or the errno of
  // the failure (the table is then unchanged).
  int Replace(std::string_view content);

 private:
  int fd_ = -1;
  struct stat st_ {};
  std::string path_;
};

}  // namespace devtab

#endif
