// Fuzzes the base-name rule: the result is the longest separator-free suffix of the text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "Path.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const drn::Path path(text);
  const std::string base = path.Basename();
  if (path.GetPath() != text || base.size() > text.size() ||
      text.substr(text.size() - base.size()) != base ||
      base.find_first_of("/\\") != std::string::npos) {
    std::abort();
  }
  // Either the whole text, or what follows a separator.
  if (base.size() < text.size()) {
    const char before = text[text.size() - base.size() - 1];
    if (before != '/' && before != '\\') {
      std::abort();
    }
  }
  return 0;
}
