// device_writer: appends records to a file on the card until it is killed, and acknowledges each
// record on a second console once the writer's own rule says it is kept.
//
//   device_writer file FILE CONSOLE     through drn::File with a put area, flushed after each
//   record device_writer control FILE CONSOLE  plain write(2), never flushed or synced
//
// Every byte's value is a function of its offset, so the host can check any prefix of the file.
// An acknowledgement is one line "ACK OFFSET LENGTH CHECKSUM" (FNV-1a 64 of the record, hex),
// written only after the record's flush (or, for the control writer, its write) returned.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "File.h"
#include "Path.h"

namespace {

constexpr std::uint32_t kPutAreaSize = 4096;

char PatternByte(std::uint64_t offset) {
  return static_cast<char>(((offset * 2654435761ULL) >> 16U) & 0xffU);
}

std::uint64_t Fnv1a(const std::vector<char>& bytes) {
  std::uint64_t hash = 14695981039346656037ULL;
  for (const char byte : bytes) {
    hash ^= static_cast<unsigned char>(byte);
    hash *= 1099511628211ULL;
  }
  return hash;
}

// Record sizes cycle between 100 and 6099 bytes, so some records fit the put area and some
// overflow it.
std::vector<char> MakeRecord(std::uint64_t index, std::uint64_t offset) {
  std::vector<char> record(100 + (index * 1543U) % 6000U);
  for (std::size_t i = 0; i < record.size(); ++i) {
    record[i] = PatternByte(offset + i);
  }
  return record;
}

void WriteLine(int console, const std::string& line) {
  const std::string text = line + "\n";
  if (::write(console, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    std::perror("device_writer: console");
    _exit(2);
  }
}

void Acknowledge(int console, std::uint64_t offset, const std::vector<char>& record) {
  std::ostringstream line;
  line << "ACK " << offset << ' ' << record.size() << ' ' << std::hex << std::setw(16)
       << std::setfill('0') << Fnv1a(record);
  WriteLine(console, line.str());
}

int RunFileWriter(const std::string& name, int console) {
  if (!drn::File::CreateFile(name)) {
    std::cerr << "device_writer: cannot create " << name << '\n';
    return 1;
  }
  const drn::Path path(name);
  drn::File::Options options;
  options.path = &path;
  options.openForWrite = true;
  options.writeBufferSize = kPutAreaSize;
  drn::File file(options);
  WriteLine(console, "START");
  std::uint64_t offset = 0;
  for (std::uint64_t index = 0;; ++index) {
    const std::vector<char> record = MakeRecord(index, offset);
    file.write(record.data(), static_cast<std::streamsize>(record.size()));
    file.flush();
    if (!file.good()) {
      std::cerr << "device_writer: record " << index << " failed\n";
      return 1;
    }
    Acknowledge(console, offset, record);
    offset += record.size();
  }
}

int RunControlWriter(const std::string& name, int console) {
  const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    std::cerr << "device_writer: " << name << ": " << std::strerror(errno) << '\n';
    return 1;
  }
  WriteLine(console, "START");
  std::uint64_t offset = 0;
  for (std::uint64_t index = 0;; ++index) {
    const std::vector<char> record = MakeRecord(index, offset);
    if (::write(fd, record.data(), record.size()) != static_cast<ssize_t>(record.size())) {
      std::cerr << "device_writer: write: " << std::strerror(errno) << '\n';
      return 1;
    }
    Acknowledge(console, offset, record);
    offset += record.size();
    // Paced like the flushing writer, so the loss is not only the sheer volume of a fast loop.
    ::usleep(20000);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: device_writer file|control FILE CONSOLE\n";
    return 2;
  }
  const std::string mode = argv[1];
  const int console = ::open(argv[3], O_WRONLY | O_CLOEXEC);
  if (console < 0) {
    std::cerr << "device_writer: " << argv[3] << ": " << std::strerror(errno) << '\n';
    return 1;
  }
  if (mode == "file") {
    return RunFileWriter(argv[2], console);
  }
  if (mode == "control") {
    return RunControlWriter(argv[2], console);
  }
  std::cerr << "device_writer: unknown mode " << mode << '\n';
  return 2;
}
