// qdadm's output: keyword=value lines, or JSON with --json.
#ifndef QDADM_OUTPUT_H
#define QDADM_OUTPUT_H

#include <string>
#include <utility>
#include <vector>

namespace qdadm {

using Pairs = std::vector<std::pair<std::string, std::string>>;
using Numbers = std::vector<std::pair<std::string, long long>>;
using Lists = std::vector<std::pair<std::string, std::vector<std::string>>>;

// One step of a method list: its operators and what it runs.
struct Step {
  std::string pre, post;  // operator characters, in the order they apply
  std::string kind;       // "command" or "function"
  std::string value;      // the command line or library.function
};

// An object as printed: its alias, attributes and methods.
struct ObjectView {
  std::string alias;
  Pairs attributes, methods;
};

// One entry of a containment tree, in the order a depth-first walk meets it.
struct TreeRow {
  size_t depth;       // 0 for the entry asked about
  std::string alias;
  bool repeated;      // already above it in the tree: not followed again
};

class Output {
 public:
  explicit Output(bool json) : json_(json) {}
  bool json() const { return json_; }
  // One value: NAME=VALUE, or {"NAME": "VALUE"}.
  void Value(const std::string &name, const std::string &value);
  // Several named values of one thing.
  void Fields(const Pairs &fields);
  // Several named numbers: NAME=N lines, or a JSON object of numbers.
  void Counts(const Numbers &counts);
  // An object: alias, attributes, methods.
  void Object(const std::string &alias, const Pairs &attributes, const Pairs &methods);
  // Several objects: blocks as Object prints them parted by an empty line,
  // or a JSON array of objects.
  void Objects(const std::vector<ObjectView> &objects);
  // A list of aliases, one a line, or a JSON array.
  void Aliases(const std::vector<std::string> &aliases);
  // Several things of one kind: blocks of NAME=VALUE lines parted by an
  // empty line, or a JSON array of objects.
  void Records(const std::vector<Pairs> &records);
  // Named values, then named lists (one NAME=ITEM line per item), or one
  // JSON object whose lists are arrays.
  void Report(const Pairs &fields, const Lists &lists);
  // Numbered steps: "N KIND pre=OPS post=OPS VALUE" lines, or a JSON array.
  void Steps(const std::vector<Step> &steps);
  // A tree: one alias a line, indented two blanks a level, or nested JSON
  // objects {"alias", "contains": [...]} ("repeated": true where not followed).
  void Tree(const std::vector<TreeRow> &rows);
  // Numbered acts: "N VALUE..." lines of each act's values, or a JSON array
  // of objects with "step" and the act's fields.
  void Acts(const std::vector<Pairs> &acts);

 private:
  bool json_;
};

std::string JsonString(const std::string &s);

}  // namespace qdadm

#endif
