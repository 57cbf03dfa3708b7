// GoogleMock substitute for PathIF.
#pragma once

#include <gmock/gmock.h>

#include <string>
#include <string_view>

#include "PathIF.h"

namespace drn {

class MockPath : public PathIF {
 public:
  MOCK_METHOD(bool, DoExists, (), (const, override));
  MOCK_METHOD(std::string, DoBasename, (), (const, override));
  MOCK_METHOD(std::string_view, DoGetPath, (), (const, override));
  MOCK_METHOD(bool, DoIsDirectory, (), (const, override));
};

}  // namespace drn
