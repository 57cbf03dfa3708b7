// GoogleMock substitute for SystemCallWrapper's file-system statistics; every other operation
// keeps the real behaviour.
#pragma once

#include <gmock/gmock.h>

#include "SystemCallWrapper.h"

namespace drn {

class MockSystemCallWrapper : public SystemCallWrapper {
 public:
  MOCK_METHOD(int, statfs, (const char*, struct statfs*), (override));
  MOCK_METHOD(int, statvfs, (const char*, struct statvfs*), (override));
};

}  // namespace drn
