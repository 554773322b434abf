// Writing objects: through the cache when it is on with direct saving, else
// through "unitmod -m" (then "unitmod -a" when the entry does not exist).
#include <cstdlib>
#include <cstring>
#include <string>

#include "command.h"
#include "front.h"
#include "cache_state.h"

namespace {

const char kModule[] = "QDput";
constexpr size_t kStep = 4096;
constexpr size_t kRoom = 2 * qd::kRedirectRoom;  // a modify and then an add

// The command being built and run.
char *Command = nullptr;

bool Plain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         strchr("_-./,:@%+", c) != nullptr;
}

// The keyword as one literal shell word (it meets "=" and the value).
std::string KeywordWord(const char *kw) {
  bool plain = *kw != '\0';
  for (const char *p = kw; *p; ++p) plain = plain && Plain(*p);
  if (plain) return kw;
  std::string w = "'";
  for (const char *p = kw; *p; ++p) w += *p == '\'' ? std::string("'\\''") : std::string(1, *p);
  return w + "'";
}

// The value as the shell must see it to hand unitmod the value literally:
// between double quotes with $ ` \ " escaped. A value the caller quoted
// itself (it begins or ends with a double quote) is passed as it stands
// when the shell would take it literally; otherwise it is refused.
bool ValueWord(const char *value, std::string *out) {
  size_t n = strlen(value);
  if (n > 0 && (value[0] == '"' || value[n - 1] == '"')) {
    if (n < 2 || value[0] != '"' || value[n - 1] != '"') return false;
    for (size_t i = 1; i + 1 < n; ++i)
      if (strchr("$`\\\"", value[i]) != nullptr) return false;
    out->assign(value);
    return true;
  }
  out->assign("\"");
  for (const char *p = value; *p; ++p) {
    if (strchr("$`\\\"", *p) != nullptr) out->push_back('\\');
    out->push_back(*p);
  }
  out->push_back('"');
  return true;
}

}  // namespace

extern "C" {

int OutputPut(void *, char *) { return 0; }

char *BuildPutCommand(const char *alias, KeywordList *list, const char *option) {
  QDtrace(8, "BuildPutCommand", "Alias:%s:", alias);
  size_t size = kStep;
  Command = static_cast<char *>(malloc(size));
  if (Command == nullptr) {
    QDtrace(8, "BuildPutCommand", "BuildPutCommand: Error in memory allocation.");
    return nullptr;
  }
  QDtrace(8, "BuildPutCommand", "Allocated %d bytes for Command.", static_cast<int>(size));
  qd::CommandLine head(size - kRoom);
  head.Raw("unitmod ").Raw(option).Raw(" ").Word(alias);
  if (!head.CopyTo(Command)) {
    QDerror("BuildPutCommand", "Cannot pass alias '%s' to unitmod: %s\n", alias, head.error());
    free(Command);
    return Command = nullptr;
  }
  QDtrace(8, "BuildPutCommand", "Command is %s", Command);
  if (list == nullptr) return Command;
  size_t length = strlen(Command);
  char *kw;
  char *value;
  int st;
  std::string word;
  while ((st = ReferenceNextKeywordInList(list, &kw, &value)) == KWL_OK || st == KWL_WARN) {
    if (strcmp(kw, "alias") == 0) continue;
    for (char *p = value; *p; ++p)
      if (static_cast<unsigned char>(*p) < 32 || static_cast<unsigned char>(*p) >= 127) *p = ' ';
    if (!ValueWord(value, &word)) {
      QDerror("BuildPutCommand", "Cannot pass the value of '%s' to unitmod safely: [%s]\n", kw, value);
      free(Command);
      return Command = nullptr;
    }
    std::string pair = "\\\n " + KeywordWord(kw) + "=" + word;
    while (length + pair.size() + 1 + kRoom > size) {
      char *bigger = static_cast<char *>(realloc(Command, size + kStep));
      if (bigger == nullptr) {
        QDtrace(8, "BuildPutCommand", "BuildPutCommand: Error in memory reallocation.");
        free(Command);
        return Command = nullptr;
      }
      Command = bigger;
      size += kStep;
      QDtrace(6, "BuildPutCommand", "Allocated %d total bytes for Command.", static_cast<int>(size));
    }
    memcpy(Command + length, pair.c_str(), pair.size() + 1);
    length += pair.size();
  }
  QDtrace(8, "BuildPutCommand", "Command is %s", Command);
  return Command;
}

void OverlayPutCommand(char *command, const char *option) {
  // The option follows "unitmod" and its blank.
  memcpy(command + strlen("unitmod "), option, 2);
  QDtrace(7, "OverlayPutCommand", "Command is %s", command);
}

int QDLput(const char *alias, KeywordList *list) {
  char *kw;
  char *value;
  if (list != nullptr && ReferenceKeywordInList(list, "alias", &kw, &value) == 0 &&
      strcmp(value, alias) != 0) {
    QDtrace(3, kModule, "Alias argument '%s' conflicts with attribute 'alias=\"%s\"'", alias, value);
    return 254;
  }
  // A put that loads the cache itself holds the table's write lock from the
  // load to the flush, so no other writer's change falls between the two.
  // The flush's own puts (object-writer mode) take the command path.
  bool loaded_here = false;
  if (qdcache_on == 0 && !qdcache::Flushing()) {
    if (QDlock(QDWRITE) != 0) return -1;
    if (QDcache_load() != 0) {
      QDunlock(QDWRITE);
      return -1;
    }
    loaded_here = true;
  }
  QDtrace(8, kModule, "QDLput: qdcache_on %d", qdcache_on);
  int duplicates = list != nullptr ? RemoveDuplicateKeywordFmList(list) : 0;
  if (duplicates != 0) QDtrace(8, kModule, "QDLput : Duplicate Keyword Found in List");

  if (qdcache_on != 0 && qdcache_directsave != 0) {
    int rc = duplicates;
    if (QDcache_hook_QDLput(alias, list) != 0) {
      rc = -1;
    } else if (loaded_here) {
      QDtrace(8, kModule, "QDLput: flushing cache");
      if (QDcache_flush() != 0) {
        QDtrace(8, kModule, "QDLput: Cannot flush cache.");
        rc = -1;
      }
    }
    if (loaded_here) QDunlock(QDWRITE);
    return rc;
  }
  if (loaded_here) QDunlock(QDWRITE);  // the command path takes its own lock

  int rc = QDlock(QDWRITE);
  if (rc != 0) return rc;
  QDsettime(QD_TS_ENV, nullptr);
  if (QDtimestamp.tm_mday != 0 && list != nullptr) {
    QDtrace(7, kModule, "Timestamping set");
    list->kwl_cursor = list->kwl_first;
    if (ReferenceKeywordInList(list, "ObjTimestamp", &kw, &value) != 0) {
      QDtrace(7, kModule, "Adding timestamp attr to attr list");
      AddKeywordToList(list, "ObjTimestamp", QDstampstring);
    }
  }
  if (list != nullptr) list->kwl_cursor = list->kwl_first;
  int result = duplicates;
  if (BuildPutCommand(alias, list, "-m") == nullptr) {
    QDtrace(3, kModule, "QDLput: Error in memory allocation.");
    result = -1;
  } else {
    int status = ExecuteCommand(Command, OutputPut, nullptr);
    if (status == 2 || status == 3) {
      OverlayPutCommand(Command, "-a");
      status = ExecuteCommand(Command, OutputPut, nullptr);
      if (status != 0) {
        QDerror(kModule, "Error in \"unitmod -a (add)\" (exit code %d)", status);
        result = -1;
      }
    } else if (status != 0) {
      QDerror(kModule, "Error in \"unitmod -m (modify)\" (exit code %d)", status);
      result = -1;
    }
  }
  if (list != nullptr) RemoveKeywordFmList(list, "ObjTimestamp");
  QDunlock(QDWRITE);
  free(Command);
  Command = nullptr;
  QDtrace(8, kModule, "Return = %d", result);
  return result;
}

int QDput(const char *alias, KeywordList *list) {
  if (qd::CacheShortCut(alias)) return PVPut(alias, list);
  if (auto fw = qd::FrameworkFunction<int (*)(const char *, KeywordList *)>("FWput"))
    return fw(alias, list);
  return PVPut(alias, list);
}

}  // extern "C"
