// QDtrace, the one gate every trace line of the library passes (the level
// test comes before any formatting work); object records; unique aliases;
// multi-value attributes and alias lists.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "objects.h"

extern "C" void QDtrace(int level, const char *module, const char *format, ...) {
  if (level != vcel_explicit_level && level > vcel_verbose_level) return;
  va_list args;
  va_start(args, format);
  VCELvtrace(level, module, format, args);
  va_end(args);
}

extern "C" ObjectRecord *Create_object(char *alias, KeywordList *attributes, KeywordList *methods) {
  auto *object = static_cast<ObjectRecord *>(QDmalloc("QDmisc", sizeof(ObjectRecord)));
  if (object == nullptr) {
    QDtrace(2, "QDmisc", "Cannot allocate storage for object '%s'", alias ? alias : "(null)");
    return nullptr;
  }
  object->alias = alias;
  object->attributes = attributes;
  object->methods = methods;
  object->contained = nullptr;
  return object;
}

// Contained objects wait on one list of pending nodes instead of being freed
// by recursion: a chain or a tree of any depth frees in constant stack.
// Each chain goes onto the list reversed: a chain holds the object found
// last first, and freeing a tree in the order its objects were fetched
// leaves the heap in order for what is allocated next.
extern "C" void QDfreeobj(ObjectRecord *object) {
  ContainedNode *pending = nullptr;
  for (;;) {
    if (object != nullptr) {
      free(object->alias);
      if (object->attributes != nullptr) DestroyKeywordList(object->attributes);
      if (object->methods != nullptr) DestroyKeywordList(object->methods);
      for (ContainedNode *node = object->contained; node != nullptr;) {
        ContainedNode *next = node->next;
        node->next = pending;
        pending = node;
        node = next;
      }
      free(object);
    }
    if (pending == nullptr) return;
    ContainedNode *node = pending;
    pending = node->next;
    object = node->object;
    free(node);
  }
}

extern "C" void DestroyCommaList(CommaList list) {
  if (list == nullptr) return;
  char **end = list;
  while (*end != nullptr) ++end;
  free(end[1]);  // the block every item lies in
  free(list);
}

// ---------------------------------------------------------------- values

namespace {

const char kMisc[] = "QDmisc";

// The list calls trace through IOTrace, which does not filter by level.
#define QD_IO_TRACE(module, ...)                                     \
  do {                                                               \
    if (vcel_explicit_level == 7 || vcel_verbose_level >= 7)         \
      IOTrace(7, module, __VA_ARGS__);                               \
  } while (0)

// 0, or 254 after saying why the pair cannot be edited as an item.
int RefuseItem(const char *name, const char *value) {
  const char *why = nullptr;
  if (name == nullptr || *name == '\0') {
    why = "no attribute name";
  } else if (IsAlias(name, static_cast<int>(strlen(name))) || IsMethod(name, static_cast<int>(strlen(name)))) {
    why = "an alias or method name is no attribute";
  } else if (value == nullptr || *value == '\0') {
    why = "the item is empty";
  } else if (strchr(value, ',') != nullptr) {
    why = "the item holds a comma (give one item at a time)";
  } else if (strchr(" \t", value[0]) != nullptr || strchr(" \t", value[strlen(value) - 1]) != nullptr) {
    why = "the item begins or ends with a blank";
  }
  if (why == nullptr) return 0;
  QDerror(kMisc, "Cannot edit '%s' with the item '%s': %s\n", name ? name : "(null)", value ? value : "(null)", why);
  return 254;
}

std::string WithoutItem(char **items, const char *value, bool *found) {
  std::string out;
  for (char **item = items; *item != nullptr; ++item) {
    if (strcmp(*item, value) == 0) {
      *found = true;
      continue;
    }
    if (!out.empty()) out.push_back(',');
    out += *item;
  }
  return out;
}

struct CommaListFree {
  void operator()(char **list) const { DestroyCommaList(list); }
};
using Items = std::unique_ptr<char *, CommaListFree>;

}  // namespace

namespace qdobjects {

namespace {

// The value as the table holds it, whatever its length: from the cache
// while it is on, else from the table file under its lock.
bool TableValue(const char *alias, const char *name, std::string *value) {
  char *a;
  char *n;
  char *v;
  if (qdcache_on != 0) {
    oce *e = QDcache_find_alias(alias);
    if (e == nullptr) return false;
    int st = ReferenceKeywordInList(e->objptr->attributes, name, &n, &v);
    if (st != KWL_OK && st != KWL_WARN) st = ReferenceKeywordInList(e->objptr->methods, name, &n, &v);
    if (st != KWL_OK && st != KWL_WARN) return false;
    *value = v;
    return true;
  }
  if (QDlock_fp(QDREAD) != 0) return false;
  bool found = false;
  if (ResetDeviceTabFile() != -1) {
    int st;
    while (!found && ((st = ReferenceNextAttribute(&a, &n, &v)) == KWL_OK || st == KWL_WARN)) {
      found = strcmp(a, alias) == 0 && strcmp(n, name) == 0;
      if (found) *value = v;
    }
  }
  QDunlock_fp(QDREAD);
  return found;
}

}  // namespace

Read ReadValue(const char *module, const char *alias, const char *name, bool method, std::string *value) {
  NameValue *one = method ? QDgetmethod(alias, name) : QDgetattr(alias, name);
  Read read = one != nullptr ? Read::kFound : Read::kAbsent;
  *value = one != nullptr ? one->value : "";
  free(one);
  // Absent, or perhaps cut: the table tells.
  if ((read == Read::kFound && value->size() < QD_VALUE_MAX) || !TableValue(alias, name, value)) return read;
  if (value->size() <= QD_VALUE_MAX) return Read::kFound;
  QDerror(module, "Value of '%s' of %s is longer than %d characters: left as it is\n", name, alias, QD_VALUE_MAX);
  return Read::kUnreadable;
}

int PutOne(const char *alias, const char *name, const std::string &value) {
  KeywordList *list = CreateKeywordList();
  if (list == nullptr || AddKeywordToList(list, name, value.c_str()) != 0) {
    DestroyKeywordList(list);
    return -1;
  }
  int rc = QDput(alias, list);
  DestroyKeywordList(list);
  return rc;
}

}  // namespace qdobjects

using qdobjects::Read;

extern "C" int QDuniqid(char *alias, const char *prefix) {
  if (prefix == nullptr || *prefix == '\0') {
    QDtrace(3, kMisc, "QDuniqid: Zero-length prefix is invalid");
    return 254;
  }
  for (int n = 0; n <= 999; ++n) {
    snprintf(alias, QD_UNIQID_SIZE, "%.11s%d", prefix, n);
    if (QDcheck(alias) != 0) return 0;
  }
  alias[0] = '\0';
  QDtrace(3, kMisc, "QDuniqid: every alias from %.11s0 to %.11s999 is taken", prefix, prefix);
  return 255;
}

extern "C" int QDaddattributevalue(const char *alias, const char *name, const char *value) {
  QDtrace(8, kMisc, "QDaddattributevalue ( %s, %s, %s )", alias, name, value);
  if (int rc = RefuseItem(name, value)) return rc;
  std::string current;
  Read read = qdobjects::ReadValue(kMisc, alias, name, false, &current);
  if (read == Read::kUnreadable) return -1;
  std::string updated;
  if (read == Read::kFound) {
    QDtrace(8, kMisc, "Got the attribute,  Name=%s, Value=%s", name, current.c_str());
    if (IsInCommaList(value, current.c_str()) == 1) {
      QDtrace(8, kMisc, "Is in the comma list");
    } else {
      QDtrace(8, kMisc, "Not in the comma list");
      updated = current + "," + value;
    }
  } else {
    QDtrace(8, kMisc, "Attribute does not exist");
    updated = value;
  }
  if (!updated.empty()) {
    if (updated.size() > QD_VALUE_MAX) {
      QDerror(kMisc, "Value of '%s' would pass %d characters: '%s' not added\n", name, QD_VALUE_MAX, value);
      return 254;
    }
    QDtrace(8, kMisc, "Add the new/updated Attribute");
    qdobjects::PutOne(alias, name, updated);
    QDtrace(8, kMisc, "Deallocate space");
  }
  QDtrace(8, kMisc, "Return ");
  return 0;
}

extern "C" int QDdelattributevalue(const char *alias, const char *name, const char *value) {
  QDtrace(8, kMisc, "QDdelattributevalue ( %s, %s, %s )", alias, name, value);
  if (int rc = RefuseItem(name, value)) return rc;
  std::string current;
  Read read = qdobjects::ReadValue(kMisc, alias, name, false, &current);
  if (read == Read::kUnreadable) return -1;
  if (read == Read::kAbsent) {
    QDtrace(8, kMisc, "Attribute does not exist");
  } else {
    QDtrace(8, kMisc, "Got the attribute,  Name=%s, Value=%s", name, current.c_str());
    if (IsInCommaList(value, current.c_str()) != 1) {
      QDtrace(8, kMisc, "Not in the comma list: %s", current.c_str());
    } else {
      QDtrace(8, kMisc, "Is in the comma list");
      Items items(ParseCommaList(current.c_str()));
      if (items == nullptr) return -1;
      bool found = false;
      std::string updated = WithoutItem(items.get(), value, &found);
      QDtrace(8, kMisc, "new_comma_list:%s:", updated.c_str());
      QDtrace(8, kMisc, "Add the new/updated Attribute");
      qdobjects::PutOne(alias, name, updated);
      QDtrace(8, kMisc, "Deallocate space");
    }
  }
  QDtrace(8, kMisc, "Return from QDdelattributevalue");
  return 0;
}

extern "C" int DelEntryFmCommaList(const char *alias, const char *name, const char *value) {
  const char kModule[] = "DelEntryFmCommaList";
  std::string current;
  Read read = qdobjects::ReadValue(kModule, alias, name, false, &current);
  if (read == Read::kAbsent) return 2;
  if (read == Read::kUnreadable) return 1;
  QD_IO_TRACE(kModule, "%s=%s\n", name, current.c_str());
  Items items(ParseCommaList(current.c_str()));
  if (items == nullptr) return 2;
  bool found = false;
  std::string updated = WithoutItem(items.get(), value != nullptr ? value : "", &found);
  if (found) QD_IO_TRACE(kModule, "Removing %s=%s\n", name, value);
  bool failed = qdobjects::PutOne(alias, name, updated) == -1;
  return failed ? 1 : found ? 0 : 2;
}

extern "C" void AddAliasListToList(AliasList **first, AliasList *second) {
  const char kModule[] = "AddAliasListToList";
  QD_IO_TRACE(kModule, ":");
  if (first == nullptr) return;
  if (*first == nullptr) {
    QD_IO_TRACE(kModule, "New list, set List1=List2");
    *first = second;
    return;
  }
  QD_IO_TRACE(kModule, "list exists, add to end");
  AliasList *last = *first;
  for (;; last = last->next) {
    if (last == second) {  // linking it again would close a loop
      QD_IO_TRACE(kModule, "List2 is part of List1 already");
      return;
    }
    if (last->next == nullptr) break;
  }
  last->next = second;
}

extern "C" AliasList *DelAliasFmList(AliasList **head, AliasList *node) {
  const char kModule[] = "DelAliasFmList";
  if (node == nullptr) {
    QD_IO_TRACE(kModule, "Alias2Delete is NULL");
    return nullptr;
  }
  AliasList *next = node->next;
  AliasList **link = head;
  while (link != nullptr && *link != nullptr && *link != node) link = &(*link)->next;
  if (link == nullptr || *link == nullptr) {
    QD_IO_TRACE(kModule, "Invalid Alias to Delete %s", node->alias);
    return next;
  }
  *link = next;
  free(node->alias);
  free(node);
  return next;
}
