// Pieces the object calls share with the editing calls of other folders.
#ifndef QD_OBJECTS_OBJECTS_H
#define QD_OBJECTS_OBJECTS_H

#include <string>

#include "qd.h"

namespace qdobjects {

enum class Read { kFound, kAbsent, kUnreadable };

// The whole value of an attribute (method false) or a method, read with the
// one-name query. A value that query cannot give whole (one over
// QD_VALUE_MAX characters, or cut at that length by the cache) is looked up
// in the table, so that no caller takes it for absent or writes back a cut
// copy: kUnreadable (reported under module) when it is longer than
// QD_VALUE_MAX.
Read ReadValue(const char *module, const char *alias, const char *name, bool method,
               std::string *value);

// A one-pair list written with the public QDput: its result, or -1 when
// the list cannot be made.
int PutOne(const char *alias, const char *name, const std::string &value);

}  // namespace qdobjects

#endif
