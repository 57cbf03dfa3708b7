// device_writer: writes to a file on the card until it is killed, and acknowledges on a second
// console what the writer's own rule says is kept.
//
//   device_writer file FILE CONSOLE     appends records through drn::File with a put area,
//                                       flushed after each record
//   device_writer durable FILE CONSOLE  the same through a File on drn::DurableLinuxApi
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
// A fourth argument DEVICE:OFFSET also writes each acknowledgement to the card's mark area.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "AtomicFile.h"
#include "DurableLinuxApi.h"
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

// Where acknowledgements go: the console, and, when a mark area is given, one 512-byte sector
// per acknowledgement in a ring at the card's end, beyond the file system. A mark is written
// with O_DIRECT after the console line and is never flushed, so in the card's write log it
// shows where the writer had been told its data was kept.
class Acknowledger {
 public:
  Acknowledger(int console, const char* marks) : console(console) {
    if (marks == nullptr) {
      return;
    }
    const std::string spec = marks;
    const std::size_t colon = spec.rfind(':');
    markFd = ::open(spec.substr(0, colon).c_str(), O_WRONLY | O_DIRECT | O_CLOEXEC);
    markOffset = std::stoull(spec.substr(colon + 1));
    if (markFd < 0 || ::posix_memalign(&sector, kMarkSize, kMarkSize) != 0) {
      std::perror("device_writer: mark area");
      _exit(2);
    }
  }

  void operator()(const std::string& line) {
    const std::string text = line + "\n";
    if (::write(console, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
      std::perror("device_writer: console");
      _exit(2);
    }
    if (markFd < 0) {
      return;
    }
    std::memset(sector, 0, kMarkSize);
    std::memcpy(sector, text.data(), std::min<std::size_t>(text.size(), kMarkSize));
    const off_t at = static_cast<off_t>(markOffset + (marks++ % kMarkSectors) * kMarkSize);
    if (::pwrite(markFd, sector, kMarkSize, at) != static_cast<ssize_t>(kMarkSize)) {
      std::perror("device_writer: mark");
      _exit(2);
    }
  }

 private:
  static constexpr std::size_t kMarkSize = 512;
  static constexpr std::uint64_t kMarkSectors = 2048;
  int console;
  int markFd = -1;
  std::uint64_t markOffset = 0;
  std::uint64_t marks = 0;
  void* sector = nullptr;
};

// Appends records until killed: through a File flushed after each record (file: the default
// system-call layer, durable: DurableLinuxApi), or with plain write(2) and never a sync
// (control). A record is acknowledged once its flush (or write) returned.
int RunRecordWriter(const std::string& mode, const std::string& name, Acknowledger& acknowledge) {
  std::unique_ptr<drn::File> file;
  int fd = -1;
  if (mode == "control") {
    fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  } else if (drn::File::CreateFile(name)) {
    const drn::Path path(name);
    drn::File::Options options;
    options.path = &path;
    options.openForWrite = true;
    options.writeBufferSize = kPutAreaSize;
    file = std::make_unique<drn::File>(
        options, mode == "durable" ? std::make_unique<drn::DurableLinuxApi>() : nullptr);
  }
  if (fd < 0 && !file) {
    std::cerr << "device_writer: cannot create " << name << '\n';
    return 1;
  }
  acknowledge("START");
  std::uint64_t offset = 0;
  for (std::uint64_t index = 0;; ++index) {
    const std::vector<char> record = MakeRecord(index, offset);
    bool written = false;
    if (file) {
      file->write(record.data(), static_cast<std::streamsize>(record.size()));
      file->flush();
      written = file->good();
    } else {
      written = ::write(fd, record.data(), record.size()) == static_cast<ssize_t>(record.size());
    }
    if (!written) {
      std::cerr << "device_writer: record " << index << " failed\n";
      return 1;
    }
    std::ostringstream line;
    line << "ACK " << offset << ' ' << record.size() << ' ' << std::hex << std::setw(16)
         << std::setfill('0') << Fnv1a(record);
    acknowledge(line.str());
    offset += record.size();
    if (!file) {
      // Paced like the flushing writers, so the loss is not only the sheer volume of a fast loop.
      ::usleep(20000);
    }
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

// Replaces the file's whole content until killed: through AtomicFile (atomic), or by hand
// (replace-control): a temporary file written, fsynced and renamed over it, the directory never
// synced. A version is acknowledged once its replacement returned.
bool Replace(const std::string& mode, const std::string& name, const std::string& content) {
  if (mode == "atomic") {
    drn::AtomicFile file(name);
    file << content;
    return file.Commit();
  }
  const std::string temporary = name + ".control";
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  return fd >= 0 &&
         ::write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()) &&
         ::fsync(fd) == 0 && ::close(fd) == 0 && ::rename(temporary.c_str(), name.c_str()) == 0;
}

int RunReplacingWriter(const std::string& mode, const std::string& name,
                       Acknowledger& acknowledge) {
  acknowledge("START");
  for (std::uint64_t number = 0;; ++number) {
    const std::string content = MakeVersion(number);
    if (!Replace(mode, name, content)) {
      std::cerr << "device_writer: version " << number << ": " << std::strerror(errno) << '\n';
      return 1;
    }
    acknowledge("VERSION " + std::to_string(number) + " " + std::to_string(content.size()));
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::string mode = argc >= 4 ? argv[1] : "";
  const bool records = mode == "file" || mode == "durable" || mode == "control";
  if ((argc != 4 && argc != 5) || (!records && mode != "atomic" && mode != "replace-control")) {
    std::cerr << "usage: device_writer file|durable|control|atomic|replace-control FILE CONSOLE"
                 " [DEVICE:OFFSET]\n";
    return 2;
  }
  const int console = ::open(argv[3], O_WRONLY | O_CLOEXEC);
  if (console < 0) {
    std::cerr << "device_writer: " << argv[3] << ": " << std::strerror(errno) << '\n';
    return 1;
  }
  Acknowledger acknowledge(console, argc == 5 ? argv[4] : nullptr);
  return records ? RunRecordWriter(mode, argv[2], acknowledge)
                 : RunReplacingWriter(mode, argv[2], acknowledge);
}
