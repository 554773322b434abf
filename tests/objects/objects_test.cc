// Object records: building, reading whole objects, freeing whole trees.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "qd.h"
#include "sandbox.h"
#include "trace_capture.h"

using testing_support::Sandbox;

namespace {

ObjectRecord *Leaf(const char *alias) {
  KeywordList *a = CreateKeywordList();
  AddKeywordToList(a, "class", "disk");
  return Create_object(strdup(alias), a, CreateKeywordList());
}

void Contain(ObjectRecord *parent, ObjectRecord *child) {
  auto *node = static_cast<ContainedNode *>(malloc(sizeof(ContainedNode)));
  node->object = child;
  node->next = parent->contained;
  parent->contained = node;
}

// The sanitizer build's leak check is what proves every record is freed.
TEST(QDfreeobj, FreesAWholeContainmentTree) {
  ObjectRecord *a = Leaf("a");
  ObjectRecord *b = Leaf("b");
  Contain(b, Leaf("c"));
  Contain(a, b);
  Contain(a, Leaf("d"));
  QDfreeobj(a);
  QDfreeobj(nullptr);
  ObjectRecord *bare = Create_object(nullptr, nullptr, nullptr);  // nothing owned yet
  ASSERT_NE(bare, nullptr);
  EXPECT_EQ(bare->contained, nullptr);
  QDfreeobj(bare);
}

TEST(QDLgetobj, ReadsAliasAttributesAndMethods) {
  Sandbox box;
  TraceCapture trace(box, 8);
  ObjectRecord *o = QDLgetobj("tape1");
  ASSERT_NE(o, nullptr);
  EXPECT_STREQ(o->alias, "tape1");
  EXPECT_EQ(NumberOfKeywords(o->attributes), 8);
  EXPECT_EQ(NumberOfKeywords(o->methods), 3);
  EXPECT_EQ(o->contained, nullptr);
  EXPECT_TRUE(trace.Has("QDgetobj: Object alias       = tape1"));
  QDfreeobj(o);
}

TEST(QDLgetobj, AnEntryWithoutMethodsHasAnEmptyMethodList) {
  Sandbox box;
  ObjectRecord *o = QDLgetobj("console");
  ASSERT_NE(o, nullptr);
  ASSERT_NE(o->methods, nullptr);
  EXPECT_EQ(NumberOfKeywords(o->methods), 0);
  QDfreeobj(o);
}

TEST(QDLgetobj, AnUnknownAliasGivesNothing) {
  Sandbox box;
  EXPECT_EQ(QDLgetobj("nosuch"), nullptr);
  EXPECT_EQ(QDgetobj("nosuch"), nullptr);
}

TEST(QDputobj, WithoutAnObjectTheCombinedListCannotBeBuilt) {
  Sandbox box;
  EXPECT_EQ(QDputobj("x", nullptr), 12);
}

}  // namespace
