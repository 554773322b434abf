// qdadm contains and destroy: the entries an entry contains, and taking
// an entry (and what it contains) out of service, or showing what that
// would do.
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "commands.h"
#include "destroy_walk.h"

namespace qdadm {

namespace {

struct Option {
  const char *name;
  unsigned char flag;  // 0: not a library flag
};

// The options of a command, then its one alias. False (after saying why)
// for anything else.
bool ParseOptions(const Args &a, const std::vector<Option> &known, unsigned char *flags,
                  std::set<std::string> *given, std::string *alias) {
  for (size_t i = 0; i < a.size(); ++i) {
    const Option *match = nullptr;
    for (const Option &o : known)
      if (a[i] == o.name) match = &o;
    if (match != nullptr) {
      *flags |= match->flag;
      given->insert(match->name);
    } else if (a[i].rfind("--", 0) == 0 || i + 1 != a.size()) {
      Say("not an option here, or more than one alias: %s", a[i].c_str());
      return false;
    } else {
      *alias = a[i];
    }
  }
  if (alias->empty()) Say("give the alias");
  return !alias->empty();
}

// The rows of the object's tree, depth first, chain order: the order in
// which a destroy would take them. No recursion: trees may be deep.
std::vector<TreeRow> Rows(const ObjectRecord *top) {
  std::vector<TreeRow> rows{{0, top->alias, false}};
  // Level i of the stack walks the chain of path[i]; `above` holds the path.
  std::vector<const ObjectRecord *> path{top};
  std::unordered_set<std::string> above{top->alias};
  std::vector<const ContainedNode *> stack{top->contained};
  while (!stack.empty()) {
    const ContainedNode *node = stack.back();
    if (node == nullptr) {
      stack.pop_back();
      above.erase(path.back()->alias);
      path.pop_back();
      continue;
    }
    stack.back() = node->next;
    const ObjectRecord *o = node->object;
    bool repeated = above.count(o->alias) != 0;
    rows.push_back({stack.size(), o->alias, repeated});
    if (o->contained != nullptr && !repeated) {
      path.push_back(o);
      above.insert(o->alias);
      stack.push_back(o->contained);
    }
  }
  return rows;
}

// The dry run's actor: records each act, performs none. An entry counts as
// deleted once its delete is recorded, as it would be after a real one.
class Recorder : public qd::DestroyActor {
 public:
  KeywordList *Perform(const char *alias, const char *method) override {
    acts_.push_back({{"act", "perform"}, {"alias", alias}, {"method", method}});
    return nullptr;
  }
  int Delete(const char *alias) override {
    if (!deleted_.insert(alias).second || QDcheck(alias) != 0) return 3;
    acts_.push_back({{"act", "delete"}, {"alias", alias}});
    return 0;
  }
  void DoneWithCache() override { QDcache_free(); }
  const std::vector<Pairs> &acts() const { return acts_; }

 private:
  std::vector<Pairs> acts_;
  std::set<std::string> deleted_;
};

std::string Value(KeywordList *list, const char *keyword) {
  char *kw = nullptr;
  char *value = nullptr;
  int st = ReferenceKeywordInList(list, keyword, &kw, &value);
  return st == KWL_OK || st == KWL_WARN ? value : "";
}

// The exit status of a destroy: its error code, else its completion code,
// else 1 when something was not destroyed or not deleted.
int Outcome(KeywordList *result) {
  for (const char *code : {QD_ERRORCODE, QD_COMPLETIONCODE}) {
    int n = atoi(Value(result, code).c_str());
    if (n != 0) return n > 0 && n < 256 ? n : 255;
  }
  return Value(result, QD_NOT_DESTROYED).empty() && Value(result, QD_NOT_DELETED).empty() ? 0 : 1;
}

std::vector<std::string> Items(const std::string &value) {
  std::vector<std::string> items;
  CommaList list = ParseCommaList(value.c_str());
  for (char **item = list; item != nullptr && *item != nullptr; ++item) items.emplace_back(*item);
  DestroyCommaList(list);
  return items;
}

// The result list: as it stands, or in JSON with the alias lists and the
// messages as arrays.
void PrintResult(Output &out, KeywordList *result) {
  Pairs entries = ToPairs(result);
  if (!out.json()) {
    out.Fields(entries);
    return;
  }
  Pairs fields;
  Lists lists{{QD_DESTROYED, {}}, {QD_DELETED, {}}, {QD_NOT_DESTROYED, {}}, {QD_NOT_DELETED, {}}, {QD_MESSAGE, {}}};
  for (const auto &e : entries) {
    bool listed = false;
    for (auto &l : lists) {
      if (e.first != l.first) continue;
      listed = true;
      if (e.first == QD_MESSAGE) {
        l.second.push_back(e.second);
      } else {
        for (std::string &item : Items(e.second)) l.second.push_back(item);
      }
    }
    if (!listed) fields.push_back(e);
  }
  out.Report(fields, lists);
}

}  // namespace

int Contains(Output &out, const Args &a) {
  unsigned char flags = 0;
  std::set<std::string> given;
  std::string alias;
  if (!ParseOptions(a, {{"--tree", QDCONTAINS}, {"--extended", QDEXTENDED}}, &flags, &given, &alias))
    return kBadArguments;
  ObjectRecord *o = QDgetobj(alias.c_str());
  if (o == nullptr) {
    Say("no entry for %s", alias.c_str());
    return kNoEntry;
  }
  bool was_on = qdcache_on != 0;
  int rc = QDget_contained_objects(o, flags);
  if (rc == 0 || rc == 3) out.Tree(Rows(o));
  else Say("cannot read the table for %s", alias.c_str());
  QDfreeobj(o);
  // Reading loaded the cache: it holds nothing to write back.
  if (!was_on && qdcache_on != 0) QDcache_free();
  return rc == 3 ? 0 : rc;
}

int Destroy(Output &out, const Args &a) {
  unsigned char flags = 0;
  std::set<std::string> given;
  std::string alias;
  // Destroy methods need the object's own methods: --extended runs them,
  // with or without --delete.
  const std::vector<Option> known = {{"--tree", QDCONTAINS},
                                     {"--delete", QDDEL},
                                     {"--extended", QDEXTENDED | QDDESTROY},
                                     {"--fallback", QDDELFALLBACK},
                                     {"--dry-run", 0}};
  if (!ParseOptions(a, known, &flags, &given, &alias)) return kBadArguments;
  if (given.count("--dry-run") == 0) {
    KeywordList *result = QDdestroy(alias.c_str(), flags);
    if (result == nullptr) {
      Say("no result list for %s: out of memory", alias.c_str());
      return 255;
    }
    PrintResult(out, result);
    int rc = Outcome(result);
    DestroyKeywordList(result);
    return rc;
  }
  Recorder recorder;
  KeywordList *result = qd::Destroy(alias.c_str(), flags, &recorder);
  if (result == nullptr) return 255;
  char *kw = nullptr;
  char *value = nullptr;
  int rc = 0;
  if (ReferenceKeywordInList(result, QD_COMPLETIONCODE, &kw, &value) == KWL_OK) {
    out.Acts(recorder.acts());
  } else {
    // Refused before the walk (that list has no completion code): the
    // messages say why.
    for (const auto &e : ToPairs(result))
      if (e.first == QD_MESSAGE) Say("%s", e.second.c_str());
    rc = Outcome(result);
  }
  DestroyKeywordList(result);
  return rc;
}

}  // namespace qdadm
