// What every public front function shares: the choice between a framework
// library and the local implementation.
#ifndef QD_FRONT_FRONT_H
#define QD_FRONT_FRONT_H

#include <cstddef>
#include <cstdint>

#include "qd.h"

namespace qd {

// The framework's function of that name when a framework serves the call,
// else nullptr (local service). Every failure of the decision is local.
template <typename Fn>
Fn FrameworkFunction(const char *symbol) {
  QDfwfunc fn = nullptr;
  if (FWswitch(symbol, &fn) != 0 || fn == nullptr) return nullptr;
  return reinterpret_cast<Fn>(fn);
}

// True when a trace line of this level would be produced: hot loops test
// this before building a trace's arguments or making the call at all.
inline bool Tracing(int level) { return level == vcel_explicit_level || level <= vcel_verbose_level; }

// IsMethod's test: "cmd" or "func" whole within the first `length` bytes,
// before the name's end. One pass over a short name, as every query of a
// value asks this first; a window that reaches the end never matches, so a
// caller that has not measured the name need not.
inline bool NamesMethod(const char *name, size_t length = SIZE_MAX) {
  for (size_t i = 0; i + 3 <= length && name[i] != '\0'; ++i) {
    if (name[i] == 'c') {
      if (name[i + 1] == 'm' && name[i + 2] == 'd') return true;
    } else if (name[i] == 'f' && i + 4 <= length) {
      if (name[i + 1] == 'u' && name[i + 2] == 'n' && name[i + 3] == 'c') return true;
    }
  }
  return false;
}

}  // namespace qd

// QDtrace on a hot path: nothing is called unless the line would be produced.
#define QD_TRACE(level, ...)                              \
  do {                                                    \
    if (qd::Tracing(level)) QDtrace((level), __VA_ARGS__); \
  } while (0)

namespace qd {

// strcmp(a, b) == 0 for the strings of hot loops that mostly differ within
// their first bytes (names, criteria values): compared in place, for less
// than a library call costs. Strings that mostly match whole (an alias
// found by its hash) compare faster through strcmp.
inline bool SameString(const char *a, const char *b) {
  while (*a != '\0' && *a == *b) ++a, ++b;
  return *a == *b;
}

// True when the front may hand an alias straight to libPV: the cache is on
// and the alias is served here.
inline bool CacheShortCut(const char *alias) { return qdcache_on != 0 && IsLocalAlias(alias); }

}  // namespace qd

#endif
