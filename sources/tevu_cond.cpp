// The condition language and the search by condition. See tevu_cond.h and
// tevul.h.
#include "tevu_cond.h"

#include <ctype.h>
#include <errno.h>
#include <math.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include "common.h"
#include "metadb_bulk.h"
#include "tevu_query.h"
#include "tevu_volume.h"
#include "tevul.h"

namespace tevul {

namespace {

// The deepest nesting of parentheses and "not" a condition may have, and
// the most terms (NAME, NAME op VALUE) it may hold: more is no condition a
// person writes. The bounds keep the statement within what SQLite parses
// (its parser's stack overflows at some twenty levels of parentheses), the
// expression within a small thread's stack, and the call's time short.
constexpr int kMaxDepth = 16;
constexpr int kMaxTerms = 128;

}  // namespace

// The tokens of a condition, read one ahead.
struct condition::cursor {
  enum token { kEnd, kOpen, kClose, kOperator, kWord, kQuoted };

  const char* source;
  std::size_t pos = 0;    // where the next token begins to be looked for
  token type = kEnd;      // the current token
  std::size_t start = 0;  // its offset
  op how = kEq;           // for kOperator
  text word;              // for kWord and kQuoted, unescaped
  int depth = 0;
  int terms = 0;
  bool failed = false;
  std::size_t fault = 0;

  explicit cursor(const char* s) : source(s) {}

  int fail(std::size_t at) {
    if (!failed) {
      failed = true;
      fault = at;
    }
    return -1;
  }

  // True for a bare word that is the keyword `keyword`.
  bool is(const char* keyword) const {
    return type == kWord && strcasecmp(word.c_str(), keyword) == 0;
  }

  // Reads the next token; false (with the fault recorded) for a character
  // that begins none, or an unterminated quote.
  bool next() {
    while (source[pos] == ' ' || source[pos] == '\t' || source[pos] == '\n' ||
           source[pos] == '\r') {
      ++pos;
    }
    start = pos;
    word.clear();
    const char c = source[pos];
    if (c == '\0') {
      type = kEnd;
      return true;
    }
    if (c == '(' || c == ')') {
      type = c == '(' ? kOpen : kClose;
      ++pos;
      return true;
    }
    if (c == '=' || c == '!' || c == '<' || c == '>') {
      type = kOperator;
      const bool eq = source[pos + 1] == '=';
      if (c == '!' && !eq) return fail(pos) == 0;
      how = c == '=' ? kEq : c == '!' ? kNe : c == '<' ? (eq ? kLe : kLt) : (eq ? kGe : kGt);
      pos += c != '=' && eq ? 2 : 1;
      return true;
    }
    if (c == '"' || c == '\'') {
      type = kQuoted;
      for (++pos; source[pos] != c; ++pos) {
        if (source[pos] == '\0') return fail(start) == 0;
        if (source[pos] == '\\' && source[pos + 1] != '\0') ++pos;
        word.push(source[pos]);
      }
      ++pos;
      return true;
    }
    type = kWord;
    while (source[pos] != '\0' && strchr(" \t\n\r()=!<>\"'", source[pos]) == nullptr) {
      word.push(source[pos++]);
    }
    return true;
  }
};

int condition::add(const node& n) {
  return nodes_.push(n) ? static_cast<int>(nodes_.size()) - 1 : -1;
}

int condition::parse(const char* source, std::size_t* offset) {
  nodes_.clear();
  texts_.clear();
  cursor c(source);
  int root = -1;
  if (c.next()) {
    root = parse_or(c);
    if (root >= 0 && c.type != cursor::kEnd) root = c.fail(c.start);
  }
  if (!texts_.ok() || !c.word.ok()) return ENOMEM;
  if (root < 0 || c.failed) {
    *offset = c.failed ? c.fault : c.start;
    return EINVAL;
  }
  // The root is looked for last; the tree is walked from it.
  node last = nodes_[static_cast<std::size_t>(root)];
  if (static_cast<std::size_t>(root) != nodes_.size() - 1 && add(last) < 0) return ENOMEM;
  return 0;
}

int condition::parse_or(cursor& c) {
  int left = parse_and(c);
  while (left >= 0 && c.is("or")) {
    if (!c.next()) return -1;
    const int right = parse_and(c);
    if (right < 0) return -1;
    left = add(node{kOr, kEq, left, right, 0, 0});
  }
  return left;
}

int condition::parse_and(cursor& c) {
  int left = parse_not(c);
  while (left >= 0 && c.is("and")) {
    if (!c.next()) return -1;
    const int right = parse_not(c);
    if (right < 0) return -1;
    left = add(node{kAnd, kEq, left, right, 0, 0});
  }
  return left;
}

int condition::parse_not(cursor& c) {
  if (!c.is("not")) return parse_primary(c);
  if (++c.depth > kMaxDepth) return c.fail(c.start);
  if (!c.next()) return -1;
  const int operand = parse_not(c);
  --c.depth;
  return operand < 0 ? -1 : add(node{kNot, kEq, operand, -1, 0, 0});
}

int condition::parse_primary(cursor& c) {
  if (c.type == cursor::kOpen) {
    if (++c.depth > kMaxDepth) return c.fail(c.start);
    if (!c.next()) return -1;
    const int inner = parse_or(c);
    if (inner < 0) return -1;
    if (c.type != cursor::kClose) return c.fail(c.start);
    --c.depth;
    return c.next() ? inner : -1;
  }
  // A name: a bare word that is no keyword, or a quoted text.
  const bool bare_keyword = c.is("and") || c.is("or") || c.is("not");
  if ((c.type != cursor::kWord && c.type != cursor::kQuoted) || bare_keyword ||
      c.word.empty() || strchr(c.word.c_str(), '"') != nullptr || ++c.terms > kMaxTerms) {
    return c.fail(c.start);
  }
  node n{kHas, kEq, -1, -1, texts_.size(), 0};
  texts_.append(c.word.c_str()).push('\0');
  if (!c.next()) return -1;
  if (c.type != cursor::kOperator) return add(n);
  n.what = kCompare;
  n.how = c.how;
  if (!c.next()) return -1;
  if (c.type != cursor::kWord && c.type != cursor::kQuoted) return c.fail(c.start);
  n.value = texts_.size();
  texts_.append(c.word.c_str()).push('\0');
  if (!c.next()) return -1;
  return add(n);
}

namespace {

// A decimal number read from its text: its sign, and its digits as
// 0.D1D2... x 10^exponent with D1 the first digit that is not 0. The digits
// stay in the text: the integer part's and the fraction's runs.
struct decimal {
  int sign = 0;  // -1, 1, or 0 for zero
  long long exponent = 0;
  const char* runs[2][2] = {{nullptr, nullptr}, {nullptr, nullptr}};
  int first_run = 0;           // where the first significant digit is
  const char* first = nullptr;
};

// Reads `text` as a decimal. False for anything that is no number.
bool parse_decimal(const char* text, decimal* d) {
  const char* p = text;
  int sign = 1;
  if (*p == '+' || *p == '-') sign = *p++ == '-' ? -1 : 1;
  const char* int_begin = p;
  while (isdigit(static_cast<unsigned char>(*p))) ++p;
  const char* int_end = p;
  const char* frac_begin = p;
  const char* frac_end = p;
  if (*p == '.') {
    frac_begin = ++p;
    while (isdigit(static_cast<unsigned char>(*p))) ++p;
    frac_end = p;
  }
  if (int_begin == int_end && frac_begin == frac_end) return false;
  long long exp = 0;
  if (*p == 'e' || *p == 'E') {
    ++p;
    int exp_sign = 1;
    if (*p == '+' || *p == '-') exp_sign = *p++ == '-' ? -1 : 1;
    if (!isdigit(static_cast<unsigned char>(*p))) return false;
    for (; isdigit(static_cast<unsigned char>(*p)); ++p) {
      // Beyond this no two numbers a person writes differ.
      if (exp < 1000000000000LL) exp = exp * 10 + (*p - '0');
    }
    exp *= exp_sign;
  }
  if (*p != '\0') return false;
  d->runs[0][0] = int_begin;
  d->runs[0][1] = int_end;
  d->runs[1][0] = frac_begin;
  d->runs[1][1] = frac_end;
  for (const char* q = int_begin; q < int_end; ++q) {
    if (*q != '0') {
      d->sign = sign;
      d->first_run = 0;
      d->first = q;
      d->exponent = (int_end - q) + exp;
      return true;
    }
  }
  for (const char* q = frac_begin; q < frac_end; ++q) {
    if (*q != '0') {
      d->sign = sign;
      d->first_run = 1;
      d->first = q;
      d->exponent = -(q - frac_begin) + exp;
      return true;
    }
  }
  d->sign = 0;  // zero, whatever its sign and exponent
  return true;
}

// The significant digits of a decimal one by one, then zeros for ever.
struct digits {
  const decimal& d;
  int run;
  const char* p;
  explicit digits(const decimal& number)
      : d(number), run(number.first_run), p(number.first) {}
  bool more() const { return p != nullptr; }
  char next() {
    if (p == nullptr) return '0';
    const char c = *p++;
    while (p != nullptr && p == d.runs[run][1]) {
      if (run == 1) {
        p = nullptr;
      } else {
        run = 1;
        p = d.runs[1][0];
      }
    }
    return c;
  }
};

int compare_decimals(const decimal& a, const decimal& b) {
  if (a.sign != b.sign) return a.sign < b.sign ? -1 : 1;
  if (a.sign == 0) return 0;
  int magnitude = 0;
  if (a.exponent != b.exponent) {
    magnitude = a.exponent < b.exponent ? -1 : 1;
  } else {
    digits x(a), y(b);
    while (magnitude == 0 && (x.more() || y.more())) {
      const char dx = x.next(), dy = y.next();
      if (dx != dy) magnitude = dx < dy ? -1 : 1;
    }
  }
  return a.sign * magnitude;
}

}  // namespace

bool is_number(const char* text) {
  decimal d;
  return parse_decimal(text, &d);
}

int compare_numbers(const char* a, const char* b) {
  decimal x, y;
  if (!parse_decimal(a, &x) || !parse_decimal(b, &y)) return 0;
  return compare_decimals(x, y);
}

}  // namespace tevul

namespace {

using tevul::condition;
using tevul::text;
using param = tevul::condition_param;

// tevu_cmp(x, n): how the stored value x compares with the number n (a
// text that is_number() takes): -1, 0 or 1 as exact decimals, or NULL when
// x is no number (a word, an empty value, a missing tag).
void compare_function(sqlite3_context* context, int, sqlite3_value** args) {
  const int type = sqlite3_value_type(args[0]);
  if (type != SQLITE_NULL && type != SQLITE_BLOB) {
    const char* stored = reinterpret_cast<const char*>(sqlite3_value_text(args[0]));
    const char* number = reinterpret_cast<const char*>(sqlite3_value_text(args[1]));
    if (stored != nullptr && number != nullptr && tevul::is_number(stored)) {
      sqlite3_result_int(context, tevul::compare_numbers(stored, number));
      return;
    }
  }
  sqlite3_result_null(context);
}

// The operands of the chain of `kind` ("or", "and") at node `i`, in their
// order, into `out`: the chain's left spine is walked without recursion, so
// that a chain of any length costs no stack. A chain in parentheses on the
// right is one operand.
bool chain_operands(const condition& c, int i, condition::kind kind, tevul::array<int>* out) {
  out->clear();
  int at = i;
  while (c[static_cast<std::size_t>(at)].what == kind) {
    if (!out->push(c[static_cast<std::size_t>(at)].right)) return false;
    at = c[static_cast<std::size_t>(at)].left;
  }
  if (!out->push(at)) return false;
  for (std::size_t a = 0, b = out->size() - 1; a < b; ++a, --b) {
    const int t = (*out)[a];
    (*out)[a] = (*out)[b];
    (*out)[b] = t;
  }
  return true;
}

// Adds to `out` the equality terms of the "and" chain at node `i` whose tag
// has a column in `db`.
void chain_equalities(const condition& c, int i, sqlite3* db, tevul::array<int>* out) {
  tevul::array<int> operands;
  if (!chain_operands(c, i, condition::kAnd, &operands)) return;
  char column[tevul::kColumnSize];
  for (std::size_t k = 0; k < operands.size(); ++k) {
    const condition::node& n = c[static_cast<std::size_t>(operands[k])];
    if (n.what == condition::kAnd) {
      chain_equalities(c, operands[k], db, out);  // in parentheses: bounded by kMaxDepth
    } else if (n.what == condition::kCompare && n.how == condition::kEq &&
               tevul::has_tag_column(db, c.name(n), column)) {
      out->push(operands[k]);
    }
  }
}

// The equality terms of the condition's "and" chain that are kept off their
// tag's index: all but the one that the fewest files match, probed through
// the indexes (counting at most a thousand each). The tag tables have no
// statistics, so SQLite would take any of the indexes; this way it takes
// the one that narrows most ("id=4711 and kind=photo" by the id).
void kept_off_index(const condition& c, sqlite3* db, tevul::array<int>* off) {
  tevul::array<int> terms;
  chain_equalities(c, c.root(), db, &terms);
  if (terms.size() < 2) return;
  std::size_t best = 0;
  sqlite3_int64 fewest = INT64_MAX;
  for (std::size_t t = 0; t < terms.size(); ++t) {
    const condition::node& n = c[static_cast<std::size_t>(terms[t])];
    const tevul::sql_text<320> sql(
        "SELECT count(*) FROM (SELECT 1 FROM Meta WHERE \".%s\"=?1 LIMIT 1000)",
        tevul::tag_ident{c.name(n)});
    tevul::stmt_ptr probe;
    if (!sql.fits() || tevul::prepare(db, sql.c_str(), -1, probe) != SQLITE_OK) continue;
    sqlite3_bind_text(probe.get(), 1, c.value(n), -1, SQLITE_STATIC);
    if (metadb_step(probe.get()) != SQLITE_ROW) continue;
    const sqlite3_int64 count = sqlite3_column_int64(probe.get(), 0);
    if (count < fewest) {
      fewest = count;
      best = t;
    }
  }
  for (std::size_t t = 0; t < terms.size(); ++t) {
    if (t != best) off->push(terms[t]);
  }
}

// Builds the expression of node `i` for the database `db` into `sql`, with
// its values in `params`: a name the database has no column for is false;
// an equality term listed in `off` does not use its tag's index.
bool build(const condition& c, int i, sqlite3* db, text& sql,
           tevul::array<param>& params, const tevul::array<int>& off) {
  const condition::node& n = c[static_cast<std::size_t>(i)];
  switch (n.what) {
    case condition::kOr:
    case condition::kAnd: {
      // One flat chain, each operand in parentheses: one level of nesting
      // whatever the chain's length.
      tevul::array<int> operands;
      if (!chain_operands(c, i, n.what, &operands)) return false;
      for (std::size_t k = 0; k < operands.size(); ++k) {
        if (k > 0) sql.append(n.what == condition::kOr ? " OR " : " AND ");
        sql.push('(');
        if (!build(c, operands[k], db, sql, params, off)) return false;
        sql.push(')');
      }
      return true;
    }
    case condition::kNot:
      // A term is 1, 0 or NULL (a file without the tag); "not" is true for
      // all but 1: NOT COALESCE(x,0), with one level of nesting.
      sql.push('(');
      if (!build(c, n.left, db, sql, params, off)) return false;
      sql.append(") IS NOT 1");
      return true;
    case condition::kHas:
    case condition::kCompare:
      break;
  }
  char column[tevul::kColumnSize];
  if (!tevul::has_tag_column(db, c.name(n), column)) {
    sql.push('0');
    return true;
  }
  if (n.what == condition::kHas) {
    sql.appendf("\"%s\" IS NOT NULL", column);
    return true;
  }
  static const char* const kOps[] = {"=", "<>", "<", "<=", ">", ">="};
  const char* op = kOps[n.how];
  const char* value = c.value(n);
  if (tevul::is_number(value)) {
    // A number on the query side compares numbers, exactly, with every
    // operator: a stored word or empty value is no number and never
    // matches (tevu_cmp() gives NULL for it), and 1e2 equals 100.
    sql.appendf("tevu_cmp(\"%s\",?%zu)%s0", column, params.size() + 1, op);
    return params.push(param{value});
  }
  if (n.how == condition::kEq) {
    bool indexed = true;
    for (std::size_t k = 0; k < off.size(); ++k) indexed &= off[k] != i;
    sql.appendf("%s\"%s\"=?%zu", indexed ? "" : "+", column, params.size() + 1);
  } else if (n.how == condition::kNe) {
    sql.appendf("(\"%s\" IS NOT NULL AND \"%s\"<>?%zu)", column, column,
                params.size() + 1);
  } else {
    sql.appendf("\"%s\"%s?%zu", column, op, params.size() + 1);
  }
  return params.push(param{value});
}

}  // namespace

bool tevul::condition_sql(const condition& c, sqlite3* db, const char* rowid,
                          const char* columns, bool subtree, text* sql,
                          array<condition_param>* params, std::size_t* after) {
  sql->appendf("SELECT %s, %s FROM Meta WHERE (", rowid, columns);
  tevul::array<int> off;
  kept_off_index(c, db, &off);
  if (!build(c, c.root(), db, *sql, *params, off)) return false;
  const std::size_t n = params->size();
  if (subtree) sql->appendf(") AND (Path=?%zu OR Path GLOB ?%zu", n + 1, n + 2);
  // A row that carries no tag (its last one removed: its tag list is empty)
  // is no file, for "not NAME" as for every other condition; a row whose
  // list waits to be rebuilt (NULL) is read.
  sql->append(") AND (Data IS NULL OR Data<>''");
  *after = n + (subtree ? 3 : 1);
  sql->appendf(") AND %s>?%zu ORDER BY %s LIMIT %d", rowid, *after, rowid, kQueryBatch);
  return sql->ok();
}

namespace {

// Where the files that satisfy a condition go: their paths to a
// tevu_file_cb, or whole rows to a tevu_row_cb.
struct found_to {
  tevu_file_cb paths;
  tevu_row_cb rows;
  void* user;
};

// The files of one volume that satisfy `c`, below stored path `rel` when it
// is not empty, to `to`.
int find_where_in(tevul::query_db& db, const char* root, const condition& c,
                  const char* rel, const found_to& to, int* stop) {
  sqlite3* handle = db.db.get();
  if (db.rowid == nullptr) return EIO;  // no way to read every row once
  bool wide = false;
  if (to.rows != nullptr) {
    if (const int rc = tevul::wide_table(db, &wide)) return rc;
  }
  sqlite3_create_function(handle, "tevu_cmp", 2, SQLITE_UTF8 | SQLITE_DETERMINISTIC,
                          nullptr, compare_function, nullptr, nullptr);
  text sql;
  tevul::array<param> params;
  std::size_t after = 0;
  const char* columns = to.rows != nullptr && !wide ? "*" : "Path";
  if (!tevul::condition_sql(c, handle, db.rowid, columns, rel[0] != '\0', &sql, &params,
                            &after)) {
    return ENOMEM;
  }
  const std::size_t n = params.size();
  tevul::stmt_ptr stmt;
  const int prepared = tevul::prepare(handle, sql.c_str(), -1, stmt);
  if (prepared != SQLITE_OK) return tevul::query_errno(handle, prepared);
  for (std::size_t i = 0; i < n; ++i) {
    const int index = static_cast<int>(i) + 1;
    sqlite3_bind_text(stmt.get(), index, params[i].text, -1, SQLITE_STATIC);
  }
  tevul::sqlite_text pattern;
  if (rel[0] != '\0') {
    pattern.reset(tevul::glob_escape(rel, "/*"));
    if (!pattern) return ENOMEM;
    sqlite3_bind_text(stmt.get(), static_cast<int>(n) + 1, rel, -1, SQLITE_STATIC);
    sqlite3_bind_text(stmt.get(), static_cast<int>(n) + 2, pattern.get(), -1,
                      SQLITE_STATIC);
  }
  if (to.rows != nullptr) {
    return tevul::rows_in_batches(db, wide, false, stmt.get(), static_cast<int>(after), root,
                                  to.rows, to.user, stop);
  }
  return tevul::paths_in_batches(stmt.get(), static_cast<int>(after), root, to.paths,
                                 to.user, stop);
}

int find_where(const char* source, const char* under, const found_to& to,
               std::size_t* error_offset) {
  tevul::forget_failures();
  if (source == nullptr || (to.paths == nullptr && to.rows == nullptr) ||
      (under != nullptr && under[0] == '\0')) {
    return ENOENT;
  }
  std::size_t ignored = 0;
  if (error_offset == nullptr) error_offset = &ignored;
  condition c;
  if (const int rc = c.parse(source, error_offset)) return rc;
  if (tevu_find_mount() == nullptr) return ENOENT;
  if (under == nullptr) {
    return tevul::walk_volumes([&](tevul::query_db& db, const char* root, int* stop) {
      return find_where_in(db, root, c, "", to, stop);
    });
  }
  tevu_volume volume;
  const char* rel = nullptr;
  char plain[tevul::kPathSize];
  if (const int rc = tevul::locate_literal(under, &volume, &rel, plain)) return rc;
  tevul::query_db db;
  int rc = tevul::open_query_db(volume.db_path, &db);
  int stop = 0;
  if (rc == 0) rc = find_where_in(db, volume.prefix, c, rel, to, &stop);
  if (stop != 0) return stop;
  return rc != 0 ? tevul::note_volume_failure(rc, volume.prefix) : 0;
}

}  // namespace

extern "C" int tevu_find_where(const char* condition, const char* under,
                               tevu_file_cb cb, void* user, size_t* error_offset) {
  return find_where(condition, under, found_to{cb, nullptr, user}, error_offset);
}

extern "C" int tevu_find_rows_where(const char* condition, const char* under,
                                    tevu_row_cb cb, void* user, size_t* error_offset) {
  return find_where(condition, under, found_to{nullptr, cb, user}, error_offset);
}
