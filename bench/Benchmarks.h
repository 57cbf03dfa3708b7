// The benchmark families; main registers them in this order, which is the order they run in.
#pragma once

namespace drn::bench {

// Sequential reads and writes of a large file.
void RegisterFileBenchmarks();
// The size of a directory tree and the file system's usage.
void RegisterDirectoryBenchmarks();
// Listing tar archives.
void RegisterTarBenchmarks();
// Replacing a whole file durably.
void RegisterAtomicFileBenchmarks();

}  // namespace drn::bench
