// Shared by the tar runner tests: a stand-in program directory, a log capture, and a check after
// every test that no descriptor and no child process was left behind.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FakeProgramDir.h"
#include "TestHelpers.h"

namespace drn::testing {

template <typename Base = ::testing::Test>
class TarRunFixture : public Base {
 protected:
  void TearDown() override {
    EXPECT_EQ(CountOpenDescriptors(), descriptors);
    EXPECT_FALSE(HasChildProcesses());
  }

  const int descriptors = CountOpenDescriptors();
  FakeProgramDir programs;
  const LogCapture log;
};

}  // namespace drn::testing
