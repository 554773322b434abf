// Building device command lines. Every alias, name and value reaches the
// device command literally: the shell sees each as one quoted word, so no
// expansion, substitution, splitting or redirection can come of it.
#ifndef QD_FRONT_COMMAND_H
#define QD_FRONT_COMMAND_H

#include <cstddef>
#include <string>
#include <string_view>

namespace qd {

// Room ExecuteCommand needs after the text for its " 2>/dev/null".
constexpr size_t kRedirectRoom = 12;

// A command line bound for a fixed buffer of `capacity` bytes.
class CommandLine {
 public:
  explicit CommandLine(size_t capacity) : capacity_(capacity) {}

  // Appends text as it stands (the command name, options, separators).
  CommandLine &Raw(std::string_view text);
  // Appends one argument word, quoted for the shell where it needs it. A word
  // the device command would take for an option (a leading '-') cannot be
  // passed safely and fails the line.
  CommandLine &Word(std::string_view word);

  // Why the line cannot be used, or nullptr.
  const char *error() const { return error_; }
  // Copies the line with its terminator into buf (of the capacity given),
  // leaving room for the redirection. False when it fails or does not fit.
  bool CopyTo(char *buf);
  const std::string &text() const { return text_; }

 private:
  std::string text_;
  size_t capacity_;
  const char *error_ = nullptr;
};

}  // namespace qd

#endif
