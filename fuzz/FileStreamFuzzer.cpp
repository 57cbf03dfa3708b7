// Fuzzes File's stream buffer over an in-memory file against a model of its two positions.
// Rounds alternate: writes, put()s, seekp()s and flushes move the write side; a flush then makes
// the file and the get area current, and reads, get()s, peek()s and seekg()s move the read side,
// whose every byte must match the model's file.
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "File.h"
#include "LogClient.h"

namespace {

constexpr std::size_t kMaxPosition = 3000;

class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : data(data), size(size) {}
  bool Empty() const { return offset >= size; }
  std::uint8_t Byte() { return offset < size ? data[offset++] : 0; }
  std::size_t Number(std::size_t limit) {
    const std::size_t value = (std::size_t{Byte()} << 8U) | Byte();
    return value % (limit + 1);
  }

 private:
  const std::uint8_t* data;
  std::size_t size;
  std::size_t offset = 0;
};

// Names the broken expectation before the fuzzer records the input.
#define CHECK(condition)                                                           \
  do {                                                                             \
    if (!(condition)) {                                                            \
      std::fprintf(stderr, "check failed at line %d: %s\n", __LINE__, #condition); \
      std::abort();                                                                \
    }                                                                              \
  } while (false)

// The file as it must be once every pending byte has been flushed, the write position, and the
// read side: the loaded get area [areaStart, areaEnd) and the next byte to hand out. A refill
// loads up to `capacity` bytes at the end of the area; a flush reloads the area from its first
// byte, so what was already read from it is read again.
struct Model {
  std::string bytes;
  std::size_t capacity = 1;
  std::size_t writePosition = 0;
  std::size_t areaStart = 0;
  std::size_t areaEnd = 0;
  std::size_t readPosition = 0;

  void Write(const std::string& data) {
    if (data.empty()) {
      return;  // nothing reaches the file, so a gap before the write position stays unwritten
    }
    if (bytes.size() < writePosition + data.size()) {
      bytes.resize(writePosition + data.size(), '\0');  // a gap reads back as zeros
    }
    bytes.replace(writePosition, data.size(), data);
    writePosition += data.size();
  }

  // Loads the get area at offset; false when nothing is there.
  bool Refill(std::size_t offset) {
    const std::size_t available = offset < bytes.size() ? bytes.size() - offset : 0;
    areaStart = offset;
    areaEnd = offset + std::min(capacity, available);
    readPosition = offset;
    return areaEnd > areaStart;
  }

  void Flush() { Refill(areaStart); }

  void Seek(std::size_t offset) {
    if (areaStart < offset && offset < areaEnd) {
      readPosition = offset;
    } else {
      Refill(offset);
    }
  }

  // The next byte without taking it, or EOF.
  int Peek() {
    if (readPosition == areaEnd && !Refill(areaEnd)) {
      return EOF;
    }
    return static_cast<unsigned char>(bytes[readPosition]);
  }

  // How many bytes a block read of n hands out, starting at readPosition.
  std::size_t Read(std::size_t n) {
    if (areaEnd == areaStart) {
      Refill(areaEnd);
    }
    std::size_t count = 0;
    while (count < n) {
      const std::size_t take = std::min(areaEnd - readPosition, n - count);
      readPosition += take;
      count += take;
      if (count < n) {
        if (!Refill(areaEnd)) {
          break;
        }
        ++readPosition;
        ++count;
      }
    }
    return count;
  }
};

std::string ReadAll(int fd) {
  std::string bytes;
  char block[4096];
  for (off_t offset = 0;;) {
    const ssize_t got = ::pread(fd, block, sizeof block, offset);
    if (got <= 0) {
      return bytes;
    }
    bytes.append(block, static_cast<std::size_t>(got));
    offset += got;
  }
}

void WriteRound(Input& input, drn::File& file, Model& model) {
  for (std::size_t steps = input.Number(12); steps > 0 && !input.Empty(); --steps) {
    file.clear();
    switch (input.Byte() % 4) {
      case 0: {
        std::string data(input.Number(200), '\0');
        for (char& c : data) {
          c = static_cast<char>(input.Byte());
        }
        file.write(data.data(), static_cast<std::streamsize>(data.size()));
        CHECK(!file.bad());
        model.Write(data);
        break;
      }
      case 1: {
        const char c = static_cast<char>(input.Byte());
        file.put(c);
        CHECK(!file.bad());
        model.Write(std::string(1, c));
        break;
      }
      case 2:
        model.writePosition = input.Number(kMaxPosition);
        file.seekp(static_cast<std::streamoff>(model.writePosition));
        break;
      default:
        // A refill that brings nothing makes the flush report failure; the output is written.
        file.flush();
        model.Flush();
        break;
    }
  }
}

void ReadRound(Input& input, drn::File& file, Model& model) {
  const std::string& bytes = model.bytes;
  for (std::size_t steps = input.Number(12); steps > 0 && !input.Empty(); --steps) {
    file.clear();
    switch (input.Byte() % 4) {
      case 0: {
        std::string got(input.Number(300), '\0');
        const std::size_t position = model.readPosition;
        file.read(got.data(), static_cast<std::streamsize>(got.size()));
        const auto count = static_cast<std::size_t>(file.gcount());
        CHECK(count == model.Read(got.size()));
        CHECK(count == 0 || got.compare(0, count, bytes, position, count) == 0);
        break;
      }
      case 1: {
        const int expected = model.Peek();
        CHECK(file.get() == expected);
        model.readPosition += expected == EOF ? 0 : 1;
        break;
      }
      case 2:
        CHECK(file.peek() == model.Peek());
        break;
      default: {
        const std::size_t offset = input.Number(kMaxPosition);
        file.seekg(static_cast<std::streamoff>(offset));
        model.Seek(offset);
        break;
      }
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  drn::LogClient::SetLevelFilter([](drn::LogLevel) { return false; });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  drn::File::Options options;
  options.inMemory = true;
  options.readBufferSize = input.Byte() % 70;
  options.writeBufferSize = input.Byte() % 70;
  Model model;
  model.capacity = std::max<std::size_t>(options.readBufferSize, 1);
  int copy = -1;
  {
    drn::File file(options);
    copy = ::dup(file.GetFD());
    while (!input.Empty()) {
      WriteRound(input, file, model);
      file.clear();
      file.flush();  // the file and the get area are current from here on
      model.Flush();
      CHECK(ReadAll(copy) == model.bytes);
      ReadRound(input, file, model);
    }
    file.clear();
    WriteRound(input, file, model);
  }  // destruction writes what is still pending
  CHECK(ReadAll(copy) == model.bytes);
  ::close(copy);
  return 0;
}
