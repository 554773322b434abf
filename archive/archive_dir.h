// Where archive copies go. Shared by the library and qdadm, which lists
// and reports on the run directories without making any.
#ifndef QD_ARCHIVE_ARCHIVE_DIR_H
#define QD_ARCHIVE_ARCHIVE_DIR_H

#include <cstdlib>

#include "qd_paths.h"

namespace qd {

inline const char *ArchiveDir() {
#ifdef QD_FAULT_INJECTION
  // Test builds may give each test an archive of its own.
  if (const char *dir = getenv("QD_ARCHIVE_DIR_PATH")) return dir;
#endif
  return QD_ARCHIVE_DIR;
}

// A run directory's name: "YYYY:MM:DD:hh:mm:ss", digits and colons only.
inline bool IsRunDirectoryName(const char *name) {
  for (int i = 0; i < 19; ++i) {
    bool colon = i == 4 || i == 7 || i == 10 || i == 13 || i == 16;
    if (colon ? name[i] != ':' : (name[i] < '0' || name[i] > '9')) return false;
  }
  return name[19] == '\0';
}

}  // namespace qd

#endif
