// Writing table entries: the escapes, the head of an entry and its pairs.
//
// Heads and pairs are built in buffers that grow to what they need: an
// entry is never cut and never lost.
#include <cerrno>
#include <cstring>
#include <string>

#include "cache_state.h"

namespace {

constexpr size_t kPairBuffer = 4096;

// The characters that take a backslash: colon, backslash, double quote, newline.
struct SpecialTable {
  bool special[256] = {};
  SpecialTable() {
    for (unsigned char c : {':', '\\', '"', '\n'}) special[c] = true;
  }
};
const SpecialTable kSpecial;

bool Special(char c) { return kSpecial.special[static_cast<unsigned char>(c)]; }

// The writer's buffers, kept from entry to entry: a flush writes every entry.
std::string &HeadBuffer() {
  static std::string buffer;
  return buffer;
}
std::string &PairBuffer() {
  static std::string buffer;
  return buffer;
}

// Appends s with its special characters escaped, leaving out the character
// `omit` (none when it is -1).
void AppendEscaped(std::string *out, const char *s, int omit) {
  auto omitted = [omit](char c) { return omit >= 0 && c == static_cast<char>(omit); };
  for (;;) {
    const char *run = s;
    while (*s != '\0' && !Special(*s) && !omitted(*s)) ++s;
    out->append(run, static_cast<size_t>(s - run));
    if (*s == '\0') return;
    if (!omitted(*s)) {
      *out += '\\';
      *out += *s;
    }
    ++s;
  }
}

}  // namespace

extern "C" {

size_t strlenesc(const char *s) {
  size_t n = 0;
  for (; *s; ++s) n += Special(*s) ? 2 : 1;
  return n;
}

char *strcpyesc(char *dest, const char *src) {
  char *d = dest;
  for (; *src; ++src) {
    if (Special(*src)) *d++ = '\\';
    *d++ = *src;
  }
  *d = '\0';
  return dest;
}

char *strcatesc(char *dest, const char *src) {
  strcpyesc(dest + strlen(dest), src);
  return dest;
}

int strcpyesc_omit_ch(char *dest, const char *src, int ch) {
  char *d = dest;
  for (; *src; ++src) {
    if (*src == static_cast<char>(ch)) continue;
    if (Special(*src)) *d++ = '\\';
    *d++ = *src;
  }
  *d = '\0';
  return static_cast<int>(d - dest);
}

int flush_alias_to_stream(const char *alias, KeywordList *attributes) {
  // The head grows to whatever it needs, so no head is ever cut.
  std::string &head = HeadBuffer();
  head.clear();
  // An alias that starts like a comment or blank line would be skipped by
  // readers: its first character takes a backslash too.
  if (*alias == '#' || *alias == ' ' || *alias == '\t') head += '\\';
  AppendEscaped(&head, alias, -1);
  head += ':';
  for (const char *positional : {"cdevice", "bdevice", "pathname"}) {
    char *kw;
    char *value;
    if (attributes != nullptr && ReferenceKeywordInList(attributes, positional, &kw, &value) == 0) {
      AppendEscaped(&head, value, -1);
      RemoveKeywordFmList(attributes, positional);  // value is gone now
    }
    head += ':';
  }
  if (fwrite(head.data(), 1, head.size(), QDlock_fptr) != head.size()) {
    QDtrace(3, "flush_alias_to_stream", "flush_alias_to_stream: fprintf failed, errno %d", errno);
    return -1;
  }
  return 0;
}

int flush_kwlist_to_stream(FILE *stream, KeywordList *list, int blank) {
  vcel_errno = 0;
  int rc = ValidKeywordList(list);
  if (rc != 0) return rc;
  list->kwl_cursor = list->kwl_first;
  std::string &buffer = PairBuffer();
  buffer.clear();
  auto write_out = [&]() {
    if (fwrite(buffer.data(), 1, buffer.size(), stream) != buffer.size()) {
      QDtrace(3, "flush_kwlist_to_stream", "flush_kwlist_to_stream: fprintf failed, errno %d", errno);
      return false;
    }
    buffer.clear();
    return true;
  };
  char *kw;
  char *value;
  int st;
  while ((st = ReferenceNextKeywordInList(list, &kw, &value)) == KWL_OK || st == KWL_WARN) {
    if (buffer.size() >= kPairBuffer && !write_out()) return -1;
    if (blank) buffer += ' ';
    AppendEscaped(&buffer, kw, -1);
    buffer += "=\"";
    AppendEscaped(&buffer, value, '"');
    buffer += '"';
    blank = 1;
  }
  if (st != KWL_END) rc = st;
  if (!buffer.empty() && !write_out()) return -1;
  return rc;
}

int QDcache_flush_put(const char *alias, KeywordList *attributes, KeywordList *methods) {
  if (flush_alias_to_stream(alias, attributes) != 0) return -1;
  if (attributes != nullptr && flush_kwlist_to_stream(QDlock_fptr, attributes, 0) != 0) return -1;
  if (methods != nullptr && flush_kwlist_to_stream(QDlock_fptr, methods, attributes != nullptr) != 0)
    return -1;
  if (fputc('\n', QDlock_fptr) == EOF) {
    QDtrace(3, "QDcache_flush_put", "QDcache_flush_put: fprintf failed, errno %d", errno);
    return -1;
  }
  return 0;
}

}  // extern "C"
