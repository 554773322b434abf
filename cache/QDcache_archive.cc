// Archiving stale cached objects: each is written to the archive and
// dropped from the cache, so that the next flush leaves it out of the
// table; objects stamped before the expiration date are dropped uncopied.
#include <string>

#include "aliases.h"
#include "cache_state.h"
#include "front.h"
#include "stamp_text.h"

using qdcache::Count;
using qdcache::kModule;

namespace {

unsigned long Shown(const void *p) { return reinterpret_cast<unsigned long>(p); }

// Whether level-8 lines are shown. A walk over the whole cache must not
// fetch every object (a cache miss each) only to pass its alias to a trace
// line that is not shown.
bool Tracing() { return qd::Tracing(8); }

// Drops the entry after its alias's fate is decided. An entry whose alias
// was cached before it is on no hash chain: removing "its" alias would
// remove the other entry, so it goes by itself.
void Drop(oce *entry, const std::string &alias) {
  if (entry->hnext == entry) {
    QDtrace(8, kModule, "Alias '%s' cached twice; dropping this entry", alias.c_str());
    QDcache_rmobj(entry);
    return;
  }
  QDcache_hook_QDdelete(alias.c_str());
}

int ArchiveStale(oce *entry) {
  const std::string alias = entry->objptr->alias;  // the entry may go
  if (QDexpirationdate.tm_mday != 0) {
    if (QDcomparestamps(entry->accesstime, QDexpirationdate) < 0) {
      QDtrace(8, kModule, "Past expiration date, do not archive object");
      Drop(entry, alias);
      return 0;
    }
    QDtrace(8, kModule, "Archive alias '%s'", alias.c_str());
  } else {
    QDtrace(8, kModule, "Expiration date not set, archive alias '%s'", alias.c_str());
  }
  int rc = QD_archive_object(entry->objptr);
  if (rc != 0) return rc;  // the object stays, and so stays in the table
  Drop(entry, alias);
  return 0;
}

int Decide(oce *entry) {
  if (entry->accesstime.tm_mday == 0) {
    if (Tracing())
      QDtrace(8, kModule, "Alias '%s' has no active accesstime, assumed up-to-date", entry->objptr->alias);
    return 245;
  }
  int cmp = QDcomparestamps(entry->accesstime, QDtimestamp);
  if (cmp == 0) {
    if (Tracing()) QDtrace(8, kModule, "Alias '%s' is up-to-date", entry->objptr->alias);
    return 245;
  }
  if (cmp > 0) {
    QDtrace(8, kModule, "Alias '%s' accesstime corrupted", entry->objptr->alias);
    return 255;
  }
  return ArchiveStale(entry);
}

}  // namespace

extern "C" {

int QDcache_archive_obj(oce *entry) {
  Count(qdcache::kArchiveObj);
  if (Tracing()) {
    QDtrace(8, kModule, "QDcache_archive_obj( %s )", entry->objptr->alias);
    char when[64];
    QDtrace(8, kModule, "Object timestamp:          %s", qdtime::AscTime(entry->accesstime, when));
  }
  int result = Decide(entry);
  QDtrace(8, kModule, "QDcache_archive_obj() return ( %d )", result);
  return result;
}

int QDcache_archive_list(AliasList **list) {
  QDtrace(8, kModule, "QDcache_archive_list( %lu )", Shown(list));
  int result = 0;
  for (AliasList *n = list != nullptr ? *list : nullptr; n != nullptr; n = n->next) {
    int rc;
    if (oce *e = QDcache_find_alias(n->alias)) {
      QDtrace(8, kModule, "Check alias '%s' for archival", n->alias);
      rc = QDcache_archive_obj(e);
    } else {
      QDtrace(8, kModule, "Alias '%s' not found for archival", n->alias);
      rc = 254;
    }
    if (rc != 0) result = rc;
  }
  QDtrace(8, kModule, "QDcache_archive_list() return ( %d )", result);
  return result;
}

int QDcache_archive_all(AliasList **list) {
  QDtrace(8, kModule, "QDcache_archive_all( %lu )", Shown(list));
  if (list == nullptr) QDtrace(8, kModule, "Return list not requested");
  AliasAppender kept{list, nullptr};
  if (list != nullptr)
    for (AliasList *n = *list; n != nullptr; n = n->next) kept.tail = n;
  int result = 0;
  for (oce *e = qdcache_ocp->next; e != qdcache_ocp;) {
    oce *next = e->next;
    if (Tracing()) QDtrace(8, kModule, "Check alias '%s' for archival", e->objptr->alias);
    int rc = QDcache_archive_obj(e);
    if (rc != 0) {  // and so the entry is still there
      QDtrace(8, kModule, "Alias '%s' archival failed", e->objptr->alias);
      if (list != nullptr) AddAnAliasToList(&kept, e->objptr->alias);
      result = rc;
    }
    e = next;
  }
  QDtrace(8, kModule, "QDcache_archive_all() return ( %d )", result);
  return result;
}

int QDcache_archive(int mode, AliasList **list) {
  QDtrace(8, kModule, "QDcache_archive( %d, %lu )", mode, Shown(list));
  int result = QDset_expiration_date();
  if (result == 0) {
    bool empty = list == nullptr || *list == nullptr;
    if (mode == QD_ARCH_ALL)
      result = empty ? QDcache_archive_all(list) : 254;
    else
      result = empty ? 254 : QDcache_archive_list(list);
  }
  QDtrace(8, kModule, "QDcache_archive() return ( %d )", result);
  return result;
}

}  // extern "C"
