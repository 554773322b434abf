// All attributes of an entry, the body shared with the all-methods query,
// and the parser of "unitprop -v" output lines.
#include <cstring>

#include "command.h"
#include "front.h"
#include "qd.h"

namespace {
const char kModule[] = "QDgetattrs";
constexpr size_t kCommandSize = 4096;
constexpr int kMaxListName = 33;
constexpr size_t kMaxListValue = 513;
}  // namespace

extern "C" int BuildNameValuePair(KeywordList *list, char *line, int name_length) {
  if (name_length > kMaxListName) {
    line[name_length] = '\0';
    QDerror(kModule, "Invalid keyword:too many characters:[%s]\n", line);
    return -1;
  }
  char name[kMaxListName + 1];
  memcpy(name, line, static_cast<size_t>(name_length));
  name[name_length] = '\0';

  char *begin = strchr(line, '\'');
  char *end = strrchr(line, '\'');
  if (begin != nullptr) {
    ++begin;
  } else {
    begin = strchr(line, '=');
    if (begin == nullptr) {
      QDerror(kModule, "Could not determine name/value pair\n");
      return -1;
    }
    ++begin;
    end = line + strlen(line);
  }
  if (end < begin) {
    QDerror(kModule, "Invalid keyword value;missing end quote:[%s]\n", begin);
    return -1;
  }
  size_t length = static_cast<size_t>(end - begin);
  if (length > kMaxListValue) {
    QDerror(kModule, "Invalid keyword value;too many characters:[%s]\n", begin);
    return -1;
  }
  char value[kMaxListValue + 1];
  memcpy(value, begin, length);
  value[length] = '\0';
  if (AddKeywordToList(list, name, value) != 0) {
    QDerror(kModule, "Could not add keyword to list\n");
    return -1;
  }
  return 0;
}

extern "C" int OutputAttrVal(void *list, char *line) {
  char *eq = strchr(line, '=');
  if (eq == nullptr) return 0;
  int n = static_cast<int>(eq - line);
  if (IsAlias(line, n) || IsMethod(line, n)) return 0;
  return BuildNameValuePair(static_cast<KeywordList *>(list), line, n);
}

extern "C" int OutputMethodVal(void *list, char *line) {
  char *eq = strchr(line, '=');
  if (eq == nullptr) return 0;
  int n = static_cast<int>(eq - line);
  if (!IsMethod(line, n)) return 0;
  return BuildNameValuePair(static_cast<KeywordList *>(list), line, n);
}

extern "C" KeywordList *DevAllAttr(const char *alias, int methods) {
  KeywordList *list = CreateKeywordList();
  if (list == nullptr) {
    QDerror(kModule, "Cannot create keyword list\n");
    return nullptr;
  }
  if (qdcache_on != 0) {
    if (QDcache_hook_DevAllAttr(alias, methods, list) != 0) {
      DestroyKeywordList(list);
      return nullptr;
    }
    return list;
  }
  char command[kCommandSize];
  qd::CommandLine line(sizeof command);
  line.Raw("unitprop -v ").Word(alias);
  if (!line.CopyTo(command)) {
    QDerror(kModule, "Cannot run unitprop for '%s': %s\n", alias, line.error());
    DestroyKeywordList(list);
    return nullptr;
  }
  if (QDlock(QDREAD) != 0) {
    DestroyKeywordList(list);
    return nullptr;
  }
  int rc = ExecuteCommand(command, methods == 1 ? OutputMethodVal : OutputAttrVal, list);
  QDunlock(QDREAD);
  if (rc != 0) {
    DestroyKeywordList(list);
    return nullptr;
  }
  return list;
}

extern "C" KeywordList *QDLgetattrs(const char *alias) {
  if (alias == nullptr) return nullptr;
  return DevAllAttr(alias, 0);
}

extern "C" KeywordList *QDgetattrs(const char *alias) {
  if (qd::CacheShortCut(alias)) return PVQueryattrs(alias);
  if (auto fw = qd::FrameworkFunction<KeywordList *(*)(const char *)>("FWgetattrs")) return fw(alias);
  return PVQueryattrs(alias);
}
