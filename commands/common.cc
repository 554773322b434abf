#include "common.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "qd_paths.h"

namespace unitcmd {

const char *program = "unit";

std::string TablePath(const char *option) {
  if (option != nullptr) return option;
  const char *env = getenv("TAV_DEVTAB");
  return env != nullptr && *env != '\0' ? env : QD_DEVTAB_PATH;
}

bool OpenTable(const std::string &path, devtab::TableReader *reader) {
  int err = reader->OpenFile(path);
  if (err != 0) Fail("cannot read %s: %s", path.c_str(), strerror(err));
  return err == 0;
}

void ReportDefect(const std::string &path, const devtab::RawEntry &raw, devtab::Defect defect) {
  fprintf(stderr, "%s: %s:%zu: %s; entry skipped\n", program, path.c_str(), raw.line,
          devtab::DefectText(defect));
}

void Fail(const char *format, ...) {
  fprintf(stderr, "%s: ", program);
  va_list args;
  va_start(args, format);
  vfprintf(stderr, format, args);
  va_end(args);
  fputc('\n', stderr);
}

}  // namespace unitcmd
