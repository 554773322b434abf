// Bytes as a device table image. Every entry the reader accepts must come
// back unchanged through the writer, and be found again by its alias.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <string_view>

#include "devtab_format.h"

namespace {

[[noreturn]] void Fail(const char *what, std::string_view text) {
  fprintf(stderr, "%s\nentry (%zu bytes): %.*s\n", what, text.size(), static_cast<int>(text.size()),
          text.data());
  abort();
}

// Equal as the writer orders pairs: attributes first, then methods.
bool SameAfterWriting(const devtab::Entry &read, const devtab::Entry &again) {
  if (read.alias != again.alias || read.npairs != again.npairs) return false;
  for (int i = 0; i < 3; ++i)
    if (read.positional[i] != again.positional[i]) return false;
  size_t j = 0;
  for (bool methods : {false, true}) {
    for (size_t i = 0; i < read.npairs; ++i) {
      const devtab::Pair &p = read.pairs[i];
      if (devtab::IsMethodName(p.name) != methods) continue;
      if (p.name != again.pairs[j].name || p.value != again.pairs[j].value) return false;
      ++j;
    }
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string_view image(reinterpret_cast<const char *>(data), size);
  devtab::Scanner scanner(image);
  devtab::RawEntry raw;
  devtab::Entry entry, again;
  std::string alias, line;
  std::set<std::string> seen;
  size_t next_offset = 0;
  while (scanner.Next(&raw)) {
    if (raw.offset < next_offset || raw.offset + raw.text.size() > size ||
        image.substr(raw.offset, raw.text.size()) != raw.text)
      Fail("entry text is not where the scanner says", raw.text);
    next_offset = raw.offset + raw.text.size();

    devtab::Defect defect = devtab::ParseEntry(raw.text, &entry);
    if (devtab::ParseAlias(raw.text, &alias) != defect)
      Fail("the alias-only check disagrees with the parser", raw.text);
    if (defect != devtab::Defect::kNone) continue;
    if (alias != entry.alias) Fail("the alias-only check read another alias", raw.text);

    line.clear();
    devtab::FormatEntry(entry, &line);
    devtab::Scanner rescan(line);
    devtab::RawEntry written;
    if (!rescan.Next(&written) || written.text.size() + 1 != line.size())
      Fail("the written entry is not exactly one entry line", line);
    if (devtab::ParseEntry(written.text, &again) != devtab::Defect::kNone)
      Fail("the written entry does not read back", line);
    if (!SameAfterWriting(entry, again)) Fail("the written entry reads back changed", line);

    // The first well-formed entry of an alias is the one a lookup finds.
    bool first = seen.insert(entry.alias).second;
    if (seen.size() > 64) continue;  // keeps the lookups from going quadratic
    devtab::RawEntry found;
    if (!devtab::FindEntry(image, entry.alias, &found, &again))
      Fail("lookup misses a well-formed entry", raw.text);
    if (again.alias != entry.alias || found.offset > raw.offset ||
        (first && found.offset != raw.offset))
      Fail("lookup finds another entry", raw.text);
  }
  return 0;
}
