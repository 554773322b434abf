// Shared bodies of the four read queries and their output parsers.
#ifndef QD_OBJECTS_QUERIES_H
#define QD_OBJECTS_QUERIES_H

#include "qd.h"

// One name of one entry: "unitprop ALIAS NAME", last output line as value.
NameValue *UnitProp(const char *alias, const char *name);
// All attributes (methods == 0) or all methods (methods == 1): "unitprop -v".
KeywordList *DevAllAttr(const char *alias, int methods);

// Context of OutputSingleName: the record's value field, and whether a line
// was too long for it.
struct SingleValue {
  char *value;
  bool overflow;
};

int OutputSingleName(void *context, char *line);  // context: SingleValue
int OutputAttrVal(void *list, char *line);
int OutputMethodVal(void *list, char *line);
// Adds the pair of one "name=value" or "name='value'" line; name_length is
// the position of the line's first '='. 0, or -1 when the line is refused.
int BuildNameValuePair(KeywordList *list, char *line, int name_length);

#endif
