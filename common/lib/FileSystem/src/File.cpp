// File: opening, the stream buffer over one descriptor, and the by-name helpers.
#include "File.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <ios>
#include <stdexcept>
#include <utility>
#include <vector>

#include "LinuxApi.h"
#include "Log.h"
#include "Narrow.h"
#include "OutputLoop.h"

namespace drn {
namespace {

constexpr LogCategory kCategory = LogCategory::FileSystem;

// Opens path with flags (a new file gets mode 0644 less the umask) and closes it again, ignoring
// close's result. false, with open's errno, when it cannot be opened.
bool OpenAndClose(const std::string& path, int flags) {
  const int fd = ::open(path.c_str(), flags, 0644);
  if (fd < 0) {
    return false;
  }
  ::close(fd);
  return true;
}

}  // namespace

struct File::Impl {
  Impl(const Options& options, std::unique_ptr<LinuxApiIF> api);

  // Writes the put area at writePosition, then syncfs, then empties the put area. 0 or -1.
  int SyncOutput();
  // Rewinds readPosition over the whole get area, syncfs, then refills. 0 or -1.
  int SyncInput();
  // lseek to offset with SEEK_SET; returns what lseek returned.
  long SeekSet(long offset);
  // One write; returns what write returned.
  long Write(int fd, const void* buffer, unsigned long count);

  int fd = -1;
  std::unique_ptr<LinuxApiIF> linuxApi;
  // Reach the owning File's protected area members (bound by File::BindCallbacks).
  std::function<void(char*, char*)> setp;
  std::function<char*()> pbase;
  std::function<char*()> pptr;
  std::function<char*()> epptr;
  std::function<void(char*, char*, char*)> setg;
  std::function<char*()> eback;
  std::function<char*()> gptr;
  std::function<char*()> egptr;
  std::function<int()> underflow;
  std::int64_t readPosition = 0;   // file offset just past the get area: where a refill reads
  std::int64_t writePosition = 0;  // file offset of the put area's first byte
  std::vector<char> readBuffer;    // only the reserved storage is used; size stays 0
  std::vector<char> writeBuffer;   // likewise
  // Moves the owning File's put pointer; a flush that fails part-way uses it to keep the tail.
  std::function<void(std::ptrdiff_t)> pbump;
  // A write-only File has nothing to refill, so sync leaves its input side alone.
  bool readable = false;
};

File::Impl::Impl(const Options& options, std::unique_ptr<LinuxApiIF> api)
    : linuxApi(api ? std::move(api) : std::make_unique<LinuxApi>()) {
  if (options.inMemory) {
    const std::string name(options.path != nullptr ? options.path->GetPath() : "");
    fd = NarrowOrTerminate<int>(linuxApi->syscall(SYS_memfd_create, name.c_str(), 0));
    if (fd == -1) {
      DRN_LOG(LogLevel::Error, kCategory) << "failed on ram syscall with: " << std::strerror(errno);
      throw std::ios_base::failure("could not open in memory");
    }
    readable = true;
    return;
  }
  if (options.path == nullptr) {
    DRN_LOG(LogLevel::Error, kCategory) << "No path specified in non memory call";
    throw std::invalid_argument("No path specified in non memory call");
  }
  const std::string path(options.path->GetPath());
  if (!options.path->Exists()) {
    DRN_LOG(LogLevel::Error, kCategory) << "Tried to open \"" << path << "\" but it didn't exist";
    throw std::invalid_argument("could not open specified path");
  }
  if (options.path->IsDirectory()) {
    DRN_LOG(LogLevel::Error, kCategory)
        << "Tried to open \"" << path << "\" but it was a directory";
    throw std::invalid_argument("could not open specified path (directory)");
  }
  int flags = O_RDONLY;
  if (options.openForRead && options.openForWrite) {
    flags = O_RDWR;
  } else if (options.openForWrite) {
    flags = O_WRONLY;
  } else if (!options.openForRead) {
    DRN_LOG(LogLevel::Error, kCategory) << "must open file for reading or writing";
    throw std::invalid_argument("openForRead or openForWrite must be true");
  }
  fd = linuxApi->open(path.c_str(), flags);
  if (fd == -1) {
    DRN_LOG(LogLevel::Error, kCategory) << "failed on kernel open with " << std::strerror(errno);
    throw std::ios_base::failure("Failed on kernel call to open");
  }
  readable = options.openForRead;
}

long File::Impl::SeekSet(long offset) {
  const long result = linuxApi->lseek(fd, offset, SEEK_SET);
  if (result == -1) {
    DRN_LOG(LogLevel::Debug, kCategory) << "failed on lseek with " << std::strerror(errno);
  }
  return result;
}

long File::Impl::Write(int fd, const void* buffer, unsigned long count) {
  const long result = linuxApi->write(fd, buffer, count);
  if (result == -1) {
    DRN_LOG(LogLevel::Error, kCategory) << "failed on write with " << std::strerror(errno);
  }
  return result;
}

int File::Impl::SyncOutput() {
  if (SeekSet(writePosition) == -1) {
    return -1;
  }
  char* const begin = pbase();
  const auto pending = static_cast<std::size_t>(pptr() - begin);
  // An interrupted write counts as a failure like any other.
  const std::size_t written =
      WriteFully(begin, pending, OnInterrupt::Fail,
                 [this](const char* data, std::size_t count) { return Write(fd, data, count); });
  writePosition += static_cast<std::int64_t>(written);
  if (written < pending) {
    if (written > 0) {
      // The front is in the file already and writePosition is past it: keep only the tail,
      // so that the next flush neither writes a byte twice nor loses one.
      std::memmove(begin, begin + written, pending - written);
      setp(begin, epptr());
      pbump(static_cast<std::ptrdiff_t>(pending - written));
    }
    return -1;
  }
  if (linuxApi->syncfs(fd) == -1) {
    DRN_LOG(LogLevel::Error, kCategory) << "failed on output sync with " << std::strerror(errno);
  }
  setp(begin, epptr());
  return 0;
}

int File::Impl::SyncInput() {
  readPosition -= egptr() - eback();
  const int result = linuxApi->syncfs(fd);
  if (result == -1) {
    DRN_LOG(LogLevel::Error, kCategory) << "failed on input sync with " << std::strerror(errno);
    return -1;
  }
  if (underflow() == traits_type::eof()) {
    return -1;
  }
  return result;
}

// The stream part is built before the buffer part, which is fine: it only stores the pointer.
File::File(const Options& options, std::unique_ptr<LinuxApiIF> linuxApi)
    : std::iostream(this), impl(std::make_unique<Impl>(options, std::move(linuxApi))) {
  try {
    BindCallbacks();
    impl->writeBuffer.reserve(options.writeBufferSize);
    impl->readBuffer.reserve(std::max<std::size_t>(options.readBufferSize, 1));
  } catch (...) {
    // No destructor runs for a File whose construction fails: close what Impl opened.
    impl->linuxApi->close(impl->fd);
    throw;
  }
  char* const read = impl->readBuffer.data();
  setg(read, read, read);
  char* const write = impl->writeBuffer.data();
  setp(write, write + impl->writeBuffer.capacity());
}

File::File(File&& other) noexcept : std::iostream(nullptr), impl(std::move(other.impl)) {
  if (!impl) {
    return;
  }
  // From here on this object reaches only its own areas, so either may be destroyed first.
  BindCallbacks();
  setg(other.eback(), other.gptr(), other.egptr());
  setp(other.pbase(), other.epptr());
  AdvancePut(other.pptr() - other.pbase());
  other.setg(nullptr, nullptr, nullptr);
  other.setp(nullptr, nullptr);
}

File::~File() {
  if (!impl) {
    return;
  }
  impl->SyncOutput();
  if (impl->linuxApi->close(impl->fd) != 0) {
    DRN_LOG(LogLevel::Error, kCategory) << "failed on close with " << errno;
  }
}

void File::BindCallbacks() {
  impl->setp = [this](char* begin, char* end) { setp(begin, end); };
  impl->pbase = [this] { return pbase(); };
  impl->pptr = [this] { return pptr(); };
  impl->epptr = [this] { return epptr(); };
  impl->setg = [this](char* begin, char* next, char* end) { setg(begin, next, end); };
  impl->eback = [this] { return eback(); };
  impl->gptr = [this] { return gptr(); };
  impl->egptr = [this] { return egptr(); };
  impl->underflow = [this] { return underflow(); };  // virtual: reaches a derived override
  impl->pbump = [this](std::ptrdiff_t count) { AdvancePut(count); };
}

void File::AdvancePut(std::ptrdiff_t count) {
  AdvanceInSteps(count, [this](int step) { pbump(step); });
}

int File::DoGetFD() {
  return impl->fd;
}

int File::overflow(int c) {
  Impl& state = *impl;
  if (state.SyncOutput() != 0) {
    return traits_type::eof();
  }
  if (traits_type::eq_int_type(c, traits_type::eof())) {
    return 0;
  }
  const char byte = traits_type::to_char_type(c);
  if (pbase() != epptr()) {
    *pptr() = byte;
    pbump(1);
    return 0;
  }
  if (state.SeekSet(state.writePosition) == -1 || state.Write(state.fd, &byte, 1) != 1) {
    return traits_type::eof();
  }
  ++state.writePosition;
  return 0;
}

int File::underflow() {
  Impl& state = *impl;
  char* const begin = eback();
  if (state.SeekSet(state.readPosition) == -1) {
    setg(begin, begin, begin);
    return traits_type::eof();
  }
  const std::size_t capacity = state.readBuffer.capacity();
  std::size_t filled = 0;
  while (filled < capacity) {
    const long count = state.linuxApi->read(state.fd, begin + filled, capacity - filled);
    if (count > 0) {
      state.readPosition += count;
      filled += static_cast<std::size_t>(count);
      continue;
    }
    if (count < 0) {
      DRN_LOG(LogLevel::Error, kCategory)
          << "failed on underflow read with " << std::strerror(errno);
    }
    break;
  }
  setg(begin, begin, begin + filled);
  if (filled == 0) {
    return traits_type::eof();
  }
  return traits_type::to_int_type(*begin);
}

std::streampos File::seekpos(std::streampos pos, std::ios_base::openmode mode) {
  Impl& state = *impl;
  const std::streamoff target = pos;
  if (mode == std::ios_base::in) {
    const std::int64_t start = state.readPosition - (egptr() - eback());
    if (start < target && target < state.readPosition) {
      setg(eback(), eback() + (target - start), egptr());
      return pos;
    }
    state.readPosition = target;
    underflow();
    return pos;
  }
  state.SyncOutput();
  state.writePosition = target;
  return pos;
}

std::streampos File::seekoff(std::streamoff, std::ios_base::seekdir, std::ios_base::openmode) {
  DRN_LOG(LogLevel::Error, kCategory) << "Call to unimplemented method seekoff";
  return std::streampos(std::streamoff(-1));
}

std::streamsize File::xsputn(const char* s, std::streamsize n) {
  if (n < 1) {
    return n;
  }
  const int count = NarrowOrTerminate<int>(n);
  int taken = 0;
  while (taken < count) {
    if (pptr() == epptr()) {
      if (traits_type::eq_int_type(overflow(traits_type::to_int_type(s[taken])),
                                   traits_type::eof())) {
        return taken;
      }
      ++taken;
    } else {
      const int length =
          static_cast<int>(std::min<std::ptrdiff_t>(epptr() - pptr(), count - taken));
      traits_type::copy(pptr(), s + taken, static_cast<std::size_t>(length));
      pbump(length);
      taken += length;
    }
  }
  return n;
}

std::streamsize File::xsgetn(char* s, std::streamsize n) {
  if (n < 0) {
    DRN_LOG(LogLevel::Warning, kCategory) << "xsgetn called with negative count size";
    return 0;
  }
  if (egptr() == eback()) {
    underflow();
  }
  if (egptr() - gptr() >= n) {
    traits_type::copy(s, gptr(), static_cast<std::size_t>(n));
    setg(eback(), gptr() + n, egptr());
    return n;
  }
  DRN_LOG(LogLevel::Error, kCategory) << "xsgetn multi buffer read not implemented";
  return std::basic_streambuf<char>::xsgetn(s, n);
}

int File::sync() {
  Impl& state = *impl;
  const int output = state.SyncOutput();
  const int input = state.readable ? state.SyncInput() : 0;
  return output | input;
}

std::streamsize File::showmanyc() {
  DRN_LOG(LogLevel::Debug, kCategory) << "showmanyc not implemented";
  return 0;
}

int File::uflow() {
  DRN_LOG(LogLevel::Debug, kCategory) << "uflow not implemented";
  if (traits_type::eq_int_type(underflow(), traits_type::eof())) {
    return traits_type::eof();
  }
  const int c = traits_type::to_int_type(*gptr());
  gbump(1);
  return c;
}

bool File::CreateFile(const std::string& path) {
  if (OpenAndClose(path, O_RDWR | O_CREAT)) {
    return true;
  }
  DRN_LOG(LogLevel::Error, kCategory)
      << "Could not open " << path << "(" << std::strerror(errno) << ")";
  return false;
}

bool File::RecreateFile(const std::string& path) {
  if (OpenAndClose(path, O_RDWR | O_CREAT | O_TRUNC)) {
    return true;
  }
  DRN_LOG(LogLevel::Error, kCategory)
      << "Could not open " << path << "(" << std::strerror(errno) << ")";
  return false;
}

std::uint64_t File::GetFileSize(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    return 0;
  }
  return static_cast<std::uint64_t>(status.st_size);
}

}  // namespace drn
