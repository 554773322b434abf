#include "pathutil.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "qd.h"

namespace qd {

namespace {

std::string StripTrailingSlashes(std::string p) {
  while (p.size() > 1 && p.back() == '/') p.pop_back();
  return p;
}

}  // namespace

std::string Basename(const std::string &path) {
  if (path.empty()) return ".";
  std::string p = StripTrailingSlashes(path);
  if (p == "/") return "/";
  size_t slash = p.rfind('/');
  return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string Dirname(const std::string &path) {
  std::string p = StripTrailingSlashes(path);
  size_t slash = p.rfind('/');
  if (slash == std::string::npos) return ".";
  while (slash > 0 && p[slash - 1] == '/') --slash;
  return slash == 0 ? "/" : p.substr(0, slash);
}

}  // namespace qd

extern "C" int mkdirp(const char *path, mode_t mode) {
  // Runs of slashes count as one.
  std::string p;
  for (const char *c = path; *c; ++c)
    if (!(*c == '/' && !p.empty() && p.back() == '/')) p.push_back(*c);
  if (p.empty()) return -1;
  if (mkdir(p.c_str(), mode) == 0) return 0;
  if (errno == EEXIST) {
    struct stat st;
    if (stat(p.c_str(), &st) != 0) return -1;
    if (S_ISDIR(st.st_mode)) return 0;
    errno = ENOTDIR;  // callers report why: "File exists" would mislead
    return -1;
  }
  if (errno != ENOENT) return -1;
  // Make the missing ancestors outermost first, then this one.
  std::string parent = qd::Dirname(p);
  if (parent == p || mkdirp(parent.c_str(), 0777) != 0) return -1;
  if (mkdir(p.c_str(), 0777) != 0 && errno != EEXIST) return -1;
  if (mode != 0777 && chmod(p.c_str(), mode) != 0) return -1;
  return 0;
}
