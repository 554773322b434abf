// One method of an entry.
#include <cstring>

#include "queries.h"

extern "C" NameValue *QDLgetmethod(const char *alias, const char *name) {
  if (alias == nullptr || name == nullptr) return nullptr;
  if (!IsMethod(name, static_cast<int>(strlen(name)))) return nullptr;
  return UnitProp(alias, name);
}
