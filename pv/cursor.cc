// The device table cursor: every (alias, name, value) of the table, entry
// after entry, positional fields first. Each rewind opens the file afresh, so
// it sees the table as it is now; the open file keeps one version throughout
// (writers replace the table, they do not rewrite it in place).
#include <fcntl.h>
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
  int fd = -1;
  std::unique_ptr<devtab::EntryStream> stream;
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

void Close() {
  cursor.stream.reset();
  if (cursor.fd >= 0) close(cursor.fd);
  cursor.fd = -1;
  cursor.open = false;
  cursor.have_entry = false;
}

}  // namespace

extern "C" {

char *_pdevtabpath(void) {
  const char *env = getenv("TAV_DEVTAB");
  return strdup(env != nullptr && *env != '\0' ? env : QD_DEVTAB_PATH);
}

int ResetDeviceTabFile(void) {
  char *path = _pdevtabpath();
  if (path == nullptr) return -1;
  cursor.path = path;
  free(path);
  Close();
  do cursor.fd = open(cursor.path.c_str(), O_RDONLY | O_CLOEXEC);
  while (cursor.fd < 0 && errno == EINTR);
  if (cursor.fd < 0) {
    pv::Trace(8, "ResetDeviceTabFile", "cannot read %s: %s", cursor.path.c_str(), strerror(errno));
    return -1;
  }
  cursor.stream = std::make_unique<devtab::EntryStream>(cursor.fd);
  cursor.open = true;
  return 0;
}

int ReferenceNextAttribute(char **alias, char **name, char **value) {
  if (!cursor.open && ResetDeviceTabFile() != 0) return KWL_END;
  for (;;) {
    if (!cursor.have_entry) {
      if (!NextEntry()) {
        Close();
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
