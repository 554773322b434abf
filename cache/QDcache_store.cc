// The cache store: entries on the object queue and the alias hash.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "cache_state.h"
#include "front.h"
#include "kwlist_layout.h"

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

// Links the entry into a chain behind `after`, counted; true when that is a
// bucket's chain (the index must learn of it).
bool Link(oce *after, oce *entry) {
  entry->hnext = after->hnext;
  entry->hprev = after;
  after->hnext->hprev = entry;
  after->hnext = entry;
  entry->qd_chain = after->qd_chain;
  if (entry->qd_chain == 0) return false;
  ++qdcache::ChainLengths()[entry->qd_chain - 1];
  return true;
}

// A zero-filled entry in the cache's memory.
oce *NewEntry() {
  void *p = qdcache::Memory().Allocate(sizeof(oce));
  memset(p, 0, sizeof(oce));
  return static_cast<oce *>(p);
}

// The values of an object's ObjTimestamp and ObjModifyTime, or null.
struct Stamps {
  const char *touched = nullptr;
  const char *modified = nullptr;
};

Stamps LookUpStamps(ObjectRecord *object) {
  Stamps s;
  char *kw;
  char *value;
  if (ReferenceKeywordInList(object->attributes, "ObjTimestamp", &kw, &value) == 0) s.touched = value;
  if (ReferenceKeywordInList(object->attributes, "ObjModifyTime", &kw, &value) == 0) s.modified = value;
  return s;
}

// QDcache_addobj's work on a given entry.
oce *Enter(oce *e, ObjectRecord *object, unsigned char status, const Stamps &stamps) {
  qdcache::Count(qdcache::kAddobj);
  e->objptr = object;
  const char *alias = object->alias;
  if ((status & (OCE_ACTIVE | OCE_UPDATED)) == (OCE_ACTIVE | OCE_UPDATED)) {
    e->status = status;
    e->accesstime = e->modifytime = QDtimestamp;
    QD_TRACE(8, kModule, "Object added (new):      %s", alias);
  } else {
    const char *value = stamps.touched;
    if (value == nullptr) {
      e->status = static_cast<unsigned char>(status | OCE_ACTIVE);
      QDzerotimestamp(&e->accesstime);
      QDzerotimestamp(&e->modifytime);
      QD_TRACE(8, kModule, "Object added (original): %s", alias);
    } else {
      e->status = static_cast<unsigned char>(status & ~OCE_ACTIVE);
      e->accesstime = QDvalue2tm(value);
      QD_TRACE(8, kModule, "Object added (stale):    %s", alias);
      QD_TRACE(8, kModule, "        Last touched:    %s", value);
      if ((value = stamps.modified) != nullptr) {
        QD_TRACE(8, kModule, "       Last modified:    %s", value);
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

// Blanks every byte outside 32 to 126 (from 128 up included) of the n bytes
// at v, in place. Most values hold none: eight bytes are looked at a step.
void CleanValue(char *v, size_t n) {
  constexpr uint64_t k01 = 0x0101010101010101ULL, k80 = 0x8080808080808080ULL;
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t w;
    memcpy(&w, v + i, 8);
    uint64_t del = w ^ (0x7f * k01);
    // A byte from 128 up, a byte below 32, a byte 127 (each test exact for
    // whether any byte of the word is one).
    if (((w & k80) | ((w - 0x20 * k01) & ~w & k80) | ((del - k01) & ~del & k80)) == 0) continue;
    break;
  }
  for (char *p = v + i, *end = v + n; p < end; ++p)
    if (static_cast<signed char>(*p) < 32 || *p == 127) *p = ' ';
}

// One pair as the layout wants it: lengths with terminators.
struct PairSize {
  size_t key, value;
  bool method;
};

// Lays out both lists of an object, each in the pairs' order.
void LayLists(char *attributes_at, char *methods_at, char *const *keys, char *const *values,
              const std::vector<PairSize> &sizes, KeywordList **attributes, KeywordList **methods) {
  using namespace pv::layout;
  KeywordList *list[2] = {Lay(attributes_at, 0, kForeign), Lay(methods_at, 0, kForeign)};
  char *at[2] = {LaidEntries(list[0]), LaidEntries(list[1])};
  for (size_t i = 0; i < sizes.size(); ++i) {
    int m = sizes[i].method;
    Append(list[m], Fill(at[m], keys[i], sizes[i].key, values[i], sizes[i].value, false));
    at[m] += EntrySize(sizes[i].key, sizes[i].value);
  }
  *attributes = list[0];
  *methods = list[1];
}

}  // namespace

namespace qdcache {

oce *AddFromPairs(const char *alias, char *const *keys, char *const *values, const size_t *value_lengths,
                  size_t n, unsigned char status) {
  using pv::layout::Align;
  using pv::layout::EntrySize;
  using pv::layout::ListSize;
  Count(kAddalias);
  QD_TRACE(8, kModule, "QDcache_addalias '%s'", alias);
  static std::vector<PairSize> sizes;
  sizes.resize(n);
  size_t room[2] = {0, 0};  // attributes, methods
  Stamps stamps;            // the first of each, as a lookup finds them
  for (size_t i = 0; i < n; ++i) {
    size_t vlen = value_lengths != nullptr ? value_lengths[i] : strlen(values[i]);
    CleanValue(values[i], vlen);
    size_t klen = strlen(keys[i]);
    sizes[i] = {klen + 1, vlen + 1, IsMethod(keys[i], static_cast<int>(klen)) != 0};
    room[sizes[i].method] += EntrySize(sizes[i].key, sizes[i].value);
    if (keys[i][0] == 'O' && !sizes[i].method) {
      if (stamps.touched == nullptr && strcmp(keys[i], "ObjTimestamp") == 0) stamps.touched = values[i];
      if (stamps.modified == nullptr && strcmp(keys[i], "ObjModifyTime") == 0) stamps.modified = values[i];
    }
  }
  // Entry, record, alias and both lists in one piece.
  size_t alias_size = strlen(alias) + 1;
  size_t at_record = Align(sizeof(oce));
  size_t at_alias = at_record + Align(sizeof(ObjectRecord));
  size_t at_attributes = at_alias + Align(alias_size);
  size_t at_methods = at_attributes + Align(ListSize(room[0], pv::layout::kForeign));
  size_t total = at_methods + ListSize(room[1], pv::layout::kForeign);
  char *piece = static_cast<char *>(Memory().Allocate(total));
  auto *e = reinterpret_cast<oce *>(piece);
  memset(e, 0, sizeof(oce));
  auto *object = reinterpret_cast<ObjectRecord *>(piece + at_record);
  object->alias = piece + at_alias;
  memcpy(object->alias, alias, alias_size);
  LayLists(piece + at_attributes, piece + at_methods, keys, values, sizes, &object->attributes,
           &object->methods);
  object->contained = nullptr;
  return Enter(e, object, status, stamps);
}

void ReleaseEntry(oce *entry) {
  Arena &memory = Memory();
  if (ObjectRecord *o = entry->objptr) {
    if (!memory.Owns(o->alias)) free(o->alias);
    // Lists laid out in the cache's memory free only what they grew.
    for (KeywordList *list : {o->attributes, o->methods})
      if (list != nullptr && (list->kwl_shared != pv::layout::kForeign || list->kwl_blocks != nullptr))
        DestroyKeywordList(list);
    if (!memory.Owns(o)) free(o);
  }
  QDcache_oce_free(entry);
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

void QDcache_oce_free(oce *entry) {
  if (!qdcache::Memory().Owns(entry)) free(entry);
}

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
  if (Link(after, entry)) IndexLinked(entry);
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
  Count(qdcache::kHash);  // the bucket itself is not needed: the index answers
  qdcache::IndexSlot *slot = qdcache::Index().Find(alias);
  return slot != nullptr ? slot->first : nullptr;
}

oce *QDcache_hash_searchadd(const char *alias, oce *entry) {
  Count(qdcache::kHashSearchadd);
  oce *head = QDcache_hash(alias);
  unsigned walked = qdcache::ChainLengths()[head->qd_chain - 1];
  if (entry != nullptr && AliasOf(entry) == alias) {
    // An object's own entry (every load and put): one probe finds the
    // alias or makes its slot.
    bool fresh = false;
    qdcache::IndexSlot *slot = qdcache::Index().Insert(alias, entry, &fresh);
    if (!fresh) return slot->first;
    slot->chained = 1;
    Link(head->hprev, entry);
  } else {
    if (qdcache::IndexSlot *slot = qdcache::Index().Find(alias)) return slot->first;
    if (entry == nullptr) entry = QDcache_oce_new();
    QDcache_hash_enq(head->hprev, entry);
  }
  if (walked + 1 > qdcache_info[qdcache::kMaxHashChain]) qdcache_info[qdcache::kMaxHashChain] = walked + 1;
  return entry;
}

oce *QDcache_addobj(ObjectRecord *object, unsigned char status) {
  return Enter(NewEntry(), object, status, LookUpStamps(object));
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
  return qdcache::AddFromPairs(alias, keys.data(), values.data(), nullptr, keys.size(), status);
}

void QDcache_rmobj(oce *entry) {
  Count(qdcache::kRmobj);
  QDcache_oce_deq(entry);
  QDcache_hash_deq(entry);
  qdcache::ReleaseEntry(entry);
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
