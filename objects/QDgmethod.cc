// One method of an entry.
#include <cstring>

#include "queries.h"

extern "C" NameValue *QDLgetmethod(const char *alias, const char *name) {
  QDtrace(8, "QDgmethod", "QDLgetmethod( alias='%s', name='%s' )", alias ? alias : "(null)",
          name ? name : "(null)");
  if (alias == nullptr || name == nullptr) return nullptr;
  if (!IsMethod(name, static_cast<int>(strlen(name)))) return nullptr;
  return UnitProp(alias, name);
}
