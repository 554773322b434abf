// The cache's process-wide state, in one place: flags, settings, counters,
// the object queue's sentinel, the alias hash and its index.
//
// The character-sum hash clusters the short, similar aliases of real tables
// into few buckets. The chains are kept exactly (their membership, order,
// counters and traces are part of the contract), but a lookup goes through
// an index of each chained alias's first entry, so it never walks a chain.
#ifndef QD_CACHE_STATE_H
#define QD_CACHE_STATE_H

#include <string_view>
#include <unordered_map>
#include <vector>

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
// of QDcache_hash_enq).
struct IndexSlot {
  oce *first;
  unsigned chained;
};
using AliasIndex = std::unordered_map<std::string_view, IndexSlot>;
AliasIndex &Index();
// Chain length of each bucket, kept as entries are linked and unlinked.
std::vector<unsigned> &ChainLengths();
// The bucket of an alias, without counting a hash call.
unsigned Bucket(const char *alias);

extern const char kModule[];  // "QDcache"

}  // namespace qdcache

#endif
