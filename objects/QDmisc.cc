// QDtrace: the one gate every trace line of the library passes. The level
// test comes before any formatting work.
#include <cstdarg>
#include <cstdlib>

#include "qd.h"

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
