// The reader: the tags of many files through connections kept between
// calls, on two volumes, with the queries' guarantees.
#include <errno.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "test_support.h"
#include "tevul.h"

using tevul_test::Sandbox;
using tevul_test::tag_file;

namespace {

using Reader = tevul_test::SandboxTest;

// Every tag of `file` as "name=value" lines, or "!N" for a result N.
std::string tags(tevu_reader* reader, const char* file) {
  std::string out;
  const int rc = tevu_reader_file_tags(
      reader, file,
      [](void* user, const char* name, const char* value) {
        *static_cast<std::string*>(user) += std::string(name) + "=" + value + "\n";
        return 0;
      },
      &out);
  return rc == 0 ? out : "!" + std::to_string(rc);
}

TEST_F(Reader, ReadsManyFilesOnEveryVolume) {
  tag_file("/mnt/a.jpg", {{"kind", "photo"}, {"odd", "x|y/z\nw"}});
  tag_file("/srv/b", {{"k", "v"}});
  ASSERT_TRUE(tevul_test::write_file("/mnt/untagged", ""));
  ASSERT_TRUE(tevul_test::write_file("/tmp/elsewhere", ""));
  tevu_reader* reader = tevu_reader_open();
  ASSERT_NE(reader, nullptr);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(tags(reader, "/mnt/a.jpg"), "kind=photo\nodd=x|y/z\nw\n");
    EXPECT_EQ(tags(reader, "/srv/b"), "k=v\n");
    EXPECT_EQ(tags(reader, "/mnt/untagged"), "");
    EXPECT_EQ(tags(reader, "/mnt"), "") << "a volume root carries no tags";
  }
  EXPECT_EQ(tags(reader, "/tmp/elsewhere"), "!" + std::to_string(ENOENT));
  EXPECT_EQ(tags(reader, "/mnt/missing"), "!" + std::to_string(ENOENT));
  EXPECT_EQ(tags(nullptr, "/mnt/a.jpg"), "!" + std::to_string(ENOENT));
  // A volume whose database cannot be read, met for the first time, is
  // reported and named.
  tevu_reader_close(reader);
  reader = tevu_reader_open();
  ASSERT_TRUE(tevul_test::write_file(Sandbox::db_path("srv"), std::string(4096, 'g')));
  EXPECT_EQ(tags(reader, "/srv/b"), "!" + std::to_string(EBADF));
  char volume[16];
  EXPECT_EQ(tevu_query_failure(0, volume, sizeof volume), EBADF);
  EXPECT_STREQ(volume, "/srv");
  EXPECT_EQ(tags(reader, "/mnt/a.jpg"), "kind=photo\nodd=x|y/z\nw\n");
  EXPECT_EQ(tevu_query_failure(0, volume, sizeof volume), 0);
  tevu_reader_close(reader);
  tevu_reader_close(nullptr);
}

}  // namespace
