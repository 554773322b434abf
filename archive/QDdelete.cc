// Removing an entry, after writing its archive copy.
#include <cstdlib>

#include "front.h"
#include "qd.h"

namespace {
const char kModule[] = "QDdelete";
int OutputNothing(void *, char *) { return 0; }
}  // namespace

extern "C" int QDdelete(const char *alias) {
  ObjectRecord *object = QDgetobj(alias);
  if (object == nullptr) return 3;
  if (qdcache_on != 0) {
    QD_archive_object(object);
    QDfreeobj(object);
    return QDcache_hook_QDdelete(alias);
  }
  // The run directory is named after the stamp: without one, "now" serves
  // for the copy and timestamping is off again afterwards.
  if (QDtimestamp.tm_mday == 0) {
    QDsettime(QD_TS_NOW, nullptr);
    QD_archive_object(object);
    QDsettime(QD_TS_ZERO, nullptr);
  } else {
    QD_archive_object(object);
  }
  QDfreeobj(object);
  if (auto fw = qd::FrameworkFunction<int (*)(const char *)>("FWdelete")) return fw(alias);
  char *command = BuildPutCommand(alias, nullptr, "-d");
  if (command == nullptr) {
    QDtrace(3, kModule, "QDdelete: Error in memory allocation.");
    return -1;
  }
  int result = 2;
  if (QDlock(QDWRITE) == 0) {
    result = 0;
    if (ExecuteCommand(command, OutputNothing, nullptr) == 3) {
      QDerror(kModule, "Alias %s doesn't exist\n", alias);
      result = 3;
    }
    QDunlock(QDWRITE);
  }
  free(command);
  return result;
}
