// The grammar of meta-method values, shared by the parser and by whatever
// edits such values: the operator table's lookups and the reading of one
// written element, name[index][operators].
#ifndef QD_METHODS_META_GRAMMAR_H
#define QD_METHODS_META_GRAMMAR_H

#include <string>
#include <string_view>

#include "qd.h"

namespace qdmeta {

// Index of an element written without one, or with one out of 0..99.
constexpr int kDefaultIndex = 50;

// The table row of operator character c, or nullptr when c is none.
const meta_oper_t *FindOperator(char c);

enum class ElementStatus { kOk, kNameTooLong, kOpsTooLong };

// Reads one element into row (every field set). Unknown operator
// characters are traced and skipped; an element whose operator characters
// are all unknown gets the pre-operator "k" and the post-operators "?-".
// Names and operator strings too long for their fields are refused, traced.
ElementStatus ParseElement(const char *element, meta_method_t *row);

// The post-operators normalised: only "?!-+x" kept, '?' added when no
// condition was given and '-' when no disposition was.
std::string NormalisePostOps(std::string_view ops);

}  // namespace qdmeta

#endif
