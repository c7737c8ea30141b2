#include "test_support.h"

#include <pthread.h>

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>

namespace tevul_test {

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/tevul-test.XXXXXX";
  if (mkdtemp(&pattern[0]) != nullptr) path_ = pattern;
  EXPECT_FALSE(path_.empty()) << "mkdtemp failed";
}

TempDir::~TempDir() {
  std::error_code ec;
  if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

RawDb::RawDb(const std::string& file, int busy_timeout_ms) {
  const int rc = sqlite3_open_v2(
      file.c_str(), &db_,
      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_PRIVATECACHE,
      nullptr);
  EXPECT_EQ(rc, SQLITE_OK) << "cannot open " << file;
  sqlite3_busy_timeout(db_, busy_timeout_ms);
}

RawDb::~RawDb() { sqlite3_close(db_); }

void RawDb::exec(const std::string& sql) {
  char* err = nullptr;
  const int rc = sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &err);
  EXPECT_EQ(rc, SQLITE_OK) << sql << ": " << (err ? err : "");
  sqlite3_free(err);
}

std::vector<std::vector<std::string>> RawDb::rows(const std::string& sql) {
  std::vector<std::vector<std::string>> out;
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
    ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db_);
    return out;
  }
  while (sqlite3_step(stmt) == SQLITE_ROW) {
    std::vector<std::string> row;
    for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
      const unsigned char* text = sqlite3_column_text(stmt, i);
      row.emplace_back(text ? reinterpret_cast<const char*>(text) : "NULL");
    }
    out.push_back(std::move(row));
  }
  sqlite3_finalize(stmt);
  return out;
}

std::string RawDb::value(const std::string& sql) {
  auto r = rows(sql);
  return r.empty() || r[0].empty() ? "(none)" : r[0][0];
}

std::vector<std::string> RawDb::columns() {
  std::vector<std::string> out;
  for (auto& row : rows("SELECT name FROM pragma_table_info('Meta')"))
    out.push_back(row[0]);
  return out;
}

Rows rows(const std::string& volume, const std::string& sql) {
  return RawDb(Sandbox::db_path(volume)).rows(sql);
}

void tag_file(const std::string& file, const Tags& tags) {
  if (access(file.c_str(), F_OK) != 0) ASSERT_TRUE(write_file(file, "x")) << file;
  tevu_bulk_ctx* bulk = tevu_bulk_init();
  ASSERT_NE(bulk, nullptr);
  EXPECT_EQ(tevu_bulk_setpath(bulk, file.c_str()), 0) << file;
  for (const auto& [name, value] : tags) {
    EXPECT_EQ(tevu_bulk_settag(bulk, name.c_str(), value.c_str()), 0) << file << " " << name;
  }
  tevu_bulk_fini(bulk);
}

void make_runtime_volume(const std::string& root, const std::string& db) {
  const std::string volume = root.substr(1, root.find('/', 1) - 1);
  ASSERT_EQ(unlink((Sandbox::meta_backing() + "/" + volume + "@@db").c_str()), 0);
  ASSERT_EQ(create_tag_db(db), "");
  const std::string link = std::string(Sandbox::kBacking) + "/.tagfiles" + root + "@@db";
  ASSERT_TRUE(make_dirs(link.substr(0, link.rfind('/'))));
  ASSERT_EQ(symlink(db.c_str(), link.c_str()), 0);
  Sandbox::write_ini("x:" + root + ":y\n");
}

void on_small_stack(const std::function<void()>& work) {
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstacksize(&attr, 128 * 1024);
  pthread_t thread;
  const int rc = pthread_create(
      &thread, &attr,
      [](void* arg) -> void* {
        (*static_cast<const std::function<void()>*>(arg))();
        return nullptr;
      },
      const_cast<std::function<void()>*>(&work));
  pthread_attr_destroy(&attr);
  ASSERT_EQ(rc, 0);
  pthread_join(thread, nullptr);
}

std::string deepest_condition(const std::string& name, const std::string& or_term,
                              const std::string& and_term) {
  // Sixteen levels: each "not (...)" is two, each "(...)" one.
  std::string condition = name;
  for (const char level : std::string("NOAANOAONOAAO")) {
    if (level == 'N') condition = "not (" + condition + ")";
    if (level == 'O') condition = "(" + condition + " or " + or_term + ")";
    if (level == 'A') condition = "(" + condition + " and " + and_term + ")";
  }
  return condition;
}

std::string longest_condition(const std::string& first, const std::string& or_term,
                              const std::string& and_term) {
  std::string condition = first;
  for (int i = 1; i < 128; ++i) {
    condition += i % 2 ? " or " + or_term : " and not " + and_term;
  }
  return condition;
}

}  // namespace tevul_test
