#include <zyldb/sexpr/SExpr.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include <zyldb/db/zyldb.h>

namespace {

std::string text(const SExprElt& e) {
  GrowString out;
  e.asString(out);
  return std::string(out.view());
}

// Builds a list the documented way: push in front, reverse once.
SExpr* listOf(std::vector<SExprElt*> elements) {
  SExpr* list = nullptr;
  for (SExprElt* e : elements) list = new SExpr(e, list);
  return list ? list->reverse() : nullptr;
}

TEST(SExprTest, PrintsElementsInOrderWithSingleBlanks) {
  zyldb table(std::vector<DBFieldDesc>{{"Reel", DBFieldTypes::text},
                                       {"Scene", DBFieldTypes::text},
                                       {"Take", DBFieldTypes::text}});
  std::unique_ptr<SExpr> refs(
      listOf({new SExprRef(0, &table), new SExprRef(1, &table), new SExprRef(2, &table)}));
  EXPECT_EQ(text(*refs), "(Reel Scene Take)");

  struct Case {
    std::vector<SExprElt*> elements;
    const char* expected;
  };
  const Case cases[] = {
      {{new SExprRef(0, nullptr)}, "(voidref)"},
      {{new SExprOperator}, "(op )"},
      {{new SExprOperator, new SExprRef(7, nullptr)}, "(op  voidref)"},
      {{new SExprRef(1, &table), listOf({new SExprRef(2, &table), new SExprRef(0, &table)})},
       "(Scene (Take Reel))"},
  };
  for (const Case& c : cases) {
    std::unique_ptr<SExpr> list(listOf(c.elements));
    EXPECT_EQ(text(*list), c.expected);
  }
}

TEST(SExprTest, ReverseReturnsTheOldLastCell) {
  auto* c3 = new SExpr(new SExprRef(3, nullptr));
  auto* c2 = new SExpr(new SExprRef(2, nullptr), c3);
  auto* c1 = new SExpr(new SExprRef(1, nullptr), c2);
  SExpr* head = c1->reverse();
  EXPECT_EQ(head, c3);
  EXPECT_EQ(c3->next(), c2);
  EXPECT_EQ(c2->next(), c1);
  EXPECT_EQ(c1->next(), nullptr);
  std::vector<uint32_t> fields;
  SExprIterator it(head);
  for (++it; it.current(); ++it) fields.push_back(static_cast<SExprRef*>(it.current()->element())->field());
  EXPECT_EQ(fields, (std::vector<uint32_t>{3, 2, 1}));
  delete head;

  auto* single = new SExpr(new SExprOperator);
  EXPECT_EQ(single->reverse(), single);
  EXPECT_EQ(single->next(), nullptr);
  delete single;
}

TEST(SExprTest, VeryLongListIsFreedWithoutDeepRecursion) {
  SExpr* list = nullptr;
  for (int i = 0; i < 1000000; ++i) list = new SExpr(new SExprOperator, list);
  EXPECT_EQ(list->length(), 1000000);
  delete list;
}

}  // namespace
