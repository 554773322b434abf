// Destroy: taking an object, and what it contains, out of service through
// its own methods or QDdelete (the walk is in destroy_walk.cc), and the
// merging of result lists.
#include <cstring>

#include "destroy_walk.h"

namespace {

// The library's actor: every act is carried out.
class Performer : public qd::DestroyActor {
 public:
  KeywordList *Perform(const char *alias, const char *method) override { return QDperform(alias, method, nullptr); }
  int Delete(const char *alias) override { return QDdelete(alias); }
  void DoneWithCache() override {
    if (QDcache_flush() != 0) QDtrace(3, "QDdestroy", "Cannot write the cache back: the table is unchanged");
  }
};

}  // namespace

extern "C" {

KeywordList *QDdestroy(const char *alias, unsigned char flags) {
  Performer actor;
  return qd::Destroy(alias, flags, &actor);
}

KeywordList *QD_destroy_object(ObjectRecord *object, unsigned char flags) {
  Performer actor;
  return qd::DestroyObject(object, flags, &actor);
}

void QD_destroy_parse(KeywordList *result, KeywordList *sub) {
  if (sub == nullptr) return;
  sub->kwl_cursor = sub->kwl_first;
  char *kw;
  char *value;
  int st;
  while (result != nullptr && ((st = ReferenceNextKeywordInList(sub, &kw, &value)) == KWL_OK || st == KWL_WARN)) {
    switch (qd::MergeOf(kw)) {
      case qd::Merge::kAliases:
        AddCommaValueToList(result, kw, value);
        break;
      case qd::Merge::kCode:
        if (strcmp(value, "0") != 0) UpdateKeywordInList(result, QD_ERRORCODE, value);
        break;
      case qd::Merge::kAppend:
        AddKeywordToList(result, kw, value);
        break;
    }
  }
  DestroyKeywordList(sub);
}

void AddCommaValueToList(KeywordList *list, const char *keyword, const char *value) {
  if (list == nullptr || keyword == nullptr || value == nullptr) return;
  CommaList items = ParseCommaList(value);
  for (char **item = items; item != nullptr && *item != nullptr; ++item) AddValueToList(list, keyword, *item);
  DestroyCommaList(items);
}

}  // extern "C"
