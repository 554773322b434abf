// Alias matching: the candidates whose table entries meet every criterion,
// found by one pass of the table cursor under the file-pointer lock.
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_map>

#include "front.h"
#include "qd.h"

namespace {

const char kModule[] = "QDmatchal";

// The candidates by alias (first node of each), so that a table of many
// entries is not walked against the candidate list entry by entry.
class CandidateIndex {
 public:
  explicit CandidateIndex(AliasList *candidates) {
    for (AliasList *n = candidates; n != nullptr; n = n->next) {
      ++count_;
      if (n->alias != nullptr) index_.emplace(n->alias, n);
    }
  }
  AliasList *Find(const char *alias) const {
    auto it = index_.find(alias);
    return it == index_.end() ? nullptr : it->second;
  }
  int count() const { return count_; }

 private:
  std::unordered_map<std::string_view, AliasList *> index_;
  int count_ = 0;
};

int CountCriteria(KeywordList *criteria) {
  if (criteria == nullptr) return 0;
  criteria->kwl_cursor = criteria->kwl_first;
  int n = 0;
  char *kw;
  char *value;
  int st;
  while ((st = ReferenceNextKeywordInList(criteria, &kw, &value)) != KWL_END) {
    if (st != KWL_OK && st != KWL_WARN) break;
    ++n;
  }
  return n;
}

// The local matching: one scan of the table.
AliasList *MatchLocally(KeywordList *criteria, AliasList *candidates) {
  if (QDlock_fp(QDREAD) != 0) return nullptr;
  if (ResetDeviceTabFile() == -1) {
    QDtrace(0, kModule, "NO device tab, cannot continue");
    QDunlock_fp(QDREAD);
    return nullptr;
  }
  int n = CountCriteria(criteria);
  CandidateIndex index(candidates);
  int remaining = index.count();
  AliasList *result = nullptr;
  std::string examined;  // the alias whose entry is being read, in full
  AliasList *node = nullptr;
  int met = 0;
  char *alias;
  char *name;
  char *value;
  while (remaining > 0 && ReferenceNextAttribute(&alias, &name, &value) != KWL_END) {
    // Most triples continue the entry being examined: a plain strcmp tells
    // that cheapest.
    if (strcmp(alias, examined.c_str()) != 0) {
      examined = alias;
      node = index.Find(alias);
      met = 0;
    }
    if (node != nullptr) {
      int r = MeetCriteria(criteria, name, value);
      if (r == 1) {
        ++met;
      } else if (r == -1) {
        --remaining;
        node = nullptr;
      }
    }
    if (node != nullptr && met == n) {
      // Out of memory: the aliases accepted so far are dropped, not leaked.
      AliasList *added = AddAliasToList(node, result);
      if (added == nullptr) QDFreeAliasList(result);
      result = added;
      --remaining;
      node = nullptr;
    }
  }
  QDunlock_fp(QDREAD);
  return result;
}

}  // namespace

extern "C" {

int MeetCriteria(KeywordList *criteria, const char *name, const char *value) {
  if (criteria == nullptr) return 0;
  criteria->kwl_cursor = criteria->kwl_first;
  char *kw;
  char *wanted;
  int st = ReferenceKeywordInList(criteria, name, &kw, &wanted);
  if (st != KWL_OK && st != KWL_WARN) return 0;
  CommaList items = ParseCommaList(wanted);
  int result = 1;
  for (char **item = items; item != nullptr && *item != nullptr && result == 1; ++item)
    if (!IsInCommaList(*item, value)) result = -1;
  DestroyCommaList(items);
  return result;
}

AliasList *FindAliasInList(const char *alias, AliasList *list) {
  for (AliasList *n = list; n != nullptr; n = n->next)
    if (n->alias != nullptr && strcmp(n->alias, alias) == 0) return n;
  return nullptr;
}

AliasList *AddAliasToList(AliasList *node, AliasList *list) {
  auto *added = static_cast<AliasList *>(QDmalloc(kModule, sizeof(AliasList)));
  size_t len = strlen(node->alias);
  char *copy = static_cast<char *>(QDmalloc(kModule, len + 1));
  if (added == nullptr || copy == nullptr) {
    free(added);
    free(copy);
    return nullptr;
  }
  memcpy(copy, node->alias, len + 1);
  added->alias = copy;
  added->next = list;
  return added;
}

AliasList *QDmatchalias(KeywordList *criteria, AliasList *candidates) {
  if (qdcache_on != 0) return QDcache_hook_QDmatchalias(criteria, candidates);
  if (auto fw = qd::FrameworkFunction<AliasList *(*)(KeywordList *, AliasList *)>("FWmatchalias"))
    return fw(criteria, candidates);
  return MatchLocally(criteria, candidates);
}

}  // extern "C"
