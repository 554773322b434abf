// Reading class files into class tables (the format: class_file.h).
#include "class_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "meta_edit.h"
#include "meta_grammar.h"
#include "qd_paths.h"

namespace qdclass {

namespace {

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

// The fields of one line; false with *why for a broken quote.
bool SplitFields(std::string_view line, std::vector<std::string> *fields, std::string *why) {
  fields->clear();
  size_t i = 0;
  for (;;) {
    while (i < line.size() && IsBlank(line[i])) ++i;
    if (i == line.size() || line[i] == '#') return true;
    std::string field;
    if (line[i] != '"') {
      while (i < line.size() && !IsBlank(line[i])) field.push_back(line[i++]);
    } else {
      for (++i;; ++i) {
        if (i == line.size()) {
          *why = "a quote is not closed";
          return false;
        }
        if (line[i] == '"') break;
        if (line[i] == '\\' && i + 1 < line.size()) ++i;
        field.push_back(line[i]);
      }
      if (++i < line.size() && !IsBlank(line[i])) {
        *why = "text follows a closing quote";
        return false;
      }
    }
    fields->push_back(std::move(field));
  }
}

bool IsMethodName(const std::string &name) { return IsMethod(name.c_str(), static_cast<int>(name.size())) != 0; }

const char *KeywordProblem(const std::string &keyword, unsigned char flags) {
  if (keyword.size() > QD_NAME_MAX) return "the keyword is longer than 32 characters";
  for (unsigned char c : keyword)
    if (c <= ' ' || c == '=' || c == 127) return "the keyword holds a blank, '=' or a control character";
  if (IsAlias(keyword.c_str(), static_cast<int>(keyword.size()))) return "an alias name is no attribute";
  bool method = (flags & QD_CLASS_METHOD) != 0;
  if (method != IsMethodName(keyword))
    return method ? "a method row needs a method name (one holding \"cmd\" or \"func\")"
                  : "an attribute row cannot take a method name (one holding \"cmd\" or \"func\")";
  if (flags == (QD_CLASS_METHOD | QD_CLASS_ADD)) return qdmeta::MethodProblem(keyword.c_str());
  return nullptr;
}

bool ReadIndex(const std::string &text, int *index) {
  if (text.empty() || text.size() > 2 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  *index = atoi(text.c_str());
  return true;
}

// The row of one line's fields, or the reason it is none.
const char *ReadRow(const std::vector<std::string> &f, Row *row) {
  static const struct {
    const char *kind;
    unsigned char flags;
  } kKinds[] = {{"default", 0}, {"multi", QD_CLASS_ADD}, {"method", QD_CLASS_METHOD},
                {"combined", QD_CLASS_METHOD | QD_CLASS_ADD}};
  const auto *kind = std::find_if(std::begin(kKinds), std::end(kKinds),
                                  [&](const auto &k) { return f[0] == k.kind; });
  if (kind == std::end(kKinds)) return "unknown kind (class, default, multi, method or combined)";
  bool combined = kind->flags == (QD_CLASS_METHOD | QD_CLASS_ADD);
  if (f.size() < 3) return "a row needs a kind, a keyword and a value";
  if (f.size() > (combined ? 5u : 3u))
    return combined ? "too many fields (KEYWORD ELEMENT [INDEX [OPERATORS]])" : "too many fields (quote a value with blanks)";
  row->flags = kind->flags;
  row->keyword = f[1];
  row->value = f[2];
  if (const char *why = KeywordProblem(row->keyword, row->flags)) return why;
  if (row->value.size() > QD_VALUE_MAX) return "the value is longer than 512 characters";
  if (kind->flags == QD_CLASS_ADD && (row->value.empty() || row->value.find(',') != std::string::npos))
    return "a multi-value item is one item: not empty, no comma";
  if (!combined) return nullptr;
  row->index = qdmeta::kDefaultIndex;
  if (f.size() > 3 && !ReadIndex(f[3], &row->index)) return "the index is not a number from 0 to 99";
  unsigned mask = 0;
  if (f.size() > 4 && !qdmeta::OperatorMask(f[4], &mask)) return "an operator is not one of u m ? - + x !";
  row->mflags = static_cast<unsigned char>(mask);
  return qdmeta::ElementProblem(row->value.c_str(), row->index, mask);
}

const char *ClassNameProblem(const std::vector<std::string> &f, const std::vector<Class> &classes) {
  if (f.size() != 2) return "a class line is \"class NAME\"";
  if (f[1].empty() || f[1].find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.") !=
                          std::string::npos)
    return "a class name is letters, digits, '_', '-' and '.'";
  for (const Class &c : classes)
    if (c.name == f[1]) return "the class is given twice";
  return nullptr;
}

}  // namespace

bool ParseClasses(std::string_view text, std::vector<Class> *classes, std::string *error) {
  classes->clear();
  std::vector<std::string> fields;
  std::string why;
  int number = 0;
  for (size_t start = 0; start < text.size(); ++number) {
    size_t end = text.find('\n', start);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(start, end - start);
    start = end + 1;
    const char *problem = nullptr;
    if (line.find('\0') != std::string_view::npos) {
      problem = "a NUL byte";
    } else if (!SplitFields(line, &fields, &why)) {
      problem = why.c_str();
    } else if (fields.empty()) {
      continue;
    } else if (fields[0] == "class") {
      problem = ClassNameProblem(fields, *classes);
      if (problem == nullptr) classes->push_back(Class{fields[1], {}});
    } else if (classes->empty()) {
      problem = "a row before the first class line";
    } else {
      Row row;
      problem = ReadRow(fields, &row);
      if (problem == nullptr) classes->back().rows.push_back(std::move(row));
    }
    if (problem != nullptr) {
      *error = std::to_string(number + 1) + ": " + problem;
      return false;
    }
  }
  return true;
}

}  // namespace qdclass

namespace {

char *Copy(const std::string &s) {
  auto *p = static_cast<char *>(malloc(s.size() + 1));
  if (p != nullptr) memcpy(p, s.c_str(), s.size() + 1);
  return p;
}

void Fail(char *error, size_t size, const std::string &what) {
  if (error != nullptr && size > 0) snprintf(error, size, "%s", what.c_str());
  QDerror("QDcreate", "%s\n", what.c_str());
}

// The C table of the classes: one calloc'd array per class and one for the
// table, every string malloc'd. NULL when memory runs out.
QDclass_tbl_t *Build(const std::vector<qdclass::Class> &classes) {
  auto *table = static_cast<QDclass_tbl_t *>(calloc(classes.size() + 1, sizeof(QDclass_tbl_t)));
  if (table == nullptr) return nullptr;
  for (size_t i = 0; i < classes.size(); ++i) {
    const auto &rows = classes[i].rows;
    auto *out = static_cast<QDclass_entry_t *>(calloc(rows.size() + 1, sizeof(QDclass_entry_t)));
    table[i].rows = out;
    table[i].class_name = Copy(classes[i].name);
    if (out == nullptr || table[i].class_name == nullptr) {
      QDfree_class_tbl(table);
      return nullptr;
    }
    for (size_t r = 0; r < rows.size(); ++r) {
      out[r].flags = rows[r].flags;
      out[r].index = rows[r].index;
      out[r].mflags = rows[r].mflags;
      out[r].value = Copy(rows[r].value);
      out[r].keyword = Copy(rows[r].keyword);  // a NULL keyword ends the rows
      if (out[r].keyword == nullptr || out[r].value == nullptr) {
        if (out[r].keyword == nullptr) free(const_cast<char *>(out[r].value));
        QDfree_class_tbl(table);
        return nullptr;
      }
    }
  }
  return table;
}

}  // namespace

extern "C" QDclass_tbl_t *QDread_class_file(const char *path, char *error, size_t size) {
  if (path == nullptr) path = QD_CLASS_PATH;
  std::string text;
  FILE *in = fopen(path, "rbe");
  bool read = in != nullptr;
  if (read) {
    char buffer[4096];
    while (size_t n = fread(buffer, 1, sizeof buffer, in)) text.append(buffer, n);
    read = ferror(in) == 0;
    fclose(in);
  }
  if (!read) {
    Fail(error, size, std::string(path) + ": cannot be read: " + strerror(errno));
    return nullptr;
  }
  std::vector<qdclass::Class> classes;
  std::string why;
  if (!qdclass::ParseClasses(text, &classes, &why)) {
    Fail(error, size, std::string(path) + ":" + why);
    return nullptr;
  }
  QDclass_tbl_t *table = Build(classes);
  if (table == nullptr) Fail(error, size, std::string(path) + ": out of memory");
  return table;
}

extern "C" void QDfree_class_tbl(QDclass_tbl_t *table) {
  if (table == nullptr) return;
  for (QDclass_tbl_t *c = table; c->class_name != nullptr || c->rows != nullptr; ++c) {
    if (QD_current_class_tbl[0].rows == c->rows && c->rows != nullptr) QD_current_class_tbl[0] = {nullptr, nullptr};
    for (QDclass_entry_t *row = const_cast<QDclass_entry_t *>(c->rows); row != nullptr && row->keyword != nullptr;
         ++row) {
      free(const_cast<char *>(row->keyword));
      free(const_cast<char *>(row->value));
    }
    free(const_cast<QDclass_entry_t *>(c->rows));
    free(const_cast<char *>(c->class_name));
  }
  if (QD_class_tbl == table || (QD_class_tbl == QD_current_class_tbl && QD_current_class_tbl[0].rows == nullptr))
    QD_class_tbl = nullptr;
  free(table);
}
