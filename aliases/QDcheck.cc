// Whether an alias names an object: the test creation and containment use
// before taking an alias for a fresh object or a contained one.
#include "qd.h"

extern "C" int QDcheck(const char *alias) {
  QDtrace(8, "QDcheck", "Check for alias: %s", alias != nullptr ? alias : "(null)");
  ObjectRecord *object = QDgetobj(alias);
  if (object == nullptr) return -1;
  QDfreeobj(object);
  return 0;
}
