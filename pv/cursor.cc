// The device table cursor: every (alias, name, value) of the table, entry
// after entry, positional fields first.
//
// The descriptor stays open between walks and a rewind reuses it while the
// path still names the same file: callers walk the table while holding an
// fcntl lock on it, and closing ANY descriptor of a file drops all of the
// process's locks on it. When a writer has replaced the table, the rewind
// opens the new file; the old descriptor's file is gone from the path, so
// no lock that still matters is dropped with it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <cstdlib>
#include <cstring>
#include <string>

#include "devtab_file.h"
#include "devtab_format.h"
#include "pv.h"
#include "pv_internal.h"
#include "qd_paths.h"

namespace {

const char kModule[] = "ReferenceNextAttribute";

struct Cursor {
  int fd = -1;  // the table
  devtab::TableReader reader;  // borrows fd
  std::unique_ptr<devtab::EntryStream> stream;  // reads through reader
  devtab::Entry entry;
  std::string path;
  size_t field = 0;  // next field of entry: 0-2 positional, then pairs
  bool have_entry = false;
  bool open = false;
};
Cursor cursor;

// Moves to the next well-formed entry; malformed ones are reported and skipped.
bool NextEntry() {
  devtab::RawEntry raw;
  while (cursor.stream->Next(&raw)) {
    devtab::Defect d = devtab::ParseEntry(raw.text, &cursor.entry);
    if (d == devtab::Defect::kNone) {
      cursor.field = 0;
      return true;
    }
    pv::Trace(3, kModule, "%s:%zu: %s; entry skipped", cursor.path.c_str(), raw.line,
              devtab::DefectText(d));
  }
  if (cursor.stream->error() != 0)
    pv::Trace(3, kModule, "%s: read failed: %s", cursor.path.c_str(), strerror(cursor.stream->error()));
  return false;
}

void EndWalk() {
  cursor.open = false;
  cursor.have_entry = false;
}

// True when the open descriptor is the file `path` names now.
bool StillCurrent(const std::string &path) {
  struct stat by_fd, by_path;
  return cursor.fd >= 0 && path == cursor.path && fstat(cursor.fd, &by_fd) == 0 &&
         stat(path.c_str(), &by_path) == 0 && by_fd.st_ino == by_path.st_ino &&
         by_fd.st_dev == by_path.st_dev;
}

}  // namespace

extern "C" {

char *_pdevtabpath(void) {
  const char *env = getenv("TAV_DEVTAB");
  return strdup(env != nullptr && *env != '\0' ? env : QD_DEVTAB_PATH);
}

int ResetDeviceTabFile(void) {
  char *raw = _pdevtabpath();
  if (raw == nullptr) return -1;
  std::string path = raw;
  free(raw);
  EndWalk();
  if (!StillCurrent(path)) {
    // The old file is no longer the table, so no lock that matters goes
    // with its descriptor.
    cursor.reader.Borrow(-1);
    if (cursor.fd >= 0) close(cursor.fd);
    cursor.path = path;
    do cursor.fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    while (cursor.fd < 0 && errno == EINTR);
    if (cursor.fd < 0) {
      pv::Trace(8, "ResetDeviceTabFile", "cannot read %s: %s", path.c_str(), strerror(errno));
      return -1;
    }
  }
  cursor.reader.Borrow(cursor.fd);
  if (cursor.stream == nullptr)
    cursor.stream = std::make_unique<devtab::EntryStream>(&cursor.reader);
  else
    cursor.stream->Restart();
  cursor.open = true;
  return 0;
}

int ReferenceNextAttribute(char **alias, char **name, char **value) {
  if (!cursor.open && ResetDeviceTabFile() != 0) return KWL_END;
  for (;;) {
    if (!cursor.have_entry) {
      if (!NextEntry()) {
        EndWalk();
        return KWL_END;
      }
      cursor.have_entry = true;
    }
    devtab::Entry &e = cursor.entry;
    size_t f = cursor.field++;
    if (f < 3) {
      *alias = &e.alias[0];
      *name = const_cast<char *>(devtab::kPositionalNames[f]);
      *value = &e.positional[f][0];
      return KWL_OK;
    }
    if (f - 3 < e.npairs) {
      devtab::Pair &p = e.pairs[f - 3];
      *alias = &e.alias[0];
      *name = &p.name[0];
      *value = &p.value[0];
      return KWL_OK;
    }
    cursor.have_entry = false;
  }
}

}  // extern "C"
