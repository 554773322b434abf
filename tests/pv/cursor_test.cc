// The table cursor over the file TAV_DEVTAB names.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include "pv.h"
#include "trace_capture.h"

using testing_support::Sandbox;

namespace {

using Triples = std::vector<std::tuple<std::string, std::string, std::string>>;

Triples Walk(size_t limit = SIZE_MAX) {
  Triples out;
  char *alias = nullptr, *name = nullptr, *value = nullptr;
  while (out.size() < limit && ReferenceNextAttribute(&alias, &name, &value) == KWL_OK)
    out.emplace_back(alias, name, value);
  return out;
}

// An entry's three positional fields.
Triples Head(const std::string &alias, const std::string &c = "", const std::string &b = "",
             const std::string &p = "") {
  return {{alias, "cdevice", c}, {alias, "bdevice", b}, {alias, "pathname", p}};
}

Triples operator+(Triples a, const Triples &b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

TEST(TableCursor, EntryAfterEntryPositionalFieldsFirst) {
  Sandbox box;
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  Triples all = Walk();
  std::vector<std::string> aliases;
  for (const auto &t : all)
    if (aliases.empty() || aliases.back() != std::get<0>(t)) aliases.push_back(std::get<0>(t));
  ASSERT_EQ(aliases.size(), 32u);
  EXPECT_EQ(aliases.back(), "floppy0");
  EXPECT_EQ(Triples(all.begin(), all.begin() + 6),
            (Head("disk0", "/dev/rdsk/0s0", "/dev/dsk/0s0") +
             Triples{{"disk0", "class", "disk"}, {"disk0", "type", "scsi"}, {"disk0", "desc", "SCSI disk 0: 9.1 GB"}}));
  for (auto t : Triples{{"net0", "mac", "08:00:20:1a:2b:00"}, {"scsi0", "desc", "Adaptec \"AHA-2940\" host adapter"},
                        {"disk1s1", "pathname", "/data1/1"}})
    EXPECT_NE(std::find(all.begin(), all.end(), t), all.end()) << std::get<0>(t) << " " << std::get<1>(t);
  setenv("TAV_DEVTAB", box.Path("absent.tab").c_str(), 1);
  EXPECT_EQ(ResetDeviceTabFile(), -1);
  EXPECT_EQ(Walk(), Triples());
}

TEST(TableCursor, MalformedEntriesAreReportedWithTheirLineAndSkipped) {
  Sandbox box;
  TraceCapture trace(box, 3);
  box.WriteTable(
      "good1:c::p:k=\"v\"\n"                  // 1
      "# comment\n"                            // 2
      "few:colons:only\n"                      // 3
      "quote::::k=\"never closed\n"            // 4
      "cont:a\\:b:::desc=\"one\\\n"            // 5
      "two\" k\\ e\\\\y=\"x\"\n"               // 6
      "tail::::k=\"unterminated at the end");  // 7
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  EXPECT_EQ(Walk(), (Head("good1", "c", "", "p") + Triples{{"good1", "k", "v"}} + Head("cont", "a:b") +
                     Triples{{"cont", "desc", "one\ntwo"}, {"cont", "k e\\y", "x"}}));
  std::string prefix = std::string(program_invocation_short_name) + "[" + std::to_string(getpid()) +
                       "] L3 ReferenceNextAttribute: " + box.table();
  EXPECT_EQ(trace.Text(), prefix + ":3: fewer than four colons; entry skipped\n" + prefix +
                              ":4: unterminated quote; entry skipped\n" + prefix +
                              ":7: unterminated quote; entry skipped\n");
  vcel_verbose_level = 2;  // below level 3 the same walk says nothing
  std::string before = trace.Text();
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  Walk();
  EXPECT_EQ(trace.Text(), before);
}

TEST(TableCursor, ResetRestartsAndSeesTheFileAsItIsNow) {
  Sandbox box;
  box.WriteTable("a::::k=\"1\"\nb::::k=\"2\"\n");
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  Triples head = Head("a");
  EXPECT_EQ(Walk(2), Triples(head.begin(), head.begin() + 2));
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  EXPECT_EQ(Walk(1), Triples(head.begin(), head.begin() + 1));
  box.WriteTable("z:zc:::\n");  // rewritten in place, in the middle of a walk
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  EXPECT_EQ(Walk(), Head("z", "zc"));
  const std::string next = box.Path("next.tab");  // replaced by another file
  testing_support::WriteFile(next, "y::::n=\"new\"\n");
  ASSERT_EQ(rename(next.c_str(), box.table().c_str()), 0);
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  EXPECT_EQ(Walk(), (Head("y") + Triples{{"y", "n", "new"}}));
  const std::string other = box.Path("other.tab");  // another table altogether
  testing_support::WriteFile(other, "o::::\n");
  setenv("TAV_DEVTAB", other.c_str(), 1);
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  EXPECT_EQ(Walk(), Head("o"));
}

}  // namespace
