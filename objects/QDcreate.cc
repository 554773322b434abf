// Objects made from classes: a new object with an alias of its own and the
// caller's attributes, or an existing one with updates, to which the rows
// of a class are applied. The class table in force lives here.
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "meta_edit.h"

extern "C" {
const QDclass_tbl_t *QD_class_tbl = nullptr;
QDclass_tbl_t QD_current_class_tbl[2] = {{nullptr, nullptr}, {nullptr, nullptr}};
}

namespace {

const char kModule[] = "QDcreate";

bool Tracing8() { return vcel_explicit_level == 8 || vcel_verbose_level >= 8; }
unsigned long Address(const void *p) { return reinterpret_cast<unsigned long>(p); }
const char *Text(const char *s) { return s != nullptr ? s : "(null)"; }

void Install(const char *class_name, const QDclass_entry_t *rows) {
  QD_current_class_tbl[0] = {class_name, rows};
  QD_current_class_tbl[1] = {nullptr, nullptr};
  QD_class_tbl = QD_current_class_tbl;
}

const QDclass_entry_t *RowsOf(const char *class_name) {
  if (QD_class_tbl == nullptr || class_name == nullptr) return nullptr;
  for (const QDclass_tbl_t *c = QD_class_tbl; c->class_name != nullptr; ++c)
    if (strcmp(c->class_name, class_name) == 0) return c->rows;
  return nullptr;
}

void ShowObject(const ObjectRecord *object) {
  QDtrace(8, kModule, "Returning object address '%lu'", Address(object));
  QDtrace(8, kModule, "NewAlias = '%s'", Text(object->alias));
  if (Tracing8()) {
    DisplayKeywordList(object->attributes);
    DisplayKeywordList(object->methods);
  }
}

// Whether the value the row leaves in the attribute fits a value.
bool MultiFits(KeywordList *attributes, const QDclass_entry_t &row) {
  if (strchr(row.value, ',') != nullptr) {
    QDtrace(3, kModule, "Item '%s' of '%s' holds a comma: row skipped", row.value, row.keyword);
    return false;
  }
  char *kw;
  char *current;
  int st = ReferenceKeywordInList(attributes, row.keyword, &kw, &current);
  if (st != KWL_OK && st != KWL_WARN) return true;  // the row's value alone, checked already
  size_t joined = (*current != '\0' ? strlen(current) + 1 : 0) + strlen(row.value);
  if (joined <= QD_VALUE_MAX || IsInCommaList(row.value, current) == 1) return true;
  QDtrace(3, kModule, "Value of '%s' would pass %d characters: '%s' not added", row.keyword, QD_VALUE_MAX,
          row.value);
  return false;
}

void ApplyRow(ObjectRecord *object, const QDclass_entry_t &row) {
  QDtrace(8, kModule, "class.flags & 0x11 = '%02x'", row.flags & 0x11);
  if (row.value == nullptr || strlen(row.value) > QD_VALUE_MAX) {
    QDtrace(3, kModule, "Value of '%s' is missing or longer than %d characters: row skipped", row.keyword,
            QD_VALUE_MAX);
    return;
  }
  char *kw;
  char *found;
  switch (row.flags & (QD_CLASS_METHOD | QD_CLASS_ADD)) {
    case 0: {
      QDtrace(8, kModule, "Add value as simple value attribute: %s", row.keyword);
      int st = ReferenceKeywordInList(object->attributes, row.keyword, &kw, &found);
      if (st == KWL_OK || st == KWL_WARN) {
        QDtrace(8, kModule, "Attribute '%s' overridden by caller", row.keyword);
      } else {
        QDtrace(8, kModule, "Attribute '%s' defaulted to '%s'", row.keyword, row.value);
        if (AddKeywordToList(object->attributes, row.keyword, row.value) != 0)
          QDtrace(3, kModule, "Cannot add attribute '%s'", row.keyword);
      }
      break;
    }
    case QD_CLASS_ADD:
      QDtrace(8, kModule, "Add value to multi-value list: %s", row.keyword);
      if (MultiFits(object->attributes, row)) AddValueToList(object->attributes, row.keyword, row.value);
      break;
    case QD_CLASS_METHOD:
      QDtrace(8, kModule, "Update simple method attribute: %s", row.keyword);
      RemoveKeywordFmList(object->methods, row.keyword);
      if (AddKeywordToList(object->methods, row.keyword, row.value) == 0)
        QDtrace(8, kModule, "Method '%s' defaulted to '%s'", row.keyword, row.value);
      else
        QDtrace(3, kModule, "Cannot get storage for method '%s'", row.keyword);
      break;
    default:
      QDtrace(8, kModule, "Update method in meta-method list: %s", row.keyword);
      QD_add_method_to_list(object->methods, &row);
  }
}

}  // namespace

extern "C" {

void QD_classify_object(ObjectRecord *object, const char *class_name) {
  QDtrace(8, kModule, "QD_classify_object( %lu, %s )", Address(object), Text(class_name));
  if (object == nullptr || object->attributes == nullptr || object->methods == nullptr) return;
  const QDclass_entry_t *rows = RowsOf(class_name);
  for (const QDclass_entry_t *row = rows; row != nullptr && row->keyword != nullptr; ++row) ApplyRow(object, *row);
}

int QD_add_method_to_list(KeywordList *methods, const QDclass_entry_t *row) {
  if (methods == nullptr || row == nullptr || row->keyword == nullptr) return 254;
  QDtrace(8, kModule, "method: %s  index: %d  m_flags: 0x%02x", Text(row->value), row->index, row->mflags);
  char *kw;
  char *found = nullptr;
  if (ReferenceKeywordInList(methods, row->keyword, &kw, &found) != 0) {
    QDtrace(8, kModule, "Add method to list with this initial value");
    found = nullptr;
  } else {
    QDtrace(8, kModule, "Method found in method list");
  }
  std::string_view original = found != nullptr ? found : "";  // the list's own, unchanged until the merge
  QDtrace(8, kModule, "Original method: '%s'", original.data());
  std::string merged;
  if (qdmeta::CatMetaMethod(original, row->value, row->index, row->mflags, &merged) != qdmeta::Edit::kDone)
    return 254;
  QDtrace(8, kModule, "New method:      '%s'", merged.c_str());
  RemoveKeywordFmList(methods, row->keyword);
  return AddKeywordToList(methods, row->keyword, merged.c_str());
}

ObjectRecord *QDcreate(const char *class_name, const char *alias, KeywordList *attributes) {
  QDtrace(8, kModule, "QDcreate()");
  if (Tracing8() && attributes != nullptr) DisplayKeywordList(attributes);
  char made[QD_UNIQID_SIZE];
  if (alias == nullptr) {
    if (QDuniqid(made, class_name) != 0) {
      QDtrace(3, kModule, "Cannot get unique alias for class '%s'", Text(class_name));
      return nullptr;
    }
    alias = made;
    QDtrace(8, kModule, "NewAlias Generated = '%s'", alias);
  } else {
    QDtrace(8, kModule, "NewAlias = '%s'", alias);
  }
  ObjectRecord *object = Create_object(nullptr, nullptr, nullptr);
  if (object == nullptr) {
    QDtrace(3, kModule, "Cannot get storage for object '%s'", alias);
    return nullptr;
  }
  size_t length = strlen(alias);
  object->alias = static_cast<char *>(QDmalloc(kModule, length + 1));
  if (object->alias == nullptr) {
    QDtrace(3, kModule, "Cannot get storage for alias '%s'", alias);
    QDfreeobj(object);
    return nullptr;
  }
  memcpy(object->alias, alias, length + 1);
  object->attributes = attributes != nullptr ? DuplicateKeywordList(attributes) : CreateKeywordList();
  object->methods = CreateKeywordList();
  if (object->attributes == nullptr || object->methods == nullptr) {
    QDtrace(3, kModule, "Cannot get storage for the lists of '%s'", alias);
    QDfreeobj(object);
    return nullptr;
  }
  QD_classify_object(object, class_name);
  ShowObject(object);
  return object;
}

ObjectRecord *QDcreate_fm_tbl(const char *class_name, const char *alias, KeywordList *attributes,
                              const QDclass_entry_t *rows) {
  Install(class_name, rows);
  return QDcreate(class_name, alias, attributes);
}

int QDupdate(const char *class_name, ObjectRecord *object, KeywordList *updates) {
  QDtrace(8, kModule, "QDupdate()");
  if (object == nullptr) {
    QDtrace(3, kModule, "Object parameter is NULL");
    return 254;
  }
  QDtrace(8, kModule, "Object->Alias = '%s'", Text(object->alias));
  if (int st = ValidKeywordList(updates)) {
    QDtrace(3, kModule, "Update keyword list parameter is invalid");
    return st;
  }
  if (Tracing8()) DisplayKeywordList(updates);
  if (object->attributes == nullptr) object->attributes = CreateKeywordList();
  if (object->methods == nullptr) object->methods = CreateKeywordList();
  updates->kwl_cursor = updates->kwl_first;
  char *kw;
  char *value;
  int st;
  while ((st = ReferenceNextKeywordInList(updates, &kw, &value)) == KWL_OK || st == KWL_WARN) {
    RemoveKeywordFmList(object->attributes, kw);
    AddKeywordToList(object->attributes, kw, value);
  }
  QD_classify_object(object, class_name);
  ShowObject(object);
  return 0;
}

int QDupdate_fm_tbl(const char *class_name, ObjectRecord *object, KeywordList *updates,
                    const QDclass_entry_t *rows) {
  Install(class_name, rows);
  return QDupdate(class_name, object, updates);
}

}  // extern "C"
