// GoogleTest fixture: each test runs in its own Sandbox (see sandbox.h),
// and is skipped, saying why, where a sandbox cannot be built.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "sandbox.h"

namespace tevul_test {

class SandboxTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (std::string why = Sandbox::unavailable_reason(); !why.empty()) {
      GTEST_SKIP() << why;
    }
    ASSERT_EQ(sandbox_.start(volumes()), "");
  }
  // The volumes to build; override for others.
  virtual std::vector<std::string> volumes() const { return {"mnt", "srv"}; }

  Sandbox sandbox_;
};

}  // namespace tevul_test
