// All methods of an entry.
#include "queries.h"

extern "C" KeywordList *QDLgetmethods(const char *alias) {
  if (alias == nullptr) return nullptr;
  return DevAllAttr(alias, 1);
}
