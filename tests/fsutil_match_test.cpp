// Path and string matching.
#include <gtest/gtest.h>

#include <memory>

#include <cstring>
#include <string>

#include "tevul.h"

namespace {

std::string base(const char* s) {
  const char* b = fsutil_basename(s);
  return b == nullptr ? "(null)" : b;
}

TEST(Match, BasenameAndFirstComponent) {
  EXPECT_EQ(base("/a/b"), "b");
  EXPECT_EQ(base("/a/b/"), "");
  EXPECT_EQ(base("/"), "");
  EXPECT_EQ(base("b"), "(null)");
  EXPECT_EQ(base(""), ".");
  EXPECT_EQ(base(nullptr), ".");
  EXPECT_EQ(fsutil_dentrylen("music/a"), 5u);
  EXPECT_EQ(fsutil_dentrylen("music"), 5u);
  EXPECT_EQ(fsutil_dentrylen(""), 0u);
  EXPECT_EQ(fsutil_dentrylen("/music"), 0u);
}

TEST(Match, PrefixSuffixInfix) {
  EXPECT_EQ(fsutil_prefix_match("/meta", "meta", 1), 1);
  EXPECT_EQ(fsutil_prefix_match("/meta/x", "meta", 1), 0);
  EXPECT_EQ(fsutil_prefix_match("/meta/x", "meta", 0), 1);
  EXPECT_EQ(fsutil_prefix_match("/metadata", "meta", 0), 1) << "no boundary";
  EXPECT_EQ(fsutil_prefix_match("Xmeta", "meta", 1), 1) << "first byte unexamined";
  // An empty path has nothing after its first byte: nothing past its
  // terminator is read (a one-byte allocation shows it under ASan).
  const std::unique_ptr<char[]> empty = std::make_unique<char[]>(1);
  EXPECT_EQ(fsutil_prefix_match(empty.get(), "", 1), 1);
  EXPECT_EQ(fsutil_prefix_match(empty.get(), "m", 0), 0);
  EXPECT_EQ(fsutil_prefix_match_len(empty.get(), "m", 1), 0);
  EXPECT_EQ(fsutil_prefix_match("/x", "", 0), 1);
  EXPECT_EQ(fsutil_prefix_match_len("/music/a", "mus", 3), 1);
  EXPECT_EQ(fsutil_prefix_match_len("/mu", "music", 4), 0);
  EXPECT_EQ(fsutil_prefix_match_len("/mu", "mu", 10), 1);
  EXPECT_EQ(fsutil_suffix_match("a.mp3", ".mp3"), 1);
  EXPECT_EQ(fsutil_suffix_match(".mp3", ".mp3"), 1) << "a whole string is its own suffix";
  EXPECT_EQ(fsutil_suffix_match("mp3", "a.mp3"), 0);
  EXPECT_EQ(fsutil_suffix_match(nullptr, ".mp3"), 0);
  EXPECT_EQ(fsutil_suffix_match("a", nullptr), 0);
  EXPECT_EQ(fsutil_suffix_match("a", ""), 1);
  EXPECT_EQ(fsutil_infix_match("haystack", "yst"), 1);
  EXPECT_EQ(fsutil_infix_match("haystack", "needle"), 0);
  EXPECT_EQ(fsutil_infix_match("haystack", ""), 1);
}

std::string replaced(const char* s, const char* from, const char* to, int want) {
  char buf[64];
  std::strcpy(buf, s);
  EXPECT_EQ(fsutil_string_replace(buf, from, to), want) << s;
  return buf;
}

TEST(Match, ReplaceOnlyShrinks) {
  EXPECT_EQ(replaced("a\\b\\c", "\\", "", 1), "abc");
  EXPECT_EQ(replaced("a\\b\\c", "ab", "abc", 0), "a\\b\\c");
  EXPECT_EQ(replaced("whole", "whole", "", 1), "");
  EXPECT_EQ(replaced("aaaa", "aa", "b", 1), "bb") << "no overlaps";
  EXPECT_EQ(replaced("abab", "ab", "ab", 1), "abab");
  EXPECT_EQ(replaced("x|y|z", "|", "/", 1), "x/y/z");
  EXPECT_EQ(replaced("none", "q", "", 1), "none");
}

// A NULL string is a "no", never a crash or a NULL handed to the C library.
TEST(Match, NullStringsGiveTheNoResult) {
  char text[] = "abc";
  EXPECT_EQ(fsutil_dentrylen(nullptr), 0u);
  EXPECT_EQ(fsutil_prefix_match(nullptr, "a", 0), 0);
  EXPECT_EQ(fsutil_prefix_match("/a", nullptr, 1), 0);
  EXPECT_EQ(fsutil_prefix_match_len(nullptr, "a", 1), 0);
  EXPECT_EQ(fsutil_prefix_match_len("/a", nullptr, 1), 0);
  EXPECT_EQ(fsutil_infix_match(nullptr, "a"), 0);
  EXPECT_EQ(fsutil_infix_match("a", nullptr), 0);
  EXPECT_EQ(fsutil_string_replace(nullptr, "a", ""), 0);
  EXPECT_EQ(fsutil_string_replace(text, nullptr, ""), 0);
  EXPECT_EQ(fsutil_string_replace(text, "a", nullptr), 0);
  EXPECT_STREQ(text, "abc");
  EXPECT_EQ(fsutil_isactivedir(nullptr), 0);
  fsutil_stat_setreg(nullptr, 1, 1);
  fsutil_stat_setdir(nullptr, 1, 1);
  fsutil_stat_setsymlink(nullptr, 1, 1);
}

}  // namespace
