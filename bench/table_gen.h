// Device tables of any size that look like a real host's: SCSI buses with
// disks, partitions and tapes, serial boards with their lines, network
// interfaces, printers and CD-ROM drives.
#ifndef BENCH_TABLE_GEN_H
#define BENCH_TABLE_GEN_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "devtab_format.h"

namespace tablegen {

// Hands `count` entries to `emit` in table order. The same count and variant
// always give the same entries, on every host; a container comes before the
// entries its ObjContains names, and names only entries that are emitted.
void Generate(size_t count, uint64_t variant,
              const std::function<void(const devtab::Entry &)> &emit);

// Writes `count` entries to `path` in the table format and returns the
// file's size; the aliases, in table order, go to *aliases when given.
size_t WriteTable(const std::string &path, size_t count, uint64_t variant,
                  std::vector<std::string> *aliases = nullptr);

}  // namespace tablegen

#endif
