// Pieces shared by the files of the methods subsystem.
#ifndef QD_METHODS_METHODS_H
#define QD_METHODS_METHODS_H

#include <cstring>
#include <string>

#include "qd.h"

namespace qdmethods {

// Trace module of running methods (list building and parsing trace as QDmeta).
constexpr const char *kPerform = "QDperform";

// A command method: the first "cmd" in its name is its last three characters.
inline bool IsCommandMethod(const char *name) {
  const char *first = strstr(name, "cmd");
  return first != nullptr && first[3] == '\0';
}

// True when a trace line of this level would be produced.
inline bool Tracing(int level) {
  return level == vcel_explicit_level || level <= vcel_verbose_level;
}

// QDbuildmethodlist with the reason of a failure (empty on success).
void BuildMethodList(const char *alias, const NameValue *method, KeywordList **list, std::string *why);

// "%s" of a string that may be NULL.
inline const char *Text(const char *s) { return s != nullptr ? s : "(null)"; }

inline unsigned long Address(const void *p) { return reinterpret_cast<unsigned long>(p); }

}  // namespace qdmethods

#endif
