// Containment: the chain of objects an object holds, built from its
// ObjContains attribute, one level deep or through the whole tree.
//
// The whole-tree walk is the recursion "fill the chain of each object found"
// carried out with a stack of its own: each level stands for one call in
// progress and keeps its place in the ObjContains items, so a tree of any
// depth needs no more C stack than a flat one, while every call's steps
// (cache, lock, traces, result) happen in the order the recursion has them.
// An object whose alias is already on the path from the top is put in its
// chain but not followed: a tree that contains itself still ends.
#include <cstdlib>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "aliases.h"

namespace {

const char kModule[] = "QDcontain";

// A lookup counts only when it returns 0: KWL_WARN reads as absent here.
bool Lookup(KeywordList *list, const char *keyword, char **value) {
  char *kw = nullptr;
  return list != nullptr && ReferenceKeywordInList(list, keyword, &kw, value) == KWL_OK;
}

bool Tracing8() { return vcel_explicit_level == 8 || vcel_verbose_level >= 8; }

void TraceList(KeywordList *list) {
  if (list == nullptr) return;
  list->kwl_cursor = list->kwl_first;
  char *kw;
  char *value;
  int st;
  while ((st = ReferenceNextKeywordInList(list, &kw, &value)) == KWL_OK || st == KWL_WARN)
    QDtrace(8, "QDObjectListDump", "%s=%s", kw, value);
}

void FreeChain(ContainedNode *chain) {
  while (chain != nullptr) {
    ContainedNode *next = chain->next;
    QDfreeobj(chain->object);
    free(chain);
    chain = next;
  }
}

// One call of QDget_contained_objects in progress.
struct Level {
  ObjectRecord *object = nullptr;
  CommaList items = nullptr;     // the ObjContains items
  size_t item = 0;               // the next one
  CommaList indirect = nullptr;  // aliases of an indirect item being taken
  size_t member = 0;
  ContainedNode *chain = nullptr;  // built so far, newest first
  bool locked = false;             // a read lock of this call's own
};

// Steps 2 to 4 of a call: 0 when its walk starts; otherwise the call's
// result (2 or 3), all it took already given back.
int Open(Level *level) {
  if (QDcache_load() != 0) {
    QDtrace(5, kModule, "Cannot cache object table");
    if (QDlock(QDREAD) != 0) {
      QDtrace(3, kModule, "Cannot lock object table for writing");
      return 2;
    }
    level->locked = true;
  }
  char *value = nullptr;
  if (!Lookup(level->object->attributes, "ObjContains", &value)) {
    QDtrace(6, kModule, "No ObjContains attribute in object");
    if (level->locked) QDunlock(QDREAD);
    return 3;
  }
  level->items = ParseCommaList(value);  // NULL (no memory) walks as no items
  return 0;
}

// The next contained object of the level, fetched; nullptr when its items
// are used up.
ObjectRecord *Next(Level *level, unsigned char flags) {
  for (;;) {
    if (level->indirect != nullptr) {
      while (const char *alias = level->indirect[level->member]) {
        ++level->member;
        if (ObjectRecord *found = QDgetobj(alias)) return found;  // no object: skipped
      }
      DestroyCommaList(level->indirect);
      level->indirect = nullptr;
    }
    if (level->items == nullptr || level->items[level->item] == nullptr) return nullptr;
    const char *item = level->items[level->item++];
    if (ObjectRecord *found = qd::CheckedObject(item)) return found;
    char *value = nullptr;
    if ((flags & QDEXTENDED) != 0 && Lookup(level->object->attributes, item, &value)) {
      level->indirect = ParseCommaList(value);
      level->member = 0;
    }
  }
}

// Step 5: the chain becomes the object's; the call's result.
int Close(Level *level) {
  DestroyCommaList(level->items);
  FreeChain(level->object->contained);  // a chain filled before is replaced
  level->object->contained = level->chain;
  if (level->locked) QDunlock(QDREAD);
  return level->chain != nullptr ? 0 : 3;
}

// The aliases of the objects whose calls are in progress.
class Path {
 public:
  bool Has(const char *alias) const { return alias != nullptr && on_.count(alias) != 0; }
  void Enter(const ObjectRecord *o) {
    if (o->alias != nullptr) on_.insert(o->alias);
  }
  void Leave(const ObjectRecord *o) {
    if (o->alias != nullptr) on_.erase(o->alias);
  }

 private:
  std::unordered_set<std::string_view> on_;  // views of the objects' own alias strings
};

}  // namespace

extern "C" {

int QDget_contained_objects(ObjectRecord *object, unsigned char flags) {
  if ((flags & (QDOBJECT | QDCONTAINS)) == 0) flags |= QDOBJECT;
  if ((flags & QDOBJECT) != 0 && (flags & QDCONTAINS) != 0) {
    QDtrace(3, kModule, "QDget_contained_objects(QDOBJECT|QDCONTAINS) is invalid");
    return 1;
  }
  if (object == nullptr) {
    QDtrace(6, kModule, "No ObjContains attribute in object");
    return 3;
  }
  std::vector<Level> stack(1);
  stack[0].object = object;
  if (int rc = Open(&stack[0])) return rc;
  Path path;
  path.Enter(object);
  int result = 3;
  while (!stack.empty()) {
    Level &level = stack.back();
    ObjectRecord *found = Next(&level, flags);
    if (found == nullptr) {
      result = Close(&level);  // the last one closed is the caller's
      path.Leave(level.object);
      stack.pop_back();
      continue;
    }
    ContainedNode *node = QDAddObjectToList(level.chain, found);
    if (node == nullptr) {
      // No memory for a node: the chain is lost, the walk carries on.
      FreeChain(level.chain);
      QDfreeobj(found);
      level.chain = nullptr;
      continue;
    }
    level.chain = node;
    if ((flags & QDCONTAINS) == 0) continue;
    if (path.Has(found->alias)) {
      QDtrace(4, kModule, "'%s' is already on the containment path: not followed", found->alias);
      continue;
    }
    Level inner;
    inner.object = found;
    if (Open(&inner) != 0) continue;  // a nested call's result is not used
    path.Enter(found);
    stack.push_back(inner);
  }
  return result;
}

ContainedNode *QDAddObjectToList(ContainedNode *chain, ObjectRecord *object) {
  if (object == nullptr) return chain;
  QDtrace(8, "QDAddObjectToList", "%lu (%s)", reinterpret_cast<unsigned long>(object),
          object->alias != nullptr ? object->alias : "(null)");
  auto *node = static_cast<ContainedNode *>(QDmalloc(kModule, sizeof(ContainedNode)));
  if (node == nullptr) {
    QDerror(kModule, "QDmalloc failed for NewItem");
    return nullptr;
  }
  node->object = object;
  node->next = chain;
  if (Tracing8()) QDObjectListDump(chain);
  return node;
}

void QDObjectListDump(ContainedNode *chain) {
  QDtrace(8, "QDObjectListDump", "dump of current list:");
  for (ContainedNode *node = chain; node != nullptr; node = node->next) {
    ObjectRecord *o = node->object;
    if (o == nullptr) continue;
    QDtrace(8, "QDObjectListDump", "alias=%s", o->alias != nullptr ? o->alias : "(null)");
    TraceList(o->attributes);
    TraceList(o->methods);
  }
}

int QDexec_on_contained(void) { return 0; }

}  // extern "C"
