// drxfs: command-line access to the file-system library. For now: path queries.
#include <iostream>

#include "Path.h"

int main(int argc, char** argv) {
  if (argc < 2) {
    std::cerr << "usage: drxfs path PATH...\n";
    return 2;
  }
  for (int i = 1; i < argc; ++i) {
    const drn::Path path(argv[i]);
    std::cout << path.GetPath() << ": exists=" << (path.Exists() ? "yes" : "no")
              << " directory=" << (path.IsDirectory() ? "yes" : "no") << " basename=\""
              << path.Basename() << "\"\n";
  }
  return 0;
}
