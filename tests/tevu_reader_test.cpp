// The reader: the tags of many files through connections kept between
// calls, on two volumes, with the queries' guarantees.
#include <errno.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "test_support.h"
#include "tevul.h"

using tevul_test::RawDb;
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

// A reader kept open notices a volume that changed under it: a database
// replaced (another disk mounted at the volume, a restored backup) is read
// afresh, and a volume whose links went is no volume any more.
TEST_F(Reader, AVolumeThatChangedIsLookedUpAfresh) {
  tag_file("/mnt/a.jpg", {{"kind", "photo"}});
  tevu_reader* reader = tevu_reader_open();
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(tags(reader, "/mnt/a.jpg"), "kind=photo\n");
  const std::string db = Sandbox::db_path("mnt");
  ASSERT_TRUE(tevul_test::write_file("/mnt/.other.db", tevul_test::read_file(db)));
  RawDb("/mnt/.other.db").exec("UPDATE Meta SET \".kind\"='replaced'");
  ASSERT_EQ(rename("/mnt/.other.db", db.c_str()), 0);
  EXPECT_EQ(tags(reader, "/mnt/a.jpg"), "kind=replaced\n");
  ASSERT_EQ(unlink((Sandbox::meta_backing() + "/mnt@@db").c_str()), 0);
  EXPECT_EQ(tags(reader, "/mnt/a.jpg"), "!" + std::to_string(ENOENT));
  tevu_reader_close(reader);
}

// A volume the reader met serves only the paths below its root's "/": the
// volume rooted at /srv/a (from the runtime file) never answers for /srv/ab,
// a directory on no volume.
TEST_F(Reader, AVolumeMetServesOnlyPathsBelowItsRoot) {
  tevul_test::make_runtime_volume("/srv/a", "/mnt/a.db");
  tag_file("/srv/a/f", {{"k", "v"}});
  ASSERT_TRUE(tevul_test::write_file("/srv/ab/f", ""));
  tevu_reader* reader = tevu_reader_open();
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(tags(reader, "/srv/a/f"), "k=v\n");
  EXPECT_EQ(tags(reader, "/srv/ab/f"), "!" + std::to_string(ENOENT));
  tevu_reader_close(reader);
}

// Files asked for together come back in the order given, each with its
// own result, across batches and volumes; no lock is held while the
// callback runs, so a writer commits in between.
TEST_F(Reader, ReadsFilesTogether) {
  tag_file("/mnt/f0", {{"k", "m"}});
  tag_file("/srv/f1", {{"k", "s"}});
  std::vector<std::string> names;
  {
    RawDb mnt(Sandbox::db_path("mnt"));
    RawDb srv(Sandbox::db_path("srv"));
    mnt.exec("BEGIN");
    srv.exec("BEGIN");
    for (int i = 2; i < 600; ++i) {
      const std::string name = "f" + std::to_string(i);
      RawDb& db = i % 2 == 0 ? mnt : srv;
      ASSERT_TRUE(tevul_test::write_file((i % 2 == 0 ? "/mnt/" : "/srv/") + name, ""));
      if (i % 3 != 0) db.exec("INSERT INTO Meta (Path, \".k\") VALUES ('" + name + "', '" +
                              std::to_string(i) + "')");
    }
    mnt.exec("COMMIT");
    srv.exec("COMMIT");
  }
  for (int i = 0; i < 600; ++i) {
    names.push_back((i % 2 == 0 ? "/mnt/f" : "/srv/f") + std::to_string(i));
  }
  names[7] = "/mnt/missing";
  names[300] = "/tmp";
  std::vector<const char*> paths;
  for (const std::string& name : names) paths.push_back(name.c_str());
  struct Seen {
    std::vector<std::string> rows;
    RawDb* writer;
    int commits = 0;
  } seen;
  RawDb writer(Sandbox::db_path("mnt"));
  seen.writer = &writer;
  tevu_reader* reader = tevu_reader_open();
  ASSERT_NE(reader, nullptr);
  ASSERT_EQ(tevu_reader_files(
                reader, paths.data(), paths.size(),
                [](void* user, size_t index, int error, size_t count, const char* const* n,
                   const char* const* v) {
                  Seen* s = static_cast<Seen*>(user);
                  std::string row = std::to_string(index) + ":" + std::to_string(error);
                  for (size_t i = 0; i < count; ++i) row += std::string(" ") + n[i] + "=" + v[i];
                  s->rows.push_back(row);
                  if (index % 256 == 0) {
                    s->writer->exec("INSERT INTO Meta (Path) VALUES ('w" +
                                    std::to_string(index) + "')");
                    ++s->commits;
                  }
                  return 0;
                },
                &seen),
            0);
  ASSERT_EQ(seen.rows.size(), 600u);
  EXPECT_EQ(seen.commits, 3);
  for (int i = 0; i < 600; ++i) {
    std::string want = std::to_string(i) + ":";
    if (i == 7 || i == 300) {
      want += std::to_string(ENOENT);
    } else if (i < 2) {
      want += i == 0 ? "0 k=m" : "0 k=s";
    } else {
      want += "0" + (i % 3 != 0 ? " k=" + std::to_string(i) : std::string());
    }
    EXPECT_EQ(seen.rows[static_cast<std::size_t>(i)], want);
  }
  // The callback's value stops the call.
  int calls = 0;
  EXPECT_EQ(tevu_reader_files(reader, paths.data(), paths.size(),
                              [](void* user, size_t, int, size_t, const char* const*,
                                 const char* const*) {
                                return ++*static_cast<int*>(user) == 3 ? 42 : 0;
                              },
                              &calls),
            42);
  EXPECT_EQ(calls, 3);
  tevu_reader_close(reader);

  // A volume that cannot be read is named once, however many of its files
  // were asked for.
  ASSERT_TRUE(tevul_test::write_file(Sandbox::db_path("srv"), std::string(4096, 'g')));
  reader = tevu_reader_open();
  ASSERT_NE(reader, nullptr);
  EXPECT_EQ(tevu_reader_files(reader, paths.data(), paths.size(),
                              [](void*, size_t, int, size_t, const char* const*,
                                 const char* const*) { return 0; },
                              nullptr),
            0);
  char volume[64];
  EXPECT_EQ(tevu_query_failure(0, volume, sizeof volume), EBADF);
  EXPECT_STREQ(volume, "/srv");
  EXPECT_EQ(tevu_query_failure(1, volume, sizeof volume), 0);
  EXPECT_EQ(tevu_query_failure_count(), 1u);
  tevu_reader_close(reader);
}

}  // namespace
