// Lookup by tag value, across the real volume databases of the sandbox.
#include <errno.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "test_support.h"
#include "tevul.h"

using tevul_test::RawDb;
using tevul_test::Sandbox;
using tevul_test::tag_file;

namespace {

class Lookup : public tevul_test::SandboxTest {
 protected:
  static std::string find(const char* tag, const char* value, int want = 0) {
    char buf[512];
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(tevu_metadata_for_tagvalue(tag, value, buf, sizeof buf), want)
        << tag << "=" << value;
    return want == 0 ? std::string(buf) : std::string();
  }
};

// One volume holds a matching row that is not encoded yet (Data NULL), the
// other a row whose value differs only in case: the second is the answer.
TEST_F(Lookup, AcrossTwoVolumes) {
  tag_file("/mnt/a.jpg", {{"id", "abc"}, {"kind", "photo"}});
  tag_file("/srv/b.mp3", {{"id", "ABC"}, {"artist", "AC/DC"}});
  RawDb(Sandbox::db_path("mnt")).exec("UPDATE Meta SET Data=NULL");
  EXPECT_EQ(find("id", "aBc"), "id=ABC\nartist=AC\\DC\n");
  find("kind", "photo", ENOENT);  // on /mnt only, not encoded yet
  find("id", "missing", ENOENT);
  find("nosuchtag", "abc", ENOENT);
  find("artist", "AC\\/DC", ENOENT);  // stored values hold no backslash
  find("id\" OR 1=1 OR \"x", "abc", ENOENT);
  tag_file("/srv/c", {{"serial", "42"}});
  EXPECT_EQ(find("serial", "42"), "serial=42\n") << "a tag known to one volume only";
}

// The Data list becomes lines, cut to the buffer.
TEST_F(Lookup, EncodedListsBecomeLinesCutToTheBuffer) {
  tag_file("/mnt/x", {{"id", "1"}, {"k", "v"}});  // "id=1\nk=v\n": 9 bytes
  char buf[16];
  EXPECT_EQ(tevu_metadata_for_tagvalue("id", "1", buf, 10), 0);
  EXPECT_STREQ(buf, "id=1\nk=v\n");
  EXPECT_EQ(tevu_metadata_for_tagvalue("id", "1", buf, 9), ENOSPC);
  EXPECT_STREQ(buf, "id=1\nk=v");
  RawDb mnt(Sandbox::db_path("mnt"));
  mnt.exec("UPDATE Meta SET Data='a=1|b=x\\|y'");
  EXPECT_EQ(find("id", "1"), "a=1\nb=x|y\n");
  mnt.exec("UPDATE Meta SET Data=''");
  EXPECT_EQ(find("id", "1"), "\n");
  mnt.exec("UPDATE Meta SET Data='dir=home\\|k=v|n=#ESCAPED#'");
  EXPECT_EQ(find("id", "1"), "dir=home|k=v\nn=|\n");
}

}  // namespace
