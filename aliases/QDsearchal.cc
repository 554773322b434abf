// Searching: every attribute of every alias, in table order, against a group
// of criteria that must hold and criteria that must not, with a filter of
// the attributes and methods the matching objects carry.
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "cache_state.h"
#include "front.h"
#include "qd.h"

using qd::Tracing;

namespace {

const char kModule[] = "QDsearchal";
const char kEverything[] = ",,,";
constexpr size_t kAliasText = 513;


// A criterion holds for the value V: without a value it asks for an empty V,
// otherwise for V itself or V holding it as one of its comma-separated items.
bool Holds(int status, const char *criterion, const char *value) {
  if (status == KWL_WARN || *criterion == '\0') return *value == '\0';
  return qd::SameString(criterion, value) || IsInCommaList(criterion, value) == 1;
}

// Judges every entry of `list` for the attribute `name`; NOT lists invert.
void Judge(KeywordList *list, const char *name, const char *value, bool negated, int *matched,
           int *mismatched) {
  if (list == nullptr) return;
  list->kwl_cursor = list->kwl_first;
  char *kw;
  char *wanted;
  int st;
  while ((st = ReferenceNextKeywordInList(list, &kw, &wanted)) == KWL_OK || st == KWL_WARN) {
    if (strcmp(kw, name) != 0) continue;
    QDtrace(8, "MeetSearchCriteria",
            negated ? "Attribute=%s,Value=%s,NOTkeyword=%s,value=%s" : "Attribute=%s,Value=%s,keyword=%s,value=%s",
            name, value, kw, wanted);
    if (Holds(st, wanted, value) != negated)
      ++*matched;
    else
      ++*mismatched;
  }
  QDtrace(8, negated ? "NOTthing" : "thing", "get_status=%d", st);
}

// A set of names with a quick test of their first two characters: a walk
// asks about every attribute of the table, and most names are in no set.
class NameSet {
 public:
  NameSet() : heads_(1 << 16) {}
  // The name's number in the set, given at its first Add.
  int Add(const char *name) {
    int id = Find(name);
    if (id >= 0) return id;
    names_.emplace_back(name);
    heads_[Head(name)] = true;
    return static_cast<int>(names_.size()) - 1;
  }
  bool MayHold(const char *name) const { return heads_[Head(name)]; }
  // The name's number, or -1 when the set does not hold it.
  int Find(const char *name) const {
    if (!MayHold(name)) return -1;
    for (size_t i = 0; i < names_.size(); ++i)
      if (qd::SameString(names_[i].c_str(), name)) return static_cast<int>(i);
    return -1;
  }
  const std::vector<std::string> &names() const { return names_; }

 private:
  // A blank second character counts as the end: the filter trims names.
  static unsigned Head(const char *name) {
    auto first = static_cast<unsigned char>(name[0]);
    if (first == 0 || name[1] == ' ' || name[1] == '\t') return first << 8;
    return first << 8 | static_cast<unsigned char>(name[1]);
  }
  std::vector<std::string> names_;
  std::vector<bool> heads_;
};

// One criterion, read once from its list.
struct Criterion {
  std::string name, wanted;
  int status;  // KWL_OK, or KWL_WARN for an entry without a value
  int id;      // its name's number among the criteria's names
};

// The criteria lists as the walk judges them. MeetSearchCriteria walks the
// lists at each attribute; this gives the same counts, in the same order and
// with the same traces, from arrays read once. The NOT criteria an alias has
// had judged are marked, where the lists' form removes them from a copy.
class CompiledCriteria {
 public:
  CompiledCriteria(KeywordList *klist, KeywordList *not_list)
      : has_klist_(klist != nullptr), has_not_(not_list != nullptr) {
    Read(klist, &must_);
    Read(not_list, &must_not_);
    judged_.assign(must_not_.size(), false);
  }
  int total() const { return static_cast<int>(must_.size() + must_not_.size()); }
  const NameSet &names() const { return names_; }
  bool has_not() const { return has_not_; }
  void StartAlias() { std::fill(judged_.begin(), judged_.end(), false), left_ = must_not_.size(); }
  size_t not_left() const { return left_; }

  // A pair's name as the criteria know it: their name's number, or -1 for a
  // name no criterion has. A walk asks once for each pair, and then compares
  // numbers, not names.
  int NameId(const char *name) const { return names_.Find(name); }

  // `value` gives the pair's value: it is looked at only for a name that
  // some criterion has.
  template <typename Value>
  int Meet(const char *name, int id, const Value &value, short type, bool trace) {
    int matched = 0, mismatched = 0;
    if (has_klist_) Tally(must_, nullptr, name, id, value, false, trace, &matched, &mismatched);
    if (type == QD_MATCH_ALL && mismatched > 0) return -1;
    if (type == QD_MATCH_ANY && matched > 0) return 1;
    if (has_not_) Tally(must_not_, &judged_, name, id, value, true, trace, &matched, &mismatched);
    if (type == QD_MATCH_ALL) return mismatched > 0 ? -1 : matched;
    return matched > 0 ? 1 : 0;
  }
  // Each NOT criterion is judged at the alias's first attribute of its name.
  void Judged(int id) {
    if (id < 0) return;
    for (size_t i = 0; i < must_not_.size(); ++i)
      if (!judged_[i] && must_not_[i].id == id) judged_[i] = true, --left_;
  }

 private:
  void Read(KeywordList *list, std::vector<Criterion> *out) {
    if (list == nullptr) return;
    list->kwl_cursor = list->kwl_first;
    char *kw;
    char *wanted;
    for (int st; (st = ReferenceNextKeywordInList(list, &kw, &wanted)) == KWL_OK || st == KWL_WARN;)
      out->push_back({kw, wanted, st, names_.Add(kw)});
  }
  template <typename Value>
  static void Tally(const std::vector<Criterion> &list, const std::vector<bool> *judged, const char *name, int id,
                    const Value &value, bool negated, bool trace, int *matched, int *mismatched) {
    for (size_t i = 0; id >= 0 && i < list.size(); ++i) {
      const Criterion &c = list[i];
      if ((judged != nullptr && (*judged)[i]) || c.id != id) continue;
      if (trace)
        QDtrace(8, "MeetSearchCriteria",
                negated ? "Attribute=%s,Value=%s,NOTkeyword=%s,value=%s" : "Attribute=%s,Value=%s,keyword=%s,value=%s",
                name, value(), c.name.c_str(), c.wanted.c_str());
      if (Holds(c.status, c.wanted.c_str(), value()) != negated)
        ++*matched;
      else
        ++*mismatched;
    }
    if (trace) QDtrace(8, negated ? "NOTthing" : "thing", "get_status=%d", KWL_END);
  }

  bool has_klist_, has_not_;
  std::vector<Criterion> must_, must_not_;
  std::vector<bool> judged_;
  size_t left_ = 0;
  NameSet names_;
};

// The filter: ",,," keeps every name; any other text is a comma list of the
// names kept, read once.
class Filter {
 public:
  explicit Filter(const char *text) : everything_(strcmp(text, kEverything) == 0) {
    if (everything_) return;
    CommaList items = ParseCommaList(text);
    for (size_t i = 0; items != nullptr && items[i] != nullptr; ++i) names_.Add(items[i]);
    DestroyCommaList(items);
  }
  bool everything() const { return everything_; }
  const NameSet &names() const { return names_; }
  // As IsInCommaList(name, text) would answer.
  bool Keeps(const char *name) const {
    if (everything_) return true;
    while (*name == ' ' || *name == '\t') ++name;
    if (*name == '\0' || !names_.MayHold(name)) return false;
    std::string_view want = name;
    while (want.back() == ' ' || want.back() == '\t') want.remove_suffix(1);
    for (const std::string &n : names_.names())
      if (n == want) return true;
    return false;
  }

 private:
  bool everything_;
  NameSet names_;
};

// Appends name=value to the methods or the attributes, making the list
// when it is null; false (reported) when that fails.
bool SaveItem(const char *name, const char *value, bool method, KeywordList **methods, KeywordList **attributes) {
  KeywordList **list = method ? methods : attributes;
  if (*list == nullptr && (*list = CreateKeywordList()) == nullptr) {
    QDerror("AddFilterItem", method ? "Cannot CreateKeywordList of Methods\n" : "Cannot CreateKeywordList of Attributes\n");
    return false;
  }
  if (AddKeywordToList(*list, name, value) != KWL_OK) {
    QDerror("AddFilterItem", method ? "Error in AddKeywordToList for Methods\n" : "Error in AddKeywordToList for Attributes\n");
    return false;
  }
  return true;
}

// The state of one search.
class Search {
 public:
  Search(SearchCriteria_t *criteria, const char *filter)
      : type_(criteria->search_type),
        criteria_(criteria->group->Klist, criteria->group->Not_Klist),
        filter_(filter),
        trace_(Tracing(8)),
        trace_status_(Tracing(7)),
        watch_all_(filter_.everything()) {
    for (const NameSet *set : {&criteria_.names(), &filter_.names()})
      for (const std::string &name : set->names()) watched_.Add(name.c_str());
  }

  // The walk; false when it could not be done at all (the result is void).
  bool Run();
  ObjectList *result() const { return head_; }
  void Discard() { DestroyObjectList(head_), head_ = nullptr; }

 private:
  void StartAlias(const char *alias);
  void CloseAlias();
  bool Stale(const char *alias);
  template <typename Value>
  bool Visit(const char *alias, const char *name, const Value &value);
  bool Take(const char *name, const char *value);
  bool Add(bool by_remainder);
  void DropPending() { pending_.clear(), pending_text_.clear(); }

  short type_;
  CompiledCriteria criteria_;
  Filter filter_;
  bool trace_;         // level 8 is traced
  bool trace_status_;  // level 7 is traced: each pair asks its alias's status
  // The names some criterion or the filter has: a pair of any other name
  // changes nothing but the chance that its alias is complete.
  NameSet watched_;
  bool watch_all_;
  int total_ = 0;
  ObjectList *head_ = nullptr;
  std::string alias_;
  bool seen_ = false, candidate_ = false, added_ = false;
  int matched_ = 0;  // CriteriaMatchedByAlias
  // The filtered pairs of a candidate not yet matched, kept in one reused
  // buffer: most candidates never match, and their pairs are dropped.
  struct Pending {
    size_t name, value;  // offsets into pending_text_
    bool method;
  };
  std::vector<Pending> pending_;
  std::string pending_text_;
  const char *alias_seen_ = nullptr;  // the cache walk's alias pointer of alias_
  int status_ = OBJ_ACTIVE;  // the alias's status, asked once when nobody traces it
  bool status_known_ = false;
};

void Search::StartAlias(const char *alias) {
  CloseAlias();
  alias_ = alias;
  seen_ = true;
  DropPending();
  added_ = false;
  matched_ = 0;
  status_known_ = false;
  criteria_.StartAlias();
  if (trace_) QDtrace(8, kModule, "Checking alias = %s", alias);
  candidate_ = true;
}

// The remainder rule: each NOT criterion left (the alias lacks its
// attribute) counts as met.
void Search::CloseAlias() {
  if (!seen_ || !candidate_ || added_ || !criteria_.has_not()) return;
  if (trace_) QDtrace(8, kModule, "checking remainder NOT list for alias=%s", alias_.c_str());
  matched_ += static_cast<int>(criteria_.not_left());
  if (matched_ >= total_) Add(true);
}

// A status word's lowest bit tells an active alias. The status of an alias
// is the same at each of its attributes: it is asked at each only while its
// traces are being written.
bool Search::Stale(const char *alias) {
  if (!status_known_ || trace_status_) {
    // What QDaliasstatus asks, without a copy of the alias made and freed
    // for each entry of the table.
    ObjectRecord bare{const_cast<char *>(alias), nullptr, nullptr, nullptr};
    status_ = QDobjectstatus(&bare);
    status_known_ = true;
  }
  return (status_ & 1) == 0;
}

bool Search::Add(bool by_remainder) {
  if (trace_)
    QDtrace(8, kModule, by_remainder ? "Matched alias = %s with NOT criteria" : "Matched alias = %s", alias_.c_str());
  KeywordList *attributes = nullptr, *methods = nullptr;
  bool ok = true;
  for (size_t i = 0; ok && i < pending_.size(); ++i)
    ok = SaveItem(&pending_text_[pending_[i].name], &pending_text_[pending_[i].value], pending_[i].method, &methods,
                  &attributes);
  ObjectList *head = ok ? AddObjectToList(alias_.c_str(), attributes, methods, head_) : nullptr;
  if (head == nullptr) {
    DestroyKeywordList(attributes), DestroyKeywordList(methods);
    return false;
  }
  head_ = head;
  DropPending();  // the object has them now
  added_ = true;
  candidate_ = false;
  return true;
}

// Keeps a pair the filter names: false when it could not be kept.
bool Search::Take(const char *name, const char *value) {
  size_t name_size = strlen(name) + 1;
  bool method = IsMethod(name, static_cast<int>(name_size - 1)) != 0;
  if (trace_) QDtrace(8, kModule, method ? "Saving method = %s" : "Saving attribute = %s", name);
  if (!candidate_) return SaveItem(name, value, method, &head_->Object->methods, &head_->Object->attributes);
  size_t at = pending_text_.size();
  pending_text_.append(name, name_size);  // with its terminator
  pending_text_.append(value, strlen(value) + 1);
  pending_.push_back({at, at + name_size, method});
  return true;
}

// One pair of the walk; false when the walk ends here.
template <typename Value>
bool Search::Visit(const char *alias, const char *name, const Value &value) {
  // Another alias can only begin with another entry. The cache hands out
  // each object's own alias, so there the same pointer is the same alias;
  // the file cursor reuses its buffer, but starts every entry with its
  // positional fields, cdevice first.
  bool same = seen_ && (qdcache_on != 0 ? alias == alias_seen_ : !(name[0] == 'c' && name[1] == 'd' && strcmp(name, "cdevice") == 0));
  if (!same) {
    if (!seen_ || !qd::SameString(alias_.c_str(), alias)) StartAlias(alias);
    alias_seen_ = alias;
  }
  if (trace_) QDtrace(8, kModule, "Checking alias=%s,Attribute=%s,Value=%s", alias, name, value());
  if (qd_stale == 0 && Stale(alias)) {
    QDtrace(7, kModule, "Skipping stale alias %s", alias);
    DropPending();
    candidate_ = false;
    if (added_) {
      QDtrace(7, kModule, "stale alias has Matched=1");
      added_ = false;
      ObjectList *gone = head_;
      head_ = gone->next;
      gone->next = nullptr;
      DestroyObjectList(gone);
    }
  }
  // The filter skips a name's leading blanks: such a name is always looked at.
  bool plain = !trace_ && !watch_all_ && name[0] != ' ' && name[0] != '\t' && !watched_.MayHold(name);
  if (candidate_ && !plain) {
    int id = criteria_.NameId(name);
    int r = criteria_.Meet(name, id, value, type_, trace_);
    if (r < 0) {
      DropPending();
      candidate_ = false;
    }
    if (trace_) QDtrace(8, kModule, "MeetSearchCriteria returns %d", r);
    matched_ += r;
    if (criteria_.has_not()) criteria_.Judged(id);
  }
  bool kept = !(candidate_ || added_) || plain || !filter_.Keeps(name) || Take(name, value());
  if (kept && trace_) QDtrace(8, kModule, "CriteriaMatchedByAlias=%d,TotalCriteriaItems=%d", matched_, total_);
  return kept && !(candidate_ && matched_ == total_ && !Add(false));
}

bool Search::Run() {
  total_ = criteria_.total();
  if (type_ == QD_MATCH_ANY && total_ > 1) total_ = 1;
  if (trace_) QDtrace(8, kModule, "TotalCriteriaItems needed to match = %d", total_);
  const qdcache::AttributeWalk &walk = qdcache::Walk();
  if (qdcache_on != 0 && !trace_ && walk.entry == nullptr && walk.list == nullptr) {
    // The cache's pairs straight from its objects, as the cursor would hand
    // them out, without looking up a value no criterion or filter asks for.
    bool stopped = false;
    qdcache::ForEachCachedPair([this, &stopped](const char *alias, qdcache::CachedPair pair) {
      return !(stopped = !Visit(alias, pair.name, [pair] { return pair.Value(); }));
    });
    if (stopped) return true;
  } else {
    char *alias;
    char *name;
    char *value;
    // Without the cache the cursor reads the file; its wrapper only says so,
    // at level 5, once for every pair.
    auto next = qdcache_on == 0 && !Tracing(5) ? ReferenceNextAttribute : CachedReferenceNextAttribute;
    while (next(&alias, &name, &value) != KWL_END) {
      if (!Visit(alias, name, [value] { return value; })) {
        // The walk ends here; the cache's cursor is taken to its end, so that
        // the next walk starts at the first object.
        while (qdcache_on != 0 && CachedReferenceNextAttribute(&alias, &name, &value) != KWL_END) {
        }
        return true;
      }
    }
  }
  CloseAlias();
  return true;
}

}  // namespace

extern "C" {

SearchCriteria_t *CreateSearchCriteria(short search_type, short group_type) {
  if (group_type == QD_MANY_LEVELS) {
    QDerror(kModule, "QD_MANY_LEVELS is unsupported.\n");
    return nullptr;
  }
  auto *criteria = static_cast<SearchCriteria_t *>(malloc(sizeof(SearchCriteria_t)));
  auto *group = static_cast<CriteriaGroup *>(malloc(sizeof(CriteriaGroup)));
  if (criteria == nullptr || group == nullptr) {
    QDerror(kModule, "malloc returned NULL.\n");
    free(criteria);
    free(group);
    return nullptr;
  }
  *group = CriteriaGroup{group_type, nullptr, nullptr};
  *criteria = SearchCriteria_t{search_type, group};
  return criteria;
}

namespace {

int Attach(SearchCriteria_t *criteria, KeywordList *list, bool negated) {
  if (criteria == nullptr || criteria->group == nullptr) {
    QDerror(kModule, "invalid SearchCriteria_t input.\n");
    return -1;
  }
  if (criteria->group->GroupType != QD_ONE_LEVEL) {
    QDerror(kModule, "GroupType should be QD_ONE_LEVEL.\n");
    return -1;
  }
  KeywordList *&slot = negated ? criteria->group->Not_Klist : criteria->group->Klist;
  if (slot != nullptr) {
    QDerror(kModule, negated ? "Already has a NOT keywordlist.\n" : "Already has a keywordlist.\n");
    return -1;
  }
  slot = list;
  return 0;
}

}  // namespace

int AddKeyListToSearch(SearchCriteria_t *criteria, KeywordList *list) { return Attach(criteria, list, false); }

int AddNotKeyListToSearch(SearchCriteria_t *criteria, KeywordList *list) { return Attach(criteria, list, true); }

void DestroySearchCriteria(SearchCriteria_t *criteria) {
  if (criteria == nullptr) return;
  if (criteria->group != nullptr) {
    DestroyKeywordList(criteria->group->Klist);
    DestroyKeywordList(criteria->group->Not_Klist);
    free(criteria->group);
  }
  free(criteria);
}

int MeetSearchCriteria(const char *name, const char *value, short search_type, KeywordList *klist,
                       KeywordList *not_list) {
  int matched = 0, mismatched = 0;
  Judge(klist, name, value, false, &matched, &mismatched);
  if (search_type == QD_MATCH_ALL && mismatched > 0) return -1;
  if (search_type == QD_MATCH_ANY && matched > 0) return 1;
  Judge(not_list, name, value, true, &matched, &mismatched);
  if (search_type == QD_MATCH_ALL) return mismatched > 0 ? -1 : matched;
  return matched > 0 ? 1 : 0;
}

int AddFilterItem(const char *name, const char *value, KeywordList **methods, KeywordList **attributes) {
  bool method = IsMethod(name, static_cast<int>(strlen(name))) != 0;
  QDtrace(8, kModule, method ? "Saving method = %s" : "Saving attribute = %s", name);
  return SaveItem(name, value, method, methods, attributes) ? 0 : -1;
}

ObjectList *AddObjectToList(const char *alias, KeywordList *attributes, KeywordList *methods, ObjectList *head) {
  auto *node = static_cast<ObjectList *>(QDmalloc(kModule, sizeof(ObjectList)));
  if (node == nullptr) {
    QDerror(kModule, "QDmalloc failed for NewItem");
    return nullptr;
  }
  ObjectRecord *object = Create_object(nullptr, attributes, methods);
  if (object == nullptr) {
    QDerror(kModule, "QDmalloc failed for NewItem->Object");
    free(node);
    return nullptr;
  }
  // The alias text holds 512 characters at least, and a longer alias whole.
  size_t len = strlen(alias);
  if ((object->alias = static_cast<char *>(QDmalloc(kModule, len < kAliasText ? kAliasText : len + 1))) == nullptr) {
    QDerror(kModule, "QDmalloc failed for o_ptr->Alias");
    free(object);  // the lists stay the caller's
    free(node);
    return nullptr;
  }
  memcpy(object->alias, alias, len + 1);
  *node = ObjectList{object, head};
  if (Tracing(8)) {
    QDtrace(8, "AddObjectToList", "dump of current list:");
    for (ObjectList *n = node; n != nullptr; n = n->next) {
      QDtrace(8, "AddObjectToList", "alias=%s", n->Object->alias);
      for (KeywordList *list : {n->Object->attributes, n->Object->methods}) {
        if (list == nullptr) continue;
        list->kwl_cursor = list->kwl_first;
        char *kw;
        char *value;
        while (ReferenceNextKeywordInList(list, &kw, &value) != KWL_END)
          QDtrace(8, "AddObjectToList", "%s=%s", kw, value);
      }
    }
  }
  return node;
}

int DestroyObjectList(ObjectList *list) {
  while (list != nullptr) {
    ObjectList *next = list->next;
    QDfreeobj(list->Object);
    free(list);
    list = next;
  }
  return 0;
}

ObjectList *QDsearchaliases(SearchCriteria_t *criteria, const char *filter) {
  if (criteria == nullptr || criteria->group == nullptr) {
    QDerror(kModule, "invalid SearchCriteria_t format\n");
    return nullptr;
  }
  if (criteria->group->Klist == nullptr && criteria->group->Not_Klist == nullptr) {
    QDerror(kModule, "Klist and Not_Klist are NULL in the CriteriaGroup\n");
    return nullptr;
  }
  if (criteria->group->GroupType == QD_MANY_LEVELS) {
    QDerror(kModule, "QD_MANY_LEVELS is unsupported\n");
    return nullptr;
  }
  if (criteria->search_type != QD_MATCH_ALL && criteria->search_type != QD_MATCH_ANY) {
    QDerror(kModule, "search type %d is invalid\n", criteria->search_type);
    return nullptr;
  }
  if (filter == nullptr) filter = kEverything;
  // Without the cache the walk reads the table file, under its read lock.
  bool file = qdcache_on == 0;
  if (file && QDlock_fp(QDREAD) != 0) return nullptr;
  QDtrace(8, kModule, "search type = %d", criteria->search_type);
  QDtrace(8, kModule, "Filter = %s", filter);
  if (file && ResetDeviceTabFile() == -1) {
    QDtrace(0, "QDsearchaliases", "NO device tab, cannot continue");
    QDunlock_fp(QDREAD);
    return nullptr;
  }
  Search search(criteria, filter);
  bool done = search.Run();
  if (file) QDunlock_fp(QDREAD);
  if (!done) search.Discard();
  return search.result();
}

}  // extern "C"
