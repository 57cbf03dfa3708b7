// Runs the benchmarks in a temporary directory that is removed afterwards.
#include <benchmark/benchmark.h>

#include "Benchmarks.h"
#include "LogClient.h"
#include "Workspace.h"

int main(int argc, char** argv) {
  // A stream read that spans beyond the loaded get area writes a level-3 record at every refill;
  // keep only levels up to 2, so that the figures show the input and output, not the logging.
  drn::LogClient::SetLevelFilter([](drn::LogLevel level) { return static_cast<int>(level) <= 2; });
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  drn::bench::OpenWorkspace();
  benchmark::AddCustomContext("workspace", drn::bench::WorkspacePath());
  drn::bench::RegisterFileBenchmarks();
  drn::bench::RegisterDirectoryBenchmarks();
  drn::bench::RegisterTarBenchmarks();
  drn::bench::RegisterAtomicFileBenchmarks();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  drn::bench::CloseWorkspace();
  return 0;
}
