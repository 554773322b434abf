#include "command.h"

#include <cstring>

namespace qd {

namespace {

// Characters the shell takes literally outside quotes.
bool Plain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::strchr("_-./,:@%+=", c) != nullptr;
}

}  // namespace

CommandLine &CommandLine::Raw(std::string_view text) {
  text_.append(text);
  return *this;
}

CommandLine &CommandLine::Word(std::string_view word) {
  if (!word.empty() && word[0] == '-') {
    if (error_ == nullptr) error_ = "argument would be read as an option";
    return *this;
  }
  bool plain = !word.empty();
  for (char c : word) plain = plain && Plain(c);
  if (plain) {
    text_.append(word);
    return *this;
  }
  // Single quotes keep everything literal; a single quote itself is closed
  // out, escaped and reopened.
  text_.push_back('\'');
  for (char c : word) {
    if (c == '\'')
      text_.append("'\\''");
    else
      text_.push_back(c);
  }
  text_.push_back('\'');
  return *this;
}

bool CommandLine::CopyTo(char *buf) {
  if (error_ != nullptr) return false;
  if (text_.size() + kRedirectRoom + 1 > capacity_) {
    error_ = "command line too long";
    return false;
  }
  std::memcpy(buf, text_.c_str(), text_.size() + 1);
  return true;
}

}  // namespace qd
