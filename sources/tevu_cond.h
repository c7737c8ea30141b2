// The condition language of tevu_find_where() (an extension; see tevul.h
// for the language itself): parsed once into a tree, then turned into one
// statement per volume in which every name is checked against that volume's
// columns and every value is bound, never formatted into the text.
#ifndef TEVUL_TEVU_COND_H
#define TEVUL_TEVU_COND_H

#include <cstddef>

#include <sqlite3.h>

#include "common.h"

namespace tevul {

// A parsed condition: its nodes, the root last.
class condition {
 public:
  enum kind { kOr, kAnd, kNot, kHas, kCompare };
  enum op { kEq, kNe, kLt, kLe, kGt, kGe };
  struct node {
    kind what;
    op how;
    int left;            // kOr, kAnd, kNot: the operands' indexes
    int right;
    std::size_t name;    // kHas, kCompare: offsets of the texts
    std::size_t value;
  };

  // Parses `source`. Returns 0, EINVAL with the byte offset of the fault in
  // *offset (the offset of the end for a condition that stops too early),
  // or ENOMEM.
  int parse(const char* source, std::size_t* offset);

  std::size_t size() const { return nodes_.size(); }
  const node& operator[](std::size_t i) const { return nodes_[i]; }
  int root() const { return static_cast<int>(nodes_.size()) - 1; }
  const char* name(const node& n) const { return texts_.c_str() + n.name; }
  const char* value(const node& n) const { return texts_.c_str() + n.value; }

 private:
  struct cursor;
  int parse_or(cursor& c);
  int parse_and(cursor& c);
  int parse_not(cursor& c);
  int parse_primary(cursor& c);
  int add(const node& n);

  array<node> nodes_;
  text texts_;
};

// True when `text` is a number as the language compares numbers: decimal,
// optionally signed, with an optional fraction and exponent, nothing else
// (no blanks, no hexadecimal, no "inf" or "nan"); of any size: 1e400 is a
// number.
bool is_number(const char* text);

// Compares the numbers `a` and `b` (is_number() texts) exactly, as
// decimals, however many digits and whatever exponent they have: -1, 0 or
// 1. (9223372036854775808 is above 9223372036854775807, 1e309 above 1e308,
// 1e2 equal to 100.)
int compare_numbers(const char* a, const char* b);

// A value bound to the statement of a condition.
struct condition_param {
  const char* text;
};

// The statement with which the files of one database (`db`, whose row id
// reads as `rowid`) that satisfy `c` are searched, one batch at a time:
// the row id and then `columns` ("Path", or "*" for whole rows) of each,
// the condition's values as parameters 1 to params->size(), then, with
// `subtree`, the stored path and its literal pattern, and last the row id
// to go on after (parameter *after). A name the database has no column for
// is false. Returns false when memory is short.
bool condition_sql(const condition& c, sqlite3* db, const char* rowid,
                   const char* columns, bool subtree, text* sql,
                   array<condition_param>* params, std::size_t* after);

}  // namespace tevul

#endif  // TEVUL_TEVU_COND_H
