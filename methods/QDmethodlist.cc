// Expanding a method into the flat list of operators, commands and
// functions that the executor walks.
#include <cstdlib>
#include <string>
#include <vector>

#include "methods.h"

namespace {

const char kModule[] = "QDmeta";

// Ten levels of twenty-five elements fit in a 512-character value each, so
// a value can multiply out without any cycle; past this many entries the
// expansion is refused rather than left to grow.
constexpr int kMaxEntries = 65536;

class Builder {
 public:
  Builder(const char *alias, KeywordList *list) : alias_(alias), list_(list) {}
  bool Expand(const NameValue &method);
  const std::string &why() const { return why_; }

 private:
  bool Add(const char *keyword, const char *value);
  bool ExpandReference(const char *reference);
  bool Fail(std::string why);

  const char *alias_;
  KeywordList *list_;
  std::vector<std::string> chain_;  // the methods being expanded, outermost first
  std::string why_;
};

bool Builder::Fail(std::string why) {
  why_ = std::move(why);
  QDerror(kModule, "%s\n", why_.c_str());
  return false;
}

bool Builder::Add(const char *keyword, const char *value) {
  if (NumberOfKeywords(list_) >= kMaxEntries)
    return Fail("Method list of " + chain_.front() + " for alias " + alias_ + " grows past " +
                std::to_string(kMaxEntries) + " entries");
  if (AddKeywordToList(list_, keyword, value) != 0) return Fail("Cannot add to method list");
  return true;
}

bool Builder::Expand(const NameValue &method) {
  QDtrace(6, kModule, "QDbuildmethodlist ( %s, %s, %lu )", alias_, method.name,
          qdmethods::Address(list_));
  chain_.push_back(method.name);
  if (qdmethods::IsCommandMethod(method.name)) {
    QDtrace(6, kModule, ">>%s<< is a shell command method", method.name);
    bool ok = Add(META_CMD, method.value);
    chain_.pop_back();
    return ok;
  }
  KeywordList *parsed = QDparsemetavalue(method.value);
  if (parsed == nullptr)
    return Fail("Method " + std::string(method.name) + " of alias " + alias_ +
                " has a value that cannot be parsed");
  bool ok = true;
  char *kw;
  char *value;
  int rc;
  parsed->kwl_cursor = parsed->kwl_first;
  while (ok && ((rc = ReferenceNextKeywordInList(parsed, &kw, &value)) == KWL_OK || rc == KWL_WARN)) {
    if (strcmp(kw, META_PRE_OP) == 0 || strcmp(kw, META_POST_OP) == 0) {
      QDtrace(6, kModule, ">>%s<< is a meta-operator", value);
      ok = Add(kw, value);
    } else {
      ok = ExpandReference(value);
    }
  }
  DestroyKeywordList(parsed);
  chain_.pop_back();
  QDtrace(6, kModule, "Leaving QDbuildmethodlist()");
  return ok;
}

bool Builder::ExpandReference(const char *reference) {
  QDtrace(8, kModule, "QDgetmethod ( %s, %s )", alias_, reference);
  NameValue *method = QDgetmethod(alias_, reference);
  if (method == nullptr) {
    QDtrace(8, kModule, "Add function to list: %s=%s ", META_FCN, reference);
    return Add(META_FCN, reference);
  }
  for (const std::string &outer : chain_) {
    if (outer != method->name) continue;
    std::string path;
    for (const std::string &m : chain_) path += m + " -> ";
    free(method);
    return Fail("Method " + chain_.front() + " of alias " + alias_ + " refers to itself: " + path +
                reference);
  }
  QDtrace(6, kModule, ">>%s<< is a meta-method", reference);
  QDtrace(8, kModule, "Recursive call to QDbuildmethodlist ( %s, %s, %lu )", alias_, reference,
          qdmethods::Address(list_));
  bool ok = Expand(*method);
  free(method);
  return ok;
}

}  // namespace

namespace qdmethods {

void BuildMethodList(const char *alias, const NameValue *method, KeywordList **list, std::string *why) {
  if (list == nullptr) return;
  if (*list == nullptr && (*list = CreateKeywordList()) == nullptr) {
    QDerror(kModule, "Cannot create Meta list\n");
    *why = "Cannot create Meta list";
    return;
  }
  Builder builder(Text(alias), *list);
  if (alias == nullptr || method == nullptr) {
    QDerror(kModule, "No method to expand\n");
    *why = "No method to expand";
  } else if (builder.Expand(*method)) {
    return;
  } else {
    *why = builder.why();
  }
  // Nothing of a half-built list may run.
  DestroyKeywordList(*list);
  *list = nullptr;
}

}  // namespace qdmethods

extern "C" void QDbuildmethodlist(const char *alias, NameValue **method, KeywordList **list) {
  std::string why;
  qdmethods::BuildMethodList(alias, method != nullptr ? *method : nullptr, list, &why);
}
