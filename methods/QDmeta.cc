// Meta-method values: the operator table, the element grammar and the
// parse of a whole value into an ordered list of operators and references.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "meta_grammar.h"

extern "C" const meta_oper_t meta_oper_tbl[] = {
    {META_UNFORMATTED, 'u', META_KIND_PRE}, {META_MAND, 'm', META_KIND_PRE},
    {META_COND, '?', META_KIND_POST},       {META_PIPE, '-', META_KIND_POST},
    {META_ADD, '+', META_KIND_POST},        {META_IGNORE, 'x', META_KIND_POST},
    {META_NOCOND, '!', META_KIND_POST},     {0, '\0', 0},
};

namespace qdmeta {

namespace {

const char kModule[] = "QDmeta";

// strtok's reading of a string, without its hidden state: leading
// delimiters are skipped and the delimiter that ends a token is consumed.
class Tokens {
 public:
  explicit Tokens(std::string_view text) : text_(text) {}
  bool Next(const char *delimiters, std::string_view *token) {
    size_t start = text_.find_first_not_of(delimiters, pos_);
    if (start == std::string_view::npos) {
      pos_ = text_.size();
      return false;
    }
    size_t end = text_.find_first_of(delimiters, start);
    *token = text_.substr(start, end == std::string_view::npos ? end : end - start);
    pos_ = end == std::string_view::npos ? text_.size() : end + 1;
    return true;
  }

 private:
  std::string_view text_;
  size_t pos_ = 0;
};

bool CopyName(std::string_view name, meta_method_t *row) {
  if (name.size() > META_NAME_MAX) {
    QDerror(kModule, "Method name '%s' is longer than %d characters\n", std::string(name).c_str(),
            META_NAME_MAX);
    return false;
  }
  memcpy(row->name, name.data(), name.size());
  row->name[name.size()] = '\0';
  QDtrace(6, kModule, "Next method name is %s", row->name);
  return true;
}

// "0" exactly, or a number from 1 to 99; anything else leaves the default.
int ReadIndex(std::string_view text) {
  std::string s(text);
  if (s == "0") return 0;
  long v = strtol(s.c_str(), nullptr, 10);
  return v >= 1 && v <= 99 ? static_cast<int>(v) : kDefaultIndex;
}

bool Append(char *ops, char c, const char *name) {
  size_t n = strlen(ops);
  if (n == META_OPS_MAX) {
    QDerror(kModule, "Operators of method %s are longer than %d characters\n", name, META_OPS_MAX);
    return false;
  }
  ops[n] = c;
  ops[n + 1] = '\0';
  return true;
}

}  // namespace

const meta_oper_t *FindOperator(char c) {
  for (const meta_oper_t *op = meta_oper_tbl; op->flag != 0; ++op)
    if (op->oper == c) return op;
  return nullptr;
}

ElementStatus ParseElement(const char *element, meta_method_t *row) {
  *row = meta_method_t{};
  Tokens tokens(element);
  std::string_view name;
  if (!tokens.Next("[", &name))  // empty, or nothing but '['
    return CopyName(element, row) ? ElementStatus::kOk : ElementStatus::kNameTooLong;
  if (!CopyName(name, row)) return ElementStatus::kNameTooLong;
  row->indx = kDefaultIndex;
  std::string_view index;
  if (!tokens.Next("]", &index)) return ElementStatus::kOk;
  QDtrace(6, kModule, "Next index is %s", std::string(index).c_str());
  row->indx = ReadIndex(index);
  std::string_view group;
  std::string_view ops;
  if (!tokens.Next("]", &group) || !Tokens(group).Next("[", &ops)) return ElementStatus::kOk;
  for (char c : ops) {
    const meta_oper_t *op = FindOperator(c);
    if (op == nullptr) {
      QDtrace(6, kModule, "Invalid meta-operator '%c' encountered", c);
      continue;
    }
    if (!Append(op->kind == META_KIND_PRE ? row->preops : row->postops, c, row->name))
      return ElementStatus::kOpsTooLong;
  }
  if (row->preops[0] == '\0' && row->postops[0] == '\0') {
    strcpy(row->preops, "k");
    strcpy(row->postops, "?-");
    QDtrace(6, kModule, "Setting up default operator '%s'", row->postops);
  }
  return ElementStatus::kOk;
}

std::string NormalisePostOps(std::string_view ops) {
  std::string out;
  bool condition = false;
  bool disposition = false;
  for (char c : ops) {
    if (c == '?' || c == '!') {
      condition = true;
    } else if (c == '-' || c == '+' || c == 'x') {
      disposition = true;
    } else {
      continue;
    }
    out.push_back(c);
  }
  if (!condition) out.push_back('?');
  if (!disposition) out.push_back('-');
  return out;
}

}  // namespace qdmeta

namespace {

const char kModule[] = "QDmeta";

struct CommaListFree {
  void operator()(char **list) const { DestroyCommaList(list); }
};
struct RowsFree {
  void operator()(meta_method_t *rows) const { free(rows); }
};

void TraceRows(const meta_method_t *rows, size_t n) {
  for (size_t i = 0; i < n; ++i)
    QDtrace(8, kModule, "meta_method_tbl[%d]:  %16s : %2d : %8s : %8s", static_cast<int>(i),
            rows[i].name, rows[i].indx, rows[i].preops, rows[i].postops);
}

// The entries of the sorted rows, defaults filled in. False when an entry
// cannot be added: the caller then drops the whole list.
bool AddRows(KeywordList *list, meta_method_t *rows, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    meta_method_t &row = rows[i];
    if (row.preops[0] == '\0' && n > 1) strcpy(row.preops, "k");
    if (row.preops[0] != '\0' && AddKeywordToList(list, META_PRE_OP, row.preops) != 0) return false;
    if (row.postops[0] == '\0' && n > 1 && i < n - 1) {
      strcpy(row.postops, "?-");
      QDtrace(6, kModule, "Setting up default operator '%s'", row.postops);
    }
    if (row.postops[0] != '\0') {
      char *post = QDParsePostOps(row.postops);
      int rc = post != nullptr ? AddKeywordToList(list, META_POST_OP, post) : -1;
      free(post);
      if (rc != 0) return false;
    }
    if (AddKeywordToList(list, META_FCN, row.name) != 0) return false;
  }
  return true;
}

}  // namespace

extern "C" {

int QDcmpmetaindx(const void *a, const void *b) {
  return static_cast<const meta_method_t *>(a)->indx - static_cast<const meta_method_t *>(b)->indx;
}

char *QDParsePostOps(const char *ops) {
  QDtrace(6, kModule, "QDParsePostOps(%s)", ops != nullptr ? ops : "(null)");
  if (ops == nullptr) return nullptr;
  std::string norm = qdmeta::NormalisePostOps(ops);
  auto *out = static_cast<char *>(QDmalloc(kModule, norm.size() + 1));
  if (out == nullptr) return nullptr;
  memcpy(out, norm.c_str(), norm.size() + 1);
  QDtrace(6, kModule, "QDParsePostOps returning '%s'", out);
  return out;
}

KeywordList *QDparsemetavalue(const char *value) {
  QDtrace(6, kModule, "QDparsemetavalue ( %s )", value != nullptr ? value : "(null)");
  if (value == nullptr) return nullptr;
  std::unique_ptr<char *, CommaListFree> items(ParseCommaList(value));
  if (items == nullptr) {
    QDerror(kModule, "Cannot split meta-method value\n");
    return nullptr;
  }
  QDtrace(8, kModule, "Returned from ParseCommaList: ");
  size_t n = 0;
  for (; items.get()[n] != nullptr; ++n)
    QDtrace(8, kModule, "     Methods[%d]:  %s", static_cast<int>(n), items.get()[n]);
  QDtrace(6, kModule, "There are %d methods in the meta-method string", static_cast<int>(n));
  std::unique_ptr<meta_method_t, RowsFree> table(
      static_cast<meta_method_t *>(calloc(n > 0 ? n : 1, sizeof(meta_method_t))));
  if (table == nullptr) {
    QDtrace(6, kModule, "calloc failed");
    return nullptr;
  }
  meta_method_t *rows = table.get();
  for (size_t i = 0; i < n; ++i)
    if (qdmeta::ParseElement(items.get()[i], &rows[i]) != qdmeta::ElementStatus::kOk) {
      QDerror(kModule, "Meta-method value refused: %s\n", value);
      return nullptr;
    }
  items.reset();
  if (vcel_verbose_level >= 8) TraceRows(rows, n);
  QDtrace(8, kModule, "Call qsort ( %lu, %d, %d, %lu )", reinterpret_cast<unsigned long>(rows),
          static_cast<int>(n), static_cast<int>(sizeof(meta_method_t)),
          reinterpret_cast<unsigned long>(&QDcmpmetaindx));
  // Stable: elements of equal index run in the order they are written.
  std::stable_sort(rows, rows + n, [](const meta_method_t &a, const meta_method_t &b) {
    return QDcmpmetaindx(&a, &b) < 0;
  });
  if (vcel_verbose_level >= 8) {
    QDtrace(8, kModule, "Back from qsort ()");
    TraceRows(rows, n);
  }
  KeywordList *list = CreateKeywordList();
  if (list == nullptr) {
    QDerror(kModule, "Cannot create keyword list\n");
    return nullptr;
  }
  if (!AddRows(list, rows, n)) {
    QDerror(kModule, "Cannot add to meta-method list\n");
    DestroyKeywordList(list);
    return nullptr;
  }
  return list;
}

}  // extern "C"
