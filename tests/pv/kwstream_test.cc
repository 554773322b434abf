// Keyword streams: what KeywordListToStream writes, KeywordStreamToList
// reads back unchanged; hand-written settings text reads as people expect.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "list_util.h"
#include "trace_capture.h"

using pvtest::All;
using pvtest::List;
using pvtest::MakeList;
using pvtest::Pairs;

namespace {

std::string Write(KeywordList *list) {
  char *buf = nullptr;
  size_t len = 0;
  FILE *out = open_memstream(&buf, &len);
  EXPECT_EQ(KeywordListToStream(out, list), 0);
  fclose(out);
  std::string text(buf, len);
  free(buf);
  return text;
}

List Read(const std::string &text) {
  FILE *in = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
  List list(KeywordStreamToList(in));
  EXPECT_EQ(fclose(in), 0);  // the stream is left open for its owner
  return list;
}

// Written, then read back.
Pairs Again(const Pairs &pairs) {
  List back = Read(Write(MakeList(pairs).get()));
  return back ? All(back.get()) : Pairs{{"(null list)", ""}};
}

// Generated lists are the fuzzer's (fuzz_kwstream).
TEST(KeywordStream, AwkwardListsSurviveTheRoundTrip) {
  const Pairs awkward = {
      {"plain", "value"}, {"empty", ""},   {"lead", " x"},    {"trail", "x "},  {"tabs", "\tx\t"},
      {"blanks", "   "},  {"eq", "a=b=c"}, {"lquote", "\"x"}, {"quotes", "\"x\""}, {"bs", "a\\b\\"},
      {"bsq", "\\\""},    {"nl", "a\nb\n"}, {"cr", "a\rb\r"}, {"hash", "#x"},    {"k=eq", "v"},
      {"#k", "v"},        {" k", "v"},     {"k\tk", "v"},     {"\"k", "v"},      {"k\nk", "v"},
      {"", "empty keyword"},
  };
  for (const auto &p : awkward) EXPECT_EQ(Again({p}), Pairs({p})) << Write(MakeList({p}).get());
  EXPECT_EQ(Again(awkward), awkward);
}

TEST(KeywordStream, HandWrittenTextReadsAsMeantBadLinesAreSkippedAndTraced) {
  testing_support::Sandbox box;
  TraceCapture trace(box, 3);
  List l = Read(
      "# YRA_FW=commented out\n\n   # indented comment\n"
      "YRA_FW=local\n"
      "  spaced  =  value with  inner blanks  \n"
      "quoted=\"  kept  \"\n"
      "escaped = \"a\\\"b\\\\c\\nd\"\n"
      "crlf=dos\r\n"
      "no equals sign\n"
      "\"open keyword=2\n"
      "b=\"open value\n"
      "=3\n"
      "c=\"x\" trailing\n"
      "empty=\n\t\n"
      "url=http://host/a=b#frag\n"
      "last=no newline");
  ASSERT_NE(l, nullptr);
  EXPECT_EQ(pvtest::Rest(l.get()), Pairs({{"YRA_FW", "local"},
                                         {"spaced", "value with  inner blanks"},
                                         {"quoted", "  kept  "},
                                         {"escaped", "a\"b\\c\nd"},
                                         {"crlf", "dos"},
                                         {"empty", ""},
                                         {"url", "http://host/a=b#frag"},
                                         {"last", "no newline"}}));
  for (const char *line : {"line 9:", "line 10:", "line 11:", "line 12:", "line 13:"})
    EXPECT_TRUE(trace.Has(line)) << line << " not reported in:\n" << trace.Text();
  EXPECT_FALSE(trace.Has("line 1:") || trace.Has("line 8:") || trace.Has("line 14:")) << trace.Text();
  EXPECT_EQ(NumberOfKeywords(Read("# only a comment\n\n").get()), 0);
  EXPECT_EQ(KeywordStreamToList(nullptr), nullptr);
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
