// Writing the cache back, and freeing it.
//
// The direct flush writes the whole new table to a file beside it, under the
// table file's write lock, and renames it into place (devtab::Replacement):
// a crash or a full disk at any moment leaves the old table or the new one.
// The new file is locked before the rename and the file lock moves to it, so
// the process still holds a lock on the table the path names.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include <unistd.h>

#include "cache_state.h"
#include "devtab_file.h"
#include "lock_state.h"

using qdcache::kModule;

namespace {

bool flushing = false;  // set while a flush runs

// The new table, formatted entry by entry into a piece of text that goes to
// the file whenever it is full: a few large writes, no stream in between.
class TableWriter {
 public:
  explicit TableWriter(devtab::Replacement *replacement) : replacement_(replacement) { text_.clear(); }
  bool Add(const oce *e) {
    char stamp[32];
    bool stamped = qdcache::AccessStampText(e, stamp);
    if (!qdcache::AppendEntry(&text_, e->objptr, stamped ? stamp : nullptr)) return false;
    return text_.size() < kPiece || Drain();
  }
  bool Drain() {
    devtab::sys::Point("flush-writing");
    int err = text_.empty() ? 0 : replacement_->Write({text_.data(), text_.size()});
    text_.clear();
    if (err != 0) {
      QDtrace(3, "QDcache_flush_put", "QDcache_flush_put: fprintf failed, errno %d", err);
      return false;
    }
    return true;
  }

 private:
  static constexpr size_t kPiece = 512 << 10;
  devtab::Replacement *replacement_;
  qdcache::TextBuffer &text_ = Text();
  static qdcache::TextBuffer &Text() {
    static qdcache::TextBuffer text;  // its memory serves every flush
    return text;
  }
};

// Makes the written content the table's; false on failure (the old table
// then stands whole).
bool CommitReplacement(devtab::Replacement *replacement) {
  if (int err = replacement->Commit(true)) {
    QDtrace(3, kModule, "Cannot rewrite device table file, errno %d", err);
    return false;
  }
  int fd = replacement->TakeFd();
  if (!qdlock::AdoptReplacement(fd)) close(fd);
  return true;
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
  std::unique_ptr<devtab::Replacement> replacement;
  std::unique_ptr<TableWriter> writer;
  if (direct) {
    if (QDlock_fp(QDWRITE) != 0) {
      QDtrace(5, kModule, "Cannot obtain a write lock for the device table file");
      return -1;
    }
    replacement = std::make_unique<devtab::Replacement>();
    if (int err = replacement->Begin(qdlock::file.file)) {
      QDtrace(2, kModule, "Cannot reset device table file for cache flush, errno %d", err);
      replacement.reset();
      QDunlock_fp(QDWRITE);
      return -1;
    }
    writer = std::make_unique<TableWriter>(replacement.get());
  }
  flushing = true;
  KeywordList *stamp = CreateKeywordList();
  if (stamp != nullptr) AddKeywordToList(stamp, "ObjTimestamp", QDstampstring);
  int result = 0;
  for (oce *e = qdcache_ocp->prev; e != qdcache_ocp;) {
    oce *prev = e->prev;
    qdcache::Prefetch(prev);
    QDtrace(8, kModule, "Flush object '%s'", e->objptr->alias);
    if (direct) {
      QDtrace(8, kModule, "Direct save on");
      // The stamp goes into the text only, as QDcache_set_accesstime_attr
      // would put it into the attributes just before they are written.
      if (!writer->Add(e)) {
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
    // Unless it is committed, the table was never touched.
    if (result != 0 || !writer->Drain() || !CommitReplacement(replacement.get())) result = -1;
    replacement.reset();  // drops an uncommitted file while the lock is held
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
  // Every entry goes at once, as QDcache_rmobj would take them one by one:
  // nothing is unlinked from the queue, the chains or the index first.
  qdcache::Index().Clear();
  unsigned int removed = 0;
  for (oce *e = qdcache_ocp->next; e != qdcache_ocp; ++removed) {
    oce *next = e->next;
    qdcache::Prefetch(next);
    qdcache::ReleaseEntry(e);
    e = next;
  }
  qdcache_info[qdcache::kRmobj] += removed;
  qdcache_ocp->next = qdcache_ocp->prev = qdcache_ocp;
  free(qdchash_tbl);
  qdchash_tbl = nullptr;
  qdcache::Walk() = qdcache::AttributeWalk();
  qdcache::Memory().Reset();
  QDtrace(8, kModule, "QDcache_free end, %d seconds, total time %d seconds", Elapsed(start), Elapsed(start));
  qdcache_running_sec = Elapsed(start);
  QDcache_show_info();
  qdcache_free = 1;
}

}  // extern "C"
