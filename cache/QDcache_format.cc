// Writing table entries: the escapes, the head of an entry and its pairs.
//
// Heads and pairs longer than the writer's buffers are written in full from
// buffers sized to them: an entry is never cut and never lost.
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
  // The head is escaped into a buffer of its own size (at least the usual
  // 512 bytes), so no head is ever cut.
  size_t need = strlenesc(alias) + 4 + 1;
  const char *positional[] = {"cdevice", "bdevice", "pathname"};
  char *values[3] = {nullptr, nullptr, nullptr};
  for (int i = 0; i < 3; ++i) {
    char *kw;
    if (attributes != nullptr && ReferenceKeywordInList(attributes, positional[i], &kw, &values[i]) == 0)
      need += strlenesc(values[i]);
    else
      values[i] = nullptr;
  }
  std::string &head = HeadBuffer();
  head.assign(need < 512 ? 512 : need + 1, '\0');
  // An alias that starts like a comment or blank line would be skipped by
  // readers: its first character takes a backslash too.
  bool guard = *alias == '#' || *alias == ' ' || *alias == '\t';
  if (guard) head[0] = '\\';
  strcpyesc(&head[guard ? 1 : 0], alias);
  strcat(&head[0], ":");
  for (int i = 0; i < 3; ++i) {
    if (values[i] != nullptr) {
      strcatesc(&head[0], values[i]);
      RemoveKeywordFmList(attributes, positional[i]);  // values[i] is gone now
    }
    strcat(&head[0], ":");
  }
  if (fprintf(QDlock_fptr, "%s", head.c_str()) < 0) {
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
  buffer.reserve(kPairBuffer);
  auto write_out = [&]() {
    if (fprintf(stream, "%s", buffer.c_str()) < 0) {
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
    size_t klen = strlenesc(kw), vlen = strlenesc(value);
    if (buffer.size() + klen + vlen + 8 >= kPairBuffer && !buffer.empty() && !write_out()) return -1;
    size_t at = buffer.size();
    buffer.resize(at + (blank ? 1 : 0) + klen + 2 + vlen + 1);
    char *p = &buffer[at];
    if (blank) *p++ = ' ';
    strcpyesc(p, kw);
    p += klen;
    *p++ = '=';
    *p++ = '"';
    p += strcpyesc_omit_ch(p, value, '"');
    *p++ = '"';
    buffer.resize(static_cast<size_t>(p - buffer.data()));
    blank = 1;
  }
  if (st != KWL_END) rc = st;
  if (buffer.size() > 1 && !write_out()) return -1;
  return rc;
}

int QDcache_flush_put(const char *alias, KeywordList *attributes, KeywordList *methods) {
  if (flush_alias_to_stream(alias, attributes) != 0) return -1;
  if (attributes != nullptr && flush_kwlist_to_stream(QDlock_fptr, attributes, 0) != 0) return -1;
  if (methods != nullptr && flush_kwlist_to_stream(QDlock_fptr, methods, attributes != nullptr) != 0)
    return -1;
  if (fprintf(QDlock_fptr, "\n") < 0) {
    QDtrace(3, "QDcache_flush_put", "QDcache_flush_put: fprintf failed, errno %d", errno);
    return -1;
  }
  return 0;
}

}  // extern "C"
