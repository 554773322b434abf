// The table text format and the table cursor over the file TAV_DEVTAB names.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <tuple>
#include <vector>

#include "devtab_file.h"
#include "devtab_format.h"
#include "pv.h"
#include "trace_capture.h"

using testing_support::Sandbox;

namespace {

using devtab::Defect;
using devtab::Entry;
using Pairs = std::vector<std::pair<std::string, std::string>>;

// An entry as plain values: alias, positional fields, pairs.
using Want = std::tuple<std::string, std::vector<std::string>, Pairs>;

Want Read(const std::string &text, Defect *defect = nullptr) {
  Entry e;
  Defect d = devtab::ParseEntry(text, &e);
  if (defect != nullptr) *defect = d;
  Want w{e.alias, {e.positional[0], e.positional[1], e.positional[2]}, {}};
  for (size_t i = 0; i < e.npairs; ++i) std::get<2>(w).emplace_back(e.pairs[i].name, e.pairs[i].value);
  return w;
}

std::string Format(const Want &w) {
  Entry e;
  e.alias = std::get<0>(w);
  for (int i = 0; i < 3; ++i) e.positional[i] = std::get<1>(w)[static_cast<size_t>(i)];
  for (const auto &p : std::get<2>(w)) {
    devtab::Pair &pair = e.AddPair();
    pair.name = p.first;
    pair.value = p.second;
  }
  std::string out;
  devtab::FormatEntry(e, &out);
  return out;
}

// The entry as it reads back: the writer puts methods after attributes.
Want MethodsLast(Want w) {
  Pairs &p = std::get<2>(w);
  std::stable_partition(p.begin(), p.end(), [](const auto &pair) { return !devtab::IsMethodName(pair.first); });
  return w;
}

TEST(DevtabFormat, EachEntryIsWrittenAsItsLineAndReadsBack) {
  const std::pair<Want, const char *> cases[] = {
      {{"disk1", {"/dev/rdsk/0s2", "/dev/dsk/0s2", ""}, {{"desc", "Disk: A"}, {"type", "disk"}, {"remove", "rm -f a:b"}}},
       "disk1:/dev/rdsk/0s2:/dev/dsk/0s2::desc=\"Disk\\: A\" type=\"disk\" remove=\"rm -f a\\:b\"\n"},
      {{"a", {"", "", ""}, {}}, "a::::\n"},
      // Methods follow the attributes, after one blank even when there is none.
      {{"a", {"", "", ""}, {{"upcmd", "x"}, {"k", "v"}, {"resetfunc", "y"}}}, "a::::k=\"v\" upcmd=\"x\" resetfunc=\"y\"\n"},
      {{"a", {"", "", ""}, {{"upcmd", "x"}}}, "a:::: upcmd=\"x\"\n"},
      {{"a:b", {"c\\d", "", "p\"q"}, {{"desc", "say \"hi\""}}}, "a\\:b:c\\\\d::p\\\"q:desc=\"say \\\"hi\\\"\"\n"},
      {{"x", {"", "", ""}, {{"desc", "two\nlines"}}}, "x::::desc=\"two\\\nlines\"\n"},
      {{"a", {"", "", ""}, {{"k=1 x\ty", "v"}}}, "a::::k\\=1\\ x\\\ty=\"v\"\n"},
      {{"#c", {"", "", ""}, {}}, "\\#c::::\n"},
      {{" b", {"", "", ""}, {}}, "\\ b::::\n"},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(Format(c.first), c.second) << testing::PrintToString(c.first);
    EXPECT_EQ(Read(std::string(c.second).substr(0, strlen(c.second) - 1)), MethodsLast(c.first)) << c.second;
  }
}

TEST(DevtabFormat, ReaderAcceptsHandEditedFormsAndNamesDefects) {
  const std::pair<const char *, Want> good[] = {
      {"a:b:c:d:", {"a", {"b", "c", "d"}, {}}},
      {"a::::k=v  j=\"w x\"\tl=", {"a", {"", "", ""}, {{"k", "v"}, {"j", "w x"}, {"l", ""}}}},
      {"a::::k=\"v\"\r   ", {"a", {"", "", ""}, {{"k", "v"}}}},
      {"\\d\\isk:x\\y::: k\\=1=a\\ b", {"disk", {"xy", "", ""}, {{"k=1", "a b"}}}},
      {"a::::k=\"x:y\" k=\"dup\"", {"a", {"", "", ""}, {{"k", "x:y"}, {"k", "dup"}}}},
      {"a::::k=\"end\\\\\" j=v\\", {"a", {"", "", ""}, {{"k", "end\\"}, {"j", "v\\"}}}},
  };
  for (const auto &c : good) EXPECT_EQ(Read(c.first), c.second) << c.first;
  const std::string name_max(devtab::kMaxNameLength, 'n'), value_max(devtab::kMaxValueLength, 'v');
  const std::pair<std::string, Defect> cases[] = {
      {"justalias", Defect::kFewColons},      {"a:b:c:d", Defect::kFewColons},
      {"a\\:b:c:d:e", Defect::kFewColons},    {":b:c:d:", Defect::kEmptyAlias},
      {"a::::k=\"v\" j", Defect::kNoEquals},  {"a::::k =\"v\"", Defect::kNoEquals},
      {"a::::=\"v\"", Defect::kEmptyKeyword}, {"a::::k=\"v\\\"", Defect::kUnterminatedQuote},
      {name_max + "::::", Defect::kNone},     {name_max + "x::::", Defect::kFieldTooLong},
      {"a:" + name_max + "x:::", Defect::kFieldTooLong}, {"a::::" + name_max + "x=1", Defect::kFieldTooLong},
      {"a::::k=\"" + value_max + "\"", Defect::kNone},   {"a::::k=" + value_max + "x", Defect::kFieldTooLong},
  };
  for (const auto &c : cases) {
    Defect d;
    Read(c.first, &d);
    std::string alias;
    EXPECT_EQ(d, c.second) << c.first.substr(0, 40);
    EXPECT_EQ(devtab::ParseAlias(c.first, &alias), c.second) << c.first.substr(0, 40);
  }
}

// The streamed reader refills its buffer mid-entry (and grows it for one
// entry larger than the buffer) and must still give what the whole image gives.
TEST(DevtabFormat, StreamedEntriesMatchTheImageHeldWhole) {
  std::string image = "# generated\n\n";
  for (int i = 0; image.size() < (3u << 20); ++i) {
    image += Format({"e" + std::to_string(i), {"p:" + std::to_string(i), "", "#"}, {{"k", "v\\" + std::string(i % 97, 'x')}}});
    if (i % 50 == 0) image += "# comment\n\n";
    if (i == 1000) {
      image += "big::::k=\"";
      for (int j = 0; j < 30000; ++j) image += std::string(50, 'x') + "\\\n";
      image += "\"\n";
    }
  }
  FILE *file = tmpfile();
  ASSERT_EQ(fwrite(image.data(), 1, image.size(), file), image.size());
  fflush(file);
  devtab::TableReader reader(fileno(file));
  devtab::EntryStream stream(&reader);
  devtab::Scanner scanner(image);
  devtab::RawEntry raw, streamed;
  size_t n = 0;
  for (; scanner.Next(&raw); ++n) {
    ASSERT_TRUE(stream.Next(&streamed)) << "entry " << n;
    ASSERT_EQ(streamed.text, raw.text) << "entry " << n;
    ASSERT_EQ(streamed.line, raw.line);
    ASSERT_EQ(streamed.offset, raw.offset);
  }
  EXPECT_GT(n, 10000u);
  EXPECT_FALSE(stream.Next(&streamed));
  EXPECT_EQ(stream.error(), 0);
  fclose(file);
}

TEST(DevtabFormat, FindEntryLooksAtAliasesOnly) {
  const std::string image =
      "# disk9::::comment=\"not an entry\"\n"
      "first::::k=\"1\"\n"
      "long::::desc=\"line one\\\n"
      "disk9::::k=\\\"fake\\\" still long's value\"\n"
      "disk9x::::k=\"prefix\"\n"
      "bad9:::\n"
      "\\d\\isk9::::k=\"odd escapes\"\n"
      "a\\:b::::k=\"colon\"\n"
      "\\#hash::::k=\"guarded\"\n"
      "mal::::k=\"unterminated\n"
      "mal::::k=\"second mal\"\n"
      " lead::::k=\"unguarded blank\"\n"
      "last::::k=\"end\"";
  const std::tuple<const char *, const char *, size_t> cases[] = {
      {"first", "1", 2},       {"disk9", "odd escapes", 7}, {"a:b", "colon", 8},  {"#hash", "guarded", 9},
      {"mal", "second mal", 11}, {"last", "end", 13},       {" lead", "unguarded blank", 12},
      {"disk9x", "prefix", 5}, {"disk", nullptr, 0},         {"bad9", nullptr, 0}, {"# disk9", nullptr, 0},
      {"hash", nullptr, 0},    {"lead", nullptr, 0},
  };
  for (const auto &c : cases) {
    devtab::RawEntry raw;
    Entry e;
    const char *alias = std::get<0>(c), *k = std::get<1>(c);
    ASSERT_EQ(devtab::FindEntry(image, alias, &raw, &e), k != nullptr) << alias;
    if (k == nullptr) continue;
    EXPECT_EQ(e.alias, alias);
    ASSERT_EQ(e.npairs, 1u) << alias;
    EXPECT_EQ(e.pairs[0].value, k) << alias;
    EXPECT_EQ(raw.line, std::get<2>(c)) << alias;
    EXPECT_EQ(image.compare(raw.offset, raw.text.size(), raw.text), 0) << alias;
  }
}

TEST(DevtabFormat, ScannerSkipsBlankAndCommentLinesAndCountsContinuations) {
  devtab::Scanner scanner("\n  \t\n#x\\\r\n\r\na::::k=\"1\\\n2\\\n3\"\n   # indented\nb::::k=\\\\\nc::::");
  devtab::RawEntry raw;
  std::vector<std::pair<std::string, size_t>> got;
  while (scanner.Next(&raw)) got.emplace_back(std::string(raw.text), raw.line);
  EXPECT_EQ(got, (std::vector<std::pair<std::string, size_t>>{
                     {"a::::k=\"1\\\n2\\\n3\"", 5}, {"b::::k=\\\\", 9}, {"c::::", 10}}));
}

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
  Triples quoted = {{"scsi0", "desc", "Adaptec \"AHA-2940\" host adapter"}};
  EXPECT_NE(std::search(all.begin(), all.end(), quoted.begin(), quoted.end()), all.end());
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
}

TEST(TableCursor, ResetRestartsAndSeesTheFileAsItIsNow) {
  Sandbox box;
  box.WriteTable("a::::k=\"1\"\nb::::k=\"2\"\n");
  ASSERT_EQ(ResetDeviceTabFile(), 0);
  Triples head = Head("a");
  EXPECT_EQ(Walk(2), Triples(head.begin(), head.begin() + 2));
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
