#include "sandbox.h"

#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char **environ;

namespace testing_support {

std::string SampleTablePath() { return std::string(QD_TEST_SOURCE_DIR) + "/examples/units.tab"; }

std::string Command(const std::string &name) { return std::string(QD_TEST_COMMANDS_DIR) + "/" + name; }

std::string ReadFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void WriteFile(const std::string &path, const std::string &content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + path);
}

Sandbox::Sandbox() {
  char templ[] = "/tmp/qdtest.XXXXXX";
  if (mkdtemp(templ) == nullptr) throw std::runtime_error("mkdtemp failed");
  dir_ = templ;
  table_ = dir_ + "/units.tab";
  WriteFile(table_, ReadFile(SampleTablePath()));
  setenv("TAV_DEVTAB", table_.c_str(), 1);
  // Settings, archive and time stamps of the test's own.
  setenv("TAV_LIBQDRC", Path("rc").c_str(), 1);
  setenv("QD_ARCHIVE_DIR_PATH", Path("archive").c_str(), 1);
  unsetenv("QD_TIMESTAMP");
  const char *path = getenv("PATH");
  std::string newpath = std::string(QD_TEST_COMMANDS_DIR) + ":" + (path ? path : "/usr/bin:/bin");
  setenv("PATH", newpath.c_str(), 1);
}

Sandbox::~Sandbox() {
  std::error_code ignored;  // a directory left behind is not worth failing a test for
  std::filesystem::remove_all(dir_, ignored);
}

std::string FakeCommand(const Sandbox &box, const std::string &name, const std::string &body) {
  std::string bin = box.Path("fakebin");
  mkdir(bin.c_str(), 0755);
  std::string log = box.Path(name + ".log");
  WriteFile(bin + "/" + name, "#!/bin/sh\nfor a; do printf '<%s>' \"$a\"; done >> '" + log + "'\necho >> '" +
                                  log + "'\n" + body + "\n");
  chmod((bin + "/" + name).c_str(), 0755);
  std::string path = bin + ":" + getenv("PATH");
  setenv("PATH", path.c_str(), 1);
  return log;
}

void Sandbox::WriteTable(const std::string &content) const { WriteFile(table_, content); }

std::string Sandbox::ReadTable() const { return ReadFile(table_); }

int Sandbox::Count(const std::string &prefix) const {
  int n = 0;
  for (const auto &e : std::filesystem::directory_iterator(dir_)) n += e.path().filename().string().rfind(prefix, 0) == 0;
  return n;
}

namespace {

// What the program wrote into the file, from its start.
std::string Drain(FILE *file) {
  rewind(file);
  std::string s;
  char buf[65536];
  for (size_t n; (n = fread(buf, 1, sizeof buf, file)) > 0;) s.append(buf, n);
  return s;
}

}  // namespace

RunResult RunProgram(const std::vector<std::string> &argv, const std::string &input) {
  FILE *in = tmpfile(), *out = tmpfile(), *err = tmpfile();  // each removed when closed
  if (in == nullptr || out == nullptr || err == nullptr) throw std::runtime_error("tmpfile failed");
  if (fwrite(input.data(), 1, input.size(), in) != input.size() || fflush(in) != 0)
    throw std::runtime_error("short write");
  rewind(in);
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_adddup2(&fa, fileno(in), 0);
  posix_spawn_file_actions_adddup2(&fa, fileno(out), 1);
  posix_spawn_file_actions_adddup2(&fa, fileno(err), 2);
  std::vector<char *> args;
  for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
  args.push_back(nullptr);
  pid_t pid;
  RunResult r;
  if (posix_spawnp(&pid, args[0], &fa, nullptr, args.data(), environ) == 0) {
    int st = 0;
    while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
    }
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  }
  posix_spawn_file_actions_destroy(&fa);
  r.out = Drain(out);
  r.err = Drain(err);
  for (FILE *f : {in, out, err}) fclose(f);
  return r;
}

}  // namespace testing_support
