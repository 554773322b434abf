// Loading the whole table into the cache: directly from the table file, or
// through the alias listing and object query.
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cache_state.h"
#include "devtab_format.h"
#include "devtab_file.h"
#include "front.h"
#include "lock_state.h"

using qdcache::kModule;

namespace {

// The direct loader reads whole entries from the locked table file, as the
// table cursor would hand them out triple by triple (positional fields
// first), and lays each object out straight from the parsed entry: its
// strings are copied once, into the cache's memory. The next entry is read
// before the current one is added, so that entries of one alias in a row
// make one object, as the cursor's triples would.
class DirectLoader {
 public:
  void Run(int fd, const char *path);

 private:
  struct Offer {
    uint64_t prefix;  // the keyword's first bytes, ordered as strcmp orders them
    char *key;
    char *value;
    size_t length;  // the value's
  };
  bool Read(devtab::Entry *out);
  void ForeseeMemory();
  static void Merge(devtab::Entry *into, const devtab::Entry &more);
  void Add(devtab::Entry *entry);
  void OfferPair(const char *key, size_t length, std::string *value);
  // The first eight bytes (zeros from the terminator on), first byte highest.
  static uint64_t Prefix(const char *key, size_t length) {
    uint64_t p = 0;
    memcpy(&p, key, strnlen(key, std::min<size_t>(length, 8)));
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    p = __builtin_bswap64(p);
#endif
    return p;
  }

  const char *path_ = "";
  size_t size_ = 0;    // of the table file
  size_t read_ = 0;    // bytes of it read so far
  size_t added_ = 0;   // objects added
  devtab::TableReader reader_;
  std::unique_ptr<devtab::EntryStream> stream_;
  devtab::Entry entries_[2];
  std::vector<Offer> offers_;
  std::vector<char *> keys_, values_;
  std::vector<size_t> lengths_;
};

void DirectLoader::Run(int fd, const char *path) {
  path_ = path;
  struct stat st {};
  size_ = fstat(fd, &st) == 0 && st.st_size > 0 ? static_cast<size_t>(st.st_size) : 0;
  read_ = 0;
  reader_.Borrow(fd);
  if (stream_ == nullptr)
    stream_ = std::make_unique<devtab::EntryStream>(&reader_);
  else
    stream_->Restart();
  devtab::Entry *current = &entries_[0], *next = &entries_[1];
  bool have = Read(current);
  while (have) {
    have = Read(next);
    if (have && next->alias == current->alias) {
      Merge(current, *next);
      continue;
    }
    Add(current);
    std::swap(current, next);
    if (++added_ % 64 == 0) ForeseeMemory();
  }
  reader_.Borrow(-1);
}

// The next well-formed entry; malformed ones are reported and skipped, as
// the table cursor does.
bool DirectLoader::Read(devtab::Entry *out) {
  devtab::RawEntry raw;
  while (stream_->Next(&raw)) {
    read_ = raw.offset + raw.text.size();
    devtab::Defect d = devtab::ParseEntry(raw.text, out);
    if (d == devtab::Defect::kNone) return true;
    QDtrace(3, "ReferenceNextAttribute", "%s:%zu: %s; entry skipped", path_, raw.line, devtab::DefectText(d));
  }
  if (stream_->error() != 0)
    QDtrace(3, "ReferenceNextAttribute", "%s: read failed: %s", path_, strerror(stream_->error()));
  return false;
}

// Tells the cache's memory how much more the rest of the table will take,
// at the rate the part read so far took.
void DirectLoader::ForeseeMemory() {
  if (read_ == 0 || read_ >= size_) return;
  qdcache::Arena &memory = qdcache::Memory();
  double rate = static_cast<double>(memory.used()) / static_cast<double>(read_);
  memory.Expect(static_cast<size_t>(rate * static_cast<double>(size_ - read_)));
}

// A later entry of the same alias: its triples follow the first one's.
void DirectLoader::Merge(devtab::Entry *into, const devtab::Entry &more) {
  for (int f = 0; f < 3; ++f) {
    devtab::Pair &p = into->AddPair();
    p.name = devtab::kPositionalNames[f];
    p.value = more.positional[f];
  }
  for (size_t i = 0; i < more.npairs; ++i) {
    devtab::Pair &p = into->AddPair();
    p.name = more.pairs[i].name;
    p.value = more.pairs[i].value;
  }
}

void DirectLoader::OfferPair(const char *key, size_t length, std::string *value) {
  if (key[0] == 'a' && strcmp(key, "alias") == 0) return;
  if (value->empty() && (strcmp(key, "cdevice") == 0 || strcmp(key, "bdevice") == 0)) return;
  offers_.push_back({Prefix(key, length), const_cast<char *>(key), &(*value)[0], value->size()});
}

// Adds the entry to the cache as the report tree and QDcache_addalias
// would: keywords unique (first value kept) in descending order.
void DirectLoader::Add(devtab::Entry *entry) {
  qdcache::Count(qdcache::kLoadDirectAdd);
  qdcache::Index().Prefetch(entry->alias.c_str());  // wanted once the object is laid out
  offers_.clear();
  for (int f = 0; f < 3; ++f)
    OfferPair(devtab::kPositionalNames[f], strlen(devtab::kPositionalNames[f]), &entry->positional[f]);
  for (size_t i = 0; i < entry->npairs; ++i) {
    devtab::Pair &p = entry->pairs[i];
    OfferPair(p.name.c_str(), p.name.size(), &p.value);
  }
  // An insertion sort: entries have a dozen pairs, and it is stable, so
  // that among pairs of one keyword the first stays first.
  auto before = [](const Offer &a, const Offer &b) {
    if (a.prefix != b.prefix) return a.prefix > b.prefix;
    return strcmp(a.key, b.key) > 0;
  };
  for (size_t i = 1; i < offers_.size(); ++i) {
    Offer o = offers_[i];
    size_t j = i;
    for (; j > 0 && before(o, offers_[j - 1]); --j) offers_[j] = offers_[j - 1];
    offers_[j] = o;
  }
  keys_.clear();
  values_.clear();
  lengths_.clear();
  const Offer *last = nullptr;
  bool trace = qd::Tracing(8);
  for (const Offer &o : offers_) {
    // The first value of a keyword stays.
    if (last != nullptr && last->prefix == o.prefix && strcmp(last->key, o.key) == 0) continue;
    last = &o;
    if (trace) QDtrace(8, "QDcache_load_direct_add_kw", "adding '%s' = '%s'", o.key, o.value);
    keys_.push_back(o.key);
    values_.push_back(o.value);
    lengths_.push_back(o.length);
  }
  qdcache::AddFromPairs(&entry->alias[0], keys_.data(), values_.data(), lengths_.data(), keys_.size(), 1);
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
  static DirectLoader loader;
  loader.Run(qdlock::file.fd, qdlock::file.file);
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
