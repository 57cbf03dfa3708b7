// device_writer: writes to a file on the card until it is killed, and acknowledges on a second
// console what the writer's own rule says is kept.
//
//   device_writer file FILE CONSOLE     appends records through drn::File with a put area,
//                                       flushed after each record
//   device_writer control FILE CONSOLE  appends records with plain write(2), never synced
//   device_writer atomic FILE CONSOLE   replaces FILE's whole content through drn::AtomicFile,
//                                       again and again, with versions of alternating sizes
//   device_writer replace-control FILE CONSOLE
//                                       the same versions by hand: a temporary file written,
//                                       fsynced and renamed over FILE, the directory never synced
//
// A record's bytes are a function of their offset in the file, so the host can check any prefix.
// A record's acknowledgement is one line "ACK OFFSET LENGTH CHECKSUM" (FNV-1a 64 of the record,
// hex), written only after its flush (or, for the control writer, its write) returned. A
// version's is "VERSION NUMBER LENGTH", written only after its Commit returned true; a version
// is "version NUMBER\n" and then bytes that are a function of the number and their offset.
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

#include "AtomicFile.h"
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

// Version number's content: small and large versions alternate, so that a replacement changes
// the file's size and the clusters or blocks it takes.
std::string MakeVersion(std::uint64_t number) {
  std::string content = "version " + std::to_string(number) + "\n";
  const std::size_t size = number % 2 == 0 ? 700 : 37000;
  for (std::size_t i = content.size(); i < size; ++i) {
    content += PatternByte(number * 1000003U + i);
  }
  return content;
}

int RunAtomicWriter(const std::string& name, int console) {
  WriteLine(console, "START");
  for (std::uint64_t number = 0;; ++number) {
    const std::string content = MakeVersion(number);
    drn::AtomicFile file(name);
    file << content;
    if (!file.Commit()) {
      std::cerr << "device_writer: version " << number << " was not committed\n";
      return 1;
    }
    WriteLine(console, "VERSION " + std::to_string(number) + " " + std::to_string(content.size()));
  }
}

int RunReplaceControl(const std::string& name, int console) {
  const std::string temporary = name + ".control";
  WriteLine(console, "START");
  for (std::uint64_t number = 0;; ++number) {
    const std::string content = MakeVersion(number);
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0 ||
        ::write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
        ::fsync(fd) != 0 || ::close(fd) != 0 || ::rename(temporary.c_str(), name.c_str()) != 0) {
      std::cerr << "device_writer: version " << number << ": " << std::strerror(errno) << '\n';
      return 1;
    }
    WriteLine(console, "VERSION " + std::to_string(number) + " " + std::to_string(content.size()));
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::cerr << "usage: device_writer file|control|atomic|replace-control FILE CONSOLE\n";
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
  if (mode == "atomic") {
    return RunAtomicWriter(argv[2], console);
  }
  if (mode == "replace-control") {
    return RunReplaceControl(argv[2], console);
  }
  std::cerr << "device_writer: unknown mode " << mode << '\n';
  return 2;
}
