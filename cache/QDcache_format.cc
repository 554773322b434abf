// Writing table entries: the escapes, the head of an entry and its pairs.
//
// Heads and pairs are built in buffers that grow to what they need: an
// entry is never cut and never lost.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

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

// A buffer that grows to what it is asked to hold; kept from entry to entry,
// as a flush writes every entry.
class Buffer {
 public:
  void clear() { used_ = 0; }
  size_t size() const { return used_; }
  bool empty() const { return used_ == 0; }
  const char *data() const { return data_.data(); }
  // Room for n more characters, at the returned position.
  char *Room(size_t n) {
    if (used_ + n > data_.size()) data_.resize(std::max(data_.size() * 2, used_ + n + 4096));
    return data_.data() + used_;
  }
  void Grow(size_t n) { used_ += n; }
  void Put(char c) {
    *Room(1) = c;
    ++used_;
  }
  void Put(const char *s, size_t n) {
    if (n == 0) return;  // an unused buffer has no storage to copy into
    memcpy(Room(n), s, n);
    used_ += n;
  }

 private:
  std::vector<char> data_;
  size_t used_ = 0;
};

Buffer &HeadBuffer() {
  static Buffer buffer;
  return buffer;
}
Buffer &PairBuffer() {
  static Buffer buffer;
  return buffer;
}

// Appends s with its special characters escaped, leaving out the character
// `omit` (none when it is -1). Most strings hold no special character at
// all: they are found in runs and copied whole.
void AppendEscaped(Buffer *out, const char *s, int omit) {
  for (;;) {
    size_t run = strcspn(s, ":\\\"\n");
    out->Put(s, run);
    s += run;
    if (*s == '\0') return;
    if (omit < 0 || *s != static_cast<char>(omit)) {
      char pair[2] = {'\\', *s};
      out->Put(pair, 2);
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
  Buffer &head = HeadBuffer();
  head.clear();
  // An alias that starts like a comment or blank line would be skipped by
  // readers: its first character takes a backslash too.
  if (*alias == '#' || *alias == ' ' || *alias == '\t') head.Put('\\');
  AppendEscaped(&head, alias, -1);
  head.Put(':');
  // The positional fields as a lookup of each finds them, in one walk: the
  // first entry of the keyword, taken only when it has a value.
  static const char *const kPositional[3] = {"cdevice", "bdevice", "pathname"};
  int status[3] = {KWL_NOTFOUND, KWL_NOTFOUND, KWL_NOTFOUND};
  char *found[3] = {};
  if (attributes != nullptr) {
    attributes->kwl_cursor = attributes->kwl_first;
    char *kw;
    char *value;
    int st;
    while ((st = ReferenceNextKeywordInList(attributes, &kw, &value)) == KWL_OK || st == KWL_WARN) {
      int i = kw[0] == 'c' ? 0 : kw[0] == 'b' ? 1 : kw[0] == 'p' ? 2 : -1;
      if (i >= 0 && status[i] == KWL_NOTFOUND && strcmp(kw, kPositional[i]) == 0) {
        status[i] = st;
        found[i] = value;
      }
    }
  }
  for (int i = 0; i < 3; ++i) {
    if (status[i] == KWL_OK) AppendEscaped(&head, found[i], -1);
    head.Put(':');
  }
  for (int i = 0; i < 3; ++i)
    if (status[i] == KWL_OK) RemoveKeywordFmList(attributes, kPositional[i]);  // the values go with it
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
  Buffer &buffer = PairBuffer();
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
    if (blank) buffer.Put(' ');
    AppendEscaped(&buffer, kw, -1);
    buffer.Put("=\"", 2);
    AppendEscaped(&buffer, value, '"');
    buffer.Put('"');
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
