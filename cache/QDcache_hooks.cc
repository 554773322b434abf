// The hooks through which queries and updates use the cache while it is on.
#include <cstring>

#include "aliases.h"
#include "cache_state.h"
#include "front.h"

using qdcache::Count;
using qdcache::kModule;

namespace {

bool Stamping() { return QDtimestamp.tm_mday != 0; }

// Blanks every byte outside 32 to 126 (bytes from 128 up included), in place.
void Clean(char *value) {
  for (char *p = value; *p; ++p)
    if (static_cast<signed char>(*p) < 32 || *p == 127) *p = ' ';
}

// Returns false when the entry has no such stamp (and nothing was changed).
bool SetStampAttr(oce *entry, const struct tm &stamp, const char *keyword) {
  if (stamp.tm_mday == 0) return false;
  KeywordList *attrs = entry->objptr->attributes;
  RemoveKeywordFmList(attrs, keyword);
  char text[32];
  QDtm2value(stamp, text);
  AddKeywordToList(attrs, keyword, text);
  return true;
}

void TraceStamped(const oce *entry) {
  QDtrace(8, kModule, "QDcache_set_accesstime_attr:  object '%s' stamped", entry->objptr->alias);
}

}  // namespace

namespace qdcache {

bool AccessStampText(const oce *entry, char text[32]) {
  if (entry->accesstime.tm_mday == 0) return false;
  QDtm2value(entry->accesstime, text);
  TraceStamped(entry);
  return true;
}

}  // namespace qdcache

extern "C" {

void QDcache_touch_obj(oce *entry) {
  entry->status |= OCE_ACTIVE;
  if (!Stamping()) {
    QDtrace(8, kModule, "Timestamping off");
    return;
  }
  QDtrace(8, kModule, "Set accesstime to '%s'", QDstampstring);
  entry->accesstime = QDtimestamp;
}

void QDcache_set_accesstime_attr(oce *entry) {
  if (SetStampAttr(entry, entry->accesstime, "ObjTimestamp")) TraceStamped(entry);
}

void QDcache_set_modifytime_attr(oce *entry) {
  if (SetStampAttr(entry, entry->modifytime, "ObjModifyTime"))
    QDtrace(8, kModule, "QDcache_set_modifytime_attr:  object '%s' modified", entry->objptr->alias);
}

void QDcache_update_obj(oce *entry) {
  if ((entry->status & OCE_UPDATED) == 0) {
    QDtrace(8, kModule, "Object '%s' modified, archive old object first", entry->objptr->alias);
    QD_archive_object(entry->objptr);
  }
  entry->status |= OCE_UPDATED;
  entry->modifytime = QDtimestamp;
  QDcache_set_modifytime_attr(entry);
  QDcache_touch_obj(entry);
}

int QDcache_hook_UnitProp(const char *alias, const char *name, char *value) {
  Count(qdcache::kHookUnitProp);
  QD_TRACE(8, kModule, "QDcache_UnitProp '%s', '%s'", alias, name);
  oce *e = QDcache_find_alias(alias);
  if (e == nullptr) {
    QD_TRACE(8, kModule, "QDcache_UnitProp '%s', not found\n", alias);
    return -1;
  }
  const char *found;
  if ((found = qdcache::ValueInList(e->objptr->attributes, name)) != nullptr) {
    QD_TRACE(8, kModule, "QDcache_UnitProp '%s', '%s', Attributes value is '%s'", alias, name, found);
  } else if ((found = qdcache::ValueInList(e->objptr->methods, name)) != nullptr) {
    QD_TRACE(8, kModule, "QDcache_UnitProp '%s', '%s', Methods value '%s'", alias, name, found);
  } else {
    QD_TRACE(8, kModule, "QDcache_UnitProp '%s', '%s' not found\n", alias, name);
    return -1;
  }
  // Values in the cache come from the table, which allows longer ones than
  // the record holds: those are cut at the record's size, never past it.
  size_t n = strnlen(found, QD_VALUE_MAX);
  memcpy(value, found, n);
  value[n] = '\0';
  return 0;
}

int QDcache_hook_DevAllAttr(const char *alias, int which, KeywordList *result) {
  Count(qdcache::kHookDevAllAttr);
  QDtrace(8, kModule, "QDcache_DevAllAttr '%s', ParseType %d", alias, which);
  oce *e = QDcache_find_alias(alias);
  if (e == nullptr) {
    QDtrace(8, kModule, "QDcache_DevAllAttr '%s', not found\n", alias);
    return -1;
  }
  QDtrace(8, kModule, "QDcache_DevAllAttr '%s', found alias", alias);
  KeywordList *list = which != 0 ? e->objptr->methods : e->objptr->attributes;
  list->kwl_cursor = list->kwl_first;
  char *kw;
  char *value;
  int st;
  while ((st = ReferenceNextKeywordInList(list, &kw, &value)) == KWL_OK || st == KWL_WARN)
    if (st == KWL_OK && *value != '\0') AddKeywordToList(result, kw, value);
  return 0;
}

int QDcache_hook_QDLput(const char *alias, KeywordList *list) {
  Count(qdcache::kHookQDLput);
  QDtrace(8, kModule, "QDcache_Lput '%s'", alias);
  if (list != nullptr) list->kwl_cursor = list->kwl_first;
  oce *e = QDcache_find_alias(alias);
  if (e == nullptr) {
    QDtrace(8, kModule, "QDcache_Lput '%s', adding alias", alias);
    KeywordList *pairs = list != nullptr ? list : CreateKeywordList();
    QDcache_addalias(alias, pairs, OCE_ACTIVE | OCE_UPDATED);
    if (pairs != list) DestroyKeywordList(pairs);
    return 0;
  }
  QDtrace(8, kModule, "QDcache_Lput '%s', found alias", alias);
  QDcache_touch_obj(e);
  bool changed = false;
  char *kw;
  char *value;
  while (list != nullptr && ReferenceNextKeywordInList(list, &kw, &value) == KWL_OK) {
    Clean(value);
    ObjectRecord *o = e->objptr;
    char *name;
    char *stored;
    bool found = ReferenceKeywordInList(o->methods, kw, &name, &stored) == 0 ||
                 ReferenceKeywordInList(o->attributes, kw, &name, &stored) == 0;
    if (!found) {
      QDtrace(8, kModule, "New object attr/method detected: '%s'", kw);
      changed = true;
    } else if (!changed && strcmp(stored, value) != 0) {
      QDtrace(8, kModule, "New object attr/method value detected: '%s'", value);
      changed = true;
    }
    if (changed) {
      QDcache_update_obj(e);
      KeywordList *into = IsMethod(kw, static_cast<int>(strlen(kw))) ? o->methods : o->attributes;
      RemoveKeywordFmList(into, kw);
      AddKeywordToList(into, kw, value);
      QDtrace(8, kModule, "Data updated for object: '%s'", alias);
    }
  }
  return 0;
}

int QDcache_hook_QDdelete(const char *alias) {
  Count(qdcache::kHookQDdelete);
  QDtrace(8, kModule, "QDcache_delete '%s'", alias);
  oce *e = QDcache_find_alias(alias);
  if (e == nullptr) {
    QDtrace(8, kModule, "Alias to delete not found");
    return 3;
  }
  QDtrace(8, kModule, "Deleting alias");
  qdcache::AttributeWalk &walk = qdcache::Walk();
  if (walk.entry == e) walk = qdcache::AttributeWalk();  // the search cursor must not keep it
  QDcache_rmobj(e);
  return 0;
}

int check_criteria(KeywordList *list, KeywordList *criteria) {
  list->kwl_cursor = list->kwl_first;
  int count = 0;
  char *kw;
  char *value;
  int st;
  while ((st = ReferenceNextKeywordInList(list, &kw, &value)) == KWL_OK || st == KWL_WARN) {
    criteria->kwl_cursor = criteria->kwl_first;
    int r = MeetCriteria(criteria, kw, value);
    if (r == 1)
      ++count;
    else if (r != 0)
      return -1;
  }
  return count;
}

AliasList *QDcache_hook_QDmatchalias(KeywordList *criteria, AliasList *aliases) {
  Count(qdcache::kHookQDmatchalias);
  QDtrace(8, kModule, "QDcache_matchalias");
  if (vcel_verbose_level >= 8 || vcel_explicit_level == 8) DumpKeywordList(criteria);
  int wanted = NumberOfKeywords(criteria);
  AliasList *result = nullptr;
  for (AliasList *n = aliases; n != nullptr; n = n->next) {
    oce *e = QDcache_find_alias(n->alias);
    if (e != nullptr && check_criteria(e->objptr->attributes, criteria) == wanted) {
      AliasList *added = AddAliasToList(n, result);
      if (added == nullptr) {
        QDFreeAliasList(result);
        return nullptr;
      }
      result = added;
    }
  }
  return result;
}

void QDcache_hook_GetAllAliases(AliasList **head, KeywordList *criteria) {
  Count(qdcache::kHookGetAllAliases);
  QDtrace(8, kModule, "QDcache_GetAllAliases");
  if (criteria != nullptr) {
    QDtrace(4, kModule, "QDcache_GetAllAliases: called with non-NULL Criteria");
    return;
  }
  AliasAppender out{head, nullptr};
  for (AliasList *n = *head; n != nullptr; n = n->next) out.tail = n;
  for (oce *e = qdcache_ocp->next; e != qdcache_ocp; e = e->next)
    if (e->objptr != nullptr) AddAnAliasToList(&out, e->objptr->alias);
}

void QDcache_hook_GetSpecificAliases(AliasList **head, KeywordList *criteria) {
  Count(qdcache::kHookGetSpecificAliases);
  QDtrace(8, kModule, "QDcache_GetSpecificAliases");
  bool omit_stale = Stamping() && qd_stale == 0;
  if (Stamping()) QDtrace(8, kModule, "Timestamping on; stale objects will be omitted");
  int wanted = NumberOfKeywords(criteria);
  for (oce *e = qdcache_ocp->next; e != qdcache_ocp; e = e->next) {
    if (e->objptr == nullptr) continue;
    if ((e->status & OCE_ACTIVE) == 0 && omit_stale) {
      QDtrace(8, kModule, "QDcache_GetSpecificAliases: '%s' stale; omit", e->objptr->alias);
      continue;
    }
    int a = check_criteria(e->objptr->attributes, criteria);
    int m = check_criteria(e->objptr->methods, criteria);
    if (a == -1 || m == -1 || a + m != wanted) continue;
    AliasList node{e->objptr->alias, nullptr};
    if (AliasList *added = AddAliasToList(&node, *head)) *head = added;
  }
}

int QDcache_alias_status(const char *alias) {
  oce *e = QDcache_find_alias(alias);
  return e != nullptr ? e->status : 0;
}

int QDcache_check_duplicates(KeywordList *list) {
  list->kwl_cursor = list->kwl_first;
  char *kw;
  char *value;
  while (ReferenceNextKeywordInList(list, &kw, &value) == KWL_OK) {
    QDtrace(8, kModule, "QDcache_check_duplicates: chk '%s'", kw);
    if (report_add_unique(kw, nullptr) != 0) {
      QDtrace(3, kModule, "QDcache_check_duplicates:  duplicate attribute '%s' not allowed", kw);
      report_free();
      return -1;
    }
  }
  report_free();
  return 0;
}

int CachedReferenceNextAttribute(char **alias, char **name, char **value) {
  if (qdcache_on == 0) {
    QDtrace(5, kModule, "Cache not currently loaded");
    return ReferenceNextAttribute(alias, name, value);
  }
  Count(qdcache::kCachedReferenceNextAttribute);
  // A search calls this once for every attribute in the cache.
  const bool trace = qd::Tracing(8);
  if (trace) QDtrace(8, kModule, "CachedReferenceNextAttribute");
  qdcache::AttributeWalk &walk = qdcache::Walk();
  for (;;) {
    if (walk.list != nullptr) {
      char *kw;
      char *v;
      int st = ReferenceNextKeywordInList(walk.list, &kw, &v);
      if (st == KWL_OK || st == KWL_WARN) {
        *alias = walk.object->alias;
        *name = kw;
        *value = v;
        if (trace) {
          QDtrace(8, kModule, "objptr=%lu", reinterpret_cast<unsigned long>(walk.object));
          QDtrace(8, kModule, "alias=%lu", reinterpret_cast<unsigned long>(walk.object->alias));
          QDtrace(8, kModule, "returning alias=%s,attribute=%s,value=%s", *alias, kw, v);
        }
        return 0;
      }
      if (!walk.methods) {
        walk.methods = true;
        walk.list = walk.object->methods;
        walk.list->kwl_cursor = walk.list->kwl_first;
        continue;
      }
    }
    oce *next = walk.entry != nullptr ? walk.entry->next : qdcache_ocp->next;
    if (next == qdcache_ocp) {
      walk = qdcache::AttributeWalk();
      QDtrace(8, kModule, "End-of-cache reached");
      return KWL_END;
    }
    if (trace)
      QDtrace(8, kModule, "ocp=%lu,objptr=%lu", reinterpret_cast<unsigned long>(next),
              reinterpret_cast<unsigned long>(next->objptr));
    if (next->objptr == nullptr) {
      QDtrace(8, kModule, "ocp or objptr is NULL");
      walk = qdcache::AttributeWalk();
      return KWL_END;
    }
    walk.entry = next;
    walk.object = next->objptr;
    walk.methods = false;
    walk.list = walk.object->attributes;
    walk.list->kwl_cursor = walk.list->kwl_first;
  }
}

}  // extern "C"
