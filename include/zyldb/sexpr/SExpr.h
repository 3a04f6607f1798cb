#pragma once

// S-expression lists: chains of cells, each holding one element and the rest
// of the list. Elements are field references (a column of a table or view),
// operators, or nested lists. Views keep the columns that their field list
// names as a list of field references; every class prints itself as
// text for diagnostics ("(Reel Scene Take)").
//
// Lists are built by pushing new cells in front (`new SExpr(elt, list)`) and
// reversing the finished list once, so the elements end up in the order in
// which they were added.
//
// Ownership: a cell owns its element and the rest of the list; deleting the
// first cell frees the whole list. A field reference does not own its source.
//
// Threads: a list is used by one thread at a time.

#include <zyldb/export.h>
#include <zyldb/platform/GrowString.h>

#include <cstdint>

class ODBBase;

// Abstract base of every element.
class ZYLDB_EXPORT SExprElt {
 public:
  static constexpr int32_t kFieldRef = 0;
  static constexpr int32_t kList = 1;
  static constexpr int32_t kOperator = 2;

  explicit SExprElt(int32_t kind) : kind_(kind) {}
  SExprElt(const SExprElt&) = delete;
  SExprElt& operator=(const SExprElt&) = delete;
  virtual ~SExprElt();

  // Appends this element's text to `out`.
  virtual void asString(GrowString& out) const = 0;

  int32_t kind() const { return kind_; }

 private:
  int32_t kind_;
};

// A list cell.
class ZYLDB_EXPORT SExpr : public SExprElt {
 public:
  // Takes ownership of `element` and of `next` (either may be null).
  explicit SExpr(SExprElt* element = nullptr, SExpr* next = nullptr)
      : SExprElt(kList), element_(element), next_(next) {}
  // Destroys the element, then the rest of the list. Iterative: lists of
  // any length and nesting depth are freed in linear time without deep
  // recursion or allocation.
  ~SExpr() override;

  // Appends "(", each element of the list from this cell on separated by one
  // blank, then ")". A missing element prints nothing. Iterative: nested
  // lists of any depth print in linear time (extra memory: one pointer per
  // level of nesting).
  void asString(GrowString& out) const override;

  // Reverses the chain starting at this cell in place and returns the new
  // first cell (the old last one); this cell becomes the last.
  SExpr* reverse();

  SExprElt* element() const { return element_; }
  SExpr* next() const { return next_; }
  // Hands the rest of the list to the caller (this cell's next becomes null).
  SExpr* releaseNext() {
    SExpr* n = next_;
    next_ = nullptr;
    return n;
  }
  // The number of cells from this one to the end.
  int length() const;

 private:
  SExprElt* element_;
  SExpr* next_;
};

// A reference to column `field` of a table or view.
class ZYLDB_EXPORT SExprRef : public SExprElt {
 public:
  // `source` is borrowed and may be null; it must outlive the reference
  // whenever the reference is printed.
  SExprRef(uint32_t field, ODBBase* source) : SExprElt(kFieldRef), field_(field), source_(source) {}
  ~SExprRef() override;

  // Appends the source's name of the column, or "voidref" without a source.
  void asString(GrowString& out) const override;

  uint32_t field() const { return field_; }
  ODBBase* source() const { return source_; }

 private:
  uint32_t field_;
  ODBBase* source_;
  [[maybe_unused]] void* reserved_ = nullptr;  // always null
};

// An operator element; it prints "op " (with the trailing blank).
class ZYLDB_EXPORT SExprOperator : public SExprElt {
 public:
  SExprOperator() : SExprElt(kOperator) {}
  ~SExprOperator() override;
  void asString(GrowString& out) const override;
};

// A forward cursor over a list: before the first step and after the last its
// current cell is null; the first ++ moves to the list's first cell.
//   for (SExprIterator it(list); ++it, it.current();) use(it.current());
class ZYLDB_EXPORT SExprIterator {
 public:
  // `list` is borrowed.
  explicit SExprIterator(SExpr* list) : list_(list) {}

  SExprIterator& operator++() {
    current_ = current_ ? current_->next() : list_;
    return *this;
  }
  SExpr* current() const { return current_; }

 private:
  SExpr* list_;
  SExpr* current_ = nullptr;
};
