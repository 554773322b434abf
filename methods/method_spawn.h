// The one place that starts method commands.
//
// A command method's text is "CMD    2>/dev/null << 'EOF'", newline, the
// parameter lines, and "'EOF'" plus the runner's redirection. Handed to a
// shell as it stands, a parameter line "EOF" would end the here-document
// early and the lines after it would run as commands. So the text is never
// handed over whole: the shell gets its command part, with the here-document
// operator replaced by a redirection from descriptor 3 at the same place
// (so it reaches the same command of a pipeline or list), and descriptor 3
// holds the rest of the text as plain data.
//
// A command that never ends keeps its caller waiting, as with popen; so
// does one that leaves a background process holding its standard output.
#ifndef QD_METHODS_METHOD_SPAWN_H
#define QD_METHODS_METHOD_SPAWN_H

#include <sys/types.h>

#include <string>

namespace qdmethods {

// A command text taken apart as a shell would read it.
struct ShellText {
  std::string script;  // what the shell runs
  std::string body;    // the here-document's lines, fed on descriptor 3
  bool has_body = false;
};
ShellText SplitCommandText(const std::string &text);

// One running method command: /bin/sh -c script, its standard output a
// pipe. Not copyable; the destructor closes the pipe and reaps the child.
class Child {
 public:
  Child() = default;
  ~Child();
  Child(const Child &) = delete;
  Child &operator=(const Child &) = delete;

  // False (errno set) when the command could not be started.
  bool Start(const ShellText &text);
  // The read end of the command's standard output; the caller owns it from
  // now on (-1 when there is none).
  int TakeOutput();
  // The wait status; -1 when there is no child or waiting failed.
  int Wait();

 private:
  pid_t pid_ = -1;
  int out_ = -1;
};

}  // namespace qdmethods

#endif
