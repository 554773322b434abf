// Walking the aliases of a class one at a time.
#include <cstdlib>
#include <cstring>

#include "qd.h"

namespace {

const char kModule[] = "QDnxtalias";

char *Copy(const char *alias) {
  size_t len = strlen(alias);
  char *copy = static_cast<char *>(QDmalloc("QDLnextalias", len + 1));
  if (copy != nullptr) memcpy(copy, alias, len + 1);
  return copy;
}

}  // namespace

extern "C" {

char *QDLnextalias(const char *class_name, const char *current) {
  KeywordList *criteria = CreateKeywordList();
  if (criteria == nullptr) {
    QDerror(kModule, "Cannot create keyword list");
    return nullptr;
  }
  if (AddKeywordToList(criteria, "class", class_name) != 0) {
    QDtrace(8, kModule, "Could not add kwd 'class=%s'", class_name);
    DestroyKeywordList(criteria);
    return nullptr;
  }
  AliasList *list = QDgetaliases(criteria);
  if (list == nullptr) {
    QDtrace(8, kModule, "QDgetaliases returned NULL");
    DestroyKeywordList(criteria);
    return nullptr;
  }
  QDtrace(8, kModule, "In QDLnextalias() after QDgetaliases() call");
  DestroyKeywordList(criteria);
  char *result = nullptr;
  if (current == nullptr) {
    result = Copy(list->alias);
  } else {
    AliasList *n = list;
    for (; n != nullptr; n = n->next) {
      QDtrace(8, kModule, "===>In while, AliasList = ==>%s<==, Alias ==>%s<==", n->alias, current);
      if (strcmp(n->alias, current) == 0) {
        QDtrace(8, kModule, "FOUND IT");
        break;
      }
    }
    if (n == nullptr)
      QDtrace(8, kModule, "Not found!!");
    else if (n->next != nullptr)
      result = Copy(n->next->alias);
  }
  QDFreeAliasList(list);
  return result;
}

char *QDnextalias(const char *class_name, const char *current) {
  return PVQuerynext(class_name, current);
}

}  // extern "C"
