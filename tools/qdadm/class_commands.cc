// qdadm create, update, method and value: entries made from classes, and
// the editing of meta-method values and multi-value attributes. Each holds
// the table's write lock from its first read to its last write, so that no
// other writer comes between them: two creates of one class never choose
// the same alias.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"

namespace qdadm {

namespace {

struct TableFree {
  void operator()(QDclass_tbl_t *t) const { QDfree_class_tbl(t); }
};
using Classes = std::unique_ptr<QDclass_tbl_t, TableFree>;

struct ListFree {
  void operator()(KeywordList *l) const { DestroyKeywordList(l); }
};
using List = std::unique_ptr<KeywordList, ListFree>;

struct ObjectFree {
  void operator()(ObjectRecord *o) const { QDfreeobj(o); }
};
using Object = std::unique_ptr<ObjectRecord, ObjectFree>;

// Takes a leading "--class-file FILE" off the arguments and reads that file
// (or the default one); nullptr after saying why.
Classes ReadClasses(Args *a) {
  const char *path = nullptr;
  if (!a->empty() && (*a)[0] == "--class-file") {
    if (a->size() < 2) {
      Say("--class-file needs a file");
      return nullptr;
    }
    path = (*a)[1].c_str();
  }
  char error[1024] = "";
  Classes classes(QDread_class_file(path, error, sizeof error));
  if (classes == nullptr) Say("%s", error);
  if (path != nullptr) a->erase(a->begin(), a->begin() + 2);
  return classes;
}

bool HasClass(const QDclass_tbl_t *table, const std::string &name) {
  for (const QDclass_tbl_t *c = table; c->class_name != nullptr; ++c)
    if (name == c->class_name) return true;
  return false;
}

// The pairs given, checked against the table's bounds; nullptr after saying why.
List CheckedPairs(const Args &a, size_t from) {
  List list(ToList(a, from, a.size()));
  for (const auto &p : ToPairs(list.get())) {
    if (p.first.size() > QD_NAME_MAX || p.second.size() > QD_VALUE_MAX) {
      Say("%s: names hold at most %d characters, values %d", p.first.c_str(), QD_NAME_MAX, QD_VALUE_MAX);
      return nullptr;
    }
  }
  return list;
}

// The table's write lock with the whole table in the cache: the alias
// checks read it there, and one rewrite writes the change back.
// Reads the class file the arguments name (taking its option out of *a),
// checks the class named at a[at] and the NAME=VALUE pairs after it, and
// puts the file's classes in force; false (after saying why) when any is wrong.
bool ClassInForce(Args *a, size_t at, const char *missing, Classes *classes, List *pairs) {
  *classes = ReadClasses(a);
  if (*classes == nullptr) return false;
  if (a->size() <= at || !HasClass(classes->get(), (*a)[at])) {
    Say(a->size() <= at ? "%s" : "no class %s in the class file", a->size() <= at ? missing : (*a)[at].c_str());
    return false;
  }
  *pairs = CheckedPairs(*a, at + 1);
  if (*pairs == nullptr) return false;
  QD_class_tbl = classes->get();
  return true;
}

class Session {
 public:
  bool Open() {
    if (QDlock(QDWRITE) != 0) {
      Say("cannot take the table's write lock");
      return false;
    }
    locked_ = true;
    if (QDcache_load() != 0) {
      Say("cannot read the table");
      return false;
    }
    loaded_ = true;
    return true;
  }
  // Writes the table back after a write that took, else drops the cache:
  // the exit status.
  int Close(int put) {
    bool took = put == 0 || put == KWL_DUPLICATE;
    int rc = took ? 0 : put == -1 ? 255 : put;
    if (loaded_ && took && QDcache_flush() != 0) {
      Say("cannot write the table back");
      rc = 255;
    } else if (loaded_ && !took) {
      QDcache_free();
    }
    loaded_ = false;
    return rc;
  }
  ~Session() {
    Close(-1);
    if (locked_) QDunlock(QDWRITE);
  }

 private:
  bool locked_ = false;
  bool loaded_ = false;
};

bool ReadIndex(const std::string &text, int *index) {
  if (text.empty() || text.size() > 2 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  *index = atoi(text.c_str());
  return true;
}

bool ReadOperators(const std::string &text, unsigned char *mask) {
  *mask = 0;
  for (char c : text) {
    const meta_oper_t *op = meta_oper_tbl;
    while (op->flag != 0 && op->oper != c) ++op;
    if (op->flag == 0) {
      Say("not an operator: '%c' (the operators are u m ? - + x !)", c);
      return false;
    }
    *mask |= op->flag;
  }
  return true;
}

// The elements of a meta-method value.
std::vector<std::string> Elements(const std::string &value) {
  std::vector<std::string> out;
  if (char **items = ParseCommaList(value.c_str())) {
    for (char **i = items; *i != nullptr; ++i) out.push_back(*i);
    DestroyCommaList(items);
  }
  return out;
}

}  // namespace

int Create(Output &out, const Args &args) {
  Args a = args;
  Classes classes;
  List attributes;
  if (!ClassInForce(&a, 0, "give a class", &classes, &attributes)) return kBadArguments;
  Session session;
  if (!session.Open()) return 255;
  Object object(QDcreate(a[0].c_str(), nullptr, attributes.get()));
  if (object == nullptr) {
    Say("no free alias for class %s (%.11s0 to %.11s999 are taken)", a[0].c_str(), a[0].c_str(), a[0].c_str());
    return 255;
  }
  int rc = session.Close(QDputobj(object->alias, object.get()));
  if (rc != 0) {
    Say("cannot write %s", object->alias);
    return rc;
  }
  out.Value("alias", object->alias);
  return 0;
}

int Update(Output &out, const Args &args) {
  Args a = args;
  Classes classes;
  List updates;
  if (!ClassInForce(&a, 1, "give an alias and a class", &classes, &updates)) return kBadArguments;
  Session session;
  if (!session.Open()) return 255;
  Object object(QDgetobj(a[0].c_str()));
  if (object == nullptr) {
    Say("no entry for %s", a[0].c_str());
    return kNoEntry;
  }
  QDupdate(a[1].c_str(), object.get(), updates.get());
  int rc = session.Close(QDputobj(a[0].c_str(), object.get()));
  if (rc != 0) {
    Say("cannot write %s", a[0].c_str());
    return rc;
  }
  out.Object(a[0], ToPairs(object->attributes), ToPairs(object->methods));
  return 0;
}

namespace {

// Runs an edit of one value of an entry under the table's write lock and
// reads the value back before letting go; kNoEntry (said) when there is no
// such entry, 255 (said) when the lock cannot be had.
int EditUnderLock(const char *alias, const char *name, bool method, std::string *value,
                  const std::function<int()> &edit) {
  if (QDlock(QDWRITE) != 0) {
    Say("cannot take the table's write lock");
    return 255;
  }
  int rc = kNoEntry;
  NameValue *now = nullptr;
  if (QDcheck(alias) == 0) {
    rc = edit();
    now = method ? QDgetmethod(alias, name) : QDgetattr(alias, name);
  }
  QDunlock(QDWRITE);
  *value = now != nullptr ? now->value : "";
  free(now);
  if (rc == kNoEntry) Say("no entry for %s", alias);
  return rc;
}

}  // namespace

int Method(Output &out, const Args &a) {
  const std::string &op = a[0];
  bool rm = op == "rm";
  if ((!rm && op != "add" && op != "update") || (rm && a.size() != 4)) {
    Say("give add, update or rm; rm takes no index or operators");
    return kBadArguments;
  }
  int index = 50;
  unsigned char mask = 0;
  if (a.size() > 4 && !ReadIndex(a[4], &index)) {
    Say("not an index (0 to 99): %s", a[4].c_str());
    return kBadArguments;
  }
  if (a.size() > 5 && !ReadOperators(a[5], &mask)) return kBadArguments;
  const char *alias = a[1].c_str(), *method = a[2].c_str(), *element = a[3].c_str();
  char made[QD_VALUE_MAX + 1];
  QDcatmetamethod(made, "", element, index, mask);
  auto last_is_made = [&made](const std::string &value) {
    std::vector<std::string> elements = Elements(value);
    return !elements.empty() && elements.back() == made;
  };
  std::string value;
  int rc = EditUnderLock(alias, method, true, &value, [&]() {
    // An element without room is refused before anything is written (the
    // library would write the value back as it was).
    if (op == "add") {
      NameValue *before = QDgetmethod(alias, method);
      char merged[QD_VALUE_MAX + 1];
      QDcatmetamethod(merged, before != nullptr ? before->value : "", element, index, mask);
      free(before);
      if (made[0] != '\0' && !last_is_made(merged)) return 255;
    }
    return rm ? QDrmmetamethod(alias, method, element)
              : op == "add" ? QDaddmetamethod(alias, method, element, index, mask)
                            : QDupdatemetamethod(alias, method, element, index, mask);
  });
  if (rc == kNoEntry) return rc;
  // What is read back tells whether the write took.
  std::vector<std::string> elements = Elements(value);
  bool done = rc == 0 && (rm ? std::none_of(elements.begin(), elements.end(),
                                            [&](const std::string &e) { return e.substr(0, e.find('[')) == element; })
                             : last_is_made(value));
  if (!done) {
    Say("%s of %s was not changed (the reason is above)", method, alias);
    return rc != 0 ? rc : 255;
  }
  out.Value(method, value);
  return 0;
}

int Value(Output &out, const Args &a) {
  const std::string &op = a[0];
  if (op != "add" && op != "rm") {
    Say("give add or rm: %s", op.c_str());
    return kBadArguments;
  }
  const char *alias = a[1].c_str(), *name = a[2].c_str(), *item = a[3].c_str();
  std::string value;
  int rc = EditUnderLock(alias, name, false, &value, [&]() {
    return op == "add" ? QDaddattributevalue(alias, name, item) : QDdelattributevalue(alias, name, item);
  });
  if (rc == kNoEntry) return rc;
  if (rc != 0 || (IsInCommaList(item, value.c_str()) == 1) != (op == "add")) {
    Say("%s of %s was not changed (the reason is above)", name, alias);
    return rc == 0 || rc == -1 ? 255 : rc;
  }
  out.Value(name, value);
  return 0;
}

}  // namespace qdadm
