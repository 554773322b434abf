// The line format of keyword streams (settings files, method parameters and
// results): keyword=value, one a line. Blank lines and lines starting with
// '#' are skipped. A value (or keyword) that would not survive the plain form
// (blanks at its ends, a leading quote, line breaks, an '=' or '#' in a
// keyword) is written between double quotes with \\, \", \n and \r escapes.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "pv.h"
#include "pv_internal.h"

namespace {

const char kModule[] = "KeywordStreamToList";

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// Reads a quoted string starting at line[pos] == '"'. Returns the index after
// the closing quote, or std::string::npos when it is not closed.
size_t ReadQuoted(const std::string &line, size_t pos, std::string *out) {
  for (++pos; pos < line.size(); ++pos) {
    char c = line[pos];
    if (c == '"') return pos + 1;
    if (c == '\\' && pos + 1 < line.size()) {
      char e = line[++pos];
      out->push_back(e == 'n' ? '\n' : e == 'r' ? '\r' : e);
      continue;
    }
    out->push_back(c);
  }
  return std::string::npos;
}

size_t SkipBlanks(const std::string &line, size_t pos) {
  while (pos < line.size() && IsBlank(line[pos])) ++pos;
  return pos;
}

void TrimRight(std::string *s) {
  while (!s->empty() && IsBlank(s->back())) s->pop_back();
}

// Parses one line. Returns nullptr on success, else why the line is refused.
const char *ParseLine(const std::string &line, std::string *kw, std::string *value, bool *skip) {
  *skip = false;
  size_t pos = SkipBlanks(line, 0);
  if (pos == line.size() || line[pos] == '#') {
    *skip = true;
    return nullptr;
  }
  if (line[pos] == '"') {
    pos = ReadQuoted(line, pos, kw);
    if (pos == std::string::npos) return "unterminated quote in keyword";
    pos = SkipBlanks(line, pos);
    if (pos == line.size() || line[pos] != '=') return "no '=' after keyword";
  } else {
    size_t eq = line.find('=', pos);
    if (eq == std::string::npos) return "no '=' in line";
    kw->assign(line, pos, eq - pos);
    TrimRight(kw);
    // Only the writer's "" spells an empty keyword.
    if (kw->empty()) return "empty keyword";
    pos = eq;
  }
  pos = SkipBlanks(line, pos + 1);
  if (pos < line.size() && line[pos] == '"') {
    pos = ReadQuoted(line, pos, value);
    if (pos == std::string::npos) return "unterminated quote in value";
    if (SkipBlanks(line, pos) != line.size()) return "text after closing quote";
  } else {
    value->assign(line, pos, std::string::npos);
    TrimRight(value);
  }
  return nullptr;
}

bool NeedsQuotes(const char *s, bool keyword) {
  size_t n = strlen(s);
  if (n == 0) return keyword;
  if (IsBlank(s[0]) || IsBlank(s[n - 1]) || s[0] == '"') return true;
  if (keyword && s[0] == '#') return true;
  for (const char *p = s; *p; ++p) {
    if (*p == '\n' || *p == '\r') return true;
    if (keyword && *p == '=') return true;
  }
  return false;
}

int WriteText(FILE *out, const char *s, bool keyword) {
  if (!NeedsQuotes(s, keyword)) return fputs(s, out) < 0 ? -1 : 0;
  std::string q = "\"";
  for (const char *p = s; *p; ++p) {
    switch (*p) {
      case '\\': q += "\\\\"; break;
      case '"': q += "\\\""; break;
      case '\n': q += "\\n"; break;
      case '\r': q += "\\r"; break;
      default: q.push_back(*p);
    }
  }
  q.push_back('"');
  return fputs(q.c_str(), out) < 0 ? -1 : 0;
}

}  // namespace

extern "C" {

KeywordList *KeywordStreamToList(FILE *in) {
  if (in == nullptr) return nullptr;
  KeywordList *list = CreateKeywordList();
  if (list == nullptr) return nullptr;
  char *buf = nullptr;
  size_t cap = 0;
  ssize_t n;
  int lineno = 0;
  std::string line, kw, value;
  while ((n = getline(&buf, &cap, in)) >= 0) {
    ++lineno;
    line.assign(buf, static_cast<size_t>(n));
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    kw.clear();
    value.clear();
    bool skip = false;
    if (const char *why = ParseLine(line, &kw, &value, &skip)) {
      pv::Trace(3, kModule, "line %d: %s; line skipped", lineno, why);
      continue;
    }
    if (skip) continue;
    if (AddKeywordToList(list, kw.c_str(), value.c_str()) != KWL_OK) {
      free(buf);
      DestroyKeywordList(list);
      return nullptr;
    }
  }
  free(buf);
  list->kwl_cursor = list->kwl_first;
  return list;
}

int KeywordListToStream(FILE *out, KeywordList *list) {
  if (out == nullptr) return -1;
  int rc = ValidKeywordList(list);
  if (rc != KWL_OK) return rc;
  // Walk the chain directly: writing a list must not move its cursor.
  for (KeywordEntry *saved = list->kwl_cursor, *e = list->kwl_first; e != nullptr;) {
    list->kwl_cursor = e;
    char *kw;
    char *value;
    ReferenceNextKeywordInList(list, &kw, &value);
    e = list->kwl_cursor;
    list->kwl_cursor = saved;
    if (WriteText(out, kw, true) != 0 || fputc('=', out) == EOF ||
        WriteText(out, value, false) != 0 || fputc('\n', out) == EOF)
      return -1;
  }
  return fflush(out) == 0 ? 0 : -1;
}

}  // extern "C"
