// Whole objects: reading one through the public queries, and writing one.
#include <cstdlib>
#include <cstring>

#include "qd.h"

namespace {
const char kModule[] = "QDgetobj";
}

extern "C" ObjectRecord *QDgetobj(const char *alias) { return PVQueryobjs(alias); }

extern "C" ObjectRecord *QDLgetobj(const char *alias) {
  if (alias == nullptr) return nullptr;
  // Both reads pass the framework switch.
  KeywordList *attributes = QDgetattrs(alias);
  KeywordList *methods = QDgetmethods(alias);
  ObjectRecord *object = Create_object(nullptr, attributes, methods);
  if (object == nullptr) {
    DestroyKeywordList(attributes);
    DestroyKeywordList(methods);
    return nullptr;
  }
  size_t len = strlen(alias);
  object->alias = static_cast<char *>(QDmalloc(kModule, len + 1));
  if (object->alias == nullptr) {
    QDfreeobj(object);
    return nullptr;
  }
  memcpy(object->alias, alias, len + 1);
  QDtrace(8, kModule, "Object address     = %lu", reinterpret_cast<unsigned long>(object));
  QDtrace(8, kModule, "Object alias       = %s", object->alias);
  QDtrace(8, kModule, "Object attr list   = %lu", reinterpret_cast<unsigned long>(attributes));
  QDtrace(8, kModule, "Object method list = %lu", reinterpret_cast<unsigned long>(methods));
  if (attributes == nullptr || methods == nullptr) {
    QDfreeobj(object);
    return nullptr;
  }
  return object;
}

extern "C" int QDputobj(const char *alias, ObjectRecord *object) {
  QDtrace(8, kModule, "QDputobj( Alias='%s' )",
          object != nullptr && object->alias != nullptr ? object->alias : "(null)");
  int result = 12;
  KeywordList *combined = object != nullptr ? DuplicateKeywordList(object->attributes) : nullptr;
  if (combined != nullptr && AddKeywordListToList(combined, object->methods) == 0)
    result = QDput(alias, combined);
  DestroyKeywordList(combined);
  QDtrace(8, kModule, "return( %d )", result);
  return result;
}
