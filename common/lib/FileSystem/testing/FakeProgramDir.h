// Stand-in programs for tests: executable scripts in a directory searched first on PATH.
#pragma once

#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "TestHelpers.h"

namespace drn::testing {

// A directory of stand-in programs searched first (or alone) on PATH while it lives; PATH is
// put back afterwards. Not for tests that run threads while it changes the environment.
class FakeProgramDir {
 public:
  enum class Search { First, Only };

  explicit FakeProgramDir(Search search = Search::First) {
    const char* path = std::getenv("PATH");
    if (path != nullptr) {
      previousPath = path;
    }
    const std::string searched = search == Search::Only || previousPath.empty()
                                     ? dir.Path()
                                     : dir.Path() + ":" + previousPath;
    ::setenv("PATH", searched.c_str(), 1);
  }
  ~FakeProgramDir() {
    if (previousPath.empty()) {
      ::unsetenv("PATH");
    } else {
      ::setenv("PATH", previousPath.c_str(), 1);
    }
  }
  FakeProgramDir(const FakeProgramDir&) = delete;
  FakeProgramDir& operator=(const FakeProgramDir&) = delete;

  // Writes an executable /bin/sh script called name that runs body; returns its full path.
  std::string AddScript(const std::string& name, const std::string& body) const {
    const std::string full = dir.WriteFile(name, "#!/bin/sh\n" + body + "\n");
    ::chmod(full.c_str(), 0755);
    return full;
  }

  const TempDir& Dir() const { return dir; }

 private:
  TempDir dir;
  std::string previousPath;
};

}  // namespace drn::testing
