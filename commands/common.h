// What the three device commands share: finding and loading the table,
// reporting malformed entries, and their exit statuses.
#ifndef COMMANDS_COMMON_H
#define COMMANDS_COMMON_H

#include <string>

#include "devtab_file.h"
#include "devtab_format.h"

namespace unitcmd {

enum Status {
  kOk = 0,
  kUsage = 1,        // bad options or arguments
  kNoTable = 2,      // the table file does not exist or cannot be read
  kNoEntry = 3,      // no entry with that alias
  kExistsOrName = 4, // unitmod -a: the entry exists; unitprop: no such name
  kWriteFailed = 5,  // unitmod: the table could not be rewritten (it is unchanged)
};

extern const char *program;  // for messages

// -t TABLE, else TAV_DEVTAB, else the default table.
std::string TablePath(const char *option);

// Opens the table for reading; on failure prints why and returns false.
bool OpenTable(const std::string &path, devtab::TableReader *reader);

// Reports a malformed entry on standard error.
void ReportDefect(const std::string &path, const devtab::RawEntry &raw, devtab::Defect defect);

// Prints "program: message" on standard error.
void Fail(const char *format, ...) __attribute__((format(printf, 1, 2)));

}  // namespace unitcmd

#endif
