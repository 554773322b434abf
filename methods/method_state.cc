#include "method_state.h"

namespace qdmethods {

std::unordered_map<std::string, Library> libraries;

}  // namespace qdmethods
