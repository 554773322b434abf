// libQDdemo.so - an example framework library.
//
// A framework replaces libQD's local service: with YRA_FW=demo (in the
// environment or the settings file), a suitable run level and this library
// in the library directory, libQD calls the FW functions below instead of
// reading /etc/units.tab. This one serves a table file of its own, named by
// QDDEMO_TABLE, in the same format and through the same reader.
//
// Every FW function takes the arguments of the public function it replaces
// and returns what that function returns; results are allocated as libQD's
// callers expect (malloc, or libPV's keyword lists).
#include <cstdlib>
#include <cstring>
#include <string>

#include "devtab_file.h"
#include "devtab_format.h"
#include "qd.h"

#define FW_EXPORT extern "C" __attribute__((visibility("default")))

// The functions a framework supplies: FWinit, and a replacement for each
// public function it serves. One that is missing makes libQD drop the
// framework for the rest of the process when that function is first called.
extern "C" {
int FWinit(void);
NameValue *FWgetattr(const char *alias, const char *name);
NameValue *FWgetmethod(const char *alias, const char *name);
KeywordList *FWgetattrs(const char *alias);
KeywordList *FWgetmethods(const char *alias);
int FWput(const char *alias, KeywordList *list);
}

namespace {

std::string TablePath() {
  const char *p = getenv("QDDEMO_TABLE");
  return p != nullptr ? p : "";
}

// The entry of `alias` in our table, parsed; false when absent.
bool Lookup(const char *alias, devtab::Entry *entry) {
  devtab::Image image;
  devtab::RawEntry raw;
  return alias != nullptr && image.Load(TablePath().c_str()) == 0 &&
         devtab::FindEntry(image.view(), alias, &raw, entry);
}

bool IsMethodName(const char *name) { return devtab::IsMethodName(name); }

// The entry's attributes (methods == false) or methods, as a keyword list.
KeywordList *Pairs(const char *alias, bool methods) {
  devtab::Entry e;
  if (!Lookup(alias, &e)) return nullptr;
  KeywordList *list = CreateKeywordList();
  if (list == nullptr) return nullptr;
  if (!methods)
    for (int i = 0; i < 3; ++i) AddKeywordToList(list, devtab::kPositionalNames[i], e.positional[i].c_str());
  for (size_t i = 0; i < e.npairs; ++i) {
    const devtab::Pair &p = e.pairs[i];
    if (IsMethodName(p.name.c_str()) == methods && p.name.find("alias") == std::string::npos)
      AddKeywordToList(list, p.name.c_str(), p.value.c_str());
  }
  return list;
}

NameValue *One(const char *alias, const char *name) {
  devtab::Entry e;
  if (name == nullptr || strlen(name) > QD_NAME_MAX || !Lookup(alias, &e)) return nullptr;
  const std::string *value = nullptr;
  for (int i = 0; i < 3; ++i)
    if (strcmp(name, devtab::kPositionalNames[i]) == 0) value = &e.positional[i];
  size_t i = e.Find(name);
  if (value == nullptr && i < e.npairs) value = &e.pairs[i].value;
  if (value == nullptr || value->size() > QD_VALUE_MAX) return nullptr;
  auto *nv = static_cast<NameValue *>(malloc(sizeof(NameValue)));
  if (nv == nullptr) return nullptr;
  strcpy(nv->name, name);
  strcpy(nv->value, value->c_str());
  return nv;
}

}  // namespace

#ifndef FWDEMO_NO_INIT
FW_EXPORT int FWinit(void) {
#ifdef FWDEMO_INIT_FAILS
  return 7;
#else
  // Serve only when our table can be read.
  devtab::Image image;
  return image.Load(TablePath().c_str()) == 0 ? 0 : 1;
#endif
}
#endif

#ifndef FWDEMO_NO_GETATTR
FW_EXPORT NameValue *FWgetattr(const char *alias, const char *name) {
  return name != nullptr && !IsMethodName(name) ? One(alias, name) : nullptr;
}
#endif

FW_EXPORT NameValue *FWgetmethod(const char *alias, const char *name) {
  return name != nullptr && IsMethodName(name) ? One(alias, name) : nullptr;
}

FW_EXPORT KeywordList *FWgetattrs(const char *alias) { return Pairs(alias, false); }

FW_EXPORT KeywordList *FWgetmethods(const char *alias) { return Pairs(alias, true); }

// Writes the pairs of `list` into the entry (created when absent).
FW_EXPORT int FWput(const char *alias, KeywordList *list) {
  if (alias == nullptr || devtab::CheckAlias(alias) != nullptr) return 254;
  devtab::LockedTable table;
  if (table.Open(TablePath(), true) != 0) return -1;
  devtab::Image image;
  if (image.LoadFd(table.fd()) != 0) return -1;
  devtab::Entry e;
  devtab::RawEntry raw;
  std::string_view old = image.view();
  bool found = devtab::FindEntry(old, alias, &raw, &e);
  if (!found) e.alias = alias;
  list->kwl_cursor = list->kwl_first;
  char *kw;
  char *value;
  int st;
  while ((st = ReferenceNextKeywordInList(list, &kw, &value)) == KWL_OK || st == KWL_WARN) {
    if (strcmp(kw, "alias") == 0 || devtab::CheckKeyword(kw) != nullptr) continue;
    int pos = -1;
    for (int i = 0; i < 3; ++i)
      if (strcmp(kw, devtab::kPositionalNames[i]) == 0) pos = i;
    size_t i = e.Find(kw);
    if (pos >= 0) {
      e.positional[pos] = value;
    } else if (i < e.npairs) {
      e.pairs[i].value = value;
    } else {
      devtab::Pair &p = e.AddPair();
      p.name = kw;
      p.value = value;
    }
  }
  std::string content;
  if (found) {
    size_t end = raw.offset + raw.text.size();
    content.assign(old.substr(0, raw.offset));
    devtab::FormatEntry(e, &content);
    content.append(old.substr(end < old.size() ? end + 1 : end));
  } else {
    content.assign(old);
    if (!content.empty() && content.back() != '\n') content.push_back('\n');
    devtab::FormatEntry(e, &content);
  }
  return table.Replace(content) == 0 ? 0 : -1;
}
