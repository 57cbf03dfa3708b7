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

  explicit FakeProgramDir(Search search = Search::First) : path("PATH", Searched(search)) {}

  // Writes an executable /bin/sh script called name that runs body; returns its full path.
  std::string AddScript(const std::string& name, const std::string& body) const {
    const std::string full = dir.WriteFile(name, "#!/bin/sh\n" + body + "\n");
    ::chmod(full.c_str(), 0755);
    return full;
  }

  const TempDir& Dir() const { return dir; }

 private:
  std::string Searched(Search search) const {
    const char* rest = std::getenv("PATH");
    // An empty entry would search the working directory.
    return search == Search::Only || rest == nullptr || *rest == '\0' ? dir.Path()
                                                                      : dir.Path() + ":" + rest;
  }

  TempDir dir;
  ScopedEnvironmentVariable path;
};

}  // namespace drn::testing
