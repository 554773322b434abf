// Pieces of libPV shared between its own files.
#ifndef PV_INTERNAL_H
#define PV_INTERNAL_H

#include <string>

#include "pv.h"

namespace pv {

// Writes a list to the trace output as keyword="value" lines, with `level`
// as the line's level (-1 writes it whatever the levels say).
int WriteListToTrace(int level, const char *module, KeywordList *list);

// libPV's own trace lines, under the same rule as libQD's: produced when the
// level equals vcel_explicit_level or does not exceed vcel_verbose_level.
void Trace(int level, const char *module, const char *format, ...) __attribute__((format(printf, 3, 4)));

// Writes one finished line to the trace destination.
void EmitTraceLine(const std::string &line);

}  // namespace pv

#endif
