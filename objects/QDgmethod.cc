// One method of an entry.
#include <cstring>

#include "cache_state.h"
#include "front.h"
#include "qd.h"

extern "C" NameValue *QDLgetmethod(const char *alias, const char *name) {
  if (alias == nullptr || name == nullptr) return nullptr;
  if (!qd::NamesMethod(name)) return nullptr;
  return UnitProp(alias, name);
}

extern "C" NameValue *QDgetmethod(const char *alias, const char *name) {
  if (qd::CacheShortCut(alias)) {
    qdcache::Anticipation lookup(alias);
    return PVQuerymeth(alias, name);
  }
  if (auto fw = qd::FrameworkFunction<NameValue *(*)(const char *, const char *)>("FWgetmethod"))
    return fw(alias, name);
  return PVQuerymeth(alias, name);
}
