// Fuzzes the listing splitter: a runner hands the fuzzer's bytes to Untar as tar's output.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "PathIF.h"
#include "Untar.h"

namespace {

// An archive path that exists and is no directory, without touching the file system.
class ArchivePath : public drn::PathIF {
 protected:
  bool DoExists() const override { return true; }
  std::string DoBasename() const override { return "archive.tar"; }
  std::string_view DoGetPath() const override { return "archive.tar"; }
  bool DoIsDirectory() const override { return false; }
};

class ScriptedRunner : public drn::TarApi {
 public:
  std::string output;
  std::pair<std::string, int> RunCmd(std::vector<std::string>&) override { return {output, 0}; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  auto runner = std::make_shared<ScriptedRunner>();
  runner->output.assign(reinterpret_cast<const char*>(data), size);
  drn::Untar untar(std::make_shared<ArchivePath>(), runner);
  const std::vector<std::string> names = untar.FileList();

  // Every line that is neither empty nor ends in '/' comes back unchanged, in order.
  std::vector<std::string> expected;
  std::string_view rest = runner->output;
  while (true) {
    const std::size_t end = rest.find('\n');
    const std::string_view line = rest.substr(0, end);
    if (!line.empty() && line.back() != '/') {
      expected.emplace_back(line);
    }
    if (end == std::string_view::npos) {
      break;
    }
    rest.remove_prefix(end + 1);
  }
  if (names != expected) {
    std::abort();
  }
  return 0;
}
