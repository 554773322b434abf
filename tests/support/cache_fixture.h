// A sandbox for cache tests: its own settings file and archive directory,
// and helpers to read what the cache and the archive hold.
#ifndef TESTS_SUPPORT_CACHE_FIXTURE_H
#define TESTS_SUPPORT_CACHE_FIXTURE_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "list_util.h"
#include "sandbox.h"

class CacheTest : public testing::Test {
 protected:
  void TearDown() override { QDcache_free(); }
  void Settings(const std::string &text) const { testing_support::WriteFile(box_.Path("rc"), text); }

  static std::string Attr(const char *alias, const char *name) {
    oce *e = QDcache_find_alias(alias);
    if (e == nullptr) return "<no entry>";
    char *kw, *value;
    if (ReferenceKeywordInList(e->objptr->attributes, name, &kw, &value) == 0) return value;
    if (ReferenceKeywordInList(e->objptr->methods, name, &kw, &value) == 0) return value;
    return "<none>";
  }
  // Files under the archive directory, as "rundir/alias".
  std::vector<std::string> Archived() const {
    std::vector<std::string> out;
    std::error_code none;
    for (const auto &e : std::filesystem::recursive_directory_iterator(box_.Path("archive"), none))
      if (e.is_regular_file() && e.path().filename().string()[0] != '.') out.push_back(e.path().parent_path().filename().string() + "/" + e.path().filename().string());
    return out;
  }
  static KeywordList *List(std::initializer_list<std::pair<const char *, const char *>> pairs) {
    KeywordList *l = CreateKeywordList();
    for (auto &p : pairs) AddKeywordToList(l, p.first, p.second);
    return l;
  }

  testing_support::Sandbox box_;
};

#endif
