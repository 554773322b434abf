// Small helpers for looking at keyword lists from the tests.
#ifndef TESTS_SUPPORT_LIST_UTIL_H
#define TESTS_SUPPORT_LIST_UTIL_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <cstdlib>
#include <cstring>

#include "qd.h"

namespace pvtest {

struct ListDeleter {
  void operator()(KeywordList *list) const { DestroyKeywordList(list); }
};
using List = std::unique_ptr<KeywordList, ListDeleter>;

using Pairs = std::vector<std::pair<std::string, std::string>>;

inline List MakeList(const Pairs &pairs) {
  List list(CreateKeywordList());
  for (const auto &p : pairs) AddKeywordToList(list.get(), p.first.c_str(), p.second.c_str());
  return list;
}

// Whatever the iteration yields from where the cursor stands now.
inline Pairs Rest(KeywordList *list) {
  Pairs out;
  char *kw = nullptr;
  char *value = nullptr;
  int rc;
  while ((rc = ReferenceNextKeywordInList(list, &kw, &value)) == KWL_OK || rc == KWL_WARN)
    out.emplace_back(kw, value);
  return out;
}

// Every entry, restarting the way callers do.
inline Pairs All(KeywordList *list) {
  list->kwl_cursor = list->kwl_first;
  return Rest(list);
}

// A returned value, or "<null>" for none; the record is freed.
inline std::string Value(NameValue *nv) {
  std::string v = nv != nullptr ? nv->value : "<null>";
  free(nv);
  return v;
}

using Aliases = std::vector<std::string>;

// An alias chain as the library builds one, from malloc.
inline AliasList *Chain(const Aliases &aliases) {
  AliasList *head = nullptr;
  for (auto it = aliases.rbegin(); it != aliases.rend(); ++it)
    head = new (malloc(sizeof(AliasList))) AliasList{strdup(it->c_str()), head};
  return head;
}

inline Aliases Names(const AliasList *list) {
  Aliases out;
  for (; list != nullptr; list = list->next) out.push_back(list->alias);
  return out;
}

// The chain's aliases; the chain is freed.
inline Aliases Take(AliasList *list) {
  Aliases out = Names(list);
  QDFreeAliasList(list);
  return out;
}

}  // namespace pvtest

#endif
