// Every exported function on a thread with a router's stack: musl's default
// thread stack is 128 KiB (glibc's 8 MiB), and an application on OpenWrt
// calls the library from threads it creates with the default attributes.
// Each function runs on a 128 KiB stack below a guard page (an overflow is
// a crash, not a silent write), painted beforehand, so that the deepest
// byte it wrote gives the stack it needed; the figures are printed and
// bound, the heaviest paths with their worst inputs: the deepest and the
// longest condition, the longest paths, rows with hundreds of wide tags, the
// checked move across volumes, the repair and the watcher.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tevul.h"
#include "test_support.h"

namespace {

constexpr std::size_t kStack = 128 * 1024;
constexpr unsigned char kPaint = 0xa5;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

// Runs `work` on a thread whose stack is `size` bytes of painted memory
// above a guard page; returns the bytes of it that were written (the
// thread's own start-up included).
std::size_t stack_used(const std::function<void()>& work, std::size_t size) {
  const long page = sysconf(_SC_PAGESIZE);
  void* map = mmap(nullptr, size + page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS,
                   -1, 0);
  if (map == MAP_FAILED) return SIZE_MAX;
  unsigned char* base = static_cast<unsigned char*>(map);
  mprotect(base, page, PROT_NONE);
  unsigned char* stack = base + page;
  std::memset(stack, kPaint, size);
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstack(&attr, stack, size);
  pthread_t thread;
  const std::function<void()>* arg = &work;
  const int rc = pthread_create(
      &thread, &attr,
      [](void* p) -> void* {
        (*static_cast<const std::function<void()>*>(p))();
        return nullptr;
      },
      const_cast<std::function<void()>*>(arg));
  pthread_attr_destroy(&attr);
  std::size_t used = SIZE_MAX;
  if (rc == 0) {
    pthread_join(thread, nullptr);
    std::size_t untouched = 0;
    while (untouched < size && stack[untouched] == kPaint) ++untouched;
    used = size - untouched;
  }
  munmap(map, size + page);
  return used;
}

int ignore_tag(void*, const char*, const char*) { return 0; }
int ignore_file(void*, const char*) { return 0; }
int ignore_row(void*, const char*, std::size_t, const char* const*, const char* const*) {
  return 0;
}
int ignore_count(void*, const char*, unsigned long) { return 0; }
int count_rows(void* user, const char*, std::size_t, const char* const*, const char* const*) {
  ++*static_cast<int*>(user);
  return 0;
}
int keep_everything(const char*, int) { return 1; }

class SmallStack : public tevul_test::SandboxTest {
 protected:
  // Runs `work` on the small stack and records what it needed under `name`.
  void measure(const std::string& name, const std::function<void()>& work) {
    // The sanitizers' instrumentation needs several times the stack; their
    // runs check the functions' results, the figures come from plain builds.
    const std::size_t size = kSanitized ? 8 * kStack : kStack;
    const std::size_t used = stack_used(work, size);
    ASSERT_NE(used, SIZE_MAX) << name << ": no thread";
    figures_.push_back({name, used});
  }

  void TearDown() override {
    if (figures_.empty()) return;
    const std::size_t base = figures_.front().second;
    std::string table = "stack needed on top of a thread's own start-up (" +
                        std::to_string(base) + " bytes):\n";
    for (const auto& [name, used] : figures_) {
      table += "  " + name + ": " + std::to_string(used > base ? used - base : 0) + "\n";
      // Half the stack stays the application's, for its own frames and its
      // callbacks.
      if (!kSanitized) {
        EXPECT_LE(used, kStack / 2) << name;
      }
    }
    std::printf("%s", table.c_str());
  }

  std::vector<std::pair<std::string, std::size_t>> figures_;
};

TEST_F(SmallStack, EveryFunctionRunsOnAHalfOfMuslsDefaultThreadStack) {
  measure("(nothing)", [] {});

  // The longest path a bulk context takes: components of 200 bytes up to
  // close to 4,096 bytes, and a file of 300 tags of 150-byte values there.
  std::string deep = "/mnt";
  while (deep.size() < 3834) deep += "/" + std::string(200, 'd');
  ASSERT_TRUE(tevul_test::make_dirs(deep));
  const std::string longest = deep + "/" + std::string(4089 - deep.size(), 'f');
  ASSERT_TRUE(tevul_test::write_file(longest, "x"));
  std::vector<std::string> many(300);
  for (std::size_t i = 0; i < many.size(); ++i) many[i] = "tag" + std::to_string(i);
  ASSERT_TRUE(tevul_test::make_dirs("/mnt/wide"));
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(tevul_test::write_file("/mnt/wide/" + std::to_string(i), "w"));
  const std::string wide_value(150, 'v');

  measure("tevu_bulk_* (init, setpath of the longest path, settag of 300 wide tags, "
          "gettag, deltag, rollback, commit, error, fini)",
          [&] {
            tevu_bulk_ctx* ctx = tevu_bulk_init();
            ASSERT_NE(ctx, nullptr);
            ASSERT_EQ(tevu_bulk_setpath(ctx, longest.c_str()), 0);
            for (const std::string& name : many)
              ASSERT_EQ(tevu_bulk_settag(ctx, name.c_str(), wide_value.c_str()), 0);
            char buf[256];
            EXPECT_EQ(tevu_bulk_gettag(ctx, "tag7", buf, sizeof buf), 0);
            EXPECT_EQ(tevu_bulk_deltag(ctx, "tag7"), 0);
            EXPECT_EQ(tevu_bulk_rollback(ctx), 0);
            for (const std::string& name : many)
              ASSERT_EQ(tevu_bulk_settag(ctx, name.c_str(), wide_value.c_str()), 0);
            EXPECT_EQ(tevu_bulk_commit(ctx), 0);
            for (int i = 0; i < 20; ++i) {
              ASSERT_EQ(tevu_bulk_setpath(ctx, ("/mnt/wide/" + std::to_string(i)).c_str()), 0);
              for (const std::string& name : many)
                ASSERT_EQ(tevu_bulk_settag(ctx, name.c_str(), wide_value.c_str()), 0);
            }
            ASSERT_EQ(tevu_bulk_setpath(ctx, "/mnt/wide"), 0);
            EXPECT_EQ(tevu_bulk_settag_recursive(ctx, "tag0", "recursive"), 0);
            EXPECT_EQ(tevu_bulk_error(ctx), 0);
            tevu_bulk_fini(ctx);
          });

  measure("read-only queries over the widest rows (tevu_file_tags, tevu_find_files, "
          "tevu_tagged_files, tevu_tagged_below, tevu_tag_names, tevu_tag_values, "
          "tevu_query_failure*)",
          [&] {
            EXPECT_EQ(tevu_file_tags(longest.c_str(), ignore_tag, nullptr), 0);
            EXPECT_EQ(tevu_find_files("tag1", wide_value.c_str(), ignore_file, nullptr), 0);
            int rows = 0;
            EXPECT_EQ(tevu_tagged_files("/mnt", count_rows, &rows), 0);
            EXPECT_EQ(rows, 21) << "the 20 wide files and the longest path";
            EXPECT_EQ(tevu_tagged_below(deep.c_str(), ignore_row, nullptr), 0);
            EXPECT_EQ(tevu_tag_names(nullptr, ignore_count, nullptr), 0);
            EXPECT_EQ(tevu_tag_values("tag3", "/mnt", ignore_count, nullptr), 0);
            char volume[64];
            EXPECT_EQ(tevu_query_failure(0, volume, sizeof volume), 0);
            EXPECT_EQ(tevu_query_failure_count(), 0u);
          });

  measure("the reader (tevu_reader_open, tevu_reader_files, tevu_reader_file_tags, "
          "tevu_reader_close)",
          [&] {
            tevu_reader* reader = tevu_reader_open();
            ASSERT_NE(reader, nullptr);
            const char* paths[] = {longest.c_str(), "/mnt/wide/1", "/srv/none"};
            EXPECT_EQ(tevu_reader_files(reader, paths, 3,
                                        [](void*, std::size_t, int, std::size_t,
                                           const char* const*, const char* const*) { return 0; },
                                        nullptr),
                      0);
            EXPECT_EQ(tevu_reader_file_tags(reader, "/mnt/wide/2", ignore_tag, nullptr), 0);
            tevu_reader_close(reader);
          });

  // The deepest and the longest condition the language takes.
  const std::string deepest = tevul_test::deepest_condition("tag1", "tag2>=6", "tag3<2020");
  const std::string longest_condition = tevul_test::longest_condition("tag0", "tag9>'9'", "tag8=1");
  measure("conditions (tevu_find_where, tevu_find_rows_where: 16 levels, 128 terms)", [&] {
    std::size_t at = 0;
    EXPECT_EQ(tevu_find_where(deepest.c_str(), nullptr, ignore_file, nullptr, &at), 0);
    EXPECT_EQ(tevu_find_rows_where(longest_condition.c_str(), "/mnt", ignore_row, nullptr, &at),
              0);
  });

  // What the daemon shows for a tagged file: a directory of tag files.
  const std::string tag_files = std::string(tevul_test::Sandbox::kBacking) + "/.tagfiles/mnt/wide/3";
  ASSERT_TRUE(tevul_test::make_dirs(tag_files));
  measure("tag files and views (tevu_settag, tevu_gettag, tevu_deltag, tevu_deltag_glob, "
          "tevu_getmax*len, tevu_mount_point, tevu_view_*)",
          [&] {
            EXPECT_EQ(tevu_settag("/mnt/wide/3", "single", "1"), 0);
            char buf[64];
            EXPECT_GE(tevu_gettag("/mnt/wide/3", "single", buf, sizeof buf), 0);
            EXPECT_EQ(tevu_deltag("/mnt/wide/3", "single"), 0);
            EXPECT_EQ(tevu_settag("/mnt/wide/3", "glob1", "1"), 0);
            EXPECT_EQ(tevu_deltag_glob("/mnt/wide/3", "glob*"), 0);
            tevu_getmaxnamelen();
            tevu_getmaxvaluelen();
            EXPECT_NE(tevu_mount_point(), nullptr);
            EXPECT_EQ(tevu_view_create("a/b"), 0);
            EXPECT_EQ(tevu_view_set_cond("a/b", deepest.c_str()), 0);
            EXPECT_EQ(tevu_view_set_group("a/b", "tag1"), 0);
            EXPECT_EQ(tevu_view_enable_events("a/b"), 0);
            EXPECT_EQ(tevu_view_disable_events("a/b"), 0);
            char path[4096];
            EXPECT_NE(tevu_view_get_path("a/b", path, sizeof path), nullptr);
            EXPECT_EQ(tevu_view_delete("a/b"), 0);
            char meta[4096];
            tevu_metadata_for_tagvalue("tag1", wide_value.c_str(), meta, sizeof meta);
            metadb_tagsfile_get_for_tagvalue(tevu_mount_point(), "tag1", wide_value.c_str(), meta,
                                             sizeof meta);
          });

  measure("checked and plain moves and deletions, renames, cleanups (tevu_move_checked "
          "across volumes of the longest path's tree, tevu_move, tevu_delete*, "
          "tevu_rename_tag, tevu_delete_tag, tevu_cleanup*)",
          [&] {
            EXPECT_EQ(rename("/mnt/wide", "/srv/wide") == 0 ? 0 : errno, EXDEV);
            ASSERT_EQ(system("cp -a /mnt/wide /srv/wide && rm -r /mnt/wide"), 0);
            EXPECT_EQ(tevu_move_checked("/mnt/wide", "/srv/wide"), 0);
            ASSERT_EQ(system("mv /srv/wide /srv/wider"), 0);
            EXPECT_EQ(tevu_move("/srv/wide", "/srv/wider"), 0);
            unsigned long renamed = 0, kept = 0, removed = 0;
            EXPECT_EQ(tevu_rename_tag("tag5", "renamed5", 0, &renamed, &kept), 0);
            EXPECT_EQ(tevu_delete_tag("renamed5", &removed), 0);
            ASSERT_EQ(unlink("/srv/wider/4"), 0);
            EXPECT_EQ(tevu_delete_checked("/srv/wider/4"), 0);
            EXPECT_EQ(tevu_delete("/srv/wider/5"), 0);
            int cancel = 0;
            EXPECT_EQ(tevu_cleanup_attached("/srv", &cancel, keep_everything), 0);
            EXPECT_EQ(tevu_cleanup("/mnt/.tags.db", "/mnt", &cancel, keep_everything), 0);
          });

  measure("the repair and the watcher (tevu_repair, tevu_watch_*)", [&] {
    tevu_repair_counts counts{};
    EXPECT_EQ(tevu_repair("/srv", 0, nullptr, nullptr, &counts), 0);
    tevu_watch* watch = tevu_watch_open(nullptr, 0, 1000, nullptr, nullptr);
    ASSERT_NE(watch, nullptr);
    EXPECT_GE(tevu_watch_fd(watch), 0);
    ASSERT_EQ(system("mv /srv/wider /srv/widest"), 0);
    int timeout = 0;
    EXPECT_EQ(tevu_watch_process(watch, &timeout), 0);
    tevu_watch_repair(watch);
    EXPECT_EQ(tevu_watch_process(watch, &timeout), 0);
    unsigned long dirs = 0;
    tevu_watch_counts(watch, &dirs, nullptr, nullptr);
    EXPECT_GT(dirs, 0u);
    tevu_watch_close(watch);
  });

  // The daemon's own layer: a tag database handle and the path helpers.
  measure("metadb_tagdb_*, metadb_tagsfile_*, event_trigger*, fsutil_*", [&] {
    metadb_tagdb* db = metadb_tagdb_open("/srv/.tags.db");
    ASSERT_NE(db, nullptr);
    EXPECT_EQ(metadb_tagdb_transaction_start(db), 0);
    EXPECT_EQ(metadb_tagdb_settag(db, "widest/1", "t", wide_value.c_str()), 0);
    char buf[256];
    EXPECT_GE(metadb_tagdb_gettag(db, "widest/1", "t", buf, sizeof buf), 0);
    EXPECT_EQ(metadb_tagdb_settag_recursive(db, "widest", "u", "1"), 0);
    EXPECT_EQ(metadb_tagdb_deltag(db, "widest/1", "u"), 0);
    EXPECT_EQ(metadb_tagdb_sync(db, "widest/1"), 0);
    EXPECT_EQ(metadb_tagdb_sync_all(db), 0);
    EXPECT_EQ(metadb_tagdb_rename_path(db, "widest/1", "widest/one"), 0);
    EXPECT_EQ(metadb_tagdb_move_path(db, "widest/one", db, "widest/1"), 0);
    EXPECT_EQ(metadb_tagdb_delete_path(db, "widest/2"), 0);
    EXPECT_EQ(metadb_tagdb_transaction_commit(db), 0);
    EXPECT_EQ(metadb_tagdb_transaction_start(db), 0);
    EXPECT_EQ(metadb_tagdb_transaction_rollback(db), 0);
    metadb_tagdb_close(db);
    int cancel = 0;
    EXPECT_EQ(metadb_tagdb_cleanup("/srv/.tags.db", "/srv", &cancel, keep_everything), 0);
    const int fd = event_trigger_init(tevu_mount_point());
    event_trigger(fd);
    event_trigger_fini(fd);
    fsutil_setdeftime(1);
#if defined(__GLIBC__)
    struct stat64 st;
#else
    struct stat st;
#endif
    fsutil_stat_setreg(reinterpret_cast<struct stat64*>(&st), 1, 1);
    fsutil_stat_setdir(reinterpret_cast<struct stat64*>(&st), 1, 1);
    fsutil_stat_setsymlink(reinterpret_cast<struct stat64*>(&st), 1, 1);
    EXPECT_EQ(fsutil_isfile(longest.c_str()), 1);
    EXPECT_EQ(fsutil_isdir(deep.c_str()), 1);
    EXPECT_EQ(fsutil_isactivedir(deep.c_str()), 1);
    EXPECT_EQ(fsutil_mkdir((deep + "/n/m").c_str(), 0755, 1), 0);
    EXPECT_EQ(fsutil_mkdir_forfile((deep + "/n/m/f").c_str(), 0755, 1), 0);
    EXPECT_EQ(fsutil_rmdir((deep + "/n").c_str(), 1), 0);
    EXPECT_NE(fsutil_basename(longest.c_str()), nullptr);
    EXPECT_EQ(fsutil_dentrylen("mnt/x"), 3u);
    EXPECT_EQ(fsutil_prefix_match("/mnt/x", "mnt", 0), 1);
    EXPECT_EQ(fsutil_prefix_match_len("/mnt/x", "mnt", 3), 1);
    EXPECT_EQ(fsutil_suffix_match(longest.c_str(), "f"), 1);
    EXPECT_EQ(fsutil_infix_match(longest.c_str(), "ddd"), 1);
    char text[] = "a-b";
    EXPECT_EQ(fsutil_string_replace(text, "-", "+"), 1);
  });
}

}  // namespace
