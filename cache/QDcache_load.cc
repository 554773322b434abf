// Loading the whole table into the cache: directly from the table file
// through the table cursor, or through the alias listing and object query.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "cache_state.h"

using qdcache::kModule;

namespace {

// One entry being assembled by the direct loader: its pairs in arrival
// order, in one buffer reused from entry to entry. This does for the loader
// what the report tree does (first value of a keyword kept, keywords in
// descending byte order) without an allocation per pair.
class Assembly {
 public:
  void Start(const char *alias) {
    size_t n = strlen(alias) + 1;
    alias_.resize(n);  // kept whole: an alias of any length stays one object
    memcpy(alias_.data(), alias, n);
    used_ = 0;
    pairs_.clear();
    active_ = true;
  }
  bool active() const { return active_; }
  bool SameAlias(const char *alias) const { return active_ && strcmp(alias_.data(), alias) == 0; }

  void Offer(const char *key, const char *value) {
    size_t k = strlen(key) + 1, v = strlen(value) + 1;
    if (used_ + k + v > text_.size()) text_.resize(std::max(text_.size() * 2, used_ + k + v + 4096));
    char *at = text_.data() + used_;
    memcpy(at, key, k);
    memcpy(at + k, value, v);
    pairs_.push_back({Prefix(key), static_cast<uint32_t>(used_), static_cast<uint32_t>(used_ + k)});
    used_ += k + v;
  }

  // Adds the entry to the cache as the report tree and QDcache_addalias
  // would: keywords unique (first value kept) in descending order.
  void AddToCache() {
    const char *text = text_.data();
    // An insertion sort: entries have a dozen pairs, and it is stable, so
    // that among pairs of one keyword the first stays first.
    auto before = [text](const Pair &a, const Pair &b) {
      if (a.prefix != b.prefix) return a.prefix > b.prefix;
      return strcmp(text + a.key, text + b.key) > 0;
    };
    for (size_t i = 1; i < pairs_.size(); ++i) {
      Pair p = pairs_[i];
      size_t j = i;
      for (; j > 0 && before(p, pairs_[j - 1]); --j) pairs_[j] = pairs_[j - 1];
      pairs_[j] = p;
    }
    keys_.clear();
    values_.clear();
    const Pair *last = nullptr;
    for (const Pair &p : pairs_) {
      char *key = text_.data() + p.key;
      // The first value of a keyword stays.
      if (last != nullptr && last->prefix == p.prefix && strcmp(text + last->key, key) == 0) continue;
      last = &p;
      char *value = text_.data() + p.value;
      QDtrace(8, "QDcache_load_direct_add_kw", "adding '%s' = '%s'", key, value);
      keys_.push_back(key);
      values_.push_back(value);
    }
    qdcache::AddFromPairs(alias_.data(), keys_.data(), values_.data(), keys_.size(), 1);
    active_ = false;
  }

 private:
  struct Pair {
    uint64_t prefix;      // the keyword's first bytes, ordered as strcmp orders them
    uint32_t key, value;  // offsets in text_
  };
  static uint64_t Prefix(const char *key) {
    uint64_t p = 0;
    for (int i = 0; i < 8; ++i) {
      p = p << 8 | static_cast<unsigned char>(*key);
      if (*key != '\0') ++key;
    }
    return p;
  }
  std::vector<char> alias_;
  std::vector<char> text_;  // keyword and value of each pair, terminated
  size_t used_ = 0;
  std::vector<Pair> pairs_;
  std::vector<char *> keys_, values_;
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
  qdcache::Memory().Reset();
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
    if (name[0] == 'a' && strcmp(name, "alias") == 0) continue;
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
