// devcheck.so - an example library of function methods.
//
// A method value names these as devcheck.echo, devcheck.attrs and
// devcheck.exists; README.md beside this file says how to write one.
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qd.h"

// Every method has the type QDmethodfunc and is exported by its plain name.
#define METHOD extern "C" __attribute__((visibility("default"))) KeywordList *
METHOD echo(const char *alias, KeywordList *params);
METHOD attrs(const char *alias, KeywordList *params);
METHOD exists(const char *alias, KeywordList *params);

namespace {

// Reports the codes every method result should carry.
KeywordList *Result(int errorcode, const std::string &message) {
  KeywordList *out = CreateKeywordList();
  if (out == nullptr) return nullptr;
  AddKeywordToList(out, "errorcode", std::to_string(errorcode).c_str());
  AddKeywordToList(out, "completioncode", "0");
  if (!message.empty()) AddKeywordToList(out, "message", message.c_str());
  return out;
}

// The value of the parameter, or nullptr. The list may come with its cursor
// anywhere: a lookup does not depend on it.
const char *Parameter(KeywordList *params, const char *name) {
  char *value = nullptr;
  int rc = ReferenceKeywordInList(params, name, nullptr, &value);
  return rc == KWL_OK || rc == KWL_WARN ? value : nullptr;
}

}  // namespace

extern "C" {

// The parameters it was given: shows what a method before it piped on.
// Handing back the list given is allowed; the caller gets a copy of it.
KeywordList *echo(const char *, KeywordList *params) { return params; }

// The alias's attributes named in the parameter "names" (a comma list).
// errorcode 3 for the first one the alias does not have.
KeywordList *attrs(const char *alias, KeywordList *params) {
  const char *names = Parameter(params, "names");
  if (names == nullptr) return Result(254, "devcheck.attrs: give names=ATTRIBUTE,...");
  CommaList items = ParseCommaList(names);
  if (items == nullptr) return Result(255, "devcheck.attrs: out of memory");
  KeywordList *out = Result(0, "");
  for (char **name = items; out != nullptr && *name != nullptr; ++name) {
    NameValue *nv = QDgetattr(alias, *name);
    if (nv == nullptr) {
      DestroyKeywordList(out);
      out = Result(3, std::string("devcheck.attrs: ") + alias + " has no attribute " + *name);
      break;
    }
    AddKeywordToList(out, nv->name, nv->value);
    free(nv);
  }
  DestroyCommaList(items);
  return out;
}

// Whether the file in the parameter "path" exists, else the alias's
// character device: errorcode 0, or 2 with the system's reason.
KeywordList *exists(const char *alias, KeywordList *params) {
  std::string path;
  if (const char *p = Parameter(params, "path")) {
    path = p;
  } else if (NameValue *nv = QDgetattr(alias, "cdevice")) {
    path = nv->value;
    free(nv);
  }
  if (path.empty()) return Result(2, std::string("devcheck.exists: ") + alias + " names no device");
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return Result(2, path + ": " + strerror(errno));
  return Result(0, path + " exists");
}

}  // extern "C"
