// The host's asctime text of a stamp, for trace lines.
#ifndef QD_TIME_STAMP_TEXT_H
#define QD_TIME_STAMP_TEXT_H

#include <ctime>

namespace qdtime {

// Stamps come from text read without range checks: one that asctime cannot
// render gets a placeholder rather than a null pointer in a trace.
inline const char *AscTime(const struct tm &stamp, char (&buf)[64]) {
  const char *text = asctime_r(&stamp, buf);
  return text != nullptr ? text : "(not a calendar time)\n";
}

}  // namespace qdtime

#endif
