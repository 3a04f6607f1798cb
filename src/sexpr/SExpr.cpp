#include <zyldb/db/ODBBase.h>
#include <zyldb/sexpr/SExpr.h>

SExprElt::~SExprElt() = default;

// The rest of the list is freed in a loop rather than by recursion through
// each cell's destructor, so a list of any length cannot exhaust the stack.
SExpr::~SExpr() {
  delete element_;
  SExpr* rest = next_;
  next_ = nullptr;
  while (rest) {
    SExpr* after = rest->next_;
    rest->next_ = nullptr;
    delete rest;
    rest = after;
  }
}

void SExpr::asString(GrowString& out) const {
  out.append('(');
  SExprIterator it(const_cast<SExpr*>(this));
  for (++it; it.current(); ++it) {
    if (SExprElt* e = it.current()->element()) e->asString(out);
    if (it.current()->next()) out.append(' ');
  }
  out.append(')');
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
