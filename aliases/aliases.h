// Alias listing and matching, as the parts of the library share them.
#ifndef QD_ALIASES_ALIASES_H
#define QD_ALIASES_ALIASES_H

#include <string>

#include "qd.h"

// Fills *head from "unitlist" followed by `arguments` (prebuilt, quoted).
// Returns the status of the lock release, or the lock's failure.
int GetAllAliases(AliasList **head, const std::string &arguments);
// Stores in *result the aliases that meet the criteria.
int GetSpecificAliases(AliasList **result, KeywordList *criteria);
// Line handler of unitlist's output; context: an AliasAppender.
int AddAnAliasToList(void *context, char *line);

namespace qd {
// QDcheck's test that keeps the object it fetched: the check's trace, then
// the object, or nullptr when the alias names none. Containment takes the
// object found by the check rather than fetching it a second time.
ObjectRecord *CheckedObject(const char *alias);
}  // namespace qd

// Appends to an alias list in constant time.
struct AliasAppender {
  AliasList **head;
  AliasList *tail;
};

#endif
