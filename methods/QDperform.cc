// Running a method of an alias: the public entry, the local implementation,
// one entry of a method list, and the rule that decides whether a run goes
// on after a method's codes are known.
#include <climits>
#include <cstdlib>
#include <string>

#include "methods.h"

using qdmethods::kPerform;
using qdmethods::Text;

namespace {

// One row of the continuation rule: the codes it covers (a missing or
// negative code reads as -1), its traces, its decision, and what a halt
// appends to the cumulative list at trace level 8.
struct Continuation {
  int cc_low, cc_high;
  int ec_low, ec_high;
  const char *traces[2];
  int go_on;
  const char *messages[3];  // after method=VALUE; none at all when empty
};

const char kNoCompletion[] = "No 'completioncode' keyword found.";
const char kHaltCompletion[] = "'completioncode' is non-zero, halt processing.";

const Continuation kRules[] = {
    {INT_MIN, -1, INT_MIN, -1, {kNoCompletion, "No 'errorcode' keyword found."}, 0,
     {kNoCompletion, "No 'errorcode' keyword found.", "Processing aborted."}},
    {INT_MIN, -1, 1, INT_MAX, {kNoCompletion, "'errorcode' keyword non-zero, halt processing."}, 0,
     {kNoCompletion, "Keyword 'errorcode' indicates failure.", "Processing halted."}},
    {INT_MIN, -1, 0, 0, {kNoCompletion, "'errorcode' is zero, continue processing."}, 1, {}},
    {0, 0, INT_MIN, INT_MAX, {"'completioncode' is zero, continue processing."}, 1, {}},
    {1, 1, INT_MIN, INT_MAX, {kHaltCompletion}, 0, {"Processing interrupted."}},
    {2, 2, INT_MIN, INT_MAX, {kHaltCompletion}, 0, {"Processing halted."}},
    {3, INT_MAX, INT_MIN, INT_MAX, {}, 0, {}},
};

int Code(KeywordList *list, const char *keyword) {
  char *value = nullptr;
  int rc = list != nullptr ? ReferenceKeywordInList(list, keyword, nullptr, &value) : KWL_INVALID;
  if (rc != KWL_OK && rc != KWL_WARN) return -1;
  int code = atoi(value);
  return code < 0 ? -1 : code;
}

}  // namespace

extern "C" {

int ContinueProcessing(const char *method, KeywordList *cumulative) {
  int ec = Code(cumulative, "errorcode");
  int cc = Code(cumulative, "completioncode");
  QDtrace(6, kPerform, "Method '%s' exit parameters: ", Text(method));
  QDtrace(6, kPerform, "'errorcode'==%d  'completioncode'==%d", ec, cc);
  for (const Continuation &rule : kRules) {
    if (cc < rule.cc_low || cc > rule.cc_high || ec < rule.ec_low || ec > rule.ec_high) continue;
    for (const char *trace : rule.traces)
      if (trace != nullptr) QDtrace(6, kPerform, "%s", trace);
    if (vcel_verbose_level >= 8 && rule.messages[0] != nullptr && cumulative != nullptr) {
      AddKeywordToList(cumulative, "method", Text(method));
      for (const char *message : rule.messages)
        if (message != nullptr) AddKeywordToList(cumulative, "message", message);
    }
    return rule.go_on;
  }
  return 0;  // not reached: the rows cover every pair of codes
}

KeywordList *QDperformmethod(const char *alias, const char *kind, const char *value, KeywordList *params,
                             int formatted) {
  KeywordList *own = params == nullptr ? CreateKeywordList() : nullptr;
  KeywordList *input = params != nullptr ? params : own;
  KeywordList *out = kind != nullptr && strcmp(kind, META_CMD) == 0
                         ? PerformCommand(value, alias, input, formatted)
                         : PerformFunction(value, alias, input);
  // A function that hands back the list it was given gets a copy made of
  // it: that list is not ours to give away.
  if (out != nullptr && out == input) out = DuplicateKeywordList(out);
  DestroyKeywordList(own);
  return out;
}

KeywordList *QDLperform(const char *alias, const char *method, KeywordList *params) {
  QDtrace(6, kPerform, "QDperform ( %s, %s, %lu )", Text(alias), Text(method), qdmethods::Address(params));
  QDtrace(8, kPerform, "PARAMETERS AT QDperform:");
  DisplayParameterList(params);
  NameValue *found = alias != nullptr && method != nullptr ? QDgetmethod(alias, method) : nullptr;
  QDtrace(8, kPerform, "QDgetmethod returned  %s, %s ", found ? found->name : "(null)",
          found ? found->value : "(null)");
  if (found == nullptr) {
    QDerror(kPerform, "Cannot get method %s for Alias %s\n", Text(method), Text(alias));
    return BuildErrorCode(QD_METHOD_NOTFOUND);
  }
  KeywordList *result;
  if (qdmethods::IsCommandMethod(found->name)) {
    result = QDperformmethod(alias, META_CMD, found->value, params, 1);
  } else {
    KeywordList *list = nullptr;
    std::string why;
    qdmethods::BuildMethodList(alias, found, &list, &why);
    if (list != nullptr) {
      result = QDexecutemethodlist(alias, &list, params);
      DestroyKeywordList(list);
    } else if ((result = BuildErrorCode(QD_METHOD_BADLIST)) != nullptr) {
      AddKeywordToList(result, "message", (why + "; nothing was run").c_str());
    }
  }
  free(found);
  return result;
}

KeywordList *QDperform(const char *alias, const char *method, KeywordList *params) {
  return NVPerform(alias, method, params);
}

}  // extern "C"
