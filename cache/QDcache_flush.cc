// Writing the cache back, and freeing it.
//
// The direct flush rewrites the whole table under the table file's write
// lock, through a journal: the entries are written beside the table and
// committed before the table itself is touched, so a crash or a full disk
// at any moment leaves the old table or (after the commit) the new one.
#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>
#include <cstring>
#include <ctime>

#include "cache_state.h"
#include "devtab_file.h"
#include "lock_state.h"

using qdcache::kModule;

namespace {

bool flushing = false;  // set while a flush runs

// The journal as a stream whose writes pass the file seam (so that a full
// disk can be simulated).
ssize_t JournalWrite(void *cookie, const char *buf, size_t size) {
  int fd = *static_cast<int *>(cookie);
  size_t done = 0;
  while (done < size) {
    ssize_t n = devtab::sys::Write(fd, buf + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return done > 0 ? static_cast<ssize_t>(done) : -1;
    done += static_cast<size_t>(n);
  }
  return static_cast<ssize_t>(done);
}

int JournalClose(void *cookie) {
  int *fd = static_cast<int *>(cookie);
  int rc = close(*fd);
  delete fd;
  return rc;
}

FILE *OpenJournal(const std::string &path) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return nullptr;
  cookie_io_functions_t io = {nullptr, JournalWrite, nullptr, JournalClose};
  int *cookie = new int(fd);
  FILE *f = fopencookie(cookie, "w", io);
  if (f == nullptr) {
    close(fd);
    delete cookie;
  }
  return f;
}

int Elapsed(long since) { return static_cast<int>(time(nullptr) - since); }

// Object-writer mode: one entry through QDput and QDdelete. False stops the walk.
bool SaveThroughWriter(oce *e, KeywordList *stamp) {
  QDtrace(8, kModule, "Use QDput() to save");
  ObjectRecord *o = e->objptr;
  if ((e->status & OCE_ACTIVE) == 0) {
    QDtrace(8, kModule, "STALE object");
    return true;
  }
  if (e->status & OCE_UPDATED) {
    QDtrace(8, kModule, "ACTIVE/UPDATED object");
    QDcache_set_accesstime_attr(e);
    QDdelete(o->alias);
    if (o->attributes != nullptr && QDput(o->alias, o->attributes) == -1) return false;
    if (o->methods != nullptr && QDput(o->alias, o->methods) == -1) return false;
    return true;
  }
  QDtrace(8, kModule, "ACTIVE object");
  return stamp == nullptr || QDput(o->alias, stamp) != -1;
}

}  // namespace

namespace qdcache {
bool Flushing() { return flushing; }
}  // namespace qdcache

extern "C" {

int QDcache_flush(void) {
  if (qdcache_on == 0) {
    QDtrace(5, kModule, "Cache not currently loaded");
    return 0;
  }
  QDtrace(8, kModule, "QDcache_flush begin");
  long start = static_cast<long>(time(nullptr));
  qdcache_running_sec = start;
  qdcache_on = 0;
  bool direct = qdc_rc.directsave != 0;
  FILE *table_stream = nullptr;
  FILE *journal = nullptr;
  std::string table;
  if (direct) {
    if (QDlock_fp(QDWRITE) != 0) {
      QDtrace(5, kModule, "Cannot obtain a write lock for the device table file");
      return -1;
    }
    table = qdlock::file.file;
    journal = OpenJournal(devtab::JournalPath(table));
    if (journal == nullptr) {
      QDtrace(2, kModule, "Cannot reset device table file for cache flush, errno %d", errno);
      QDunlock_fp(QDWRITE);
      return -1;
    }
    table_stream = QDlock_fptr;
    QDlock_fptr = journal;  // the entry writer writes to the journal
  }
  flushing = true;
  KeywordList *stamp = CreateKeywordList();
  if (stamp != nullptr) AddKeywordToList(stamp, "ObjTimestamp", QDstampstring);
  int result = 0;
  for (oce *e = qdcache_ocp->prev; e != qdcache_ocp;) {
    oce *prev = e->prev;
    QDtrace(8, kModule, "Flush object '%s'", e->objptr->alias);
    if (direct) {
      QDtrace(8, kModule, "Direct save on");
      QDcache_set_accesstime_attr(e);
      if (QDcache_flush_put(e->objptr->alias, e->objptr->attributes, e->objptr->methods) != 0) {
        result = -1;
        break;
      }
    } else {
      if (!SaveThroughWriter(e, stamp)) {
        result = -1;
        break;
      }
      QDcache_rmobj(e);
    }
    e = prev;
  }
  if (direct) {
    QDlock_fptr = table_stream;
    bool written = result == 0 && fflush(journal) == 0 && ferror(journal) == 0;
    if (fclose(journal) != 0) written = false;
    if (!written) {
      // The table was never touched: the old one stands whole.
      unlink(devtab::JournalPath(table).c_str());
      result = -1;
    } else if (int err = devtab::CommitJournal(table, qdlock::file.fd)) {
      QDtrace(3, kModule, "Cannot rewrite device table file, errno %d", err);
      result = -1;
    }
    QDunlock_fp(QDWRITE);
  }
  flushing = false;
  DestroyKeywordList(stamp);
  QDcache_free();
  QDtrace(8, kModule, "QDcache_flush end, %d seconds, total time %d seconds", Elapsed(start),
          Elapsed(start));
  QDcache_show_info();
  return result;
}

void QDcache_free(void) {
  if (qdcache_free == 1) {
    QDtrace(5, kModule, "Cache already free");
    return;
  }
  QDtrace(8, kModule, "QDcache_free begin");
  long start = static_cast<long>(time(nullptr));
  qdcache_running_sec = start;
  qdcache_on = 0;
  for (oce *e = qdcache_ocp->next; e != qdcache_ocp;) {
    oce *next = e->next;
    QDcache_rmobj(e);
    e = next;
  }
  free(qdchash_tbl);
  qdchash_tbl = nullptr;
  qdcache::Index().Clear();
  QDtrace(8, kModule, "QDcache_free end, %d seconds, total time %d seconds", Elapsed(start), Elapsed(start));
  qdcache_running_sec = Elapsed(start);
  QDcache_show_info();
  qdcache_free = 1;
}

}  // extern "C"
