#include "cache_state.h"

extern "C" {
int qdcache_on = 0;          // 1 while the cache is loaded and in use
int qdcache_free = 1;        // 1 while no cache contents are allocated
int qdcache_directload = 1;  // copy of qdc_rc.directload
int qdcache_directsave = 1;  // copy of qdc_rc.directsave
int qd_stale = 0;            // nonzero: criteria queries include stale objects
long qdcache_running_sec = 0;  // clock at the start of a load, flush or free

struct qdc_rc_t qdc_rc = {128, 1, 1};
unsigned int qdcache_info[18] = {};

oce qdcache_ocp1 = {&qdcache_ocp1, &qdcache_ocp1, nullptr, nullptr, nullptr, 0, {}, {}, 0};
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

AliasIndex &Index() {
  static AliasIndex index;
  return index;
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
