#include <gtest/gtest.h>
#include <zyldb/db/zyldb.h>
#include <zyldb/sexpr/SExpr.h>

#include <memory>
#include <random>
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

namespace {

// The plain recursive rule that the iterative printer replaces.
void printRecursively(const SExpr* list, std::string& out) {
  out += '(';
  for (const SExpr* c = list; c; c = c->next()) {
    if (auto* nested = dynamic_cast<const SExpr*>(c->element())) {
      printRecursively(nested, out);
    } else if (c->element()) {
      GrowString g;
      c->element()->asString(g);
      out += g.view();
    }
    if (c->next()) out += ' ';
  }
  out += ')';
}

// A random tree of lists, references, operators and empty cells.
SExpr* randomList(std::mt19937& rng, int depth) {
  SExpr* list = nullptr;
  for (int n = 1 + static_cast<int>(rng() % 4); n > 0; --n) {
    SExprElt* e = nullptr;
    switch (rng() % 4) {
      case 0:
        e = depth > 0 ? randomList(rng, depth - 1) : nullptr;
        break;
      case 1:
        e = new SExprRef(static_cast<uint32_t>(rng() % 9), nullptr);
        break;
      case 2:
        e = new SExprOperator;
        break;
      default:
        break;
    }
    list = new SExpr(e, list);
  }
  return list;
}

TEST(SExprTest, IterativePrintingMatchesTheRecursiveRule) {
  std::mt19937 rng(11);
  for (int i = 0; i < 300; ++i) {
    std::unique_ptr<SExpr> list(randomList(rng, 5));
    GrowString out;
    list->asString(out);
    std::string expected;
    printRecursively(list.get(), expected);
    EXPECT_EQ(out.view(), expected);
  }
}

// A million levels of nesting, with a sibling at every level: printing and
// freeing must neither recurse that deep nor leak (run under ASan).
TEST(SExprTest, DeeplyNestedListsPrintAndFreeWithoutRecursion) {
  constexpr int kDepth = 1000000;
  SExpr* list = new SExpr(new SExprOperator);
  for (int i = 1; i < kDepth; ++i) list = new SExpr(list, new SExpr(new SExprRef(1, nullptr)));
  GrowString out;
  list->asString(out);
  const std::string_view text = out.view();
  // Level 1 is "(op )"; each level k wraps level k-1 as "(" ... " voidref)".
  EXPECT_EQ(text.size(), 5 + size_t{kDepth - 1} * 10);
  EXPECT_EQ(text.find_first_not_of('('), size_t{kDepth});
  EXPECT_EQ(text.substr(kDepth - 1, 15), "(op ) voidref) ");
  EXPECT_EQ(text.substr(text.size() - 9), " voidref)");
  delete list;
}

}  // namespace
