// An archive run: stale objects leave the table for the archive, under
// both table locks, through the cache.
#include "qd.h"

namespace {

const char kModule[] = "QDarchive";
constexpr int kAttempts = 3;

bool Empty(AliasList **list) { return list == nullptr || *list == nullptr; }

template <typename Fn>
bool Retry(Fn attempt) {
  for (int i = 0; i < kAttempts; ++i)
    if (attempt() == 0) return true;
  return false;
}

// With the locks held: archive through the cache, loading it (and then
// flushing it) when it was not on.
int ArchiveCached(int mode, AliasList **list) {
  bool loaded_here = false;
  if (qdcache_on == 0) {
    QDtrace(7, kModule, "Cache not on before archiving--load cache");
    loaded_here = QDcache_load() == 0;
  }
  if (qdcache_on == 0) {
    QDtrace(3, kModule, "Cannot cache Object Table");
    return 255;
  }
  int result = QDcache_archive(mode, list);
  if (!loaded_here) {
    QDtrace(3, kModule, "Archiving complete");  // the caller's cache: the caller flushes
    return result;
  }
  QDtrace(7, kModule, "Archiving complete");
  QDtrace(7, kModule, "Flush cache to file");
  if (QDcache_flush() != 0) {
    QDtrace(3, kModule, "Cannot flush cache");
    return 255;
  }
  QDtrace(7, kModule, "Free cached objects");
  QDcache_free();
  return result;
}

}  // namespace

extern "C" int QDArchive(int mode, AliasList **list) {
  QDarchivedir[0] = '\0';  // this run files under the current stamp
  QDarchivepath[0] = '\0';
  if (mode == QD_ARCH_ALL && !Empty(list)) {
    QDtrace(3, kModule, "InputList must be NULL when QD_ARCH_ALL selected");
    return 254;
  }
  if (mode == QD_ARCH_LIST && Empty(list)) {
    QDtrace(3, kModule, "InputList must be non-NULL when QD_ARCH_LIST selected");
    return 254;
  }
  if (!Retry([] { return QDlock(QDREAD); })) {
    QDtrace(3, kModule, "Cannot lock Object Table for reads");
    return 255;
  }
  if (!Retry([] { return QDlock(QDWRITE); })) {
    QDtrace(3, kModule, "Cannot lock Object Table for writes");
    QDunlock(QDREAD);
    return 255;
  }
  int result = ArchiveCached(mode, list);
  Retry([] { return QDunlock(QDWRITE); });
  Retry([] { return QDunlock(QDREAD); });
  return result;
}
