// The table cursor over the file TAV_DEVTAB names.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "devtab_format.h"
#include "pv.h"
#include "sandbox.h"

using testing_support::Sandbox;

namespace {

using Triple = std::tuple<std::string, std::string, std::string>;
using Triples = std::vector<Triple>;

Triples Walk(size_t limit = SIZE_MAX) {
  Triples out;
  char *alias = nullptr, *name = nullptr, *value = nullptr;
  while (out.size() < limit && ReferenceNextAttribute(&alias, &name, &value) == KWL_OK)
    out.emplace_back(alias, name, value);
  return out;
}

Triples Head(const std::string &alias, const std::string &c, const std::string &b,
             const std::string &p) {
  return {{alias, "cdevice", c}, {alias, "bdevice", b}, {alias, "pathname", p}};
}

Triples Concat(std::initializer_list<Triples> parts) {
  Triples out;
  for (const Triples &t : parts) out.insert(out.end(), t.begin(), t.end());
  return out;
}

TEST(TableCursor, MissingTableCannotBeOpenedAndDeliversNothing) {
  Sandbox box;
  setenv("TAV_DEVTAB", box.Path("absent.tab").c_str(), 1);
  EXPECT_EQ(ResetDeviceTabFile(), -1);
  char *alias = nullptr, *name = nullptr, *value = nullptr;
  EXPECT_EQ(ReferenceNextAttribute(&alias, &name, &value), KWL_END);
}

TEST(TableCursor, SampleTableEntryAfterEntryPositionalFieldsFirst) {
  Sandbox box;
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  Triples all = Walk();

  // Aliases in file order, each entry's triples together.
  std::vector<std::string> aliases;
  for (const Triple &t : all)
    if (aliases.empty() || aliases.back() != std::get<0>(t)) aliases.push_back(std::get<0>(t));
  ASSERT_EQ(aliases.size(), 32u);
  EXPECT_EQ(aliases.front(), "disk0");
  EXPECT_EQ(aliases[12], "tape0");
  EXPECT_EQ(aliases.back(), "floppy0");
  for (size_t i = 0; i < all.size(); ++i) {
    bool first_of_entry = i == 0 || std::get<0>(all[i]) != std::get<0>(all[i - 1]);
    if (!first_of_entry) continue;
    ASSERT_LE(i + 3, all.size());
    EXPECT_EQ(std::get<1>(all[i]), "cdevice");
    EXPECT_EQ(std::get<1>(all[i + 1]), "bdevice");
    EXPECT_EQ(std::get<1>(all[i + 2]), "pathname");
  }

  EXPECT_EQ(Triples(all.begin(), all.begin() + 6),
            Concat({Head("disk0", "/dev/rdsk/0s0", "/dev/dsk/0s0", ""),
                    {{"disk0", "class", "disk"},
                     {"disk0", "type", "scsi"},
                     {"disk0", "desc", "SCSI disk 0: 9.1 GB"}}}));
  auto has = [&all](const Triple &t) { return std::find(all.begin(), all.end(), t) != all.end(); };
  EXPECT_TRUE(has({"net0", "mac", "08:00:20:1a:2b:00"}));
  EXPECT_TRUE(has({"scsi0", "desc", "Adaptec \"AHA-2940\" host adapter"}));
  EXPECT_TRUE(has({"serial0", "cdevice", ""}));
  EXPECT_TRUE(has({"disk1s1", "pathname", "/data1/1"}));
  EXPECT_TRUE(has({"floppy0", "formatcmd", "fdformat /dev/rdsk/f0"}));
}

TEST(TableCursor, MalformedEntriesAreReportedWithTheirLineAndSkipped) {
  Sandbox box;
  const std::string trace = box.Path("trace.log");
  setenv("VCEL_TRACE_FILE", trace.c_str(), 1);
  vcel_verbose_level = 3;
  box.WriteTable(
      "good1:c::p:k=\"v\"\n"                          // 1
      "# comment\n"                                    // 2
      "few:colons:only\n"                              // 3
      "quote::::k=\"never closed\n"                    // 4
      "noeq::::k=\"v\" stray\n"                        // 5
      + std::string(devtab::kMaxNameLength + 1, 'x') + "::::\n"  // 6
      "cont:a\\:b:::desc=\"one\\\n"                    // 7
      "two\" k\\ e\\\\y=\"x\"\n"                       // 8
      "\n"                                             // 9
      "good2::::\n"                                    // 10
      "tail::::k=\"unterminated at the end");          // 11
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  EXPECT_EQ(Walk(), Concat({Head("good1", "c", "", "p"),
                            {{"good1", "k", "v"}},
                            Head("cont", "a:b", "", ""),
                            {{"cont", "desc", "one\ntwo"}, {"cont", "k e\\y", "x"}},
                            Head("good2", "", "", "")}));

  std::vector<std::string> lines;
  std::string log = testing_support::ReadFile(trace), line;
  for (char c : log) {
    if (c != '\n') {
      line += c;
      continue;
    }
    lines.push_back(line);
    line.clear();
  }
  const char *expected[][2] = {{"3", "fewer than four colons"},
                               {"4", "unterminated quote"},
                               {"5", "keyword without '='"},
                               {"6", "over-long field"},
                               {"11", "unterminated quote"}};
  ASSERT_EQ(lines.size(), std::size(expected)) << log;
  for (size_t i = 0; i < lines.size(); ++i) {
    std::string want = std::string(program_invocation_short_name) + "[" + std::to_string(getpid()) +
                       "] L3 ReferenceNextAttribute: " + box.table() + ":" + expected[i][0] +
                       ": " + expected[i][1];
    EXPECT_EQ(lines[i].compare(0, want.size(), want), 0) << lines[i] << "\nwanted " << want;
  }

  // Below level 3 the same walk says nothing.
  vcel_verbose_level = 2;
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  Walk();
  EXPECT_EQ(testing_support::ReadFile(trace), log);
  unsetenv("VCEL_TRACE_FILE");
}

TEST(TableCursor, ResetRestartsAndSeesTheFileAsItIsNow) {
  Sandbox box;
  box.WriteTable("a::::k=\"1\"\nb::::k=\"2\"\n");
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  EXPECT_EQ(Walk(2), Triples({{"a", "cdevice", ""}, {"a", "bdevice", ""}}));
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  EXPECT_EQ(Walk(1), Triples({{"a", "cdevice", ""}}));

  // Rewritten in place (same file, shorter content) in the middle of a walk.
  box.WriteTable("z:zc:::\n");
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  EXPECT_EQ(Walk(), Head("z", "zc", "", ""));

  // Replaced by another file under the same name.
  const std::string next = box.Path("next.tab");
  testing_support::WriteFile(next, "y::::n=\"new\"\n");
  ASSERT_EQ(rename(next.c_str(), box.table().c_str()), 0);
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  EXPECT_EQ(Walk(), Concat({Head("y", "", "", ""), {{"y", "n", "new"}}}));

  // Pointed at another table altogether.
  const std::string other = box.Path("other.tab");
  testing_support::WriteFile(other, "o::::\n");
  setenv("TAV_DEVTAB", other.c_str(), 1);
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  EXPECT_EQ(Walk(), Head("o", "", "", ""));
}

}  // namespace
