// Bytes as a meta-method value. A value is refused whole or gives, for each
// element, its operators and then its name, with the defaults in place.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "qd.h"

namespace {

[[noreturn]] void Fail(const char *what, const std::string &value) {
  fprintf(stderr, "%s\nvalue (%zu bytes): %s\n", what, value.size(), value.c_str());
  abort();
}

bool Only(const std::string &s, const char *allowed) { return s.find_first_not_of(allowed) == std::string::npos; }

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  setenv("VCEL_TRACE_FILE", "/dev/null", 1);
  vcel_verbose_level = 8;  // every trace line is formatted
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string value(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));
  CommaList items = ParseCommaList(value.c_str());
  if (items == nullptr) abort();
  size_t n = 0, longest = 0;
  for (; items[n] != nullptr; ++n) longest = std::max(longest, strlen(items[n]));
  DestroyCommaList(items);
  KeywordList *list = QDparsemetavalue(value.c_str());
  if (list == nullptr) {
    if (longest <= META_OPS_MAX) Fail("a value without a long element was refused", value);
    return 0;
  }
  std::vector<std::pair<std::string, std::string>> entries;
  char *kw;
  char *v;
  while (ReferenceNextKeywordInList(list, &kw, &v) == KWL_OK) entries.emplace_back(kw, v);
  size_t i = 0, element = 0;
  while (i < entries.size()) {
    bool pre = entries[i].first == META_PRE_OP, post;
    if (pre && !Only(entries[i++].second, "umk")) Fail("a pre-operator that is none", value);
    if ((post = i < entries.size() && entries[i].first == META_POST_OP)) {
      const std::string &ops = entries[i++].second;
      char *again = QDParsePostOps(ops.c_str());
      if (!Only(ops, "?!-+x") || ops.find_first_of("?!") == std::string::npos ||
          ops.find_first_of("-+x") == std::string::npos || again == nullptr || ops != again)
        Fail("post-operators not normalised", value);
      free(again);
    }
    if (i == entries.size() || entries[i].first != META_FCN || entries[i].second.size() > META_NAME_MAX ||
        entries[i++].second.empty())
      Fail("an element without its name", value);
    if (n > 1 && (!pre || (!post && element + 1 < n))) Fail("an element without its default operators", value);
    ++element;
  }
  if (element != n) Fail("elements lost or invented", value);
  DestroyKeywordList(list);
  return 0;
}
