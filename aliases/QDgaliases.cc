// Alias listing through unitlist: every alias, or those meeting criteria
// (unitlist picks the entries that define each criteria attribute, the
// values are then compared by the matching).
#include <cstdlib>
#include <cstring>
#include <string>

#include "aliases.h"
#include "command.h"
#include "front.h"

namespace {

const char kModule[] = "QDgaliases";
constexpr size_t kCommandSize = 4096;

// unitlist reads a criterion's operator at its first '=' or ':', with a '!'
// before it negating: keywords holding those cannot be passed intact.
const char *CriterionProblem(const char *kw) {
  size_t n = strlen(kw);
  if (n == 0) return "empty criteria keyword";
  if (strpbrk(kw, "=:") != nullptr || kw[n - 1] == '!')
    return "criteria keyword holds '=', ':' or a final '!'";
  return nullptr;
}

}  // namespace

int AddAnAliasToList(void *context, char *line) {
  auto *out = static_cast<AliasAppender *>(context);
  QDtrace(8, kModule, "AddAnAliasToList (%lu, %s)", reinterpret_cast<unsigned long>(*out->head), line);
  auto *node = static_cast<AliasList *>(QDmalloc(kModule, sizeof(AliasList)));
  size_t len = strlen(line);
  char *copy = static_cast<char *>(QDmalloc(kModule, len + 1));
  if (node == nullptr || copy == nullptr) {
    QDerror(kModule, "QDmalloc failed.");
    free(node);
    free(copy);
    return 0;
  }
  memcpy(copy, line, len + 1);
  node->alias = copy;
  node->next = nullptr;
  if (out->tail != nullptr)
    out->tail->next = node;
  else
    *out->head = node;
  out->tail = node;
  return 0;
}

int GetAllAliases(AliasList **head, const std::string &arguments) {
  QDtrace(8, kModule, "GetAllAliases(%lu, %s)", reinterpret_cast<unsigned long>(*head),
          arguments.empty() ? "(null)" : arguments.c_str());
  if (qdcache_on != 0) {
    QDcache_hook_GetAllAliases(head, nullptr);
    return 0;
  }
  char command[kCommandSize];
  qd::CommandLine line(sizeof command);
  line.Raw("unitlist").Raw(arguments);
  if (!line.CopyTo(command)) {
    QDerror(kModule, "Cannot run unitlist: %s\n", line.error());
    *head = nullptr;
    return -1;
  }
  int rc = QDlock(QDREAD);
  if (rc != 0) {
    *head = nullptr;
    return rc;
  }
  AliasAppender out{head, nullptr};
  if (ExecuteCommand(command, AddAnAliasToList, &out) != 0) {
    QDFreeAliasList(*head);
    *head = nullptr;
  }
  return QDunlock(QDREAD);
}

int GetSpecificAliases(AliasList **result, KeywordList *criteria) {
  QDtrace(8, kModule, "GetSpecificAliases(%lu)", reinterpret_cast<unsigned long>(*result));
  if (qdcache_on != 0) {
    QDcache_hook_GetSpecificAliases(result, criteria);
    return 0;
  }
  qd::CommandLine args(kCommandSize);
  args.Raw(" -a");
  criteria->kwl_cursor = criteria->kwl_first;
  char *kw;
  char *value;
  int st;
  while ((st = ReferenceNextKeywordInList(criteria, &kw, &value)) == KWL_OK || st == KWL_WARN) {
    if (const char *why = CriterionProblem(kw)) {
      QDerror(kModule, "Cannot pass criterion '%s' to unitlist: %s\n", kw, why);
      *result = nullptr;
      return -1;
    }
    args.Raw(" ").Word(kw).Raw(":\\*");
  }
  if (qd_stale == 0) args.Raw(" alias_status!:\\*");
  if (args.error() != nullptr) {
    QDerror(kModule, "Cannot pass criteria to unitlist: %s\n", args.error());
    *result = nullptr;
    return -1;
  }
  AliasList *candidates = nullptr;
  GetAllAliases(&candidates, args.text());
  *result = QDmatchalias(criteria, candidates);
  QDFreeAliasList(candidates);
  return 0;
}

extern "C" {

AliasList *QDLgetaliases(KeywordList *criteria) {
  AliasList *list = nullptr;
  if (criteria != nullptr)
    GetSpecificAliases(&list, criteria);
  else
    GetAllAliases(&list, "");
  return list;
}

AliasList *QDgetaliases(KeywordList *criteria) {
  if (qdcache_on != 0 && IsLocalSearch(criteria)) return PVgetaliases(criteria);
  if (auto fw = qd::FrameworkFunction<AliasList *(*)(KeywordList *)>("FWgetaliases"))
    return fw(criteria);
  return PVgetaliases(criteria);
}

}  // extern "C"
