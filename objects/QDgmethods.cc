// All methods of an entry.
#include "queries.h"

extern "C" KeywordList *QDLgetmethods(const char *alias) {
  QDtrace(8, "QDgmethods", "QDLgetmethods( alias='%s' )", alias ? alias : "(null)");
  if (alias == nullptr) return nullptr;
  return DevAllAttr(alias, 1);
}
