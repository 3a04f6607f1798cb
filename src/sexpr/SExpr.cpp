#include <zyldb/db/ODBBase.h>
#include <zyldb/sexpr/SExpr.h>

#include <vector>

SExprElt::~SExprElt() = default;

namespace {

// The element as a nested list, or null.
SExpr* asList(SExprElt* e) { return e ? dynamic_cast<SExpr*>(e) : nullptr; }

}  // namespace

// Nested lists and the rest of the list are freed in one loop rather than by
// recursion through each cell's destructor, so that no length or depth can
// exhaust the stack: a nested list is spliced into the chain still to be
// freed, in front of the cells after it. Each cell is walked at most twice
// (once to find a nested list's last cell, once to free it), and nothing is
// allocated.
SExpr::~SExpr() {
  SExpr* chain = next_;
  next_ = nullptr;
  SExprElt* element = element_;
  element_ = nullptr;
  for (;;) {
    if (SExpr* nested = asList(element)) {
      SExpr* last = nested;
      while (last->next_) last = last->next_;
      last->next_ = chain;
      chain = nested;
    } else {
      delete element;
    }
    if (!chain) return;
    SExpr* cell = chain;
    chain = cell->next_;
    element = cell->element_;
    cell->next_ = nullptr;
    cell->element_ = nullptr;
    delete cell;  // now empty: its destructor does nothing more
  }
}

// Nested lists are printed with a stack of the cells that hold them, rather
// than by recursion, so that no depth can exhaust the call stack.
void SExpr::asString(GrowString& out) const {
  std::vector<const SExpr*> holders;  // cells whose nested list is being printed
  out.append('(');
  const SExpr* cell = this;
  for (;;) {
    if (!cell) {
      out.append(')');
      if (holders.empty()) return;
      const SExpr* holder = holders.back();
      holders.pop_back();
      if (holder->next()) out.append(' ');
      cell = holder->next();
      continue;
    }
    if (const SExpr* nested = asList(cell->element())) {
      holders.push_back(cell);
      out.append('(');
      cell = nested;
      continue;
    }
    if (const SExprElt* e = cell->element()) e->asString(out);
    if (cell->next()) out.append(' ');
    cell = cell->next();
  }
}

SExpr* SExpr::reverse() {
  SExpr* prev = nullptr;
  SExpr* cell = this;
  while (cell) {
    SExpr* after = cell->next_;
    cell->next_ = prev;
    prev = cell;
    cell = after;
  }
  return prev;
}

int SExpr::length() const {
  int n = 0;
  for (const SExpr* c = this; c; c = c->next_) ++n;
  return n;
}

SExprRef::~SExprRef() = default;

void SExprRef::asString(GrowString& out) const {
  if (!source_) {
    out.append("voidref");
    return;
  }
  out.append(source_->get_fieldname(field_));
}

SExprOperator::~SExprOperator() = default;

void SExprOperator::asString(GrowString& out) const { out.append("op "); }
