// Writing objects: the public front of the write.
#include "front.h"
#include "put.h"

extern "C" int QDput(const char *alias, KeywordList *list) {
  if (qd::CacheShortCut(alias)) return PVPut(alias, list);
  if (auto fw = qd::FrameworkFunction<int (*)(const char *, KeywordList *)>("FWput"))
    return fw(alias, list);
  return PVPut(alias, list);
}
