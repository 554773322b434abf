// All methods of an entry.
#include "front.h"
#include "qd.h"

extern "C" KeywordList *QDLgetmethods(const char *alias) {
  if (alias == nullptr) return nullptr;
  return DevAllAttr(alias, 1);
}

extern "C" KeywordList *QDgetmethods(const char *alias) {
  if (qd::CacheShortCut(alias)) return PVQuerymeths(alias);
  if (auto fw = qd::FrameworkFunction<KeywordList *(*)(const char *)>("FWgetmethods")) return fw(alias);
  return PVQuerymeths(alias);
}
