// A user's test against the installed package: the GoogleMock substitute and the test helpers.
#include <gtest/gtest.h>

#include <memory>

#include "MockLinuxApi.h"
#include "Path.h"
#include "TestHelpers.h"

namespace {

TEST(ConsumerTest, PathAsksTheSubstitute) {
  auto api = std::make_unique<::testing::StrictMock<drn::MockLinuxApi>>();
  EXPECT_CALL(*api, DoAccess(::testing::StrEq("/anything"), ::testing::_))
      .WillOnce(::testing::Return(0));
  const drn::Path path("/anything", std::move(api));
  EXPECT_TRUE(path.Exists());
}

TEST(ConsumerTest, TempDirHoldsRealFiles) {
  const drn::testing::TempDir dir;
  const drn::Path path(dir.WriteFile("f", "x"));
  EXPECT_TRUE(path.Exists());
  EXPECT_EQ(path.Basename(), "f");
}

}  // namespace
