// Whether an alias names an object: the test creation and containment use
// before taking an alias for a fresh object or a contained one.
#include "aliases.h"

namespace qd {

ObjectRecord *CheckedObject(const char *alias) {
  QDtrace(8, "QDcheck", "Check for alias: %s", alias != nullptr ? alias : "(null)");
  return QDgetobj(alias);
}

}  // namespace qd

extern "C" int QDcheck(const char *alias) {
  ObjectRecord *object = qd::CheckedObject(alias);
  if (object == nullptr) return -1;
  QDfreeobj(object);
  return 0;
}
