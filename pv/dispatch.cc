// Dispatch between callers and the local implementation. On this host every
// alias and every search is local, so each call goes to libQD's exported
// QDL function, found at run time: libPV does not link against libQD.
#include <dlfcn.h>

#include "pv.h"
#include "pv_internal.h"

namespace {

const char kModule[] = "PVdispatch";

template <typename Fn>
Fn Local(const char *name, Fn *cache) {
  if (*cache == nullptr) {
    *cache = reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, name));
    if (*cache == nullptr) pv::Trace(2, kModule, "no local service %s", name);
  }
  return *cache;
}

// Each local function is looked up once and kept.
#define PV_CALL_LOCAL(name, fail, ...)            \
  do {                                            \
    static name##_fn fn = nullptr;                \
    name##_fn f = Local(#name, &fn);              \
    return f != nullptr ? f(__VA_ARGS__) : (fail); \
  } while (0)

using QDLgetattr_fn = struct NameValue *(*)(const char *, const char *);
using QDLgetattrs_fn = KeywordList *(*)(const char *);
using QDLgetmethod_fn = struct NameValue *(*)(const char *, const char *);
using QDLgetmethods_fn = KeywordList *(*)(const char *);
using QDLgetaliases_fn = struct AliasList *(*)(KeywordList *);
using QDLput_fn = int (*)(const char *, KeywordList *);
using QDLgetobj_fn = struct ObjectRecord *(*)(const char *);
using QDLnextalias_fn = char *(*)(const char *, const char *);
using QDLperform_fn = KeywordList *(*)(const char *, const char *, KeywordList *);

}  // namespace

extern "C" {

int IsLocalAlias(const char *alias) { return alias != nullptr ? 1 : 0; }

int IsLocalSearch(KeywordList *criteria) {
  (void)criteria;
  return 1;
}

struct NameValue *PVQueryattr(const char *alias, const char *name) {
  PV_CALL_LOCAL(QDLgetattr, nullptr, alias, name);
}

KeywordList *PVQueryattrs(const char *alias) { PV_CALL_LOCAL(QDLgetattrs, nullptr, alias); }

struct NameValue *PVQuerymeth(const char *alias, const char *name) {
  PV_CALL_LOCAL(QDLgetmethod, nullptr, alias, name);
}

KeywordList *PVQuerymeths(const char *alias) { PV_CALL_LOCAL(QDLgetmethods, nullptr, alias); }

struct AliasList *PVgetaliases(KeywordList *criteria) {
  PV_CALL_LOCAL(QDLgetaliases, nullptr, criteria);
}

int PVPut(const char *alias, KeywordList *list) { PV_CALL_LOCAL(QDLput, -1, alias, list); }

struct ObjectRecord *PVQueryobjs(const char *alias) { PV_CALL_LOCAL(QDLgetobj, nullptr, alias); }

char *PVQuerynext(const char *class_name, const char *current) {
  PV_CALL_LOCAL(QDLnextalias, nullptr, class_name, current);
}

KeywordList *NVPerform(const char *alias, const char *method, KeywordList *params) {
  PV_CALL_LOCAL(QDLperform, nullptr, alias, method, params);
}

}  // extern "C"
