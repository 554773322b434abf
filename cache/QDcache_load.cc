// Loading the whole table into the cache: directly from the table file
// through the table cursor, or through the alias listing and object query.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "cache_state.h"

using qdcache::kModule;

namespace {

// One entry being assembled by the direct loader: its pairs in arrival
// order, in storage reused from entry to entry. This does for the loader
// what the report tree does (first value of a keyword kept, keywords in
// descending byte order) without a node allocation per pair.
class Assembly {
 public:
  void Start(const char *alias) {
    alias_ = alias;  // kept whole: an alias of any length stays one object
    used_ = 0;
    active_ = true;
  }
  bool active() const { return active_; }
  const std::string &alias() const { return alias_; }
  bool SameAlias(const char *alias) const { return active_ && alias_ == alias; }

  void Offer(const char *key, const char *value) {
    if (used_ == pairs_.size()) pairs_.emplace_back();
    Pair &p = pairs_[used_++];
    p.key = key;
    p.value = value;
    p.order = used_;
  }

  // Adds the entry to the cache as the report tree and QDcache_addalias
  // would: keywords unique (first value kept) in descending order.
  void AddToCache() {
    order_.resize(used_);
    for (size_t i = 0; i < used_; ++i) order_[i] = &pairs_[i];
    std::sort(order_.begin(), order_.end(), [](const Pair *a, const Pair *b) {
      int c = strcmp(a->key.c_str(), b->key.c_str());
      return c != 0 ? c > 0 : a->order < b->order;
    });
    keys_.clear();
    values_.clear();
    const Pair *last = nullptr;
    for (Pair *p : order_) {
      if (last != nullptr && last->key == p->key) continue;  // the first value stays
      QDtrace(8, "QDcache_load_direct_add_kw", "adding '%s' = '%s'", p->key.c_str(), p->value.c_str());
      keys_.push_back(&p->key[0]);
      values_.push_back(&p->value[0]);
      last = p;
    }
    qdcache::AddFromPairs(alias_.c_str(), keys_.data(), values_.data(), keys_.size(), 1);
    active_ = false;
  }

 private:
  struct Pair {
    std::string key, value;
    size_t order = 0;
  };
  std::string alias_;
  std::vector<Pair> pairs_;
  std::vector<Pair *> order_;
  std::vector<char *> keys_, values_;
  size_t used_ = 0;
  bool active_ = false;
};

void AddAssembled(Assembly *entry) {
  qdcache::Count(qdcache::kLoadDirectAdd);
  entry->AddToCache();
}

// The cache as it was before a failed load: empty, free, hash released.
void Discard() {
  while (qdcache_ocp->next != qdcache_ocp) QDcache_rmobj(qdcache_ocp->next);
  free(qdchash_tbl);
  qdchash_tbl = nullptr;
  qdcache::Index().Clear();
}

int LoadIndirect() {
  AliasList *aliases = QDgetaliases(nullptr);
  for (AliasList *n = aliases; n != nullptr; n = n->next)
    if (ObjectRecord *object = QDgetobj(n->alias)) QDcache_addobj(object, 1);
  QDFreeAliasList(aliases);
  return 0;
}

}  // namespace

extern "C" {

int QDcache_load_direct_add_kw(void *list, const char *keyword, const char *value) {
  QDtrace(8, "QDcache_load_direct_add_kw", "adding '%s' = '%s'", keyword, value ? value : "");
  return AddKeywordToList(static_cast<KeywordList *>(list), keyword, value);
}

void QDcache_load_direct_add(const char *alias) {
  qdcache::Count(qdcache::kLoadDirectAdd);
  KeywordList *list = CreateKeywordList();
  report_apply("d", QDcache_load_direct_add_kw, list);
  report_free();
  list->kwl_cursor = list->kwl_first;
  QDcache_addalias(alias, list, 1);
  DestroyKeywordList(list);
}

int QDcache_load_direct(void) {
  QDtrace(8, kModule, "QDcache_load_direct()");
  if (QDlock_fp(QDREAD) != 0) {
    QDtrace(3, kModule, "Cannot obtain a read lock for the device table file");
    return -1;
  }
  if (ResetDeviceTabFile() == -1) {
    QDtrace(3, "QDcache_load", "NO device tab file");
    QDunlock_fp(QDREAD);
    return -1;
  }
  static Assembly entry;
  char *alias;
  char *name;
  char *value;
  while (ReferenceNextAttribute(&alias, &name, &value) != KWL_END) {
    if (!entry.SameAlias(alias)) {
      if (entry.active()) AddAssembled(&entry);
      entry.Start(alias);
    }
    if (strcmp(name, "alias") == 0) continue;
    if (*value == '\0' && (strcmp(name, "cdevice") == 0 || strcmp(name, "bdevice") == 0)) continue;
    entry.Offer(name, value);
  }
  if (entry.active()) AddAssembled(&entry);
  QDunlock_fp(QDREAD);
  QDtrace(8, kModule, "QDcache_load_direct() complete");
  return 0;
}

int QDcache_load(void) {
  if (qdcache_on == 1) {
    QDtrace(5, kModule, "Cache already loaded");
    return 0;
  }
  if (qdcache_free == 0) {
    QDtrace(4, kModule, "Cache not free to be loaded");
    return -1;
  }
  QDcache_read_rc();
  if (QDcache_hash_init() != 0) {
    QDtrace(3, kModule, "Error in init of hash table");
    return -1;
  }
  QDtrace(8, kModule, "QDcache_load begin");
  qdcache_running_sec = static_cast<long>(time(nullptr));
  if (QDsettime(QD_TS_ENV, nullptr) == 0)
    QDtrace(6, kModule, "Timestamping set as requested by environment variable");
  int rc = qdc_rc.directload == 0 ? LoadIndirect() : QDcache_load_direct();
  if (rc != 0) {
    // Never leave a partial cache marked loaded: a later direct flush would
    // write it over the table.
    Discard();
    return -1;
  }
  QDtrace(8, kModule, "QDcache_load end, %d seconds",
          static_cast<int>(time(nullptr) - qdcache_running_sec));
  qdcache_on = 1;
  qdcache_free = 0;
  return 0;
}

}  // extern "C"
