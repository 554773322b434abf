// The destroy walk. Contained objects are handled before their container,
// depth first, each object's outcome recorded in the result list.
//
// Recursively, each object gets a result list of its own which its parent
// merges (QD_destroy_parse) when the object is done. Merging is
// associative here: the alias keywords keep each alias's first appearance,
// messages and other entries keep their order, and the error code ends as
// the last nonzero code met, a contained object's failed delete counting as
// code 3. So the walk writes every object's events straight into the one
// list of the top object, in the order the recursion would merge them: the
// same list, without copying a subtree's entries once per level above it.
// The walk keeps its own stack, and the aliases on the path from the top: an
// object met again below itself is not handled twice. The alias keywords'
// values are gathered beside the list and written into it at the end: added
// to in the list one alias at a time, a value is scanned whole for each
// alias, and a big tree would take time quadratic in its size.
#include "destroy_walk.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace {

const char kModule[] = "QDdestroy";
constexpr size_t kMessageSize = 513;

const char *Text(const char *s) { return s != nullptr ? s : "(null)"; }

// A method lookup counts only when it returns 0.
bool HasMethod(const ObjectRecord *object, const char *name) {
  char *kw = nullptr;
  char *value = nullptr;
  return object->methods != nullptr &&
         ReferenceKeywordInList(object->methods, name, &kw, &value) == KWL_OK;
}

// A "message" entry formatted in the message buffer; a longer text is cut
// there, and the cut traced.
__attribute__((format(printf, 2, 3))) void Message(KeywordList *result, const char *format, ...) {
  char text[kMessageSize];
  va_list args;
  va_start(args, format);
  int n = vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (n >= static_cast<int>(sizeof text))
    QDtrace(4, kModule, "message of %d characters cut to %d", n, static_cast<int>(sizeof text) - 1);
  AddKeywordToList(result, QD_MESSAGE, n >= 0 ? text : "");
}

const char *const kAliasKeywords[] = {QD_DESTROYED, QD_DELETED, QD_NOT_DESTROYED, QD_NOT_DELETED};

// The initial entries: all six, or the four alias keywords of an early failure.
KeywordList *NewResult(bool codes) {
  KeywordList *list = CreateKeywordList();
  if (list == nullptr) {
    QDtrace(3, kModule, "Cannot create keywordlist for output");
    return nullptr;
  }
  if (codes) {
    AddKeywordToList(list, QD_ERRORCODE, "0");
    AddKeywordToList(list, QD_COMPLETIONCODE, "0");
  }
  for (const char *kw : kAliasKeywords) AddKeywordToList(list, kw, "");
  return list;
}

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// The result list of the walk, with the values of its alias keywords kept
// aside until Finish.
class Result {
 public:
  explicit Result(KeywordList *list) : list_(list) {}

  // As AddValueToList: a value already among the items is not added again.
  void AddAlias(const char *keyword, std::string_view value) {
    Values *v = Find(keyword);
    std::string_view want = Trim(value);
    bool one = !want.empty() && want.find(',') == std::string_view::npos;
    if (one && v->items.count(std::string(want)) != 0) return;
    if (!v->text.empty()) v->text += ',';
    v->text.append(value);
    if (one) {
      v->items.emplace(want);
      return;
    }
    // Several items, or none: as the list operations split them.
    CommaList items = ParseCommaList(std::string(value).c_str());
    for (char **item = items; item != nullptr && *item != nullptr; ++item) v->items.insert(*item);
    DestroyCommaList(items);
  }
  // As QD_destroy_parse.
  void Merge(KeywordList *sub) {
    if (sub == nullptr) return;
    sub->kwl_cursor = sub->kwl_first;
    char *kw;
    char *value;
    int st;
    while ((st = ReferenceNextKeywordInList(sub, &kw, &value)) == KWL_OK || st == KWL_WARN) {
      switch (qd::MergeOf(kw)) {
        case qd::Merge::kAliases: {
          CommaList items = ParseCommaList(value);
          for (char **item = items; item != nullptr && *item != nullptr; ++item) AddAlias(kw, *item);
          DestroyCommaList(items);
          break;
        }
        case qd::Merge::kCode:
          if (strcmp(value, "0") != 0) UpdateKeywordInList(list_, QD_ERRORCODE, value);
          break;
        case qd::Merge::kAppend:
          AddKeywordToList(list_, kw, value);
          break;
      }
    }
    DestroyKeywordList(sub);
  }
  KeywordList *list() const { return list_; }
  KeywordList *Finish() {
    for (size_t i = 0; i < 4; ++i) UpdateKeywordInList(list_, kAliasKeywords[i], values_[i].text.c_str());
    return list_;
  }

 private:
  struct Values {
    std::string text;                       // the value as it stands
    std::unordered_set<std::string> items;  // its items, as ParseCommaList splits it
  };
  Values *Find(const char *keyword) {
    for (size_t i = 0; i < 4; ++i)
      if (strcmp(keyword, kAliasKeywords[i]) == 0) return &values_[i];
    return nullptr;  // not reached: callers pass alias keywords only
  }
  KeywordList *list_;
  Values values_[4];
};

// Steps 3 to 6 of one object, its contained objects done.
void Act(ObjectRecord *object, unsigned char flags, bool top, Result *result, qd::DestroyActor *actor) {
  const char *alias = Text(object->alias);
  if ((flags & QDDESTROY) != 0) {
    if ((flags & QDEXTENDED) == 0) {
      result->AddAlias(QD_NOT_DESTROYED, alias);
      Message(result->list(), "QD 'destroy' functionality not available");
    } else if (!HasMethod(object, "QDdestroyfunc")) {
      result->AddAlias(QD_NOT_DESTROYED, alias);
      Message(result->list(), "'QDdestroyfunc' not defined for alias '%s'", alias);
    } else {
      result->Merge(actor->Perform(alias, "QDdestroyfunc"));
    }
  }
  if ((flags & QDDEL) == 0) return;
  if ((flags & QDEXTENDED) != 0) {
    if (HasMethod(object, "QDdeletefunc")) {
      result->Merge(actor->Perform(alias, "QDdeletefunc"));
      return;
    }
    Message(result->list(), "'QDdeletefunc' not defined for alias '%s'", alias);
    if ((flags & QDDELFALLBACK) == 0) {
      result->AddAlias(QD_NOT_DELETED, alias);
      return;
    }
  }
  if (actor->Delete(alias) == 0) {
    result->AddAlias(QD_DELETED, alias);
    return;
  }
  result->AddAlias(QD_NOT_DELETED, alias);
  Message(result->list(), "'QDdelete' failed for alias '%s'", alias);
  // A contained object's completion code reaches its container's list as
  // an error code.
  UpdateKeywordInList(result->list(), top ? QD_COMPLETIONCODE : QD_ERRORCODE, "3");
}

// One object in progress: its chain and the next contained object to handle.
struct Visit {
  ObjectRecord *object;
  ContainedNode *next;
};

// Step 1 and 2 of one object: traces, and its chain filled one level when empty.
Visit Enter(ObjectRecord *object, unsigned char flags) {
  QDtrace(8, kModule, "QD_destroy_object( %s, 0x%02x )", Text(object->alias), flags);
  if ((flags & QDCONTAINS) == 0) return {object, nullptr};
  QDtrace(8, kModule, "Traversing object containment tree...");
  if (object->contained == nullptr)
    QDget_contained_objects(object, static_cast<unsigned char>((flags & ~QDCONTAINS) | QDOBJECT));
  return {object, object->contained};
}

void Walk(ObjectRecord *top, unsigned char flags, Result *result, qd::DestroyActor *actor) {
  std::unordered_set<std::string_view> path;  // views of the objects' alias strings
  std::vector<Visit> stack{Enter(top, flags)};
  if (top->alias != nullptr) path.insert(top->alias);
  while (!stack.empty()) {
    Visit &visit = stack.back();
    if (visit.next == nullptr) {
      Act(visit.object, flags, stack.size() == 1, result, actor);
      if (visit.object->alias != nullptr) path.erase(visit.object->alias);
      stack.pop_back();
      continue;
    }
    ObjectRecord *inner = visit.next->object;
    visit.next = visit.next->next;
    if (inner == nullptr) continue;
    if (inner->alias != nullptr && path.count(inner->alias) != 0) {
      QDtrace(4, kModule, "'%s' is already on the containment path: not handled again", inner->alias);
      continue;
    }
    if (inner->alias != nullptr) path.insert(inner->alias);
    stack.push_back(Enter(inner, flags));
  }
}

// The list of a failure before the walk: messages so far, the alias as not
// destroyed and not deleted as asked, and the code last.
KeywordList *Early(KeywordList *list, const char *alias, unsigned char flags, const char *code) {
  if ((flags & QDDEL) != 0) UpdateKeywordInList(list, QD_NOT_DELETED, Text(alias));
  if ((flags & QDDESTROY) != 0) UpdateKeywordInList(list, QD_NOT_DESTROYED, Text(alias));
  AddKeywordToList(list, QD_ERRORCODE, code);
  return list;
}

}  // namespace

namespace qd {

Merge MergeOf(const char *keyword) {
  static const struct {
    const char *keyword;
    Merge merge;
  } kMerges[] = {
      {QD_DESTROYED, Merge::kAliases}, {QD_NOT_DESTROYED, Merge::kAliases}, {QD_DELETED, Merge::kAliases},
      {QD_NOT_DELETED, Merge::kAliases}, {QD_COMPLETIONCODE, Merge::kCode},   {QD_ERRORCODE, Merge::kCode},
  };
  for (const auto &m : kMerges)
    if (strcmp(keyword, m.keyword) == 0) return m.merge;
  return Merge::kAppend;  // "message" too: every message is an entry of its own
}

KeywordList *DestroyObject(ObjectRecord *object, unsigned char flags, DestroyActor *actor) {
  KeywordList *list = NewResult(true);
  if (list == nullptr || object == nullptr) return list;
  Result result(list);
  Walk(object, flags, &result, actor);
  return result.Finish();
}

KeywordList *Destroy(const char *alias, unsigned char flags, DestroyActor *actor) {
  QDtrace(8, kModule, "QDdestroy( %s, 0x%02x )", Text(alias), flags);
  if ((flags & (QDDEL | QDDESTROY)) == 0) flags |= QDDESTROY;
  if ((flags & (QDOBJECT | QDCONTAINS)) == 0) flags |= QDOBJECT;
  if ((flags & (QDEXTENDED | QDDELFALLBACK)) == 0) flags |= QDDELFALLBACK;
  KeywordList *list = NewResult(false);
  if (list == nullptr) return nullptr;
  if ((flags & QDDESTROY) != 0 && (flags & QDEXTENDED) == 0) {
    QDtrace(3, kModule, "QDdestroy() functionality not available");
    Message(list, "QDdestroy() API not available");
    return Early(list, alias, flags, "1");
  }
  if ((flags & QDOBJECT) != 0 && (flags & QDCONTAINS) != 0) {
    QDtrace(3, kModule, "QDdestroy(QDOBJECT|QDCONTAINS) is invalid");
    Message(list, "QDdestroy(QDOBJECT|QDCONTAINS) is invalid");
    return Early(list, alias, flags, "1");
  }
  bool was_on = qdcache_on != 0;
  bool cached = QDcache_load() == 0;
  bool locked = false;
  if (!cached) {
    QDtrace(5, kModule, "Cannot cache object table");
    Message(list, "Cannot cache object table");
    if (QDlock(QDWRITE) != 0) {
      QDtrace(3, kModule, "Cannot lock object table for writing");
      Message(list, "Cannot lock object table for writing");
      return Early(list, alias, flags, "2");
    }
    locked = true;
  }
  KeywordList *result;
  if (ObjectRecord *object = alias != nullptr ? QDgetobj(alias) : nullptr) {
    DestroyKeywordList(list);
    result = DestroyObject(object, flags, actor);
    QDfreeobj(object);
  } else {
    QDtrace(3, kModule, "Cannot get object");
    Message(list, "Cannot get object");
    result = Early(list, alias, flags, "3");
  }
  if (locked) QDunlock(QDWRITE);
  // A cache the caller had loaded stays the caller's to write back.
  if (cached && !was_on) actor->DoneWithCache();
  return result;
}

}  // namespace qd
