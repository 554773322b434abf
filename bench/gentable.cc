// gentable - write a realistic device table of any size.
//
//   gentable N [VARIANT]
//
// N entries on standard output, in exactly the form unitmod writes them.
// Each VARIANT number (default 1) gives its own table, the same every time.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "table_gen.h"

namespace {

bool ParseNumber(const char *text, unsigned long long *out) {
  if (*text < '0' || *text > '9') return false;
  char *end = nullptr;
  errno = 0;
  *out = strtoull(text, &end, 10);
  return errno == 0 && *end == '\0';
}

}  // namespace

int main(int argc, char **argv) {
  unsigned long long count = 0, variant = 1;
  if (argc < 2 || argc > 3 || !ParseNumber(argv[1], &count) ||
      (argc == 3 && !ParseNumber(argv[2], &variant))) {
    fprintf(stderr, "usage: gentable entries [variant]\n");
    return 1;
  }
  std::string out;
  bool ok = true;
  tablegen::Generate(count, variant, [&](const devtab::Entry &e) {
    devtab::FormatEntry(e, &out);
    if (out.size() >= (1 << 16)) {
      ok = ok && fwrite(out.data(), 1, out.size(), stdout) == out.size();
      out.clear();
    }
  });
  ok = ok && fwrite(out.data(), 1, out.size(), stdout) == out.size();
  if (fflush(stdout) != 0 || !ok) {
    perror("gentable: write");
    return 1;
  }
  return 0;
}
