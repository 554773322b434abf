// qdadm's output: keyword=value lines, or JSON with --json.
#ifndef QDADM_OUTPUT_H
#define QDADM_OUTPUT_H

#include <string>
#include <utility>
#include <vector>

namespace qdadm {

using Pairs = std::vector<std::pair<std::string, std::string>>;

// One step of a method list: its operators and what it runs.
struct Step {
  std::string pre, post;  // operator characters, in the order they apply
  std::string kind;       // "command" or "function"
  std::string value;      // the command line or library.function
};

class Output {
 public:
  explicit Output(bool json) : json_(json) {}
  // One value: NAME=VALUE, or {"NAME": "VALUE"}.
  void Value(const std::string &name, const std::string &value);
  // Several named values of one thing.
  void Fields(const Pairs &fields);
  // An object: alias, attributes, methods.
  void Object(const std::string &alias, const Pairs &attributes, const Pairs &methods);
  // A list of aliases, one a line, or a JSON array.
  void Aliases(const std::vector<std::string> &aliases);
  // Numbered steps: "N KIND pre=OPS post=OPS VALUE" lines, or a JSON array.
  void Steps(const std::vector<Step> &steps);

 private:
  bool json_;
};

std::string JsonString(const std::string &s);

}  // namespace qdadm

#endif
