// The benchmarks' workspace: one temporary directory for every data set, and small helpers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace drn::bench {

// The block size of every sequential benchmark and the capacity of every buffer they use.
constexpr std::size_t kBlockSize = std::size_t{64} * 1024;

// Makes the temporary directory (under TMPDIR, or /tmp). Call once before any benchmark runs.
void OpenWorkspace();
// Removes the temporary directory with everything that the benchmarks made in it.
void CloseWorkspace();
// The full path of name inside the temporary directory; the directory itself for "".
std::string WorkspacePath(const std::string& name = "");

// Writes size bytes to fd, retrying short writes; false when a write fails.
bool WriteAll(int fd, const char* data, std::size_t size);

// Fills size bytes at data with a fixed pseudo-random pattern (the same on every run).
void FillPattern(char* data, std::size_t size, std::uint32_t seed);

}  // namespace drn::bench
