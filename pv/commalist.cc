// Comma lists. The array is: one pointer per item, a null pointer, then the
// address of the one block that holds every item string, so that freeing the
// block and the array frees everything.
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "pv.h"

namespace {

std::string_view Trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

// Calls fn(item) for each non-empty trimmed item; stops when fn returns true.
template <typename Fn>
bool ForEachItem(std::string_view text, Fn fn) {
  for (;;) {
    size_t comma = text.find(',');
    std::string_view item = Trim(text.substr(0, comma));
    if (!item.empty() && fn(item)) return true;
    if (comma == std::string_view::npos) return false;
    text.remove_prefix(comma + 1);
  }
}

}  // namespace

extern "C" {

CommaList ParseCommaList(const char *text) {
  if (text == nullptr) return nullptr;
  std::vector<std::string_view> items;
  size_t bytes = 0;
  ForEachItem(text, [&](std::string_view item) {
    items.push_back(item);
    bytes += item.size() + 1;
    return false;
  });
  auto **array = static_cast<char **>(malloc((items.size() + 2) * sizeof(char *)));
  if (array == nullptr) return nullptr;
  char *block = nullptr;
  if (!items.empty()) {
    block = static_cast<char *>(malloc(bytes));
    if (block == nullptr) {
      free(array);
      return nullptr;
    }
  }
  char *p = block;
  for (size_t i = 0; i < items.size(); ++i) {
    memcpy(p, items[i].data(), items[i].size());
    p[items[i].size()] = '\0';
    array[i] = p;
    p += items[i].size() + 1;
  }
  array[items.size()] = nullptr;
  array[items.size() + 1] = block;
  return array;
}

int IsInCommaList(const char *item, const char *text) {
  if (item == nullptr || text == nullptr) return 0;
  std::string_view want = Trim(item);
  if (want.empty()) return 0;
  return ForEachItem(text, [want](std::string_view have) { return have == want; }) ? 1 : 0;
}

}  // extern "C"
