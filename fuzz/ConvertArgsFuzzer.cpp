// Fuzzes ConvertArgs: the list gains "tar" in front unless it starts with exactly "tar", and the
// result points at the list's own strings, followed by one null pointer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "Untar.h"

namespace {

void Check(bool condition) {
  if (!condition) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // The input's NUL bytes separate the arguments.
  std::vector<std::string> args;
  std::string current;
  for (std::size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      args.push_back(current);
      current.clear();
    } else {
      current.push_back(static_cast<char>(data[i]));
    }
  }
  if (!current.empty()) {
    args.push_back(current);
  }
  const std::vector<std::string> before = args;
  const std::vector<char*> argv = drn::ConvertArgs(args);

  const bool hadTar = !before.empty() && before.front() == "tar";
  Check(args.size() == before.size() + (hadTar ? 0 : 1));
  Check(args.front() == "tar");
  for (std::size_t i = 0; i < before.size(); ++i) {
    Check(args[i + (hadTar ? 0 : 1)] == before[i]);
  }
  Check(argv.size() == args.size() + 1 && argv.back() == nullptr);
  for (std::size_t i = 0; i < args.size(); ++i) {
    Check(argv[i] == args[i].data());
  }
  // A second call finds "tar" in front and adds nothing.
  Check(drn::ConvertArgs(args).size() == argv.size());
  return 0;
}
