// Keyword lists (contents, the cursor contract, status codes, storage), comma
// lists, and keyword streams.
#include <gtest/gtest.h>
#include <malloc.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "list_util.h"
#include "pv.h"
#include "trace_capture.h"

using pvtest::All;
using pvtest::List;
using pvtest::MakeList;
using pvtest::Pairs;
using pvtest::Rest;

namespace {

const Pairs kAbc = {{"a", "1"}, {"b", "2"}, {"c", "3"}};

int Step(KeywordList *list) {
  char *kw = nullptr, *value = nullptr;
  return ReferenceNextKeywordInList(list, &kw, &value);
}

List Made(const Pairs &pairs, std::function<void(KeywordList *)> change) {
  List l = MakeList(pairs);
  change(l.get());
  return l;
}

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

// Callers iterate a list made in any of these ways without resetting it;
// otherwise an iteration goes on until they copy the first entry into the cursor.
TEST(KeywordListCursor, FreshListsStartAtTheFirstEntryOthersWhereTheyStopped) {
  List src = MakeList(kAbc);
  Step(src.get());
  List made[] = {
      MakeList(kAbc),
      Made({}, [&](KeywordList *l) { AddKeywordListToList(l, src.get()); }),
      List(DuplicateKeywordList(src.get())),
      Read("a=1\nb=2\nc=3\n"),
      Made({{"a", "1"}, {"a", "x"}, {"b", "2"}, {"c", "3"}, {"b", "y"}},
           [](KeywordList *l) { RemoveDuplicateKeywordFmList(l); }),
      Made({{"z", "0"}, {"a", "1"}, {"b", "2"}, {"c", "3"}}, [](KeywordList *l) { RemoveKeywordFmList(l, "z"); }),
  };
  for (List &l : made) EXPECT_EQ(Rest(l.get()), kAbc) << &l - made;
  UpdateKeywordInList(made[2].get(), "b", "changed");  // the copy is deep
  EXPECT_EQ(Rest(src.get()), Pairs({{"b", "2"}, {"c", "3"}}));
  EXPECT_EQ(Step(src.get()), KWL_END);
  EXPECT_EQ(All(src.get()), kAbc);

  // Removing the entries at the cursor moves it to the next one kept.
  List l = MakeList({{"a", "1"}, {"b", "2"}, {"b", "3"}, {"c", "4"}, {"b", "5"}});
  Step(l.get());
  EXPECT_EQ(RemoveKeywordFmList(l.get(), "b"), KWL_OK);
  EXPECT_EQ(Rest(l.get()), Pairs({{"c", "4"}}));
  l = MakeList({{"a", "1"}, {"b", "2"}, {"a", "3"}, {"c", "4"}});
  Step(l.get());
  Step(l.get());
  EXPECT_EQ(RemoveDuplicateKeywordFmList(l.get()), KWL_DUPLICATE);
  EXPECT_EQ(Rest(l.get()), Pairs({{"c", "4"}}));
}

TEST(KeywordList, RepeatedKeywordsStayUntilThinnedToTheFirstOrRemovedAll) {
  const std::string k33(33, 'k'), v513(513, 'v'), huge(20000, 'h');
  const Pairs repeated = {{"k", "1"}, {"x", "a"}, {"k", "2"}, {"x", "b"}, {"y", ""}, {k33, v513}, {huge, huge}};
  List l = MakeList(repeated);
  EXPECT_EQ(All(l.get()), repeated);
  EXPECT_EQ(RemoveDuplicateKeywordFmList(l.get()), KWL_DUPLICATE);
  EXPECT_EQ(All(l.get()), Pairs({{"k", "1"}, {"x", "a"}, {"y", ""}, {k33, v513}, {huge, huge}}));
  EXPECT_EQ(NumberOfKeywords(l.get()), 5);
  EXPECT_EQ(RemoveDuplicateKeywordFmList(l.get()), KWL_OK);

  l = MakeList(repeated);
  EXPECT_EQ(RemoveKeywordFmList(l.get(), "k"), KWL_OK);
  EXPECT_NE(RemoveKeywordFmList(l.get(), "X"), KWL_OK);  // case matters
  for (const std::string &k : {std::string("y"), k33, huge}) RemoveKeywordFmList(l.get(), k.c_str());
  AddKeywordToList(l.get(), "z", "9");  // the tail moved with the removals
  EXPECT_EQ(All(l.get()), Pairs({{"x", "a"}, {"x", "b"}, {"z", "9"}}));
  RemoveKeywordFmList(l.get(), "x");
  RemoveKeywordFmList(l.get(), "z");
  EXPECT_EQ(l->kwl_first, nullptr);
  AddKeywordToList(l.get(), "e", "7");
  EXPECT_EQ(All(l.get()), Pairs({{"e", "7"}}));
  EXPECT_EQ(AddKeywordListToList(l.get(), l.get()), KWL_OK);  // of itself: each entry once
  AddKeywordToList(l.get(), "y", "9");  // the tail moved with the append
  EXPECT_EQ(All(l.get()), Pairs({{"e", "7"}, {"e", "7"}, {"y", "9"}}));
}

TEST(KeywordList, UpdateLookupAndTheStatusOfEntriesWithoutValue) {
  List l = MakeList({{"a", "1"}, {"k", "old"}, {"e", ""}, {"k", "second"}});
  const std::string longer(600, 'v');
  EXPECT_EQ(UpdateKeywordInList(l.get(), "k", longer.c_str()), KWL_OK);
  UpdateKeywordInList(l.get(), "new", "n");
  EXPECT_EQ(All(l.get()), Pairs({{"a", "1"}, {"k", longer}, {"e", ""}, {"k", "second"}, {"new", "n"}}));
  char *kw = nullptr, *value = nullptr;
  // A value taken from the entry itself overlaps the room it is copied to.
  ReferenceKeywordInList(l.get(), "k", &kw, &value);
  UpdateKeywordInList(l.get(), "k", value + 590);
  EXPECT_EQ(ReferenceKeywordInList(l.get(), "k", &kw, &value), KWL_OK);
  EXPECT_STREQ(value, "vvvvvvvvvv");
  // An empty value is a value; only an entry added without one warns.
  EXPECT_EQ(ReferenceKeywordInList(l.get(), "e", &kw, &value), KWL_OK);
  AddKeywordToList(l.get(), "n", nullptr);
  EXPECT_EQ(ReferenceKeywordInList(l.get(), "n", &kw, &value), KWL_WARN);
  EXPECT_STREQ(value, "");
  EXPECT_EQ(ReferenceKeywordInList(l.get(), "K", &kw, &value), KWL_NOTFOUND);
  List copy(DuplicateKeywordList(l.get()));
  for (KeywordList *list : {l.get(), copy.get()}) {
    list->kwl_cursor = list->kwl_first;
    std::vector<int> codes;
    for (int i = 0; i < 7; ++i) codes.push_back(Step(list));
    EXPECT_EQ(codes, std::vector<int>({KWL_OK, KWL_OK, KWL_OK, KWL_OK, KWL_OK, KWL_WARN, KWL_END}));
  }
  UpdateKeywordInList(l.get(), "k", nullptr);
  EXPECT_EQ(ReferenceKeywordInList(l.get(), "k", &kw, &value), KWL_WARN);
}

TEST(KeywordList, AddValueJoinsItemsOnceEach) {
  const char *const cases[][3] = {
      // before (null: keyword absent), added, after
      {nullptr, "x", "x"}, {"", "x", "x"},      {"a", "b", "a,b"},         {"a,b", "a", "a,b"},
      {"a,b", "b", "a,b"}, {"ab", "a", "ab,a"}, {"a, b ,c", "b", "a, b ,c"}, {"a", "A", "a,A"},
  };
  for (const auto &c : cases) {
    List l = MakeList({{"other", "o"}});
    if (c[0] != nullptr) AddKeywordToList(l.get(), "k", c[0]);
    AddValueToList(l.get(), "k", c[1]);
    EXPECT_EQ(All(l.get()), Pairs({{"other", "o"}, {"k", c[2]}})) << (c[0] ? c[0] : "-") << " + " << c[1];
  }
}

// Lists live long in a loaded cache and are changed in place many times:
// whatever storage they use, a long run of changes must leave exactly what a
// plain model of the list says, with the cursor where the model has it, and
// must not keep growing.
TEST(KeywordListStorage, LongRunsOfChangesMatchAModelAndStayBounded) {
  List l(DuplicateKeywordList(MakeList(kAbc).get()));
  Pairs model = kAbc;
  size_t cursor = 0;  // the model's entry the cursor delivers next
  auto appended = [&](const std::string &k, const std::string &v) {
    // An exhausted cursor stays so, unless the list was empty.
    size_t end = model.empty() ? 0 : cursor >= model.size() ? model.size() + 1 : cursor;
    model.emplace_back(k, v);
    cursor = end;
  };
  unsigned state = 7;
  auto rnd = [&state](unsigned n) { return ((state = state * 1103515245u + 12345u) >> 16) % n; };
  size_t peak = 0;
  for (int step = 0; step < 20000; ++step) {
    std::string kw = "k" + std::to_string(rnd(6));
    std::string value(rnd(4) == 0 ? 40 + rnd(200) : rnd(12), static_cast<char>('a' + step % 26));
    size_t first = 0;
    while (first < model.size() && model[first].first != kw) ++first;
    switch (rnd(5)) {
      case 0:
        ASSERT_EQ(AddKeywordToList(l.get(), kw.c_str(), value.c_str()), KWL_OK);
        appended(kw, value);
        break;
      case 1:
        ASSERT_EQ(UpdateKeywordInList(l.get(), kw.c_str(), value.c_str()), KWL_OK);
        if (first == model.size()) appended(kw, value);
        else model[first].second = value;
        break;
      case 2: {
        RemoveKeywordFmList(l.get(), kw.c_str());
        Pairs kept;
        size_t moved = cursor;
        for (size_t i = 0; i < model.size(); ++i) {
          if (model[i].first != kw) kept.push_back(model[i]);
          else if (i < cursor) --moved;
        }
        model = kept;
        cursor = moved;
        break;
      }
      case 3:
        l->kwl_cursor = l->kwl_first;
        cursor = 0;
        break;
      default:
        if (cursor < model.size()) {
          char *k = nullptr, *v = nullptr;
          ASSERT_EQ(ReferenceNextKeywordInList(l.get(), &k, &v), KWL_OK);
          ASSERT_EQ(Pairs::value_type(k, v), model[cursor++]) << "step " << step;
        }
    }
    size_t bytes = 0;
    for (const auto &p : model) bytes += p.first.size() + p.second.size();
    peak = std::max(peak, bytes);
  }
  EXPECT_EQ(All(l.get()), model);
  EXPECT_EQ(NumberOfKeywords(l.get()), static_cast<int>(model.size()));
  size_t before = mallinfo2().uordblks;
  l.reset();
  EXPECT_LE(before - mallinfo2().uordblks, 64 * 1024 + 4 * (peak + 32 * model.size())) << "peak " << peak;
}

// A string handed in may lie in the list being changed.
TEST(KeywordListStorage, StringsFromTheListItselfCanBeHandedBack) {
  const std::string v = "a value long enough to need new room when doubled";
  List l = MakeList({{"a", "short"}, {"b", v}});
  char *kw = nullptr, *value = nullptr;
  ReferenceKeywordInList(l.get(), "b", &kw, &value);
  ASSERT_EQ(UpdateKeywordInList(l.get(), "a", value), KWL_OK);
  ReferenceKeywordInList(l.get(), "a", &kw, &value);
  ASSERT_EQ(AddValueToList(l.get(), "a", value), KWL_OK);  // already an item: unchanged
  ASSERT_EQ(AddKeywordToList(l.get(), kw, value), KWL_OK);
  EXPECT_EQ(All(l.get()), Pairs({{"a", v}, {"b", v}, {"a", v}}));
  ReferenceKeywordInList(l.get(), "a", &kw, &value);
  EXPECT_EQ(RemoveKeywordFmList(l.get(), kw), KWL_OK);
  EXPECT_EQ(All(l.get()), Pairs({{"b", v}}));
}

TEST(KeywordList, GetNextCopiesIntoFixedBuffersAndReportsTruncation) {
  const size_t cases[][3] = {{35, 515, KWL_OK}, {36, 1, KWL_TRUNCATED}, {1, 516, KWL_TRUNCATED}};
  for (const auto &c : cases) {
    const std::string k(c[0], 'k'), v(c[1], 'v');
    List l = MakeList({{k, v}, {"next", "n"}});
    char kbuf[KWL_KEYWORD_BUFSIZE + 8], vbuf[KWL_VALUE_BUFSIZE + 8];
    memset(kbuf, '#', sizeof kbuf);
    memset(vbuf, '#', sizeof vbuf);
    EXPECT_EQ(GetNextKeywordFmList(l.get(), kbuf, vbuf), static_cast<int>(c[2])) << c[0] << "/" << c[1];
    EXPECT_EQ(std::string(kbuf), k.substr(0, KWL_KEYWORD_BUFSIZE - 1));
    EXPECT_EQ(std::string(vbuf), v.substr(0, KWL_VALUE_BUFSIZE - 1));
    EXPECT_EQ(kbuf[KWL_KEYWORD_BUFSIZE] + vbuf[KWL_VALUE_BUFSIZE], '#' + '#') << "wrote past a buffer";
    EXPECT_EQ(GetNextKeywordFmList(l.get(), kbuf, vbuf), KWL_OK);
    EXPECT_EQ(GetNextKeywordFmList(l.get(), kbuf, vbuf), KWL_END);
  }
}

TEST(KeywordList, NullAndForeignListsAreRefusedWithoutBeingTouched) {
  // Shaped like a list but never made by CreateKeywordList: its cursor must
  // not be followed.
  KeywordList forged{};
  forged.kwl_magic = 12345;
  forged.kwl_cursor = forged.kwl_first = reinterpret_cast<KeywordEntry *>(&forged);
  char *kw = nullptr, *value = nullptr;
  char kbuf[KWL_KEYWORD_BUFSIZE], vbuf[KWL_VALUE_BUFSIZE];
  List ok = MakeList(kAbc);
  for (KeywordList *bad : {static_cast<KeywordList *>(nullptr), &forged}) {
    // Loops that stop only at KWL_END must stop here too.
    EXPECT_EQ(Step(bad), KWL_END);
    EXPECT_EQ(GetNextKeywordFmList(bad, kbuf, vbuf), KWL_END);
    EXPECT_NE(ValidKeywordList(bad), KWL_OK);
    EXPECT_NE(AddKeywordToList(bad, "k", "v") & UpdateKeywordInList(bad, "k", "v") & RemoveKeywordFmList(bad, "k"), KWL_OK);
    EXPECT_NE(ReferenceKeywordInList(bad, "k", &kw, &value), KWL_OK);
    EXPECT_NE(AddKeywordListToList(bad, ok.get()) & AddKeywordListToList(ok.get(), bad), KWL_OK);
    EXPECT_EQ(DuplicateKeywordList(bad), nullptr);
  }
  EXPECT_NE(DestroyKeywordList(&forged), KWL_OK);
  EXPECT_EQ(DestroyKeywordList(nullptr), KWL_OK);
  EXPECT_EQ(All(ok.get()), kAbc);
}

TEST(ParseCommaList, ItemsThenNullThenTheOneBlockHoldingThemAll) {
  const std::pair<const char *, std::vector<std::string>> cases[] = {
      {"a,b,c", {"a", "b", "c"}}, {"", {}},          {" a , b\t,c ", {"a", "b", "c"}}, {"a,,b,", {"a", "b"}},
      {",,,", {}},                {"   ", {}},        {",a", {"a"}}, {"two words, x y z", {"two words", "x y z"}},
  };
  for (const auto &c : cases) {
    std::string input = c.first;
    CommaList list = ParseCommaList(input.c_str());
    ASSERT_NE(list, nullptr) << c.first;
    EXPECT_EQ(input, c.first) << "input changed";
    size_t n = 0;
    while (list[n] != nullptr) ++n;
    EXPECT_EQ(std::vector<std::string>(list, list + n), c.second) << c.first;
    // Freeing the block and the array must free every item.
    char *block = list[n + 1];
    auto lo = reinterpret_cast<uintptr_t>(block), hi = lo + (block ? malloc_usable_size(block) : 0);
    for (size_t i = 0; i < n; ++i) {
      auto p = reinterpret_cast<uintptr_t>(list[i]);
      EXPECT_TRUE(p >= lo && p + strlen(list[i]) < hi) << "item " << i << " outside the block";
    }
    free(block);
    free(list);
  }
  EXPECT_EQ(ParseCommaList(nullptr), nullptr);
}

TEST(IsInCommaList, MatchesWholeTrimmedItemsExactly) {
  const std::tuple<const char *, const char *, int> cases[] = {
      {"b", "a,b,c", 1}, {"a", "a,b,c", 1}, {"c", "a,b,c", 1},   {"d", "a,b,c", 0}, {"b", " a , b , c ", 1},
      {" b\t", "a,b,c", 1}, {"B", "a,b,c", 0}, {"ab", "a,b", 0}, {"a", "ab,ba", 0}, {"a,b", "a,b", 0},
      {"x y", "w,x y,z", 1}, {"", "a,,b", 0}, {"a", "", 0},      {nullptr, "a", 0}, {"a", nullptr, 0},
  };
  for (const auto &c : cases)
    EXPECT_EQ(IsInCommaList(std::get<0>(c), std::get<1>(c)), std::get<2>(c))
        << (std::get<0>(c) ? std::get<0>(c) : "(null)") << " in " << (std::get<1>(c) ? std::get<1>(c) : "(null)");
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
  List l = MakeList(kAbc);
  Step(l.get());
  EXPECT_EQ(Write(l.get()), "a=1\nb=2\nc=3\n") << "the whole list, and the cursor stays";
  EXPECT_EQ(Rest(l.get()), Pairs({{"b", "2"}, {"c", "3"}}));
  EXPECT_NE(KeywordListToStream(nullptr, l.get()), 0);
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
  EXPECT_EQ(Rest(l.get()), Pairs({{"YRA_FW", "local"}, {"spaced", "value with  inner blanks"}, {"quoted", "  kept  "},
                                  {"escaped", "a\"b\\c\nd"}, {"crlf", "dos"}, {"empty", ""},
                                  {"url", "http://host/a=b#frag"}, {"last", "no newline"}}));
  for (const char *line : {"line 9:", "line 10:", "line 11:", "line 12:", "line 13:"})
    EXPECT_TRUE(trace.Has(line)) << line << " not reported in:\n" << trace.Text();
  EXPECT_FALSE(trace.Has("line 1:") || trace.Has("line 8:") || trace.Has("line 14:")) << trace.Text();
  EXPECT_EQ(NumberOfKeywords(Read("# only a comment\n\n").get()), 0);
}

}  // namespace
