// Bytes as a keyword stream. Whatever list the reader makes of them, the
// writer must put into text that reads back as the same list.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "pv.h"

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

[[noreturn]] void Fail(const char *what, const std::string &text) {
  fprintf(stderr, "%s\ntext (%zu bytes): %s\n", what, text.size(), text.c_str());
  abort();
}

KeywordList *ReadText(const void *data, size_t size) {
  FILE *in = fmemopen(const_cast<void *>(data), size, "r");
  if (in == nullptr) abort();
  KeywordList *list = KeywordStreamToList(in);
  fclose(in);
  if (list == nullptr) abort();
  return list;
}

std::string WriteText(KeywordList *list) {
  char *buf = nullptr;
  size_t len = 0;
  FILE *out = open_memstream(&buf, &len);
  if (out == nullptr) abort();
  int rc = KeywordListToStream(out, list);
  fclose(out);
  std::string text(buf, len);
  free(buf);
  if (rc != 0) Fail("writing the list failed", text);
  return text;
}

Pairs Entries(KeywordList *list) {
  Pairs out;
  list->kwl_cursor = list->kwl_first;
  char *kw = nullptr;
  char *value = nullptr;
  while (ReferenceNextKeywordInList(list, &kw, &value) == KWL_OK) out.emplace_back(kw, value);
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;  // fmemopen wants a buffer
  KeywordList *first = ReadText(data, size);
  std::string text = WriteText(first);
  KeywordList *second = text.empty() ? CreateKeywordList() : ReadText(text.data(), text.size());
  Pairs a = Entries(first), b = Entries(second);
  if (static_cast<int>(a.size()) != NumberOfKeywords(first))
    Fail("an entry read from a stream was not delivered with status 0", text);
  if (a != b) Fail("the written list reads back changed", text);
  if (WriteText(second) != text) Fail("writing the list again gives other text", text);
  DestroyKeywordList(first);
  DestroyKeywordList(second);
  return 0;
}
