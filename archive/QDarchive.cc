// Archive copies of objects: one file per object in a run directory named
// after the process's current time stamp.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qd.h"
#include "qd_paths.h"

extern "C" {
char QDarchivedir[513] = "";   // this process's run directory, once built
char QDarchivepath[513] = "";  // the object file last written
}

namespace {

const char kModule[] = "QDarchive";

const char *ArchiveDir() {
#ifdef QD_FAULT_INJECTION
  // Test builds may give each test an archive of its own.
  if (const char *dir = getenv("QD_ARCHIVE_DIR_PATH")) return dir;
#endif
  return QD_ARCHIVE_DIR;
}

}  // namespace

extern "C" {

char *QD_build_archive_dir(void) {
  if (QDtimestamp.tm_mday == 0) return nullptr;
  if (QDarchivedir[0] != '\0') return QDarchivedir;
  snprintf(QDarchivepath, sizeof QDarchivepath, "%4d:%02d:%02d:%02d:%02d:%02d",
           QDtimestamp.tm_year + 1900, QDtimestamp.tm_mon + 1, QDtimestamp.tm_mday,
           QDtimestamp.tm_hour, QDtimestamp.tm_min, QDtimestamp.tm_sec);
  int n = snprintf(QDarchivedir, sizeof QDarchivedir, "%s/%s", ArchiveDir(), QDarchivepath);
  if (n < 0 || static_cast<size_t>(n) >= sizeof QDarchivedir) {
    QDarchivedir[0] = '\0';
    return nullptr;
  }
  mkdirp(QDarchivedir, 0775);
  return QDarchivedir;
}

int QD_archive_object(ObjectRecord *object) {
  if (object == nullptr || object->alias == nullptr) return 255;
  const char *dir = QD_build_archive_dir();
  if (dir == nullptr) return 255;
  // An alias is one file name: a slash in it would lead out of the run
  // directory, so the copy is refused (the caller goes on without it).
  int n = strchr(object->alias, '/') != nullptr || strcmp(object->alias, ".") == 0 ||
                  strcmp(object->alias, "..") == 0
              ? -1
              : snprintf(QDarchivepath, sizeof QDarchivepath, "%s/%s", dir, object->alias);
  if (n < 0 || static_cast<size_t>(n) >= sizeof QDarchivepath) {
    QDtrace(7, kModule, "Cannot open archive path for %s", object->alias);
    return 255;
  }
  QDtrace(7, kModule, "Archive path: %s", QDarchivepath);
  FILE *out = fopen(QDarchivepath, "we");
  if (out == nullptr) {
    QDtrace(7, kModule, "Cannot open archive path for %s", object->alias);
    return 255;
  }
  QDtrace(7, kModule, "Archiving %s", object->alias);
  fprintf(out, "%s=%s\n", "alias", object->alias);
  if (object->attributes != nullptr) KeywordListToStream(out, object->attributes);
  if (object->methods != nullptr) KeywordListToStream(out, object->methods);
  return fclose(out) == 0 ? 0 : 255;
}

}  // extern "C"
