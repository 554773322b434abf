// Function methods: "library.function", loaded from the method library
// directory and called with the alias and the parameter list.
#include <dlfcn.h>

#include <cerrno>
#include <string>

#include "method_state.h"
#include "methods.h"

using qdmethods::kPerform;

namespace {

// The library's handle, opened on first use; nullptr (reported) when it
// cannot be opened. Failures are not remembered: the library may appear.
void *OpenLibrary(const std::string &path) {
  auto found = qdmethods::libraries.find(path);
  if (found != qdmethods::libraries.end()) return found->second.handle;
  void *handle = dlopen(path.c_str(), RTLD_NOW);
  if (handle == nullptr) {
    int err = errno;
    const char *why = dlerror();
    QDerror(kPerform, "%s\n", why != nullptr ? why : "dlopen failed");
    QDerror(kPerform, "Cannot open library %s; ERRNO=%d\n", path.c_str(), err);
    return nullptr;
  }
  qdmethods::libraries[path].handle = handle;
  return handle;
}

QDmethodfunc FindFunction(const std::string &path, void *handle, const std::string &name) {
  auto &functions = qdmethods::libraries[path].functions;
  auto found = functions.find(name);
  if (found != functions.end()) return reinterpret_cast<QDmethodfunc>(found->second);
  void *fn = name.empty() ? nullptr : dlsym(handle, name.c_str());
  if (fn != nullptr) functions.emplace(name, fn);
  return reinterpret_cast<QDmethodfunc>(fn);
}

}  // namespace

extern "C" KeywordList *PerformFunction(const char *reference, const char *alias, KeywordList *params) {
  const char *dot = reference != nullptr ? strchr(reference, '.') : nullptr;
  if (dot == nullptr) {
    QDerror(kPerform, "No library defined\n");
    return BuildErrorCode(QD_METHOD_NOLIBRARY);
  }
  std::string library(reference, dot);
  if (library.size() + 2 > QD_METHOD_TEXT_MAX) {
    QDerror(kPerform, "Library name '%s' too long\n", reference);
    return BuildErrorCode(QD_METHOD_NOLIBRARY);
  }
  // The name ends at the first dot, so it cannot hold ".."; a '/' is all
  // that could lead out of the library directory.
  if (library.empty() || library.find('/') != std::string::npos) {
    QDerror(kPerform, "Library name '%s' does not name a library of the method directory\n",
            library.c_str());
    return BuildErrorCode(QD_METHOD_NOLIBRARY);
  }
  std::string function(dot + 1);
  char *dir = nullptr;
  QDLibDirName(&dir);
  std::string path = std::string(dir) + "/" + library + ".so";
  void *handle = OpenLibrary(path);
  if (handle == nullptr) return BuildErrorCode(QD_METHOD_NOLIBRARY);
  QDmethodfunc fn = FindFunction(path, handle, function);
  if (fn == nullptr) {
    QDerror(kPerform, "Library function not found\n");
    return BuildErrorCode(QD_METHOD_NOFUNCTION);
  }
  QDtrace(8, kPerform, "Perform function, parameter list: ");
  DisplayParameterList(params);
  return fn(alias, params);
}
