// Keyword lists: contents, the cursor contract callers iterate by, and the
// status codes they test.
#include <gtest/gtest.h>

#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "list_util.h"
#include "pv.h"
#include "sandbox.h"

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

List Thinned(const Pairs &pairs, std::function<void(KeywordList *)> thin) {
  List l = MakeList(pairs);
  thin(l.get());
  return l;
}

// Callers iterate a list made in any of these ways without resetting it.
TEST(KeywordListCursor, FreshListDeliversFromItsFirstEntry) {
  List src = MakeList(kAbc);
  Step(src.get());
  char text[] = "a=1\nb=2\nc=3\n";
  FILE *in = fmemopen(text, strlen(text), "r");
  struct Case {
    const char *how;
    List list;
  } cases[] = {
      {"created then filled", MakeList(kAbc)},
      {"appended to", Thinned({}, [&](KeywordList *l) { AddKeywordListToList(l, src.get()); })},
      {"duplicated mid-walk", List(DuplicateKeywordList(src.get()))},
      {"read from a stream", List(KeywordStreamToList(in))},
      {"thinned of duplicates",
       Thinned({{"a", "1"}, {"a", "x"}, {"b", "2"}, {"c", "3"}, {"b", "y"}},
               [](KeywordList *l) { RemoveDuplicateKeywordFmList(l); })},
      {"first entry removed", Thinned({{"z", "0"}, {"a", "1"}, {"b", "2"}, {"c", "3"}},
                                      [](KeywordList *l) { RemoveKeywordFmList(l, "z"); })},
      {"emptied then refilled", Thinned({{"z", "0"}},
                                        [](KeywordList *l) {
                                          RemoveKeywordFmList(l, "z");
                                          for (const auto &p : kAbc)
                                            AddKeywordToList(l, p.first.c_str(), p.second.c_str());
                                        })},
  };
  fclose(in);
  for (Case &c : cases) {
    ASSERT_NE(c.list, nullptr) << c.how;
    EXPECT_EQ(Rest(c.list.get()), kAbc) << c.how;
  }
  // The copy is deep and the original keeps its place.
  UpdateKeywordInList(cases[2].list.get(), "b", "changed");
  EXPECT_EQ(Rest(src.get()), Pairs({{"b", "2"}, {"c", "3"}}));
}

TEST(KeywordListCursor, IterationContinuesUntilTheCallerCopiesFirstIntoCursor) {
  List empty(CreateKeywordList());
  empty->kwl_cursor = empty->kwl_first;
  EXPECT_EQ(Step(empty.get()), KWL_END);

  List l = MakeList(kAbc);
  EXPECT_EQ(Step(l.get()), KWL_OK);
  EXPECT_EQ(Rest(l.get()), Pairs({{"b", "2"}, {"c", "3"}}));
  EXPECT_EQ(Step(l.get()), KWL_END);
  EXPECT_EQ(All(l.get()), kAbc);
}

TEST(KeywordListCursor, RemovingTheEntryAtTheCursorMovesItToTheNextKept) {
  List l = MakeList({{"a", "1"}, {"b", "2"}, {"b", "3"}, {"c", "4"}, {"b", "5"}});
  Step(l.get());  // the cursor now stands on the first b
  EXPECT_EQ(RemoveKeywordFmList(l.get(), "b"), KWL_OK);
  EXPECT_EQ(Rest(l.get()), Pairs({{"c", "4"}}));

  l = MakeList({{"a", "1"}, {"b", "2"}, {"a", "3"}, {"c", "4"}});
  Step(l.get());
  Step(l.get());  // on the second a
  EXPECT_EQ(RemoveDuplicateKeywordFmList(l.get()), KWL_DUPLICATE);
  EXPECT_EQ(Rest(l.get()), Pairs({{"c", "4"}}));
}

TEST(KeywordList, RepeatedKeywordsStayUntilThinnedToTheFirstOrRemovedAll) {
  const Pairs repeated = {{"k", "1"}, {"x", "a"}, {"k", "2"}, {"x", "b"}, {"y", ""}, {"k", "3"}};
  List l = MakeList(repeated);
  EXPECT_EQ(All(l.get()), repeated);
  EXPECT_EQ(RemoveDuplicateKeywordFmList(l.get()), KWL_DUPLICATE);
  EXPECT_EQ(All(l.get()), Pairs({{"k", "1"}, {"x", "a"}, {"y", ""}}));
  EXPECT_EQ(NumberOfKeywords(l.get()), 3);
  EXPECT_EQ(RemoveDuplicateKeywordFmList(l.get()), KWL_OK);

  l = MakeList(repeated);
  EXPECT_EQ(RemoveKeywordFmList(l.get(), "k"), KWL_OK);
  EXPECT_EQ(All(l.get()), Pairs({{"x", "a"}, {"x", "b"}, {"y", ""}}));
  EXPECT_NE(RemoveKeywordFmList(l.get(), "k"), KWL_OK);
  EXPECT_NE(RemoveKeywordFmList(l.get(), "X"), KWL_OK);  // case matters
  // Removing the last entries must leave the tail where appends go.
  RemoveKeywordFmList(l.get(), "y");
  AddKeywordToList(l.get(), "z", "9");
  EXPECT_EQ(All(l.get()), Pairs({{"x", "a"}, {"x", "b"}, {"z", "9"}}));
  RemoveKeywordFmList(l.get(), "x");
  RemoveKeywordFmList(l.get(), "z");
  EXPECT_EQ(l->kwl_first, nullptr);
  EXPECT_EQ(NumberOfKeywords(l.get()), 0);
  AddKeywordToList(l.get(), "e", "7");
  EXPECT_EQ(All(l.get()), Pairs({{"e", "7"}}));
}

TEST(KeywordList, UpdateSetsTheFirstEntryOrAppends) {
  List l = MakeList({{"a", "1"}, {"k", "old"}, {"k", "second"}});
  const std::string longer(600, 'v');
  EXPECT_EQ(UpdateKeywordInList(l.get(), "k", longer.c_str()), KWL_OK);
  EXPECT_EQ(All(l.get()), Pairs({{"a", "1"}, {"k", longer}, {"k", "second"}}));
  UpdateKeywordInList(l.get(), "k", "s");
  UpdateKeywordInList(l.get(), "new", "n");
  EXPECT_EQ(All(l.get()), Pairs({{"a", "1"}, {"k", "s"}, {"k", "second"}, {"new", "n"}}));
  // A value taken from the entry itself overlaps the room it is copied to.
  UpdateKeywordInList(l.get(), "a", "overlapping");
  char *kw = nullptr, *value = nullptr;
  ReferenceKeywordInList(l.get(), "a", &kw, &value);
  UpdateKeywordInList(l.get(), "a", value + 4);
  EXPECT_EQ(All(l.get()).front(), Pairs::value_type("a", "lapping"));
}

TEST(KeywordList, LookupFindsTheFirstEntryAndWarnsOnlyForOneWithoutValue) {
  List l = MakeList({{"k", "one"}, {"e", ""}, {"k", "two"}});
  AddKeywordToList(l.get(), "n", nullptr);
  char *kw = nullptr, *value = nullptr;
  EXPECT_EQ(ReferenceKeywordInList(l.get(), "k", &kw, &value), KWL_OK);
  EXPECT_STREQ(kw, "k");
  EXPECT_STREQ(value, "one");
  // An empty value is a value: lookups that count only 0 must find it.
  EXPECT_EQ(ReferenceKeywordInList(l.get(), "e", &kw, &value), KWL_OK);
  EXPECT_EQ(ReferenceKeywordInList(l.get(), "n", &kw, &value), KWL_WARN);
  EXPECT_STREQ(value, "");
  EXPECT_EQ(ReferenceKeywordInList(l.get(), "K", &kw, &value), KWL_NOTFOUND);

  // The same while iterating, the entry still delivered; copies keep it.
  List copy(DuplicateKeywordList(l.get()));
  List appended(CreateKeywordList());
  AddKeywordListToList(appended.get(), l.get());
  for (KeywordList *list : {l.get(), copy.get(), appended.get()}) {
    list->kwl_cursor = list->kwl_first;
    std::vector<int> codes;
    for (int i = 0; i < 5; ++i) codes.push_back(Step(list));
    EXPECT_EQ(codes, std::vector<int>({KWL_OK, KWL_OK, KWL_OK, KWL_WARN, KWL_END}));
  }

  UpdateKeywordInList(l.get(), "n", "");
  EXPECT_EQ(ReferenceKeywordInList(l.get(), "n", &kw, &value), KWL_OK);
  UpdateKeywordInList(l.get(), "k", nullptr);
  EXPECT_EQ(ReferenceKeywordInList(l.get(), "k", &kw, &value), KWL_WARN);
  AddValueToList(l.get(), "k", "x");
  EXPECT_EQ(ReferenceKeywordInList(l.get(), "k", &kw, &value), KWL_OK);
  EXPECT_STREQ(value, "x");
}

TEST(KeywordList, StringsAreCopiedWhole) {
  char kw[16] = "keyword";
  char value[16] = "value";
  List l(CreateKeywordList());
  AddKeywordToList(l.get(), kw, value);
  strcpy(kw, "XXXXXXX");
  strcpy(value, "YYYYY");
  const std::string k33(33, 'k'), v513(513, 'v'), huge(20000, 'h');
  AddKeywordToList(l.get(), k33.c_str(), v513.c_str());
  AddKeywordToList(l.get(), huge.c_str(), huge.c_str());
  EXPECT_EQ(All(l.get()), Pairs({{"keyword", "value"}, {k33, v513}, {huge, huge}}));
}

TEST(KeywordList, AddValueJoinsItemsOnceEach) {
  struct Case {
    const char *before;  // nullptr: keyword absent
    const char *add;
    const char *after;
  };
  const Case cases[] = {
      {nullptr, "x", "x"}, {"", "x", "x"},     {"a", "b", "a,b"},         {"a,b", "a", "a,b"},
      {"a,b", "b", "a,b"}, {"ab", "a", "ab,a"}, {"a, b ,c", "b", "a, b ,c"}, {"a", "A", "a,A"},
  };
  for (const Case &c : cases) {
    List l = MakeList({{"other", "o"}});
    if (c.before != nullptr) AddKeywordToList(l.get(), "k", c.before);
    AddValueToList(l.get(), "k", c.add);
    EXPECT_EQ(All(l.get()), Pairs({{"other", "o"}, {"k", c.after}}))
        << (c.before ? c.before : "(absent)") << " + " << c.add;
  }
}

TEST(KeywordList, AppendingCopiesEveryEntryEvenOfItself) {
  List l = MakeList({{"a", "1"}, {"b", "2"}});
  List empty(CreateKeywordList());
  EXPECT_EQ(AddKeywordListToList(l.get(), empty.get()), KWL_OK);
  EXPECT_EQ(AddKeywordListToList(l.get(), l.get()), KWL_OK);
  const Pairs doubled = {{"a", "1"}, {"b", "2"}, {"a", "1"}, {"b", "2"}};
  EXPECT_EQ(All(l.get()), doubled);
  EXPECT_EQ(NumberOfKeywords(l.get()), 4);
  AddKeywordToList(l.get(), "y", "9");  // the tail moved with the append
  EXPECT_EQ(All(l.get()).back(), Pairs::value_type("y", "9"));
}

// Lists live long in a loaded cache and are changed in place many times:
// whatever storage they use, a long run of changes must leave exactly what a
// plain model of the list says, with the cursor where the model has it, and
// must not keep growing.
TEST(KeywordListStorage, LongRunsOfChangesMatchAModelAndStayBounded) {
  struct Start {
    const char *how;
    std::function<List()> make;
  } starts[] = {
      {"created", [] { return MakeList(kAbc); }},
      {"duplicated", [] { return List(DuplicateKeywordList(MakeList(kAbc).get())); }},
      {"appended to", [] {
         List l(CreateKeywordList());
         AddKeywordListToList(l.get(), MakeList(kAbc).get());
         return l;
       }},
  };
  for (const Start &start : starts) {
    SCOPED_TRACE(start.how);
    List l = start.make();
    Pairs model = kAbc;
    size_t cursor = 0;  // index into model of the entry the cursor delivers next
    // An exhausted cursor stays so when entries are appended, unless the
    // list was empty.
    auto appended = [&](const std::string &k, const std::string &v) {
      bool was_empty = model.empty();
      bool at_end = cursor >= model.size();
      model.emplace_back(k, v);
      if (was_empty)
        cursor = 0;
      else if (at_end)
        cursor = model.size();
    };
    unsigned state = 7;
    auto rnd = [&state](unsigned n) {
      state = state * 1103515245u + 12345u;
      return (state >> 16) % n;
    };
    size_t peak = 0;
    for (int step = 0; step < 20000; ++step) {
      std::string kw = "k" + std::to_string(rnd(6));
      std::string value(rnd(4) == 0 ? 40 + rnd(200) : rnd(12), static_cast<char>('a' + step % 26));
      auto first = [&] {
        for (size_t i = 0; i < model.size(); ++i)
          if (model[i].first == kw) return i;
        return model.size();
      };
      switch (rnd(5)) {
        case 0:
          ASSERT_EQ(AddKeywordToList(l.get(), kw.c_str(), value.c_str()), KWL_OK);
          appended(kw, value);
          break;
        case 1: {
          ASSERT_EQ(UpdateKeywordInList(l.get(), kw.c_str(), value.c_str()), KWL_OK);
          size_t i = first();
          if (i == model.size())
            appended(kw, value);
          else
            model[i].second = value;
          break;
        }
        case 2: {
          RemoveKeywordFmList(l.get(), kw.c_str());
          Pairs kept;
          size_t moved = cursor;
          for (size_t i = 0; i < model.size(); ++i) {
            if (model[i].first == kw) {
              if (i < cursor) --moved;
              continue;
            }
            kept.push_back(model[i]);
          }
          model = kept;
          cursor = moved;
          break;
        }
        case 3:
          l->kwl_cursor = l->kwl_first;  // a caller restarting its walk
          cursor = 0;
          break;
        default:
          if (cursor < model.size()) {
            char *k = nullptr, *v = nullptr;
            ASSERT_EQ(ReferenceNextKeywordInList(l.get(), &k, &v), KWL_OK);
            ASSERT_EQ(Pairs::value_type(k, v), model[cursor]) << "step " << step;
            ++cursor;
          }
      }
      size_t bytes = 0;
      for (const auto &p : model) bytes += p.first.size() + p.second.size();
      peak = std::max(peak, bytes);
      if (step % 997 == 0) {
        Pairs rest(model.begin() + static_cast<long>(cursor), model.end());
        KeywordEntry *saved = l->kwl_cursor;
        ASSERT_EQ(Rest(l.get()), rest) << "step " << step;
        l->kwl_cursor = saved;
        ASSERT_EQ(NumberOfKeywords(l.get()), static_cast<int>(model.size()));
      }
    }
    EXPECT_EQ(All(l.get()), model);
    // What the list holds stays within a small multiple of the most it
    // ever needed, whatever it went through.
    size_t before = mallinfo2().uordblks;
    l.reset();
    size_t held = before - mallinfo2().uordblks;
    EXPECT_LE(held, 64 * 1024 + 4 * (peak + 32 * model.size())) << "peak " << peak;
  }
}

// A string handed in may lie in the list being changed.
TEST(KeywordListStorage, StringsFromTheListItselfCanBeHandedBack) {
  List l = MakeList({{"a", "short"}, {"b", "a value long enough to need new room when doubled"}});
  char *kw = nullptr, *value = nullptr;
  ReferenceKeywordInList(l.get(), "b", &kw, &value);
  ASSERT_EQ(UpdateKeywordInList(l.get(), "a", value), KWL_OK);
  ReferenceKeywordInList(l.get(), "a", &kw, &value);
  ASSERT_EQ(AddValueToList(l.get(), "a", value), KWL_OK);  // already an item: unchanged
  ASSERT_EQ(AddKeywordToList(l.get(), kw, value), KWL_OK);
  EXPECT_EQ(All(l.get()), Pairs({{"a", "a value long enough to need new room when doubled"},
                                 {"b", "a value long enough to need new room when doubled"},
                                 {"a", "a value long enough to need new room when doubled"}}));
  ReferenceKeywordInList(l.get(), "a", &kw, &value);
  EXPECT_EQ(RemoveKeywordFmList(l.get(), kw), KWL_OK);
  EXPECT_EQ(All(l.get()), Pairs({{"b", "a value long enough to need new room when doubled"}}));
}

TEST(KeywordList, GetNextCopiesIntoFixedBuffersAndReportsTruncation) {
  struct Case {
    size_t klen, vlen;
    int code;
  };
  const Case cases[] = {
      {35, 515, KWL_OK}, {36, 1, KWL_TRUNCATED}, {1, 516, KWL_TRUNCATED}, {100, 2000, KWL_TRUNCATED},
  };
  for (const Case &c : cases) {
    const std::string k(c.klen, 'k'), v(c.vlen, 'v');
    List l = MakeList({{k, v}, {"next", "n"}});
    char kbuf[KWL_KEYWORD_BUFSIZE + 8], vbuf[KWL_VALUE_BUFSIZE + 8];
    memset(kbuf, '#', sizeof kbuf);
    memset(vbuf, '#', sizeof vbuf);
    EXPECT_EQ(GetNextKeywordFmList(l.get(), kbuf, vbuf), c.code) << c.klen << "/" << c.vlen;
    EXPECT_EQ(std::string(kbuf), k.substr(0, KWL_KEYWORD_BUFSIZE - 1));
    EXPECT_EQ(std::string(vbuf), v.substr(0, KWL_VALUE_BUFSIZE - 1));
    EXPECT_EQ(kbuf[KWL_KEYWORD_BUFSIZE], '#') << "wrote past the keyword buffer";
    EXPECT_EQ(vbuf[KWL_VALUE_BUFSIZE], '#') << "wrote past the value buffer";
    EXPECT_EQ(GetNextKeywordFmList(l.get(), kbuf, vbuf), KWL_OK);
    EXPECT_STREQ(kbuf, "next");
    EXPECT_EQ(GetNextKeywordFmList(l.get(), kbuf, vbuf), KWL_END);
  }
}

TEST(KeywordList, NullAndForeignListsAreRefusedWithoutBeingTouched) {
  // Shaped like a list but never made by CreateKeywordList: its cursor must
  // not be followed.
  KeywordList forged{};
  forged.kwl_magic = 12345;
  forged.kwl_cursor = reinterpret_cast<KeywordEntry *>(&forged);
  forged.kwl_first = forged.kwl_cursor;
  char *kw = nullptr, *value = nullptr;
  char kbuf[KWL_KEYWORD_BUFSIZE], vbuf[KWL_VALUE_BUFSIZE];
  List ok = MakeList(kAbc);
  for (KeywordList *bad : {static_cast<KeywordList *>(nullptr), &forged}) {
    // Loops that stop only at KWL_END must stop here too.
    EXPECT_EQ(Step(bad), KWL_END);
    EXPECT_EQ(GetNextKeywordFmList(bad, kbuf, vbuf), KWL_END);
    EXPECT_NE(ValidKeywordList(bad), KWL_OK);
    EXPECT_NE(AddKeywordToList(bad, "k", "v"), KWL_OK);
    EXPECT_NE(UpdateKeywordInList(bad, "k", "v"), KWL_OK);
    EXPECT_NE(RemoveKeywordFmList(bad, "k"), KWL_OK);
    EXPECT_NE(ReferenceKeywordInList(bad, "k", &kw, &value), KWL_OK);
    EXPECT_NE(RemoveDuplicateKeywordFmList(bad), KWL_OK);
    EXPECT_NE(AddKeywordListToList(bad, ok.get()), KWL_OK);
    EXPECT_NE(AddKeywordListToList(ok.get(), bad), KWL_OK);
    EXPECT_EQ(DuplicateKeywordList(bad), nullptr);
    EXPECT_EQ(NumberOfKeywords(bad), 0);
  }
  EXPECT_NE(DestroyKeywordList(&forged), KWL_OK);
  EXPECT_EQ(DestroyKeywordList(nullptr), KWL_OK);
  EXPECT_EQ(All(ok.get()), kAbc);
}

TEST(KeywordListTrace, DumpAlwaysWritesDisplayOnlyAtLevelEightNeitherMovesTheCursor) {
  testing_support::Sandbox box;
  const std::string trace = box.Path("trace.log");
  setenv("VCEL_TRACE_FILE", trace.c_str(), 1);
  vcel_verbose_level = 0;
  List l = MakeList({{"first", "1"}, {"second", "two words"}});
  Step(l.get());

  DisplayKeywordList(l.get());
  EXPECT_EQ(testing_support::ReadFile(trace), "");
  DumpKeywordList(l.get());
  std::string dumped = testing_support::ReadFile(trace);
  EXPECT_NE(dumped.find("first=\"1\""), std::string::npos) << dumped;
  EXPECT_NE(dumped.find("second=\"two words\""), std::string::npos) << dumped;
  vcel_verbose_level = 8;
  DisplayKeywordList(l.get());
  std::string displayed = testing_support::ReadFile(trace).substr(dumped.size());
  EXPECT_NE(displayed.find(" L8 DisplayKeywordList: "), std::string::npos) << displayed;
  EXPECT_NE(displayed.find("second=\"two words\""), std::string::npos) << displayed;
  EXPECT_EQ(Rest(l.get()), Pairs({{"second", "two words"}}));
  unsetenv("VCEL_TRACE_FILE");
}

}  // namespace
