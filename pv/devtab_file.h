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
#include <cstdint>
#include <memory>
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

// The table's current content, read in order: the table file itself or,
// while a committed rewrite waits to be copied into place, the table's first
// bytes (which the copy never touches) followed by the rewrite's end.
class TableReader {
 public:
  explicit TableReader(int fd = -1) : fd_(fd) {}  // that file alone, from its start
  ~TableReader();
  TableReader(const TableReader &) = delete;
  TableReader &operator=(const TableReader &) = delete;

  // Starts over on the content of `table`, through `fd`, a descriptor of the
  // table that stays the caller's. 0, or the errno of the failure.
  int Open(const std::string &table, int fd);
  // The same through a descriptor of its own, closed with the reader.
  int OpenFile(const std::string &table);
  // As read(2), from where the last read ended.
  ssize_t Read(char *buf, size_t len);

 private:
  void Close();
  int fd_;
  bool own_fd_ = false;
  int suffix_fd_ = -1;   // the committed rewrite, or -1
  uint64_t prefix_ = 0;  // table bytes before the rewrite's
  uint64_t length_ = 0;  // of the whole content, when composed
  uint64_t pos_ = 0;
};

// The entries of a table, read through one reused buffer: a table of any
// size is scanned without being held whole.
class EntryStream {
 public:
  explicit EntryStream(TableReader *source);  // which outlives the stream
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
// the table file itself) and writes only what changed. The new content is
// compared with the table's as it comes; from the first difference on it goes
// to a journal beside the table, which is committed by a rename and only then
// copied over the table's end in place. A crash before the commit leaves the
// old table and an uncommitted journal that the next writer drops; a crash
// after it leaves the committed journal, which readers read after the
// table's unchanged head (see TableReader) and the next writer copies.
std::string JournalPath(const std::string &table);   // <dir>/.<base>.flush
std::string CommitPath(const std::string &table);    // <dir>/.<base>.commit

class TableRewrite {
 public:
  // `fd`: the table, which the caller holds under a write lock throughout.
  TableRewrite(std::string table, int fd);
  ~TableRewrite();  // drops a journal that was not committed
  TableRewrite(const TableRewrite &) = delete;
  TableRewrite &operator=(const TableRewrite &) = delete;

  // Finishes an interrupted rewrite first. 0, or the errno of the failure.
  int Begin();
  // The next bytes of the new content. 0, or the errno of a failed write.
  int Append(const char *data, size_t size);
  // Makes the new content the table's; writes nothing when they are equal.
  // 0, or the errno of the failure (before the commit: the table is untouched
  // and the journal gone; after it: the commit stands for the next writer).
  int Commit();

 private:
  int Take(const char *data, size_t size);
  bool Refill();   // the next window of the old content; false at its end
  int Diverge();   // starts the journal at the first difference
  int Drop(int err);
  std::string table_;
  int fd_;
  int journal_ = -1;       // open from the first difference on
  bool committed_ = false;
  int error_ = 0;          // of a failed append: the rewrite is void
  uint64_t old_size_ = 0;
  uint64_t inode_ = 0;
  uint64_t offset_ = 0;    // new bytes so far
  uint64_t prefix_ = 0;    // where the journal's part begins
  std::unique_ptr<char[]> window_;  // old content at [window_base_, +window_len_)
  uint64_t window_base_ = 0;
  size_t window_len_ = 0;
};

// Finishes a committed rewrite, or drops an uncommitted journal. `fd` is the
// table, held under a write lock. 0, or the errno of a failed copy.
int RecoverRewrite(const std::string &table, int fd);

}  // namespace devtab

#endif
