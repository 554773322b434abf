// Keyword streams: what KeywordListToStream writes, KeywordStreamToList
// reads back unchanged; hand-written settings text reads as people expect.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "list_util.h"
#include "pv.h"
#include "sandbox.h"

using pvtest::All;
using pvtest::List;
using pvtest::MakeList;
using pvtest::Pairs;

namespace {

std::string Write(KeywordList *list) {
  char *buf = nullptr;
  size_t len = 0;
  FILE *out = open_memstream(&buf, &len);
  int rc = KeywordListToStream(out, list);
  fclose(out);
  std::string text(buf, len);
  free(buf);
  EXPECT_EQ(rc, 0);
  return text;
}

List Read(const std::string &text) {
  FILE *in = tmpfile();
  fwrite(text.data(), 1, text.size(), in);
  rewind(in);
  List list(KeywordStreamToList(in));
  fclose(in);
  return list;
}

Pairs RoundTrip(const Pairs &pairs, std::string *text) {
  List l = MakeList(pairs);
  *text = Write(l.get());
  List back = Read(*text);
  return back ? All(back.get()) : Pairs{{"(null list)", ""}};
}

TEST(KeywordStream, AwkwardKeywordsAndValuesSurviveTheRoundTrip) {
  const Pairs cases = {
      {"plain", "value"},        {"empty", ""},          {"lead", " x"},
      {"trail", "x "},           {"tabs", "\tx\t"},      {"blanks", "   "},
      {"inner", "a  b\tc"},      {"eq", "a=b=c"},        {"leadeq", "=x"},
      {"lquote", "\"x"},         {"quotes", "\"x\""},    {"mid", "a\"b"},
      {"bs", "a\\b\\"},          {"bsq", "\\\""},        {"nl", "a\nb\n"},
      {"cr", "a\rb\r"},          {"hash", "#x"},         {"comma", "a,b"},
      {"k=eq", "v"},             {"#k", "v"},            {" k", "v"},
      {"k ", "v"},               {"k\tk", "v"},          {"\"k", "v"},
      {"k\"", "v"},              {"k\\", "v"},           {"k\nk", "v"},
      {"k\r", "v"},              {"k:k", ":"},           {"plain", "again"},
      {"", "empty keyword"},
  };
  for (const auto &p : cases) {
    std::string text;
    EXPECT_EQ(RoundTrip({p}, &text), Pairs({p})) << "written as: " << testing::PrintToString(text);
  }
  std::string text;
  EXPECT_EQ(RoundTrip(cases, &text), cases) << "written as: " << testing::PrintToString(text);
}

TEST(KeywordStream, GeneratedListsSurviveTheRoundTrip) {
  static const char kAlphabet[] = " \t=\"\\\n\r#,:ax0Z\x7f\xe9";
  std::mt19937 gen(20240611u);
  auto text_of = [&gen](size_t min_len, size_t max_len) {
    std::uniform_int_distribution<size_t> len(min_len, max_len);
    std::uniform_int_distribution<size_t> pick(0, sizeof kAlphabet - 2);
    std::string s(len(gen), ' ');
    for (char &c : s) c = kAlphabet[pick(gen)];
    return s;
  };
  for (int round = 0; round < 400; ++round) {
    Pairs pairs(std::uniform_int_distribution<size_t>(0, 8)(gen));
    for (auto &p : pairs) {
      p.first = text_of(0, 10);
      p.second = text_of(0, 14);
    }
    std::string text;
    ASSERT_EQ(RoundTrip(pairs, &text), pairs) << "round " << round << ", written as: " << testing::PrintToString(text);
  }
}

TEST(KeywordStream, HandWrittenSettingsText) {
  const std::string text =
      "# settings\n"
      "\n"
      "   # indented comment\n"
      "YRA_FW=local\n"
      "  spaced  =  value with  inner blanks  \n"
      "quoted=\"  kept  \"\n"
      "escaped = \"a\\\"b\\\\c\\nd\"\n"
      "crlf=dos\r\n"
      "empty=\n"
      "\t\n"
      "url=http://host/a=b#frag\n"
      "YRA_FW=second\n"
      "last=no newline";
  List l = Read(text);
  ASSERT_NE(l, nullptr);
  EXPECT_EQ(pvtest::Rest(l.get()), Pairs({{"YRA_FW", "local"},
                                         {"spaced", "value with  inner blanks"},
                                         {"quoted", "  kept  "},
                                         {"escaped", "a\"b\\c\nd"},
                                         {"crlf", "dos"},
                                         {"empty", ""},
                                         {"url", "http://host/a=b#frag"},
                                         {"YRA_FW", "second"},
                                         {"last", "no newline"}}));
}

TEST(KeywordStream, MalformedLinesAreSkippedAndTracedTheRestIsRead) {
  testing_support::Sandbox box;
  const std::string trace = box.Path("trace.log");
  setenv("VCEL_TRACE_FILE", trace.c_str(), 1);
  vcel_verbose_level = 3;
  const std::string text =
      "a=1\n"
      "no equals sign\n"
      "\"open keyword=2\n"
      "b=\"open value\n"
      "=3\n"
      "c=\"x\" trailing\n"
      "d=4\n";
  List l = Read(text);
  ASSERT_NE(l, nullptr);
  EXPECT_EQ(All(l.get()), Pairs({{"a", "1"}, {"d", "4"}}));
  std::string log = testing_support::ReadFile(trace);
  for (const char *line : {"line 2:", "line 3:", "line 4:", "line 5:", "line 6:"})
    EXPECT_NE(log.find(line), std::string::npos) << line << " not reported in:\n" << log;
  EXPECT_EQ(log.find("line 1:"), std::string::npos) << log;
  EXPECT_EQ(log.find("line 7:"), std::string::npos) << log;
  unsetenv("VCEL_TRACE_FILE");
}

TEST(KeywordStream, EmptyInputGivesAnEmptyListAndTheStreamStaysOpen) {
  List empty = Read("# only a comment\n\n");
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(NumberOfKeywords(empty.get()), 0);
  EXPECT_EQ(KeywordStreamToList(nullptr), nullptr);

  char text[] = "k=v\n";
  FILE *in = fmemopen(text, strlen(text), "r");
  List first(KeywordStreamToList(in));
  rewind(in);  // still ours to use
  List second(KeywordStreamToList(in));
  EXPECT_EQ(fclose(in), 0);
  EXPECT_EQ(All(first.get()), Pairs({{"k", "v"}}));
  EXPECT_EQ(All(second.get()), Pairs({{"k", "v"}}));
}

TEST(KeywordStream, WritingLeavesTheCursorAndRefusesBadArguments) {
  List l = MakeList({{"a", "1"}, {"b", "2"}, {"c", "3"}});
  char *kw = nullptr, *value = nullptr;
  ReferenceNextKeywordInList(l.get(), &kw, &value);
  EXPECT_EQ(Write(l.get()), "a=1\nb=2\nc=3\n");
  EXPECT_EQ(pvtest::Rest(l.get()), Pairs({{"b", "2"}, {"c", "3"}}));
  EXPECT_NE(KeywordListToStream(nullptr, l.get()), 0);
  FILE *sink = fopen("/dev/null", "w");
  EXPECT_NE(KeywordListToStream(sink, nullptr), 0);
  fclose(sink);
}

}  // namespace
