// The public write of an entry, as the other parts of the library reach it.
// It is exported once the local writer exists; until then a framework's
// FWput serves it, and local service reports failure.
#ifndef QD_OBJECTS_PUT_H
#define QD_OBJECTS_PUT_H

#include "qd.h"

extern "C" int QDput(const char *alias, KeywordList *list);

#endif
