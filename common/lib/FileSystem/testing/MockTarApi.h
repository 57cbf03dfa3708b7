// GoogleMock substitute for TarApi: scripted results instead of a tar child process.
#pragma once

#include <gmock/gmock.h>

#include <string>
#include <utility>
#include <vector>

#include "Untar.h"

namespace drn {

class MockTarApi : public TarApi {
 public:
  MOCK_METHOD((std::pair<std::string, int>), RunCmd, (std::vector<std::string> & args), (override));
};

}  // namespace drn
