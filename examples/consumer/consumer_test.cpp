// A user's test against the installed package: the GoogleMock substitutes and the test helpers.
#include <gtest/gtest.h>

#include <memory>

#include "MockLinuxApi.h"
#include "MockTarApi.h"
#include "Path.h"
#include "TestHelpers.h"
#include "Untar.h"

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

TEST(ConsumerTest, UntarListsWhatTheSubstituteRunnerAnswers) {
  const drn::testing::TempDir dir;
  auto runner = std::make_shared<::testing::StrictMock<drn::MockTarApi>>();
  EXPECT_CALL(*runner, RunCmd)
      .WillOnce(::testing::Return(std::make_pair(std::string("a\nb/\nb/c\n"), 0)));
  drn::Untar untar(std::make_shared<drn::Path>(dir.WriteFile("x.tar", "")), runner);
  EXPECT_EQ(untar.FileList(), (std::vector<std::string>{"a", "b/c"}));
}

}  // namespace
