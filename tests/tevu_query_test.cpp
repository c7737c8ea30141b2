// Read-only queries in the real setting: what they hand back, that they
// stop when asked, that they use the tag column's index, and that they read
// past a writer without writing anything or waking the daemon.
#include <errno.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <string>
#include <vector>

#include "test_support.h"
#include "tevu_query.h"
#include "tevul.h"

using tevul_test::RawDb;
using tevul_test::Sandbox;
using tevul_test::tag_file;

namespace {

using Files = std::vector<std::string>;

class Query : public tevul_test::SandboxTest {
 protected:
  void SetUp() override {
    SandboxTest::SetUp();
    if (IsSkipped()) return;
    tag_file("/mnt/a.jpg", {{"kind", "photo"}, {"odd", "x|y/z\nw"}});
    tag_file("/mnt/b.jpg", {{"kind", "PHOTO"}});
    tag_file("/mnt/c.txt", {{"kind", "text"}});
    tag_file("/srv/d.jpg", {{"kind", "photo"}});
    sandbox_.drain_fifo();
  }
  // Every file of a walk as "path name=value ...".
  static int tagged(const char* dir, Files* out) {
    return tevu_tagged_files(
        dir,
        [](void* user, const char* path, size_t count, const char* const* names,
           const char* const* values) {
          std::string line = path;
          for (size_t i = 0; i < count; ++i) line += std::string(" ") + names[i] + "=" + values[i];
          static_cast<Files*>(user)->push_back(line);
          return 0;
        },
        out);
  }
  static int find(const char* name, const char* value, Files* out) {
    return tevu_find_files(
        name, value,
        [](void* user, const char* path) {
          static_cast<Files*>(user)->push_back(path);
          return 0;
        },
        out);
  }
};

// The tool's search pins what is found; here, what the callback decides.
TEST_F(Query, FindFilesStopsWhenTheCallbackSays) {
  Files files;
  EXPECT_EQ(find("ki\"nd", nullptr, &files), EINVAL);
  int calls = 0;
  EXPECT_EQ(tevu_find_files("kind", nullptr,
                            [](void* user, const char*) {
                              return ++*static_cast<int*>(user) == 2 ? -1 : 0;
                            },
                            &calls),
            -1)
      << "any non-zero value, also a negative one";
  EXPECT_EQ(calls, 2);
}

TEST_F(Query, TaggedFilesOfATreeOrOfEveryVolume) {
  tag_file("/mnt/[d]/in", {{"k", "1"}});
  tag_file("/mnt/d/out", {{"k", "2"}});
  tag_file("/mnt/[d]x", {{"k", "3"}});
  tevu_bulk_ctx* bulk = tevu_bulk_init();
  ASSERT_EQ(tevu_bulk_setpath(bulk, "/mnt/c.txt"), 0);
  ASSERT_EQ(tevu_bulk_deltag(bulk, "kind"), 0);  // a row without tags
  tevu_bulk_fini(bulk);
  ASSERT_EQ(unlink("/mnt/[d]/in"), 0);  // vanished files are still listed

  Files files;
  EXPECT_EQ(tagged("/mnt/[d]", &files), 0);
  EXPECT_EQ(files, (Files{"/mnt/[d]/in k=1"})) << "literal, no sibling";
  files.clear();
  EXPECT_EQ(tagged(nullptr, &files), 0);
  std::sort(files.begin(), files.end());
  EXPECT_EQ(files, (Files{"/mnt/[d]/in k=1", "/mnt/[d]x k=3", "/mnt/a.jpg kind=photo odd=x|y/z\nw",
                          "/mnt/b.jpg kind=PHOTO", "/mnt/d/out k=2", "/srv/d.jpg kind=photo"}));
  files.clear();
  EXPECT_EQ(tagged("/mnt/b.jpg", &files), 0);
  EXPECT_EQ(files, (Files{"/mnt/b.jpg kind=PHOTO"}));
  EXPECT_EQ(tagged("/tmp", &files), ENOENT);
  EXPECT_EQ(tevu_tagged_files("/mnt",
                              [](void*, const char*, size_t, const char* const*,
                                 const char* const*) { return -3; },
                              nullptr),
            -3);
}

// More rows than one batch, while another connection holds the write lock:
// every file is found, nothing is written, the daemon is not woken.
TEST_F(Query, ReadsPastAWriterInBatchesAndWritesNothing) {
  const int n = 2 * tevul::kQueryBatch + 3;
  for (int i = 0; i < n; ++i) tag_file("/srv/many" + std::to_string(i), {{"batch", "yes"}});
  sandbox_.drain_fifo();

  RawDb writer(Sandbox::db_path("srv"));
  writer.exec("BEGIN IMMEDIATE");
  const std::string before = tevul_test::read_file(Sandbox::db_path("srv"));
  Files files;
  EXPECT_EQ(find("batch", "YES", &files), 0);
  EXPECT_EQ(files.size(), static_cast<std::size_t>(n));
  EXPECT_EQ(files.back(), "/srv/many" + std::to_string(n - 1));
  files.clear();
  EXPECT_EQ(tagged("/srv", &files), 0);
  EXPECT_EQ(files.size(), static_cast<std::size_t>(n + 1));
  writer.exec("COMMIT");
  EXPECT_EQ(tevul_test::read_file(Sandbox::db_path("srv")), before);
  EXPECT_EQ(sandbox_.drain_fifo(), 0);

  // The search by value is served by the tag column's index.
  char sql[306];
  ASSERT_TRUE(tevul::find_sql("batch", true, "rowid", sql, sizeof sql));
  const auto plan = writer.rows(std::string("EXPLAIN QUERY PLAN ") + sql);
  ASSERT_FALSE(plan.empty());
  EXPECT_NE(plan[0].back().find("USING INDEX Cidx_batch"), std::string::npos)
      << plan[0].back();
}

}  // namespace
