#include <gtest/gtest.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/sexpr/SExpr.h>

#include <memory>
#include <string>
#include <vector>

namespace {

// Builds a list the documented way: push in front, reverse once.
SExpr* listOf(std::vector<SExprElt*> elements) {
  SExpr* list = nullptr;
  for (SExprElt* e : elements) list = new SExpr(e, list);
  return list ? list->reverse() : nullptr;
}

TEST(SExprTest, PrintsElementsInOrderWithSingleBlanks) {
  zyldb table(std::vector<DBFieldDesc>{
      {"Reel", DBFieldTypes::text}, {"Scene", DBFieldTypes::text}, {"Take", DBFieldTypes::text}});
  const struct {
    std::vector<SExprElt*> elements;
    const char* expected;
  } cases[] = {
      {{new SExprRef(0, &table), new SExprRef(1, &table), new SExprRef(2, &table)},
       "(Reel Scene Take)"},
      {{new SExprRef(0, nullptr)}, "(voidref)"},
      {{new SExprOperator}, "(op )"},
      {{new SExprOperator, new SExprRef(7, nullptr)}, "(op  voidref)"},
      {{new SExprRef(1, &table), listOf({new SExprRef(2, &table), new SExprRef(0, &table)})},
       "(Scene (Take Reel))"},
  };
  for (const auto& c : cases) {
    std::unique_ptr<SExpr> list(listOf(c.elements));
    GrowString out;
    list->asString(out);
    EXPECT_EQ(out.view(), c.expected);
  }
}

TEST(SExprTest, ReverseAndIterate) {
  SExpr* list =
      listOf({new SExprRef(1, nullptr), new SExprRef(2, nullptr), new SExprRef(3, nullptr)});
  SExpr* reversed = list->reverse();  // in place: the old last cell leads
  std::vector<uint32_t> fields;
  SExprIterator it(reversed);
  for (++it; it.current(); ++it)
    fields.push_back(static_cast<SExprRef*>(it.current()->element())->field());
  EXPECT_EQ(fields, (std::vector<uint32_t>{3, 2, 1}));
  EXPECT_EQ(list->next(), nullptr);
  delete reversed;

  auto* single = new SExpr(new SExprOperator);
  EXPECT_EQ(single->reverse(), single);
  delete single;
}

TEST(SExprTest, VeryLongListIsFreedWithoutDeepRecursion) {
  SExpr* list = nullptr;
  for (int i = 0; i < 1000000; ++i) list = new SExpr(new SExprOperator, list);
  EXPECT_EQ(list->length(), 1000000);
  delete list;
}

}  // namespace
