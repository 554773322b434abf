// Class files: the text form of a class table.
//
//   # disks as this site sets them up
//   class disk
//   default   type          scsi
//   multi     capabilities  read
//   method    checkcmd      "/sbin/fsck -n /dev/dsk/0s0"
//   combined  QDdestroyfunc checkcmd 10 ?
//
// One row a line: KIND KEYWORD VALUE [INDEX [OPERATORS]]. A "class NAME"
// line starts a class; its rows follow until the next one. The kinds:
//   default   attribute default (kept when the caller gives the attribute)
//   multi     one more item of a multi-value attribute
//   method    a method, replacing the object's
//   combined  the element VALUE[INDEX][OPERATORS] merged into a meta-method
//             value; INDEX 0 to 99 (50 when left out), OPERATORS characters
//             of u m ? - + x ! (none when left out)
// Fields are parted by blanks or tabs; a field in double quotes may hold
// blanks, with \" and \\ inside standing for " and \. A '#' that begins a
// field starts a comment. Nothing is taken from a file with any fault.
#ifndef QD_OBJECTS_CLASS_FILE_H
#define QD_OBJECTS_CLASS_FILE_H

#include <string>
#include <string_view>
#include <vector>

namespace qdclass {

struct Row {
  unsigned char flags = 0;
  std::string keyword;
  std::string value;
  int index = 0;
  unsigned char mflags = 0;
};

struct Class {
  std::string name;
  std::vector<Row> rows;
};

// The classes of a file's text; false with "LINE: what is wrong" in *error.
bool ParseClasses(std::string_view text, std::vector<Class> *classes, std::string *error);

}  // namespace qdclass

#endif
