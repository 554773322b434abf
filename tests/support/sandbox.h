// A private world for one test: a temporary directory holding a copy of the
// sample table, TAV_DEVTAB pointing at it, a settings file and an archive
// directory of its own, no time stamp, and the device commands of this
// build first on PATH.
#ifndef TESTS_SANDBOX_H
#define TESTS_SANDBOX_H

#include <string>
#include <vector>

namespace testing_support {

class Sandbox {
 public:
  Sandbox();  // copies examples/units.tab into the sandbox as units.tab
  ~Sandbox();
  Sandbox(const Sandbox &) = delete;
  Sandbox &operator=(const Sandbox &) = delete;

  const std::string &dir() const { return dir_; }
  const std::string &table() const { return table_; }
  std::string Path(const std::string &name) const { return dir_ + "/" + name; }

  void WriteTable(const std::string &content) const;  // replaces the table
  std::string ReadTable() const;
  // How many files in the sandbox's directory have names starting with prefix.
  int Count(const std::string &prefix) const;

 private:
  std::string dir_;
  std::string table_;
};

std::string ReadFile(const std::string &path);
void WriteFile(const std::string &path, const std::string &content);
std::string SampleTablePath();

// Runs a program (no shell) with argv; returns its exit status, or -1 when
// killed. Captures standard output and standard error.
struct RunResult {
  int status = -1;
  std::string out;
  std::string err;
};
RunResult RunProgram(const std::vector<std::string> &argv, const std::string &input = "");
// The path of a device command of this build.
std::string Command(const std::string &name);

// Puts a stand-in for a device command first on PATH: it appends its
// arguments, as <arg><arg>..., one call a line, to the file it returns the
// path of, then runs `body` (shell text) and exits with its status.
std::string FakeCommand(const Sandbox &box, const std::string &name, const std::string &body);

}  // namespace testing_support

#endif
