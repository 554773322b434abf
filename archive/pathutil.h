// Path utilities of the archive and the lock module. They keep names of
// their own inside the library: exported as basename and dirname they would
// take the C library's functions' place in every program that links us.
#ifndef QD_ARCHIVE_PATHUTIL_H
#define QD_ARCHIVE_PATHUTIL_H

#include <string>

namespace qd {

// The last component of a path ("/" for the root, "." for an empty path).
std::string Basename(const std::string &path);
// Everything before the last component ("." without a slash, "/" for the root).
std::string Dirname(const std::string &path);

}  // namespace qd

#endif
