// Editing meta-method values: adding, replacing and removing elements of
// an alias's method, and dropping a default element from a value.
//
// Settled here: every result is bounded (513-byte values, 100-byte
// elements, 1024 bytes for a value without its default) and a result that
// would pass its bound is refused with a trace, never cut; an element
// belongs to a name when its text before '[' is that name, so "run" never
// picks "runall" or "restart".
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "meta_edit.h"
#include "meta_grammar.h"
#include "methods.h"
#include "objects.h"

namespace qdmeta {

namespace {

const char kModule[] = "QDmeta";
using qdmethods::Text;
using qdmethods::Tracing;

static_assert(META_NAME_MAX + sizeof "[99][]" - 1 + 7 <= kElementMax,
              "the longest element must fit its buffer");

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

std::string_view NameOf(std::string_view element) { return Trim(element.substr(0, element.find('['))); }

// Calls fn(begin, end) for the text between commas; stops when fn is true.
template <typename Fn>
void ForEachPiece(std::string_view value, Fn fn) {
  for (size_t begin = 0;;) {
    size_t end = value.find(',', begin);
    if (end == std::string_view::npos) end = value.size();
    if (fn(begin, end) || end == value.size()) return;
    begin = end + 1;
  }
}

// The value without every element that `belongs` picks, the others kept
// in order, joined by single commas. False when none was picked.
template <typename Belongs>
bool RemoveElements(std::string_view value, Belongs belongs, std::string *out) {
  out->clear();
  bool any = false;
  size_t scanned = 0;
  ForEachPiece(value, [&](size_t begin, size_t end) {
    std::string_view element = Trim(value.substr(begin, end - begin));
    if (belongs(element)) {
      any = true;
      if (Tracing(8)) {
        QDtrace(8, kModule, "---------------");
        QDtrace(8, kModule, "first_char=%s", std::string(value.substr(scanned)).c_str());
        QDtrace(8, kModule, "last_char=%s", std::string(value.substr(begin)).c_str());
        QDtrace(8, kModule, "ModifiedMethod=%s", out->c_str());
        QDtrace(8, kModule, "---------------");
      }
      scanned = end;
    } else if (!element.empty()) {
      if (!out->empty()) out->push_back(',');
      out->append(element);
      if (Tracing(8))
        QDtrace(8, kModule, "kept '%s' (%d characters), value so far '%s'", std::string(element).c_str(),
                static_cast<int>(element.size()), out->c_str());
    }
    return false;
  });
  return any;
}

bool OfName(std::string_view element, const char *name) { return NameOf(element) == name; }

// The operator group of an element: its second bracket group.
std::string_view OperatorGroup(std::string_view element) {
  size_t open = element.find('[');
  size_t close = open == std::string_view::npos ? open : element.find(']', open);
  size_t ops = close == std::string_view::npos ? close : element.find('[', close);
  if (ops == std::string_view::npos) return {};
  std::string_view rest = element.substr(ops + 1);
  return rest.substr(0, rest.find(']'));
}

}  // namespace

bool OperatorMask(std::string_view ops, unsigned *mask) {
  *mask = 0;
  for (char c : ops) {
    const meta_oper_t *op = FindOperator(c);
    if (op == nullptr) return false;
    *mask |= op->flag;
  }
  return true;
}

const char *ElementProblem(const char *name, int index, unsigned mask) {
  static const unsigned known = [] {
    unsigned all = 0;
    for (const meta_oper_t *op = meta_oper_tbl; op->flag != 0; ++op) all |= op->flag;
    return all;
  }();
  if (name == nullptr || *name == '\0') return "the element name is empty";
  std::string_view n(name);
  if (n.size() > META_NAME_MAX) return "the element name is longer than 35 characters";
  if (n.find_first_of(",[]") != std::string_view::npos) return "the element name holds ',', '[' or ']'";
  if (Trim(n).size() != n.size()) return "the element name begins or ends with a blank";
  for (unsigned char c : n)
    if (c < 32 || c == 127) return "the element name holds a control character";
  if (index < 0 || index > kIndexMax) return "the index is outside 0 to 99";
  if ((mask & ~known) != 0) return "the operator mask has unknown bits";
  return nullptr;
}

const char *MethodProblem(const char *method) {
  if (method == nullptr || *method == '\0') return "no method name";
  if (!IsMethod(method, static_cast<int>(strlen(method)))) return "not a method name (no \"cmd\" or \"func\")";
  if (qdmethods::IsCommandMethod(method)) return "a command method holds no meta-method value";
  return nullptr;
}

Edit CatMetaMethod(std::string_view current, const char *name, int index, unsigned mask,
                   std::string *out) {
  out->clear();
  if (const char *why = ElementProblem(name, index, mask)) {
    QDerror(kModule, "Element '%s' refused: %s\n", Text(name), why);
    return Edit::kRefused;
  }
  if (current.size() > kValueMax) {
    QDerror(kModule, "Current metamethod is longer than %d characters\n", static_cast<int>(kValueMax));
    return Edit::kRefused;
  }
  // "%s[%d][%s]" of name, index and operators, without printf's cost.
  char element_text[kElementMax + 1];
  char *at = element_text;
  at = std::copy(name, name + strlen(name), at);
  *at++ = '[';
  if (index >= 10) *at++ = static_cast<char>('0' + index / 10);
  *at++ = static_cast<char>('0' + index % 10);
  *at++ = ']';
  *at++ = '[';
  for (const meta_oper_t *op = meta_oper_tbl; op->flag != 0; ++op)
    if ((mask & op->flag) != 0) *at++ = op->oper;
  *at++ = ']';
  *at = '\0';
  std::string_view element(element_text, static_cast<size_t>(at - element_text));
  QDtrace(8, kModule, "MethodToAddString = %s\n", element_text);
  if (current.empty()) {
    *out = element;
    return Edit::kDone;
  }
  size_t found = std::string_view::npos;
  size_t found_end = 0;
  ForEachPiece(current, [&](size_t begin, size_t end) {
    if (!OfName(current.substr(begin, end - begin), name)) return false;
    found = begin;
    found_end = end;
    return true;
  });
  if (found == std::string_view::npos) {
    if (current.size() + 1 + element.size() > kValueMax) {
      QDerror(kModule, "new metamethod will not fit!\n");
      *out = current;
      return Edit::kNoRoom;
    }
    out->reserve(current.size() + 1 + element.size());
    out->append(current).append(1, ',').append(element);
    return Edit::kDone;
  }
  QDtrace(8, kModule, "new metamethod already present.\n");
  bool comma_after = found_end < current.size();
  out->reserve(current.size() + element.size());
  if (found == 0) {
    QDtrace(8, kModule, "Method is at beginning of method list");
    if (comma_after) {
      QDtrace(8, kModule, "Copy methods after method found:");
      out->append(current.substr(found_end + 1)).append(1, ',');
    }
  } else {
    QDtrace(8, kModule, "Copy methods before method found (%d characters):", static_cast<int>(found - 1));
    out->append(current.substr(0, found - 1));
    if (comma_after) {
      QDtrace(8, kModule, "Copy methods after method found (incl. comma):");
      out->append(current.substr(found_end));
    }
    out->push_back(',');
  }
  // A replacement keeps two characters of room more than an addition.
  if (out->size() + element.size() > kValueMax - 2) {
    QDerror(kModule, "updated metamethod will not fit!\n");
    *out = current;
    return Edit::kNoRoom;
  }
  out->append(element);
  return Edit::kDone;
}

}  // namespace qdmeta

namespace {

using qdmeta::Edit;
using qdmethods::Text;
const char kModule[] = "QDmeta";

struct ListFree {
  void operator()(KeywordList *list) const { DestroyKeywordList(list); }
};
using List = std::unique_ptr<KeywordList, ListFree>;

// The method's current value; 0, or the status that ends the call.
int ReadMethod(const char *alias, const char *method, std::string *value) {
  qdobjects::Read read = qdobjects::ReadValue(kModule, alias, method, true, value);
  QDtrace(8, kModule, "Returned  MethodName=%s  MethodValue=%s ", method, value->c_str());
  return read == qdobjects::Read::kUnreadable ? 255 : 0;
}

int Refuse(const char *method) {
  if (const char *why = qdmeta::MethodProblem(method)) {
    QDerror(kModule, "Method '%s' cannot be edited: %s\n", Text(method), why);
    return 254;
  }
  return 0;
}

}  // namespace

extern "C" {

void QDcatmetamethod(char *out, const char *current, const char *name, int index, unsigned char mask) {
  QDtrace(6, kModule, "QDcatmetamethod( ..., %s, %s, %d, 0x%02x )", Text(current), Text(name), index, mask);
  if (out == nullptr) return;
  std::string result;
  if (qdmeta::CatMetaMethod(current != nullptr ? current : "", name, index, mask, &result) == Edit::kRefused &&
      current != nullptr && strlen(current) <= qdmeta::kValueMax)
    result = current;
  memcpy(out, result.c_str(), result.size() + 1);
}

int QDaddmetamethod(const char *alias, const char *method, const char *name, int index, unsigned char mask) {
  QDtrace(6, kModule, "QDaddmetamethod( %s, %s, %s)", Text(alias), Text(method), Text(name));
  if (int rc = Refuse(method)) return rc;
  if (const char *why = qdmeta::ElementProblem(name, index, mask)) {
    QDerror(kModule, "Element '%s' refused: %s\n", Text(name), why);
    return 254;
  }
  List list(CreateKeywordList());
  if (list == nullptr) {
    QDerror(kModule, "Cannot create Method list\n");
    return 255;
  }
  QDtrace(8, kModule, "QDgetmethod( %s, %s )", Text(alias), method);
  std::string current;
  if (int rc = ReadMethod(alias, method, &current)) return rc;
  QDtrace(8, kModule, "Call QDcatmetamethod( %s, %s, %d, 0x%02x )", current.c_str(), name, index, mask);
  std::string modified;
  if (qdmeta::CatMetaMethod(current, name, index, mask, &modified) == Edit::kRefused) return 254;
  QDtrace(8, kModule, "Returned  ModifiedMethod = %s ", modified.c_str());
  if (AddKeywordToList(list.get(), method, modified.c_str()) == 0) QDput(alias, list.get());
  return 0;
}

int QDrmmetamethod(const char *alias, const char *method, const char *name) {
  QDtrace(6, kModule, "QDrmmetamethod( %s, %s, %s)", Text(alias), Text(method), Text(name));
  if (name == nullptr || *name == '\0') {
    QDerror(kModule, "Null parameter entered");
    return 255;
  }
  if (int rc = Refuse(method)) return rc;
  List list(CreateKeywordList());
  if (list == nullptr) {
    QDerror(kModule, "Cannot create Method list");
    return 255;
  }
  QDtrace(8, kModule, "Call QDgetmethod( %s, %s )", Text(alias), method);
  std::string current;
  if (int rc = ReadMethod(alias, method, &current)) return rc;
  std::string modified;
  auto of_name = [name](std::string_view element) { return qdmeta::OfName(element, name); };
  if (!qdmeta::RemoveElements(current, of_name, &modified)) return 0;
  if (AddKeywordToList(list.get(), method, modified.c_str()) == 0) QDput(alias, list.get());
  return 0;
}

int QDupdatemetamethod(const char *alias, const char *method, const char *name, int index, unsigned char mask) {
  QDtrace(6, kModule, "QDupdatemetamethod( %s, %s, %s)", Text(alias), Text(method), Text(name));
  // Both writes are made only when the second will take: a refused add
  // after the removal would lose the element.
  if (int rc = Refuse(method)) return rc;
  std::string current;
  if (int rc = ReadMethod(alias, method, &current)) return rc;
  std::string removed;
  std::string added;
  auto of_name = [name](std::string_view element) { return name != nullptr && qdmeta::OfName(element, name); };
  qdmeta::RemoveElements(current, of_name, &removed);
  switch (qdmeta::CatMetaMethod(removed, name, index, mask, &added)) {
    case Edit::kRefused: return 254;
    case Edit::kNoRoom: return 255;
    case Edit::kDone: break;
  }
  QDrmmetamethod(alias, method, name);
  QDaddmetamethod(alias, method, name, index, mask);
  return 0;
}

void QDrmdefaultmetamethod(const char *default_value, const char *current, const char *method,
                           KeywordList *list) {
  QDtrace(6, kModule, "QDrmdefaultmetamethod( %s, %s, %s)", Text(default_value), Text(current), Text(method));
  if (default_value == nullptr || *default_value == '\0') {
    QDerror(kModule, "DefaultValue is NULL\n");
    return;
  }
  if (current == nullptr || method == nullptr || list == nullptr) return;
  std::string_view value(current);
  std::string_view wanted(default_value);
  if (value.size() > qdmeta::kDefaultValueMax) {
    QDerror(kModule, "Value of '%s' is longer than %d characters\n", method,
            static_cast<int>(qdmeta::kDefaultValueMax));
    return;
  }
  if (value.find(',') == std::string_view::npos) {
    std::string_view own = value.substr(0, value.find('['));
    if (wanted.substr(0, own.size()) == own) {
      QDtrace(8, kModule, "CurrentValue = DefaultValue");
      return;
    }
  }
  // The default's text is whole bracket groups: "run[1" is no prefix of "run[10]".
  auto is_default = [wanted](std::string_view element) {
    return element.substr(0, wanted.size()) == wanted &&
           (element.size() == wanted.size() || element[wanted.size()] == '[');
  };
  std::string reduced;
  if (!qdmeta::RemoveElements(value, is_default, &reduced)) return;
  bool other = false;
  qdmeta::ForEachPiece(reduced, [&](size_t begin, size_t end) {
    std::string_view element = qdmeta::Trim(std::string_view(reduced).substr(begin, end - begin));
    other = !element.empty() && qdmeta::OperatorGroup(element).find('m') == std::string_view::npos;
    return other;
  });
  if (!other) return;
  QDtrace(8, kModule, "removing default value");
  RemoveKeywordFmList(list, method);
  AddKeywordToList(list, method, reduced.c_str());
}

}  // extern "C"
