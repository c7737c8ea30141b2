// The error numbers the library returns are the platform's: on the 32-bit
// MIPS target they are the numbers the daemon and its scripts know.
#include <errno.h>
#include <gtest/gtest.h>

#include <string>

#include "sandbox_test.h"
#include "tevul.h"

namespace {

#if defined(__mips__)
constexpr int kNameTooLong = 78;
constexpr int kFileTooBig = 27;
constexpr int kIoError = 5;
#else
constexpr int kNameTooLong = ENAMETOOLONG;
constexpr int kFileTooBig = EFBIG;
constexpr int kIoError = EIO;
#endif

using ErrorNumbers = tevul_test::SandboxTest;

TEST_F(ErrorNumbers, AreTheTargetsNumbers) {
  tevul_test::write_file("/mnt/f", "x");
  tevul_test::Sandbox::write_limits("TAG_NAME_MAX=8\nTAG_VALUE_MAX=8\n");
  tevu_bulk_ctx* bulk = tevu_bulk_init();
  ASSERT_NE(bulk, nullptr);
  ASSERT_EQ(tevu_bulk_setpath(bulk, "/mnt/f"), 0);
  EXPECT_EQ(tevu_bulk_settag(bulk, "longname", "v"), -kNameTooLong);
  EXPECT_EQ(tevu_bulk_settag(bulk, "n", "longvalue"), -kFileTooBig);
  EXPECT_EQ(tevu_bulk_settag_recursive(bulk, "", "v"), kIoError);
  tevu_bulk_fini(bulk);
}

}  // namespace
