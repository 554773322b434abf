// The table text format: reading entries, writing them so that they read
// back unchanged, and finding one entry in a table image.
#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "devtab_file.h"
#include "devtab_format.h"

namespace {

using devtab::Defect;
using devtab::Entry;

struct Want {
  std::string alias;
  std::vector<std::string> positional;
  std::vector<std::pair<std::string, std::string>> pairs;
};

Want Of(const Entry &e) {
  Want w{e.alias, {e.positional[0], e.positional[1], e.positional[2]}, {}};
  for (size_t i = 0; i < e.npairs; ++i) w.pairs.emplace_back(e.pairs[i].name, e.pairs[i].value);
  return w;
}

bool operator==(const Want &a, const Want &b) {
  return a.alias == b.alias && a.positional == b.positional && a.pairs == b.pairs;
}

std::ostream &operator<<(std::ostream &os, const Want &w) {
  os << testing::PrintToString(w.alias) << " " << testing::PrintToString(w.positional) << " "
     << testing::PrintToString(w.pairs);
  return os;
}

Entry Make(const Want &w) {
  Entry e;
  e.alias = w.alias;
  for (int i = 0; i < 3; ++i) e.positional[i] = w.positional[static_cast<size_t>(i)];
  for (const auto &p : w.pairs) {
    devtab::Pair &pair = e.AddPair();
    pair.name = p.first;
    pair.value = p.second;
  }
  return e;
}

std::string Format(const Want &w) {
  std::string out;
  devtab::FormatEntry(Make(w), &out);
  return out;
}

const char kExample[] =
    "disk1:/dev/rdsk/0s2:/dev/dsk/0s2::desc=\"Disk\\: A\" type=\"disk\" remove=\"rm -f a\\:b\"";
const Want kExampleEntry{"disk1",
                         {"/dev/rdsk/0s2", "/dev/dsk/0s2", ""},
                         {{"desc", "Disk: A"}, {"type", "disk"}, {"remove", "rm -f a:b"}}};

TEST(DevtabFormat, DocumentedExampleReadsAndWritesBack) {
  Entry e;
  ASSERT_EQ(devtab::ParseEntry(kExample, &e), Defect::kNone);
  EXPECT_EQ(Of(e), kExampleEntry);
  EXPECT_EQ(Format(kExampleEntry), std::string(kExample) + "\n");
}

TEST(DevtabFormat, WriterLayout) {
  struct Case {
    Want entry;
    const char *line;
  };
  const Case cases[] = {
      {{"a", {"", "", ""}, {}}, "a::::\n"},
      {{"a", {"", "", ""}, {{"k", "v"}}}, "a::::k=\"v\"\n"},
      // Methods follow the attributes, after one blank even when there is none.
      {{"a", {"", "", ""}, {{"upcmd", "x"}, {"k", "v"}, {"resetfunc", "y"}}},
       "a::::k=\"v\" upcmd=\"x\" resetfunc=\"y\"\n"},
      {{"a", {"", "", ""}, {{"upcmd", "x"}}}, "a:::: upcmd=\"x\"\n"},
      {{"a:b", {"c\\d", "", "p\"q"}, {{"desc", "say \"hi\""}}},
       "a\\:b:c\\\\d::p\\\"q:desc=\"say \\\"hi\\\"\"\n"},
      {{"x", {"", "", ""}, {{"desc", "two\nlines"}}}, "x::::desc=\"two\\\nlines\"\n"},
      {{"a", {"", "", ""}, {{"k=1 x\ty", "v"}}}, "a::::k\\=1\\ x\\\ty=\"v\"\n"},
      {{"#c", {"", "", ""}, {}}, "\\#c::::\n"},
      {{" b", {"", "", ""}, {}}, "\\ b::::\n"},
  };
  for (const Case &c : cases) EXPECT_EQ(Format(c.entry), c.line) << c.entry;
}

TEST(DevtabFormat, ReaderAcceptsHandEditedForms) {
  struct Case {
    const char *text;
    Want entry;
  };
  const Case cases[] = {
      {"a:b:c:d:", {"a", {"b", "c", "d"}, {}}},
      {"a::::k=v  j=\"w x\"\tl=", {"a", {"", "", ""}, {{"k", "v"}, {"j", "w x"}, {"l", ""}}}},
      {"a::::k=\"v\"\r", {"a", {"", "", ""}, {{"k", "v"}}}},
      {"a::::k=\"v\"   ", {"a", {"", "", ""}, {{"k", "v"}}}},
      {"\\d\\isk:x\\y::: k\\=1=a\\ b", {"disk", {"xy", "", ""}, {{"k=1", "a b"}}}},
      {"a::::k=\"x:y\" k=\"dup\"", {"a", {"", "", ""}, {{"k", "x:y"}, {"k", "dup"}}}},
      {"a::::k=\"end\\\\\"", {"a", {"", "", ""}, {{"k", "end\\"}}}},
      {"a::::k=v\\", {"a", {"", "", ""}, {{"k", "v\\"}}}},
  };
  for (const Case &c : cases) {
    Entry e;
    EXPECT_EQ(devtab::ParseEntry(c.text, &e), Defect::kNone) << c.text;
    EXPECT_EQ(Of(e), c.entry) << c.text;
  }
}

TEST(DevtabFormat, MalformedEntriesNameTheirDefect) {
  const std::string name_max(devtab::kMaxNameLength, 'n');
  const std::string value_max(devtab::kMaxValueLength, 'v');
  struct Case {
    std::string text;
    Defect defect;
  };
  const Case cases[] = {
      {"justalias", Defect::kFewColons},
      {"a:b:c", Defect::kFewColons},
      {"a:b:c:d", Defect::kFewColons},
      {"a\\:b:c:d:e", Defect::kFewColons},
      {":b:c:d:", Defect::kEmptyAlias},
      {"a::::k", Defect::kNoEquals},
      {"a::::k=\"v\" j", Defect::kNoEquals},
      {"a::::k =\"v\"", Defect::kNoEquals},
      {"a::::=\"v\"", Defect::kEmptyKeyword},
      {"a::::k=\"v", Defect::kUnterminatedQuote},
      {"a::::k=\"v\\\"", Defect::kUnterminatedQuote},
      {name_max + "::::", Defect::kNone},
      {name_max + "x::::", Defect::kFieldTooLong},
      {"a:" + name_max + "x:::", Defect::kFieldTooLong},
      {"a::::" + name_max + "=1", Defect::kNone},
      {"a::::" + name_max + "x=1", Defect::kFieldTooLong},
      {"a::::k=\"" + value_max + "\"", Defect::kNone},
      {"a::::k=\"" + value_max + "x\"", Defect::kFieldTooLong},
      {"a::::k=" + value_max + "x", Defect::kFieldTooLong},
  };
  for (const Case &c : cases) {
    Entry e;
    EXPECT_EQ(devtab::ParseEntry(c.text, &e), c.defect) << c.text.substr(0, 40);
    std::string alias;
    EXPECT_EQ(devtab::ParseAlias(c.text, &alias), c.defect) << c.text.substr(0, 40);
  }
}

// Entries built from the characters the format has to escape or guard.
class EntryGenerator {
 public:
  Want Next() {
    Want w;
    w.alias = Text(1, 10, kAny);
    switch (Pick(6)) {
      case 0: w.alias.insert(0, "#"); break;
      case 1: w.alias.insert(0, " "); break;
      case 2: w.alias.insert(0, "\t"); break;
      default: break;
    }
    for (int i = 0; i < 3; ++i) w.positional.push_back(Text(0, 8, kAny));
    size_t n = Pick(7);
    for (size_t i = 0; i < n; ++i) {
      std::string name = Text(1, 8, kAny);
      if (Pick(4) == 0) name += Pick(2) ? "cmd" : "func";
      w.pairs.emplace_back(name, Text(0, 16, kAny));
    }
    return w;
  }

  static Want WithMethodsLast(const Want &w) {
    Want out = w;
    out.pairs.clear();
    for (bool methods : {false, true})
      for (const auto &p : w.pairs)
        if (devtab::IsMethodName(p.first) == methods) out.pairs.push_back(p);
    return out;
  }

 private:
  static constexpr const char *kAny = " \t\r\n:\\\"#=,ab9Z\xe9";
  size_t Pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(gen_); }
  std::string Text(size_t min, size_t max, const char *alphabet) {
    std::string s(min + Pick(max - min + 1), ' ');
    size_t k = std::char_traits<char>::length(alphabet);
    for (char &c : s) c = alphabet[Pick(k)];
    return s;
  }
  std::mt19937 gen_{77031u};
};

TEST(DevtabFormat, GeneratedEntriesReadBackUnchangedFromOneImage) {
  EntryGenerator gen;
  std::vector<Want> written;
  std::string image = "# generated\n\n";
  std::vector<size_t> first_lines;
  size_t line = 3;
  for (int i = 0; i < 600; ++i) {
    Want w = gen.Next();
    std::string text = Format(w);
    first_lines.push_back(line);
    for (char c : text) line += c == '\n';
    image += text;
    written.push_back(EntryGenerator::WithMethodsLast(w));
  }
  devtab::Scanner scanner(image);
  devtab::RawEntry raw;
  size_t n = 0;
  while (scanner.Next(&raw)) {
    ASSERT_LT(n, written.size()) << "more entries read than written";
    Entry e;
    ASSERT_EQ(devtab::ParseEntry(raw.text, &e), Defect::kNone)
        << "entry " << n << ": " << testing::PrintToString(std::string(raw.text));
    ASSERT_EQ(Of(e), written[n]) << "entry " << n << ": " << testing::PrintToString(std::string(raw.text));
    EXPECT_EQ(raw.line, first_lines[n]) << "entry " << n;
    ++n;
  }
  EXPECT_EQ(n, written.size());
}

// The streaming reader refills its buffer mid-entry; what it delivers must
// match the scanner over the same bytes held whole.
TEST(DevtabFormat, StreamingReaderAgreesWithTheScannerAcrossRefills) {
  EntryGenerator gen;
  std::string image;
  for (int i = 0; image.size() < (5u << 19); ++i) {
    image += Format(gen.Next());
    if (i % 50 == 0) image += "# comment\n\n";
    if (i == 3000) {
      image += "big::::k=\"";  // one entry, many lines, larger than the buffer
      for (int j = 0; j < 30000; ++j) image += std::string(50, 'x') + "\\\n";
      image += "\"\n";
    }
  }
  image += "last::::";  // no final newline
  FILE *file = tmpfile();
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(fwrite(image.data(), 1, image.size(), file), image.size());
  fflush(file);
  rewind(file);
  devtab::TableReader reader(fileno(file));
  devtab::EntryStream stream(&reader);
  devtab::Scanner scanner(image);
  devtab::RawEntry want, got;
  size_t n = 0;
  while (scanner.Next(&want)) {
    ASSERT_TRUE(stream.Next(&got)) << "entry " << n;
    ASSERT_EQ(got.text, want.text) << "entry " << n;
    ASSERT_EQ(got.line, want.line) << "entry " << n;
    ASSERT_EQ(got.offset, want.offset) << "entry " << n;
    ++n;
  }
  EXPECT_FALSE(stream.Next(&got));
  EXPECT_EQ(stream.error(), 0);
  EXPECT_GT(n, 3000u);
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
      "\tlead::::k=\"unguarded tab\"\n"
      "last::::k=\"end\"";
  struct Case {
    const char *alias;
    const char *k;  // nullptr: not found
    size_t line;
  };
  const Case cases[] = {
      {"first", "1", 2},          {"disk9", "odd escapes", 7}, {"a:b", "colon", 8},
      {"#hash", "guarded", 9},    {"mal", "second mal", 11},   {"last", "end", 14},
      {" lead", "unguarded blank", 12}, {"\tlead", "unguarded tab", 13},
      {"disk9x", "prefix", 5},    {"disk", nullptr, 0},        {"bad9", nullptr, 0},
      {"# disk9", nullptr, 0},    {"hash", nullptr, 0},        {"a", nullptr, 0},
      {"lead", nullptr, 0},
  };
  for (const Case &c : cases) {
    devtab::RawEntry raw;
    Entry e;
    bool found = devtab::FindEntry(image, c.alias, &raw, &e);
    ASSERT_EQ(found, c.k != nullptr) << c.alias;
    if (!found) continue;
    EXPECT_EQ(e.alias, c.alias);
    ASSERT_EQ(e.npairs, 1u) << c.alias;
    EXPECT_EQ(e.pairs[0].value, c.k) << c.alias;
    EXPECT_EQ(raw.line, c.line) << c.alias;
    EXPECT_EQ(image.compare(raw.offset, raw.text.size(), raw.text), 0) << c.alias;
  }
}

TEST(DevtabFormat, ScannerSkipsBlankAndCommentLinesAndCountsContinuations) {
  const std::string image =
      "\n  \t\n#x\\\r\n\r\na::::k=\"1\\\n2\\\n3\"\n   # indented\nb::::k=\\\\\nc::::";
  devtab::Scanner scanner(image);
  devtab::RawEntry raw;
  std::vector<std::pair<std::string, size_t>> got;
  while (scanner.Next(&raw)) got.emplace_back(std::string(raw.text), raw.line);
  EXPECT_EQ(got, (std::vector<std::pair<std::string, size_t>>{
                     {"a::::k=\"1\\\n2\\\n3\"", 5}, {"b::::k=\\\\", 9}, {"c::::", 10}}));
}

}  // namespace
