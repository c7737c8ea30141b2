// The condition language: where it refuses a condition, what it finds in
// real databases on two volumes, and the plan of the statement it runs.
#include <errno.h>
#include <gtest/gtest.h>

#include <pthread.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "test_support.h"
#include "tevu_cond.h"
#include "tevul.h"

using tevul_test::RawDb;
using tevul_test::Sandbox;
using tevul_test::tag_file;

namespace {

// A malformed condition gives EINVAL and the offset of its fault; a
// condition that stops too early, the offset of its end.
TEST(Condition, FaultsAreFoundWhereTheyAre) {
  const std::vector<std::pair<std::string, std::size_t>> faults = {
      {"", 0},         {"   ", 3},        {"kind=", 5},     {"kind == photo", 6},
      {"a and", 5},    {"(a or b", 7},    {"a)", 1},        {"a b", 2},
      {"\"abc", 0},    {"a ! b", 2},      {"and", 0},       {"na\"me=1", 2},
      {"not", 3},      {"a or or b", 5},  {"'' = x", 0},    {"a = (b)", 4},
      {"\"a\\\"b\"", 0}, {std::string(70, '(') + "a" + std::string(70, ')'), 16}};
  for (const auto& [source, offset] : faults) {
    tevul::condition c;
    std::size_t at = 999;
    EXPECT_EQ(c.parse(source.c_str(), &at), EINVAL) << source;
    EXPECT_EQ(at, offset) << source;
  }
  // Precedence: not, then and, then or; keywords in any letter case.
  tevul::condition c;
  std::size_t at = 0;
  ASSERT_EQ(c.parse("NOT a AND b Or (c = 'x y' or \"my tag\" >= \"it\\'s\")", &at), 0);
  const auto& root = c[c.root()];
  EXPECT_EQ(root.what, tevul::condition::kOr);
  EXPECT_EQ(c[root.left].what, tevul::condition::kAnd);
  EXPECT_EQ(c[c[root.left].left].what, tevul::condition::kNot);
  const auto& last = c[c[root.right].right];
  EXPECT_EQ(last.how, tevul::condition::kGe);
  EXPECT_STREQ(c.name(last), "my tag");
  EXPECT_STREQ(c.value(last), "it's");
}

class Conditions : public tevul_test::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (IsSkipped()) return;
    tag_file("/mnt/a.jpg", {{"kind", "photo"}, {"year", "2019"}, {"rating", "5"}});
    tag_file("/mnt/b.jpg", {{"kind", "PHOTO"}, {"year", "2020"}, {"rating", "10"}});
    tag_file("/mnt/c.txt", {{"kind", "text"}, {"rating", "abc"}});
    tag_file("/srv/d.jpg", {{"kind", "photo"}});
    tag_file("/srv/e", {{"rating", "4.5"}, {"my tag", "x y"}});
  }
  // The files that satisfy `condition`, sorted, or the result as "!N".
  static std::vector<std::string> find(const char* condition, const char* under = nullptr) {
    std::vector<std::string> files;
    const int rc = tevu_find_where(
        condition, under,
        [](void* user, const char* path) {
          static_cast<std::vector<std::string>*>(user)->push_back(path);
          return 0;
        },
        &files, nullptr);
    if (rc != 0) return {"!" + std::to_string(rc)};
    std::sort(files.begin(), files.end());
    return files;
  }
};

using Files = std::vector<std::string>;

TEST_F(Conditions, FindWhatTheConditionSays) {
  EXPECT_EQ(find("kind=photo and not year=2019"), (Files{"/mnt/b.jpg", "/srv/d.jpg"}))
      << "letter case ignored; no year is not 2019";
  EXPECT_EQ(find("rating>=5"), (Files{"/mnt/a.jpg", "/mnt/b.jpg"}))
      << "10 >= 5 as numbers; abc is no number";
  EXPECT_EQ(find("rating > 4 and rating < '6'"), (Files{"/mnt/a.jpg", "/srv/e"}))
      << "'6' is a number too: 10 < 6 is false";
  EXPECT_EQ(find("not year"), (Files{"/mnt/c.txt", "/srv/d.jpg", "/srv/e"}))
      << "a name without a column is false there";
  EXPECT_EQ(find("not year=2019"),
            (Files{"/mnt/b.jpg", "/mnt/c.txt", "/srv/d.jpg", "/srv/e"}))
      << "a file without the tag is no file with that value";
  EXPECT_EQ(find("kind != photo"), (Files{"/mnt/c.txt"}));
  EXPECT_EQ(find("nosuch=1 or (kind=text)"), (Files{"/mnt/c.txt"}));
  EXPECT_EQ(find("\"my tag\"='X Y'"), (Files{"/srv/e"}));
  EXPECT_EQ(find("kind=photo", "/mnt//a.jpg/"), (Files{"/mnt/a.jpg"}));
  EXPECT_EQ(find("kind", "/mnt"), (Files{"/mnt/a.jpg", "/mnt/b.jpg", "/mnt/c.txt"}));
  EXPECT_EQ(find("kind", "/mnt/../srv"), (Files{"!" + std::to_string(EINVAL)}));
  std::size_t at = 0;
  EXPECT_EQ(tevu_find_where("kind = ", nullptr, [](void*, const char*) { return 0; }, nullptr,
                            &at),
            EINVAL);
  EXPECT_EQ(at, 7u);
}

// The longest and the deepest conditions the language takes give their
// answer, on a thread with a router's small stack (musl's default, 128
// KiB); one term or one level more is EINVAL at the term or level too many,
// never a crash or a volume that seems unreadable.
TEST_F(Conditions, TheLongestAndDeepestConditionsAreAnswered) {
  const std::string longest = tevul_test::longest_condition("nosuch", "rating>'9'", "year=2019");
  const std::string deepest = tevul_test::deepest_condition("kind", "rating>=6", "year<2020");
  struct Run {
    explicit Run(std::string text) : condition(std::move(text)) {}
    std::string condition;
    std::vector<std::string> files;
    int rc = -1;
    std::size_t at = 0;
  };
  const auto on_small_stack = [](Run* run) {
    tevul_test::on_small_stack([run] {
      run->rc = tevu_find_where(
          run->condition.c_str(), nullptr,
          [](void* user, const char* path) {
            static_cast<std::vector<std::string>*>(user)->push_back(path);
            return 0;
          },
          &run->files, &run->at);
    });
    std::sort(run->files.begin(), run->files.end());
  };
  Run longest_run(longest);
  on_small_stack(&longest_run);
  EXPECT_EQ(longest_run.rc, 0);
  EXPECT_EQ(longest_run.files, (Files{"/mnt/b.jpg"}))
      << "rating>'9' (10 as a number; abc is no number) and not year=2019";
  Run deepest_run(deepest);
  on_small_stack(&deepest_run);
  EXPECT_EQ(deepest_run.rc, 0);
  EXPECT_EQ(deepest_run.files, (Files{"/mnt/b.jpg"}));
  EXPECT_EQ(tevu_query_failure(0, nullptr, 0), 0) << "no volume failed";

  Run too_long(longest + " or kind");
  on_small_stack(&too_long);
  EXPECT_EQ(too_long.rc, EINVAL);
  EXPECT_EQ(too_long.at, longest.size() + 4) << "the term too many";
  Run too_deep("(" + deepest + ")");
  on_small_stack(&too_deep);
  EXPECT_EQ(too_deep.rc, EINVAL);
}

// Numbers compare exactly, as decimals of any size: past 2^63, past what a
// double holds, with exponents and fractions.
TEST(Condition, NumbersCompareExactly) {
  const std::vector<std::pair<std::pair<const char*, const char*>, int>> cases = {
      {{"9223372036854775808", "9223372036854775807"}, 1},
      {{"1e309", "1e308"}, 1},
      {{"1e400", "99999999999999999999999999999999"}, 1},
      {{"1e2", "100"}, 0},
      {{"100.000", "1e+2"}, 0},
      {{"-0.0", "0"}, 0},
      {{"-1e400", "-1e399"}, -1},
      {{"0.00012", "1.2e-4"}, 0},
      {{"12.5", "12.49999999999999999999"}, 1},
      {{".5", "0.5"}, 0},
      {{"-3", "2"}, -1}};
  for (const auto& [pair, want] : cases) {
    EXPECT_EQ(tevul::compare_numbers(pair.first, pair.second), want)
        << pair.first << " " << pair.second;
    EXPECT_EQ(tevul::compare_numbers(pair.second, pair.first), -want)
        << pair.second << " " << pair.first;
  }
  for (const char* word : {"", "abc", "1e", "--1", "1.2.3", " 1", "0x10", "inf", "nan", "."}) {
    EXPECT_FALSE(tevul::is_number(word)) << word;
  }
}

TEST_F(Conditions, BigNumbersAreFoundExactly) {
  tag_file("/srv/n1", {{"n", "9223372036854775808"}});
  tag_file("/srv/n2", {{"n", "9223372036854775807"}});
  tag_file("/srv/n3", {{"n", "1e309"}});
  EXPECT_EQ(find("n>9223372036854775807"), (Files{"/srv/n1", "/srv/n3"}));
  EXPECT_EQ(find("n>=1e309"), (Files{"/srv/n3"}));
  EXPECT_EQ(find("n<1e19 and n>=9223372036854775807"), (Files{"/srv/n1", "/srv/n2"}));
}

// With the rows, each file comes with every tag it carries; a row that
// holds no tag (its last tag deleted, or one never set) is no file, not
// even for "not NAME", as `tevu list` shows none.
TEST_F(Conditions, RowsComeWithEveryTag) {
  RawDb(Sandbox::db_path("mnt")).exec("INSERT INTO Meta (Path, Data) VALUES ('bare', '')");
  {
    tevul_test::Bulk bulk(tevu_bulk_init());
    ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/c.txt"), 0);
    ASSERT_EQ(tevu_bulk_settag(bulk.get(), "gone", "1"), 0);
    ASSERT_EQ(tevu_bulk_commit(bulk.get()), 0);
  }
  tag_file("/mnt/emptied", {{"x", "1"}});
  {
    tevul_test::Bulk bulk(tevu_bulk_init());
    ASSERT_EQ(tevu_bulk_setpath(bulk.get(), "/mnt/emptied"), 0);
    ASSERT_EQ(tevu_bulk_deltag(bulk.get(), "x"), 0);
  }
  EXPECT_EQ(find("not year"), (Files{"/mnt/c.txt", "/srv/d.jpg", "/srv/e"}))
      << "neither the bare row nor the emptied one";
  const auto rows = [](const char* condition, const char* under) {
    std::vector<std::string> out;
    const int rc = tevu_find_rows_where(
        condition, under,
        [](void* user, const char* path, size_t count, const char* const* names,
           const char* const* values) {
          std::string row = path;
          for (size_t i = 0; i < count; ++i) row += std::string(" ") + names[i] + "=" + values[i];
          static_cast<std::vector<std::string>*>(user)->push_back(row);
          return 0;
        },
        &out, nullptr);
    if (rc != 0) return std::vector<std::string>{"!" + std::to_string(rc)};
    std::sort(out.begin(), out.end());
    return out;
  };
  EXPECT_EQ(rows("not year or year=2020", nullptr),
            (Files{"/mnt/b.jpg kind=PHOTO year=2020 rating=10",
                   "/mnt/c.txt kind=text rating=abc gone=1", "/srv/d.jpg kind=photo",
                   "/srv/e rating=4.5 my tag=x y"}));
  EXPECT_EQ(rows("rating", "/srv"), (Files{"/srv/e rating=4.5 my tag=x y"}));
  EXPECT_EQ(rows("kind=", nullptr), (Files{"!" + std::to_string(EINVAL)}));
}

// Of two equalities, the statement narrows by the index of the one that
// fewer files match, whichever comes first in the condition.
TEST_F(Conditions, TheStatementUsesTheNarrowestIndex) {
  // Between indexes it knows nothing about, SQLite takes the newest: here
  // the one of "batch", which every file matches.
  tag_file("/mnt/p0", {{"serial", "0"}});
  tag_file("/mnt/p0", {{"batch", "x"}});
  RawDb db(Sandbox::db_path("mnt"));
  db.exec("BEGIN");
  for (int i = 1; i < 300; ++i) {
    db.exec("INSERT INTO Meta (Path, \".serial\", \".batch\") VALUES ('/p" +
            std::to_string(i) + "', 's" + std::to_string(i) + "', 'x')");
  }
  db.exec("COMMIT");
  for (const char* source : {"serial=s7 and batch=x", "batch=x and serial=s7"}) {
    tevul::condition c;
    std::size_t at = 0;
    ASSERT_EQ(c.parse(source, &at), 0);
    tevul::text sql;
    tevul::array<tevul::condition_param> params;
    std::size_t after = 0;
    ASSERT_TRUE(tevul::condition_sql(c, db.get(), "rowid", "Path", false, &sql, &params, &after));
    const auto plan = db.rows(std::string("EXPLAIN QUERY PLAN ") + sql.c_str());
    ASSERT_FALSE(plan.empty());
    EXPECT_NE(plan[0].back().find("USING INDEX Cidx_serial"), std::string::npos)
        << source << ": " << plan[0].back();
  }
}

}  // namespace
