// File: a read/write iostream that is its own stream buffer over one descriptor, and helpers
// that create, recreate and measure files by name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <memory>
#include <streambuf>
#include <string>

#include "FileSystemExport.h"
#include "LinuxApiIF.h"
#include "PathIF.h"

namespace drn {

// A read/write stream over one file descriptor, with caller-sized read and write buffers.
class DRN_EXPORT File : public std::iostream, public std::basic_streambuf<char> {
 public:
  // What to open and how to buffer it. The File reads path only while it is being constructed.
  struct Options {
    const PathIF* path = nullptr;       // required unless inMemory; names the in-memory file
    bool inMemory = false;              // an anonymous memory-backed file instead of path
    std::uint32_t writeBufferSize = 0;  // put area capacity; 0 writes every character at once
    std::uint32_t readBufferSize = 0;   // get area capacity; 0 is taken as 1
    bool openForRead = false;           // at least one of the two access modes is required
    bool openForWrite = false;          // writes start at offset 0, over what is there
  };

  // Opens an existing file (neither created, truncated nor appended to) or a new in-memory one.
  // Throws std::invalid_argument for unusable options (no path, missing path, a directory, no
  // access mode) and std::ios_base::failure when the kernel refuses the open. An empty linuxApi
  // makes the File use a LinuxApi of its own.
  explicit File(const Options& options, std::unique_ptr<LinuxApiIF> linuxApi = nullptr);

  // Takes over other's descriptor, buffers, positions and pending output; other may then only be
  // destroyed. The new object is not usable as a stream (no stream buffer, bad state); GetFD
  // works and its destructor flushes and closes.
  File(File&& other) noexcept;

  // Writes pending output, then closes the descriptor. A moved-from File makes no call.
  ~File() override;

  File(const File&) = delete;
  File& operator=(const File&) = delete;
  File& operator=(File&&) = delete;

  // Both bases declare these; the stream's are the ones users mean.
  using std::basic_ios<char>::getloc;
  using std::basic_ios<char>::imbue;
  using std::iostream::char_type;
  using std::iostream::int_type;
  using std::iostream::off_type;
  using std::iostream::pos_type;
  using std::iostream::traits_type;

  // The File's own descriptor; it stays owned by the File and must not be closed by the caller.
  int GetFD() { return DoGetFD(); }

  // Makes sure the file exists (created with mode 0644 less the umask); contents are kept.
  // false, with a log record, when it cannot be opened.
  static bool CreateFile(const std::string& path);
  // Makes sure the file exists and is empty. false, with a log record, when it cannot be opened.
  static bool RecreateFile(const std::string& path);
  // The size that stat reports (symbolic links followed); 0 when it cannot be examined.
  static std::uint64_t GetFileSize(const std::string& path);

 protected:
  virtual int DoGetFD();

  // The stream-buffer operations over the descriptor and the two buffers.
  // @{
  int overflow(int c) override;
  int underflow() override;
  std::streampos seekpos(std::streampos pos, std::ios_base::openmode mode) override;
  std::streampos seekoff(std::streamoff off, std::ios_base::seekdir dir,
                         std::ios_base::openmode mode) override;
  std::streamsize xsputn(const char* s, std::streamsize n) override;
  std::streamsize xsgetn(char* s, std::streamsize n) override;
  int sync() override;
  std::streamsize showmanyc() override;
  int uflow() override;
  // @}

 private:
  struct Impl;

  // Points impl's callbacks at this object's stream-buffer part.
  void BindCallbacks();
  // Moves the put pointer forward by count characters (pbump only takes an int).
  void AdvancePut(std::ptrdiff_t count);

  std::unique_ptr<Impl> impl;
};

}  // namespace drn
