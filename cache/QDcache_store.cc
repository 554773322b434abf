// The cache store: entries on the object queue and the alias hash.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "cache_state.h"

using qdcache::Count;
using qdcache::kModule;

namespace {

const char *AliasOf(const oce *e) {
  return e->objptr != nullptr && e->objptr->alias != nullptr ? e->objptr->alias : nullptr;
}

// Walks a bucket's chain for the first entry of `alias` other than `skip`.
oce *FirstInChain(unsigned bucket, const char *alias, const oce *skip) {
  oce *head = &qdchash_tbl[bucket];
  for (oce *p = head->hnext; p != head; p = p->hnext) {
    const char *other = AliasOf(p);
    if (p != skip && other != nullptr && strcmp(other, alias) == 0) return p;
  }
  return nullptr;
}

void IndexLinked(oce *e) {
  const char *alias = AliasOf(e);
  if (alias == nullptr) return;  // a lookup compares objects' aliases: none here
  bool fresh = false;
  qdcache::IndexSlot *slot = qdcache::Index().Insert(alias, e, &fresh);
  if (fresh) {
    slot->chained = 1;
    return;
  }
  // A second chained entry of one alias: whichever stands first wins.
  ++slot->chained;
  slot->first = FirstInChain(e->qd_chain - 1, alias, nullptr);
}

void IndexUnlinked(oce *e, unsigned bucket) {
  const char *alias = AliasOf(e);
  if (alias == nullptr) return;
  qdcache::IndexSlot *slot = qdcache::Index().Find(alias);
  if (slot == nullptr) return;
  if (--slot->chained == 0) {
    qdcache::Index().Erase(alias);
  } else if (slot->first == e) {
    // The slot is keyed by its first entry: hand it to the next one.
    oce *next = FirstInChain(bucket, alias, e);
    if (next == nullptr)
      qdcache::Index().Erase(alias);
    else
      slot->first = next;
  }
}

}  // namespace

namespace qdcache {

oce *AddFromPairs(const char *alias, char *const *keys, char *const *values, size_t n,
                  unsigned char status) {
  Count(kAddalias);
  QDtrace(8, kModule, "QDcache_addalias '%s'", alias);
  // The pairs are gathered first and then copied once, so that each of the
  // object's lists is a single block: a load builds hundreds of thousands.
  KeywordList *gathered[2] = {CreateKeywordList(), CreateKeywordList()};  // methods, attributes
  KeywordList *methods = nullptr;
  KeywordList *attributes = nullptr;
  if (gathered[0] != nullptr && gathered[1] != nullptr) {
    for (size_t i = 0; i < n; ++i) {
      for (char *p = values[i]; *p; ++p)
        if (static_cast<signed char>(*p) < 32 || *p == 127) *p = ' ';
      bool method = IsMethod(keys[i], static_cast<int>(strlen(keys[i]))) != 0;
      AddKeywordToList(gathered[method ? 0 : 1], keys[i], values[i]);
    }
    methods = DuplicateKeywordList(gathered[0]);
    attributes = DuplicateKeywordList(gathered[1]);
  }
  DestroyKeywordList(gathered[0]);
  DestroyKeywordList(gathered[1]);
  if (methods == nullptr || attributes == nullptr) QDerror(kModule, "CreateKeywordList failed\n");
  size_t len = strlen(alias);
  char *copy = static_cast<char *>(QDmalloc(kModule, len + 1));
  ObjectRecord *object = nullptr;
  if (copy != nullptr) {
    memcpy(copy, alias, len + 1);
    object = Create_object(copy, attributes, methods);
  }
  if (object == nullptr) {
    free(copy);
    DestroyKeywordList(attributes);
    DestroyKeywordList(methods);
    return nullptr;
  }
  return QDcache_addobj(object, status);
}

}  // namespace qdcache

extern "C" {

oce *QDcache_oce_new(void) {
  auto *e = static_cast<oce *>(calloc(1, sizeof(oce)));
  if (e == nullptr) {
    QDtrace(3, kModule, "QDcache_oce_new: calloc failed");
    exit(1);
  }
  return e;
}

void QDcache_oce_free(oce *entry) { free(entry); }

void QDcache_oce_enq(oce *after, oce *entry) {
  entry->next = after->next;
  entry->prev = after;
  after->next->prev = entry;
  after->next = entry;
}

void QDcache_oce_deq(oce *entry) {
  entry->prev->next = entry->next;
  entry->next->prev = entry->prev;
  entry->next = entry->prev = entry;
}

void QDcache_hash_enq(oce *after, oce *entry) {
  entry->hnext = after->hnext;
  entry->hprev = after;
  after->hnext->hprev = entry;
  after->hnext = entry;
  entry->qd_chain = after->qd_chain;
  if (entry->qd_chain != 0) {
    ++qdcache::ChainLengths()[entry->qd_chain - 1];
    IndexLinked(entry);
  }
}

void QDcache_hash_deq(oce *entry) {
  if (entry->hnext != nullptr && entry->hnext != entry) {
    entry->hprev->hnext = entry->hnext;
    entry->hnext->hprev = entry->hprev;
    if (entry->qd_chain != 0) {
      unsigned bucket = entry->qd_chain - 1;
      --qdcache::ChainLengths()[bucket];
      entry->hnext = entry->hprev = entry;
      entry->qd_chain = 0;
      IndexUnlinked(entry, bucket);
    }
  }
  entry->hnext = entry->hprev = entry;
  entry->qd_chain = 0;
}

int QDcache_hash_init(void) {
  if (qdc_rc.aliashashsize == 0) qdc_rc.aliashashsize = 1;
  qdchash_tbl = static_cast<oce *>(calloc(qdc_rc.aliashashsize, sizeof(oce)));
  if (qdchash_tbl == nullptr) {
    QDtrace(3, kModule, "QDcache_hash_init malloc failed");
    return -1;
  }
  for (unsigned i = 0; i < qdc_rc.aliashashsize; ++i) {
    qdchash_tbl[i].hnext = qdchash_tbl[i].hprev = &qdchash_tbl[i];
    qdchash_tbl[i].qd_chain = i + 1;
  }
  qdcache::Index().Clear();
  qdcache::ChainLengths().assign(qdc_rc.aliashashsize, 0);
  return 0;
}

oce *QDcache_hash(const char *alias) {
  Count(qdcache::kHash);
  return &qdchash_tbl[qdcache::Bucket(alias)];
}

// The chain is not walked: the index holds, for each alias, the entry the
// walk would find first, and the chain lengths are kept as entries move.
oce *QDcache_hash_lookup(const char *alias) {
  Count(qdcache::kHashLookup);
  QDcache_hash(alias);
  qdcache::IndexSlot *slot = qdcache::Index().Find(alias);
  return slot != nullptr ? slot->first : nullptr;
}

oce *QDcache_hash_searchadd(const char *alias, oce *entry) {
  Count(qdcache::kHashSearchadd);
  oce *head = QDcache_hash(alias);
  if (qdcache::IndexSlot *slot = qdcache::Index().Find(alias)) return slot->first;
  unsigned walked = qdcache::ChainLengths()[head->qd_chain - 1];
  if (entry == nullptr) entry = QDcache_oce_new();
  QDcache_hash_enq(head->hprev, entry);
  if (walked + 1 > qdcache_info[qdcache::kMaxHashChain]) qdcache_info[qdcache::kMaxHashChain] = walked + 1;
  return entry;
}

oce *QDcache_addobj(ObjectRecord *object, unsigned char status) {
  Count(qdcache::kAddobj);
  oce *e = QDcache_oce_new();
  e->objptr = object;
  const char *alias = object->alias;
  if ((status & (OCE_ACTIVE | OCE_UPDATED)) == (OCE_ACTIVE | OCE_UPDATED)) {
    e->status = status;
    e->accesstime = e->modifytime = QDtimestamp;
    QDtrace(8, kModule, "Object added (new):      %s", alias);
  } else {
    char *kw;
    char *value;
    if (ReferenceKeywordInList(object->attributes, "ObjTimestamp", &kw, &value) != 0) {
      e->status = static_cast<unsigned char>(status | OCE_ACTIVE);
      QDzerotimestamp(&e->accesstime);
      QDzerotimestamp(&e->modifytime);
      QDtrace(8, kModule, "Object added (original): %s", alias);
    } else {
      e->status = static_cast<unsigned char>(status & ~OCE_ACTIVE);
      e->accesstime = QDvalue2tm(value);
      QDtrace(8, kModule, "Object added (stale):    %s", alias);
      QDtrace(8, kModule, "        Last touched:    %s", value);
      if (ReferenceKeywordInList(object->attributes, "ObjModifyTime", &kw, &value) == 0) {
        QDtrace(8, kModule, "       Last modified:    %s", value);
        e->modifytime = QDvalue2tm(value);
      } else {
        e->modifytime = e->accesstime;
      }
    }
  }
  QDcache_oce_enq(qdcache_ocp->prev, e);
  oce *hashed = QDcache_hash_searchadd(alias, e);
  if (hashed != e) {
    e->hnext = e->hprev = e;
    e->qd_chain = 0;
  }
  return hashed;
}

oce *QDcache_addalias(const char *alias, KeywordList *pairs, unsigned char status) {
  static std::vector<char *> keys, values;
  keys.clear();
  values.clear();
  char *kw;
  char *value;
  while (ReferenceNextKeywordInList(pairs, &kw, &value) == KWL_OK) {
    keys.push_back(kw);
    values.push_back(value);
  }
  return qdcache::AddFromPairs(alias, keys.data(), values.data(), keys.size(), status);
}

void QDcache_rmobj(oce *entry) {
  Count(qdcache::kRmobj);
  QDcache_oce_deq(entry);
  QDcache_hash_deq(entry);
  if (ObjectRecord *o = entry->objptr) {
    free(o->alias);
    if (o->attributes != nullptr) DestroyKeywordList(o->attributes);
    if (o->methods != nullptr) DestroyKeywordList(o->methods);
    free(o);
  }
  QDcache_oce_free(entry);
}

oce *QDcache_find_alias(const char *alias) {
  Count(qdcache::kFindAlias);
  return QDcache_hash_lookup(alias);
}

int QDcache_dump_aliases(void) {
  int n = 0;
  for (oce *e = qdcache_ocp->next; e != qdcache_ocp; e = e->next, ++n)
    QDtrace(8, kModule, "QDcache_dump_aliases: alias '%s' ", AliasOf(e) ? AliasOf(e) : "(null)");
  return n;
}

void QDcache_show_info(void) {
  QDtrace(8, kModule, "QDcache_flush:  usage counts");
  for (int i = 0; i < qdcache::kCounters; ++i)
    QDtrace(8, kModule, "    %-30s %d", qdcache::kCounterLabels[i], static_cast<int>(qdcache_info[i]));
}

}  // extern "C"
