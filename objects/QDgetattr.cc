// One attribute of an entry, and the body shared with the one-method query.
#include <cstdlib>
#include <cstring>

#include "cache_state.h"
#include "command.h"
#include "front.h"
#include "qd.h"

namespace {

const char kModule[] = "QDgetattr";
constexpr size_t kCommandSize = 4096;

// What UnitProp's command hands its handler: the record's value field, and
// whether a line was too long for it (such a value is refused, not cut).
struct SingleValue {
  char *value;
  bool overflow;
};

int KeepLastLine(void *context, char *line) {
  auto *out = static_cast<SingleValue *>(context);
  if (strlen(line) > QD_VALUE_MAX) {
    out->overflow = true;
    return 0;
  }
  return OutputSingleName(out->value, line);
}

// The value by the device command, into the record; false, with the error
// reported, when none was had. Apart from UnitProp, which the cache serves
// without its command buffer.
__attribute__((noinline)) bool ValueByCommand(const char *alias, const char *name, NameValue *record) {
  char command[kCommandSize];
  qd::CommandLine line(sizeof command);
  line.Raw("unitprop ").Word(alias).Raw(" ").Word(name);
  if (!line.CopyTo(command)) {
    QDerror(kModule, "Cannot run unitprop for '%s' '%s': %s\n", alias, name, line.error());
    return false;
  }
  if (QDlock(QDREAD) != 0) return false;
  SingleValue out{record->value, false};
  int rc = ExecuteCommand(command, KeepLastLine, &out);
  QDunlock(QDREAD);
  if (rc == 0 && out.overflow) {
    QDerror(kModule, "Value of '%s' longer than %d characters\n", name, QD_VALUE_MAX);
    rc = -1;
  }
  return rc == 0;
}

}  // namespace

extern "C" int OutputSingleName(void *value, char *line) {
  size_t len = strnlen(line, QD_VALUE_MAX);
  memcpy(value, line, len);
  static_cast<char *>(value)[len] = '\0';
  return 0;
}

extern "C" NameValue *UnitProp(const char *alias, const char *name) {
  auto *record = static_cast<NameValue *>(QDmalloc(kModule, sizeof(NameValue)));
  if (record == nullptr) {
    QDerror(kModule, "QDmalloc returned NULL");
    return nullptr;
  }
  size_t name_length = strlen(name);
  if (name_length > QD_NAME_MAX) {
    QDerror(kModule, "Name too long:[%s]\n", name);
    free(record);
    return nullptr;
  }
  memcpy(record->name, name, name_length + 1);
  record->value[0] = '\0';
  // With the cache on no command runs, so none is built.
  bool found = qdcache_on != 0 ? QDcache_hook_UnitProp(alias, name, record->value) == 0
                               : ValueByCommand(alias, name, record);
  if (!found) {
    free(record);
    return nullptr;
  }
  return record;
}

extern "C" NameValue *QDLgetattr(const char *alias, const char *name) {
  if (alias == nullptr || name == nullptr) return nullptr;
  if (qd::NamesMethod(name)) return nullptr;
  return UnitProp(alias, name);
}

extern "C" NameValue *QDgetattr(const char *alias, const char *name) {
  if (qd::CacheShortCut(alias)) {
    qdcache::Anticipation lookup(alias);
    return PVQueryattr(alias, name);
  }
  if (auto fw = qd::FrameworkFunction<NameValue *(*)(const char *, const char *)>("FWgetattr"))
    return fw(alias, name);
  return PVQueryattr(alias, name);
}
