// QDtrace: the one gate every trace line of the library passes. The level
// test comes before any formatting work.
#include <cstdarg>

#include "qd.h"

extern "C" void QDtrace(int level, const char *module, const char *format, ...) {
  if (level != vcel_explicit_level && level > vcel_verbose_level) return;
  va_list args;
  va_start(args, format);
  VCELvtrace(level, module, format, args);
  va_end(args);
}
