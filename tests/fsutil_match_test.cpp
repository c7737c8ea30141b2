// Path and string matching: the daemon's odd rules at their edges. The fuzz
// target checks that no input makes them read past a terminator.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "tevul.h"

namespace {

std::string base(const char* s) {
  const char* b = fsutil_basename(s);
  return b == nullptr ? "(null)" : b;
}

std::string replaced(const char* s, const char* from, const char* to, int want) {
  char buf[64];
  std::strcpy(buf, s);
  EXPECT_EQ(fsutil_string_replace(buf, from, to), want) << s;
  return buf;
}

TEST(Match, TheDaemonsRulesAtTheirEdges) {
  EXPECT_EQ(base("/a/b/"), "");
  EXPECT_EQ(base("b"), "(null)");
  EXPECT_EQ(base(""), ".");
  EXPECT_EQ(fsutil_dentrylen("music/a"), 5u);
  EXPECT_EQ(fsutil_dentrylen("/music"), 0u);
  EXPECT_EQ(fsutil_prefix_match("/meta/x", "meta", 1), 0);
  EXPECT_EQ(fsutil_prefix_match("/metadata", "meta", 0), 1) << "no boundary";
  EXPECT_EQ(fsutil_prefix_match("Xmeta", "meta", 1), 1) << "first byte unexamined";
  // Nothing past an empty path's terminator is read (a one-byte allocation
  // shows it under ASan).
  const std::unique_ptr<char[]> empty = std::make_unique<char[]>(1);
  EXPECT_EQ(fsutil_prefix_match(empty.get(), "", 1), 1);
  EXPECT_EQ(fsutil_prefix_match_len(empty.get(), "m", 1), 0);
  EXPECT_EQ(fsutil_prefix_match_len("/mu", "mu", 10), 1);
  EXPECT_EQ(fsutil_suffix_match(".mp3", ".mp3"), 1) << "a whole string is its own suffix";
  EXPECT_EQ(fsutil_suffix_match("mp3", "a.mp3"), 0);
  EXPECT_EQ(fsutil_infix_match("a.mp3.part", ".mp3") + fsutil_infix_match("mp", "mp3"), 1);
  EXPECT_EQ(replaced("a\\b\\c", "\\", "", 1), "abc");
  EXPECT_EQ(replaced("a\\b\\c", "ab", "abc", 0), "a\\b\\c") << "only shrinks";
  EXPECT_EQ(replaced("aaaa", "aa", "b", 1), "bb") << "no overlaps";
}

// A NULL string is a "no", never a crash or a NULL handed to the C library.
TEST(Match, NullStringsGiveTheNoResult) {
  char text[] = "abc";
  EXPECT_EQ(base(nullptr), ".");
  EXPECT_EQ(fsutil_dentrylen(nullptr), 0u);
  EXPECT_EQ(fsutil_prefix_match(nullptr, "a", 0) + fsutil_prefix_match("/a", nullptr, 1) +
                fsutil_prefix_match_len(nullptr, "a", 1) +
                fsutil_prefix_match_len("/a", nullptr, 1) + fsutil_suffix_match(nullptr, "a") +
                fsutil_suffix_match("a", nullptr) + fsutil_infix_match(nullptr, "a") +
                fsutil_infix_match("a", nullptr) + fsutil_string_replace(nullptr, "a", "") +
                fsutil_string_replace(text, nullptr, "") +
                fsutil_string_replace(text, "a", nullptr),
            0);
  EXPECT_STREQ(text, "abc");
  EXPECT_EQ(fsutil_isactivedir(nullptr), 0);
  fsutil_stat_setreg(nullptr, 1, 1);
  fsutil_stat_setdir(nullptr, 1, 1);
  fsutil_stat_setsymlink(nullptr, 1, 1);
}

}  // namespace
