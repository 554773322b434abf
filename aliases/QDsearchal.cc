// Searching: every attribute of every alias, in table order, against a group
// of criteria that must hold and criteria that must not, with a filter of
// the attributes and methods the matching objects carry.
#include <cstdlib>
#include <cstring>
#include <string>

#include "qd.h"

namespace {

const char kModule[] = "QDsearchal";
const char kEverything[] = ",,,";
constexpr size_t kAliasText = 513;

bool Tracing(int level) { return level == vcel_explicit_level || level <= vcel_verbose_level; }

int Count(KeywordList *list) {
  if (list == nullptr) return 0;
  list->kwl_cursor = list->kwl_first;
  int n = 0;
  char *kw;
  char *value;
  for (int st; (st = ReferenceNextKeywordInList(list, &kw, &value)) == KWL_OK || st == KWL_WARN;) ++n;
  return n;
}

// A criterion holds for the value V: without a value it asks for an empty V,
// otherwise for V itself or V holding it as one of its comma-separated items.
bool Holds(int status, const char *criterion, const char *value) {
  if (status == KWL_WARN || *criterion == '\0') return *value == '\0';
  return strcmp(criterion, value) == 0 || IsInCommaList(criterion, value) == 1;
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

// The state of one search.
class Search {
 public:
  Search(SearchCriteria_t *criteria, const char *filter)
      : type_(criteria->search_type), group_(criteria->group), filter_(filter) {}
  ~Search() { DropPending(), DestroyKeywordList(not_list_); }

  // The walk; false when it could not be done at all (the result is void).
  bool Run();
  ObjectList *result() const { return head_; }
  void Discard() { DestroyObjectList(head_), head_ = nullptr; }

 private:
  bool StartAlias(const char *alias);
  void CloseAlias();
  bool Stale(const char *alias);
  bool Take(const char *name, const char *value);
  bool Add(bool by_remainder);
  void DropPending() {
    DestroyKeywordList(pending_attributes_), DestroyKeywordList(pending_methods_);
    pending_attributes_ = pending_methods_ = nullptr;
  }

  short type_;
  CriteriaGroup *group_;
  const char *filter_;
  int total_ = 0;
  ObjectList *head_ = nullptr;
  std::string alias_;
  bool seen_ = false, candidate_ = false, added_ = false;
  int matched_ = 0;  // CriteriaMatchedByAlias
  KeywordList *pending_attributes_ = nullptr, *pending_methods_ = nullptr;
  KeywordList *not_list_ = nullptr;  // this alias's working copy of Not_Klist
  int status_ = OBJ_ACTIVE;          // the alias's status, asked once when nobody traces it
  bool status_known_ = false;
};

bool Search::StartAlias(const char *alias) {
  CloseAlias();
  alias_ = alias;
  seen_ = true;
  DropPending();
  added_ = false;
  matched_ = 0;
  status_known_ = false;
  if (group_->Not_Klist != nullptr) {
    DestroyKeywordList(not_list_);
    if ((not_list_ = DuplicateKeywordList(group_->Not_Klist)) == nullptr) {
      QDerror(kModule, "Error in DuplicateKeywordList\n");
      return false;
    }
  }
  QDtrace(8, kModule, "Checking alias = %s", alias);
  candidate_ = true;
  return true;
}

// The remainder rule: each NOT criterion left (the alias lacks its
// attribute) counts as met.
void Search::CloseAlias() {
  if (!seen_ || !candidate_ || added_ || not_list_ == nullptr) return;
  QDtrace(8, kModule, "checking remainder NOT list for alias=%s", alias_.c_str());
  matched_ += NumberOfKeywords(not_list_);
  if (matched_ >= total_) Add(true);
}

// A status word's lowest bit tells an active alias. The status of an alias
// is the same at each of its attributes: it is asked at each only while its
// traces are being written.
bool Search::Stale(const char *alias) {
  if (!status_known_ || Tracing(7)) {
    status_ = QDaliasstatus(alias);
    status_known_ = true;
  }
  return (status_ & 1) == 0;
}

bool Search::Add(bool by_remainder) {
  QDtrace(8, kModule, by_remainder ? "Matched alias = %s with NOT criteria" : "Matched alias = %s", alias_.c_str());
  ObjectList *head = AddObjectToList(alias_.c_str(), pending_attributes_, pending_methods_, head_);
  if (head == nullptr) return false;
  head_ = head;
  pending_attributes_ = pending_methods_ = nullptr;  // the object has them now
  added_ = true;
  candidate_ = false;
  return true;
}

// The filter: false when an attribute could not be kept.
bool Search::Take(const char *name, const char *value) {
  if (!candidate_ && !added_) return true;
  if (strcmp(filter_, kEverything) != 0 && IsInCommaList(name, filter_) != 1) return true;
  if (candidate_) return AddFilterItem(name, value, &pending_methods_, &pending_attributes_) == 0;
  ObjectRecord *o = head_->Object;
  return AddFilterItem(name, value, &o->methods, &o->attributes) == 0;
}

bool Search::Run() {
  total_ = Count(group_->Klist) + Count(group_->Not_Klist);
  if (type_ == QD_MATCH_ANY && total_ > 1) total_ = 1;
  QDtrace(8, kModule, "TotalCriteriaItems needed to match = %d", total_);
  char *alias;
  char *name;
  char *value;
  while (CachedReferenceNextAttribute(&alias, &name, &value) != KWL_END) {
    if ((!seen_ || alias_ != alias) && !StartAlias(alias)) {
      while (qdcache_on != 0 && CachedReferenceNextAttribute(&alias, &name, &value) != KWL_END) {
      }
      return false;
    }
    QDtrace(8, kModule, "Checking alias=%s,Attribute=%s,Value=%s", alias, name, value);
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
    if (candidate_) {
      int r = MeetSearchCriteria(name, value, type_, group_->Klist, not_list_);
      if (r < 0) {
        DropPending();
        candidate_ = false;
      }
      QDtrace(8, kModule, "MeetSearchCriteria returns %d", r);
      matched_ += r;
      // Each NOT criterion is judged at the alias's first attribute of its name.
      if (not_list_ != nullptr) RemoveKeywordFmList(not_list_, name);
    }
    bool kept = Take(name, value);
    if (kept) QDtrace(8, kModule, "CriteriaMatchedByAlias=%d,TotalCriteriaItems=%d", matched_, total_);
    if (!kept || (candidate_ && matched_ == total_ && !Add(false))) {
      // The walk ends here; the cache's cursor is taken to its end, so that
      // the next walk starts at the first object.
      while (qdcache_on != 0 && CachedReferenceNextAttribute(&alias, &name, &value) != KWL_END) {
      }
      return true;
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
  KeywordList **list = method ? methods : attributes;
  if (*list == nullptr && (*list = CreateKeywordList()) == nullptr) {
    QDerror("AddFilterItem", method ? "Cannot CreateKeywordList of Methods\n" : "Cannot CreateKeywordList of Attributes\n");
    return -1;
  }
  if (AddKeywordToList(*list, name, value) != KWL_OK) {
    QDerror("AddFilterItem", method ? "Error in AddKeywordToList for Methods\n" : "Error in AddKeywordToList for Attributes\n");
    return -1;
  }
  return 0;
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
