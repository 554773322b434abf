#include "cache_state.h"

#include <cstring>

extern "C" {
int qdcache_on = 0;          // 1 while the cache is loaded and in use
int qdcache_free = 1;        // 1 while no cache contents are allocated
int qdcache_directload = 1;  // copy of qdc_rc.directload
int qdcache_directsave = 1;  // copy of qdc_rc.directsave
int qd_stale = 0;            // nonzero: criteria queries include stale objects
long qdcache_running_sec = 0;  // clock at the start of a load, flush or free

struct qdc_rc_t qdc_rc = {128, 1, 1};
unsigned int qdcache_info[18] = {};

oce qdcache_ocp1 = {&qdcache_ocp1, &qdcache_ocp1, nullptr, nullptr, nullptr, 0, 0, {}, {}};
oce *qdcache_ocp = &qdcache_ocp1;
oce *qdchash_tbl = nullptr;
}

namespace qdcache {

const char kModule[] = "QDcache";

const char *const kCounterLabels[kCounters] = {
    "hook_QDLput",         "hook_GetAllAliases",     "hook_GetSpecificAliases",
    "hook_QDdelete",       "hook_UnitProp",          "hook_DevAllAttr",
    "hook_QDmatchalias",   "hash",                   "hash_lookup",
    "hash_searchadd",      "max_hash_chain",         "QDcache_load_direct_add",
    "QDcache_find_alias",  "CachedReferenceNextAttribute", "QDcache_addalias",
    "QDcache_addobj",      "QDcache_rmobj",          "QDcache_archive_obj",
};

Arena &Memory() {
  static Arena arena;
  return arena;
}

AttributeWalk &Walk() {
  static AttributeWalk walk;
  return walk;
}

AliasIndex the_index;

// Eight bytes a step: a lookup hashes its alias every time, and byte steps
// were a fair share of a cached QDgetattr.
uint32_t AliasIndex::Hash(const char *s) {
  constexpr uint64_t kMul = 0x9e3779b97f4a7c15ULL;
  size_t n = strlen(s);
  uint64_t h = n * kMul;
  for (; n >= 8; s += 8, n -= 8) {
    uint64_t w;
    memcpy(&w, s, 8);
    h = (h ^ w) * kMul;
    h ^= h >> 29;
  }
  // The last bytes in at most two loads (overlapping), never byte by byte
  // through memory: a word built from byte stores reads back slowly.
  uint64_t w = 0;
  if (n >= 4) {
    uint32_t a, b;
    memcpy(&a, s, 4);
    memcpy(&b, s + n - 4, 4);
    w = a | static_cast<uint64_t>(b) << 32;
  } else if (n > 0) {
    w = static_cast<unsigned char>(s[0]) | static_cast<uint64_t>(static_cast<unsigned char>(s[n / 2])) << 8 |
        static_cast<uint64_t>(static_cast<unsigned char>(s[n - 1])) << 16;
  }
  h = (h ^ w) * kMul;
  // A product carries each byte's bits upwards only: mixed down again, so
  // that the low bits, which pick the slot, depend on every byte.
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdULL;
  h ^= h >> 33;
  h *= 0xc4ceb9fe1a85ec53ULL;
  h ^= h >> 33;
  return static_cast<uint32_t>(h);
}

const char *AliasIndex::Key(const IndexSlot &s) { return s.first->objptr->alias; }

size_t AliasIndex::Probe(const char *alias, uint32_t hash, bool fetch) const {
  size_t mask = capacity_ - 1;
  for (size_t i = hash & mask;; i = (i + 1) & mask) {
    const IndexSlot &s = slots_[i];
    if (s.first == nullptr) return i;
    if (s.hash != hash) continue;
    // The entry's alias, and soon its lists, lie behind a chain of pointers
    // that are loaded one after the other: the whole piece is asked for at
    // once.
    if (fetch) qdcache::Prefetch(s.first);
    if (strcmp(Key(s), alias) == 0) return i;
  }
}

void AliasIndex::Anticipate(const char *alias) {
  if (used_ == 0) return;
  anticipated_hash_ = Hash(alias);
  anticipated_ = alias;
  if (const oce *first = slots_[anticipated_hash_ & (capacity_ - 1)].first) qdcache::Prefetch(first);
}

IndexSlot *AliasIndex::Find(const char *alias) const {
  if (used_ == 0) return nullptr;
  bool anticipated = alias == anticipated_;
  const IndexSlot &s = slots_[Probe(alias, anticipated ? anticipated_hash_ : Hash(alias), !anticipated)];
  return s.first != nullptr ? const_cast<IndexSlot *>(&s) : nullptr;
}

IndexSlot *AliasIndex::Insert(const char *alias, oce *first, bool *fresh) {
  // Up to 4/5 full: probes stay short because each compares the hash first.
  if ((used_ + 1) * 5 > capacity_ * 4) Grow();
  uint32_t hash = Hash(alias);
  IndexSlot &s = slots_[Probe(alias, hash)];
  *fresh = s.first == nullptr;
  if (*fresh) {
    s = IndexSlot{first, 0, hash};
    ++used_;
  }
  return &s;
}

void AliasIndex::Erase(const char *alias) {
  if (used_ == 0) return;
  size_t mask = capacity_ - 1;
  size_t hole = Probe(alias, Hash(alias));
  if (slots_[hole].first == nullptr) return;
  slots_[hole].first = nullptr;
  --used_;
  // Shift back the run after the hole, so that probes never stop early.
  for (size_t i = (hole + 1) & mask; slots_[i].first != nullptr; i = (i + 1) & mask) {
    size_t home = slots_[i].hash & mask;
    bool movable = hole <= i ? (home <= hole || home > i) : (home <= hole && home > i);
    if (movable) {
      slots_[hole] = slots_[i];
      slots_[i].first = nullptr;
      hole = i;
    }
  }
}

void AliasIndex::Clear() {
  if (used_ > 0) Rezero(slots_, capacity_ * sizeof(IndexSlot));
  used_ = 0;
}

void AliasIndex::Grow() {
  IndexSlot *old = slots_;
  size_t old_capacity = capacity_;
  capacity_ = old_capacity == 0 ? 1024 : old_capacity * 2;
  slots_ = static_cast<IndexSlot *>(MapZeroed(capacity_ * sizeof(IndexSlot)));  // every slot empty
  size_t mask = capacity_ - 1;
  for (size_t k = 0; k < old_capacity; ++k) {
    const IndexSlot &s = old[k];
    if (s.first == nullptr) continue;
    size_t i = s.hash & mask;
    while (slots_[i].first != nullptr) i = (i + 1) & mask;
    slots_[i] = s;
  }
  Unmap(old, old_capacity * sizeof(IndexSlot));
}

std::vector<unsigned> &ChainLengths() {
  static std::vector<unsigned> lengths;
  return lengths;
}

unsigned Bucket(const char *alias) {
  unsigned int sum = 0;
  for (const char *p = alias; *p; ++p) sum += static_cast<unsigned int>(static_cast<signed char>(*p));
  return sum % qdc_rc.aliashashsize;
}

}  // namespace qdcache
