// Editing meta-method values: the pieces that creation from classes and
// the class-file reader share with the editing calls.
#ifndef QD_METHODS_META_EDIT_H
#define QD_METHODS_META_EDIT_H

#include <string>
#include <string_view>

#include "qd.h"

namespace qdmeta {

constexpr size_t kValueMax = QD_VALUE_MAX;  // a value buffer holds 513 bytes
constexpr size_t kElementMax = 99;          // an element buffer holds 100
constexpr size_t kDefaultValueMax = 1023;   // QDrmdefaultmetamethod's buffer
constexpr int kIndexMax = 99;

// The mask of operator characters; false when one is not an operator.
bool OperatorMask(std::string_view ops, unsigned *mask);

// Why name[index][mask] cannot be an element, or nullptr when it can.
const char *ElementProblem(const char *name, int index, unsigned mask);
// Why a method's value cannot be edited as a meta-method, or nullptr.
const char *MethodProblem(const char *method);

enum class Edit {
  kDone,     // *out holds the new value
  kRefused,  // the element or the current value is not valid; *out empty
  kNoRoom,   // the result would pass kValueMax; *out holds current
};
// current with the element added at its end, or moved there in place of
// the first element of the same name. Refusals are reported.
Edit CatMetaMethod(std::string_view current, const char *name, int index, unsigned mask,
                   std::string *out);

}  // namespace qdmeta

#endif
