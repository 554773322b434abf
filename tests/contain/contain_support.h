// What the containment, destroy and clean-up cases share: a sandbox table
// with entries added, and objects, chains and result lists as text.
#ifndef TESTS_CONTAIN_CONTAIN_SUPPORT_H
#define TESTS_CONTAIN_CONTAIN_SUPPORT_H

#include <string>
#include <vector>

#include "cache_fixture.h"
#include "list_util.h"

class ContainTest : public CacheTest {
 protected:
  void Add(const std::string &lines) const {
    box_.WriteTable(testing_support::ReadFile(testing_support::SampleTablePath()) + lines);
  }
  // The tree depth first in chain order, one word an object: a dot a level.
  static std::string Tree(const ObjectRecord *top) {
    std::string out = top->alias;
    std::vector<std::pair<const ContainedNode *, std::string>> stack{{top->contained, "."}};
    while (!stack.empty()) {
      auto &[node, dots] = stack.back();
      if (node == nullptr) {
        stack.pop_back();
        continue;
      }
      const ObjectRecord *o = node->object;
      node = node->next;
      out += " " + dots + o->alias;
      std::string deeper = dots + ".";
      if (o->contained != nullptr) stack.push_back({o->contained, deeper});
    }
    return out;
  }
  // Every entry, "keyword=value" joined by "|"; the list is destroyed.
  static std::string Text(KeywordList *list) {
    if (list == nullptr) return "<null>";
    std::string out;
    for (const auto &p : pvtest::All(list)) out += (out.empty() ? "" : "|") + p.first + "=" + p.second;
    DestroyKeywordList(list);
    return out;
  }
};

#endif
