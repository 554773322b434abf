// Process-wide state of the methods subsystem, in one place: the method
// libraries opened so far. A library stays open for the life of the
// process, so its handle and the functions found in it stay valid and a
// repeated call neither opens it nor looks the function up again.
#ifndef QD_METHODS_METHOD_STATE_H
#define QD_METHODS_METHOD_STATE_H

#include <string>
#include <unordered_map>

namespace qdmethods {

struct Library {
  void *handle = nullptr;
  std::unordered_map<std::string, void *> functions;  // found by dlsym
};

// Keyed by the library's path as it was opened.
extern std::unordered_map<std::string, Library> libraries;

}  // namespace qdmethods

#endif
