// The cache's process-wide state, in one place: flags, settings, counters,
// the object queue's sentinel, the alias hash and its index.
//
// The character-sum hash clusters the short, similar aliases of real tables
// into few buckets. The chains are kept exactly (their membership, order,
// counters and traces are part of the contract), but a lookup goes through
// an index of each chained alias's first entry, so it never walks a chain.
#ifndef QD_CACHE_STATE_H
#define QD_CACHE_STATE_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "arena.h"
#include "kwlist_layout.h"
#include "qd.h"

namespace qdcache {

// Counter numbers of qdcache_info.
enum Counter {
  kHookQDLput = 0,
  kHookGetAllAliases = 1,
  kHookGetSpecificAliases = 2,
  kHookQDdelete = 3,
  kHookUnitProp = 4,
  kHookDevAllAttr = 5,
  kHookQDmatchalias = 6,
  kHash = 7,
  kHashLookup = 8,
  kHashSearchadd = 9,
  kMaxHashChain = 10,
  kLoadDirectAdd = 11,
  kFindAlias = 12,
  kCachedReferenceNextAttribute = 13,
  kAddalias = 14,
  kAddobj = 15,
  kRmobj = 16,
  kArchiveObj = 17,
  kCounters = 18,
};
extern const char *const kCounterLabels[kCounters];

inline void Count(Counter c) { ++qdcache_info[c]; }

// alias -> the first entry of that alias in chain order, and how many
// entries of that alias are chained (more than one only through direct use
// of QDcache_hash_enq). Open addressing, no allocation per entry; a slot is
// keyed by its first entry's own alias, so it holds no string of its own.
struct IndexSlot {
  oce *first;  // nullptr: empty slot
  uint32_t chained;
  uint32_t hash;  // private to the index
};

class AliasIndex {
 public:
  constexpr AliasIndex() = default;
  ~AliasIndex() { Unmap(slots_, capacity_ * sizeof(IndexSlot)); }
  AliasIndex(const AliasIndex &) = delete;
  AliasIndex &operator=(const AliasIndex &) = delete;

  IndexSlot *Find(const char *alias) const;
  // Asks for the memory where the alias's slot lies: an insert or a lookup
  // soon after finds it at hand.
  void Prefetch(const char *alias) const {
    if (capacity_ != 0) __builtin_prefetch(&slots_[Hash(alias) & (capacity_ - 1)]);
  }
  // A query is about to look the alias up: its slot and the entry there are
  // asked for now, so that those misses overlap with the query's own work,
  // and the hash is kept for a lookup of that very string until Forget.
  void Anticipate(const char *alias);
  void Forget() { anticipated_ = nullptr; }
  // The slot of the alias; when absent it is added with `first` and
  // nothing chained.
  IndexSlot *Insert(const char *alias, oce *first, bool *fresh);
  // Drops the slot; its first entry must still carry the alias.
  void Erase(const char *alias);
  // Empties the index; its room stays for the next load.
  void Clear();

 private:
  static uint32_t Hash(const char *s);
  static const char *Key(const IndexSlot &s);
  // Its slot, or the empty one where it would go. With `fetch` a hash match
  // asks for its entry's memory; Anticipate has asked for the home slot's.
  size_t Probe(const char *alias, uint32_t hash, bool fetch = true) const;
  void Grow();
  // Mapped apart from the heap: a lookup lands anywhere in it, and in huge
  // pages it costs no page walk per lookup.
  IndexSlot *slots_ = nullptr;
  size_t capacity_ = 0;
  size_t used_ = 0;
  const char *anticipated_ = nullptr;
  uint32_t anticipated_hash_ = 0;
};
// Constant-initialized, so that a lookup reaches it without a guard.
extern AliasIndex the_index;
inline AliasIndex &Index() { return the_index; }

// For the span of a one-name query with the cache on (see Anticipate). The
// query never changes the alias it was given, so its hash stays right.
class Anticipation {
 public:
  explicit Anticipation(const char *alias) { Index().Anticipate(alias); }
  ~Anticipation() { Index().Forget(); }
  Anticipation(const Anticipation &) = delete;
  Anticipation &operator=(const Anticipation &) = delete;
};

// Chain length of each bucket, kept as entries are linked and unlinked.
std::vector<unsigned> &ChainLengths();
// The bucket of an alias, without counting a hash call.
unsigned Bucket(const char *alias);

extern const char kModule[];  // "QDcache"

// The memory of the objects a load or a put lays out (see arena.h).
Arena &Memory();

// The position of CachedReferenceNextAttribute's walk over the cache.
struct AttributeWalk {
  oce *entry = nullptr;  // null: no walk under way
  ObjectRecord *object = nullptr;
  KeywordList *list = nullptr;  // the object's attributes, or its methods
  bool methods = false;
};
AttributeWalk &Walk();

// One attribute or method of a cached object, its value found only when
// asked for: a search looks at every pair's name but at few values.
struct CachedPair {
  const char *name;
  const char *Value() const { return name + strlen(name) + 1; }
};

// Hands every attribute, then every method, of every cached object to
// visit(alias, pair) in the order CachedReferenceNextAttribute hands them
// out from the start of a walk, with the same effect on its usage counter
// and on the lists' cursors. When visit returns false the walk ends, and the
// rest is counted as the callers of CachedReferenceNextAttribute drain it.
// Only for a walk that is not under way and a trace that is not at level 8.
template <typename Visit>
void ForEachCachedPair(Visit &&visit) {
  unsigned long calls = 1;  // the call that finds the end
  bool going = true;
  for (oce *e = qdcache_ocp->next; e != qdcache_ocp && e->objptr != nullptr; e = e->next) {
    const char *alias = e->objptr->alias;
    for (KeywordList *list : {e->objptr->attributes, e->objptr->methods}) {
      if (!pv::layout::Live(list)) continue;
      if (!going) {
        calls += list->kwl_count;
      } else {
        for (KeywordEntry *k = list->kwl_first; k != nullptr; k = pv::layout::Next(k)) {
          ++calls;
          if (going && !visit(alias, CachedPair{k->keyword})) going = false;
        }
      }
      list->kwl_cursor = nullptr;
    }
  }
  qdcache_info[kCachedReferenceNextAttribute] += calls;
}

// True while a flush runs: the puts and deletes it makes go to the device
// commands and never try to load the cache.
bool Flushing();

// The body of QDcache_addalias over plain arrays of pairs (values are
// cleaned in place): the object is laid out in the cache's memory in one
// piece, entry, record, alias and both lists. The direct loader hands its
// assembled entry straight to it, without building a keyword list first.
oce *AddFromPairs(const char *alias, char *const *keys, char *const *values, const size_t *value_lengths,
                  size_t n, unsigned char status);

// Asks for the memory of an entry that a walk of the queue takes next, while
// it works on this one: an object laid out by a load lies in one piece,
// entry, record, alias and lists, which a walk meets cold.
inline void Prefetch(const oce *entry) {
  const char *p = reinterpret_cast<const char *>(entry);
  for (int line = 0; line < 8; ++line) __builtin_prefetch(p + 64 * line);
}

// What ReferenceKeywordInList delivers with status 0 for `name`: the value
// of its first entry, or null when the list is not valid, holds no such
// entry or that entry has no value. A lookup of a cached value walks the
// list in place, without a call per entry.
inline char *ValueInList(KeywordList *list, const char *name) {
  if (!pv::layout::Live(list)) return nullptr;
  for (KeywordEntry *k = list->kwl_first; k != nullptr; k = pv::layout::Next(k)) {
    // Most keywords of a list differ from the name in their first byte.
    if (k->keyword[0] != name[0]) continue;
    const char *a = k->keyword, *b = name;
    while (*a != '\0' && *a == *b) ++a, ++b;
    if (*a != *b) continue;
    return pv::layout::NoValue(k) ? nullptr : k->keyword + (a - k->keyword) + 1;
  }
  return nullptr;
}

// Frees what an entry owns that does not lie in the cache's memory.
void ReleaseEntry(oce *entry);

// Text that grows to what it is asked to hold, kept from use to use.
class TextBuffer {
 public:
  void clear() { used_ = 0; }
  size_t size() const { return used_; }
  bool empty() const { return used_ == 0; }
  const char *data() const { return data_.data(); }
  void Put(char c) {
    if (used_ == data_.size()) Reserve(1);
    data_[used_++] = c;
  }
  void Put(const char *s, size_t n) {
    if (n == 0) return;  // an unused buffer has no storage to copy into
    if (used_ + n > data_.size()) Reserve(n);
    memcpy(data_.data() + used_, s, n);
    used_ += n;
  }

 private:
  void Reserve(size_t n) { data_.resize(std::max(data_.size() * 2, used_ + n + 4096)); }
  std::vector<char> data_;
  size_t used_ = 0;
};

// The ObjTimestamp text QDcache_set_accesstime_attr would give the entry,
// traced as it traces; false when it would change nothing.
bool AccessStampText(const oce *entry, char text[32]);

// Appends the entry as QDcache_flush_put writes it, with `stamp` (unless
// null) as the ObjTimestamp that QDcache_set_accesstime_attr would have
// put last among the attributes, but leaves its lists as they are (the
// flush frees them right after); false, with nothing to be kept, when a
// list is not valid.
bool AppendEntry(TextBuffer *out, const ObjectRecord *object, const char *stamp);

}  // namespace qdcache

#endif
